// `ostrel detect` over many inputs: pictures, folders, videos and lists,
// on several threads, with results in input order.
//
// The main thread expands the inputs, decodes video frames in order and
// hands out work: a picture's path (a worker reads it) or a decoded frame.
// Every worker thread has its own engine with the model loaded once. The
// main thread prints the results in input order, writes annotated videos
// frame by frame, keeps the progress line and watches for an interrupt.
// With any number of threads the output (text, JSON lines, drawn pictures
// and videos) is the same, byte for byte.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "batch/detection_report.h"
#include "commands/command_support.h"
#include "files/video_frames.h"
#include "ostrel_alg.h"

namespace ostrel_tool {

struct BatchDetectOptions {
    std::string model;
    std::vector<std::string> inputs;  // pictures, folders, videos
    std::vector<std::string> lists;   // list files, "-" for standard input
    bool recursive = false;
    uint32_t sensitivity = 80;
    int32_t profile = kProfileOfTheFile;  // --profile as given; the model file decides
    bool json = false;
    std::string draw_dir;
    int jobs = 0;  // 0: one per core
    FrameChoice frames;
    bool summary = false;
    bool progress = false;
    // When set, each picture's and frame's detection goes here, on the
    // main thread and in input order, instead of being printed: the boxes
    // as the library returned them (scores unrounded), their classes and
    // the picture's size (detect --format writes them in other forms).
    std::function<void(const DetectionReport &)> take_report;
};

// Runs the detection and returns the exit code: 0 when every input was
// used; 3 when an input could not be used (each one reported on standard
// error, all others done); 4 when an output could not be written; 130 when
// interrupted (what was done is written completely). Throws ToolError for
// failures before any work (model, --draw folder).
int run_batch_detection(const BatchDetectOptions &options);

// The number of threads for jobs (0: the number of cores).
int resolve_jobs(int jobs);

}  // namespace ostrel_tool
