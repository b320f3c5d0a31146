// The feature map's storage order, its planes and the mosaic picture.
#include <gtest/gtest.h>

#include "render/channel_mosaic.h"

using namespace ostrel_tool;

namespace {

// 10 channels of 3 columns x 2 rows; every byte is its own index.
std::vector<uint8_t> indexed_map() {
    std::vector<uint8_t> bytes(10 * 3 * 2);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i);
    }
    return bytes;
}

}  // namespace

TEST(FeatureMapView, ChannelsAreStoredColumnByColumn) {
    const auto bytes = indexed_map();
    const FeatureMapView map{bytes.data(), 10, 3, 2};
    // channel c, column x, row y at c * 6 + x * 2 + y
    EXPECT_EQ(map.at(0, 0, 1), 1);
    EXPECT_EQ(map.at(0, 1, 0), 2);
    EXPECT_EQ(map.at(4, 2, 1), 4 * 6 + 2 * 2 + 1);
}

TEST(ChannelPlane, IsRowsByColumns) {
    const auto bytes = indexed_map();
    const cv::Mat plane = channel_plane({bytes.data(), 10, 3, 2}, 3);
    ASSERT_EQ(plane.rows, 2);
    ASSERT_EQ(plane.cols, 3);
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 3; ++x) {
            EXPECT_EQ(plane.at<uint8_t>(y, x), 18 + x * 2 + y);
        }
    }
}

TEST(ChannelMosaic, PlacesTheTenPlanesFiveToARow) {
    const auto bytes = indexed_map();
    const cv::Mat mosaic = channel_mosaic({bytes.data(), 10, 3, 2}, 4, false);
    // Cells at least 60 px wide with 4 px gaps; tiles of 12 x 8 under 16 px captions.
    EXPECT_EQ(mosaic.cols, 4 + 5 * (60 + 4));
    EXPECT_EQ(mosaic.rows, 4 + 2 * (16 + 8 + 4));
    EXPECT_EQ(mosaic.type(), CV_8UC3);
    // Channel 6 is the second tile of the second row; its cell (column 2, row 1)
    // holds 6 * 6 + 2 * 2 + 1 = 41 and is enlarged four times.
    const int left = 4 + 1 * 64, top = 4 + 1 * 28 + 16;
    EXPECT_EQ(mosaic.at<cv::Vec3b>(top + 4 + 3, left + 8 + 3), cv::Vec3b(41, 41, 41));
}

TEST(ChannelMosaic, StretchMakesTheLargestValueWhite) {
    const auto bytes = indexed_map();
    const cv::Mat mosaic = channel_mosaic({bytes.data(), 10, 3, 2}, 1, true);
    // Channel 0: values 0..5, the largest at column 2, row 1.
    EXPECT_EQ(mosaic.at<cv::Vec3b>(4 + 16 + 1, 4 + 2), cv::Vec3b(255, 255, 255));
}

TEST(ChannelNames, NameTheTenChannels) {
    EXPECT_EQ(channel_name(0), "L");
    EXPECT_EQ(channel_name(2), "b");
    EXPECT_EQ(channel_name(3), "gradient");
    EXPECT_EQ(channel_name(9), "orient 5");
    EXPECT_EQ(channel_name(10), "channel 10");
}

TEST(MapDescription, IsTheDocumentedJsonLine) {
    const FeatureMapView map{nullptr, 10, 121, 68};
    EXPECT_EQ(map_description(map, false).dump(), R"({"channels":10,"columns":121,"rows":68,"padded":false})");
    EXPECT_EQ(map_description(map, true).dump(), R"({"channels":10,"columns":121,"rows":68,"padded":true})");
}
