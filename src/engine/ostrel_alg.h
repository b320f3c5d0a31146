// ostrel_alg: the engine behind the exported interface.
//
// One object holds everything of one detector: the training sizes, the
// confidence threshold, the marked boxes and their thumbnails, the training
// samples, the feature extractor, the result buffer, a copy of the last
// training picture, the false-positive filter, the SVM trainer and the
// trained model. Each operation is a short sequence of calls into the units
// below it; this class is the only place that knows the order of the steps.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/ml.hpp>

#include "ostrel_alg.h"
#include "acf/feature_map.h"
#include "acf/ostrel_acf.h"
#include "acf/training_sample.h"
#include "accurate/accurate_geometry.h"
#include "accurate/accurate_model.h"
#include "accurate/accurate_settings.h"
#include "accurate/accurate_trainer.h"
#include "detect/window_scan.h"
#include "common/failure.h"
#include "engine/class_slot.h"
#include "engine/engine_options.h"
#include "fpfilter/pca_fp_filter.h"
#include "train/svm_model.h"

class ostrel_alg {
public:
    // Number of box records the engine keeps for the pointer form of detection.
    static constexpr uint32_t kResultBoxCapacity = 256;
    // Bytes of the scratch block kept for the life of the engine.
    static constexpr size_t kWorkBlockSize = 496;
    static constexpr int32_t kUnsetModelId = -1;
    static constexpr int64_t kNoCachedImage = -1;
    // Name of the negative-sample method in use; there is no other.
    static constexpr const char *kNegativeMethodName = "BELOW_CONF";

    ostrel_alg();
    ~ostrel_alg();  // teardown
    ostrel_alg(const ostrel_alg &) = delete;
    ostrel_alg &operator=(const ostrel_alg &) = delete;

    // --- life cycle -------------------------------------------------------
    int32_t init();
    int32_t initFeatExtractor();
    void release();
    int32_t createSvm();

    // --- parameters -------------------------------------------------------
    // s is 100 - the host's sensitivity.
    int32_t setSensitivity(uint32_t s);
    void setTrainingSize(uint32_t object_width, uint32_t object_height, uint32_t picture_width,
                         uint32_t picture_height);
    void countSamples(uint32_t *positives, uint32_t *negatives) const;
    std::string getAddNegativeMethod() const;
    bool isTrained() const { return svm_model.trained(); }
    int32_t setModelId(int32_t id);
    int32_t getModelId(uint32_t *id) const;
    void setRandomSeed(uint32_t seed);

    // --- training, detection, samples, model files -------------------------
    int32_t setDetectorWithAutoTrain(const ostrel_alg_image *image, const std::vector<ostrel_alg_box> &boxes);
    int32_t runDetector(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out);
    void getSamples(std::vector<ostrel_alg_sample> &out) const;
    void getSamples_ptr(ostrel_alg_sample **samples, uint32_t *count);
    int32_t removeSample(uint32_t index);
    int32_t exportModel(const std::string &path);
    int32_t importModel(const std::string &path);
    int32_t checkModelValidation(const std::string &path);
    int32_t getFeatureMap(const ostrel_alg_image *image, const uint8_t **data, uint32_t *channels, uint32_t *columns,
                          uint32_t *rows);

    // Refuses a picture the engine cannot read: logs the invalid-image line
    // and returns false.
    static bool checkImgValid(const ostrel_alg_image *image);

    // --- training steps ------------------------------------------------------
    // Cuts samples for `boxes` out of a BGR picture and appends them to
    // training_samples. 0 when samples were added, 1 when none were.
    int32_t addTrainingSamples(const cv::Mat &picture, const std::vector<ostrel_alg_box> &boxes);
    // Rebuilds the false-positive filter when new positives arrived, then lays
    // out the whole training set.
    bool set_training_mat_outlier(cv::Mat &samples, cv::Mat &labels);
    bool filterPositive_outlier(const cv::Mat &samples, const cv::Mat &labels);
    int32_t trainClassifier();
    // Cuts a thumbnail out of `picture` for every box.
    void addSampleThumbs(const cv::Mat &picture, const std::vector<ostrel_alg_box> &boxes);

