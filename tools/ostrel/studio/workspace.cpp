#include "studio/workspace.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/command_support.h"
#include "engine/model_info.h"
#include "engine/model_usability.h"
#include "files/atomic_file.h"
#include "files/training_set.h"
#include "studio/api_error.h"
#include "studio/label_store.h"

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

// Makes a class the current one of an engine. The tool's Engine has no call
// for this; the C interface does (index 0 is accepted on an engine of one
// class). Its log line on a refusal is of no use to a person: the caller
// says what failed.
bool select_class_of(Engine &engine, uint32_t index) { return ostrel_alg_setClass(engine.handle(), index) == 0; }

}  // namespace

int32_t profile_number(const std::string &name) {
    if (name == "classic") return OSTREL_ALG_PROFILE_CLASSIC;
    if (name == "accurate") return OSTREL_ALG_PROFILE_ACCURATE;
    return -1;
}

const char *profile_name(int32_t profile) { return profile == OSTREL_ALG_PROFILE_ACCURATE ? "accurate" : "classic"; }

Workspace::Workspace(PictureStore &store, WorkspaceSettings settings) : store_(store), settings_(std::move(settings)) {
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
        throw ApiError(http_status::internal_error, "the library could not compute features: " + probe_->last_error());
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

std::unique_ptr<Engine> Workspace::fresh_engine() { return engine_of(profile_number(settings_.profile)); }

std::unique_ptr<Engine> Workspace::engine_of(int32_t profile) {
    auto engine = std::make_unique<Engine>();
    engine->set_progress_handler([this](const ostrel_alg_progress &step) { monitor_.on_progress(step); });
    if (!engine->set_profile(profile) || !engine->set_random_seed(settings_.seed) ||
        !engine->set_sensitivity(settings_.train_sensitivity)) {
        throw ApiError(http_status::internal_error, "the library refused the settings: " + engine->last_error());
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
    return (fs::path(settings_.scratch_folder) /
            strformat("%s-%llu.model", what, static_cast<unsigned long long>(++scratch_counter_)))
        .string();
}

bool Workspace::learns_any_size() const { return profile_number(settings_.profile) == OSTREL_ALG_PROFILE_ACCURATE; }

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
                           strformat("box %zu (%s) does not lie inside the %dx%d picture", i + 1, to_string(b).c_str(),
                                     entry.width, entry.height));
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
    const WindowCells cells =
        window_cells({first.w, first.h}, entry.width, entry.height, map_columns_, map_rows_, map_channels_);
    const int low = OSTREL_ALG_MIN_WINDOW_WEIGHTS, high = OSTREL_ALG_MAX_WINDOW_WEIGHTS;
    if (cells.values < low || cells.values > high) {
        const std::string who = detectors_.size() > 1 || d.name != "object" ? " (" + d.name + ")" : "";
        throw ApiError(http_status::unprocessable,
                       strformat("a %dx%d box%s on this %dx%d picture is too %s for the detector (it needs a window "
                                 "of %d to %d values, this one has %d): draw a %s box",
                                 first.w, first.h, who.c_str(), entry.width, entry.height,
                                 cells.values < low ? "small" : "large", low, high, cells.values,
                                 cells.values < low ? "larger" : "smaller"));
    }
    // All taught pictures of the class must give the detector the same window.
    for (const TaughtPicture &t : d.taught) {
        if (t.name == replacing || t.boxes.empty()) {
            continue;
        }
        const PictureEntry other = store_.find(t.name);
        const WindowCells taught_cells = window_cells({t.boxes.front().w, t.boxes.front().h}, other.width, other.height,
                                                      map_columns_, map_rows_, map_channels_);
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
            const std::string reason = engine.last_error();
            failure = "training on '" + t.name + "' failed" + (reason.empty() ? "" : ": " + reason);
            return false;
        }
    }
    return true;
}

void Workspace::refresh_samples(ClassDetector &d) {
    ++generation_;
    d.profile = d.engine->profile();
    if (!d.trained || !select_class(d) || !d.engine->samples(d.thumbnails)) {
        d.thumbnails.clear();
    }
}

bool Workspace::select_class(ClassDetector &d) { return select_class_of(*d.engine, d.class_index); }

bool Workspace::shares_engine(const ClassDetector &d) const { return learns_any_size() && !d.own_engine; }

