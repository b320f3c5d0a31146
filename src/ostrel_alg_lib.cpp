// The exported interface: every function checks its handle and arguments,
// forwards to one engine operation and returns its status.
#include <exception>
#include <string>
#include <vector>

#include "ostrel_alg.h"
#include "common/log.h"
#include "common/utf16_path.h"
#include "engine/engine_options.h"
#include "engine/ostrel_alg.h"

static_assert(ostrel::kOptionProfile == OSTREL_ALG_OPTION_PROFILE && ostrel::kProfileClassic == OSTREL_ALG_PROFILE_CLASSIC &&
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
constexpr const char *kUnconvertedPathFormat = "[Alg.Fail] %s: the path cannot be converted to the thread's code page\n";

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
};

bool handle_ok(const ostrel_alg *handle, const char *function, int line) {
    if (handle == nullptr) {
        ostrel::log(kLibFailFormat, function, kLibSource, line);
        return false;
    }
    return true;
}

bool argument_ok(const void *argument, const char *function, const char *argument_name) {
    if (argument == nullptr) {
        ostrel::log(kNullArgumentFormat, function, argument_name);
        return false;
    }
    return true;
}

// Runs an engine operation so that no exception reaches the host: a C
// caller cannot handle one, and an escaping exception would end its process.
template <typename Operation>
int32_t guarded(const char *function, int line, Operation &&operation) {
    try {
        return operation();
    } catch (const std::exception &e) {
        ostrel::log(kLibExceptionFormat, function, kLibSource, line, e.what());
    } catch (...) {
        ostrel::log(kLibExceptionFormat, function, kLibSource, line, "unknown exception");
    }
    return 1;
}

int32_t run_with_utf16_path(ostrel_alg *handle, const ostrel_alg_utf16 *path, const char *function,
                            int32_t (*plain)(ostrel_alg *, std::string)) {
    std::string narrow;
    switch (ostrel::utf16_path_to_narrow(path, &narrow)) {
    case ostrel::Utf16PathResult::converted:
        return plain(handle, std::move(narrow));
    case ostrel::Utf16PathResult::too_long:
        ostrel::log(kLongPathFormat, function, static_cast<unsigned>(ostrel::kMaxUtf16PathUnits));
        return 1;
    case ostrel::Utf16PathResult::conversion_failed:
        ostrel::log(kUnconvertedPathFormat, function);
        return 1;
    case ostrel::Utf16PathResult::null_path:
    case ostrel::Utf16PathResult::invalid_utf16:
        break;
    }
    ostrel::log(kBadPathFormat, function);
    return 1;
}

}  // namespace

