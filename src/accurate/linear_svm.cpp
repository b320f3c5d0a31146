#include "accurate/linear_svm.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "accurate/cpu_features.h"

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

// Partial sums of the dot products: lane k takes the features j with
// j % kLanes == k. The order of every addition is fixed by these loops, not
// by the compiler, so a sum is the same on every machine and in the vector
// versions below; the lanes let the compiler use vector instructions
// without reordering anything (and without fused multiply-adds, which
// round differently).
constexpr int32_t kLanes = 16;

// sum over j of w[j] * x[j].
#define OSTREL_SVM_DOT_BODY                                                                       \
    float lanes[kLanes] = {};                                                                     \
    int32_t j = 0;                                                                                \
    for (; j + kLanes <= n; j += kLanes) {                                                        \
        for (int32_t k = 0; k < kLanes; ++k) lanes[k] += w[j + k] * static_cast<float>(x[j + k]); \
    }                                                                                             \
    for (int32_t k = 0; j < n; ++j, ++k) lanes[k] += w[j] * static_cast<float>(x[j]);             \
    for (int32_t width = kLanes / 2; width >= 1; width /= 2) {                                    \
        for (int32_t k = 0; k < width; ++k) lanes[k] += lanes[k + width];                         \
    }                                                                                             \
    return lanes[0];

// w[j] += step * x[j].
#define OSTREL_SVM_ADD_BODY \
    for (int32_t j = 0; j < n; ++j) w[j] += step * static_cast<float>(x[j]);

float byte_dot_plain(const float *w, const uint8_t *x, int32_t n) { OSTREL_SVM_DOT_BODY }
void add_bytes_plain(float *w, float step, const uint8_t *x, int32_t n) { OSTREL_SVM_ADD_BODY }

#if defined(OSTREL_HAVE_X86_VECTOR_LOOPS)
#define OSTREL_SVM_AVX2 1
// The same loops compiled for AVX2: wider vectors, the same additions in
// the same order (AVX2 alone brings no fused multiply-add), so the same
// floats.
__attribute__((target("avx2"))) float byte_dot_avx2(const float *w, const uint8_t *x, int32_t n) { OSTREL_SVM_DOT_BODY }
__attribute__((target("avx2"))) void add_bytes_avx2(float *w, float step, const uint8_t *x, int32_t n) {
    OSTREL_SVM_ADD_BODY
}
#endif

bool use_avx2(svm_kernel_path path) {
#if defined(OSTREL_SVM_AVX2)
    return (path == svm_kernel_path::fastest || path == svm_kernel_path::avx2) && cpu_has_avx2();
#else
    (void)path;
    return false;
#endif
}

}  // namespace

bool svm_kernel_path_available(svm_kernel_path path) { return path != svm_kernel_path::avx2 || use_avx2(path); }

float byte_dot(const float *w, const uint8_t *x, int32_t n, svm_kernel_path path) {
#if defined(OSTREL_SVM_AVX2)
    if (use_avx2(path)) return byte_dot_avx2(w, x, n);
#endif
    return byte_dot_plain(w, x, n);
}

void add_bytes(float *w, float step, const uint8_t *x, int32_t n, svm_kernel_path path) {
#if defined(OSTREL_SVM_AVX2)
    if (use_avx2(path)) {
        add_bytes_avx2(w, step, x, n);
        return;
    }
#endif
    add_bytes_plain(w, step, x, n);
}

linear_svm::linear_svm(int32_t dimension)
    : dimension_(std::max(dimension, 0)),
      raw_(static_cast<size_t>(std::max(dimension, 0)), 0.0f),
      centre_(static_cast<size_t>(std::max(dimension, 0)), 0.0f) {}

double linear_svm::centred_norm(const uint8_t *features) const {
    double norm = 1.0;  // the bias feature
    for (int32_t j = 0; j < dimension_; ++j) {
        const double v = features[j] * static_cast<double>(kByteScale) - centre_[static_cast<size_t>(j)];
        norm += v * v;
    }
    return norm;
}

