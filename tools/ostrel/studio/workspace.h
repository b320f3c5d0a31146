// The studio's detector: what it was taught, for every class, and every
// operation the page asks of it.
//
// This is the one place the studio asks to "train these classes" and to
// "detect all classes". Under the accurate profile every class the studio
// trains lives in one library engine of several classes (one class stays
// the unnamed class of an engine of its own, so its model file is the one
// it always was): a picture is detected once for all classes, and the
// model is one file holding every class. The classic profile learns one
// class an engine, so there each class has an engine of its own; a class
// opened from a one-class model file keeps the engine of that file too.
//
// The library takes no locks and allows one thread per engine, so every
// call into an engine happens with the workspace's mutex held, on the one
// engine thread (engine_thread.h: the library's per-thread record of the
// last picture stays one, and serves every class); requests from several
// browser tabs queue up there instead of meeting inside the library. All
// tabs share this one workspace: it is one person's desk.
//
// What each class was taught is kept as a list of pictures with their
// marked boxes, in the order they were trained. Training a picture that is
// not on the list adds it: the library adds its samples to those it holds.
// Training a picture that is on the list again (its boxes changed), or
// removing a sample the library cannot remove by index, rebuilds that
// class's engine from the list: a fresh engine trains every listed picture
// in order, so the engine always holds exactly what the list says. The one
// engine of the accurate profile's classes is rebuilt from every class's
// list (a class it holds only from a model file, with no list, is dropped
// by a rebuild, as a one-class model file's knowledge always was).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "boxes/box_geometry.h"
#include "engine/engine.h"
#include "studio/engine_thread.h"
#include "studio/picture_store.h"
#include "studio/training_monitor.h"

namespace ostrel_tool {
namespace studio {

// The library's two profiles by the names the page, the JSON interface and
// `--profile` give them; profile_number gives -1 for any other name.
int32_t profile_number(const std::string &name);
const char *profile_name(int32_t profile);

struct WorkspaceSettings {
    uint32_t seed = 1;                // random background samples, as `ostrel train`
    uint32_t train_sensitivity = 80;  // the sensitivity auto-training runs at
    // The profile training starts with (`ostrel studio` chooses it). A
    // person may switch it (set_profile) and a model file opened brings its own.
    std::string profile = "classic";
    std::string scratch_folder;  // for model files on their way in or out
    size_t max_boxes = 256;      // marked boxes per picture and class
    size_t max_model_bytes = 4u << 20;
};

struct TaughtPicture {
    std::string name;
    std::vector<Rect> boxes;
};

struct TrainOutcome {
    int samples = 0;       // sample thumbnails the engines hold
    int passes = 0;        // auto-training passes of the picture trained last
    double ms = 0;         // wall time of the library calls
    bool rebuilt = false;  // an engine was rebuilt from its taught list
    bool trained = false;  // the workspace holds a model afterwards
    std::vector<TrainingStep> steps;
    // Each class trained by the call, with the boxes it was given (made one
    // size) and its sample count afterwards.
    struct ClassResult {
        std::string name;
        std::vector<Rect> boxes;
        int samples = 0;
        int resized = 0;  // boxes given the class's window size
    };
    std::vector<ClassResult> classes;
};

// What a change of profile did to the detector.
struct ProfileChange {
    std::string from;
    std::string to;
    // "unchanged" (the profile it had), "none" (nothing was trained),
    // "retrained" (every class learnt its taught pictures again under the
    // new profile) or "forgotten" (what it learnt was dropped).
    std::string model;
    TrainOutcome retrained;  // for "retrained"
};

struct DetectOutcome {
    std::vector<ostrel_alg_box> boxes;     // the library's result lists, class after class, as it gave them
    std::vector<std::string> box_classes;  // the class of each box
    int width = 0;
    int height = 0;
    double ms = 0;  // the detection calls alone
};

struct SampleInfo {
    size_t index = 0;
    int label = 0;
    int width = 0;  // of the thumbnail
    int height = 0;
    std::string class_name;
    std::string picture;  // the taught picture it came from ("" when unknown)
    Rect box;
};

class Workspace {
public:
    Workspace(PictureStore &store, WorkspaceSettings settings);
    ~Workspace();

    // Trains a class on a picture's marked boxes, which must have one size.
    // Throws ApiError: 404 unknown picture, 422 boxes that do not fit
    // (outside the picture, sizes that differ, a window the detector cannot
    // learn or one that differs from the class's other taught pictures'),
    // 500 when the library fails.
    TrainOutcome train(const std::string &class_name, const std::string &picture, const std::vector<Rect> &boxes);

