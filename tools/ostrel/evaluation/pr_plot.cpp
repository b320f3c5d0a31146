#include "evaluation/pr_plot.h"

#include <opencv2/imgproc.hpp>

#include "cli/tool_output.h"

namespace ostrel_tool {

namespace {
constexpr int kWidth = 720, kHeight = 540;
constexpr int kLeft = 70, kRight = 30, kTop = 50, kBottom = 60;

cv::Point at(double recall, double precision) {
    const double w = kWidth - kLeft - kRight, h = kHeight - kTop - kBottom;
    return {kLeft + static_cast<int>(std::lround(recall * w)),
            kTop + static_cast<int>(std::lround((1.0 - precision) * h))};
}

const cv::Scalar kColours[] = {{180, 100, 30}, {40, 40, 200}, {40, 150, 40}, {160, 40, 160},
                               {20, 140, 220}, {120, 120, 0}, {90, 90, 90},  {0, 90, 180}};
}  // namespace

cv::Mat draw_precision_recall(const QualityReport &report) {
    cv::Mat canvas(kHeight, kWidth, CV_8UC3, cv::Scalar::all(255));
    const int font = cv::FONT_HERSHEY_SIMPLEX;
    for (int i = 0; i <= 10; ++i) {
        const double v = i / 10.0;
        const cv::Scalar grid = i == 0 ? cv::Scalar::all(0) : cv::Scalar::all(225);
        cv::line(canvas, at(v, 0), at(v, 1), grid, 1, cv::LINE_AA);
        cv::line(canvas, at(0, v), at(1, v), grid, 1, cv::LINE_AA);
        cv::putText(canvas, strformat("%.1f", v), at(v, 0) + cv::Point(-10, 20), font, 0.4, cv::Scalar::all(0), 1,
                    cv::LINE_AA);
        cv::putText(canvas, strformat("%.1f", v), at(0, v) + cv::Point(-32, 4), font, 0.4, cv::Scalar::all(0), 1,
                    cv::LINE_AA);
    }
    cv::putText(canvas, "recall", at(0.5, 0) + cv::Point(-20, 45), font, 0.5, cv::Scalar::all(0), 1, cv::LINE_AA);
    cv::putText(canvas, "precision", cv::Point(8, kTop - 12), font, 0.5, cv::Scalar::all(0), 1, cv::LINE_AA);
    cv::putText(canvas, strformat("precision / recall at IoU %.2f (dot: the detector's threshold)", report.iou),
                cv::Point(kLeft + 90, kTop - 20), font, 0.5, cv::Scalar::all(0), 1, cv::LINE_AA);
    for (size_t c = 0; c < report.classes.size(); ++c) {
        const QualityFigures &f = report.classes[c];
        const cv::Scalar colour = kColours[c % (sizeof kColours / sizeof kColours[0])];
        std::vector<cv::Point> points;
        double previous_recall = 0.0;
        if (!f.curve.empty()) {
            points.push_back(at(0.0, f.curve.front().second));
        }
        for (const auto &pr : f.curve) {
            points.push_back(at(previous_recall, pr.second));  // steps: precision changes at fixed recall
            points.push_back(at(pr.first, pr.second));
            previous_recall = pr.first;
        }
        if (points.size() > 1) {
            cv::polylines(canvas, points, false, colour, 2, cv::LINE_AA);
        }
        if (f.detections > 0) {
            cv::circle(canvas, at(f.threshold_recall, f.threshold_precision), 6, colour, cv::FILLED, cv::LINE_AA);
        }
        const std::string legend = strformat("%s  AP %.3f  AP@[.5:.95] %s", f.name.c_str(), f.ap,
                                             f.coco_ap >= 0 ? strformat("%.3f", f.coco_ap).c_str() : "-");
        const cv::Point where(kWidth - kRight - 330, kTop + 20 + 22 * static_cast<int>(c));
        cv::line(canvas, where + cv::Point(0, -4), where + cv::Point(20, -4), colour, 3, cv::LINE_AA);
        cv::putText(canvas, legend, where + cv::Point(26, 0), font, 0.45, cv::Scalar::all(0), 1, cv::LINE_AA);
    }
    return canvas;
}

}  // namespace ostrel_tool
