// The engine's classes: naming them, choosing the current one, and what
// every class is wherever it is kept (class_slot.h).
#include <string>
#include <utility>
#include <vector>

#include "common/failure.h"
#include "common/log.h"
#include "engine/class_slot.h"
#include "engine/engine_options.h"
#include "engine/ostrel_alg.h"
#include "model/accurate_model_file.h"

namespace ostrel {

void free_slot_samples(class_slot &slot) {
    for (ostrel_alg_sample &thumb : slot.sample_thumbs) {
        delete[] thumb.image.data;
        thumb.image.data = nullptr;
    }
    slot.sample_thumbs.clear();
    slot.pictures.clear();
    slot.marked_boxes.clear();
    slot.cached_image.release();
    slot.cached_image_key = kNoPictureKey;
    slot.positive_count = 0;
    slot.negative_count = 0;
}

}  // namespace ostrel

namespace {

constexpr const char *kAddClassName = "ostrel_alg::addClass";
constexpr const char *kSetClassName = "ostrel_alg::setClass";
constexpr const char *kGetClassNameName = "ostrel_alg::getClassName";

}  // namespace

uint32_t ostrel_alg::classCount() const {
    if (!class_slots.empty()) {
        return static_cast<uint32_t>(class_slots.size());
    }
    return svm_model.trained() || !accurate_pictures.empty() || !accurate_class.name.empty() ? 1u : 0u;
}

ostrel_alg::class_view ostrel_alg::classAt(uint32_t index) const {
    class_view view;
    if (class_slots.empty() || index == current_class) {
        view.weights = &svm_model;
        view.model = &accurate_class;
        view.marked_boxes = &marked_boxes;
        view.cached_image_key = cached_image_key;
        return view;
    }
    const ostrel::class_slot &slot = class_slots[index];
    view.weights = &slot.weights;
    view.model = &slot.model;
    view.marked_boxes = &slot.marked_boxes;
    view.cached_image_key = slot.cached_image_key;
    return view;
}

void ostrel_alg::swapCurrentClass(ostrel::class_slot &slot) {
    std::swap(svm_model, slot.weights);
    std::swap(accurate_class, slot.model);
    std::swap(accurate_pictures, slot.pictures);
    std::swap(marked_boxes, slot.marked_boxes);
    std::swap(sample_thumbs, slot.sample_thumbs);
    std::swap(cached_image, slot.cached_image);
    std::swap(cached_image_key, slot.cached_image_key);
    std::swap(train_width, slot.train_width);
    std::swap(train_height, slot.train_height);
    std::swap(train_input_width, slot.train_input_width);
    std::swap(train_input_height, slot.train_input_height);
    std::swap(accurate_positive_count, slot.positive_count);
    std::swap(accurate_negative_count, slot.negative_count);
}

int32_t ostrel_alg::addClass(const std::string &name, uint32_t *index) {
    if (!options.is_accurate() || model_profile == ostrel::kProfileClassic) {
        ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                     "[Alg.Fail] %s: only the accurate profile learns several classes; set option %d to %d (and train "
                     "or import an accurate model) first\n",
                     kAddClassName, ostrel::kOptionProfile, ostrel::kProfileAccurate);
        return 1;
    }
    if (name.empty()) {
        ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: a class name must not be empty\n", kAddClassName);
        return 1;
    }
    const std::string problem = ostrel::class_name_problem(name);
    if (!problem.empty()) {
        ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: %s\n", kAddClassName, problem.c_str());
        return 1;
    }
    const uint32_t count = classCount();
    for (uint32_t k = 0; k < count; ++k) {
        if (classAt(k).model->name == name) {
            ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: class %u is already named \"%s\"\n",
                         kAddClassName, k, name.c_str());
            return 1;
        }
    }
    if (count >= OSTREL_ALG_MAX_CLASSES) {
        ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT,
                     "[Alg.Fail] %s: the engine holds %u classes, the most a model holds\n", kAddClassName, count);
        return 1;
    }
    if (count == 0) {
        // The engine's first class is the one it always had.
        accurate_class.name = name;
        current_class = 0;
    } else {
        if (class_slots.empty()) {
            class_slots.resize(1);  // class 0's, empty while it is current
            current_class = 0;
        }
        class_slots.emplace_back();
        selectClass(count);
        accurate_class.name = name;
    }
    if (index != nullptr) *index = current_class;
    return 0;
}

int32_t ostrel_alg::selectClass(uint32_t index) {
    const uint32_t count = classCount();
    if (index >= count && !(index == 0 && count == 0)) {
        ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: there is no class %u; the engine holds %u\n",
                     kSetClassName, index, count);
        return 1;
    }
    if (class_slots.empty() || index == current_class) {
        return 0;
    }
    swapCurrentClass(class_slots[current_class]);
    swapCurrentClass(class_slots[index]);
    current_class = index;
    return 0;
}

int32_t ostrel_alg::getClassName(uint32_t index, const char **name) const {
    const uint32_t count = classCount();
    if (index >= count) {
        ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s: there is no class %u; the engine holds %u\n",
                     kGetClassNameName, index, count);
        return 1;
    }
    *name = classAt(index).model->name.c_str();
    return 0;
}

bool ostrel_alg::otherClassTrained() const {
    for (size_t k = 0; k < class_slots.size(); ++k) {
        if (k != current_class && class_slots[k].weights.trained()) return true;
    }
    return false;
}

bool ostrel_alg::everyClassTrained(const char *operation) const {
    const uint32_t count = classCount();
    for (uint32_t k = 0; k < count; ++k) {
        const class_view view = classAt(k);
        if (!view.weights->trained()) {
            ostrel::fail(OSTREL_ALG_ERR_NOT_TRAINED,
                         "[Alg.Fail] %s: class %u (\"%s\") has no model yet; train it first\n", operation, k,
                         view.model->name.c_str());
            return false;
        }
    }
    return true;
}

void ostrel_alg::dropOtherClasses() {
    for (ostrel::class_slot &slot : class_slots) ostrel::free_slot_samples(slot);
    class_slots.clear();
    current_class = 0;
}
