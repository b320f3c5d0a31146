#include "accurate/linear_svm.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace ostrel {

namespace {

constexpr float kByteScale = 1.0f / 255.0f;

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

// sum over j of w[j] * (x[j] / 255 - centre[j]).
float centred_dot(const float *w, const uint8_t *x, const float *centre, int32_t n) {
    float sum = 0.0f;
    for (int32_t j = 0; j < n; ++j) sum += w[j] * (static_cast<float>(x[j]) * kByteScale - centre[j]);
    return sum;
}

// w[j] += step * (x[j] / 255 - centre[j]).
void add_centred(float *w, float step, const uint8_t *x, const float *centre, int32_t n) {
    for (int32_t j = 0; j < n; ++j) w[j] += step * (static_cast<float>(x[j]) * kByteScale - centre[j]);
}

}  // namespace

linear_svm::linear_svm(int32_t dimension)
    : dimension_(std::max(dimension, 0)),
      weights_(static_cast<size_t>(std::max(dimension, 0)) + 1, 0.0f),
      centre_(static_cast<size_t>(std::max(dimension, 0)), 0.0f) {}

double linear_svm::centred_norm(const uint8_t *features) const {
    double norm = 1.0;  // the bias feature
    for (int32_t j = 0; j < dimension_; ++j) {
        const double v = features[j] * static_cast<double>(kByteScale) - centre_[static_cast<size_t>(j)];
        norm += v * v;
    }
    return norm;
}

void linear_svm::add(const uint8_t *features, int32_t label) {
    features_.insert(features_.end(), features, features + dimension_);
    labels_.push_back(label > 0 ? 1 : -1);
    alpha_.push_back(0.0);
    norms_.push_back(centred_norm(features));
}

void linear_svm::centre_on_samples() {
    const size_t n = labels_.size();
    if (n == 0) return;
    std::vector<double> sums(static_cast<size_t>(dimension_), 0.0);
    for (size_t i = 0; i < n; ++i) {
        const uint8_t *x = sample(i);
        for (int32_t j = 0; j < dimension_; ++j) sums[static_cast<size_t>(j)] += x[j];
    }
    for (int32_t j = 0; j < dimension_; ++j) {
        centre_[static_cast<size_t>(j)] = static_cast<float>(sums[static_cast<size_t>(j)] / n * kByteScale);
    }
    for (size_t i = 0; i < n; ++i) norms_[i] = centred_norm(sample(i));
}

double linear_svm::margin(const uint8_t *features) const {
    return centred_dot(weights_.data(), features, centre_.data(), dimension_) + weights_.back();
}

int32_t linear_svm::train(const linear_svm_settings &settings) {
    const size_t n = labels_.size();
    // The weights follow from the dual variables (they may come from an
    // earlier training on fewer samples).
    std::fill(weights_.begin(), weights_.end(), 0.0f);
    float *w = weights_.data();
    for (size_t i = 0; i < n; ++i) {
        if (alpha_[i] == 0.0) continue;
        const float step = static_cast<float>(alpha_[i] * labels_[i]);
        add_centred(w, step, sample(i), centre_.data(), dimension_);
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
    int64_t visits = 0;
    for (; epoch < settings.max_epochs && visits < settings.max_visits; ++epoch) {
        visits += static_cast<int64_t>(active);
        double pg_max = -std::numeric_limits<double>::infinity();
        double pg_min = std::numeric_limits<double>::infinity();
        for (size_t s = 0; s < active; ++s) {
            std::swap(index[s], index[s + generator.below(static_cast<uint32_t>(active - s))]);
        }
        for (size_t s = 0; s < active; ++s) {
            const uint32_t i = index[s];
            const int32_t y = labels_[i];
            const double cost = settings.cost;
            const uint8_t *x = sample(i);
            const double g =
                y * (static_cast<double>(centred_dot(w, x, centre_.data(), dimension_)) + weights_.back()) - 1.0;
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
                const float step = static_cast<float>((alpha_[i] - old) * y);
                add_centred(w, step, x, centre_.data(), dimension_);
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
    for (int32_t j = 0; j < dimension_; ++j) out[static_cast<size_t>(j)] = weights_[static_cast<size_t>(j)] * kByteScale;
    return out;
}

double linear_svm::bias() const {
    // The margin on raw bytes: sum(w * (x / 255 - c)) + b = sum(w / 255 * x) + (b - sum(w * c)).
    double shift = 0.0;
    for (int32_t j = 0; j < dimension_; ++j) shift += static_cast<double>(weights_[static_cast<size_t>(j)]) * centre_[static_cast<size_t>(j)];
    return weights_.empty() ? 0.0 : weights_.back() - shift;
}

}  // namespace ostrel
