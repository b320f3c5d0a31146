// Names of the colour classes the library reports.
#include <gtest/gtest.h>

#include "render/color_names.h"

using ostrel_tool::color_name;

TEST(ColorNames, EveryClassHasAName) {
    const char *expected[] = {"dark", "grey", "light", "red", "orange", "yellow", "green", "blue", "purple", "none"};
    for (int c = 0; c <= 9; ++c) {
        EXPECT_EQ(color_name(c), expected[c]) << c;
    }
}

TEST(ColorNames, UnknownNumbersAreShownAsNumbers) {
    EXPECT_EQ(color_name(10), "class 10");
    EXPECT_EQ(color_name(-1), "class -1");
}