double linear_svm::centre_dot(const uint8_t *features) const {
    double sum = 0.0;
    for (int32_t j = 0; j < dimension_; ++j) sum += static_cast<double>(centre_[static_cast<size_t>(j)]) * features[j];
    return sum * kByteScale;
}

void linear_svm::refresh_sample_terms() {
    centre_square_ = 0.0;
    for (float c : centre_) centre_square_ += static_cast<double>(c) * c;
    for (size_t i = 0; i < labels_.size(); ++i) {
        norms_[i] = centred_norm(sample(i));
        centre_dots_[i] = centre_dot(sample(i));
    }
}

void linear_svm::add(const uint8_t *features, int32_t label, double alpha) {
    features_.insert(features_.end(), features, features + dimension_);
    labels_.push_back(label > 0 ? 1 : -1);
    alpha_.push_back(std::max(alpha, 0.0));
    norms_.push_back(centred_norm(features));
    centre_dots_.push_back(centre_dot(features));
}

void linear_svm::set_centre(const std::vector<float> &centre) {
    if (centre.size() != centre_.size()) return;
    centre_ = centre;
    refresh_sample_terms();
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
    refresh_sample_terms();
}

// The weights are w = raw - label_sum * centre (raw = sum of alpha * y * x /
// 255, label_sum = sum of alpha * y, also the bias feature's weight), so
// that a margin needs one product of floats and bytes:
//   w . (x / 255 - c) + b = raw . x / 255 - raw . c - label_sum * (c . x / 255 - c . c) + label_sum.
double linear_svm::solver_margin(size_t i) const {
    return static_cast<double>(byte_dot(raw_.data(), sample(i), dimension_)) * kByteScale - raw_centre_ -
           label_sum_ * (centre_dots_[i] - centre_square_) + label_sum_;
}

void linear_svm::step(size_t i, double amount) {
    add_bytes(raw_.data(), static_cast<float>(amount * kByteScale), sample(i), dimension_);
    raw_centre_ += amount * centre_dots_[i];
    label_sum_ += amount;
}

double linear_svm::margin(const uint8_t *features) const {
    double sum = 0.0;
    for (int32_t j = 0; j < dimension_; ++j) {
        const double w = raw_[static_cast<size_t>(j)] - label_sum_ * centre_[static_cast<size_t>(j)];
        sum += w * (features[j] * static_cast<double>(kByteScale) - centre_[static_cast<size_t>(j)]);
    }
    return sum + label_sum_;
}

int32_t linear_svm::train(const linear_svm_settings &settings) {
    const size_t n = labels_.size();
    // The weights follow from the dual variables (they may come from an
    // earlier training on fewer samples).
    std::fill(raw_.begin(), raw_.end(), 0.0f);
    raw_centre_ = 0.0;
    label_sum_ = 0.0;
    for (size_t i = 0; i < n; ++i) {
        if (alpha_[i] != 0.0) step(i, alpha_[i] * labels_[i]);
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
            const double g = y * solver_margin(i) - 1.0;
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
                step(i, (alpha_[i] - old) * y);
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
    for (int32_t j = 0; j < dimension_; ++j) {
        const double w = raw_[static_cast<size_t>(j)] - label_sum_ * centre_[static_cast<size_t>(j)];
        out[static_cast<size_t>(j)] = static_cast<float>(w * kByteScale);
    }
    return out;
}

double linear_svm::bias() const {
    // The margin on raw bytes: sum(w * (x / 255 - c)) + b = sum(w / 255 * x) + (b - sum(w * c)).
    double shift = 0.0;
    for (int32_t j = 0; j < dimension_; ++j) {
        const double w = raw_[static_cast<size_t>(j)] - label_sum_ * centre_[static_cast<size_t>(j)];
        shift += w * centre_[static_cast<size_t>(j)];
    }
    return label_sum_ - shift;
}

}  // namespace ostrel