std::vector<Workspace::ClassDetector *> Workspace::shared_classes() {
    std::vector<ClassDetector *> out;
    for (ClassDetector &d : detectors_) {
        if (d.trained && shares_engine(d)) out.push_back(&d);
    }
    std::sort(out.begin(), out.end(),
              [](const ClassDetector *a, const ClassDetector *b) { return a->class_index < b->class_index; });
    return out;
}

bool Workspace::rebuild_shared(ClassDetector &changed, const std::vector<TaughtPicture> &list, std::string &failure) {
    // The classes that learn: every sharing class with pictures to learn
    // from, in the order the classes were first trained.
    std::vector<ClassDetector *> members;
    for (ClassDetector &d : detectors_) {
        if (!shares_engine(d)) continue;
        const std::vector<TaughtPicture> &l = &d == &changed ? list : d.taught;
        if (!l.empty()) members.push_back(&d);
    }
    std::shared_ptr<Engine> engine = fresh_engine();
    // One class stays unnamed, in an engine as it always was; several are
    // named, which is what lets the library hold them in one engine.
    const bool named = members.size() > 1;
    bool skipped = false;
    for (ClassDetector *m : members) {
        const std::vector<TaughtPicture> &l = m == &changed ? list : m->taught;
        if (named && !engine->add_class(m->name)) {
            const std::string reason = engine->last_error();
            failure = "the class '" + m->name + "' cannot join the model" + (reason.empty() ? "" : ": " + reason);
            return false;
        }
        if (!engine->set_sensitivity(settings_.train_sensitivity) || !train_list(*m, *engine, l, failure)) {
            if (failure.empty()) failure = "the library refused the settings: " + engine->last_error();
            return false;
        }
        skipped = skipped || monitor_.skipped_boxes() > 0;
    }
    for (ClassDetector &d : detectors_) {
        if (!shares_engine(d)) continue;
        d.taught = &d == &changed ? list : d.taught;
        const auto at = std::find(members.begin(), members.end(), &d);
        if (at == members.end()) {
            // Nothing left to learn from (or only a model file's knowledge,
            // which a rebuild cannot keep).
            d.engine = fresh_engine();
            d.class_index = 0;
            d.taught.clear();
            d.trained = false;
        } else {
            d.engine = engine;
            d.class_index = static_cast<uint32_t>(at - members.begin());
            d.trained = true;
            d.model_name.clear();
        }
        d.boxes_skipped = skipped;
        refresh_samples(d);
    }
    return true;
}

