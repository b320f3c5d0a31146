// Suppression across sizes (one object, one box): a box mostly inside a
// stronger one of another size is dropped; the search reports only the
// strongest window of a neighbourhood when suppression would drop the
// others; the size prior lowers levels beyond the taught range.
#include <vector>

#include <gtest/gtest.h>

#include "accurate/accurate_detect.h"

namespace {

ostrel::margin_box candidate(int x, int y, int w, int h, float margin) {
    ostrel::margin_box m;
    m.box = ostrel_alg_box{x, y, w, h, 0.0f, 0, 0, 0};
    m.margin = margin;
    return m;
}

TEST(SizeSuppression, APartOfAStrongerBoxOfAnotherSizeIsDropped) {
    // A person (40 x 120) and its upper half found at a smaller size: IoU
    // 0.33 (kept by overlap alone), but wholly inside the stronger box.
    const std::vector<ostrel::margin_box> boxes = {candidate(100, 100, 40, 120, 2.0f),
                                                   candidate(105, 100, 30, 55, 1.0f)};
    EXPECT_EQ(ostrel::suppress_by_margin(boxes, 0.5f, 10).size(), 2u);
    EXPECT_EQ(ostrel::suppress_by_margin(boxes, 0.5f, 10, 1.0f).size(), 2u);
    const std::vector<ostrel::margin_box> kept = ostrel::suppress_by_margin(boxes, 0.5f, 10, 0.7f);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].box.width, 40);
    // The part stronger than the larger box: of two boxes one inside the
    // other only the stronger stays, whichever is the smaller.
    const std::vector<ostrel::margin_box> reversed = {candidate(100, 100, 40, 120, 1.0f),
                                                      candidate(105, 100, 30, 55, 2.0f)};
    const std::vector<ostrel::margin_box> part = ostrel::suppress_by_margin(reversed, 0.5f, 10, 0.7f);
    ASSERT_EQ(part.size(), 1u);
    EXPECT_EQ(part[0].box.width, 30);
    // Two people side by side, barely touching: both stay.
    EXPECT_EQ(ostrel::suppress_by_margin({candidate(0, 0, 40, 120, 1.0f), candidate(38, 0, 40, 120, 0.9f)}, 0.3f, 10,
                                         0.7f)
                  .size(),
              2u);
}

TEST(SizeSuppression, NeighboursAreSuppressedWhenTheyOverlapEnough) {
    // A 5 x 18 window and its diagonal neighbour: IoU 68 / 112 = 0.61.
    EXPECT_TRUE(ostrel::neighbours_suppressed(5, 18, 0.3f));
    EXPECT_TRUE(ostrel::neighbours_suppressed(5, 18, 0.6f));
    EXPECT_FALSE(ostrel::neighbours_suppressed(5, 18, 0.7f));
    EXPECT_FALSE(ostrel::neighbours_suppressed(1, 18, 0.3f));
}

TEST(SizeSuppression, TheSearchReportsOnlyTheStrongestWindowOfANeighbourhood) {
    // Weights that sum the L plane: a bright square gives a peak with
    // weaker neighbours around it.
    ostrel::feature_map map;
    map.channels = 10;
    map.columns = 30;
    map.rows = 30;
    map.data.assign(static_cast<size_t>(10) * 30 * 30, 0);
    for (int x = 10; x < 15; ++x) {
        for (int y = 12; y < 17; ++y) map.data[map.index(0, x, y)] = 200;
    }
    std::vector<double> weights(10 * 5 * 5, 0.0);
    for (int i = 0; i < 25; ++i) weights[static_cast<size_t>(i)] = 0.01;
    const ostrel::quantised_weights q = ostrel::quantise_weights(weights.data(), 10, 5, 5);
    ostrel::pyramid_level level;
    level.scale_x = level.scale_y = 1.0f;
    ostrel::accurate_geometry g;
    g.window_columns = g.window_rows = 5;
    ostrel::accurate_search search;
    search.weights = &q;
    search.box_width = search.box_height = 10.0;
    std::vector<ostrel::margin_box> all, maxima;
    ostrel::search_level(map, level, g, search, 1.0f, &all);
    search.neighbourhood_maxima = true;
    ostrel::search_level(map, level, g, search, 1.0f, &maxima);
    EXPECT_GT(all.size(), 1u);
    ASSERT_EQ(maxima.size(), 1u);
    EXPECT_EQ(maxima[0].box.x, 20);  // the window on the square: cell 10 is picture pixel 20
    EXPECT_EQ(maxima[0].margin, ostrel::suppress_by_margin(all, 0.3f, 10)[0].margin);
}

TEST(SizeSuppression, TheSizePriorLowersLevelsBeyondTheTaughtRange) {
    ostrel::accurate_search search;
    search.taught_min = 100.0;
    search.taught_max = 200.0;
    search.size_penalty = 2.0;
    search.penalty_step = 1.5;
    EXPECT_EQ(ostrel::size_prior_penalty(search, 150.0), 0.0);
    EXPECT_EQ(ostrel::size_prior_penalty(search, 100.0), 0.0);
    EXPECT_NEAR(ostrel::size_prior_penalty(search, 300.0), 2.0, 1e-12);
    EXPECT_NEAR(ostrel::size_prior_penalty(search, 100.0 / 1.5), 2.0, 1e-12);
    EXPECT_NEAR(ostrel::size_prior_penalty(search, 100.0 / 2.25), 4.0, 1e-12);
    search.size_penalty = 0.0;
    EXPECT_EQ(ostrel::size_prior_penalty(search, 300.0), 0.0);
}

}  // namespace
