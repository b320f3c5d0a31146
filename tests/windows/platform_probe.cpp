// Writes what the library computes for the shipped blood pictures, so that
// scripts/test-windows.sh can compare the Linux build and the Windows DLL
// byte for byte. Public header only, like any host.
//
//   ostrel_platform_probe train DATA_DIR OUT_DIR
//       OUT_DIR/feature_map_<picture>.raw  scale-0 feature maps of two pictures
//       OUT_DIR/model.bin                  the model trained with seed 1 on
//                                          BloodImage_00000 (every RBC marked,
//                                          one median size)
//       OUT_DIR/boxes.txt                  its detections on three other pictures
//       OUT_DIR/model_with_filter.bin      the same engine after a second picture
//                                          (BloodImage_00004) added positives:
//                                          it holds a false-positive filter
//       OUT_DIR/boxes_with_filter.txt      its detections
//   ostrel_platform_probe train-accurate DATA_DIR OUT_DIR
//       OUT_DIR/model_accurate.bin         the model trained under the accurate
//                                          profile with seed 1 on BloodImage_00000
//                                          (every RBC marked with its annotated box)
//       OUT_DIR/boxes_accurate.txt         its detections on the three other pictures
//   ostrel_platform_probe load DATA_DIR MODEL OUT_DIR
//       validates and imports MODEL into a fresh engine and writes its
//       detections on the same pictures to OUT_DIR/boxes_of_imported_model.txt
//   ostrel_platform_probe describe-filter-difference MODEL_A MODEL_B
//       a diagnosis, not a check, for two models with a false-positive filter
//       that should be the same bytes and are not: says whether they differ
//       before the filter's PCA matrices, and for each of those matrices how
//       many values are bit-equal, the largest difference, and how many
//       principal directions have the opposite sign (a PCA fixes a direction,
//       not its sign). Exits 0 when both files could be read.
//
// Boxes are written one per line with the score's bits in hexadecimal, so
// that equal files mean equal records.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"
#include "support/voc.h"

namespace {

const char *const kTrainingPicture = "BloodImage_00000";
const char *const kSecondTrainingPicture = "BloodImage_00004";
const char *const kDetectionPictures[] = {"BloodImage_00001", "BloodImage_00002", "BloodImage_00003"};
const char *const kMapPictures[] = {"BloodImage_00000", "BloodImage_00001"};
constexpr uint32_t kSeed = 1;

struct Failure {
    std::string what;
};

cv::Mat load(const std::string &data, const std::string &stem) {
    const std::string path = data + "/bccd/images/" + stem + ".jpg";
    cv::Mat pixels = cv::imread(path, cv::IMREAD_COLOR);
    if (pixels.empty()) throw Failure{"cannot read " + path};
    return pixels;
}

ostrel_alg_image record(const cv::Mat &pixels, int64_t key) {
    return ostrel_alg_image{pixels.cols, pixels.rows, 3, pixels.data, key, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
}

void write_bytes(const std::string &path, const void *data, size_t size) {
    std::FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr || std::fwrite(data, 1, size, f) != size || std::fclose(f) != 0) {
        throw Failure{"cannot write " + path};
    }
}

void check(int32_t status, const std::string &call) {
    if (status != 0) throw Failure{call + " failed"};
}

class Engine {
public:
    Engine() { check(ostrel_alg_create(&handle_), "ostrel_alg_create"); }
    ~Engine() { ostrel_alg_destroy(handle_); }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
    ostrel_alg *get() const { return handle_; }

private:
    ostrel_alg *handle_ = nullptr;
};

void write_feature_maps(const std::string &data, const std::string &out) {
    Engine engine;
    for (const char *stem : kMapPictures) {
        const cv::Mat pixels = load(data, stem);
        const ostrel_alg_image image = record(pixels, 1);
        const uint8_t *map = nullptr;
        uint32_t channels = 0, columns = 0, rows = 0;
        check(ostrel_alg_getFeatureMap_ptr(engine.get(), &image, &map, &channels, &columns, &rows),
              "ostrel_alg_getFeatureMap_ptr");
        write_bytes(out + "/feature_map_" + stem + ".raw", map, static_cast<size_t>(channels) * columns * rows);
    }
}

void write_detections(ostrel_alg *engine, const std::string &data, const std::string &path) {
    std::string text;
    int64_t key = 100;
    for (const char *stem : kDetectionPictures) {
        const cv::Mat pixels = load(data, stem);
        const ostrel_alg_image image = record(pixels, ++key);
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        check(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), "ostrel_alg_runDetector_ptr");
        for (uint32_t i = 0; i < count; ++i) {
            const ostrel_alg_box &b = boxes[i];
            uint32_t score_bits = 0;
            std::memcpy(&score_bits, &b.score, sizeof score_bits);
            char line[160];
            std::snprintf(line, sizeof line, "%s %d %d %d %d score %08x label %d colours %d %d\n", stem, b.x, b.y,
                          b.width, b.height, static_cast<unsigned>(score_bits), b.label, b.color_main, b.color_second);
            text += line;
        }
    }
    write_bytes(path, text.data(), text.size());
}

