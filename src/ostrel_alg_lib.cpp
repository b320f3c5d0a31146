// The exported interface: every function checks its handle and arguments,
// forwards to one engine operation and returns its status.
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "ostrel_alg.h"
#include "common/failure.h"
#include "common/log.h"
#include "common/progress.h"
#include "common/utf16_path.h"
#include "engine/engine_options.h"
#include "engine/input_limits.h"
#include "engine/learnable_window.h"
#include "engine/ostrel_alg.h"
#include "engine/sensitivity.h"

static_assert(ostrel::kOptionProfile == OSTREL_ALG_OPTION_PROFILE &&
                  ostrel::kProfileClassic == OSTREL_ALG_PROFILE_CLASSIC &&
                  ostrel::kProfileAccurate == OSTREL_ALG_PROFILE_ACCURATE &&
                  ostrel::kOptionAccurateCells == OSTREL_ALG_OPTION_ACCURATE_CELLS &&
                  ostrel::kOptionAccurateSizeSteps == OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS &&
                  ostrel::kOptionAccurateOverlap == OSTREL_ALG_OPTION_ACCURATE_OVERLAP &&
                  ostrel::kOptionAccurateMinHeight == OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT &&
                  ostrel::kOptionAccurateMaxHeight == OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT,
              "the engine's option numbers are the header's");

namespace {

constexpr const char *kLibSource = "ostrel_alg_lib";
constexpr const char *kLibFailFormat = "[Alg.Fail] %s (%s line:%d)\n";
constexpr const char *kLibExceptionFormat = "[Alg.Exc!] %s (%s line:%d): %s\n";
constexpr const char *kNullArgumentFormat = "[Alg.Fail] %s: %s must not be null\n";
constexpr const char *kBadPathFormat = "[Alg.Fail] %s: the path is null or not a valid UTF-16 string\n";
constexpr const char *kLongPathFormat = "[Alg.Fail] %s: the path is longer than %u UTF-16 units\n";
constexpr const char *kSensitivityAboveFormat = "[Alg.Fail] %s: sensitivity %u is above %u\n";
constexpr const char *kUnconvertedPathFormat =
    "[Alg.Fail] %s: the path cannot be converted to the thread's code page\n";

// Line numbers of each function's failure line; they are part of the
// messages that hosts already match on.
enum LibLine : int {
    kCreateInitFailedLine = 84,
    kCreateExceptionLine = 90,
    kDestroyLine = 103,
    kInitLine = 128,
    kInitFailedLine = 142,
    kSetSensitivityLine = 154,
    kIstraiedLine = 170,
    kSetTrainingSizeLine = 185,
    kRunDetectorLine = 200,
    kRunDetectorPtrLine = 213,
    kExportModelLine = 232,
    kImportModelLine = 246,
    kCheckModelValidationLine = 260,
    kSetDetectorLine = 275,
    kSetDetectorPtrLine = 294,
    kGetSamplesLine = 344,
    kGetSamplesPtrLine = 359,
    kRemoveSampleLine = 374,
    kSetModelIdLine = 405,
    kGetModelIdLine = 419,
    kGetAddNegativeMethodLine = 451,
    kGetNumofSamplesLine = 467,
    // Functions added after the original set.
    kSetRandomSeedLine = 483,
    kGetFeatureMapLine = 499,
    kSetOptionLine = 515,
    kGetOptionLine = 531,
    kAddClassLine = 547,
    kSetClassLine = 563,
    kGetClassLine = 579,
    kGetClassCountLine = 595,
    kGetClassNamePtrLine = 611,
    kGetBoxClassesPtrLine = 627,
    kSetProgressHandlerLine = 643,
    kCheckBoxLine = 659,
};

bool handle_ok(const ostrel_alg *handle, const char *function, int line) {
    if (handle == nullptr) {
        ostrel::log_failure(kLibFailFormat, function, kLibSource, line);
        ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "the engine handle is null");
        return false;
    }
    return true;
}

bool argument_ok(const void *argument, const char *function, const char *argument_name) {
    if (argument == nullptr) {
        ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, kNullArgumentFormat, function, argument_name);
        return false;
    }
    return true;
}

