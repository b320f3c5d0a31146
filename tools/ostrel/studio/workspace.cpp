#include "workspace.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "api_error.h"
#include "atomic_file.h"
#include "command_support.h"
#include "tool_error.h"
#include "tool_output.h"

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

Workspace::Workspace(PictureStore &store, WorkspaceSettings settings)
    : store_(store), settings_(std::move(settings)) {
    engine_thread_.run([this] {
        engine_ = fresh_engine();
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
    if (!engine_->feature_map(picture, map) || map.columns == 0 || map.rows == 0) {
        throw ApiError(http_status::internal_error, "the library could not compute features: " + engine_->last_line());
    }
    map_columns_ = map.columns;
    map_rows_ = map.rows;
    map_channels_ = map.channels;
}

Workspace::~Workspace() {
    engine_thread_.run([this] { engine_.reset(); });
}

std::unique_ptr<Engine> Workspace::fresh_engine() {
    auto engine = std::make_unique<Engine>();
    engine->set_line_handler([this](const std::string &line) { monitor_.on_library_line(line); });
    const int32_t profile = settings_.profile == "accurate" ? OSTREL_ALG_PROFILE_ACCURATE : OSTREL_ALG_PROFILE_CLASSIC;
    if (!engine->set_profile(profile) || !engine->set_random_seed(settings_.seed) ||
        !engine->set_sensitivity(settings_.train_sensitivity)) {
        throw ApiError(http_status::internal_error, "the library refused the settings: " + engine->last_line());
    }
    return engine;
}

std::string Workspace::scratch_path(const char *what) {
    return (fs::path(settings_.scratch_folder) / strformat("%s-%llu.model", what,
                                                            static_cast<unsigned long long>(++scratch_counter_)))
        .string();
}

void Workspace::check_boxes(const PictureEntry &entry, const std::vector<Rect> &boxes, const std::string &replacing) {
    if (boxes.empty()) {
        throw ApiError(http_status::unprocessable, "mark at least one box before training");
    }
    if (boxes.size() > settings_.max_boxes) {
        throw ApiError(http_status::unprocessable,
                       strformat("%zu boxes: at most %zu per picture", boxes.size(), settings_.max_boxes));
    }
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
        if (b.w != first.w || b.h != first.h) {
            throw ApiError(http_status::unprocessable,
                           strformat("box %zu is %dx%d; the detector learns one size, so every box must have the "
                                     "first box's size %dx%d",
                                     i + 1, b.w, b.h, first.w, first.h));
        }
    }
    const WindowCells cells = window_cells({first.w, first.h}, entry.width, entry.height, map_columns_, map_rows_,
                                           map_channels_);
    if (cells.values < kMinWindowValues || cells.values > kMaxWindowValues) {
        throw ApiError(http_status::unprocessable,
                       strformat("a %dx%d box on this %dx%d picture is too %s for the detector (it needs a window "
                                 "of %d to %d values, this one has %d): draw a %s box",
                                 first.w, first.h, entry.width, entry.height,
                                 cells.values < kMinWindowValues ? "small" : "large", kMinWindowValues,
                                 kMaxWindowValues, cells.values, cells.values < kMinWindowValues ? "larger" : "smaller"));
    }
    // All taught pictures must give the detector the same window.
    for (const TaughtPicture &t : taught_) {
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

bool Workspace::train_list(Engine &engine, const std::vector<TaughtPicture> &list, std::string &failure) {
    for (const TaughtPicture &t : list) {
        const auto picture = store_.picture(t.name);
        monitor_.picture(t.name);
        if (!engine.train(*picture, marked_boxes(t.boxes))) {
            const std::string reason = engine.last_line();
            failure = "training on '" + t.name + "' failed" + (reason.empty() ? "" : ": " + reason);
            return false;
        }
    }
    return true;
}

void Workspace::refresh_samples() {
    ++generation_;
    if (!engine_->samples(thumbnails_)) {
        thumbnails_.clear();
    }
}

TrainOutcome Workspace::outcome(double ms, bool rebuilt) {
    TrainOutcome o;
    o.samples = static_cast<int>(thumbnails_.size());
    o.passes = monitor_.passes_of_last_picture();
    o.ms = ms;
    o.rebuilt = rebuilt;
    o.trained = trained_;
    o.steps = monitor_.steps();
    return o;
}

TrainOutcome Workspace::train_here(const std::string &name, const std::vector<Rect> &boxes) {
    const PictureEntry entry = store_.find(name);
    const auto picture = store_.picture(name);  // decoded before the engine is taken

    std::lock_guard<std::mutex> lock(mutex_);
    learn_map_size(*picture);
    check_boxes(entry, boxes, name);

    bool known = false;
    for (const TaughtPicture &t : taught_) {
        known = known || t.name == name;
    }
    monitor_.begin(name);
    const auto start = Clock::now();
    std::string failure;
    bool rebuilt = false;
    if (!known) {
        // A new picture: the library adds its samples to those it holds.
        monitor_.picture(name);
        if (!engine_->set_sensitivity(settings_.train_sensitivity) || !engine_->train(*picture, marked_boxes(boxes))) {
            const std::string reason = engine_->last_line();
            failure = "training on '" + name + "' failed" + (reason.empty() ? "" : ": " + reason);
        } else {
            taught_.push_back({name, boxes});
        }
    } else {
        // A picture taught before, with its boxes as they are now: a fresh
        // engine learns the whole list again.
        std::vector<TaughtPicture> list = taught_;
        for (TaughtPicture &t : list) {
            if (t.name == name) {
                t.boxes = boxes;
            }
        }
        auto engine = fresh_engine();
        if (train_list(*engine, list, failure)) {
            engine_ = std::move(engine);
            taught_ = list;
        }
        rebuilt = true;
    }
    const double ms = ms_since(start);
    if (!failure.empty() && !rebuilt) {
        // The failed call may have left part of the picture in the engine:
        // go back to what the list says.
        auto engine = fresh_engine();
        std::string ignored;
        if (taught_.empty() || train_list(*engine, taught_, ignored)) {
            engine_ = std::move(engine);
            trained_ = !taught_.empty();
        }
    }
    monitor_.end(failure.empty());
    if (!failure.empty()) {
        refresh_samples();
        throw ApiError(http_status::internal_error, failure);
    }
    boxes_skipped_ = (rebuilt ? false : boxes_skipped_) || monitor_.skipped_boxes() > 0;
    trained_ = true;
    model_name_.clear();
    refresh_samples();
    return outcome(ms, rebuilt);
}

DetectOutcome Workspace::detect_here(const std::string &name, uint32_t sensitivity) {
    const PictureEntry entry = store_.find(name);
    const auto picture = store_.picture(name);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!trained_) {
        throw ApiError(http_status::conflict, "nothing is trained yet: mark boxes and press Train, or open a model");
    }
    if (!engine_->set_sensitivity(sensitivity)) {
        throw ApiError(http_status::bad_request, strformat("the library refused sensitivity %u", sensitivity));
    }
    DetectOutcome out;
    out.width = entry.width;
    out.height = entry.height;
    const auto start = Clock::now();
    const bool ok = engine_->detect(*picture, out.boxes);
    out.ms = ms_since(start);
    if (!ok) {
        const std::string reason = engine_->last_line();
        throw ApiError(http_status::internal_error,
                       "detection failed on '" + name + "'" + (reason.empty() ? "" : ": " + reason));
    }
    return out;
}

std::vector<SampleInfo> Workspace::samples(uint64_t &generation) {
    std::lock_guard<std::mutex> lock(mutex_);
    generation = generation_;
    // Thumbnail i belongs to the i-th marked box, taught pictures in order.
    std::vector<std::pair<std::string, Rect>> origin;
    for (const TaughtPicture &t : taught_) {
        for (const Rect &b : t.boxes) {
            origin.emplace_back(t.name, b);
        }
    }
    const bool known = origin.size() == thumbnails_.size();
    std::vector<SampleInfo> out;
    for (size_t i = 0; i < thumbnails_.size(); ++i) {
        SampleInfo s;
        s.index = i;
        s.label = thumbnails_[i].label;
        s.width = thumbnails_[i].bgr.cols;
        s.height = thumbnails_[i].bgr.rows;
        if (known) {
            s.picture = origin[i].first;
            s.box = origin[i].second;
        }
        out.push_back(s);
    }
    return out;
}

cv::Mat Workspace::thumbnail(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index >= thumbnails_.size()) {
        throw ApiError(http_status::not_found, strformat("no sample %zu (there are %zu)", index, thumbnails_.size()));
    }
    return thumbnails_[index].bgr.clone();
}

TrainOutcome Workspace::remove_sample_here(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index >= thumbnails_.size()) {
        throw ApiError(http_status::not_found, strformat("no sample %zu (there are %zu)", index, thumbnails_.size()));
    }
    size_t total = 0;
    for (const TaughtPicture &t : taught_) {
        total += t.boxes.size();
    }
    if (total != thumbnails_.size()) {
        throw ApiError(http_status::conflict, "the samples of a loaded model cannot be removed one by one");
    }
    // Which picture and box the sample came from.
    size_t picture = 0, box = index;
    while (box >= taught_[picture].boxes.size()) {
        box -= taught_[picture].boxes.size();
        ++picture;
    }
    std::vector<TaughtPicture> list = taught_;
    list[picture].boxes.erase(list[picture].boxes.begin() + static_cast<long>(box));
    if (list[picture].boxes.empty()) {
        list.erase(list.begin() + static_cast<long>(picture));
    }

    monitor_.begin("remove sample " + std::to_string(index));
    const auto start = Clock::now();
    std::string failure;
    bool rebuilt = false;
    if (list.empty()) {
        // The last sample: nothing is left to learn from.
        engine_ = fresh_engine();
        trained_ = false;
    } else if (taught_.size() == 1 && !boxes_skipped_) {
        // One taught picture: the library's sample i is marked box i, and the
        // library removes it and retrains the classifier.
        if (!engine_->set_sensitivity(settings_.train_sensitivity) ||
            !engine_->remove_sample(static_cast<uint32_t>(index))) {
            const std::string reason = engine_->last_line();
            failure = "removing the sample failed" + (reason.empty() ? "" : ": " + reason);
        }
    } else {
        // With several pictures the library's sample numbers also count the
        // background samples of earlier pictures: rebuild from the list.
        auto engine = fresh_engine();
        if (train_list(*engine, list, failure)) {
            engine_ = std::move(engine);
            boxes_skipped_ = monitor_.skipped_boxes() > 0;
        }
        rebuilt = true;
    }
    const double ms = ms_since(start);
    monitor_.end(failure.empty());
    refresh_samples();
    if (!failure.empty()) {
        throw ApiError(http_status::internal_error, failure);
    }
    taught_ = list;
    return outcome(ms, rebuilt);
}