void train(const std::string &data, const std::string &out) {
    write_feature_maps(data, out);
    Engine engine;
    check(ostrel_alg_setRandomSeed(engine.get(), kSeed), "ostrel_alg_setRandomSeed");
    const cv::Mat pixels = load(data, kTrainingPicture);
    const std::vector<ostrel_alg_box> marked =
        ostrel_test::median_size_boxes(ostrel_test::read_voc(data + "/bccd/annotations/" + kTrainingPicture + ".xml"),
                                       "RBC");
    const ostrel_alg_image image = record(pixels, 1);
    check(ostrel_alg_setDetector_ptr(engine.get(), &image, marked.data(), static_cast<int32_t>(marked.size())),
          "ostrel_alg_setDetector_ptr");
    check(ostrel_alg_exportModel_ptr(engine.get(), (out + "/model.bin").c_str()), "ostrel_alg_exportModel_ptr");
    write_detections(engine.get(), data, out + "/boxes.txt");

    // The cells of a second picture, at the first picture's box size, add
    // new positives: the false-positive filter (a PCA with its inverse
    // covariance) is built and goes into the model file too.
    const cv::Mat second = load(data, kSecondTrainingPicture);
    std::vector<ostrel_alg_box> more = ostrel_test::annotation_boxes(
        ostrel_test::read_voc(data + "/bccd/annotations/" + kSecondTrainingPicture + ".xml"), "RBC");
    for (ostrel_alg_box &b : more) {
        b.x += (b.width - marked[0].width) / 2;
        b.y += (b.height - marked[0].height) / 2;
        b.width = marked[0].width;
        b.height = marked[0].height;
    }
    const ostrel_alg_image second_image = record(second, 2);
    check(ostrel_alg_setDetector_ptr(engine.get(), &second_image, more.data(), static_cast<int32_t>(more.size())),
          "ostrel_alg_setDetector_ptr (second picture)");
    check(ostrel_alg_exportModel_ptr(engine.get(), (out + "/model_with_filter.bin").c_str()),
          "ostrel_alg_exportModel_ptr (second model)");
    write_detections(engine.get(), data, out + "/boxes_with_filter.txt");
}

// The accurate profile learns every box at its own size, and calibrates its
// scores on held-out parts of the picture: the whole of its arithmetic
// (pyramid sizes, channels, solver, calibration, scores) goes into these two
// files.
void train_accurate(const std::string &data, const std::string &out) {
    Engine engine;
    check(ostrel_alg_setOption(engine.get(), OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE),
          "ostrel_alg_setOption (profile)");
    check(ostrel_alg_setRandomSeed(engine.get(), kSeed), "ostrel_alg_setRandomSeed");
    const cv::Mat pixels = load(data, kTrainingPicture);
    const std::vector<ostrel_alg_box> marked =
        ostrel_test::annotation_boxes(ostrel_test::read_voc(data + "/bccd/annotations/" + kTrainingPicture + ".xml"),
                                      "RBC");
    const ostrel_alg_image image = record(pixels, 1);
    check(ostrel_alg_setDetector_ptr(engine.get(), &image, marked.data(), static_cast<int32_t>(marked.size())),
          "ostrel_alg_setDetector_ptr (accurate)");
    check(ostrel_alg_exportModel_ptr(engine.get(), (out + "/model_accurate.bin").c_str()),
          "ostrel_alg_exportModel_ptr (accurate)");
    write_detections(engine.get(), data, out + "/boxes_accurate.txt");
}

void load_model(const std::string &data, const std::string &model, const std::string &out) {
    Engine engine;
    check(ostrel_alg_checkModelValidation_ptr(engine.get(), model.c_str()), "ostrel_alg_checkModelValidation_ptr");
    check(ostrel_alg_importModel_ptr(engine.get(), model.c_str()), "ostrel_alg_importModel_ptr");
    write_detections(engine.get(), data, out + "/boxes_of_imported_model.txt");
}

// The filter's matrices as the model file stores them (int32 rows, int32
// cols, rows x cols float32), read after the fixed part of the file.
struct FloatMatrix {
    int32_t rows = 0, cols = 0;
    std::vector<float> values;
    float at(int r, int c) const { return values[static_cast<size_t>(r) * cols + c]; }
};

std::vector<unsigned char> file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure{"cannot read " + path};
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

