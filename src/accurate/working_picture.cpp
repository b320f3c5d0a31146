#include "accurate/working_picture.h"

#include <algorithm>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "acf/acf_helper.h"

namespace ostrel {

split_picture split_bgr(const cv::Mat &bgr) {
    split_picture out;
    if (!bgr.empty() && bgr.type() == CV_8UC3) {
        cv::split(bgr, out.planes);
    }
    return out;
}

chn_image8 working_bgr(const split_picture &picture, int32_t columns, int32_t rows, picture_resample_scratch &scratch) {
    if (picture.planes[0].empty() || columns < 2 || rows < 2) {
        return chn_image8();
    }
    const uint8_t *data[3] = {picture.planes[0].data, picture.planes[1].data, picture.planes[2].data};
    const size_t strides[3] = {picture.planes[0].step[0], picture.planes[1].step[0], picture.planes[2].step[0]};
    // Record terms: the record's width runs along the picture's rows.
    chn_image8 bgr =
        resample_picture_planes(data, strides, 3, picture.rows(), picture.columns(), rows, columns, 1.0f, scratch);
    if (bgr.empty() || bgr.width != rows || bgr.height != columns) {
        return chn_image8();
    }
    return bgr;
}

chn_image8 lab_of_record(const chn_image8 &bgr) {
    if (bgr.channels != 3 || bgr.empty()) {
        return chn_image8();
    }
    const int32_t rows = bgr.width;
    const int32_t columns = bgr.height;
    // The record's planes read as a picture of `columns` rows and `rows`
    // columns: the transposed picture. Colour conversion works pixel by
    // pixel, so converting the transposed picture is converting the picture.
    cv::Mat planes[3];
    for (int c = 0; c < 3; ++c) {
        planes[c] = cv::Mat(columns, rows, CV_8UC1, const_cast<uint8_t *>(bgr.plane(c)));
    }
    cv::Mat merged;
    cv::merge(planes, 3, merged);
    cv::Mat lab;
    cv::cvtColor(merged, lab, cv::COLOR_BGR2Lab);
    chn_image8 out(3, rows, columns);
    cv::Mat out_planes[3];
    for (int c = 0; c < 3; ++c) {
        out_planes[c] = cv::Mat(columns, rows, CV_8UC1, out.plane(c));
    }
    cv::split(lab, out_planes);  // writes into out's planes: sizes and types match
    return out;
}

chn_image8 working_lab(const split_picture &picture, int32_t columns, int32_t rows, picture_resample_scratch &scratch) {
    return lab_of_record(working_bgr(picture, columns, rows, scratch));
}

chn_image8 shrink_record(const chn_image8 &bgr, int32_t columns, int32_t rows) {
    if (bgr.empty() || columns < 2 || rows < 2) {
        return chn_image8();
    }
    return acf_helper::image_resample_fix(bgr, rows, columns, 1.0f);
}

chn_image8 mirror_columns(const chn_image8 &lab) {
    chn_image8 out(lab.channels, lab.width, lab.height);
    const size_t row_bytes = static_cast<size_t>(lab.width);
    for (int32_t c = 0; c < lab.channels; ++c) {
        for (int32_t y = 0; y < lab.height; ++y) {
            // Record row y is picture column y.
            std::memcpy(out.plane(c) + static_cast<size_t>(lab.height - 1 - y) * row_bytes,
                        lab.plane(c) + static_cast<size_t>(y) * row_bytes, row_bytes);
        }
    }
    return out;
}

feature_map pad_map(const feature_map &map, int32_t pad_columns, int32_t pad_rows, int32_t replicated_planes) {
    pad_columns = std::max(pad_columns, 0);
    pad_rows = std::max(pad_rows, 0);
    if (map.empty() || (pad_columns == 0 && pad_rows == 0)) {
        return map;
    }
    feature_map out;
    out.channels = map.channels;
    out.columns = map.columns + 2 * pad_columns;
    out.rows = map.rows + 2 * pad_rows;
    out.data.assign(static_cast<size_t>(out.channels) * out.plane_size(), 0);
    for (int32_t c = 0; c < map.channels; ++c) {
        const bool replicate = c < replicated_planes;
        for (int32_t x = 0; x < out.columns; ++x) {
            const int32_t sx = std::min(std::max(x - pad_columns, 0), map.columns - 1);
            const bool inside_x = x - pad_columns == sx;
            if (!replicate && !inside_x) continue;
            const uint8_t *in = map.data.data() + map.index(c, sx, 0);
            uint8_t *column = out.data.data() + out.index(c, x, 0);
            if (replicate) {
                std::memset(column, in[0], static_cast<size_t>(pad_rows));
                std::memset(column + pad_rows + map.rows, in[map.rows - 1], static_cast<size_t>(pad_rows));
            }
            std::memcpy(column + pad_rows, in, static_cast<size_t>(map.rows));
        }
    }
    return out;
}

}  // namespace ostrel
