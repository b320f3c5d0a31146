// From a host picture to its Lab planes and its scale-0 feature map.
#include "acf/picture_features.h"

#include <cstring>

#include <opencv2/imgproc.hpp>

#include "acf/ostrel_acf.h"
#include "acf/picture_resample.h"
#include "acf/plane_transpose.h"
#include "acf/pyramid.h"

namespace ostrel {

namespace {

// OpenCV's 8-bit BGR to CIE Lab conversion: the colour planes of the
// features are L, a and b.
constexpr int kBgrToLabCode = 44;
static_assert(kBgrToLabCode == cv::COLOR_BGR2Lab, "Lab conversion code");

// The scale whose map detection and training read.
constexpr int32_t kMapScale = 0;

// Loads three picture planes column by column into a record: width =
// picture rows, height = picture columns, the pixel at row r, column k at
// k * rows + r of its plane.
chn_image8 load_column_by_column(const cv::Mat (&planes)[3]) {
    const int32_t rows = planes[0].rows;
    const int32_t columns = planes[0].cols;
    chn_image8 record(3, rows, columns);
    for (int32_t c = 0; c < 3; ++c) {
        transpose_plane(planes[c].data, planes[c].step[0], rows, columns, record.plane(c));
    }
    return record;
}

// The image the pyramid is computed from. With the usual single computed
// scale, the pyramid would resample the full-size record to that scale's
// image size first; loading and resampling the planes in one pass gives
// those same bytes without the full-size record (the pyramid then takes
// the image as it is, since its size already matches). Any other pyramid
// gets the full-size record.
chn_image8 pyramid_input(const pyramid_store &store, const cv::Mat (&planes)[3], picture_resample_scratch &scratch) {
    const int32_t rows = planes[0].rows;
    const int32_t columns = planes[0].cols;
    const bool single_computed_scale = store.n_scales == 1 && store.n_computed == 1 && store.computed[0] == 0;
    const int32_t wi = store.image_width[0];
    const int32_t hi = store.image_height[0];
    if (!single_computed_scale || wi < 1 || hi < 1 || (wi == rows && hi == columns)) {
        return load_column_by_column(planes);
    }
    const uint8_t *data[3] = {planes[0].data, planes[1].data, planes[2].data};
    const size_t strides[3] = {planes[0].step[0], planes[1].step[0], planes[2].step[0]};
    chn_image8 scaled = resample_picture_planes(data, strides, 3, rows, columns, wi, hi, 1.0f, scratch);
    return scaled.empty() ? load_column_by_column(planes) : scaled;
}

// The unpadded map of one scale, in picture terms. Detection and training
// read the unpadded map: they place a window of picture pixels at cell
// (x * sx, y * sy) with sx = map columns / picture width and sy = map
// rows / picture height, which holds only when cell 0 sits on pixel 0,
// that is without the border pad (scale 0 of the 480 x 270 working size
// gives 121 x 68 cells for its 242 x 136 image). The padded maps stay in the
// store for whoever needs the border.
feature_map unpadded_map(const pyramid_store &store, int32_t scale) {
    feature_map map;
    map.channels = store.channels[scale];
    map.columns = store.height[scale];
    map.rows = store.width[scale];
    const uint8_t *begin = store.unpadded.data() + store.offset[scale];
    map.data.assign(begin, begin + store.map_bytes(scale));
    return map;
}

}  // namespace

cv::Mat load_bgr_picture(const ostrel_alg_image &image, bool planar) {
    const int rows = image.height;
    const int columns = image.width;
    if (!planar) {
        return cv::Mat(rows, columns, CV_8UC3, image.data).clone();
    }
    const size_t plane_bytes = static_cast<size_t>(rows) * static_cast<size_t>(columns);
    cv::Mat planes[3];
    for (int c = 0; c < 3; ++c) {
        planes[c] = cv::Mat(rows, columns, CV_8UC1, image.data + static_cast<size_t>(c) * plane_bytes);
    }
    cv::Mat bgr;
    cv::merge(planes, 3, bgr);
    return bgr;
}

namespace {

// Clears any earlier map from `out` (a refused picture leaves an empty one)
// and says whether the extractor can work on the picture.
bool start_features(const ostrel_acf &extractor, const cv::Mat &picture, picture_features *out) {
    if (out == nullptr) {
        return false;
    }
    out->map = feature_map{};
    return !picture.empty() && picture.type() == CV_8UC3 && extractor.params && extractor.chn_options &&
           extractor.pyramid.n_scales > kMapScale;
}

}  // namespace

bool compute_picture_features(ostrel_acf &extractor, const cv::Mat &bgr, picture_features *out) {
    if (!start_features(extractor, bgr, out)) {
        return false;
    }
    cv::cvtColor(bgr, extractor.lab_picture, kBgrToLabCode);
    return compute_lab_features(extractor, extractor.lab_picture, out);
}

bool compute_lab_features(ostrel_acf &extractor, const cv::Mat &lab, picture_features *out) {
    if (!start_features(extractor, lab, out)) {
        return false;
    }
    cv::split(lab, out->lab_planes);
    compute_acf_pyramid(*extractor.chn_options,
                        pyramid_input(extractor.pyramid, out->lab_planes, extractor.resample_scratch),
                        *extractor.params, extractor.pyramid);
    out->map = unpadded_map(extractor.pyramid, kMapScale);
    return true;
}

bool compute_picture_features(ostrel_acf &extractor, const ostrel_alg_image &image, picture_features *out) {
    if (out == nullptr) {
        return false;
    }
    if (image.width < 1 || image.height < 1 || image.channels != 3 || image.data == nullptr) {
        out->map = feature_map{};
        return false;
    }
    const cv::Mat bgr = load_bgr_picture(image, image.format == OSTREL_ALG_FORMAT_PLANAR);
    return compute_picture_features(extractor, bgr, out);
}

}  // namespace ostrel
