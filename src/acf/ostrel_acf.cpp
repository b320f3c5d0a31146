// The feature extractor's set-up.
#include "acf/ostrel_acf.h"

#include "acf/fixed_point_factor.h"

namespace ostrel {

namespace {

// map cells / picture pixels; 0 for a picture side that is not positive.
float cells_per_pixel(int32_t cells, int32_t pixels) {
    return pixels > 0 ? static_cast<float>(cells) / static_cast<float>(pixels) : 0.0f;
}

}  // namespace

ostrel_acf::ostrel_acf() = default;
ostrel_acf::~ostrel_acf() = default;

void ostrel_acf::create_extractor_blocks() {
    if (!run_opts) {
        run_opts = std::make_unique<run_options>();
    }
    if (!params) {
        params = std::make_unique<pyramid_params>();
    }
    if (!trees) {
        trees = std::make_unique<tree_tables>();
        trees->init();
    }
    if (!chn_options) {
        chn_options = std::make_unique<channel_options>();  // all zero
    }
}

int32_t ostrel_acf::init_pyramid() {
    working_width = kWorkingWidth;
    working_height = kWorkingHeight;
    create_extractor_blocks();
    // Pictures are loaded column by column: the record's width runs along
    // the picture's rows.
    compute_scales(pyramid, *params, working_height, working_width, pyramid_flag);
    n_scales = pyramid.n_scales;
    for (int32_t i = 0; i < pyramid_store::kMaxScales; ++i) {
        scales[i] = pyramid.scales[i];
    }
    shift_x = static_cast<float>(params->model_pad_w - params->model_w_copy) * 0.5f - static_cast<float>(params->pad_x);
    shift_y = static_cast<float>(params->model_pad_h - params->model_h_copy) * 0.5f - static_cast<float>(params->pad_y);
    ready = 1;
    return 0;
}

int32_t ostrel_acf::set_extractor_defaults() {
    create_extractor_blocks();
    chn_options->color_option = 1;
    run_opts->run_threshold = kDefaultRunThreshold;
    *params = pyramid_params{};
    trees->init();
    pyramid_flag = 1;
    return 0;
}

void ostrel_acf::setTrainingWindow(int32_t window_width, int32_t window_height, int32_t input_width,
                                   int32_t input_height) {
    window.width = window_width;
    window.height = window_height;
    window.input_width = input_width;
    window.input_height = input_height;
    for (int32_t i = 0; i < pyramid.n_scales; ++i) {
        // The window and the input size are in picture terms, so the map's
        // extents are taken in picture terms too: sx from the map's columns
        // (its record height), sy from its rows (its record width). This is
        // the cell factor the sample cutter applies to the same boxes.
        window.sx[i] = cells_per_pixel(pyramid.height[i], input_width);
        window.sy[i] = cells_per_pixel(pyramid.width[i], input_height);
        window.scaled_width[i] = acf_helper::truncate_saturated(static_cast<float>(window_width) * window.sx[i]);
        window.scaled_height[i] = acf_helper::truncate_saturated(static_cast<float>(window_height) * window.sy[i]);
    }
    sized = 1;
}

}  // namespace ostrel
