// Detector set-up with auto-training, and the sample thumbnails.
#include <vector>

#include "common/log.h"
#include "common/log_lines.h"
#include "engine/ostrel_alg.h"

namespace {

constexpr const char *kSetDetectorName = "ostrel_alg::setDetectorWithAutoTrain";
constexpr int kRefusedInputLine = 861;

}  // namespace

int32_t ostrel_alg::setDetectorWithAutoTrain(const ostrel_alg_image *image, const std::vector<ostrel_alg_box> &boxes) {
    if (image == nullptr || !checkImgValid(image) || boxes.empty() || image->image_key < 0) {
        ostrel::log(ostrel::kEngineFailFormat, kSetDetectorName, ostrel::kEngineSource, kRefusedInputLine);
        return 1;
    }
    ostrel::log("[Debug] %s: training is not built yet\n", kSetDetectorName);
    return 1;
}

void ostrel_alg::getSamples(std::vector<ostrel_alg_sample> &out) const {
    out.assign(sample_thumbs.begin(), sample_thumbs.end());
}

void ostrel_alg::getSamples_ptr(ostrel_alg_sample **samples, uint32_t *count) {
    *samples = sample_thumbs.empty() ? nullptr : sample_thumbs.data();
    *count = static_cast<uint32_t>(sample_thumbs.size());
}

int32_t ostrel_alg::removeSample(uint32_t index) {
    // An index equal to the count is refused as well: there is no such sample.
    if (index >= sample_thumbs.size()) {
        return 1;
    }
    ostrel::log("[Debug] ostrel_alg::removeSample: retraining is not built yet\n");
    return 1;
}
