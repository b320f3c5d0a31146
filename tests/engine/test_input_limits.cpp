// The limits of one call as pure checks: the pixel limit at its boundary,
// the box count, and the trained box's size on a picture as detection
// reports it.
#include "engine/input_limits.h"

#include <climits>

#include <gtest/gtest.h>

#include "support/stdout_capture.h"

using ostrel_test::capture_stdout;

// 2^28 pixels pass in any shape; one more does not; products beyond 64
// bits' worth of int32 sides do not wrap.
TEST(PixelLimit, BoundaryInEveryShape) {
    EXPECT_TRUE(ostrel::picture_within_pixel_limit(16384, 16384));
    EXPECT_TRUE(ostrel::picture_within_pixel_limit(268435456, 1));
    EXPECT_TRUE(ostrel::picture_within_pixel_limit(1, 268435456));
    EXPECT_FALSE(ostrel::picture_within_pixel_limit(16385, 16384));
    EXPECT_FALSE(ostrel::picture_within_pixel_limit(268435457, 1));
    EXPECT_FALSE(ostrel::picture_within_pixel_limit(INT_MAX, INT_MAX));
    EXPECT_FALSE(ostrel::picture_within_pixel_limit(65536, 65536));  // 2^32: wraps to 0 in 32 bits
    // Sizes the image check refuses are not this check's business.
    EXPECT_TRUE(ostrel::picture_within_pixel_limit(0, INT_MAX));
    EXPECT_TRUE(ostrel::picture_within_pixel_limit(-5, 7));
}

TEST(BoxCountLimit, Boundary) {
    EXPECT_TRUE(ostrel::marked_box_count_within_limit(1000));
    EXPECT_FALSE(ostrel::marked_box_count_within_limit(1001));
    EXPECT_FALSE(ostrel::marked_box_count_within_limit(INT64_MAX));
}

// A picture of the training size keeps the trained box; any other size
// rescales both sides, truncating.
TEST(TrainedBoxOnPicture, KeptOrRescaled) {
    const ostrel::box_size same = ostrel::trained_box_on_picture(640, 480, 96, 99, 640, 480);
    EXPECT_EQ(same.width, 96);
    EXPECT_EQ(same.height, 99);
    const ostrel::box_size half = ostrel::trained_box_on_picture(320, 240, 96, 99, 640, 480);
    EXPECT_EQ(half.width, 48);
    EXPECT_EQ(half.height, 49);
    const ostrel::box_size tiny = ostrel::trained_box_on_picture(6, 5, 96, 99, 640, 480);
    EXPECT_EQ(tiny.width, 0);   // 576 / 640
    EXPECT_EQ(tiny.height, 1);  // 495 / 480
    const ostrel::box_size wide = ostrel::trained_box_on_picture(640, 4, 96, 99, 640, 480);
    EXPECT_EQ(wide.width, 96);
    EXPECT_EQ(wide.height, 0);
}

// Each refusal is one [Debug] line and the operation's failure line.
TEST(InputRefusals, LinesOfEachRefusal) {
    std::string log = capture_stdout([] {
        const ostrel_alg_image image{20000, 20000, 3, nullptr, 0, 0, 0};
        EXPECT_FALSE(ostrel::accept_picture_pixels(image, "ostrel_alg::op", 4999));
    });
    EXPECT_EQ(log,
              "[Debug] ostrel_alg::op: a picture of 20000 x 20000 pixels is larger than the limit of "
              "268435456 pixels\n[Alg. FAIL!] ostrel_alg::op (ostrel_alg line:4999)\n");
    log = capture_stdout([] { EXPECT_FALSE(ostrel::accept_marked_box_count(1001, "ostrel_alg::op", 4998)); });
    EXPECT_EQ(log,
              "[Debug] ostrel_alg::op: 1001 marked boxes, more than the 1000 one picture may have\n"
              "[Alg. FAIL!] ostrel_alg::op (ostrel_alg line:4998)\n");
    log = capture_stdout([] {
        const ostrel_alg_image image{640, 4, 3, nullptr, 0, 0, 0};
        EXPECT_FALSE(ostrel::accept_trained_box_on_picture(image, 96, 99, 640, 480, "ostrel_alg::op", 4997));
    });
    EXPECT_EQ(log,
              "[Debug] ostrel_alg::op: the trained box of 96 x 99 pixels on a 640 x 480 picture is 96 x 0 "
              "pixels on this 640 x 4 picture: too small to detect\n"
              "[Alg. FAIL!] ostrel_alg::op (ostrel_alg line:4997)\n");
    log = capture_stdout([] {
        const ostrel_alg_image image{640, 5, 3, nullptr, 0, 0, 0};
        EXPECT_TRUE(ostrel::accept_trained_box_on_picture(image, 96, 99, 640, 480, "ostrel_alg::op", 4997));
        EXPECT_TRUE(ostrel::accept_marked_box_count(1000, "ostrel_alg::op", 4998));
    });
    EXPECT_EQ(log, "");
}