    // --- fields (all public: the engine is a plain record with operations;
    // the units below receive what they need as arguments) -----------------
    uint32_t train_height = 0;
    uint32_t train_width = 0;
    uint32_t train_input_height = 0;
    uint32_t train_input_width = 0;
    int32_t scaled_width = 0;
    int32_t scaled_height = 0;
    int32_t confidence_threshold = 0;
    uint8_t detector_set = 0;
    std::vector<ostrel_alg_box> marked_boxes;
    std::vector<ostrel::training_sample> training_samples;
    std::vector<ostrel_alg_sample> sample_thumbs;
    std::unique_ptr<ostrel::ostrel_acf> feat_extractor;
    int32_t acf_scale_idx = 0;
    uint8_t random_negatives_added = 0;
    std::unique_ptr<ostrel_alg_box[]> result_boxes;
    uint32_t result_box_count = 0;
    std::unique_ptr<uint8_t[]> work_block;
    int32_t model_id = kUnsetModelId;
    int64_t cached_image_key = kNoCachedImage;
    cv::Mat cached_image;
    uint32_t positive_sample_count = 0;
    uint32_t new_positive_count = 0;
    ostrel::pca_fp_filter pca_filter;  // also holds the ready/frozen/enabled flags and fp_threshold
    cv::Ptr<cv::ml::SVM> svm;
    ostrel::svm_model svm_model;
    // The map handed out by getFeatureMap, owned until the next call, init
    // or destroy.
    ostrel::feature_map exported_feature_map;
    // The last failure of a call on this engine (ostrel_alg_getLastError);
    // init keeps it like any successful call.
    ostrel::failure last_failure;
    // The host's progress handler (ostrel_alg_setProgressHandler); init
    // keeps it.
    ostrel_alg_progress_handler progress_handler = nullptr;
    void *progress_user = nullptr;
    // The host's options (ostrel_alg_setOption); init keeps them.
    ostrel::engine_options options;
    // The profile the model in svm_model was trained or imported under (-1:
    // no model), and the settings of its window: detection refuses a model
    // whose profile or window no longer matches the options.
    int32_t model_profile = -1;
    ostrel::accurate_settings model_settings;
    // The accurate profile's training pictures, and what its model is
    // besides the weights: the window, the taught sizes, the calibration.
    std::vector<ostrel::accurate_training_picture> accurate_pictures;
    ostrel::accurate_class_model accurate_class;

    // --- the accurate profile (engine_accurate.cpp) ----------------------
    ostrel::accurate_settings accurateSettings() const;
    // Called by setDetectorWithAutoTrain and runDetector after the checks
    // both profiles share (picture, boxes, limits, model).
    int32_t setDetectorAccurate(const ostrel_alg_image *image, const std::vector<ostrel_alg_box> &boxes);
    int32_t runDetectorAccurate(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out);
    int32_t trainAccurate();
    // The margin at which the default sensitivity should cut, learnt from
    // the training pictures (held_out_calibration.h) for the classifier
    // just trained.
    float calibrateAccurate(const ostrel::accurate_training_result &trained,
                            const ostrel::accurate_training_state &state, uint32_t seed) const;
    // The settings detection and training use: the host's options with the
    // model's recorded choices (channels, search steps) once there is a
    // model of this profile.
    ostrel::accurate_settings modelSettings() const;
    int32_t removeSampleAccurate(uint32_t index);
    // The accurate model file (engine_accurate_file.cpp): export of the
    // engine's accurate model, import (all or nothing: the engine changes
    // only when the whole file is good and fits its options) and
    // validation. Each logs one line that says why it refuses.
    int32_t exportAccurateModel(const std::string &path);
    int32_t importAccurateModel(const std::string &path);
    int32_t checkAccurateModel(const std::string &path);
    uint32_t accurate_positive_count = 0;
    uint32_t accurate_negative_count = 0;

    // --- classes (engine_classes.cpp) -------------------------------------
    // The fields above hold the current class. With several classes every
    // class has a slot here, and the current class's slot is empty (its
    // contents are lent to the fields); with one class or none, there are
    // no slots.
    std::vector<ostrel::class_slot> class_slots;
    uint32_t current_class = 0;
    // The class of every box of the last detection run.
    std::vector<uint32_t> result_classes;
    // What one class is, wherever it is kept.
    struct class_view {
        const ostrel::svm_model *weights = nullptr;
        const ostrel::accurate_class_model *model = nullptr;
        const std::vector<ostrel_alg_box> *marked_boxes = nullptr;
        int64_t cached_image_key = kNoCachedImage;
    };
    uint32_t classCount() const;
    class_view classAt(uint32_t index) const;
    // Each logs one line that says why it refuses and returns 1.
    int32_t addClass(const std::string &name, uint32_t *index);
    int32_t selectClass(uint32_t index);
    int32_t getClassName(uint32_t index, const char **name) const;
    // Whether a class other than the current one holds a model.
    bool otherClassTrained() const;
    // Logs the first class without a model (under `operation`'s name) and
    // returns false; true when every class holds one.
    bool everyClassTrained(const char *operation) const;
    // Back to the current class alone: the other classes and their samples
    // go.
    void dropOtherClasses();
    // Detection with several classes: one pyramid of the picture, every
    // class's classifier on it.
    int32_t runDetectorClasses(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out);

private:
    void swapCurrentClass(ostrel::class_slot &slot);
    // The detection run behind runDetector (which records the boxes' classes).
    int32_t runDetectorOnce(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out);
    void freeSampleThumbs();
    // Trains the SVM on the matrices and extracts the fixed-point record
    // into *model; false when the set cannot be trained.
    bool train_svm(const cv::Mat &samples, const cv::Mat &labels, ostrel::svm_model *model);
    // Distance of the window under a detected box to the positives, by the
    // false-positive filter; no value when the window cannot be projected.
    std::optional<float> window_fp_distance(const ostrel::feature_map &map, const ostrel::scan_geometry &geometry,
                                            const ostrel_alg_box &box) const;
    uint32_t random_seed_ = 0;
    bool random_seed_set_ = false;
};
