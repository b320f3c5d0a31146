// Life cycle and parameters of the engine.
#include "engine/ostrel_alg.h"

#include <cstring>

#include "common/failure.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "engine/sensitivity.h"

namespace {

constexpr const char *kInitFeatExtractorName = "ostrel_alg::initFeatExtractor";
constexpr const char *kErrorCodeFormat = "%s() ERROR CODE : %d\n";

}  // namespace

ostrel_alg::ostrel_alg() = default;

ostrel_alg::~ostrel_alg() {
    // Teardown: what release() frees, then the scratch block, the SVM object
    // (shared, it dies with its last owner), the matrices and the arrays.
    release();
    work_block.reset();
    svm.release();
    pca_filter = ostrel::pca_fp_filter{};
    cached_image.release();
    marked_boxes.clear();
    marked_boxes.shrink_to_fit();
}

int32_t ostrel_alg::init() {
    if (initFeatExtractor() == 1) {
        return 1;
    }
    const int32_t status = createSvm();
    if (!work_block) {
        work_block = std::make_unique<uint8_t[]>(kWorkBlockSize);  // value-initialised: zero-filled
    }
    model_id = kUnsetModelId;
    return status;
}

int32_t ostrel_alg::initFeatExtractor() {
    release();
    feat_extractor = std::make_unique<ostrel::ostrel_acf>();
    if (random_seed_set_) {
        feat_extractor->setRandomSeed(random_seed_);
    }

    const int32_t pyramid_status = feat_extractor->init_pyramid();
    if (pyramid_status != 0) {
        // Not fatal: the defaults below still give a usable extractor.
        ostrel::log(kErrorCodeFormat, kInitFeatExtractorName, pyramid_status);
    }
    // Three extractor parameters of unknown meaning, kept as set; nothing
    // reads them. The third value is not known and is set to 0.
    feat_extractor->unnamed_params[0] = 500000;
    feat_extractor->unnamed_params[1] = 1;
    feat_extractor->unnamed_params[2] = 0;
    const int32_t defaults_status = feat_extractor->set_extractor_defaults();
    if (defaults_status != 0) {
        ostrel::log_failure(kErrorCodeFormat, kInitFeatExtractorName, defaults_status);
    }
    if (!result_boxes) {
        result_boxes = std::make_unique<ostrel_alg_box[]>(kResultBoxCapacity);
    }
    return defaults_status;
}

void ostrel_alg::freeSampleThumbs() {
    for (ostrel_alg_sample &thumb : sample_thumbs) {
        delete[] thumb.image.data;
        thumb.image.data = nullptr;
    }
    sample_thumbs.clear();
}

void ostrel_alg::release() {
    feat_extractor.reset();
    for (ostrel::training_sample &group : training_samples) {
        group.variants.clear();
    }
    training_samples.clear();
    // What counts the samples goes with them, so that the next training on
    // this engine draws its random background and builds its filter counts
    // exactly as a new engine's first training does.
    random_negatives_added = 0;
    positive_sample_count = 0;
    new_positive_count = 0;
    freeSampleThumbs();
    result_boxes.reset();
    result_box_count = 0;
    exported_feature_map = ostrel::feature_map{};
    accurate_pictures.clear();
    // The other classes' samples go too; every class keeps its model.
    for (ostrel::class_slot &slot : class_slots) ostrel::free_slot_samples(slot);
    result_classes.clear();
}

int32_t ostrel_alg::createSvm() {
    if (svm) {
        svm->clear();
    }
    svm = cv::ml::SVM::create();
    svm->setKernel(cv::ml::SVM::LINEAR);
    svm->setType(cv::ml::SVM::C_SVC);
    return 0;
}

int32_t ostrel_alg::setSensitivity(uint32_t s) {
    if (s > ostrel::kMaxSensitivity) {
        return 1;
    }
    confidence_threshold = ostrel::confidence_of_sensitivity(ostrel::kMaxSensitivity - s);
    return 0;
}

void ostrel_alg::setTrainingSize(uint32_t object_width, uint32_t object_height, uint32_t picture_width,
                                 uint32_t picture_height) {
    train_width = object_width;
    train_height = object_height;
    train_input_width = picture_width;
    train_input_height = picture_height;
    if (feat_extractor) {
        feat_extractor->setTrainingWindow(static_cast<int32_t>(object_width), static_cast<int32_t>(object_height),
                                          static_cast<int32_t>(picture_width), static_cast<int32_t>(picture_height));
    }
}

void ostrel_alg::countSamples(uint32_t *positives, uint32_t *negatives) const {
    *positives = 0;
    *negatives = 0;
    if (options.is_accurate()) {
        *positives = accurate_positive_count;
        *negatives = accurate_negative_count;
        return;
    }
    for (const ostrel::training_sample &group : training_samples) {
        (group.label == ostrel::kPositiveLabel ? *positives : *negatives) += 1;
        for (const ostrel::training_sample &variant : group.variants) {
            (variant.label == ostrel::kPositiveLabel ? *positives : *negatives) += 1;
        }
    }
}

std::string ostrel_alg::getAddNegativeMethod() const { return kNegativeMethodName; }

int32_t ostrel_alg::setModelId(int32_t id) {
    if (id < 0) {
        ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "a model id must not be negative");
        return 1;
    }
    model_id = id;
    return 0;
}

int32_t ostrel_alg::getModelId(uint32_t *id) const {
    if (model_id < 0) {
        ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "no model id is set");
        return 1;
    }
    *id = static_cast<uint32_t>(model_id);
    return 0;
}

void ostrel_alg::setRandomSeed(uint32_t seed) {
    random_seed_ = seed;
    random_seed_set_ = true;
    if (feat_extractor) {
        feat_extractor->setRandomSeed(seed);
    }
}
