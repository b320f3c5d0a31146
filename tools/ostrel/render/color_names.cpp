#include "render/color_names.h"

namespace ostrel_tool {

// The library's chromatic classes are nearest reference colours in Lab, all
// of them muted: class 3 is a dark brick red, class 4 a brownish orange (it
// also takes light yellows that lean to red), 5 a pale yellow, 6 an olive
// green, 7 a slate blue and 8 a greyish purple (it also takes blues that lean
// to red). The names below are the plain colour words closest to them.
std::string color_name(int color_class) {
    static const char *const names[] = {"dark",   "grey",  "light", "red",    "orange",
                                        "yellow", "green", "blue",  "purple", "none"};
    if (color_class >= 0 && color_class <= 9) {
        return names[color_class];
    }
    return "class " + std::to_string(color_class);
}

}  // namespace ostrel_tool
