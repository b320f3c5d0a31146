#include "workspace.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "api_error.h"
#include "atomic_file.h"
#include "command_support.h"
#include "model_info.h"
#include "model_usability.h"
#include "tool_error.h"
#include "tool_output.h"
#include "training_set.h"

namespace ostrel_tool {
namespace studio {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::vector<ostrel_alg_box> marked_boxes(const std::vector<Rect> &boxes) {
    std::vector<ostrel_alg_box> out;
    for (const Rect &r : boxes) {
        out.push_back(marked_box(r));
    }
    return out;
}

// Removes a scratch file when it goes out of scope.
struct ScratchFile {
    std::string path;
    ~ScratchFile() {
        std::error_code ec;
        fs::remove(path, ec);
    }
};

}  // namespace

int32_t profile_number(const std::string &name) {
    if (name == "classic") return OSTREL_ALG_PROFILE_CLASSIC;
    if (name == "accurate") return OSTREL_ALG_PROFILE_ACCURATE;
    return -1;
}

const char *profile_name(int32_t profile) {
    return profile == OSTREL_ALG_PROFILE_ACCURATE ? "accurate" : "classic";
}

Workspace::Workspace(PictureStore &store, WorkspaceSettings settings)
    : store_(store), settings_(std::move(settings)) {
    engine_thread_.run([this] {
        probe_ = fresh_engine();
        // Asked now rather than on the first Train, which a person waits for.
        const auto pictures = store_.list();
        if (!pictures.empty()) {
            try {
                learn_map_size(*store_.picture(pictures.front().name));
            } catch (const ApiError &) {
                // The first Train asks again.
            }
        }
    });
}

void Workspace::learn_map_size(const Picture &picture) {
    if (map_columns_ != 0) {
        return;
    }
    // The feature map has the same size for every picture: ask once.
    FeatureMap map;
    if (!probe_->feature_map(picture, map) || map.columns == 0 || map.rows == 0) {
        throw ApiError(http_status::internal_error, "the library could not compute features: " + probe_->last_line());
    }
    map_columns_ = map.columns;
    map_rows_ = map.rows;
    map_channels_ = map.channels;
}

Workspace::~Workspace() {
    engine_thread_.run([this] {
        detectors_.clear();
        probe_.reset();
    });
}

std::unique_ptr<Engine> Workspace::fresh_engine() {
    return engine_of(profile_number(settings_.profile));
}

std::unique_ptr<Engine> Workspace::engine_of(int32_t profile) {
    auto engine = std::make_unique<Engine>();
    engine->set_line_handler([this](const std::string &line) { monitor_.on_library_line(line); });
    if (!engine->set_profile(profile) || !engine->set_random_seed(settings_.seed) ||
        !engine->set_sensitivity(settings_.train_sensitivity)) {
        throw ApiError(http_status::internal_error, "the library refused the settings: " + engine->last_line());
    }
    return engine;
}

Workspace::ClassDetector *Workspace::find_detector(const std::string &class_name) {
    for (ClassDetector &d : detectors_) {
        if (d.name == class_name) return &d;
    }
    return nullptr;
}

Workspace::ClassDetector &Workspace::detector(const std::string &class_name) {
    if (ClassDetector *d = find_detector(class_name)) return *d;
    ClassDetector d;
    d.name = class_name;
    d.engine = fresh_engine();
    d.profile = profile_number(settings_.profile);
    detectors_.push_back(std::move(d));
    return detectors_.back();
}

std::string Workspace::scratch_path(const char *what) {
    return (fs::path(settings_.scratch_folder) / strformat("%s-%llu.model", what,
                                                            static_cast<unsigned long long>(++scratch_counter_)))
        .string();
}

bool Workspace::learns_any_size() const {
    return profile_number(settings_.profile) == OSTREL_ALG_PROFILE_ACCURATE;
}

int Workspace::fit_to_class_window(std::vector<Rect> &boxes, const TaughtPicture *first, const PictureEntry &entry) {
    Size window = median_size(boxes);
    if (first) {
        const PictureEntry other = store_.find(first->name);
        window = scaled_window({first->boxes.front().w, first->boxes.front().h}, {other.width, other.height},
                               {entry.width, entry.height}, map_columns_, map_rows_);
    }
    return fit_boxes_to(boxes, window, entry.width, entry.height);
}

void Workspace::check_boxes(const ClassDetector &d, const PictureEntry &entry, const std::vector<Rect> &boxes,
                            const std::string &replacing) {
    if (boxes.empty()) {
        throw ApiError(http_status::unprocessable, "mark at least one box before training");
    }
    if (boxes.size() > settings_.max_boxes) {
        throw ApiError(http_status::unprocessable,
                       strformat("%zu boxes: at most %zu per picture", boxes.size(), settings_.max_boxes));
    }
    // The classic profile learns one window: every box of a class has one
    // size, which must give a window it can hold. The accurate profile
    // learns boxes of any size and judges them itself (a refusal is a 422).
    const bool one_window = !learns_any_size();
    const Rect &first = boxes.front();
    for (size_t i = 0; i < boxes.size(); ++i) {
        const Rect &b = boxes[i];
        if (b.w < 1 || b.h < 1) {
            throw ApiError(http_status::unprocessable, strformat("box %zu has no area (%dx%d)", i + 1, b.w, b.h));
        }
        if (b.x < 0 || b.y < 0 || static_cast<int64_t>(b.x) + b.w > entry.width ||
            static_cast<int64_t>(b.y) + b.h > entry.height) {
            throw ApiError(http_status::unprocessable,
                           strformat("box %zu (%s) does not lie inside the %dx%d picture", i + 1,
                                     to_string(b).c_str(), entry.width, entry.height));
        }
        if (one_window && (b.w != first.w || b.h != first.h)) {
            throw ApiError(http_status::unprocessable,
                           strformat("box %zu is %dx%d; the detector learns one size, so every box must have the "
                                     "first box's size %dx%d",
                                     i + 1, b.w, b.h, first.w, first.h));
        }
    }
    if (!one_window) {
        return;
    }
    const WindowCells cells = window_cells({first.w, first.h}, entry.width, entry.height, map_columns_, map_rows_,
                                           map_channels_);
    if (cells.values < kMinWindowValues || cells.values > kMaxWindowValues) {
        const std::string who = detectors_.size() > 1 || d.name != "object" ? " (" + d.name + ")" : "";
        throw ApiError(http_status::unprocessable,
                       strformat("a %dx%d box%s on this %dx%d picture is too %s for the detector (it needs a window "
                                 "of %d to %d values, this one has %d): draw a %s box",
                                 first.w, first.h, who.c_str(), entry.width, entry.height,
                                 cells.values < kMinWindowValues ? "small" : "large", kMinWindowValues,
                                 kMaxWindowValues, cells.values, cells.values < kMinWindowValues ? "larger" : "smaller"));
    }
    // All taught pictures of the class must give the detector the same window.
    for (const TaughtPicture &t : d.taught) {
        if (t.name == replacing || t.boxes.empty()) {
            continue;
        }
        const PictureEntry other = store_.find(t.name);
        const WindowCells taught_cells = window_cells({t.boxes.front().w, t.boxes.front().h}, other.width,
                                                      other.height, map_columns_, map_rows_, map_channels_);
        if (taught_cells.columns != cells.columns || taught_cells.rows != cells.rows) {
            throw ApiError(http_status::unprocessable,
                           strformat("the detector learnt %dx%d boxes on %s; a %dx%d box here does not match that "
                                     "size: use boxes of the same size, or start over",
                                     t.boxes.front().w, t.boxes.front().h, t.name.c_str(), first.w, first.h));
        }
    }
}

bool Workspace::train_list(ClassDetector &d, Engine &engine, const std::vector<TaughtPicture> &list,
                           std::string &failure) {
    for (const TaughtPicture &t : list) {
        const auto picture = store_.picture(t.name);
        monitor_.picture(t.name, detectors_.size() > 1 ? d.name : "");
        if (!engine.train(*picture, marked_boxes(t.boxes))) {
            const std::string reason = engine.last_line();
            failure = "training on '" + t.name + "' failed" + (reason.empty() ? "" : ": " + reason);
            return false;
        }
    }
    return true;
}

void Workspace::refresh_samples(ClassDetector &d) {
    ++generation_;
    d.profile = d.engine->profile();
    if (!d.engine->samples(d.thumbnails)) {
        d.thumbnails.clear();
    }
}

bool Workspace::trained_locked() const {
    for (const ClassDetector &d : detectors_) {
        if (d.trained) return true;
    }
    return false;
}

int Workspace::sample_count_locked() const {
    size_t n = 0;
    for (const ClassDetector &d : detectors_) n += d.thumbnails.size();
    return static_cast<int>(n);
}

TrainOutcome Workspace::outcome(double ms, bool rebuilt) {
    TrainOutcome o;
    o.samples = sample_count_locked();
    o.passes = monitor_.passes_of_last_picture();
    o.ms = ms;
    o.rebuilt = rebuilt;
    o.trained = trained_locked();
    o.steps = monitor_.steps();
    return o;
}

void Workspace::train_locked(ClassDetector &d, const std::string &name, const std::vector<Rect> &boxes,
                             std::string &failure, bool &rebuilt) {
    const auto picture = store_.picture(name);
    bool known = false;
    for (const TaughtPicture &t : d.taught) {
        known = known || t.name == name;
    }
    if (!known) {
        // A new picture: the library adds its samples to those it holds.
        monitor_.picture(name, detectors_.size() > 1 ? d.name : "");
        if (!d.engine->set_sensitivity(settings_.train_sensitivity) || !d.engine->train(*picture, marked_boxes(boxes))) {
            const std::string reason = d.engine->last_line();
            failure = "training on '" + name + "' failed" + (reason.empty() ? "" : ": " + reason);
            // The failed call may have left part of the picture in the engine:
            // go back to what the list says.
            auto engine = fresh_engine();
            std::string ignored;
            if (d.taught.empty() || train_list(d, *engine, d.taught, ignored)) {
                d.engine = std::move(engine);
                d.trained = !d.taught.empty();
            }
        } else {
            d.taught.push_back({name, boxes});
            d.boxes_skipped = d.boxes_skipped || monitor_.skipped_boxes() > 0;
            d.trained = true;
        }
    } else {
        // A picture taught before, with its boxes as they are now: a fresh
        // engine learns the whole list again.
        std::vector<TaughtPicture> list = d.taught;
        for (TaughtPicture &t : list) {
            if (t.name == name) {
                t.boxes = boxes;
            }
        }
        auto engine = fresh_engine();
        if (train_list(d, *engine, list, failure)) {
            d.engine = std::move(engine);
            d.taught = list;
            d.boxes_skipped = monitor_.skipped_boxes() > 0;
            d.trained = true;
        }
        rebuilt = true;
    }
    if (failure.empty()) {
        d.model_name.clear();
    }
    refresh_samples(d);
}

void Workspace::forget_picture_locked(ClassDetector &d, const std::string &name, std::string &failure) {
    std::vector<TaughtPicture> list;
    for (const TaughtPicture &t : d.taught) {
        if (t.name != name) list.push_back(t);
    }
    if (list.size() == d.taught.size()) return;
    auto engine = fresh_engine();
    if (list.empty() || train_list(d, *engine, list, failure)) {
        d.engine = std::move(engine);
        d.taught = list;
        d.trained = !list.empty();
        d.boxes_skipped = monitor_.skipped_boxes() > 0;
    }
    refresh_samples(d);
}

TrainOutcome Workspace::train_here(const std::string &class_name, const std::string &name, const std::vector<Rect> &boxes) {
    const PictureEntry entry = store_.find(name);
    const auto picture = store_.picture(name);  // decoded before the engine is taken

    std::lock_guard<std::mutex> lock(mutex_);
    learn_map_size(*picture);
    ClassDetector *existing = find_detector(class_name);
    ClassDetector scratch;
    scratch.name = class_name;
    check_boxes(existing ? *existing : scratch, entry, boxes, name);
    ClassDetector &d = detector(class_name);

    monitor_.begin(name);
    const auto start = Clock::now();
    std::string failure;
    bool rebuilt = false;
    train_locked(d, name, boxes, failure, rebuilt);
    const double ms = ms_since(start);
    monitor_.end(failure.empty());
    if (!failure.empty()) {
        // The library refused what it was given to learn (the engine is
        // back to what it held): a request it cannot serve, not a failure.
        throw ApiError(http_status::unprocessable, failure);
    }
    TrainOutcome o = outcome(ms, rebuilt);
    o.classes.push_back({class_name, boxes, static_cast<int>(d.thumbnails.size()), 0});
    return o;
}

TrainOutcome Workspace::train_labels_here(const std::string &name, const std::map<std::string, std::vector<Rect>> &labels) {
    const PictureEntry entry = store_.find(name);
    const auto picture = store_.picture(name);

    std::lock_guard<std::mutex> lock(mutex_);
    learn_map_size(*picture);
    if (labels.empty()) {
        throw ApiError(http_status::unprocessable, "mark at least one box before training");
    }
    // Every class's boxes (under the classic profile made its one size)
    // checked before any engine
    // changes: a refusal leaves every class as it was.
    std::vector<TrainOutcome::ClassResult> plan;
    for (const auto &l : labels) {
        std::vector<Rect> boxes = l.second;
        ClassDetector *existing = find_detector(l.first);
        const TaughtPicture *first = nullptr;
        if (existing) {
            for (const TaughtPicture &t : existing->taught) {
                if (t.name != name && !t.boxes.empty()) {
                    first = &t;
                    break;
                }
            }
        }
        int resized = 0;
        if (!learns_any_size()) {
            resized = fit_to_class_window(boxes, first, entry);
        }
        for (Rect &b : boxes) {
            b = moved_inside(b, entry.width, entry.height);
        }
        ClassDetector scratch;
        scratch.name = l.first;
        check_boxes(existing ? *existing : scratch, entry, boxes, name);
        plan.push_back({l.first, boxes, 0, resized});
    }

    monitor_.begin(name);
    const auto start = Clock::now();
    std::string failure;
    bool rebuilt = false;
    for (TrainOutcome::ClassResult &c : plan) {
        detector(c.name);
    }
    for (TrainOutcome::ClassResult &c : plan) {
        ClassDetector &d = detector(c.name);
        train_locked(d, name, c.boxes, failure, rebuilt);
        c.samples = static_cast<int>(d.thumbnails.size());
        if (!failure.empty()) break;
    }
    // A class taught on this picture before that has no boxes here now.
    if (failure.empty()) {
        for (ClassDetector &d : detectors_) {
            if (labels.count(d.name) == 0) {
                const size_t before = d.taught.size();
                forget_picture_locked(d, name, failure);
                rebuilt = rebuilt || before != d.taught.size();
            }
        }
    }
    const double ms = ms_since(start);
    monitor_.end(failure.empty());
    if (!failure.empty()) {
        throw ApiError(http_status::unprocessable, failure);
    }
    TrainOutcome o = outcome(ms, rebuilt);
    o.classes = plan;
    return o;
}

DetectOutcome Workspace::detect_here(const std::string &name, uint32_t sensitivity) {
    const PictureEntry entry = store_.find(name);
    const auto picture = store_.picture(name);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!trained_locked()) {
        throw ApiError(http_status::conflict, "nothing is trained yet: mark boxes and press Train, or open a model");
    }
    DetectOutcome out;
    out.width = entry.width;
    out.height = entry.height;
    for (ClassDetector &d : detectors_) {
        if (!d.trained) continue;
        if (!d.engine->set_sensitivity(sensitivity)) {
            throw ApiError(http_status::bad_request, strformat("the library refused sensitivity %u", sensitivity));
        }
        std::vector<ostrel_alg_box> boxes;
        const auto start = Clock::now();
        const bool ok = d.engine->detect(*picture, boxes);
        out.ms += ms_since(start);
        if (!ok) {
            // Between a model and a picture (a size it cannot search there,
            // say): the library's reason goes to the person, as a refusal.
            const std::string reason = d.engine->last_line();
            throw ApiError(http_status::unprocessable,
                           "the " + d.name + " detector cannot detect on '" + name + "'" +
                               (reason.empty() ? "" : ": " + reason));
        }
        out.boxes.insert(out.boxes.end(), boxes.begin(), boxes.end());
        out.box_classes.insert(out.box_classes.end(), boxes.size(), d.name);
    }
    return out;
}