std::string Workspace::model_bytes_here() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!trained_) {
        throw ApiError(http_status::conflict, "there is no model yet: mark boxes and press Train first");
    }
    ScratchFile file{scratch_path("export")};
    if (!engine_->export_model(file.path)) {
        throw ApiError(http_status::internal_error, "the library could not export the model: " + engine_->last_line());
    }
    if (!engine_->check_model(file.path)) {
        throw ApiError(http_status::internal_error,
                       "the exported model does not validate: " + model_problem(file.path, engine_->last_line()));
    }
    return read_file(file.path);
}

void Workspace::load_model_here(const std::string &bytes, const std::string &name) {
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
    auto engine = fresh_engine();
    if (!engine->check_model(file.path)) {
        throw ApiError(http_status::unprocessable,
                       "this model file is not valid: " + model_problem(file.path, engine->last_line()));
    }
    if (!engine->import_model(file.path)) {
        throw ApiError(http_status::unprocessable, "the library could not load the model: " + engine->last_line());
    }
    engine_ = std::move(engine);
    taught_.clear();
    boxes_skipped_ = false;
    trained_ = true;
    model_name_ = name.empty() ? "model file" : name;
    refresh_samples();
}

void Workspace::reset_here() {
    std::lock_guard<std::mutex> lock(mutex_);
    engine_ = fresh_engine();
    taught_.clear();
    boxes_skipped_ = false;
    trained_ = false;
    model_name_.clear();
    refresh_samples();
}