// Runs the body of an exported function (which receives the function's
// name) and, when the host's call fails, files what it noted as the last
// failure of the engine, or of the thread for a call without one.
template <typename Body>
int32_t api_call(ostrel_alg *engine, const char *function, Body &&body) {
    const ostrel::failure_scope scope;
    const ostrel::progress_scope progress(engine != nullptr ? engine->progress_handler : nullptr,
                                          engine != nullptr ? engine->progress_user : nullptr);
    const int32_t status = body(function);
    if (status != 0 && scope.outermost()) {
        try {
            (engine != nullptr ? engine->last_failure : ostrel::thread_failure()) = scope.taken(function);
        } catch (const std::bad_alloc &) {
            ostrel::failure &record = engine != nullptr ? engine->last_failure : ostrel::thread_failure();
            record.code = OSTREL_ALG_ERR_OUT_OF_MEMORY;
            record.message.clear();
        }
    }
    return status;
}

// An exported getter: checks the handle and the pointer the value goes to,
// then stores what `value` gives there.
template <typename T, typename Value>
int32_t get_value(ostrel_alg *handle, const char *function, int line, T *out, const char *out_name, Value &&value) {
    return api_call(handle, function, [&](const char *name) -> int32_t {
        if (!handle_ok(handle, name, line) || !argument_ok(out, name, out_name)) {
            return 1;
        }
        *out = value();
        return 0;
    });
}

// Runs an engine operation so that no exception reaches the host: a C
// caller cannot handle one, and an escaping exception would end its process.
template <typename Operation>
int32_t guarded(const char *function, int line, Operation &&operation) {
    try {
        return operation();
    } catch (const std::bad_alloc &e) {
        ostrel::fail(OSTREL_ALG_ERR_OUT_OF_MEMORY, kLibExceptionFormat, function, kLibSource, line, e.what());
    } catch (const std::exception &e) {
        ostrel::fail(OSTREL_ALG_ERR_INTERNAL, kLibExceptionFormat, function, kLibSource, line, e.what());
    } catch (...) {
        ostrel::fail(OSTREL_ALG_ERR_INTERNAL, kLibExceptionFormat, function, kLibSource, line, "unknown exception");
    }
    return 1;
}

// One detection run of the host's call; a run that returns its boxes is
// reported to the progress handler (the runs inside a training are not: they
// are that training's business).
int32_t run_detection(ostrel_alg &engine, const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    const int32_t status = engine.runDetector(image, out);
    if (status == 0) {
        ostrel_alg_progress ended = ostrel::progress_record(OSTREL_ALG_STAGE_DETECTION);
        ended.done = 1;
        ended.total = 1;
        ostrel::report_progress(ended);
    }
    return status;
}

// Whether the engine can learn box as the first box of a new picture of
// width x height pixels: the set-up's own rule, and a window a model file
// can hold.
int32_t check_box(const ostrel_alg &engine, int32_t width, int32_t height, const ostrel_alg_box &box,
                  const char *function) {
    if (engine.options.is_accurate()) {
        ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                     "[Alg.Fail] %s: the accurate profile checks the boxes of a picture together, at set-up\n",
                     function);
        return 1;
    }
    if (width < 1 || height < 1) {
        ostrel::fail(OSTREL_ALG_ERR_BAD_PICTURE, "[Alg.Fail] %s: a picture of %d x %d pixels is below 1 x 1\n",
                     function, width, height);
        return 1;
    }
    if (!ostrel::picture_within_pixel_limit(width, height)) {
        ostrel::fail(OSTREL_ALG_ERR_PICTURE_TOO_LARGE,
                     "[Alg.Fail] %s: a picture of %d x %d pixels is larger than the limit of %lld pixels\n", function,
                     width, height, static_cast<long long>(ostrel::kMaxPicturePixels));
        return 1;
    }
    if (!engine.feat_extractor) {
        ostrel::fail(OSTREL_ALG_ERR_INTERNAL, "[Alg.Fail] %s: the engine has no feature extractor\n", function);
        return 1;
    }
    const ostrel::learning_state state = ostrel::learning_state_of(*engine.feat_extractor, engine.training_samples);
    const ostrel::window_check check =
        ostrel::check_storable_window({box}, width, height, state.map, state.held_sample_features);
    if (check.verdict == ostrel::window_verdict::learnable) {
        return 0;
    }
    ostrel::fail_unlearnable_box(check, box, width, height, state.map, function);
    return 1;
}