    // Trains every class from a picture's labels (class -> boxes of any
    // size): each class's boxes are given the class's one window size (their
    // middle size on its first picture, that window scaled to this picture
    // on later ones; centred on each box), and a class taught on this
    // picture before that has no boxes here now forgets the picture.
    TrainOutcome train_labels(const std::string &picture, const std::map<std::string, std::vector<Rect>> &labels);

    // Detects every trained class on a picture at a sensitivity (0..100).
    // Throws 404 for an unknown picture, 409 before anything is trained,
    // 422 with the library's reason when a model cannot detect there.
    DetectOutcome detect(const std::string &picture, uint32_t sensitivity);

    // The sample thumbnails of every class (class after class); generation
    // changes whenever the list may have changed.
    std::vector<SampleInfo> samples(uint64_t &generation);
    // Thumbnail pixels (BGR). Throws 404 for an index past the list.
    cv::Mat thumbnail(size_t index);
    // Removes a sample and retrains its class. Throws 404 for an index past the list.
    TrainOutcome remove_sample(size_t index);

    // The model file of a class (for a class of the shared engine, the file
    // of every class it holds), or ("") the one model file of every trained
    // class. Throws 409 before anything is trained, 404 for a class without
    // a model, 409 when the trained classes are in several engines (classic
    // profile, a class opened from its own file) and none is named.
    std::string model_bytes(const std::string &class_name);
    // Validates a model file and loads it as a class's detector (what that
    // class was taught is dropped). replace_all drops every other class too.
    // A model file of several classes brings its classes by their names
    // and always replaces the whole detector (class_name is not used).
    // Returns the classes the detector holds from the file.
    // The file decides the profile: the studio takes the engine's profile
    // after the import, as the library reports it, and trains under it
    // from then on. Throws 413 for a file over the limit, 422 with the
    // reason when it fails validation or no profile can use it, 409 when
    // it is of another profile than classes it would sit beside (one
    // studio detects under one profile).
    std::vector<std::string> load_model(const std::string &bytes, const std::string &name,
                                        const std::string &class_name, bool replace_all);
    // Switches the profile training uses. Before anything is trained it
    // just switches. Once trained, model says what becomes of the taught
    // detector: "retrain" learns every class's taught pictures again under
    // the new profile (all or nothing: 422 with the reason, and nothing
    // changes, when one cannot be learnt; 409 for a class opened from a
    // model file, which has no pictures to learn again), "forget" drops it;
    // without either the answer is 409 saying so, and nothing changes.
    // 400 for an unknown profile.
    ProfileChange set_profile(const std::string &profile, const std::string &model);
    // The profile training uses now.
    std::string profile();
    // Forgets everything: no class is trained.
    void reset();
    // A class's detector takes its new name (a shared engine learns its
    // classes again under their names, which its model file carries).
    void rename_class(const std::string &from, const std::string &to);

    // The taught pictures of every class, class after class.
    std::vector<TaughtPicture> taught();
    bool trained();
    // {"trained", "model", "samples", "generation", "taught": [{"picture",
    //  "boxes", "class"}], "box_size", "profile", "seed", "train_sensitivity",
    //  "model_files", "detectors": [{"name", "trained", "samples", "pictures",
    //  "model", "profile", "shared"}]}; every trained detector runs under
    //  "profile"; "model_files" counts the engines the trained classes are
    //  in (1: one model file holds them all), "shared" says a class is in an
    //  engine with other classes.
    nlohmann::ordered_json status();
    TrainingMonitor &monitor() { return monitor_; }
    size_t max_model_bytes() const { return settings_.max_model_bytes; }

private:
    // The operations above that call the library, on the engine thread.
    TrainOutcome train_here(const std::string &class_name, const std::string &picture, const std::vector<Rect> &boxes);
    TrainOutcome train_labels_here(const std::string &picture, const std::map<std::string, std::vector<Rect>> &labels);
    DetectOutcome detect_here(const std::string &picture, uint32_t sensitivity);
    TrainOutcome remove_sample_here(size_t index);
    std::string model_bytes_here(const std::string &class_name);
    std::vector<std::string> load_model_here(const std::string &bytes, const std::string &name,
                                             const std::string &class_name, bool replace_all);
    void reset_here();
    void rename_class_here(const std::string &from, const std::string &to);
    ProfileChange set_profile_here(const std::string &profile, const std::string &model);
    // An engine of a profile, with the studio's seed and sensitivity.
    std::unique_ptr<Engine> engine_of(int32_t profile);
    // Imports a checked model file; the engine whose profile can use it, or
    // null with the reason.
    std::unique_ptr<Engine> import_usable(const std::string &path, std::string &reason);
    // The trained classes other than name, as "A, B".
    std::string other_trained_locked(const std::string &name) const;

