#include "boxes/box_geometry.h"

#include <algorithm>

namespace ostrel_tool {

double intersection_over_union(const Rect &a, const Rect &b) {
    if (a.w <= 0 || a.h <= 0 || b.w <= 0 || b.h <= 0) {
        return 0.0;
    }
    const long long left = std::max(a.x, b.x);
    const long long top = std::max(a.y, b.y);
    const long long right = std::min(static_cast<long long>(a.x) + a.w, static_cast<long long>(b.x) + b.w);
    const long long bottom = std::min(static_cast<long long>(a.y) + a.h, static_cast<long long>(b.y) + b.h);
    if (right <= left || bottom <= top) {
        return 0.0;
    }
    const double inter = static_cast<double>((right - left) * (bottom - top));
    const double area_a = static_cast<double>(a.w) * a.h;
    const double area_b = static_cast<double>(b.w) * b.h;
    return inter / (area_a + area_b - inter);
}

namespace {
int lower_median(std::vector<int> values) {
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) / 2];
}
}  // namespace

Size median_size(const std::vector<Rect> &boxes) {
    if (boxes.empty()) {
        return {};
    }
    std::vector<int> widths, heights;
    for (const Rect &b : boxes) {
        widths.push_back(b.w);
        heights.push_back(b.h);
    }
    return {lower_median(widths), lower_median(heights)};
}

namespace {
long long floor_half(long long v) { return v >= 0 ? v / 2 : -((-v + 1) / 2); }
}  // namespace

Rect centred(const Rect &box, Size size) {
    // Centre in doubled coordinates to stay in integers: 2cx = 2x + w.
    const long long cx2 = 2LL * box.x + box.w;
    const long long cy2 = 2LL * box.y + box.h;
    Rect r;
    r.w = size.w;
    r.h = size.h;
    r.x = static_cast<int>(floor_half(cx2 - size.w));
    r.y = static_cast<int>(floor_half(cy2 - size.h));
    return r;
}

Rect placed_on(const Rect &annotation, Size size, int width, int height) {
    Rect r = centred(annotation, size);
    const bool cut_left = annotation.x <= 0;
    const bool cut_right = annotation.x + annotation.w >= width;
    const bool cut_top = annotation.y <= 0;
    const bool cut_bottom = annotation.y + annotation.h >= height;
    if (cut_left && !cut_right) {
        r.x = annotation.x + annotation.w - size.w;
    } else if (cut_right && !cut_left) {
        r.x = annotation.x;
    }
    if (cut_top && !cut_bottom) {
        r.y = annotation.y + annotation.h - size.h;
    } else if (cut_bottom && !cut_top) {
        r.y = annotation.y;
    }
    return r;
}

Rect moved_inside(const Rect &box, int width, int height) {
    Rect r = box;
    if (r.x + r.w > width) {
        r.x = width - r.w;
    }
    if (r.y + r.h > height) {
        r.y = height - r.h;
    }
    r.x = std::max(r.x, 0);
    r.y = std::max(r.y, 0);
    return r;
}

bool touches_picture(const Rect &box, int width, int height) {
    return box.w > 0 && box.h > 0 && box.x < width && box.y<height &&static_cast<long long>(box.x) + box.w> 0 &&
           static_cast<long long>(box.y) + box.h > 0;
}

ostrel_alg_box marked_box(const Rect &box) {
    ostrel_alg_box b{};
    b.x = box.x;
    b.y = box.y;
    b.width = box.w;
    b.height = box.h;
    b.score = 0.0f;
    b.label = 1;
    return b;
}

Rect rect_of(const ostrel_alg_box &box) { return {box.x, box.y, box.width, box.height}; }

std::string to_string(const Rect &box) {
    return std::to_string(box.x) + "," + std::to_string(box.y) + "," + std::to_string(box.w) + "," +
           std::to_string(box.h);
}

}  // namespace ostrel_tool