int32_t run_with_utf16_path(ostrel_alg *handle, const ostrel_alg_utf16 *path, const char *function,
                            int32_t (*plain)(ostrel_alg *, std::string)) {
    std::string narrow;
    switch (ostrel::utf16_path_to_narrow(path, &narrow)) {
        case ostrel::Utf16PathResult::converted: return plain(handle, std::move(narrow));
        case ostrel::Utf16PathResult::too_long:
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, kLongPathFormat, function,
                         static_cast<unsigned>(ostrel::kMaxUtf16PathUnits));
            return 1;
        case ostrel::Utf16PathResult::conversion_failed:
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, kUnconvertedPathFormat, function);
            return 1;
        case ostrel::Utf16PathResult::null_path:
        case ostrel::Utf16PathResult::invalid_utf16: break;
    }
    ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, kBadPathFormat, function);
    return 1;
}

}  // namespace

extern "C" {

int32_t ostrel_alg_getVersion(int32_t *major, int32_t *minor, int32_t *patch) {
    // The library is compiled with its own header: these are its numbers.
    if (major != nullptr) *major = OSTREL_ALG_VERSION_MAJOR;
    if (minor != nullptr) *minor = OSTREL_ALG_VERSION_MINOR;
    if (patch != nullptr) *patch = OSTREL_ALG_VERSION_PATCH;
    return 0;
}

int32_t ostrel_alg_create(ostrel_alg **handle) {
    return api_call(nullptr, __func__, [&](const char *function) -> int32_t {
        if (!argument_ok(handle, function, "handle")) {
            return 1;
        }
        int32_t status = 1;
        *handle = nullptr;
        ostrel_alg *engine = nullptr;
        try {
            engine = new ostrel_alg();
            status = engine->init();
            if (status == 0) {
                *handle = engine;
                return 0;
            }
            // The engine is deliberately not freed here: a host may still hold
            // on to pointers handed out while init ran.
            ostrel::log_failure(kLibFailFormat, function, kLibSource, kCreateInitFailedLine);
            ostrel::note_failure(OSTREL_ALG_ERR_INTERNAL, "the new engine could not be initialised");
            return status;
        } catch (const std::exception &e) {
            ostrel::fail(dynamic_cast<const std::bad_alloc *>(&e) != nullptr ? OSTREL_ALG_ERR_OUT_OF_MEMORY
                                                                             : OSTREL_ALG_ERR_INTERNAL,
                         kLibExceptionFormat, function, kLibSource, kCreateExceptionLine, e.what());
            *handle = engine;
            return status;
        }
    });
}

int32_t ostrel_alg_destroy(ostrel_alg *handle) {
    // Fails only without an engine: the thread's record takes it.
    return api_call(nullptr, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kDestroyLine)) {
            return 1;
        }
        delete handle;
        return 0;
    });
}

int32_t ostrel_alg_init(ostrel_alg *handle) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kInitLine)) {
            return 1;
        }
        return guarded(function, kInitFailedLine, [&] {
            const int32_t status = handle->init();
            if (status != 0) {
                ostrel::log_failure(kLibFailFormat, function, kLibSource, kInitFailedLine);
                ostrel::note_failure(OSTREL_ALG_ERR_INTERNAL, "the engine could not be initialised");
            }
            return status;
        });
    });
}

int32_t ostrel_alg_setSensitivity(ostrel_alg *handle, uint32_t sensitivity) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetSensitivityLine)) {
            return 1;
        }
        // The engine takes the inverted value and inverts it again.
        const int32_t status = handle->setSensitivity(ostrel::kMaxSensitivity - sensitivity);
        if (status != 0) {
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, kSensitivityAboveFormat, function, sensitivity,
                         ostrel::kMaxSensitivity);
        }
        return status;
    });
}

int32_t ostrel_alg_getConfidenceOfSensitivity(uint32_t sensitivity, uint32_t *percent) {
    return api_call(nullptr, __func__, [&](const char *function) -> int32_t {
        if (!argument_ok(percent, function, "percent")) {
            return 1;
        }
        if (sensitivity > ostrel::kMaxSensitivity) {
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, kSensitivityAboveFormat, function, sensitivity,
                         ostrel::kMaxSensitivity);
            return 1;
        }
        *percent = static_cast<uint32_t>(ostrel::confidence_of_sensitivity(sensitivity));
        return 0;
    });
}

int32_t ostrel_alg_istraied(ostrel_alg *handle, uint8_t *trained) {
    return get_value(handle, __func__, kIstraiedLine, trained, "trained",
                     [&]() -> uint8_t { return handle->isTrained() ? 1 : 0; });
}

