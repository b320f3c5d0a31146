// Boxes in picture pixels, and the few operations the tool needs on them.
#pragma once

#include <string>
#include <vector>

#include "ostrel_alg.h"

namespace ostrel_tool {

struct Rect {
    int x = 0;
    int y = 0;
    int w = 0;
    int h = 0;

    bool operator==(const Rect &o) const { return x == o.x && y == o.y && w == o.w && h == o.h; }
    bool operator!=(const Rect &o) const { return !(*this == o); }
};

struct Size {
    int w = 0;
    int h = 0;
};

// Intersection over union in double precision; 0 for boxes without area.
double intersection_over_union(const Rect &a, const Rect &b);

// The median width and the median height, each taken on its own (the lower
// middle value for an even count). {0, 0} for an empty list.
Size median_size(const std::vector<Rect> &boxes);

// A box of the given size with the same centre as box (the centre rounded
// down to whole pixels).
Rect centred(const Rect &box, Size size);

// A box of the given size on an annotated object. Centred on the annotation,
// except along an axis where the annotation is cut by the picture's edge:
// there the object's true centre lies beyond the edge, so the box keeps the
// annotation's inner side and reaches out over the edge instead.
Rect placed_on(const Rect &annotation, Size size, int width, int height);

// Moves box (never resizes it) so that it lies inside a picture of
// width x height, as far as its size allows.
Rect moved_inside(const Rect &box, int width, int height);

// True when the box shares at least one pixel with the picture.
bool touches_picture(const Rect &box, int width, int height);

// A marked box for the library: the geometry, label 1 (the object).
ostrel_alg_box marked_box(const Rect &box);
Rect rect_of(const ostrel_alg_box &box);

// "x,y,w,h".
std::string to_string(const Rect &box);

}  // namespace ostrel_tool
