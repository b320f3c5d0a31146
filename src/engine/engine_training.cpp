// Training: samples from a picture, the training matrices with the
// false-positive filter's rebuild, and the linear SVM.
#include <exception>
#include <vector>

#include <opencv2/core.hpp>

#include "acf/picture_features.h"
#include "common/failure.h"
#include "common/log.h"
#include "common/progress.h"
#include "common/log_lines.h"
#include "engine/ostrel_alg.h"
#include "fpfilter/pca_fp_filter.h"
#include "train/svm_training.h"
#include "train/training_matrix.h"

namespace {

constexpr const char *kTrainClassifierName = "ostrel_alg::trainClassifier";
constexpr int kTrainingSetFailedLine = 3149;
constexpr int kSvmTrainFailedLine = 3162;
constexpr int kFilterBuildFailedLine = 2440;
constexpr int kOutlierStepFailedLine = 2324;

}  // namespace

int32_t ostrel_alg::addTrainingSamples(const cv::Mat &picture, const std::vector<ostrel_alg_box> &boxes) {
    if (!boxes.empty()) {
        // The first box fixes the window every sample of this picture is cut with.
        train_width = static_cast<uint32_t>(boxes.front().width);
        train_height = static_cast<uint32_t>(boxes.front().height);
        train_input_width = static_cast<uint32_t>(picture.cols);
        train_input_height = static_cast<uint32_t>(picture.rows);
        feat_extractor->setTrainingWindow(boxes.front().width, boxes.front().height, picture.cols, picture.rows);
    }

    ostrel::picture_features features;
    if (!ostrel::compute_picture_features(*feat_extractor, picture, &features)) {
        return 1;
    }

    std::vector<ostrel::training_sample> collected;
    feat_extractor->collectTrainingSamples(collected, &features.map, boxes, random_negatives_added != 0, picture.cols,
                                           picture.rows);
    // Only the first picture an engine sees gets random negatives, whether or
    // not they could be drawn.
    random_negatives_added = 1;

    if (collected.empty()) {
        return 1;
    }
    for (ostrel::training_sample &sample : collected) {
        training_samples.push_back(std::move(sample));
    }
    ostrel::log("[Debug] Total size of Acfs: %zd\n", static_cast<ptrdiff_t>(training_samples.size()));
    ostrel_alg_progress added = ostrel::progress_record(OSTREL_ALG_STAGE_SAMPLES);
    added.samples = static_cast<int32_t>(training_samples.size());
    ostrel::report_progress(added);
    return 0;
}

bool ostrel_alg::filterPositive_outlier(const cv::Mat &samples, const cv::Mat &labels) {
    return ostrel::buildFpFilterFromTrainingMat(pca_filter, samples, labels, positive_sample_count,
                                                new_positive_count) == 0;
}

bool ostrel_alg::set_training_mat_outlier(cv::Mat &samples, cv::Mat &labels) {
    if (training_samples.empty()) {
        ostrel::fail(OSTREL_ALG_ERR_NOTHING_TO_LEARN, "[Debug] No Acf feature ! \n");
        return false;
    }
    uint32_t positives = 0;
    const std::vector<const ostrel::training_sample *> candidates =
        ostrel::flatten_outlier_candidates(training_samples, &positives);
    new_positive_count = positives - positive_sample_count;

    if (new_positive_count == 0) {
        ostrel::set_training_mat(training_samples, &samples, &labels);
        return true;
    }

    cv::Mat candidate_samples;
    cv::Mat candidate_labels;
    ostrel::lay_out_training_rows(candidates, &candidate_samples, &candidate_labels);
    samples = candidate_samples.clone();
    labels = candidate_labels.clone();

    // The filter is built from the positives known before the new ones, so
    // the first training (nothing known yet) only records the count.
    if (positive_sample_count >= 1) {
        if (!filterPositive_outlier(candidate_samples, candidate_labels)) {
            ostrel::fail_at(OSTREL_ALG_ERR_NOTHING_TO_LEARN, "ostrel_alg::filterPositive_outlier",
                            kFilterBuildFailedLine);
            ostrel::fail_at(OSTREL_ALG_ERR_NOTHING_TO_LEARN, "ostrel_alg::set_training_mat_outlier",
                            kOutlierStepFailedLine);
            return false;
        }
        ostrel::log_progress("[Alg. Scc] Outlier rejection ...\n");
        ostrel::report_progress(ostrel::progress_record(OSTREL_ALG_STAGE_FILTER_REBUILT));
    }

    ostrel::log_progress("[Alg. Scc] filterPositive_outlier ...\n");
    ostrel::set_training_mat(training_samples, &samples, &labels);
    uint32_t all_positives = 0;
    uint32_t all_negatives = 0;
    countSamples(&all_positives, &all_negatives);
    positive_sample_count = all_positives;
    return true;
}

