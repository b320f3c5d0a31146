// Writes a few small, valid model files into a directory, as the seed corpus
// of the model-file fuzz target. The models are made by hand (weights and a
// filter of the smallest accepted sizes) and written by the engine's own
// exporter, so each seed carries a correct trailer.
//
//   make_seed_corpus <directory>
#include <cstdio>
#include <memory>
#include <string>

#include "engine/ostrel_alg.h"

namespace {

struct seed_model {
    const char *name;
    int32_t weights;
    int components;  // 0: no filter
    float threshold;
};

std::unique_ptr<ostrel_alg> hand_made_engine(const seed_model &seed) {
    auto engine = std::make_unique<ostrel_alg>();
    if (engine->init() != 0) {
        return nullptr;
    }
    ostrel::svm_model &m = engine->svm_model;
    m.class_idx = 0;
    m.trained_width = 24;
    m.trained_height = 16;
    m.input_width = 320;
    m.input_height = 240;
    m.trained_acf_scale_idx = 1;
    m.support_vector_size = seed.weights;
    m.bias = -31337;
    m.vector = std::make_unique<int32_t[]>(static_cast<size_t>(seed.weights));
    for (int32_t i = 0; i < seed.weights; ++i) {
        m.vector[i] = (i * 7919) % 20001 - 10000;
    }
    ostrel::pca_fp_filter &f = engine->pca_filter;
    f.fp_threshold = seed.threshold;
    if (seed.components > 0) {
        const int d = seed.weights;
        const int k = seed.components;
        f.mean = cv::Mat(1, d, CV_32F);
        for (int i = 0; i < d; ++i) {
            f.mean.at<float>(0, i) = static_cast<float>(i % 13) * 0.5f;
        }
        f.eigenvectors = cv::Mat::zeros(k, d, CV_32F);
        for (int r = 0; r < k; ++r) {
            f.eigenvectors.at<float>(r, r) = 1.0f;
        }
        f.reduce_mean = cv::Mat::zeros(1, k, CV_32F);
        f.reduce_inv_covar = cv::Mat::eye(k, k, CV_32F) * 0.25;
        f.pca_filter_ready = 1;
        // One positive sample at distance 3 fixes the exported threshold at 4.0.
        ostrel::training_sample positive;
        positive.features.assign(static_cast<size_t>(d), 0.0f);
        for (int i = 0; i < d; ++i) {
            positive.features[static_cast<size_t>(i)] = f.mean.at<float>(0, i);
        }
        positive.features[0] += 6.0f;
        positive.label = 1;
        engine->training_samples.push_back(positive);
    }
    return engine;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <directory>\n", argv[0]);
        return 2;
    }
    const std::string directory = argv[1];
    const seed_model seeds[] = {
        {"plain_201.model", 201, 0, 15.0f},
        {"plain_260.model", 260, 0, 7.5f},
        {"filter_201_k1.model", 201, 1, 15.0f},
        {"filter_220_k3.model", 220, 3, 15.0f},
    };
    for (const seed_model &seed : seeds) {
        auto engine = hand_made_engine(seed);
        const std::string path = directory + "/" + seed.name;
        if (!engine || engine->exportModel(path) != 0 || engine->checkModelValidation(path) != 0) {
            std::fprintf(stderr, "could not write %s\n", path.c_str());
            return 1;
        }
    }
    return 0;
}
