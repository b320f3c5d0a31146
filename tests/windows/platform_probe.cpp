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
//   ostrel_platform_probe load DATA_DIR MODEL OUT_DIR
//       validates and imports MODEL into a fresh engine and writes its
//       detections on the same pictures to OUT_DIR/boxes_of_imported_model.txt
//
// Boxes are written one per line with the score's bits in hexadecimal, so
// that equal files mean equal records.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"
#include "support/voc.h"

namespace {

const char *const kTrainingPicture = "BloodImage_00000";
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
                          b.width, b.height, static_cast<unsigned>(score_bits), b.label, b.color_main,
                          b.color_second);
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
    const std::vector<ostrel_alg_box> marked = ostrel_test::median_size_boxes(
        ostrel_test::read_voc(data + "/bccd/annotations/" + kTrainingPicture + ".xml"), "RBC");
    const ostrel_alg_image image = record(pixels, 1);
    check(ostrel_alg_setDetector_ptr(engine.get(), &image, marked.data(), static_cast<int32_t>(marked.size())),
          "ostrel_alg_setDetector_ptr");
    check(ostrel_alg_exportModel_ptr(engine.get(), (out + "/model.bin").c_str()), "ostrel_alg_exportModel_ptr");
    write_detections(engine.get(), data, out + "/boxes.txt");
}

void load_model(const std::string &data, const std::string &model, const std::string &out) {
    Engine engine;
    check(ostrel_alg_checkModelValidation_ptr(engine.get(), model.c_str()), "ostrel_alg_checkModelValidation_ptr");
    check(ostrel_alg_importModel_ptr(engine.get(), model.c_str()), "ostrel_alg_importModel_ptr");
    write_detections(engine.get(), data, out + "/boxes_of_imported_model.txt");
}

}  // namespace

int main(int argc, char **argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    try {
        if (mode == "train" && argc == 4) {
            train(argv[2], argv[3]);
        } else if (mode == "load" && argc == 5) {
            load_model(argv[2], argv[3], argv[4]);
        } else {
            std::fprintf(stderr,
                         "usage: ostrel_platform_probe train DATA_DIR OUT_DIR\n"
                         "       ostrel_platform_probe load DATA_DIR MODEL OUT_DIR\n");
            return 2;
        }
    } catch (const Failure &f) {
        std::fflush(stdout);
        std::fprintf(stderr, "ostrel_platform_probe: %s\n", f.what.c_str());
        return 1;
    }
    return 0;
}