int32_t ostrel_alg_setTrainingSize(ostrel_alg *handle, uint32_t object_width, uint32_t object_height,
                                   uint32_t picture_width, uint32_t picture_height) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetTrainingSizeLine)) {
            return 1;
        }
        handle->setTrainingSize(object_width, object_height, picture_width, picture_height);
        return 0;
    });
}

int32_t ostrel_alg_runDetector(ostrel_alg *handle, const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kRunDetectorLine)) {
            return 1;
        }
        return guarded(function, kRunDetectorLine, [&] { return run_detection(*handle, image, out); });
    });
}

int32_t ostrel_alg_runDetector_ptr(ostrel_alg *handle, const ostrel_alg_image *image, ostrel_alg_box **boxes,
                                   uint32_t *count) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kRunDetectorPtrLine) || !argument_ok(boxes, function, "boxes") ||
            !argument_ok(count, function, "count")) {
            return 1;
        }
        return guarded(function, kRunDetectorPtrLine, [&] {
            std::vector<ostrel_alg_box> results;
            const int32_t status = run_detection(*handle, image, results);
            *boxes = handle->result_boxes.get();
            *count = handle->result_box_count;
            return status;
        });
    });
}

int32_t ostrel_alg_exportModel(ostrel_alg *handle, std::string path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kExportModelLine)) {
            return 1;
        }
        return guarded(function, kExportModelLine, [&] { return handle->exportModel(path); });
    });
}

int32_t ostrel_alg_importModel(ostrel_alg *handle, std::string path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kImportModelLine)) {
            return 1;
        }
        return guarded(function, kImportModelLine, [&] { return handle->importModel(path); });
    });
}

int32_t ostrel_alg_checkModelValidation(ostrel_alg *handle, std::string path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kCheckModelValidationLine)) {
            return 1;
        }
        return guarded(function, kCheckModelValidationLine, [&] { return handle->checkModelValidation(path); });
    });
}

int32_t ostrel_alg_exportModel_ptr(ostrel_alg *handle, const char *path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kExportModelLine) || !argument_ok(path, function, "path")) {
            return 1;
        }
        return ostrel_alg_exportModel(handle, path);
    });
}

int32_t ostrel_alg_importModel_ptr(ostrel_alg *handle, const char *path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kImportModelLine) || !argument_ok(path, function, "path")) {
            return 1;
        }
        return ostrel_alg_importModel(handle, path);
    });
}

int32_t ostrel_alg_checkModelValidation_ptr(ostrel_alg *handle, const char *path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kCheckModelValidationLine) || !argument_ok(path, function, "path")) {
            return 1;
        }
        return ostrel_alg_checkModelValidation(handle, path);
    });
}

int32_t ostrel_alg_exportModel_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        return run_with_utf16_path(handle, path, function, &ostrel_alg_exportModel);
    });
}

int32_t ostrel_alg_importModel_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        return run_with_utf16_path(handle, path, function, &ostrel_alg_importModel);
    });
}

int32_t ostrel_alg_checkModelValidation_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        return run_with_utf16_path(handle, path, function, &ostrel_alg_checkModelValidation);
    });
}

int32_t ostrel_alg_setDetector(ostrel_alg *handle, const ostrel_alg_image *image,
                               const std::vector<ostrel_alg_box> &boxes) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetDetectorLine)) {
            return 1;
        }
        return guarded(function, kSetDetectorLine, [&] { return handle->setDetectorWithAutoTrain(image, boxes); });
    });
}

int32_t ostrel_alg_setDetector_ptr(ostrel_alg *handle, const ostrel_alg_image *image, const ostrel_alg_box *boxes,
                                   int32_t count) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetDetectorPtrLine)) {
            return 1;
        }
        if (count < 0) {
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: box count %d is negative\n", function, count);
            return 1;
        }
        // Refused before the boxes are copied: the copy is the first allocation.
        if (count > OSTREL_ALG_MAX_MARKED_BOXES) {
            ostrel::fail(OSTREL_ALG_ERR_TOO_MANY_BOXES, "[Alg.Fail] %s: box count %d is above the limit of %d\n",
                         function, count, OSTREL_ALG_MAX_MARKED_BOXES);
            return 1;
        }
        if (count > 0 && !argument_ok(boxes, function, "boxes")) {
            return 1;
        }
        return guarded(function, kSetDetectorPtrLine, [&] {
            const std::vector<ostrel_alg_box> copy(boxes, boxes + count);
            return handle->setDetectorWithAutoTrain(image, copy);
        });
    });
}

