// The solver's byte kernels: the AVX2 loop gives the plain loop's floats,
// bit for bit, for rows of every length around the lane and vector widths,
// so a training is the same on every processor. Skipped (and said so) on a
// processor without AVX2.
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/linear_svm.h"

namespace {

std::vector<int32_t> lengths() {
    std::vector<int32_t> n = {0, 1, 2, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 127, 255, 1000, 1003};
    n.push_back(10 * 8 * 16);  // a window of the accurate profile's shape
    return n;
}

TEST(LinearSvmKernels, TheAvx2DotProductGivesThePlainFloats) {
    if (!ostrel::svm_kernel_path_available(ostrel::svm_kernel_path::avx2)) {
        GTEST_SKIP() << "this processor has no AVX2: the vector loop is not run";
    }
    std::mt19937 random(11);
    std::uniform_real_distribution<float> weight(-3.0f, 3.0f);
    for (const int32_t n : lengths()) {
        for (int trial = 0; trial < 4; ++trial) {
            std::vector<float> w(static_cast<size_t>(n) + 1);
            std::vector<uint8_t> x(static_cast<size_t>(n) + 1);
            for (float &v : w) v = trial == 3 ? weight(random) * 1e-7f : weight(random);
            for (uint8_t &v : x) v = trial == 2 ? 255 : static_cast<uint8_t>(random() & 0xff);
            const float plain = ostrel::byte_dot(w.data(), x.data(), n, ostrel::svm_kernel_path::plain);
            const float fast = ostrel::byte_dot(w.data(), x.data(), n, ostrel::svm_kernel_path::avx2);
            EXPECT_EQ(std::memcmp(&plain, &fast, sizeof plain), 0)
                << "n " << n << " trial " << trial << ": " << plain << " and " << fast;
        }
    }
}

TEST(LinearSvmKernels, TheAvx2UpdateGivesThePlainFloats) {
    if (!ostrel::svm_kernel_path_available(ostrel::svm_kernel_path::avx2)) {
        GTEST_SKIP() << "this processor has no AVX2: the vector loop is not run";
    }
    std::mt19937 random(12);
    std::uniform_real_distribution<float> weight(-3.0f, 3.0f);
    for (const int32_t n : lengths()) {
        std::vector<float> start(static_cast<size_t>(n) + 1);
        std::vector<uint8_t> x(static_cast<size_t>(n) + 1);
        for (float &v : start) v = weight(random);
        for (uint8_t &v : x) v = static_cast<uint8_t>(random() & 0xff);
        for (const float step : {0.0f, 1.0f / 255.0f, -0.37f, 1e-9f}) {
            std::vector<float> plain = start;
            std::vector<float> fast = start;
            ostrel::add_bytes(plain.data(), step, x.data(), n, ostrel::svm_kernel_path::plain);
            ostrel::add_bytes(fast.data(), step, x.data(), n, ostrel::svm_kernel_path::avx2);
            ASSERT_EQ(std::memcmp(plain.data(), fast.data(), plain.size() * sizeof(float)), 0) << "n " << n;
            EXPECT_EQ(plain.back(), start.back()) << "the element past n is left alone";
        }
    }
}

TEST(LinearSvmKernels, ThePlainPathIsAlwaysAvailable) {
    EXPECT_TRUE(ostrel::svm_kernel_path_available(ostrel::svm_kernel_path::plain));
    EXPECT_TRUE(ostrel::svm_kernel_path_available(ostrel::svm_kernel_path::fastest));
}

}  // namespace
