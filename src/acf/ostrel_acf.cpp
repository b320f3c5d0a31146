// The feature extractor's set-up.
#include "acf/ostrel_acf.h"

namespace ostrel {

ostrel_acf::ostrel_acf() = default;
ostrel_acf::~ostrel_acf() = default;

int32_t ostrel_acf::init_pyramid() { return 0; }

int32_t ostrel_acf::set_extractor_defaults() { return 0; }

void ostrel_acf::setTrainingWindow(int32_t window_width, int32_t window_height, int32_t input_width,
                                   int32_t input_height) {
    (void)window_width;
    (void)window_height;
    (void)input_width;
    (void)input_height;
}

}  // namespace ostrel