int32_t ostrel_alg_getSamples(ostrel_alg *handle, std::vector<ostrel_alg_sample> &out) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetSamplesLine)) {
            return 1;
        }
        return guarded(function, kGetSamplesLine, [&] {
            handle->getSamples(out);
            return 0;
        });
    });
}

int32_t ostrel_alg_checkBox(ostrel_alg *handle, int32_t picture_width, int32_t picture_height,
                            const ostrel_alg_box *box, int32_t *code) {
    const int32_t status = api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kCheckBoxLine) || !argument_ok(box, function, "box")) {
            return 1;
        }
        return guarded(function, kCheckBoxLine,
                       [&] { return check_box(*handle, picture_width, picture_height, *box, function); });
    });
    if (code != nullptr) {
        // The reason is the one the call has just filed.
        *code = status == 0 ? OSTREL_ALG_ERR_OK
                            : (handle != nullptr ? handle->last_failure : ostrel::thread_failure()).code;
    }
    return status;
}

int32_t ostrel_alg_getSamples_ptr(ostrel_alg *handle, ostrel_alg_sample **samples, uint32_t *count) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetSamplesPtrLine) || !argument_ok(samples, function, "samples") ||
            !argument_ok(count, function, "count")) {
            return 1;
        }
        handle->getSamples_ptr(samples, count);
        return 0;
    });
}

int32_t ostrel_alg_removeSample(ostrel_alg *handle, uint32_t index) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kRemoveSampleLine)) {
            return 1;
        }
        return guarded(function, kRemoveSampleLine, [&] { return handle->removeSample(index); });
    });
}

int32_t ostrel_alg_setModelId(ostrel_alg *handle, int32_t model_id) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetModelIdLine)) {
            return 1;
        }
        return handle->setModelId(model_id);
    });
}

int32_t ostrel_alg_getModelId(ostrel_alg *handle, uint32_t *model_id) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetModelIdLine) || !argument_ok(model_id, function, "model_id")) {
            return 1;
        }
        return handle->getModelId(model_id);
    });
}

int32_t ostrel_alg_temp_getAddNegativeMethod(ostrel_alg *handle, std::string &method) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetAddNegativeMethodLine)) {
            return 1;
        }
        method = handle->getAddNegativeMethod();
        return 0;
    });
}

int32_t ostrel_alg_temp_getAddNegativeMethod_ptr(ostrel_alg *handle, const char **method) {
    return get_value(handle, __func__, kGetAddNegativeMethodLine, method, "method",
                     [] { return ostrel_alg::kNegativeMethodName; });
}

int32_t ostrel_alg_temp_getNumofSamples(ostrel_alg *handle, uint32_t *positives, uint32_t *negatives) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetNumofSamplesLine) || !argument_ok(positives, function, "positives") ||
            !argument_ok(negatives, function, "negatives")) {
            return 1;
        }
        handle->countSamples(positives, negatives);
        return 0;
    });
}

int32_t ostrel_alg_setRandomSeed(ostrel_alg *handle, uint32_t seed) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetRandomSeedLine)) {
            return 1;
        }
        handle->setRandomSeed(seed);
        return 0;
    });
}

int32_t ostrel_alg_getFeatureMap_ptr(ostrel_alg *handle, const ostrel_alg_image *image, const uint8_t **data,
                                     uint32_t *channels, uint32_t *columns, uint32_t *rows) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetFeatureMapLine) || !argument_ok(data, function, "data") ||
            !argument_ok(channels, function, "channels") || !argument_ok(columns, function, "columns") ||
            !argument_ok(rows, function, "rows")) {
            return 1;
        }
        return guarded(function, kGetFeatureMapLine,
                       [&] { return handle->getFeatureMap(image, data, channels, columns, rows); });
    });
}

int32_t ostrel_alg_getLastError(ostrel_alg *handle, int32_t *code, char *buffer, size_t size) {
    // Reading files no failure and logs nothing, so that it never changes
    // what it reads.
    if (buffer == nullptr && size != 0) {
        return 1;
    }
    const ostrel::failure &record = handle != nullptr ? handle->last_failure : ostrel::thread_failure();
    if (code != nullptr) {
        *code = record.code;
    }
    ostrel::copy_message(record.message, buffer, size);
    return 0;
}