    struct ClassDetector {
        std::string name;
        // Shared by every class of the accurate profile's one engine.
        std::shared_ptr<Engine> engine;
        uint32_t class_index = 0;  // the class's index in its engine
        bool own_engine = false;   // opened from a one-class model file: never joins the shared engine
        bool trained = false;
        std::string model_name;                        // "" (trained here) or the name of a loaded model file
        int32_t profile = OSTREL_ALG_PROFILE_CLASSIC;  // the engine's, as the library reports it
        std::vector<TaughtPicture> taught;
        std::vector<SampleThumbnail> thumbnails;
        bool boxes_skipped = false;  // the library left a marked box out: sample i is no longer box i
    };

    ClassDetector &detector(const std::string &class_name);  // made when missing
    ClassDetector *find_detector(const std::string &class_name);
    std::unique_ptr<Engine> fresh_engine();
    // The size of the library's feature map, which every window check needs.
    void learn_map_size(const Picture &picture);
    void check_boxes(const ClassDetector &d, const PictureEntry &entry, const std::vector<Rect> &boxes,
                     const std::string &replacing);
    // Whether the studio's profile learns boxes of any size (the accurate
    // one); the classic profile learns one window a class.
    bool learns_any_size() const;
    // The classic profile's boxes of a class made one size: the first taught
    // picture's window scaled to this picture, or the boxes' median size.
    // Returns how many boxes changed.
    int fit_to_class_window(std::vector<Rect> &boxes, const TaughtPicture *first, const PictureEntry &entry);
    bool train_list(ClassDetector &d, Engine &engine, const std::vector<TaughtPicture> &list, std::string &failure);
    // Trains one class on one picture, with the mutex held and the monitor running.
    void train_locked(ClassDetector &d, const std::string &picture, const std::vector<Rect> &boxes,
                      std::string &failure, bool &rebuilt);
    // Drops a picture from a class's list and rebuilds its engine.
    void forget_picture_locked(ClassDetector &d, const std::string &picture, std::string &failure);
    void refresh_samples(ClassDetector &d);
    // Whether a class learns in the accurate profile's shared engine.
    bool shares_engine(const ClassDetector &d) const;
    // The trained classes of the shared engine, in class-index order.
    std::vector<ClassDetector *> shared_classes();
    // A fresh shared engine learns every sharing class's list (changed's
    // list replaced by list): classes named when there are several, one
    // class unnamed. On success every sharing class takes it (a class left
    // with no list is untrained); on failure nothing changes.
    bool rebuild_shared(ClassDetector &changed, const std::vector<TaughtPicture> &list, std::string &failure);
    // Trains one class of the shared engine on one picture (with the mutex
    // held and the monitor running): added to what the engine holds when it
    // can, else the shared engine is rebuilt.
    void train_shared_locked(ClassDetector &d, const std::string &picture, const std::vector<Rect> &boxes,
                             std::string &failure, bool &rebuilt);
    // Makes a class the current one of its engine (for samples and training).
    bool select_class(ClassDetector &d);
    bool trained_locked() const;
    int sample_count_locked() const;
    TrainOutcome outcome(double ms, bool rebuilt);
    std::string scratch_path(const char *what);

    PictureStore &store_;
    WorkspaceSettings settings_;  // settings_.profile: guarded by mutex_, as the detectors
    TrainingMonitor monitor_;

    EngineThread engine_thread_;            // every call into the library is made there
    std::mutex mutex_;                      // held around every use of an engine and the members below
    std::vector<ClassDetector> detectors_;  // in the order the classes were first trained
    uint64_t generation_ = 0;
    uint32_t map_columns_ = 0, map_rows_ = 0, map_channels_ = 0;
    uint64_t scratch_counter_ = 0;
    std::unique_ptr<Engine> probe_;  // asks the library for the feature map's size
};

}  // namespace studio
}  // namespace ostrel_tool
