// Fuzz target: the annotation readers of the ostrel tool. The first byte
// chooses the reader, the rest is its input:
//   0  COCO dataset file           5  Label Studio JSON export
//   1  YOLO label file (640x480)   6  dlib imglab XML
//   2  YOLO data.yaml names        7  Pascal VOC annotation
//   3  YOLO classes.txt            8  COCO results against a small dataset
//   4  CVAT for images 1.1 XML     9  format detection of a file's content
//
// Beyond memory safety the target checks the readers' promises: they fail
// only with the tool's own input error, in one line; every box they return
// has finite coordinates and a positive size; what a reader returns, its
// format's writer writes without failing.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

#include "cli/tool_error.h"
#include "labels/coco_labels.h"
#include "labels/cvat_labels.h"
#include "labels/imglab_labels.h"
#include "labels/label_formats.h"
#include "labels/labelstudio_labels.h"
#include "labels/voc_labels.h"
#include "labels/yolo_labels.h"

namespace {

using namespace ostrel_tool;

void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "promise broken: %s\n", what);
        std::abort();
    }
}

void check_box(const LabelBox &b) {
    require(std::isfinite(b.x) && std::isfinite(b.y) && std::isfinite(b.w) && std::isfinite(b.h), "finite coordinates");
    require(b.w > 0 && b.h > 0, "a positive size");
}

void check_set(const LabelSet &set) {
    for (const auto &p : set.pictures) {
        for (const auto &b : p.boxes) {
            check_box(b);
        }
    }
}

const LabelSet &small_dataset() {
    static const LabelSet dataset = parse_coco(
        "{\"categories\":[{\"id\":1,\"name\":\"a\"},{\"id\":0,\"name\":\"b\"}],\"images\":[{\"id\":1,\"file_name\":"
        "\"x.jpg\",\"width\":640,\"height\":480},{\"id\":7,\"file_name\":\"y.jpg\"}],\"annotations\":[]}",
        "dataset.json");
    return dataset;
}

// Format detection reads files: the input goes into one of this process's own.
std::string scratch_file() {
    static const std::string path =
        (std::filesystem::temp_directory_path() / ("fuzz-labels-" + std::to_string(::getpid()) + ".json")).string();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const int reader = data[0] % 10;
    const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    const LabelWriteOptions options;
    try {
        switch (reader) {
            case 0: {
                const LabelSet set = parse_coco(text, "f.json");
                check_set(set);
                (void)write_coco_dataset(set, options);
                break;
            }
            case 1: {
                for (const auto &b : parse_yolo_label_text(text, "f.txt", 640, 480, {"a", "b", "c"})) {
                    check_box(b);
                }
                break;
            }
            case 2: (void)parse_yolo_data_yaml(text, "data.yaml"); break;
            case 3: (void)parse_yolo_names(text, "classes.txt"); break;
            case 4: {
                const LabelSet set = parse_cvat(text, "f.xml");
                check_set(set);
                (void)write_cvat(set, options);
                break;
            }
            case 5: {
                const LabelSet set = parse_labelstudio(text, "f.json");
                check_set(set);
                (void)write_labelstudio(set, options);
                break;
            }
            case 6: {
                const LabelSet set = parse_imglab(text, "f.xml");
                check_set(set);
                (void)write_imglab(set, options);
                break;
            }
            case 7: {
                const LabelledPicture p = voc_picture_of(parse_voc_annotation(text, "f.xml"), "f.xml");
                for (const auto &b : p.boxes) {
                    check_box(b);
                }
                (void)write_voc_annotation(p, options);
                break;
            }
            case 8: {
                const LabelSet set = parse_coco_results(text, "r.json", small_dataset());
                check_set(set);
                (void)write_coco_results(set, &small_dataset());
                break;
            }
            default: {
                std::ofstream(scratch_file(), std::ios::binary | std::ios::trunc) << text;
                try {
                    (void)detect_label_format(scratch_file());
                } catch (const ToolError &) {
                    std::remove(scratch_file().c_str());
                    throw;
                }
                std::remove(scratch_file().c_str());
                break;
            }
        }
    } catch (const ToolError &e) {
        require(e.code() == ExitCode::input || e.code() == ExitCode::usage, "a refusal of an input");
        require(std::string(e.what()).find('\n') == std::string::npos, "a one-line message");
    }
    return 0;
}
