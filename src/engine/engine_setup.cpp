// Detector set-up with auto-training, and the sample thumbnails.
#include <algorithm>
#include <cstring>
#include <vector>

#include <opencv2/core.hpp>

#include "common/failure.h"
#include "common/log.h"
#include "common/progress.h"
#include "common/log_lines.h"
#include "detect/candidate_filter.h"
#include "engine/auto_train_lists.h"
#include "engine/engine_lines.h"
#include "engine/input_limits.h"
#include "engine/learnable_window.h"
#include "engine/ostrel_alg.h"

namespace {

constexpr int kFirstSamplesFailedLine = 894;
constexpr int kFirstTrainingFailedLine = 910;
constexpr int kFalsePositivesFailedLine = 971;
constexpr int kLowConfidenceFailedLine = 986;
constexpr int kRetrainingFailedLine = 994;
// Refusals of input the set-up cannot learn from, each after a [Debug] line
// that says what was wrong.
constexpr int kTooManyBoxesLine = 4101;
constexpr int kPictureTooLargeLine = 4102;
constexpr int kUnlearnableWindowLine = 4103;
constexpr int kOtherWindowLine = 4104;
constexpr const char *kAddSampleThumbsName = "ostrel_alg::addSampleThumbs";
constexpr int kAddSampleThumbsLine = 734;

// Detect-relabel-retrain passes after the first training, at most.
constexpr int kMaxAutoTrainPasses = 5;

using ostrel::fail_at;

// The first box of a new picture gives a window the detector can learn and
// that the samples it joins share; otherwise logs why and refuses.
bool accept_learnable_window(const ostrel_alg &engine, const ostrel_alg_image &image,
                             const std::vector<ostrel_alg_box> &boxes) {
    if (!engine.feat_extractor) {
        return true;
    }
    const ostrel::learning_state state = ostrel::learning_state_of(*engine.feat_extractor, engine.training_samples);
    const ostrel::map_extent &map = state.map;
    const ostrel::window_check check =
        ostrel::check_learnable_window(boxes, image.width, image.height, map, state.held_sample_features);
    if (check.verdict == ostrel::window_verdict::learnable) {
        return true;
    }
    ostrel::log_window_check(check, boxes.front(), image.width, image.height, map, ostrel::kSetDetectorName);
    fail_at(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE, ostrel::kSetDetectorName,
            check.verdict == ostrel::window_verdict::other_sample_length ? kOtherWindowLine : kUnlearnableWindowLine);
    return false;
}

}  // namespace

int32_t ostrel_alg::setDetectorWithAutoTrain(const ostrel_alg_image *image, const std::vector<ostrel_alg_box> &boxes) {
    // What every set-up needs, whatever the profile.
    if (image == nullptr || !checkImgValid(image) || boxes.empty() || image->image_key < 0) {
        if (image == nullptr) {
            ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "the picture record is null");
        } else if (boxes.empty()) {
            ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "no box is given");
        } else if (image->image_key < 0) {
            ostrel::note_failure(OSTREL_ALG_ERR_BAD_PICTURE, "the picture's image_key is negative");
        }
        return fail_at(OSTREL_ALG_ERR_FAILED, ostrel::kSetDetectorName, ostrel::kRefusedInputLine);
    }
    if (!ostrel::accept_marked_box_count(boxes.size(), ostrel::kSetDetectorName, kTooManyBoxesLine) ||
        !ostrel::accept_picture_pixels(*image, ostrel::kSetDetectorName, kPictureTooLargeLine)) {
        return 1;
    }
    if (options.is_accurate()) {
        return setDetectorAccurate(image, boxes);
    }
    if (!class_slots.empty()) {
        ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                     "[Alg.Fail] %s: the engine holds %u classes; the classic profile learns one (set the accurate "
                     "profile again, or import or start a model of one class)\n",
                     ostrel::kSetDetectorName, classCount());
        return 1;
    }
    // A new picture brings new marked boxes and samples. The same key again
    // means "retrain on what you have": the boxes passed now are not read.
    // An engine that holds no samples (after init or an import discarded
    // them) has nothing to retrain on, so it takes the picture as new.
    const bool new_picture = image->image_key != cached_image_key || training_samples.empty();
    if (new_picture && !accept_learnable_window(*this, *image, boxes)) {
        return 1;
    }
    detector_set = 1;

    if (new_picture) {
        if (cached_image.rows != image->height || cached_image.cols != image->width || cached_image.type() != CV_8UC3) {
            cached_image.create(image->height, image->width, CV_8UC3);
        }
        std::memcpy(cached_image.data, image->data,
                    static_cast<size_t>(image->width) * static_cast<size_t>(image->height) * 3);

        marked_boxes.clear();
        std::copy_if(boxes.begin(), boxes.end(), std::back_inserter(marked_boxes),
                     [](const ostrel_alg_box &box) { return box.label == 1; });

        if (addTrainingSamples(cached_image, boxes) == 1) {
            return fail_at(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE, ostrel::kSetDetectorName, kFirstSamplesFailedLine);
        }
        addSampleThumbs(cached_image, marked_boxes);
        cached_image_key = image->image_key;
    }

    if (trainClassifier() == 1) {
        return fail_at(OSTREL_ALG_ERR_NOTHING_TO_LEARN, ostrel::kSetDetectorName, kFirstTrainingFailedLine);
    }

    // Self-test on the training picture: whatever is detected away from the
    // marked boxes is background the classifier has not learnt yet.
    pca_filter.fp_filter_enabled = 0;
    int pass = 0;
    for (;;) {
        std::vector<ostrel_alg_box> detections;
        runDetector(image, detections);

        std::vector<ostrel_alg_box> false_positives;
        ostrel::collectFalsePositives(marked_boxes, detections, false_positives, ostrel::kMarkedBoxOverlap);
        // Pass 0 always runs in full, even when it finds nothing.
        if (false_positives.empty() && pass > 0) {
            pca_filter.fp_filter_enabled = 1;
            return 0;
        }
        if (!false_positives.empty() && addTrainingSamples(cached_image, false_positives) == 1) {
            return fail_at(OSTREL_ALG_ERR_FAILED, ostrel::kSetDetectorName, kFalsePositivesFailedLine);
        }

        std::vector<ostrel_alg_box> low_confidence;
        ostrel::collectLowConfidence(marked_boxes, detections, low_confidence, ostrel::kMarkedBoxOverlap);
        if (!low_confidence.empty() && addTrainingSamples(cached_image, low_confidence) == 1) {
            return fail_at(OSTREL_ALG_ERR_FAILED, ostrel::kSetDetectorName, kLowConfidenceFailedLine);
        }

        if (trainClassifier() == 1) {
            return fail_at(OSTREL_ALG_ERR_NOTHING_TO_LEARN, ostrel::kSetDetectorName, kRetrainingFailedLine);
        }
        ++pass;
        ostrel::log_progress(
            "[Alg. Scc] Auto-training pass %d: %zu false positives and %zu low-confidence negatives added\n", pass,
            false_positives.size(), low_confidence.size());
        ostrel_alg_progress ended = ostrel::progress_record(OSTREL_ALG_STAGE_PASS);
        ended.round = pass;
        ended.samples = static_cast<int32_t>(training_samples.size());
        ended.false_positives = static_cast<int32_t>(false_positives.size());
        ended.low_confidence = static_cast<int32_t>(low_confidence.size());
        ostrel::report_progress(ended);
        if (pass == kMaxAutoTrainPasses) {
            pca_filter.fp_filter_enabled = 1;
            return 0;
        }
    }
}

