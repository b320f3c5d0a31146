// The precision/recall curve of an evaluation as a picture (OpenCV's
// drawing functions): recall along, precision up, one curve per class (the
// boxes ranked by score, below-threshold boxes included), a dot where the
// detector's threshold puts each class, and the AP in the legend.
#pragma once

#include <opencv2/core.hpp>

#include "evaluation/detection_quality.h"

namespace ostrel_tool {

cv::Mat draw_precision_recall(const QualityReport &report);

}  // namespace ostrel_tool
