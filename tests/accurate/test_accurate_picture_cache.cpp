// The accurate profile's last picture: one record per thread, reused only
// for the same key and the same feature configuration.
#include <thread>

#include <gtest/gtest.h>

#include "accurate/accurate_picture_cache.h"

namespace {

TEST(AccuratePictureCache, TheKeyCoversTheFeatureConfiguration) {
    ostrel::accurate_picture_key a;
    a.image_key = 5;
    a.picture_columns = 640;
    a.picture_rows = 480;
    a.request.base_columns = 132;
    a.request.base_rows = 98;
    a.request.size_factors = {0.9, 1.0, 1.1};
    ostrel::accurate_last_picture last;
    last.valid = true;
    last.key = a;
    EXPECT_TRUE(last.holds(a));
    ostrel::accurate_picture_key b = a;
    b.image_key = 6;
    EXPECT_FALSE(last.holds(b));
    b = a;
    b.request.base_columns = 134;
    EXPECT_FALSE(last.holds(b));
    b = a;
    b.request.size_factors = {1.0};
    EXPECT_FALSE(last.holds(b));
    b = a;
    b.request.recipe.norm_radius = 3;
    EXPECT_FALSE(last.holds(b));
    b = a;
    b.request.pad_rows = 9;
    EXPECT_FALSE(last.holds(b));
    last.forget();
    EXPECT_FALSE(last.holds(a));
}

TEST(AccuratePictureCache, EveryThreadHasItsOwnRecord) {
    ostrel::accurate_last_picture *here = &ostrel::thread_accurate_last_picture();
    EXPECT_EQ(here, &ostrel::thread_accurate_last_picture());
    ostrel::accurate_last_picture *there = nullptr;
    std::thread([&] { there = &ostrel::thread_accurate_last_picture(); }).join();
    EXPECT_NE(here, there);
}

}  // namespace
