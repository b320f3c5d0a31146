// Fuzz target: the box readers of the ostrel tool. The first byte chooses
// the reader, the rest is its input:
//   0  a JSON box list (parse_box_list_json, as --boxes FILE reads it);
//   1  a `detect --json` line: the rest is the "boxes" value of a line
//      {"file":...,"width":...,"height":...,"boxes":<rest>};
//   2  a Pascal VOC annotation (pugixml), its objects of class "RBC".
//
// Beyond memory safety the target checks the readers' promises: they fail
// only with the tool's own error (a message and an exit code, never another
// exception), and every box they return is at least 1 x 1 pixel with each
// value within the tool's range; a JSON list gives at most the limit of
// marked boxes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "boxes/box_io.h"
#include "cli/tool_error.h"
#include "files/voc_annotations.h"

namespace {

void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "promise broken: %s\n", what);
        std::abort();
    }
}

void check_boxes(const std::vector<ostrel_tool::Rect> &boxes) {
    for (const auto &b : boxes) {
        require(b.w >= 1 && b.h >= 1, "a box of at least 1 x 1 pixel");
        require(b.x >= -ostrel_tool::kLargestBoxValue && b.x <= ostrel_tool::kLargestBoxValue &&
                    b.y >= -ostrel_tool::kLargestBoxValue && b.y <= ostrel_tool::kLargestBoxValue &&
                    b.w <= ostrel_tool::kLargestBoxValue && b.h <= ostrel_tool::kLargestBoxValue,
                "box values within the tool's range");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const int reader = data[0] % 3;
    const std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
    try {
        if (reader == 0) {
            const auto boxes = ostrel_tool::parse_box_list_json(rest, "fuzz.json");
            require(boxes.size() <= ostrel_tool::kMaxMarkedBoxes, "at most the limit of marked boxes");
            check_boxes(boxes);
        } else if (reader == 1) {
            const std::string line = "{\"file\":\"a.jpg\",\"width\":640,\"height\":480,\"boxes\":" + rest + "}";
            const auto boxes = ostrel_tool::parse_box_list_json(line, "fuzz.jsonl");
            require(boxes.size() <= ostrel_tool::kMaxMarkedBoxes, "at most the limit of marked boxes");
            check_boxes(boxes);
        } else {
            (void)ostrel_tool::looks_like_xml(rest);
            const auto annotation = ostrel_tool::parse_voc_annotation(rest, "fuzz.xml");
            check_boxes(ostrel_tool::boxes_of_class(annotation, "RBC"));
        }
    } catch (const ostrel_tool::ToolError &e) {
        require(e.code() == ostrel_tool::ExitCode::input || e.code() == ostrel_tool::ExitCode::usage,
                "a refusal of an input");
        require(std::string(e.what()).find('\n') == std::string::npos, "a one-line message");
    }
    return 0;
}
