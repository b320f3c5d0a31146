// The dual coordinate descent SVM: it separates what can be separated, the
// margins it reports agree with its byte weights and bias, the same seed
// gives the same weights, and a training stops within its bound.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/linear_svm.h"

namespace {

// Two clouds of byte vectors: positives bright in the first half, dark in
// the second; negatives the other way round, with noise.
ostrel::linear_svm two_clouds(int32_t dimension, int per_class, uint32_t seed) {
    ostrel::linear_svm svm(dimension);
    uint32_t state = seed;
    auto noise = [&] {
        state = state * 1103515245u + 12345u;
        return static_cast<int>((state >> 16) % 60);
    };
    std::vector<uint8_t> x(static_cast<size_t>(dimension));
    for (int i = 0; i < 2 * per_class; ++i) {
        const bool positive = i % 2 == 0;
        for (int32_t j = 0; j < dimension; ++j) {
            const bool first_half = j < dimension / 2;
            x[static_cast<size_t>(j)] = static_cast<uint8_t>((positive == first_half ? 170 : 60) + noise());
        }
        svm.add(x.data(), positive ? 1 : -1);
    }
    return svm;
}

TEST(LinearSvm, SeparatesTwoClouds) {
    ostrel::linear_svm svm = two_clouds(40, 50, 7);
    svm.centre_on_samples();
    ostrel::linear_svm_settings settings;
    settings.cost = 10.0;
    const int32_t epochs = svm.train(settings);
    EXPECT_GT(epochs, 0);
    EXPECT_LT(epochs, settings.max_epochs);
    for (size_t i = 0; i < svm.size(); ++i) {
        EXPECT_GT(svm.label(i) * svm.margin(svm.sample(i)), 0.0) << i;
    }
}

TEST(LinearSvm, ByteWeightsAndBiasGiveTheSameMarginsOnRawBytes) {
    ostrel::linear_svm svm = two_clouds(30, 20, 3);
    svm.centre_on_samples();
    svm.train(ostrel::linear_svm_settings{});
    const std::vector<float> w = svm.byte_weights();
    for (size_t i = 0; i < svm.size(); ++i) {
        double margin = svm.bias();
        for (int32_t j = 0; j < svm.dimension(); ++j) margin += w[static_cast<size_t>(j)] * svm.sample(i)[j];
        EXPECT_NEAR(margin, svm.margin(svm.sample(i)), 1e-3);
    }
}

TEST(LinearSvm, TheSameSeedGivesTheSameWeights) {
    std::vector<float> first;
    for (int run = 0; run < 2; ++run) {
        ostrel::linear_svm svm = two_clouds(25, 30, 11);
        svm.centre_on_samples();
        ostrel::linear_svm_settings settings;
        settings.seed = 42;
        svm.train(settings);
        if (run == 0) {
            first = svm.byte_weights();
        } else {
            EXPECT_EQ(svm.byte_weights(), first);
        }
    }
}

TEST(LinearSvm, ATrainingStopsAtItsVisitBound) {
    ostrel::linear_svm svm(8);
    const std::vector<uint8_t> x(8, 100);
    for (int i = 0; i < 20; ++i) svm.add(x.data(), i % 2 ? 1 : -1);
    svm.centre_on_samples();
    ostrel::linear_svm_settings settings;
    settings.tolerance = 0.0;
    settings.max_visits = 100;  // five passes over 20 samples
    EXPECT_LE(svm.train(settings), 5);
}

TEST(LinearSvm, ATrainingStopsAtItsEpochBound) {
    // Samples that cannot be told apart (the same bytes, both labels) keep
    // the solver busy; the bound ends it.
    ostrel::linear_svm svm(8);
    const std::vector<uint8_t> x(8, 100);
    for (int i = 0; i < 20; ++i) svm.add(x.data(), i % 2 ? 1 : -1);
    svm.centre_on_samples();
    ostrel::linear_svm_settings settings;
    settings.max_epochs = 5;
    settings.tolerance = 0.0;
    EXPECT_LE(svm.train(settings), 5);
}

TEST(LinearSvm, AWarmStartNeedsFewerPassesAndKeepsTheDecisions) {
    ostrel::linear_svm svm = two_clouds(20, 20, 5);
    svm.centre_on_samples();
    ostrel::linear_svm_settings settings;
    settings.tolerance = 0.01;
    const int32_t cold = svm.train(settings);
    // A sample far on its own side of the boundary.
    std::vector<uint8_t> easy(20);
    for (int j = 0; j < 20; ++j) easy[static_cast<size_t>(j)] = j < 10 ? 10 : 250;
    svm.add(easy.data(), -1);
    const int32_t warm = svm.train(settings);
    EXPECT_LT(warm, cold);
    for (size_t i = 0; i < svm.size(); ++i) EXPECT_GT(svm.label(i) * svm.margin(svm.sample(i)), 0.0) << i;
}

}  // namespace
