// Names for the colour classes the library reports per detection.
#pragma once

#include <string>

namespace ostrel_tool {

// 0 dark, 1 grey, 2 light (the achromatic classes); 3 red, 4 orange,
// 5 yellow, 6 green, 7 blue, 8 purple; 9 none (no clear second colour).
// Any other number gives "class <n>".
std::string color_name(int color_class);

}  // namespace ostrel_tool
