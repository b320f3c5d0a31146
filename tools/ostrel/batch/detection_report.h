// What `ostrel detect` prints for one picture or video frame, and the names
// of the files it draws.
//
// Text: one line per box, "file  x,y,w,h  score 0.97  label 1  colours light,
// none", or "file  no detections"; a video frame puts "frame N  time_ms T"
// after the file. JSON: one line per picture or frame, {"file", ["frame",
// "time_ms",] "width", "height", "boxes": [...]}. A model with named
// classes gives every box its class: "  class NAME" at the end of its text
// line, "class": NAME last in its JSON record.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ostrel_alg.h"

namespace ostrel_tool {

struct FramePlace {
    int64_t index = 0;
    double time_ms = 0.0;
};

struct DetectionReport {
    std::string file;
    std::optional<FramePlace> frame;
    int width = 0;
    int height = 0;
    std::vector<ostrel_alg_box> boxes;
    // The class name of each box, for a model whose classes have names;
    // empty for a model of one unnamed class.
    std::vector<std::string> classes;
};

// Every line (each ending with '\n') of the report in the chosen form. In
// text, the file name is written with printable_file_name().
std::string report_text(const DetectionReport &report, bool json);

// A file name as the text output writes it, so that no name can start a
// line of its own, move the columns of a line or hide bytes: a backslash
// becomes "\\", a line feed "\n", a carriage return "\r", a tab "\t", and
// every other control character (U+0000..U+001F, U+007F, U+0080..U+009F) and
// every byte that is not part of valid UTF-8 becomes "\xHH", one per byte.
// Everything else, all other UTF-8 included, stays as it is; reading the
// escapes back gives the name's bytes.
std::string printable_file_name(const std::string &name);

// Milliseconds as written: whole milliseconds when the time is whole, else
// three decimals (a frame of a 30 fps video lies at 33.333 ms).
double rounded_ms(double ms);

// Output names in one folder, unique within a run: DIR/<stem><extension>,
// and "-2", "-3", ... for a name given before. A name is never handed out
// twice, also when an input's own stem looks like a numbered one (x.jpg,
// x.jpg, x-2.jpg give x, x-2 and x-2-2). Asked again for the same input, it
// hands out the next name (for a caller that finds a name taken).
class OutputNames {
public:
    explicit OutputNames(std::string dir) : dir_(std::move(dir)) {}
    std::string name_for(const std::string &input, const std::string &extension);

private:
    std::string dir_;
    std::map<std::string, int> used_;
    std::set<std::string> given_;
};

}  // namespace ostrel_tool