void ostrel_alg::addSampleThumbs(const cv::Mat &picture, const std::vector<ostrel_alg_box> &boxes) {
    if (picture.data == nullptr || picture.total() == 0 || picture.dims == 0 || boxes.empty()) {
        fail_at(OSTREL_ALG_ERR_FAILED, kAddSampleThumbsName, kAddSampleThumbsLine);
        return;
    }
    for (const ostrel_alg_box &box : boxes) {
        // Right and bottom are limited to the last column and row, so a box
        // reaching the picture's edge loses that column or row.
        // In 64 bits, so that boxes near the ends of the int32 range clip
        // to nothing instead of wrapping around.
        const int64_t left = std::max<int64_t>(box.x, 0);
        const int64_t top = std::max<int64_t>(box.y, 0);
        const int64_t right = std::min<int64_t>(static_cast<int64_t>(box.x) + box.width, picture.cols - 1);
        const int64_t bottom = std::min<int64_t>(static_cast<int64_t>(box.y) + box.height, picture.rows - 1);
        cv::Rect cut(0, 0, 0, 0);
        if (right - left >= 1 && bottom - top >= 1) {
            cut = cv::Rect(static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
                           static_cast<int>(bottom - top));
        }
        const cv::Mat packed = picture(cut).clone();

        ostrel_alg_sample thumb{};
        thumb.label = box.label;
        thumb.image.width = packed.cols;
        thumb.image.height = packed.rows;
        thumb.image.channels = 3;
        const size_t bytes = static_cast<size_t>(packed.cols) * static_cast<size_t>(packed.rows) * 3;
        thumb.image.data = new uint8_t[bytes];
        if (bytes > 0) {
            std::memcpy(thumb.image.data, packed.data, bytes);
        }
        sample_thumbs.push_back(thumb);
    }
}

void ostrel_alg::getSamples(std::vector<ostrel_alg_sample> &out) const {
    out.assign(sample_thumbs.begin(), sample_thumbs.end());
}

void ostrel_alg::getSamples_ptr(ostrel_alg_sample **samples, uint32_t *count) {
    *samples = sample_thumbs.empty() ? nullptr : sample_thumbs.data();
    *count = static_cast<uint32_t>(sample_thumbs.size());
}

int32_t ostrel_alg::removeSample(uint32_t index) {
    if (options.is_accurate()) {
        return removeSampleAccurate(index);
    }
    // An index equal to the count is refused as well: there is no such
    // sample. Thumbnails and sample groups are kept in step, but guard both.
    // Refusals here are silent, and a failed retraining below does not put
    // the sample back: both are documented behaviour.
    if (index >= sample_thumbs.size() || index >= training_samples.size()) {
        ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "there is no sample of that index");
        return 1;
    }
    delete[] sample_thumbs[index].image.data;
    sample_thumbs.erase(sample_thumbs.begin() + index);
    training_samples[index].variants.clear();
    training_samples.erase(training_samples.begin() + index);

    uint32_t positives = 0;
    uint32_t negatives = 0;
    countSamples(&positives, &negatives);
    positive_sample_count = positives;

    if (trainClassifier() == 1) {
        return fail_at(OSTREL_ALG_ERR_NOTHING_TO_LEARN, ostrel::kRemoveSampleName, ostrel::kRemoveSampleLine);
    }
    return 0;
}