extern "C" {

int32_t ostrel_alg_create(ostrel_alg **handle) {
    if (!argument_ok(handle, __func__, "handle")) {
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
        ostrel::log(kLibFailFormat, __func__, kLibSource, kCreateInitFailedLine);
        return status;
    } catch (const std::exception &e) {
        ostrel::log(kLibExceptionFormat, __func__, kLibSource, kCreateExceptionLine, e.what());
        *handle = engine;
        return status;
    }
}

int32_t ostrel_alg_destroy(ostrel_alg *handle) {
    if (!handle_ok(handle, __func__, kDestroyLine)) {
        return 1;
    }
    delete handle;
    return 0;
}

int32_t ostrel_alg_init(ostrel_alg *handle) {
    if (!handle_ok(handle, __func__, kInitLine)) {
        return 1;
    }
    return guarded(__func__, kInitFailedLine, [&] {
        const int32_t status = handle->init();
        if (status != 0) {
            ostrel::log(kLibFailFormat, __func__, kLibSource, kInitFailedLine);
        }
        return status;
    });
}

int32_t ostrel_alg_setSensitivity(ostrel_alg *handle, uint32_t sensitivity) {
    if (!handle_ok(handle, __func__, kSetSensitivityLine)) {
        return 1;
    }
    // The engine takes the inverted value and inverts it again.
    const int32_t status = handle->setSensitivity(100u - sensitivity);
    if (status != 0) {
        ostrel::log("[Alg.Fail] %s: sensitivity %u is above 100\n", __func__, sensitivity);
    }
    return status;
}

int32_t ostrel_alg_istraied(ostrel_alg *handle, uint8_t *trained) {
    if (!handle_ok(handle, __func__, kIstraiedLine) || !argument_ok(trained, __func__, "trained")) {
        return 1;
    }
    *trained = handle->isTrained() ? 1 : 0;
    return 0;
}

int32_t ostrel_alg_setTrainingSize(ostrel_alg *handle, uint32_t object_width, uint32_t object_height,
                                   uint32_t picture_width, uint32_t picture_height) {
    if (!handle_ok(handle, __func__, kSetTrainingSizeLine)) {
        return 1;
    }
    handle->setTrainingSize(object_width, object_height, picture_width, picture_height);
    return 0;
}

int32_t ostrel_alg_runDetector(ostrel_alg *handle, const ostrel_alg_image *image,
                               std::vector<ostrel_alg_box> &out) {
    if (!handle_ok(handle, __func__, kRunDetectorLine)) {
        return 1;
    }
    return guarded(__func__, kRunDetectorLine, [&] { return handle->runDetector(image, out); });
}

int32_t ostrel_alg_runDetector_ptr(ostrel_alg *handle, const ostrel_alg_image *image, ostrel_alg_box **boxes,
                                   uint32_t *count) {
    if (!handle_ok(handle, __func__, kRunDetectorPtrLine) || !argument_ok(boxes, __func__, "boxes") ||
        !argument_ok(count, __func__, "count")) {
        return 1;
    }
    return guarded(__func__, kRunDetectorPtrLine, [&] {
        std::vector<ostrel_alg_box> results;
        const int32_t status = handle->runDetector(image, results);
        *boxes = handle->result_boxes.get();
        *count = handle->result_box_count;
        return status;
    });
}

int32_t ostrel_alg_exportModel(ostrel_alg *handle, std::string path) {
    if (!handle_ok(handle, __func__, kExportModelLine)) {
        return 1;
    }
    return guarded(__func__, kExportModelLine, [&] { return handle->exportModel(path); });
}

int32_t ostrel_alg_importModel(ostrel_alg *handle, std::string path) {
    if (!handle_ok(handle, __func__, kImportModelLine)) {
        return 1;
    }
    return guarded(__func__, kImportModelLine, [&] { return handle->importModel(path); });
}

int32_t ostrel_alg_checkModelValidation(ostrel_alg *handle, std::string path) {
    if (!handle_ok(handle, __func__, kCheckModelValidationLine)) {
        return 1;
    }
    return guarded(__func__, kCheckModelValidationLine, [&] { return handle->checkModelValidation(path); });
}

int32_t ostrel_alg_exportModel_ptr(ostrel_alg *handle, const char *path) {
    if (!handle_ok(handle, __func__, kExportModelLine) || !argument_ok(path, __func__, "path")) {
        return 1;
    }
    return ostrel_alg_exportModel(handle, path);
}

int32_t ostrel_alg_importModel_ptr(ostrel_alg *handle, const char *path) {
    if (!handle_ok(handle, __func__, kImportModelLine) || !argument_ok(path, __func__, "path")) {
        return 1;
    }
    return ostrel_alg_importModel(handle, path);
}

int32_t ostrel_alg_checkModelValidation_ptr(ostrel_alg *handle, const char *path) {
    if (!handle_ok(handle, __func__, kCheckModelValidationLine) || !argument_ok(path, __func__, "path")) {
        return 1;
    }
    return ostrel_alg_checkModelValidation(handle, path);
}

int32_t ostrel_alg_exportModel_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path) {
    return run_with_utf16_path(handle, path, __func__, &ostrel_alg_exportModel);
}

int32_t ostrel_alg_importModel_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path) {
    return run_with_utf16_path(handle, path, __func__, &ostrel_alg_importModel);
}

int32_t ostrel_alg_checkModelValidation_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path) {
    return run_with_utf16_path(handle, path, __func__, &ostrel_alg_checkModelValidation);
}

int32_t ostrel_alg_setDetector(ostrel_alg *handle, const ostrel_alg_image *image,
                               const std::vector<ostrel_alg_box> &boxes) {
    if (!handle_ok(handle, __func__, kSetDetectorLine)) {
        return 1;
    }
    return guarded(__func__, kSetDetectorLine, [&] { return handle->setDetectorWithAutoTrain(image, boxes); });
}

