// Annotated pictures: boxes in a colour per label, with their score.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "boxes/box_geometry.h"
#include "ostrel_alg.h"

namespace ostrel_tool {

// BGR colours: detections (label 1) green, boxes below the confidence
// threshold (label -1) amber, boxes a user marked for training blue.
cv::Scalar detection_colour();
cv::Scalar below_threshold_colour();
cv::Scalar marked_colour();
cv::Scalar colour_for_label(int label);

// Draws one rectangle (clipped by OpenCV) and, when caption is not empty,
// the caption on a filled band of the same colour above the box (inside it
// when there is no room above).
void draw_box(cv::Mat &bgr, const Rect &box, const cv::Scalar &colour, int thickness, const std::string &caption);

// Draws the library's result list: label -1 boxes thin first, then the
// detections on top, each with its score ("0.87"), preceded by its class
// name when classes names the class of each box ("white-pawn 0.87").
void draw_detections(cv::Mat &bgr, const std::vector<ostrel_alg_box> &boxes,
                     const std::vector<std::string> &classes = {});

// Draws boxes marked for training, without captions.
void draw_marked_boxes(cv::Mat &bgr, const std::vector<Rect> &boxes);

// "0.87"
std::string score_text(float score);

}  // namespace ostrel_tool
