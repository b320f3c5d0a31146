// svm_model: the trained linear classifier in fixed point.
#pragma once

#include <cstdint>
#include <memory>

namespace ostrel {

// Weights and bias are stored as trunc(value * 100000).
inline constexpr float kSvmFixedPointScale = 100000.0f;

struct svm_model {
    int32_t class_idx = 0;              // always 0 after training
    int32_t trained_width = 0;          // window width in pixels of the training picture
    int32_t trained_height = 0;         // window height
    int32_t input_width = 0;            // columns of the picture the window size refers to
    int32_t input_height = 0;           // rows of that picture
    int32_t trained_acf_scale_idx = 0;  // feature pyramid scale of the model
    int32_t support_vector_size = 0;    // number of values in `vector`
    int32_t bias = 0;                   // trunc((float)rho * 100000)
    // support_vector_size weights, trunc(w_i * 100000), in the window feature
    // order. The engine counts as trained exactly while this buffer exists.
    std::unique_ptr<int32_t[]> vector;

    bool trained() const { return vector != nullptr; }
};

}  // namespace ostrel