int32_t ostrel_alg_setDetector_ptr(ostrel_alg *handle, const ostrel_alg_image *image, const ostrel_alg_box *boxes,
                                   int32_t count) {
    if (!handle_ok(handle, __func__, kSetDetectorPtrLine)) {
        return 1;
    }
    if (count < 0) {
        ostrel::log("[Alg.Fail] %s: box count %d is negative\n", __func__, count);
        return 1;
    }
    // Refused before the boxes are copied: the copy is the first allocation.
    if (count > OSTREL_ALG_MAX_MARKED_BOXES) {
        ostrel::log("[Alg.Fail] %s: box count %d is above the limit of %d\n", __func__, count,
                    OSTREL_ALG_MAX_MARKED_BOXES);
        return 1;
    }
    if (count > 0 && !argument_ok(boxes, __func__, "boxes")) {
        return 1;
    }
    return guarded(__func__, kSetDetectorPtrLine, [&] {
        const std::vector<ostrel_alg_box> copy(boxes, boxes + count);
        return handle->setDetectorWithAutoTrain(image, copy);
    });
}

int32_t ostrel_alg_getSamples(ostrel_alg *handle, std::vector<ostrel_alg_sample> &out) {
    if (!handle_ok(handle, __func__, kGetSamplesLine)) {
        return 1;
    }
    return guarded(__func__, kGetSamplesLine, [&] {
        handle->getSamples(out);
        return 0;
    });
}

int32_t ostrel_alg_getSamples_ptr(ostrel_alg *handle, ostrel_alg_sample **samples, uint32_t *count) {
    if (!handle_ok(handle, __func__, kGetSamplesPtrLine) || !argument_ok(samples, __func__, "samples") ||
        !argument_ok(count, __func__, "count")) {
        return 1;
    }
    handle->getSamples_ptr(samples, count);
    return 0;
}

int32_t ostrel_alg_removeSample(ostrel_alg *handle, uint32_t index) {
    if (!handle_ok(handle, __func__, kRemoveSampleLine)) {
        return 1;
    }
    return guarded(__func__, kRemoveSampleLine, [&] { return handle->removeSample(index); });
}

int32_t ostrel_alg_setModelId(ostrel_alg *handle, int32_t model_id) {
    if (!handle_ok(handle, __func__, kSetModelIdLine)) {
        return 1;
    }
    return handle->setModelId(model_id);
}

int32_t ostrel_alg_getModelId(ostrel_alg *handle, uint32_t *model_id) {
    if (!handle_ok(handle, __func__, kGetModelIdLine) || !argument_ok(model_id, __func__, "model_id")) {
        return 1;
    }
    return handle->getModelId(model_id);
}

int32_t ostrel_alg_temp_getAddNegativeMethod(ostrel_alg *handle, std::string &method) {
    if (!handle_ok(handle, __func__, kGetAddNegativeMethodLine)) {
        return 1;
    }
    method = handle->getAddNegativeMethod();
    return 0;
}

int32_t ostrel_alg_temp_getAddNegativeMethod_ptr(ostrel_alg *handle, const char **method) {
    if (!handle_ok(handle, __func__, kGetAddNegativeMethodLine) || !argument_ok(method, __func__, "method")) {
        return 1;
    }
    *method = ostrel_alg::kNegativeMethodName;
    return 0;
}

int32_t ostrel_alg_temp_getNumofSamples(ostrel_alg *handle, uint32_t *positives, uint32_t *negatives) {
    if (!handle_ok(handle, __func__, kGetNumofSamplesLine) || !argument_ok(positives, __func__, "positives") ||
        !argument_ok(negatives, __func__, "negatives")) {
        return 1;
    }
    handle->countSamples(positives, negatives);
    return 0;
}

int32_t ostrel_alg_setRandomSeed(ostrel_alg *handle, uint32_t seed) {
    if (!handle_ok(handle, __func__, kSetRandomSeedLine)) {
        return 1;
    }
    handle->setRandomSeed(seed);
    return 0;
}

int32_t ostrel_alg_getFeatureMap_ptr(ostrel_alg *handle, const ostrel_alg_image *image, const uint8_t **data,
                                     uint32_t *channels, uint32_t *columns, uint32_t *rows) {
    if (!handle_ok(handle, __func__, kGetFeatureMapLine) || !argument_ok(data, __func__, "data") ||
        !argument_ok(channels, __func__, "channels") || !argument_ok(columns, __func__, "columns") ||
        !argument_ok(rows, __func__, "rows")) {
        return 1;
    }
    return guarded(__func__, kGetFeatureMapLine,
                   [&] { return handle->getFeatureMap(image, data, channels, columns, rows); });
}

