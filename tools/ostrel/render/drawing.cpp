#include "render/drawing.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>

#include "boxes/box_io.h"
#include "cli/tool_output.h"

namespace ostrel_tool {

cv::Scalar detection_colour() { return {40, 210, 40}; }
cv::Scalar below_threshold_colour() { return {0, 170, 255}; }
cv::Scalar marked_colour() { return {230, 120, 20}; }
cv::Scalar colour_for_label(int label) { return label == 1 ? detection_colour() : below_threshold_colour(); }

std::string score_text(float score) { return strformat("%.2f", rounded_score(score)); }

void draw_box(cv::Mat &bgr, const Rect &box, const cv::Scalar &colour, int thickness, const std::string &caption) {
    if (box.w <= 0 || box.h <= 0) {
        return;
    }
    cv::rectangle(bgr, cv::Rect(box.x, box.y, box.w, box.h), colour, thickness, cv::LINE_8);
    if (caption.empty()) {
        return;
    }
    const int font = cv::FONT_HERSHEY_SIMPLEX;
    const double scale = 0.45;
    int baseline = 0;
    const cv::Size text = cv::getTextSize(caption, font, scale, 1, &baseline);
    const int band_h = text.height + baseline + 4;
    int top = box.y - band_h;
    if (top < 0) {
        top = std::max(box.y, 0);  // no room above: put the caption inside the box
    }
    const int left = std::clamp(box.x, 0, std::max(bgr.cols - text.width - 4, 0));
    cv::rectangle(bgr, cv::Rect(left, top, text.width + 4, band_h), colour, cv::FILLED);
    cv::putText(bgr, caption, cv::Point(left + 2, top + text.height + 2), font, scale, cv::Scalar(0, 0, 0), 1,
                cv::LINE_AA);
}

void draw_detections(cv::Mat &bgr, const std::vector<ostrel_alg_box> &boxes, const std::vector<std::string> &classes) {
    for (const auto &b : boxes) {
        if (b.label != 1) {
            draw_box(bgr, rect_of(b), colour_for_label(b.label), 1, "");
        }
    }
    for (size_t i = 0; i < boxes.size(); ++i) {
        const ostrel_alg_box &b = boxes[i];
        if (b.label == 1) {
            const std::string caption = i < classes.size() && !classes[i].empty()
                                            ? classes[i] + " " + score_text(b.score)
                                            : score_text(b.score);
            draw_box(bgr, rect_of(b), colour_for_label(b.label), 2, caption);
        }
    }
}

void draw_marked_boxes(cv::Mat &bgr, const std::vector<Rect> &boxes) {
    for (const auto &b : boxes) {
        draw_box(bgr, b, marked_colour(), 2, "");
    }
}

}  // namespace ostrel_tool
