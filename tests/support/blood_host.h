// A host of the public header trained on the shipped blood pictures, and
// what such a host can observe of an engine: used by the tests that check
// that a refused call leaves the engine as it was.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#if defined(_WIN32)
#include <process.h>
#else
#include <unistd.h>
#endif

#include "ostrel_alg.h"
#include "support/stdout_capture.h"
#include "support/test_data.h"
#include "support/voc.h"

namespace ostrel_test {

using file_bytes = std::vector<unsigned char>;

// A blood picture with every red blood cell marked at one size.
struct blood_picture {
    cv::Mat pixels;
    std::vector<ostrel_alg_box> boxes;

    ostrel_alg_image record(int64_t key) const {
        return ostrel_alg_image{pixels.cols, pixels.rows, 3, pixels.data, key, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    }
};

inline blood_picture load_blood_picture(const std::string &stem) {
    blood_picture p;
    p.pixels = cv::imread(data_path("bccd/images/" + stem + ".jpg"), cv::IMREAD_COLOR);
    p.boxes = median_size_boxes(read_voc(data_path("bccd/annotations/" + stem + ".xml")), "RBC");
    return p;
}

// The same boxes, each recentred at width x height: a second picture joins
// a model only when it is marked at the size the model learnt.
inline std::vector<ostrel_alg_box> at_size(std::vector<ostrel_alg_box> boxes, int32_t width, int32_t height) {
    for (ostrel_alg_box &b : boxes) {
        b.x += (b.width - width) / 2;
        b.y += (b.height - height) / 2;
        b.width = width;
        b.height = height;
    }
    return boxes;
}

// A file name in the temporary folder of this test alone: tests of one
// program may run at the same time in several processes (ctest -j), and so
// may other checkouts' test programs.
inline std::string temp_path(const std::string &name) {
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
#if defined(_WIN32)
    const long pid = static_cast<long>(_getpid());
#else
    const long pid = static_cast<long>(getpid());
#endif
    return testing::TempDir() + "ostrel_" + std::to_string(pid) + "_" + (test ? test->test_suite_name() : "") + "_" +
           (test ? test->name() : "") + "_" + name;
}

// Set-up through the pointer form; the log lines go to *log.
inline int32_t set_up(ostrel_alg *engine, const ostrel_alg_image &image, const std::vector<ostrel_alg_box> &boxes,
                      std::string *log = nullptr) {
    int32_t status = -1;
    const std::string printed = capture_stdout(
        [&] { status = ostrel_alg_setDetector_ptr(engine, &image, boxes.data(), static_cast<int32_t>(boxes.size())); });
    if (log != nullptr) *log = printed;
    return status;
}

// Detection through the pointer form: the boxes (copied), the status and
// the log lines.
struct detection {
    int32_t status = -1;
    std::vector<ostrel_alg_box> boxes;
    std::string log;
};

inline detection detect(ostrel_alg *engine, const ostrel_alg_image &image) {
    detection d;
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    d.log = capture_stdout([&] { d.status = ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count); });
    if (d.status == 0 && boxes != nullptr) d.boxes.assign(boxes, boxes + count);
    return d;
}

inline bool same_boxes(const std::vector<ostrel_alg_box> &a, const std::vector<ostrel_alg_box> &b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0);
}

inline file_bytes read_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return file_bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_bytes(const std::string &path, const file_bytes &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
}

// Model file editing: little-endian values at byte offsets, and the trailer
// (length and CRC-32 of what precedes it) written afresh.
inline void put_i32_at(file_bytes &b, size_t at, int32_t value) {
    const uint32_t v = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<unsigned char>(v >> (8 * i));
}

inline int32_t i32_at(const file_bytes &b, size_t at) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(b[at + i]) << (8 * i);
    return static_cast<int32_t>(v);
}

inline void append_i32(file_bytes &b, int32_t value) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<unsigned char>(static_cast<uint32_t>(value) >> (8 * i)));
}

inline void append_f32(file_bytes &b, float value) {
    int32_t bits = 0;
    std::memcpy(&bits, &value, 4);
    append_i32(b, bits);
}

// A rows x cols matrix block, every element `value`.
inline void append_matrix(file_bytes &b, int32_t rows, int32_t cols, float value) {
    append_i32(b, rows);
    append_i32(b, cols);
    for (int64_t i = 0; i < static_cast<int64_t>(rows) * cols; ++i) append_f32(b, value);
}

inline uint32_t crc32_of(const unsigned char *data, size_t size) {
    uint32_t crc = 0xffffffffu;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) ? (crc >> 1) ^ 0xedb88320u : crc >> 1;
    }
    return ~crc;
}

// The model's content without its 12-byte trailer.
inline file_bytes without_trailer(const file_bytes &model) { return file_bytes(model.begin(), model.end() - 12); }

inline file_bytes with_trailer(const file_bytes &content) {
    file_bytes b = content;
    const uint64_t length = content.size();
    append_i32(b, static_cast<int32_t>(static_cast<uint32_t>(length)));
    append_i32(b, static_cast<int32_t>(static_cast<uint32_t>(length >> 32)));
    append_i32(b, static_cast<int32_t>(crc32_of(content.data(), content.size())));
    return b;
}

// Offsets of the model file's record.
inline constexpr size_t kClassIdxAt = 0;
inline constexpr size_t kTrainedWidthAt = 4;
inline constexpr size_t kInputWidthAt = 12;
inline constexpr size_t kWeightCountAt = 24;
inline constexpr size_t kBiasAt = 28;
inline constexpr size_t kWeightsAt = 32;

// Everything a host can observe of an engine: whether it is trained, its
// samples and thumbnails, the model it exports and the boxes it finds on a
// probe picture. Export comes first because it chooses the filter threshold
// that detection then uses.
struct engine_view {
    uint8_t trained = 0;
    uint32_t positives = 0;
    uint32_t negatives = 0;
    uint32_t thumbnails = 0;
    int32_t export_status = -1;
    file_bytes model;
    detection found;
};

inline engine_view observe(ostrel_alg *engine, const ostrel_alg_image &probe, const std::string &export_path) {
    engine_view v;
    EXPECT_EQ(ostrel_alg_istraied(engine, &v.trained), 0);
    EXPECT_EQ(ostrel_alg_temp_getNumofSamples(engine, &v.positives, &v.negatives), 0);
    ostrel_alg_sample *samples = nullptr;
    EXPECT_EQ(ostrel_alg_getSamples_ptr(engine, &samples, &v.thumbnails), 0);
    std::remove(export_path.c_str());
    capture_stdout([&] { v.export_status = ostrel_alg_exportModel_ptr(engine, export_path.c_str()); });
    v.model = read_bytes(export_path);
    v.found = detect(engine, probe);
    return v;
}

// Compares two views field by field, naming what differs.
inline void expect_same_view(const engine_view &before, const engine_view &after, const std::string &what) {
    EXPECT_EQ(after.trained, before.trained) << what;
    EXPECT_EQ(after.positives, before.positives) << what;
    EXPECT_EQ(after.negatives, before.negatives) << what;
    EXPECT_EQ(after.thumbnails, before.thumbnails) << what;
    EXPECT_EQ(after.export_status, before.export_status) << what;
    EXPECT_TRUE(after.model == before.model) << what << ": the exported model changed";
    EXPECT_EQ(after.found.status, before.found.status) << what;
    EXPECT_TRUE(same_boxes(after.found.boxes, before.found.boxes)) << what << ": the detections changed";
}

}  // namespace ostrel_test