// Every operation that touches the engine runs on the engine thread.
TrainOutcome Workspace::train(const std::string &name, const std::vector<Rect> &boxes) {
    return engine_thread_.run([&] { return train_here(name, boxes); });
}

DetectOutcome Workspace::detect(const std::string &name, uint32_t sensitivity) {
    return engine_thread_.run([&] { return detect_here(name, sensitivity); });
}

TrainOutcome Workspace::remove_sample(size_t index) {
    return engine_thread_.run([&] { return remove_sample_here(index); });
}

std::string Workspace::model_bytes() {
    return engine_thread_.run([&] { return model_bytes_here(); });
}

void Workspace::load_model(const std::string &bytes, const std::string &name) {
    engine_thread_.run([&] { load_model_here(bytes, name); });
}

void Workspace::reset() {
    engine_thread_.run([&] { reset_here(); });
}

std::vector<TaughtPicture> Workspace::taught() {
    std::lock_guard<std::mutex> lock(mutex_);
    return taught_;
}

nlohmann::ordered_json Workspace::status() {
    std::lock_guard<std::mutex> lock(mutex_);
    nlohmann::ordered_json j;
    j["trained"] = trained_;
    j["model"] = trained_ ? (model_name_.empty() ? "trained in the studio" : model_name_) : "";
    j["samples"] = thumbnails_.size();
    j["generation"] = generation_;
    nlohmann::ordered_json taught = nlohmann::ordered_json::array();
    for (const TaughtPicture &t : taught_) {
        nlohmann::ordered_json boxes = nlohmann::ordered_json::array();
        for (const Rect &b : t.boxes) {
            boxes.push_back({b.x, b.y, b.w, b.h});
        }
        taught.push_back({{"picture", t.name}, {"boxes", boxes}});
    }
    j["taught"] = taught;
    if (!taught_.empty()) {
        const PictureEntry first = store_.find(taught_.front().name);
        const Rect &b = taught_.front().boxes.front();
        j["box_size"] = {{"w", b.w}, {"h", b.h}, {"picture_width", first.width}, {"picture_height", first.height}};
    } else {
        j["box_size"] = nullptr;
    }
    j["profile"] = settings_.profile;
    j["seed"] = settings_.seed;
    j["train_sensitivity"] = settings_.train_sensitivity;
    return j;
}

}  // namespace studio
}  // namespace ostrel_tool