void Workspace::train_shared_locked(ClassDetector &d, const std::string &name, const std::vector<Rect> &boxes,
                                    std::string &failure, bool &rebuilt) {
    bool known = false;
    for (const TaughtPicture &t : d.taught) {
        known = known || t.name == name;
    }
    std::vector<ClassDetector *> shared = shared_classes();
    const bool member = d.trained && std::find(shared.begin(), shared.end(), &d) != shared.end();
    // A new picture of a class the engine holds, or a new class beside
    // named ones: the library adds to what it holds. Anything else (a
    // picture taught again, the second class of an unnamed engine) is a
    // rebuild, which keeps the engine exactly what the lists say.
    const bool adds = !known && (member || shared.empty() || shared.size() > 1);
    if (adds) {
        std::shared_ptr<Engine> engine = shared.empty() ? d.engine : shared.front()->engine;
        uint32_t index = member ? d.class_index : 0;
        bool ok = engine->set_sensitivity(settings_.train_sensitivity);
        if (ok && !member && !shared.empty()) {
            ok = engine->add_class(d.name);
            index = static_cast<uint32_t>(shared.size());
        }
        ok = ok && select_class_of(*engine, index);
        monitor_.picture(name, detectors_.size() > 1 ? d.name : "");
        const auto picture = store_.picture(name);
        if (ok && engine->train(*picture, marked_boxes(boxes))) {
            d.engine = engine;
            d.class_index = index;
            d.taught.push_back({name, boxes});
            d.boxes_skipped = d.boxes_skipped || monitor_.skipped_boxes() > 0;
            d.trained = true;
            d.model_name.clear();
            for (ClassDetector *c : shared) refresh_samples(*c);
            refresh_samples(d);
            return;
        }
        const std::string reason = engine->last_error();
        failure = "training on '" + name + "' failed" + (reason.empty() ? "" : ": " + reason);
        // The failed call may have left part of the picture (or a class) in
        // the engine: go back to what the lists say.
        std::string ignored;
        rebuild_shared(d, d.taught, ignored);
        return;
    }
    std::vector<TaughtPicture> list = d.taught;
    if (known) {
        for (TaughtPicture &t : list) {
            if (t.name == name) t.boxes = boxes;
        }
    } else {
        list.push_back({name, boxes});
    }
    rebuilt = true;
    rebuild_shared(d, list, failure);
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
    if (shares_engine(d)) {
        train_shared_locked(d, name, boxes, failure, rebuilt);
        return;
    }
    const auto picture = store_.picture(name);
    bool known = false;
    for (const TaughtPicture &t : d.taught) {
        known = known || t.name == name;
    }
    if (!known) {
        // A new picture: the library adds its samples to those it holds.
        monitor_.picture(name, detectors_.size() > 1 ? d.name : "");
        if (!d.engine->set_sensitivity(settings_.train_sensitivity) ||
            !d.engine->train(*picture, marked_boxes(boxes))) {
            const std::string reason = d.engine->last_error();
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
    if (shares_engine(d)) {
        rebuild_shared(d, list, failure);
        return;
    }
    auto engine = fresh_engine();
    if (list.empty() || train_list(d, *engine, list, failure)) {
        d.engine = std::move(engine);
        d.taught = list;
        d.trained = !list.empty();
        d.boxes_skipped = monitor_.skipped_boxes() > 0;
    }
    refresh_samples(d);
}

TrainOutcome Workspace::train_here(const std::string &class_name, const std::string &name,
                                   const std::vector<Rect> &boxes) {
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

TrainOutcome Workspace::train_labels_here(const std::string &name,
                                          const std::map<std::string, std::vector<Rect>> &labels) {
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
    // Each engine runs once: the shared one finds every class it holds.
    std::vector<Engine *> done;
    for (ClassDetector &d : detectors_) {
        if (!d.trained || std::find(done.begin(), done.end(), d.engine.get()) != done.end()) continue;
        Engine &engine = *d.engine;
        done.push_back(&engine);
        std::map<uint32_t, std::string> names;
        std::string who;
        for (const ClassDetector &c : detectors_) {
            if (c.trained && c.engine.get() == &engine) {
                names[c.class_index] = c.name;
                who += (who.empty() ? "" : ", ") + c.name;
            }
        }
        if (!engine.set_sensitivity(sensitivity)) {
            throw ApiError(http_status::bad_request, strformat("the library refused sensitivity %u", sensitivity));
        }
        std::vector<ostrel_alg_box> boxes;
        std::vector<uint32_t> classes;
        const auto start = Clock::now();
        const bool ok = engine.detect(*picture, boxes, &classes);
        out.ms += ms_since(start);
        if (!ok) {
            // Between a model and a picture (a size it cannot search there,
            // say): the library's reason goes to the person, as a refusal.
            const std::string reason = engine.last_error();
            throw ApiError(http_status::unprocessable, "the " + who + " detector cannot detect on '" + name + "'" +
                                                           (reason.empty() ? "" : ": " + reason));
        }
        for (size_t i = 0; i < boxes.size(); ++i) {
            const auto n = names.find(i < classes.size() ? classes[i] : 0);
            // Every class of an engine is a detector here; a box of any other
            // would be the library's error, and is left out rather than misnamed.
            if (n == names.end()) continue;
            out.boxes.push_back(boxes[i]);
            out.box_classes.push_back(n->second);
        }
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
        throw ApiError(http_status::not_found, strformat("no sample %zu (there are %d)", asked, sample_count_locked()));
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
    const bool alone = !shares_engine(d) || shared_classes().size() == 1;
    if (shares_engine(d) && (!alone || list.empty())) {
        // The shared engine learns every class's list again.
        rebuild_shared(d, list, failure);
        rebuilt = true;
    } else if (list.empty()) {
        // The last sample: nothing is left to learn from.
        d.engine = fresh_engine();
        d.trained = false;
    } else if (d.taught.size() == 1 && !d.boxes_skipped) {
        // One taught picture: the library's sample i is marked box i, and the
        // library removes it and retrains the classifier.
        if (!d.engine->set_sensitivity(settings_.train_sensitivity) ||
            !d.engine->remove_sample(static_cast<uint32_t>(index))) {
            const std::string reason = d.engine->last_error();
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
        // One model file holds every trained class when they are in one engine.
        std::vector<Engine *> engines;
        for (ClassDetector &c : detectors_) {
            if (c.trained && std::find(engines.begin(), engines.end(), c.engine.get()) == engines.end()) {
                engines.push_back(c.engine.get());
                d = &c;
            }
        }
        if (engines.size() > 1) {
            // Why they are apart, and what makes them one.
            const std::string why = learns_any_size()
                                        ? "a class opened from its own model file keeps it"
                                        : "the classic profile learns one class a model; one model of several "
                                          "classes needs the accurate profile";
            throw ApiError(http_status::conflict, "the classes " + other_trained_locked("") + " are in " +
                                                      std::to_string(engines.size()) + " models (" + why +
                                                      "): name the class of one with ?class=NAME");
        }
    } else {
        d = find_detector(class_name);
        if (d == nullptr || !d->trained) {
            throw ApiError(http_status::not_found, "no model of the class '" + class_name + "' yet");
        }
        // A class of the shared engine: its file is the one of every class
        // the engine holds (the library writes them together).
    }
    ScratchFile file{scratch_path("export")};
    if (!d->engine->export_model(file.path)) {
        throw ApiError(http_status::internal_error,
                       "the library could not export the model: " + d->engine->last_error());
    }
    if (!d->engine->check_model(file.path)) {
        throw ApiError(http_status::internal_error,
                       "the exported model does not validate: " + model_problem(file.path, d->engine->last_error()));
    }
    return read_file(file.path);
}

std::vector<std::string> Workspace::load_model_here(const std::string &bytes, const std::string &name,
                                                    const std::string &class_name, bool replace_all) {
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
                       "this model file is not valid: " + model_problem(file.path, checker->last_error()));
    }
    std::string reason;
    std::shared_ptr<Engine> engine = import_usable(file.path, reason);
    if (!engine) {
        throw ApiError(http_status::unprocessable, "this model cannot be used: " + reason);
    }
    // A file of several classes names them; one of one class (named or
    // not) becomes the class the person chose.
    const std::vector<std::string> file_classes = engine->class_names();
    const bool several = file_classes.size() > 1;
    // A file of several classes brings the detector whole: its classes
    // replace every class's model, whichever class the person had chosen.
    replace_all = replace_all || several;
    // Its names become the studio's classes (label files carry them).
    for (const std::string &n : several ? file_classes : std::vector<std::string>{}) {
        try {
            LabelStore::check_class_name(n);
        } catch (const ApiError &e) {
            throw ApiError(http_status::unprocessable,
                           std::string("this model file's class cannot be a label: ") + e.what());
        }
    }
    // The file decides the profile; one studio detects under one profile.
    const std::string file_profile = profile_name(engine->profile());
    if (file_profile != settings_.profile) {
        const std::string others = replace_all ? "" : other_trained_locked(class_name);
        if (!others.empty()) {
            throw ApiError(http_status::conflict, "this is a model of the " + file_profile + " profile, and " + others +
                                                      (others.find(',') == std::string::npos ? " is" : " are") +
                                                      " trained under the " + settings_.profile +
                                                      " profile: switch the profile first (retraining or forgetting " +
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
    const std::vector<std::string> classes = several ? file_classes : std::vector<std::string>{class_name};
    for (size_t i = 0; i < classes.size(); ++i) {
        ClassDetector &d = detector(classes[i]);
        d.engine = engine;
        d.class_index = static_cast<uint32_t>(i);
        // The classes of one file stay in its engine, which the studio's
        // training under the accurate profile adds to; the class of a
        // one-class file keeps its own engine beside the studio's (a
        // rebuild of the shared engine would drop what it learnt).
        d.own_engine = !several;
        d.taught.clear();
        d.boxes_skipped = false;
        d.trained = true;
        d.model_name = name.empty() ? "model file" : name;
        refresh_samples(d);
    }
    return classes;
}

std::unique_ptr<Engine> Workspace::import_usable(const std::string &path, std::string &reason) {
    const ModelInfo info = read_model_info(path);
    // The file says its profile: the import turns the engine into the
    // file's, which is read back from the engine, never assumed.
    auto engine = engine_of(profile_number(settings_.profile));
    if (!engine->import_model(path)) {
        reason = engine->last_error();
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
    if (learns_any_size()) {
        // Every class learns again in one engine (each class's list is kept).
        std::vector<bool> own;
        for (ClassDetector &d : detectors_) {
            own.push_back(d.own_engine);
            d.own_engine = false;
        }
        ClassDetector *first = nullptr;
        for (ClassDetector &d : detectors_) {
            if (d.trained && first == nullptr) first = &d;
        }
        std::vector<TaughtPicture> list = first->taught;
        if (!rebuild_shared(*first, list, failure)) {
            for (size_t i = 0; i < detectors_.size(); ++i) detectors_[i].own_engine = own[i];
        }
    } else {
        for (size_t i = 0; i < detectors_.size() && failure.empty(); ++i) {
            if (!detectors_[i].trained) continue;
            engines[i] = fresh_engine();
            if (!train_list(detectors_[i], *engines[i], detectors_[i].taught, failure)) break;
            skipped = skipped || monitor_.skipped_boxes() > 0;
        }
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
        if (!detectors_[i].trained) continue;  // made afresh when it is trained
        if (engines[i]) {
            detectors_[i].engine = std::move(engines[i]);
            detectors_[i].class_index = 0;
            detectors_[i].own_engine = false;
            detectors_[i].boxes_skipped = skipped;
            refresh_samples(detectors_[i]);
        }
        kept.push_back(std::move(detectors_[i]));
    }
    detectors_ = std::move(kept);
    change.model = "retrained";
    change.retrained = outcome(ms, true);
    return change;
}

// Every operation that touches an engine runs on the engine thread.
TrainOutcome Workspace::train(const std::string &class_name, const std::string &picture,
                              const std::vector<Rect> &boxes) {
    return engine_thread_.run([&] { return train_here(class_name, picture, boxes); });
}

TrainOutcome Workspace::train_labels(const std::string &picture,
                                     const std::map<std::string, std::vector<Rect>> &labels) {
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

std::vector<std::string> Workspace::load_model(const std::string &bytes, const std::string &name,
                                               const std::string &class_name, bool replace_all) {
    return engine_thread_.run([&] { return load_model_here(bytes, name, class_name, replace_all); });
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
    engine_thread_.run([&] { rename_class_here(from, to); });
}

void Workspace::rename_class_here(const std::string &from, const std::string &to) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (find_detector(to) != nullptr) {
        throw ApiError(http_status::conflict, "there is a detector of the class '" + to + "' already");
    }
    ClassDetector *d = find_detector(from);
    if (d == nullptr) return;
    d->name = to;
    ++generation_;
    // The library keeps the names of a shared engine's classes, which its
    // model file carries: it learns again under the new name. A class
    // known only from a model file cannot learn again; detection names it
    // right all the same (the studio maps class indices to its own names),
    // and its model file keeps the old name.
    bool named = false, rebuildable = true;
    for (const ClassDetector &c : detectors_) {
        if (&c != d && c.trained && c.engine == d->engine) named = true;
    }
    for (const ClassDetector &c : detectors_) {
        if (c.trained && c.engine == d->engine && c.taught.empty()) rebuildable = false;
    }
    if (!named || !rebuildable || !shares_engine(*d)) return;
    monitor_.begin("rename " + from);
    std::string failure;
    const std::vector<TaughtPicture> list = d->taught;
    rebuild_shared(*d, list, failure);
    monitor_.end(failure.empty());
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
    std::vector<const Engine *> engines;
    for (const ClassDetector &d : detectors_) {
        if (d.trained && std::find(engines.begin(), engines.end(), d.engine.get()) == engines.end()) {
            engines.push_back(d.engine.get());
        }
    }
    j["model_files"] = engines.size();
    nlohmann::ordered_json classes = nlohmann::ordered_json::array();
    for (const ClassDetector &d : detectors_) {
        bool shared = false;
        for (const ClassDetector &c : detectors_) {
            shared = shared || (&c != &d && c.trained && d.trained && c.engine == d.engine);
        }
        classes.push_back({{"name", d.name},
                           {"trained", d.trained},
                           {"samples", d.thumbnails.size()},
                           {"pictures", d.taught.size()},
                           {"model", d.model_name},
                           {"profile", profile_name(d.profile)},
                           {"shared", shared}});
    }
    j["detectors"] = classes;
    return j;
}

}  // namespace studio
}  // namespace ostrel_tool
