// A detector engine of the library, owned by the tool.
//
// Only the public C interface is used. The tool installs one library log
// handler for the whole process; it hands each message to the Engine whose
// call is running on the same thread. So every call's log lines go to that
// engine's line handler (and to standard error with --verbose, otherwise
// nowhere), never to standard output, also when several engines work on
// several threads. What a failed call means comes from the library's error
// record (last_error), and training steps from its progress records: the
// log lines are only shown, never read.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "files/picture.h"
#include "ostrel_alg.h"

namespace ostrel_tool {

// When true, engines pass the library's log lines on to standard error.
void set_show_library_lines(bool show);
bool show_library_lines();

// A sample thumbnail of the engine, copied out of the library's buffers.
struct SampleThumbnail {
    int32_t label = 0;
    cv::Mat bgr;  // 8-bit BGR; empty for a box that lay outside its picture
};

struct FeatureMap {
    std::vector<uint8_t> bytes;  // the library's storage order: channel, column, row
    uint32_t channels = 0;
    uint32_t columns = 0;
    uint32_t rows = 0;
};

// The confidence percent a box needs at each sensitivity, index 0..100, as
// the library sets it: front ends show it without deriving it. Throws
// ToolError(failed) when the library refuses one.
std::vector<uint32_t> confidence_by_sensitivity();

class Engine {
public:
    using ProgressHandler = std::function<void(const ostrel_alg_progress &step)>;

    // Creates the engine; throws ToolError(failed) when the library cannot.
    Engine();
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    // Receives the library's progress records of the following calls (on the
    // thread that makes the call, while the library runs, so it must not
    // call the library). Empty to remove.
    void set_progress_handler(ProgressHandler handler);

    bool set_sensitivity(uint32_t sensitivity);
    bool set_random_seed(uint32_t seed);
    // OSTREL_ALG_PROFILE_CLASSIC or OSTREL_ALG_PROFILE_ACCURATE.
    bool set_profile(int32_t profile);
    // The engine's profile now (an import takes the model file's).
    int32_t profile();
    // Trains on one picture and its marked boxes (label 1 each).
    bool train(const Picture &picture, const std::vector<ostrel_alg_box> &boxes);
    bool trained();
    // The training samples the engine holds (shifted copies included), by label.
    bool sample_counts(uint32_t &positives, uint32_t &negatives);
    // Detects; boxes receives the engine's result list (copied), and
    // classes, when given, the class index of each box.
    bool detect(const Picture &picture, std::vector<ostrel_alg_box> &boxes, std::vector<uint32_t> *classes = nullptr);
    // Adds a named class and makes it the one the next trainings teach
    // (accurate profile).
    bool add_class(const std::string &name);
    // The names of the engine's classes, by index ("" for an unnamed one;
    // empty without a class).
    std::vector<std::string> class_names();
    bool feature_map(const Picture &picture, FeatureMap &map);
    bool export_model(const std::string &path);
    bool import_model(const std::string &path);
    bool check_model(const std::string &path);
    // The sample thumbnails (copied), in the library's order.
    bool samples(std::vector<SampleThumbnail> &out);
    // Removes sample index and retrains.
    bool remove_sample(uint32_t index);

    // The library's lines of the last call, as they were shown (--verbose);
    // what a failure means is last_error().
    const std::vector<std::string> &last_lines() const { return last_lines_; }
    // The library's sentence for the engine's last failure ("" before any),
    // and its OSTREL_ALG_ERR_* code.
    std::string last_error() const;
    int32_t last_error_code() const;

    ostrel_alg *handle() { return handle_; }

private:
    template <typename Call>
    int32_t call(Call &&c);
    // Receives one message of the library during call().
    void on_library_message(const char *message);
    // Keeps one complete line and shows it with --verbose.
    void on_library_line(const std::string &line);
    static void dispatch_library_message(const char *message, void *user);
    static void dispatch_progress(const ostrel_alg_progress *step, void *user);

    ostrel_alg *handle_ = nullptr;
    ProgressHandler progress_handler_;
    std::vector<std::string> last_lines_;
    std::string pending_;  // a message part without its line end yet
};

}  // namespace ostrel_tool
