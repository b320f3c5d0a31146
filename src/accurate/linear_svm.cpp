#include "accurate/linear_svm.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace ostrel {

namespace {

constexpr double kByteScale = 1.0 / 255.0;

// A small generator of its own (xorshift), so that the order of the
// coordinates depends on the seed alone.
struct order_generator {
    uint32_t state;
    explicit order_generator(uint32_t seed) : state(seed == 0 ? 0x9E3779B9u : seed) {}
    uint32_t next() {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
    // Uniform in 0..n-1 (n >= 1); the slight bias of the modulo does not
    // matter for an order of coordinates.
    uint32_t below(uint32_t n) { return next() % n; }
};

}  // namespace

linear_svm::linear_svm(int32_t dimension)
    : dimension_(std::max(dimension, 0)), weights_(static_cast<size_t>(std::max(dimension, 0)) + 1, 0.0) {}

void linear_svm::add(const uint8_t *features, int32_t label) {
    features_.insert(features_.end(), features, features + dimension_);
    labels_.push_back(label > 0 ? 1 : -1);
    alpha_.push_back(0.0);
    double norm = 1.0;  // the bias feature
    for (int32_t j = 0; j < dimension_; ++j) {
        const double v = features[j] * kByteScale;
        norm += v * v;
    }
    norms_.push_back(norm);
}

double linear_svm::margin(const uint8_t *features) const {
    double sum = 0.0;
    for (int32_t j = 0; j < dimension_; ++j) {
        sum += weights_[static_cast<size_t>(j)] * features[j];
    }
    return sum * kByteScale + weights_.back();
}

int32_t linear_svm::train(const linear_svm_settings &settings) {
    const size_t n = labels_.size();
    // The weights follow from the dual variables (they may come from an
    // earlier training on fewer samples).
    std::fill(weights_.begin(), weights_.end(), 0.0);
    for (size_t i = 0; i < n; ++i) {
        if (alpha_[i] == 0.0) continue;
        const double step = alpha_[i] * labels_[i];
        const uint8_t *x = sample(i);
        for (int32_t j = 0; j < dimension_; ++j) weights_[static_cast<size_t>(j)] += step * x[j] * kByteScale;
        weights_.back() += step;
    }
    if (n == 0) return 0;

    std::vector<uint32_t> index(n);
    std::iota(index.begin(), index.end(), 0u);
    order_generator generator(settings.seed);
    size_t active = n;
    double pg_max_old = std::numeric_limits<double>::infinity();
    double pg_min_old = -std::numeric_limits<double>::infinity();
    int32_t epoch = 0;
    const double *w = nullptr;
    for (; epoch < settings.max_epochs; ++epoch) {
        double pg_max = -std::numeric_limits<double>::infinity();
        double pg_min = std::numeric_limits<double>::infinity();
        for (size_t s = 0; s < active; ++s) {
            std::swap(index[s], index[s + generator.below(static_cast<uint32_t>(active - s))]);
        }
        for (size_t s = 0; s < active; ++s) {
            const uint32_t i = index[s];
            const int32_t y = labels_[i];
            const double cost = y > 0 ? settings.cost_positive : settings.cost_negative;
            const uint8_t *x = sample(i);
            w = weights_.data();
            double dot = 0.0;
            for (int32_t j = 0; j < dimension_; ++j) dot += w[j] * x[j];
            const double g = y * (dot * kByteScale + weights_.back()) - 1.0;
            double pg = 0.0;
            if (alpha_[i] == 0.0) {
                if (g > pg_max_old) {  // shrink: at its bound and likely to stay there
                    --active;
                    std::swap(index[s], index[active]);
                    --s;
                    continue;
                }
                if (g < 0.0) pg = g;
            } else if (alpha_[i] == cost) {
                if (g < pg_min_old) {
                    --active;
                    std::swap(index[s], index[active]);
                    --s;
                    continue;
                }
                if (g > 0.0) pg = g;
            } else {
                pg = g;
            }
            pg_max = std::max(pg_max, pg);
            pg_min = std::min(pg_min, pg);
            if (std::fabs(pg) > 1e-12) {
                const double old = alpha_[i];
                alpha_[i] = std::min(std::max(old - g / norms_[i], 0.0), cost);
                const double step = (alpha_[i] - old) * y;
                const double scaled = step * kByteScale;
                for (int32_t j = 0; j < dimension_; ++j) weights_[static_cast<size_t>(j)] += scaled * x[j];
                weights_.back() += step;
            }
        }
        if (pg_max - pg_min <= settings.tolerance) {
            if (active == n) break;
            // Converged on the active set: check every sample once more.
            active = n;
            pg_max_old = std::numeric_limits<double>::infinity();
            pg_min_old = -std::numeric_limits<double>::infinity();
            continue;
        }
        pg_max_old = pg_max <= 0.0 ? std::numeric_limits<double>::infinity() : pg_max;
        pg_min_old = pg_min >= 0.0 ? -std::numeric_limits<double>::infinity() : pg_min;
    }
    return epoch;
}

std::vector<float> linear_svm::byte_weights() const {
    std::vector<float> out(static_cast<size_t>(dimension_));
    for (int32_t j = 0; j < dimension_; ++j) out[static_cast<size_t>(j)] = static_cast<float>(weights_[static_cast<size_t>(j)] * kByteScale);
    return out;
}

}  // namespace ostrel