std::vector<SampleInfo> Workspace::samples(uint64_t &generation) {
    std::lock_guard<std::mutex> lock(mutex_);
    generation = generation_;
    std::vector<SampleInfo> out;
    for (const ClassDetector &d : detectors_) {
        // Thumbnail i belongs to the i-th marked box, taught pictures in order.
        std::vector<std::pair<std::string, Rect>> origin;
        for (const TaughtPicture &t : d.taught) {
            for (const Rect &b : t.boxes) {
                origin.emplace_back(t.name, b);
            }
        }
        const bool known = origin.size() == d.thumbnails.size();
        for (size_t i = 0; i < d.thumbnails.size(); ++i) {
            SampleInfo s;
            s.index = out.size();
            s.label = d.thumbnails[i].label;
            s.width = d.thumbnails[i].bgr.cols;
            s.height = d.thumbnails[i].bgr.rows;
            s.class_name = d.name;
            if (known) {
                s.picture = origin[i].first;
                s.box = origin[i].second;
            }
            out.push_back(s);
        }
    }
    return out;
}

cv::Mat Workspace::thumbnail(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    const int total = sample_count_locked();
    for (const ClassDetector &d : detectors_) {
        if (index < d.thumbnails.size()) return d.thumbnails[index].bgr.clone();
        index -= d.thumbnails.size();
    }
    throw ApiError(http_status::not_found, strformat("no sample %zu (there are %d)", index, total));
}

