// Writes a few small, valid accurate model files into a directory, as the
// seed corpus of the accurate-model fuzz target: one class and three
// classes with names, made by hand and written by the format's own writer.
//
//   make_accurate_seed_corpus <directory>
#include <cstdio>
#include <string>
#include <vector>

#include "model/accurate_model_file.h"

namespace {

ostrel::accurate_file_class hand_made_class(const char *name, int32_t columns, int32_t rows, float aspect) {
    ostrel::accurate_file_class c;
    c.name = name;
    c.window_columns = columns;
    c.window_rows = rows;
    c.channels = 10;
    c.aspect = aspect;
    c.taught_min_height = 40.0f;
    c.taught_max_height = 120.0f;
    c.trained_width = 20;
    c.trained_height = 50;
    c.input_width = 640;
    c.input_height = 480;
    c.calibration_offset = 0.25f;
    c.calibration_slope = 1.0f;
    c.bias = -1234567;
    const int32_t n = columns * rows * 10;
    for (int32_t i = 0; i < n; ++i) c.weights.push_back((i * 7919) % 20001 - 10000);
    return c;
}

ostrel::accurate_file_settings default_settings() {
    ostrel::accurate_file_settings s;
    s.profile = 1;
    s.object_cells = 100;
    s.size_steps = 1;
    s.suppression_overlap_percent = 30;
    s.search_margin_percent = 150;
    s.levels_per_octave = 4;
    s.approximation_exponent_permille = -100;
    s.norm_radius = 6;
    s.norm_floor = 2;
    s.edge_reach_percent = 50;
    s.size_prior_permille = 2000;
    s.suppression_contained_percent = 70;
    return s;
}

bool write(const std::string &path, const ostrel::accurate_model_file &model) {
    std::string problem;
    const std::vector<unsigned char> bytes = ostrel::write_accurate_model(model, &problem);
    std::FILE *f = bytes.empty() ? nullptr : std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        std::fprintf(stderr, "could not write %s %s\n", path.c_str(), problem.c_str());
        return false;
    }
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <directory>\n", argv[0]);
        return 2;
    }
    const std::string directory = argv[1];
    ostrel::accurate_model_file one;
    one.settings = default_settings();
    one.classes.push_back(hand_made_class("", 10, 10, 1.0f));  // 100 cells, square: a 10 x 10 window
    ostrel::accurate_model_file three;
    three.settings = default_settings();
    three.settings.min_height = 24;
    three.settings.max_height = 400;
    three.classes.push_back(hand_made_class("person", 5, 18, 0.3f));
    three.classes.push_back(hand_made_class("car", 16, 6, 2.5f));
    three.classes.push_back(hand_made_class("pawn", 7, 15, 0.475f));
    return write(directory + "/accurate_one.model", one) && write(directory + "/accurate_three.model", three) ? 0 : 1;
}
