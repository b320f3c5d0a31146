#include "accurate/window_shape.h"

#include <algorithm>
#include <cmath>

#include "common/portable_math.h"
#include "common/window_weights.h"

namespace ostrel {

namespace {

// Box sides beyond this are refused outright (no picture is that large).
constexpr double kLargestSide = 1 << 20;

int32_t round_to_int(double v) { return static_cast<int32_t>(std::floor(v + 0.5)); }

bool usable_box(const ostrel_alg_box &b) {
    return b.label == 1 && b.width >= 1 && b.height >= 1 && b.width <= kLargestSide && b.height <= kLargestSide;
}

double spread_limit(const accurate_settings &settings) {
    return std::max(settings.max_aspect_spread_percent, 100) / 100.0;
}

}  // namespace

double window_shape::object_height_working() const {
    return kAccurateShrink * std::sqrt(static_cast<double>(columns) * rows / static_cast<double>(aspect));
}

double window_shape::object_width_working() const { return static_cast<double>(aspect) * object_height_working(); }

double window_shape::object_columns() const { return object_width_working() / kAccurateShrink; }

double window_shape::object_rows() const { return object_height_working() / kAccurateShrink; }

accurate_geometry window_shape::geometry() const {
    accurate_geometry g;
    g.window_columns = columns;
    g.window_rows = rows;
    g.object_columns = object_columns();
    g.object_rows = object_rows();
    g.scale_x = g.scale_y = 1.0f;
    return g;
}

window_shape window_for_aspect(double aspect, int32_t cells, const accurate_settings &settings) {
    window_shape shape;
    if (!(aspect > 0.0) || !std::isfinite(aspect) || cells < 1) {
        return shape;
    }
    const int32_t side = std::max(settings.min_object_side_cells, 1);
    shape.aspect = static_cast<float>(aspect);
    shape.columns = std::max(side, round_to_int(std::sqrt(cells * aspect)));
    shape.rows = std::max(side, round_to_int(std::sqrt(cells / aspect)));
    return shape;
}

shape_result derive_window_shape(const std::vector<ostrel_alg_box> &boxes, int32_t cells,
                                 const accurate_settings &settings) {
    shape_result result;
    std::vector<double> logs;
    for (const ostrel_alg_box &b : boxes) {
        if (b.label != 1) continue;
        if (!usable_box(b)) return result;  // bad_size
        logs.push_back(portable_log(static_cast<double>(b.width) / b.height));
    }
    if (logs.empty() || cells < 1) return result;
    std::vector<double> sorted = logs;
    std::sort(sorted.begin(), sorted.end());
    const size_t n = sorted.size();
    // The median on a log scale: for an even count the geometric mean of
    // the two middle aspects, so that 1:2 and 2:1 give 1:1.
    const double median_log = n % 2 ? sorted[n / 2] : 0.5 * (sorted[n / 2 - 1] + sorted[n / 2]);
    result.median_aspect = portable_exp(median_log);

    size_t index = 0;
    double worst = -1.0;
    for (size_t i = 0, object = 0; i < boxes.size(); ++i) {
        if (boxes[i].label != 1) continue;
        const double d = std::fabs(logs[object] - median_log);
        if (d > worst) {
            worst = d;
            index = i;
            result.odd_aspect = portable_exp(logs[object]);
        }
        ++object;
    }
    result.odd_box = index;
    for (double l : logs) {
        if (std::fabs(l) > portable_log(kMaxObjectAspect)) {
            result.status = shape_status::aspect_extreme;
            return result;
        }
    }
    if (worst > portable_log(spread_limit(settings)) + 1e-9) {
        result.status = shape_status::aspects_differ;
        return result;
    }
    result.shape = window_for_aspect(result.median_aspect, cells, settings);
    if (result.shape.features() > kMaxWindowWeights) {
        result.status = shape_status::window_too_large;
        return result;
    }
    result.status = shape_status::ok;
    return result;
}

bool aspect_fits(const ostrel_alg_box &box, const window_shape &shape, const accurate_settings &settings) {
    if (box.width < 1 || box.height < 1 || shape.empty()) return false;
    const double d = std::fabs(portable_log(static_cast<double>(box.width) / box.height / shape.aspect));
    return d <= portable_log(spread_limit(settings)) + 1e-9;
}

double box_height(double width, double height, const window_shape &shape) {
    if (!(width > 0.0) || !(height > 0.0) || shape.empty()) return 0.0;
    return std::sqrt(width * height / shape.aspect);
}

double box_height(const ostrel_alg_box &box, const window_shape &shape) {
    return box_height(static_cast<double>(box.width), static_cast<double>(box.height), shape);
}

double scale_for_height(double height, const window_shape &shape) {
    if (!(height > 0.0) || shape.empty()) return 0.0;
    return shape.object_height_working() / height;
}

const char *shape_status_text(shape_status status) {
    switch (status) {
        case shape_status::ok: return "they fit one window";
        case shape_status::bad_size: return "a box side is not positive or too large";
        case shape_status::aspect_extreme: return "a box is more than 16 times wider than high, or higher than wide";
        case shape_status::aspects_differ: return "their shapes differ too much to share one window";
        case shape_status::window_too_large:
            return "the window would need more than " OSTREL_MAX_WINDOW_WEIGHTS_TEXT " weights";
    }
    return "unknown";
}

}  // namespace ostrel
