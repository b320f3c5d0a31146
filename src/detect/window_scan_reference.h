// The window scan with the plain per-window kernels (window_dot_product and
// window_confidence at every position). scan_windows must give the same
// boxes, in the same order, bit for bit; this is what it is checked against.
#pragma once

#include "detect/window_scan.h"

namespace ostrel {

void scan_windows_reference(const feature_map &map, const scan_geometry &geometry, const scan_settings &settings,
                            scan_result *out);

}  // namespace ostrel
