// Detection: the engine's detection run and the diagnostic feature map.
#include <utility>
#include <vector>

#include "acf/picture_features.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "engine/ostrel_alg.h"

namespace {

constexpr const char *kRunDetectorName = "ostrel_alg::runDetector";
constexpr int kRunDetectorLine = 1135;
constexpr const char *kGetFeatureMapName = "ostrel_alg::getFeatureMap";
constexpr int kGetFeatureMapLine = 1190;

}  // namespace

bool ostrel_alg::checkImgValid(const ostrel_alg_image *image) {
    if (image->width < 1 || image->height < 1 || image->channels != 3 || image->data == nullptr) {
        ostrel::log(ostrel::kInvalidImageFormat, ostrel::kCheckImgValidName, image->width, image->height,
                    static_cast<const void *>(image->data));
        return false;
    }
    return true;
}

int32_t ostrel_alg::runDetector(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    (void)out;
    if (!svm_model.trained() || image == nullptr) {
        ostrel::log(ostrel::kEngineFailFormat, kRunDetectorName, ostrel::kEngineSource, kRunDetectorLine);
        return 1;
    }
    if (!checkImgValid(image)) {
        ostrel::log(ostrel::kEngineFailFormat, kRunDetectorName, ostrel::kEngineSource, kRunDetectorLine);
        return 1;
    }
    ostrel::log("[Debug] %s: the window scan is not built yet\n", kRunDetectorName);
    return 1;
}

int32_t ostrel_alg::getFeatureMap(const ostrel_alg_image *image, const uint8_t **data, uint32_t *channels,
                                  uint32_t *columns, uint32_t *rows) {
    // The map handed out by the previous call is no longer valid.
    exported_feature_map = ostrel::feature_map{};
    if (image == nullptr || !checkImgValid(image) || !feat_extractor) {
        ostrel::log(ostrel::kEngineFailFormat, kGetFeatureMapName, ostrel::kEngineSource, kGetFeatureMapLine);
        return 1;
    }
    // Computed afresh: the detection cache is neither read nor changed.
    ostrel::picture_features features;
    if (!ostrel::compute_picture_features(*feat_extractor, *image, &features) || features.map.empty()) {
        ostrel::log(ostrel::kEngineFailFormat, kGetFeatureMapName, ostrel::kEngineSource, kGetFeatureMapLine);
        return 1;
    }
    exported_feature_map = std::move(features.map);
    *data = exported_feature_map.data.data();
    *channels = static_cast<uint32_t>(exported_feature_map.channels);
    *columns = static_cast<uint32_t>(exported_feature_map.columns);
    *rows = static_cast<uint32_t>(exported_feature_map.rows);
    return 0;
}
