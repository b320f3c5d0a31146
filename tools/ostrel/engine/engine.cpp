#include "engine/engine.h"

#include <cstdio>
#include <mutex>

#include "cli/tool_error.h"
#include "cli/tool_output.h"

namespace ostrel_tool {

namespace {

bool g_show_library_lines = false;

// The engine whose call runs on this thread, if any.
thread_local Engine *t_calling_engine = nullptr;

// The library's messages go to Engine::dispatch_library_message for the
// whole process; installed before the first engine is made.
void install_log_handler_once(ostrel_alg_log_handler handler) {
    static std::once_flag installed;
    std::call_once(installed, [handler] { ostrel_alg_setLogHandler(handler, nullptr); });
}

}  // namespace

void set_show_library_lines(bool show) { g_show_library_lines = show; }
bool show_library_lines() { return g_show_library_lines; }

void Engine::dispatch_library_message(const char *message, void *) {
    if (t_calling_engine != nullptr) {
        t_calling_engine->on_library_message(message);
    } else if (g_show_library_lines) {
        // Not inside a call of ours (no such call exists today): show it.
        std::fputs(message, stderr);
    }
}

void Engine::on_library_message(const char *message) {
    pending_ += message;
    size_t start = 0;
    for (size_t end; (end = pending_.find('\n', start)) != std::string::npos; start = end + 1) {
        on_library_line(pending_.substr(start, end - start));
    }
    pending_.erase(0, start);
}

void Engine::on_library_line(const std::string &line) {
    last_lines_.push_back(line);
    if (g_show_library_lines) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

template <typename Call>
int32_t Engine::call(Call &&c) {
    install_log_handler_once(&Engine::dispatch_library_message);
    last_lines_.clear();
    pending_.clear();
    Engine *const outer = t_calling_engine;
    t_calling_engine = this;
    const int32_t status = c();
    t_calling_engine = outer;
    // Some library messages have no line end; what is left is a line.
    if (!pending_.empty()) {
        const std::string rest = std::move(pending_);
        pending_.clear();
        on_library_line(rest);
    }
    std::fflush(stderr);
    return status;
}

namespace {

// The message of a failure record: the engine's, or with a null handle the
// calling thread's record of calls without an engine.
std::string error_message(ostrel_alg *handle, int32_t *code) {
    char buffer[OSTREL_ALG_MAX_ERROR_MESSAGE_BYTES] = {0};
    int32_t status_code = OSTREL_ALG_ERR_OK;
    if (ostrel_alg_getLastError(handle, &status_code, buffer, sizeof buffer) != 0) {
        return {};
    }
    if (code != nullptr) *code = status_code;
    return buffer;
}

}  // namespace

std::vector<uint32_t> confidence_by_sensitivity() {
    constexpr uint32_t kMaxSensitivity = 100;  // the header's range of sensitivities
    std::vector<uint32_t> percent(kMaxSensitivity + 1);
    for (uint32_t s = 0; s <= kMaxSensitivity; ++s) {
        if (ostrel_alg_getConfidenceOfSensitivity(s, &percent[s]) != 0) {
            const std::string reason = error_message(nullptr, nullptr);
            throw ToolError(ExitCode::failed, "the library gives no confidence for sensitivity " + std::to_string(s) +
                                                  (reason.empty() ? "" : ": " + reason));
        }
    }
    return percent;
}

Engine::Engine() {
    if (call([this] { return ostrel_alg_create(&handle_); }) != 0 || handle_ == nullptr) {
        std::string reason = error_message(nullptr, nullptr);
        throw ToolError(ExitCode::failed,
                        "the library could not create an engine" + (reason.empty() ? "" : ": " + reason));
    }
}

Engine::~Engine() {
    if (handle_ != nullptr) {
        call([this] { return ostrel_alg_destroy(handle_); });
    }
}

std::string Engine::last_error() const { return error_message(handle_, nullptr); }

int32_t Engine::last_error_code() const {
    int32_t code = OSTREL_ALG_ERR_OK;
    error_message(handle_, &code);
    return code;
}

void Engine::dispatch_progress(const ostrel_alg_progress *step, void *user) {
    Engine *engine = static_cast<Engine *>(user);
    if (engine->progress_handler_) {
        engine->progress_handler_(*step);
    }
}

void Engine::set_progress_handler(ProgressHandler handler) {
    progress_handler_ = std::move(handler);
    call([this] {
        return ostrel_alg_setProgressHandler(handle_, progress_handler_ ? &Engine::dispatch_progress : nullptr, this);
    });
}

bool Engine::set_sensitivity(uint32_t sensitivity) {
    return call([&] { return ostrel_alg_setSensitivity(handle_, sensitivity); }) == 0;
}

bool Engine::set_profile(int32_t profile) {
    return call([&] { return ostrel_alg_setOption(handle_, OSTREL_ALG_OPTION_PROFILE, profile); }) == 0;
}

int32_t Engine::profile() {
    int32_t value = OSTREL_ALG_PROFILE_CLASSIC;
    call([&] { return ostrel_alg_getOption(handle_, OSTREL_ALG_OPTION_PROFILE, &value); });
    return value;
}

bool Engine::set_random_seed(uint32_t seed) {
    return call([&] { return ostrel_alg_setRandomSeed(handle_, seed); }) == 0;
}

bool Engine::train(const Picture &picture, const std::vector<ostrel_alg_box> &boxes) {
    const ostrel_alg_image image = picture.record();
    return call([&] {
               return ostrel_alg_setDetector_ptr(handle_, &image, boxes.data(), static_cast<int32_t>(boxes.size()));
           }) == 0;
}

bool Engine::trained() {
    uint8_t flag = 0;
    return call([&] { return ostrel_alg_istraied(handle_, &flag); }) == 0 && flag == 1;
}

bool Engine::sample_counts(uint32_t &positives, uint32_t &negatives) {
    return call([&] { return ostrel_alg_temp_getNumofSamples(handle_, &positives, &negatives); }) == 0;
}

bool Engine::detect(const Picture &picture, std::vector<ostrel_alg_box> &boxes, std::vector<uint32_t> *classes) {
    const ostrel_alg_image image = picture.record();
    ostrel_alg_box *found = nullptr;
    uint32_t count = 0;
    boxes.clear();
    if (call([&] { return ostrel_alg_runDetector_ptr(handle_, &image, &found, &count); }) != 0) {
        return false;
    }
    if (found != nullptr) {
        boxes.assign(found, found + count);
    }
    if (classes != nullptr) {
        const uint32_t *indices = nullptr;
        uint32_t indexed = 0;
        classes->assign(boxes.size(), 0);
        if (call([&] { return ostrel_alg_getBoxClasses_ptr(handle_, &indices, &indexed); }) != 0) {
            return false;
        }
        // The pointer form's boxes are the first of the run's list.
        for (size_t i = 0; i < boxes.size() && i < indexed; ++i) (*classes)[i] = indices[i];
    }
    return true;
}

bool Engine::add_class(const std::string &name) {
    return call([&] { return ostrel_alg_addClass(handle_, name.c_str(), nullptr); }) == 0;
}

std::vector<std::string> Engine::class_names() {
    std::vector<std::string> names;
    uint32_t count = 0;
    if (call([&] { return ostrel_alg_getClassCount(handle_, &count); }) != 0) {
        return names;
    }
    for (uint32_t k = 0; k < count; ++k) {
        const char *name = nullptr;
        if (call([&] { return ostrel_alg_getClassName_ptr(handle_, k, &name); }) != 0 || name == nullptr) {
            return {};
        }
        names.emplace_back(name);
    }
    return names;
}

bool Engine::feature_map(const Picture &picture, FeatureMap &map) {
    const ostrel_alg_image image = picture.record();
    const uint8_t *data = nullptr;
    uint32_t channels = 0, columns = 0, rows = 0;
    if (call([&] { return ostrel_alg_getFeatureMap_ptr(handle_, &image, &data, &channels, &columns, &rows); }) != 0) {
        return false;
    }
    const size_t size = static_cast<size_t>(channels) * columns * rows;
    if (data == nullptr && size != 0) {
        return false;
    }
    map.channels = channels;
    map.columns = columns;
    map.rows = rows;
    map.bytes.assign(data, data + size);
    return true;
}

bool Engine::export_model(const std::string &path) {
    return call([&] { return ostrel_alg_exportModel_ptr(handle_, path.c_str()); }) == 0;
}

bool Engine::import_model(const std::string &path) {
    return call([&] { return ostrel_alg_importModel_ptr(handle_, path.c_str()); }) == 0;
}

bool Engine::check_model(const std::string &path) {
    return call([&] { return ostrel_alg_checkModelValidation_ptr(handle_, path.c_str()); }) == 0;
}

bool Engine::samples(std::vector<SampleThumbnail> &out) {
    ostrel_alg_sample *records = nullptr;
    uint32_t count = 0;
    out.clear();
    if (call([&] { return ostrel_alg_getSamples_ptr(handle_, &records, &count); }) != 0) {
        return false;
    }
    for (uint32_t i = 0; i < count && records != nullptr; ++i) {
        const ostrel_alg_thumb_image &image = records[i].image;
        SampleThumbnail thumb;
        thumb.label = records[i].label;
        if (image.width > 0 && image.height > 0 && image.channels == 3 && image.data != nullptr) {
            thumb.bgr = cv::Mat(image.height, image.width, CV_8UC3, image.data).clone();
        }
        out.push_back(std::move(thumb));
    }
    return true;
}

bool Engine::remove_sample(uint32_t index) {
    return call([&] { return ostrel_alg_removeSample(handle_, index); }) == 0;
}

}  // namespace ostrel_tool