TrainOutcome Workspace::remove_sample_here(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t asked = index;
    ClassDetector *found = nullptr;
    for (ClassDetector &d : detectors_) {
        if (index < d.thumbnails.size()) {
            found = &d;
            break;
        }
        index -= d.thumbnails.size();
    }
    if (found == nullptr) {
        throw ApiError(http_status::not_found,
                       strformat("no sample %zu (there are %d)", asked, sample_count_locked()));
    }
    ClassDetector &d = *found;
    size_t total = 0;
    for (const TaughtPicture &t : d.taught) {
        total += t.boxes.size();
    }
    if (total != d.thumbnails.size()) {
        throw ApiError(http_status::conflict, "the samples of a loaded model cannot be removed one by one");
    }
    // Which picture and box the sample came from.
    size_t picture = 0, box = index;
    while (box >= d.taught[picture].boxes.size()) {
        box -= d.taught[picture].boxes.size();
        ++picture;
    }
    std::vector<TaughtPicture> list = d.taught;
    list[picture].boxes.erase(list[picture].boxes.begin() + static_cast<long>(box));
    if (list[picture].boxes.empty()) {
        list.erase(list.begin() + static_cast<long>(picture));
    }

    monitor_.begin("remove sample " + std::to_string(asked));
    const auto start = Clock::now();
    std::string failure;
    bool rebuilt = false;
    if (list.empty()) {
        // The last sample: nothing is left to learn from.
        d.engine = fresh_engine();
        d.trained = false;
    } else if (d.taught.size() == 1 && !d.boxes_skipped) {
        // One taught picture: the library's sample i is marked box i, and the
        // library removes it and retrains the classifier.
        if (!d.engine->set_sensitivity(settings_.train_sensitivity) ||
            !d.engine->remove_sample(static_cast<uint32_t>(index))) {
            const std::string reason = d.engine->last_line();
            failure = "removing the sample failed" + (reason.empty() ? "" : ": " + reason);
        }
    } else {
        // With several pictures the library's sample numbers also count the
        // background samples of earlier pictures: rebuild from the list.
        auto engine = fresh_engine();
        if (train_list(d, *engine, list, failure)) {
            d.engine = std::move(engine);
            d.boxes_skipped = monitor_.skipped_boxes() > 0;
        }
        rebuilt = true;
    }
    const double ms = ms_since(start);
    monitor_.end(failure.empty());
    refresh_samples(d);
    if (!failure.empty()) {
        throw ApiError(http_status::internal_error, failure);
    }
    d.taught = list;
    return outcome(ms, rebuilt);
}

