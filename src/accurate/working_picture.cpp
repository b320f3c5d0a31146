#include "accurate/working_picture.h"

#include <algorithm>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "acf/integral_channel_feature.h"

namespace ostrel {

split_picture split_bgr(const cv::Mat &bgr) {
    split_picture out;
    if (!bgr.empty() && bgr.type() == CV_8UC3) {
        cv::split(bgr, out.planes);
    }
    return out;
}

chn_image8 working_lab(const split_picture &picture, int32_t columns, int32_t rows,
                       picture_resample_scratch &scratch) {
    if (picture.planes[0].empty() || columns < 2 || rows < 2) {
        return chn_image8();
    }
    const uint8_t *data[3] = {picture.planes[0].data, picture.planes[1].data, picture.planes[2].data};
    const size_t strides[3] = {picture.planes[0].step[0], picture.planes[1].step[0], picture.planes[2].step[0]};
    // Record terms: the record's width runs along the picture's rows.
    chn_image8 bgr = resample_picture_planes(data, strides, 3, picture.rows(), picture.columns(), rows, columns, 1.0f,
                                             scratch);
    if (bgr.empty() || bgr.width != rows || bgr.height != columns) {
        return chn_image8();
    }
    // The record's planes read as a picture of `columns` rows and `rows`
    // columns: the transposed picture. Colour conversion works pixel by
    // pixel, so converting the transposed picture is converting the picture.
    cv::Mat planes[3];
    for (int c = 0; c < 3; ++c) {
        planes[c] = cv::Mat(columns, rows, CV_8UC1, bgr.plane(c));
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

feature_map lab_channel_map(const chn_image8 &lab) {
    feature_map map;
    if (lab.empty()) {
        return map;
    }
    chn_image8 image = lab;  // compute_channels may crop its input
    integral_channel_feature channels;
    channels.compute_channels(image, chn_config{});
    map.channels = channels.feature.channels;
    map.rows = channels.feature.width;
    map.columns = channels.feature.height;
    map.data = std::move(channels.feature.data);
    return map;
}

int32_t g_norm_planes = 0;  // research: 0 all, 1 magnitude only, 2 histograms only

void normalise_gradients(feature_map &map, int32_t radius, int32_t floor, int32_t gain, bool append) {
    if (map.empty() || map.channels < 10 || radius < 0) return;
    const int32_t W = map.columns;
    const int32_t H = map.rows;
    // Integral image of the magnitude plane.
    std::vector<int64_t> integral(static_cast<size_t>(W + 1) * (H + 1), 0);
    for (int32_t x = 0; x < W; ++x) {
        int64_t column = 0;
        for (int32_t y = 0; y < H; ++y) {
            column += map.at(3, x, y);
            integral[static_cast<size_t>(x + 1) * (H + 1) + y + 1] = integral[static_cast<size_t>(x) * (H + 1) + y + 1] + column;
        }
    }
    std::vector<int32_t> scale(static_cast<size_t>(W) * H);
    for (int32_t x = 0; x < W; ++x) {
        const int32_t x0 = std::max(0, x - radius), x1 = std::min(W, x + radius + 1);
        for (int32_t y = 0; y < H; ++y) {
            const int32_t y0 = std::max(0, y - radius), y1 = std::min(H, y + radius + 1);
            const int64_t sum = integral[static_cast<size_t>(x1) * (H + 1) + y1] - integral[static_cast<size_t>(x0) * (H + 1) + y1] -
                                integral[static_cast<size_t>(x1) * (H + 1) + y0] + integral[static_cast<size_t>(x0) * (H + 1) + y0];
            const int64_t count = static_cast<int64_t>(x1 - x0) * (y1 - y0);
            // Fixed point: gain * 256 / (mean + floor).
            scale[static_cast<size_t>(x) * H + y] = static_cast<int32_t>(gain * 256 * count / (sum + floor * count));
        }
    }
    const int32_t first = append ? map.channels : 3;
    if (append) {
        map.data.resize(static_cast<size_t>(map.channels + 7) * map.plane_size());
        std::memcpy(map.data.data() + static_cast<size_t>(first) * map.plane_size(),
                    map.data.data() + 3 * map.plane_size(), 7 * map.plane_size());
        map.channels += 7;
    }
    for (int32_t c = first; c < first + 7; ++c) {
        if (g_norm_planes == 1 && c != first) continue;
        if (g_norm_planes == 2 && c == first) continue;
        for (int32_t x = 0; x < W; ++x) {
            for (int32_t y = 0; y < H; ++y) {
                uint8_t &v = map.data[map.index(c, x, y)];
                v = static_cast<uint8_t>(std::min<int64_t>(255, (static_cast<int64_t>(v) * scale[static_cast<size_t>(x) * H + y]) >> 8));
            }
        }
    }
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