template <typename T>
T read_at(const std::vector<unsigned char> &bytes, size_t *offset) {
    if (*offset + sizeof(T) > bytes.size()) throw Failure{"model file too short"};
    T value;
    std::memcpy(&value, bytes.data() + *offset, sizeof(T));
    *offset += sizeof(T);
    return value;
}

FloatMatrix read_matrix(const std::vector<unsigned char> &bytes, size_t *offset) {
    FloatMatrix m;
    m.rows = read_at<int32_t>(bytes, offset);
    m.cols = read_at<int32_t>(bytes, offset);
    if (m.rows < 0 || m.cols < 0 || m.rows > 100000 || m.cols > 100000) throw Failure{"bad matrix size"};
    for (int64_t i = 0; i < int64_t{m.rows} * m.cols; ++i) m.values.push_back(read_at<float>(bytes, offset));
    return m;
}

int describe_filter_difference(const std::string &path_a, const std::string &path_b) {
    const std::vector<unsigned char> a = file_bytes(path_a), b = file_bytes(path_b);
    size_t offset = 24;
    const int32_t n = read_at<int32_t>(a, &offset);
    // Records, weights, fp_threshold, the ready flag and the mean (1 x n).
    const size_t fixed = 32 + 4 * static_cast<size_t>(n) + 5 + 8 + 4 * static_cast<size_t>(n);
    if (a.size() != b.size() || a.size() < fixed || a[fixed - 8 - 4 * n - 1] == 0) {
        throw Failure{"the models differ in size or have no filter"};
    }
    const bool same_before = std::equal(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(fixed), b.begin());
    std::printf("the %zu bytes before the principal directions are %s\n", fixed,
                same_before ? "the same" : "NOT the same");
    offset = fixed;
    size_t offset_b = fixed;
    FloatMatrix ma[3], mb[3];  // eigenvectors (K x n), reduce_mean (1 x K), reduce_inv_covar (K x K)
    for (int i = 0; i < 3; ++i) {
        ma[i] = read_matrix(a, &offset);
        mb[i] = read_matrix(b, &offset_b);
        if (ma[i].rows != mb[i].rows || ma[i].cols != mb[i].cols) throw Failure{"matrix sizes differ"};
    }
    const int k = ma[0].rows;
    std::vector<int> sign(static_cast<size_t>(k));
    for (int r = 0; r < k; ++r) {
        double dot = 0;
        for (int c = 0; c < ma[0].cols; ++c) dot += double{ma[0].at(r, c)} * mb[0].at(r, c);
        sign[static_cast<size_t>(r)] = dot < 0 ? -1 : 1;
    }
    const char *names[3] = {"eigenvectors", "reduce_mean", "reduce_inv_covar"};
    for (int i = 0; i < 3; ++i) {
        double largest = 0, difference = 0;
        size_t equal_bits = 0;
        for (int r = 0; r < ma[i].rows; ++r)
            for (int c = 0; c < ma[i].cols; ++c) {
                const int s = i == 0 ? sign[r] : i == 1 ? sign[c] : sign[r] * sign[c];
                const double x = ma[i].at(r, c), y = s * double{mb[i].at(r, c)};
                largest = std::max(largest, std::fabs(x));
                difference = std::max(difference, std::fabs(x - y));
                equal_bits += (x == y);
            }
        std::printf("%s %dx%d: %zu of %zu values bit-equal after the signs, largest difference %.3g of %.3g\n",
                    names[i], ma[i].rows, ma[i].cols, equal_bits, ma[i].values.size(), difference, largest);
    }
    int flipped = 0;
    for (int s : sign) flipped += s < 0;
    std::printf("%d of %d principal directions have the opposite sign\n", flipped, k);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    try {
        if (mode == "train" && argc == 4) {
            train(argv[2], argv[3]);
        } else if (mode == "train-accurate" && argc == 4) {
            train_accurate(argv[2], argv[3]);
        } else if (mode == "load" && argc == 5) {
            load_model(argv[2], argv[3], argv[4]);
        } else if (mode == "describe-filter-difference" && argc == 4) {
            return describe_filter_difference(argv[2], argv[3]);
        } else {
            std::fprintf(stderr,
                         "usage: ostrel_platform_probe train DATA_DIR OUT_DIR\n"
                         "       ostrel_platform_probe train-accurate DATA_DIR OUT_DIR\n"
                         "       ostrel_platform_probe load DATA_DIR MODEL OUT_DIR\n"
                         "       ostrel_platform_probe describe-filter-difference MODEL_A MODEL_B\n");
            return 2;
        }
    } catch (const Failure &f) {
        std::fflush(stdout);
        std::fprintf(stderr, "ostrel_platform_probe: %s\n", f.what.c_str());
        return 1;
    }
    return 0;
}