std::string Workspace::model_bytes_here(const std::string &class_name) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!trained_locked()) {
        throw ApiError(http_status::conflict, "there is no model yet: mark boxes and press Train first");
    }
    ClassDetector *d = nullptr;
    if (class_name.empty()) {
        std::vector<std::string> names;
        for (ClassDetector &c : detectors_) {
            if (c.trained) {
                names.push_back(c.name);
                d = &c;
            }
        }
        if (names.size() > 1) {
            std::string list;
            for (const std::string &n : names) list += (list.empty() ? "" : ", ") + n;
            throw ApiError(http_status::conflict, "several classes are trained (" + list +
                                                      "): a model file holds one class, name it with ?class=NAME");
        }
    } else {
        d = find_detector(class_name);
        if (d == nullptr || !d->trained) {
            throw ApiError(http_status::not_found, "no model of the class '" + class_name + "' yet");
        }
    }
    ScratchFile file{scratch_path("export")};
    if (!d->engine->export_model(file.path)) {
        throw ApiError(http_status::internal_error, "the library could not export the model: " + d->engine->last_line());
    }
    if (!d->engine->check_model(file.path)) {
        throw ApiError(http_status::internal_error,
                       "the exported model does not validate: " + model_problem(file.path, d->engine->last_line()));
    }
    return read_file(file.path);
}