int32_t ostrel_alg_setLogHandler(ostrel_alg_log_handler handler, void *user) {
    // Refused only from inside a handler. The refusal is not logged: the
    // line would go to that same handler, which may well call again.
    return ostrel::set_log_handler(handler, user) ? 0 : 1;
}

int32_t ostrel_alg_setOption(ostrel_alg *handle, int32_t option, int32_t value) {
    if (!handle_ok(handle, __func__, kSetOptionLine)) {
        return 1;
    }
    const ostrel::option_range *range = ostrel::find_option(option);
    if (range == nullptr) {
        ostrel::log("[Alg.Fail] %s: option %d is unknown\n", __func__, option);
        return 1;
    }
    if (!ostrel::within_range(*range, value)) {
        if (range->least_nonzero > 0) {
            ostrel::log("[Alg.Fail] %s: %s %d is outside 0 (automatic) and %d..%d\n", __func__, range->name, value,
                        range->least_nonzero, range->maximum);
        } else {
            ostrel::log("[Alg.Fail] %s: %s %d is outside %d..%d\n", __func__, range->name, value, range->minimum,
                        range->maximum);
        }
        return 1;
    }
    if (const char *conflict = handle->options.conflict(option, value)) {
        ostrel::log("[Alg.Fail] %s: %s %d %s\n", __func__, range->name, value, conflict);
        return 1;
    }
    handle->options.set(option, value);
    handle->options.set_by_host |= 1u << option;
    return 0;
}

int32_t ostrel_alg_getOption(ostrel_alg *handle, int32_t option, int32_t *value) {
    if (!handle_ok(handle, __func__, kGetOptionLine) || !argument_ok(value, __func__, "value")) {
        return 1;
    }
    if (ostrel::find_option(option) == nullptr) {
        ostrel::log("[Alg.Fail] %s: option %d is unknown\n", __func__, option);
        return 1;
    }
    *value = handle->options.get(option);
    return 0;
}

int32_t ostrel_alg_addClass(ostrel_alg *handle, const char *name, uint32_t *index) {
    if (!handle_ok(handle, __func__, kAddClassLine) || !argument_ok(name, __func__, "name")) {
        return 1;
    }
    return guarded(__func__, kAddClassLine, [&] { return handle->addClass(name, index); });
}

int32_t ostrel_alg_setClass(ostrel_alg *handle, uint32_t index) {
    if (!handle_ok(handle, __func__, kSetClassLine)) {
        return 1;
    }
    return guarded(__func__, kSetClassLine, [&] { return handle->selectClass(index); });
}

int32_t ostrel_alg_getClass(ostrel_alg *handle, uint32_t *index) {
    if (!handle_ok(handle, __func__, kGetClassLine) || !argument_ok(index, __func__, "index")) {
        return 1;
    }
    *index = handle->current_class;
    return 0;
}

int32_t ostrel_alg_getClassCount(ostrel_alg *handle, uint32_t *count) {
    if (!handle_ok(handle, __func__, kGetClassCountLine) || !argument_ok(count, __func__, "count")) {
        return 1;
    }
    *count = handle->classCount();
    return 0;
}

int32_t ostrel_alg_getClassName_ptr(ostrel_alg *handle, uint32_t index, const char **name) {
    if (!handle_ok(handle, __func__, kGetClassNamePtrLine) || !argument_ok(name, __func__, "name")) {
        return 1;
    }
    return handle->getClassName(index, name);
}

int32_t ostrel_alg_getBoxClasses_ptr(ostrel_alg *handle, const uint32_t **classes, uint32_t *count) {
    if (!handle_ok(handle, __func__, kGetBoxClassesPtrLine) || !argument_ok(classes, __func__, "classes") ||
        !argument_ok(count, __func__, "count")) {
        return 1;
    }
    *classes = handle->result_classes.empty() ? nullptr : handle->result_classes.data();
    *count = static_cast<uint32_t>(handle->result_classes.size());
    return 0;
}

}  // extern "C"
