// Detection: the engine's detection run and the diagnostic feature map.
#include <vector>

#include "common/log.h"
#include "common/log_lines.h"
#include "engine/ostrel_alg.h"

namespace {

constexpr const char *kRunDetectorName = "ostrel_alg::runDetector";
constexpr int kRunDetectorLine = 1135;

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
    (void)data;
    (void)channels;
    (void)columns;
    (void)rows;
    if (image == nullptr || !checkImgValid(image)) {
        ostrel::log(ostrel::kEngineFailFormat, "ostrel_alg::getFeatureMap", ostrel::kEngineSource, kRunDetectorLine);
        return 1;
    }
    ostrel::log("[Debug] ostrel_alg::getFeatureMap: the channel features are not built yet\n");
    return 1;
}