void Workspace::load_model_here(const std::string &bytes, const std::string &name, const std::string &class_name,
                                bool replace_all) {
    if (bytes.size() > settings_.max_model_bytes) {
        throw ApiError(http_status::payload_too_large,
                       strformat("a model file is at most %zu KiB; this one has %zu bytes",
                                 settings_.max_model_bytes >> 10, bytes.size()));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ScratchFile file{scratch_path("import")};
    try {
        write_file_atomically(file.path, bytes);
    } catch (const ToolError &e) {
        throw ApiError(http_status::internal_error, std::string("cannot keep the model file: ") + e.what());
    }
    auto checker = fresh_engine();
    if (!checker->check_model(file.path)) {
        throw ApiError(http_status::unprocessable,
                       "this model file is not valid: " + model_problem(file.path, checker->last_line()));
    }
    std::string reason;
    std::unique_ptr<Engine> engine = import_usable(file.path, reason);
    if (!engine) {
        throw ApiError(http_status::unprocessable, "this model cannot be used: " + reason);
    }
    // The file decides the profile; one studio detects under one profile.
    const std::string file_profile = profile_name(engine->profile());
    if (file_profile != settings_.profile) {
        const std::string others = replace_all ? "" : other_trained_locked(class_name);
        if (!others.empty()) {
            throw ApiError(http_status::conflict,
                           "this is a model of the " + file_profile + " profile, and " + others +
                               (others.find(',') == std::string::npos ? " is" : " are") + " trained under the " +
                               settings_.profile + " profile: switch the profile first (retraining or forgetting " +
                               "them), or start over");
        }
        settings_.profile = file_profile;
        // Detectors not trained yet hold engines of the old profile.
        std::vector<ClassDetector> kept;
        for (ClassDetector &c : detectors_) {
            if (c.trained) kept.push_back(std::move(c));
        }
        detectors_ = std::move(kept);
    }
    if (replace_all) {
        detectors_.clear();
    }
    ClassDetector &d = detector(class_name);
    d.engine = std::move(engine);
    d.taught.clear();
    d.boxes_skipped = false;
    d.trained = true;
    d.model_name = name.empty() ? "model file" : name;
    refresh_samples(d);
}

std::unique_ptr<Engine> Workspace::import_usable(const std::string &path, std::string &reason) {
    const ModelInfo info = read_model_info(path);
    // The file says its profile: the import turns the engine into the
    // file's, which is read back from the engine, never assumed.
    auto engine = engine_of(profile_number(settings_.profile));
    if (!engine->import_model(path)) {
        reason = engine->last_line();
        if (reason.empty()) reason = "the library could not load it";
        return nullptr;
    }
    reason = usability_problem(path, info);
    if (!reason.empty()) {
        return nullptr;
    }
    return engine;
}

std::string Workspace::other_trained_locked(const std::string &name) const {
    std::string list;
    for (const ClassDetector &c : detectors_) {
        if (c.trained && c.name != name) list += (list.empty() ? "" : ", ") + c.name;
    }
    return list;
}

void Workspace::reset_here() {
    std::lock_guard<std::mutex> lock(mutex_);
    detectors_.clear();
    ++generation_;
}

ProfileChange Workspace::set_profile_here(const std::string &profile, const std::string &model) {
    const int32_t number = profile_number(profile);
    if (number < 0) {
        throw ApiError(http_status::bad_request, "unknown profile '" + profile + "': accurate or classic");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ProfileChange change;
    change.from = settings_.profile;
    change.to = profile;
    if (profile == settings_.profile) {
        change.model = "unchanged";
        return change;
    }
    if (!trained_locked()) {
        settings_.profile = profile;
        detectors_.clear();  // untrained engines of the old profile
        ++generation_;
        change.model = "none";
        return change;
    }
    const std::string classes = other_trained_locked("");
    if (model.empty()) {
        throw ApiError(http_status::conflict,
                       "the detector is trained (" + classes + ") under the " + settings_.profile +
                           " profile: to switch to the " + profile + " profile, say \"model\": \"retrain\" to " +
                           "learn every class's taught pictures again under it, or \"forget\" to drop what it " +
                           "learnt (the labels stay)");
    }
    if (model == "forget") {
        settings_.profile = profile;
        detectors_.clear();
        ++generation_;
        change.model = "forgotten";
        return change;
    }
    for (const ClassDetector &d : detectors_) {
        if (d.trained && d.taught.empty()) {
            throw ApiError(http_status::conflict,
                           "the " + d.name + " detector comes from the model file " + d.model_name +
                               ", which holds no pictures to learn again: save it, then switch and forget it " +
                               "(or keep the " + settings_.profile + " profile)");
        }
    }
    // Every class learns again on new engines; they replace the old ones
    // only when all have learnt.
    const std::string before = settings_.profile;
    settings_.profile = profile;
    monitor_.begin("the " + profile + " profile");
    const auto start = Clock::now();
    std::vector<std::unique_ptr<Engine>> engines(detectors_.size());
    std::string failure;
    bool skipped = false;
    for (size_t i = 0; i < detectors_.size() && failure.empty(); ++i) {
        if (!detectors_[i].trained) continue;
        engines[i] = fresh_engine();
        if (!train_list(detectors_[i], *engines[i], detectors_[i].taught, failure)) break;
        skipped = skipped || monitor_.skipped_boxes() > 0;
    }
    const double ms = ms_since(start);
    monitor_.end(failure.empty());
    if (!failure.empty()) {
        settings_.profile = before;
        throw ApiError(http_status::unprocessable, "under the " + profile + " profile " + failure +
                                                       "; nothing changed: the " + before + " profile stays");
    }
    std::vector<ClassDetector> kept;
    for (size_t i = 0; i < detectors_.size(); ++i) {
        if (!engines[i]) continue;  // untrained: made afresh when it is trained
        detectors_[i].engine = std::move(engines[i]);
        detectors_[i].boxes_skipped = skipped;
        refresh_samples(detectors_[i]);
        kept.push_back(std::move(detectors_[i]));
    }
    detectors_ = std::move(kept);
    change.model = "retrained";
    change.retrained = outcome(ms, true);
    return change;
}

// Every operation that touches an engine runs on the engine thread.
TrainOutcome Workspace::train(const std::string &class_name, const std::string &picture, const std::vector<Rect> &boxes) {
    return engine_thread_.run([&] { return train_here(class_name, picture, boxes); });
}

TrainOutcome Workspace::train_labels(const std::string &picture, const std::map<std::string, std::vector<Rect>> &labels) {
    return engine_thread_.run([&] { return train_labels_here(picture, labels); });
}

DetectOutcome Workspace::detect(const std::string &picture, uint32_t sensitivity) {
    return engine_thread_.run([&] { return detect_here(picture, sensitivity); });
}

TrainOutcome Workspace::remove_sample(size_t index) {
    return engine_thread_.run([&] { return remove_sample_here(index); });
}

std::string Workspace::model_bytes(const std::string &class_name) {
    return engine_thread_.run([&] { return model_bytes_here(class_name); });
}

void Workspace::load_model(const std::string &bytes, const std::string &name, const std::string &class_name,
                           bool replace_all) {
    engine_thread_.run([&] { load_model_here(bytes, name, class_name, replace_all); });
}

void Workspace::reset() {
    engine_thread_.run([&] { reset_here(); });
}

ProfileChange Workspace::set_profile(const std::string &profile, const std::string &model) {
    return engine_thread_.run([&] { return set_profile_here(profile, model); });
}

std::string Workspace::profile() {
    std::lock_guard<std::mutex> lock(mutex_);
    return settings_.profile;
}

void Workspace::rename_class(const std::string &from, const std::string &to) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (find_detector(to) != nullptr) {
        throw ApiError(http_status::conflict, "there is a detector of the class '" + to + "' already");
    }
    if (ClassDetector *d = find_detector(from)) {
        d->name = to;
        ++generation_;
    }
}

std::vector<TaughtPicture> Workspace::taught() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<TaughtPicture> all;
    for (const ClassDetector &d : detectors_) {
        all.insert(all.end(), d.taught.begin(), d.taught.end());
    }
    return all;
}