bool ostrel_alg::train_svm(const cv::Mat &samples, const cv::Mat &labels, ostrel::svm_model *model) {
    // With a single class OpenCV's trainer reports success but has no
    // decision function to give; such a set cannot make a detector.
    double lowest = 0.0;
    double highest = 0.0;
    cv::minMaxLoc(labels, &lowest, &highest);
    if (lowest == highest) {
        ostrel::fail(OSTREL_ALG_ERR_NOTHING_TO_LEARN,
                     "[Debug] every training sample has the label %d: nothing to tell apart\n",
                     static_cast<int>(lowest));
        return false;
    }
    try {
        if (!svm->train(samples, cv::ml::ROW_SAMPLE, labels)) {
            return false;
        }
        ostrel::svm_model_sizes sizes;
        sizes.trained_width = static_cast<int32_t>(train_width);
        sizes.trained_height = static_cast<int32_t>(train_height);
        sizes.input_width = static_cast<int32_t>(train_input_width);
        sizes.input_height = static_cast<int32_t>(train_input_height);
        sizes.acf_scale_idx = acf_scale_idx;
        ostrel::extractSvmModel(*model, *svm, sizes);
    } catch (const cv::Exception &e) {
        // OpenCV refuses some sets by throwing; to the caller that is a
        // training that did not succeed.
        ostrel::fail(OSTREL_ALG_ERR_NOTHING_TO_LEARN, "[Debug] SVM training refused the set: %s\n", e.what());
        return false;
    }
    return true;
}

int32_t ostrel_alg::trainClassifier() {
    cv::Mat samples;
    cv::Mat labels;
    if (!set_training_mat_outlier(samples, labels)) {
        ostrel::fail_at(OSTREL_ALG_ERR_NOTHING_TO_LEARN, kTrainClassifierName, kTrainingSetFailedLine);
        return 1;
    }
    ostrel::log_progress("[Alg. Scc] set_training_mat...\n");

    // The model record is replaced only by a complete new one: a failed
    // training keeps the old model, weights included.
    ostrel::svm_model trained_model;
    if (!train_svm(samples, labels, &trained_model)) {
        ostrel::fail_at(OSTREL_ALG_ERR_NOTHING_TO_LEARN, kTrainClassifierName, kSvmTrainFailedLine);
        return 1;
    }
    svm_model = std::move(trained_model);
    model_profile = ostrel::kProfileClassic;
    ostrel::publishPcaFilter(pca_filter);
    // init and import keep the filter with the model; once a training has
    // made a model whose windows that filter cannot measure (another window
    // size, or an imported filter whose analysis this engine never made),
    // it is no filter for this model: detection would fail on every window.
    // It stops being ready (and frozen), so the next new positives build
    // one that fits.
    if (pca_filter.pca_filter_ready != 0 && !ostrel::filter_fits_window(pca_filter, svm_model.support_vector_size)) {
        pca_filter.pca_filter_ready = 0;
        pca_filter.pca_filter_frozen = 0;
    }
    ostrel::log_progress("[Alg. Scc] Training done...\n");
    ostrel_alg_progress trained = ostrel::progress_record(OSTREL_ALG_STAGE_TRAINED);
    trained.samples = static_cast<int32_t>(training_samples.size());
    ostrel::report_progress(trained);
    return 0;
}
