// What `ostrel detect` prints for one picture or video frame, and the names
// of the files it draws.
//
// Text: one line per box, "file  x,y,w,h  score 0.97  label 1  colours light,
// none", or "file  no detections"; a video frame puts "frame N  time_ms T"
// after the file. JSON: one line per picture or frame, {"file", ["frame",
// "time_ms",] "width", "height", "boxes": [...]}.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
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
};

// Every line (each ending with '\n') of the report in the chosen form.
std::string report_text(const DetectionReport &report, bool json);

// Milliseconds as written: whole milliseconds when the time is whole, else
// three decimals (a frame of a 30 fps video lies at 33.333 ms).
double rounded_ms(double ms);

// Output names in one folder, unique within a run: DIR/<stem><extension>,
// and "-2", "-3", ... for a name given before.
class OutputNames {
public:
    explicit OutputNames(std::string dir) : dir_(std::move(dir)) {}
    std::string name_for(const std::string &input, const std::string &extension);

private:
    std::string dir_;
    std::map<std::string, int> used_;
};

}  // namespace ostrel_tool