int32_t ostrel_alg_setProgressHandler(ostrel_alg *handle, ostrel_alg_progress_handler handler, void *user) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetProgressHandlerLine)) {
            return 1;
        }
        handle->progress_handler = handler;
        handle->progress_user = handler != nullptr ? user : nullptr;
        return 0;
    });
}

int32_t ostrel_alg_setLogHandler(ostrel_alg_log_handler handler, void *user) {
    // Refused only from inside a handler. The refusal is not logged: the
    // line would go to that same handler, which may well call again.
    return ostrel::set_log_handler(handler, user) ? 0 : 1;
}

int32_t ostrel_alg_setLogRecordHandler(ostrel_alg_log_record_handler handler, void *user) {
    // Refused only from inside a handler, without a line, as above.
    return ostrel::set_log_record_handler(handler, user) ? 0 : 1;
}

int32_t ostrel_alg_setOption(ostrel_alg *handle, int32_t option, int32_t value) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetOptionLine)) {
            return 1;
        }
        const ostrel::option_range *range = ostrel::find_option(option);
        if (range == nullptr) {
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: option %d is unknown\n", function, option);
            return 1;
        }
        if (!ostrel::within_range(*range, value)) {
            if (range->least_nonzero > 0) {
                ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: %s %d is outside 0 (automatic) and %d..%d\n",
                             function, range->name, value, range->least_nonzero, range->maximum);
            } else {
                ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: %s %d is outside %d..%d\n", function,
                             range->name, value, range->minimum, range->maximum);
            }
            return 1;
        }
        if (const char *conflict = handle->options.conflict(option, value)) {
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: %s %d %s\n", function, range->name, value,
                         conflict);
            return 1;
        }
        handle->options.set(option, value);
        handle->options.set_by_host |= 1u << option;
        return 0;
    });
}

int32_t ostrel_alg_getOptionRange(int32_t option, int32_t *minimum, int32_t *maximum, int32_t *default_value) {
    return api_call(nullptr, __func__, [&](const char *function) -> int32_t {
        const ostrel::option_range *range = ostrel::find_option(option);
        if (range == nullptr) {
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: option %d is unknown\n", function, option);
            return 1;
        }
        if (minimum != nullptr) *minimum = ostrel::least_chosen_value(*range);
        if (maximum != nullptr) *maximum = range->maximum;
        if (default_value != nullptr) *default_value = range->default_value;
        return 0;
    });
}

int32_t ostrel_alg_getOption(ostrel_alg *handle, int32_t option, int32_t *value) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetOptionLine) || !argument_ok(value, function, "value")) {
            return 1;
        }
        if (ostrel::find_option(option) == nullptr) {
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: option %d is unknown\n", function, option);
            return 1;
        }
        *value = handle->options.get(option);
        return 0;
    });
}

int32_t ostrel_alg_addClass(ostrel_alg *handle, const char *name, uint32_t *index) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kAddClassLine) || !argument_ok(name, function, "name")) {
            return 1;
        }
        return guarded(function, kAddClassLine, [&] { return handle->addClass(name, index); });
    });
}

int32_t ostrel_alg_setClass(ostrel_alg *handle, uint32_t index) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kSetClassLine)) {
            return 1;
        }
        return guarded(function, kSetClassLine, [&] { return handle->selectClass(index); });
    });
}

int32_t ostrel_alg_getClass(ostrel_alg *handle, uint32_t *index) {
    return get_value(handle, __func__, kGetClassLine, index, "index", [&] { return handle->current_class; });
}

int32_t ostrel_alg_getClassCount(ostrel_alg *handle, uint32_t *count) {
    return get_value(handle, __func__, kGetClassCountLine, count, "count", [&] { return handle->classCount(); });
}

int32_t ostrel_alg_getClassName_ptr(ostrel_alg *handle, uint32_t index, const char **name) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetClassNamePtrLine) || !argument_ok(name, function, "name")) {
            return 1;
        }
        return handle->getClassName(index, name);
    });
}

int32_t ostrel_alg_getBoxClasses_ptr(ostrel_alg *handle, const uint32_t **classes, uint32_t *count) {
    return api_call(handle, __func__, [&](const char *function) -> int32_t {
        if (!handle_ok(handle, function, kGetBoxClassesPtrLine) || !argument_ok(classes, function, "classes") ||
            !argument_ok(count, function, "count")) {
            return 1;
        }
        *classes = handle->result_classes.empty() ? nullptr : handle->result_classes.data();
        *count = static_cast<uint32_t>(handle->result_classes.size());
        return 0;
    });
}

}  // extern "C"
