// linear_svm: a linear support-vector machine (L2-regularised, hinge loss)
// trained by dual coordinate descent, on byte feature vectors.
//
// Written here rather than taken from liblinear because liblinear draws its
// coordinate order from the C library's process-wide rand(): two engines
// training on two threads would change each other's results. This solver
// draws from a generator of its own, seeded by the caller, so a training is
// repeatable whatever else runs in the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ostrel {

struct linear_svm_settings {
    double cost = 1.0;         // C, the price of a sample on the wrong side of its margin
    double tolerance = 0.05;   // stop when the projected gradients span less
    int32_t max_epochs = 400;  // passes over the samples, at most
    // Samples visited in all, at most: with max_epochs the bound of a
    // training's work (about 100 000 on the development sets).
    int64_t max_visits = 2000000;
    uint32_t seed = 1;  // of the coordinate order
};

// The solver's two kernels over a row of bytes. `plain` is the portable
// loop, `avx2` the same loop compiled for AVX2 (it gives the same floats:
// the additions run in one fixed order in both); `fastest` takes AVX2 where
// the processor has it. A path the processor lacks runs the plain loop.
enum class svm_kernel_path { fastest, plain, avx2 };
// Whether the processor runs a path (plain and fastest always).
bool svm_kernel_path_available(svm_kernel_path path);
// sum over j < n of w[j] * x[j], in a fixed order of additions.
float byte_dot(const float *w, const uint8_t *x, int32_t n, svm_kernel_path path = svm_kernel_path::fastest);
// w[j] += step * x[j] for j < n.
void add_bytes(float *w, float step, const uint8_t *x, int32_t n, svm_kernel_path path = svm_kernel_path::fastest);

// The samples: rows of `dimension` bytes, each read as byte / 255 less the
// centre of that feature, plus a constant bias feature of 1. Centring keeps
// the features from pointing all one way, which would slow the solver down
// badly (every pair of samples would look alike to it).
class linear_svm {
public:
    explicit linear_svm(int32_t dimension);

    // Sets the centre of each feature to its mean over the samples held now
    // (call once, before the first training).
    void centre_on_samples();

    int32_t dimension() const { return dimension_; }
    size_t size() const { return labels_.size(); }
    // Appends a sample (dimension bytes) labelled +1 or -1; its dual
    // variable starts at `alpha` (0 unless it comes from another training
    // of the same samples), the others keep theirs (a warm start).
    void add(const uint8_t *features, int32_t label, double alpha = 0.0);
    double alpha(size_t i) const { return alpha_[i]; }
    // The centre of the features (centre_on_samples), to share with a
    // machine trained on some of the same samples.
    const std::vector<float> &centre() const { return centre_; }
    void set_centre(const std::vector<float> &centre);
    const uint8_t *sample(size_t i) const { return features_.data() + i * static_cast<size_t>(dimension_); }
    int32_t label(size_t i) const { return labels_[i]; }

    // Trains from the current dual variables; returns the epochs run.
    int32_t train(const linear_svm_settings &settings);

    // Weights per byte of a window (dimension values, already divided by
    // 255) and the bias: the margin of a window x is sum(w * x) + bias.
    std::vector<float> byte_weights() const;
    double bias() const;
    // Margin of a row of bytes under the current weights.
    double margin(const uint8_t *features) const;

private:
    int32_t dimension_;
    std::vector<uint8_t> features_;
    std::vector<int32_t> labels_;
    std::vector<double> alpha_;
    // The weights on centred byte / 255 units are raw_ - label_sum_ * centre_
    // (see solver_margin); the bias feature's weight is label_sum_.
    std::vector<float> raw_;
    double label_sum_ = 0.0;
    double raw_centre_ = 0.0;          // raw_ . centre_
    std::vector<float> centre_;        // per feature, in byte / 255 units
    double centre_square_ = 0.0;       // centre_ . centre_
    std::vector<double> norms_;        // squared norm of each centred sample, bias feature included
    std::vector<double> centre_dots_;  // centre_ . x / 255 of each sample

    double centred_norm(const uint8_t *features) const;
    double centre_dot(const uint8_t *features) const;
    void refresh_sample_terms();
    // Margin of sample i under the current dual variables, and the change of
    // the weights when its dual variable times its label moves by amount.
    double solver_margin(size_t i) const;
    void step(size_t i, double amount);
};

}  // namespace ostrel
