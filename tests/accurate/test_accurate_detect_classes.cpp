// The search of a level by several classes at once
// (search_paired_level_classes) finds for every class exactly the
// candidates - boxes and margins, bit for bit, in the same order - that
// its own search of the level (search_paired_level) finds: on the levels
// of real pictures, for one class and for many, for classes of one window
// shape and of several (the shapes of a chess model's classes), with and
// without the coarse-to-fine scan and the neighbourhood test, and with
// each class's own inset from the map's edges.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "accurate/accurate_detect.h"
#include "accurate/accurate_pyramid.h"
#include "support/test_data.h"

namespace {

ostrel::accurate_pyramid picture_pyramid(const std::string &relative) {
    const cv::Mat bgr = cv::imread(ostrel_test::data_path(relative), cv::IMREAD_COLOR);
    EXPECT_FALSE(bgr.empty()) << relative;
    ostrel::pyramid_request r;
    r.base_columns = 2 * (bgr.cols / 3);
    r.base_rows = 2 * (bgr.rows / 3);
    r.size_factors = {1.0, 1.26, 1.59, 2.0, 2.52};
    r.marked_index = 0;
    r.pad_columns = 4;
    r.pad_rows = 6;
    ostrel::picture_resample_scratch scratch;
    return bgr.empty() ? ostrel::accurate_pyramid{}
                       : ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), r, scratch);
}

struct test_class {
    ostrel::quantised_weights weights;
    ostrel::accurate_geometry geometry;
    ostrel::accurate_search search;
    int32_t inset_columns = 0;
    int32_t inset_rows = 0;
};

// Classes whose window shapes follow `shapes` in turn, each with its own
// weights, margin terms, box size and size prior; the floor (margin 0)
// lies near the top twentieth of the windows of `map`.
std::vector<test_class> make_classes(size_t count, const std::vector<std::pair<int32_t, int32_t>> &shapes, bool maxima,
                                     double refine_margin, const ostrel::feature_map &map, std::mt19937 &random) {
    std::vector<test_class> out(count);
    for (size_t k = 0; k < count; ++k) {
        test_class &c = out[k];
        const auto [columns, rows] = shapes[k % shapes.size()];
        std::vector<double> w(static_cast<size_t>(10) * columns * rows);
        for (double &v : w) v = (static_cast<double>(random() % 20001) - 10000.0) * 1e-6 + 0.002;
        c.weights = ostrel::quantise_weights(w.data(), 10, columns, rows);
        c.geometry.window_columns = columns;
        c.geometry.window_rows = rows;
        c.geometry.object_columns = columns - 1.5;
        c.geometry.object_rows = rows - 2.0;
        c.geometry.scale_x = c.geometry.scale_y = 0.5f;
        c.search.sum_scale = 1e-3 * (1.0 + 0.1 * static_cast<double>(k));
        std::vector<int32_t> sums = ostrel::window_sums_reference(map, c.weights).sums;
        std::nth_element(sums.begin(), sums.begin() + static_cast<std::ptrdiff_t>(sums.size() * 19 / 20), sums.end());
        c.search.bias = -static_cast<double>(sums[sums.size() * 19 / 20]) * c.weights.scale * c.search.sum_scale -
                        0.01 * static_cast<double>(k % 4);
        c.search.box_width = 30.0 + static_cast<double>(k);
        c.search.box_height = 60.0 + 2.0 * static_cast<double>(k);
        c.search.taught_min = 50.0;
        c.search.taught_max = 70.0;
        c.search.size_penalty = k % 2 == 0 ? 0.5 : 0.0;
        c.search.neighbourhood_maxima = maxima;
        c.search.refine_margin = refine_margin;
        c.inset_columns = static_cast<int32_t>(k % 3);
        c.inset_rows = static_cast<int32_t>(k % 2);
    }
    for (test_class &c : out) c.search.weights = &c.weights;  // after the vector stops moving
    return out;
}

bool same_candidates(const std::vector<ostrel::margin_box> &a, const std::vector<ostrel::margin_box> &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::memcmp(&a[i].margin, &b[i].margin, sizeof(float)) != 0 || a[i].box.x != b[i].box.x ||
            a[i].box.y != b[i].box.y || a[i].box.width != b[i].box.width || a[i].box.height != b[i].box.height) {
            return false;
        }
    }
    return true;
}

TEST(AccurateDetectClasses, EveryClassFindsTheCandidatesOfItsOwnSearchOnRealPictures) {
    const std::vector<std::pair<int32_t, int32_t>> chess_shapes = {{7, 15}, {7, 15}, {6, 16}, {7, 15}, {7, 14},
                                                                   {6, 16}, {7, 15}, {7, 14}, {7, 15}, {6, 16}};
    const std::vector<std::pair<int32_t, int32_t>> one_shape = {{7, 15}};
    std::mt19937 random(21);
    size_t found = 0;
    const char *const pictures[] = {
        "chess/images/03d3ff4582c8125d69c19a72f846bec8_jpg.rf.5f77781cbc56eff8679f258ff4f7cc9f.jpg",
        "bccd/images/BloodImage_00001.jpg"};
    for (const char *picture : pictures) {
        const ostrel::accurate_pyramid pyramid = picture_pyramid(picture);
        ASSERT_FALSE(pyramid.levels.empty()) << picture;
        for (const size_t count : {size_t{1}, size_t{3}, size_t{5}, size_t{12}}) {
            for (const auto *shapes : {&one_shape, &chess_shapes}) {
                for (const bool maxima : {false, true}) {
                    for (const double refine : {-1.0, 0.5}) {
                        const std::vector<test_class> classes =
                            make_classes(count, *shapes, maxima, refine, pyramid.levels.front().map, random);
                        std::vector<std::vector<ostrel::margin_box>> own(count), shared(count);
                        ostrel::level_scan_scratch scratch;
                        for (const ostrel::pyramid_level &level : pyramid.levels) {
                            const ostrel::paired_map paired = ostrel::pair_cells(level.map);
                            std::vector<ostrel::class_level_search> level_classes;
                            for (size_t k = 0; k < count; ++k) {
                                const test_class &c = classes[k];
                                ostrel::search_paired_level(paired, level, c.geometry, c.search, 0.0f, c.inset_columns,
                                                            c.inset_rows, &own[k]);
                                level_classes.push_back(
                                    {&c.geometry, &c.search, c.inset_columns, c.inset_rows, &shared[k]});
                            }
                            ostrel::search_paired_level_classes(paired, level, level_classes, 0.0f, &scratch);
                        }
                        for (size_t k = 0; k < count; ++k) {
                            found += own[k].size();
                            EXPECT_TRUE(same_candidates(own[k], shared[k]))
                                << picture << ": class " << k << " of " << count << ", "
                                << (shapes == &one_shape ? "one shape" : "chess shapes") << ", maxima " << maxima
                                << ", refine margin " << refine << ": " << own[k].size() << " against "
                                << shared[k].size();
                        }
                    }
                }
            }
        }
    }
    EXPECT_GT(found, 1000u) << "the floor should let many windows through";
}

}  // namespace