bool Workspace::trained() {
    std::lock_guard<std::mutex> lock(mutex_);
    return trained_locked();
}

nlohmann::ordered_json Workspace::status() {
    std::lock_guard<std::mutex> lock(mutex_);
    nlohmann::ordered_json j;
    const bool trained = trained_locked();
    j["trained"] = trained;
    std::string model;
    for (const ClassDetector &d : detectors_) {
        if (d.trained && !d.model_name.empty()) model = d.model_name;
    }
    j["model"] = trained ? (model.empty() ? "trained in the studio" : model) : "";
    j["samples"] = sample_count_locked();
    j["generation"] = generation_;
    nlohmann::ordered_json taught = nlohmann::ordered_json::array();
    const ClassDetector *first_taught = nullptr;
    for (const ClassDetector &d : detectors_) {
        for (const TaughtPicture &t : d.taught) {
            nlohmann::ordered_json boxes = nlohmann::ordered_json::array();
            for (const Rect &b : t.boxes) {
                boxes.push_back({b.x, b.y, b.w, b.h});
            }
            taught.push_back({{"picture", t.name}, {"boxes", boxes}, {"class", d.name}});
            if (first_taught == nullptr) first_taught = &d;
        }
    }
    j["taught"] = taught;
    if (first_taught != nullptr) {
        const PictureEntry first = store_.find(first_taught->taught.front().name);
        const Rect &b = first_taught->taught.front().boxes.front();
        j["box_size"] = {{"w", b.w}, {"h", b.h}, {"picture_width", first.width}, {"picture_height", first.height}};
    } else {
        j["box_size"] = nullptr;
    }
    j["profile"] = settings_.profile;
    j["seed"] = settings_.seed;
    j["train_sensitivity"] = settings_.train_sensitivity;
    nlohmann::ordered_json classes = nlohmann::ordered_json::array();
    for (const ClassDetector &d : detectors_) {
        classes.push_back({{"name", d.name}, {"trained", d.trained}, {"samples", d.thumbnails.size()},
                           {"pictures", d.taught.size()}, {"model", d.model_name}, {"profile", profile_name(d.profile)}});
    }
    j["detectors"] = classes;
    return j;
}

}  // namespace studio
}  // namespace ostrel_tool
