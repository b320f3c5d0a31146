// The studio's detector: one library engine, what it was taught, and every
// operation the page asks of it.
//
// The library takes no locks and allows one thread per engine, so every
// call into the engine happens with the workspace's mutex held, on the one
// engine thread (engine_thread.h: the library's per-thread record of the
// last picture stays one); requests from several browser tabs queue up
// there instead of meeting inside the library. All tabs share this one workspace: it is one person's desk.
//
// What was taught is kept as a list of pictures with their marked boxes, in
// the order they were trained. Training a picture that is not on the list
// adds it: the library adds its samples to those it holds. Training a
// picture that is on the list again (its boxes changed), or removing a
// sample the library cannot remove by index, rebuilds the engine from the
// list: a fresh engine trains every listed picture in order, so the engine
// always holds exactly what the list says.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "box_geometry.h"
#include "engine.h"
#include "engine_thread.h"
#include "picture_store.h"
#include "training_monitor.h"

namespace ostrel_tool {
namespace studio {

struct WorkspaceSettings {
    uint32_t seed = 1;                // random background samples, as `ostrel train`
    uint32_t train_sensitivity = 80;  // the sensitivity auto-training runs at
    std::string profile = "classic";
    std::string scratch_folder;       // for model files on their way in or out
    size_t max_boxes = 256;           // marked boxes per picture
    size_t max_model_bytes = 4u << 20;
};

struct TaughtPicture {
    std::string name;
    std::vector<Rect> boxes;
};

struct TrainOutcome {
    int samples = 0;         // sample thumbnails the engine holds
    int passes = 0;          // auto-training passes of the picture trained last
    double ms = 0;           // wall time of the library calls
    bool rebuilt = false;    // the engine was rebuilt from the taught list
    bool trained = false;    // the engine holds a model afterwards
    std::vector<TrainingStep> steps;
};

struct DetectOutcome {
    std::vector<ostrel_alg_box> boxes;  // the library's result list, as it gave it
    int width = 0;
    int height = 0;
    double ms = 0;  // the detection call alone
};

struct SampleInfo {
    size_t index = 0;
    int label = 0;
    int width = 0;  // of the thumbnail
    int height = 0;
    std::string picture;  // the taught picture it came from ("" when unknown)
    Rect box;
};

class Workspace {
public:
    Workspace(PictureStore &store, WorkspaceSettings settings);
    ~Workspace();

    // Trains on a picture's marked boxes. Throws ApiError: 404 unknown
    // picture, 422 boxes that do not fit (outside the picture, sizes that
    // differ, a window the detector cannot learn or one that differs from
    // the other taught pictures'), 500 when the library fails.
    TrainOutcome train(const std::string &picture, const std::vector<Rect> &boxes);

    // Detects on a picture at a sensitivity (0..100). Throws 404 for an
    // unknown picture, 409 before anything is trained or loaded.
    DetectOutcome detect(const std::string &picture, uint32_t sensitivity);

    // The sample thumbnails of the engine; generation changes whenever the
    // list may have changed.
    std::vector<SampleInfo> samples(uint64_t &generation);
    // Thumbnail pixels (BGR). Throws 404 for an index past the list.
    cv::Mat thumbnail(size_t index);
    // Removes a sample and retrains. Throws 404 for an index past the list.
    TrainOutcome remove_sample(size_t index);

    // The model file. Throws 409 before anything is trained or loaded.
    std::string model_bytes();
    // Validates a model file and loads it into a fresh engine; what was
    // taught is dropped. Throws 413 for a file over the limit, 422 with the
    // reason when it fails validation.
    void load_model(const std::string &bytes, const std::string &name);
    // Forgets everything: a fresh, untrained engine.
    void reset();

    std::vector<TaughtPicture> taught();
    // {"trained", "model", "samples", "generation", "taught": [{"picture",
    //  "boxes"}], "box_size", "profile", "seed", "train_sensitivity"}
    nlohmann::ordered_json status();
    TrainingMonitor &monitor() { return monitor_; }
    size_t max_model_bytes() const { return settings_.max_model_bytes; }

private:
    // The operations above, on the engine thread.
    TrainOutcome train_here(const std::string &picture, const std::vector<Rect> &boxes);
    DetectOutcome detect_here(const std::string &picture, uint32_t sensitivity);
    TrainOutcome remove_sample_here(size_t index);
    std::string model_bytes_here();
    void load_model_here(const std::string &bytes, const std::string &name);
    void reset_here();

    std::unique_ptr<Engine> fresh_engine();
    // The size of the library's feature map, which every window check needs.
    void learn_map_size(const Picture &picture);
    void check_boxes(const PictureEntry &entry, const std::vector<Rect> &boxes, const std::string &replacing);
    bool train_list(Engine &engine, const std::vector<TaughtPicture> &list, std::string &failure);
    void refresh_samples();
    TrainOutcome outcome(double ms, bool rebuilt);
    std::string scratch_path(const char *what);

    PictureStore &store_;
    WorkspaceSettings settings_;
    TrainingMonitor monitor_;

    EngineThread engine_thread_;  // every call into the library is made there
    std::mutex mutex_;  // held around every use of engine_ and the members below
    std::unique_ptr<Engine> engine_;
    bool trained_ = false;
    std::string model_name_;  // "" (trained here) or the name of a loaded model file
    std::vector<TaughtPicture> taught_;
    std::vector<SampleThumbnail> thumbnails_;
    uint64_t generation_ = 0;
    uint32_t map_columns_ = 0, map_rows_ = 0, map_channels_ = 0;
    uint64_t scratch_counter_ = 0;
    bool boxes_skipped_ = false;  // the library left a marked box out: sample i is no longer box i
};

}  // namespace studio
}  // namespace ostrel_tool
