// The accurate profile's model files: what the engine holds, written in the
// accurate format and read back into it (model/accurate_model_file.h).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "common/failure.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "engine/engine_options.h"
#include "engine/engine_lines.h"
#include "engine/ostrel_alg.h"
#include "model/accurate_model_file.h"
#include "model/model_format.h"

namespace {

ostrel::accurate_file_settings file_settings(const ostrel::accurate_model_settings &recorded) {
    ostrel::accurate_file_settings f;
    static_cast<ostrel::accurate_model_settings &>(f) = recorded;
    f.profile = ostrel::kProfileAccurate;
    return f;
}

std::string in_range(const char *name, int32_t value, int32_t low, int32_t high) {
    if (value >= low && value <= high) return "";
    return std::string(name) + " " + std::to_string(value) + " is outside " + std::to_string(low) + ".." +
           std::to_string(high);
}

// What the engine finds wrong with a file the reader took: recorded options
// outside their ranges (the option table's), fixed choices outside what the
// profile can work with, or a window that its shape and cells do not give.
std::string engine_problem(const ostrel::accurate_model_file &file, const ostrel::accurate_settings &defaults) {
    const ostrel::accurate_file_settings &f = file.settings;
    const ostrel::accurate_settings recorded = ostrel::with_recorded(defaults, f);
    for (const ostrel::accurate_option &option : ostrel::kAccurateOptions) {
        const ostrel::option_range *range = ostrel::find_option(option.id);
        const int32_t value = recorded.*option.field;
        if (range != nullptr && !ostrel::within_range(*range, value)) {
            return std::string("its ") + range->name + " " + std::to_string(value) + " is outside the option's range";
        }
    }
    if (f.min_height > 0 && f.max_height > 0 && f.min_height > f.max_height) {
        return "its accurate min height is above its max height";
    }
    for (const std::string &p :
         {in_range("search margin", f.search_margin_percent, 100, 400),
          in_range("levels per octave", f.levels_per_octave, 1, 16),
          in_range("approximation exponent", f.approximation_exponent_permille, -1000, 1000),
          in_range("normalisation radius", f.norm_radius, -1, 64),
          in_range("normalisation floor", f.norm_floor, 0, 1024), in_range("edge reach", f.edge_reach_percent, 0, 100),
          in_range("size prior", f.size_prior_permille, 0, 100000),
          in_range("contained suppression", f.suppression_contained_percent, 1, 100)}) {
        if (!p.empty()) return "its " + p;
    }
    for (size_t k = 0; k < file.classes.size(); ++k) {
        const ostrel::accurate_file_class &c = file.classes[k];
        const ostrel::window_shape shape = ostrel::window_for_aspect(c.aspect, f.object_cells, defaults);
        if (shape.columns != c.window_columns || shape.rows != c.window_rows) {
            return "class record " + std::to_string(k + 1) + "'s window of " + std::to_string(c.window_columns) +
                   " x " + std::to_string(c.window_rows) + " cells is not what its shape and " +
                   std::to_string(f.object_cells) + " cells give (" + std::to_string(shape.columns) + " x " +
                   std::to_string(shape.rows) + ")";
        }
    }
    return "";
}

// A class as the file keeps it.
ostrel::accurate_file_class file_class(const ostrel::svm_model &weights, const ostrel::accurate_class_model &model) {
    ostrel::accurate_file_class c;
    c.name = model.name;
    c.window_columns = model.shape.columns;
    c.window_rows = model.shape.rows;
    c.channels = ostrel::kAccurateChannels;
    c.aspect = model.shape.aspect;
    c.taught_min_height = static_cast<float>(model.taught.min);
    c.taught_max_height = static_cast<float>(model.taught.max);
    c.trained_width = weights.trained_width;
    c.trained_height = weights.trained_height;
    c.input_width = weights.input_width;
    c.input_height = weights.input_height;
    c.calibration_offset = model.calibration.offset;
    c.calibration_slope = model.calibration.slope;
    c.bias = weights.bias;
    c.weights.assign(weights.vector.get(), weights.vector.get() + weights.support_vector_size);
    return c;
}

// A class of the file as the engine keeps it: its weights record and what
// the model is besides.
void take_file_class(const ostrel::accurate_file_class &c, ostrel::svm_model *weights,
                     ostrel::accurate_class_model *model) {
    ostrel::svm_model record;
    record.class_idx = 0;
    record.trained_width = c.trained_width;
    record.trained_height = c.trained_height;
    record.input_width = c.input_width;
    record.input_height = c.input_height;
    record.trained_acf_scale_idx = 0;
    record.support_vector_size = static_cast<int32_t>(c.weights.size());
    record.bias = c.bias;
    record.vector = std::make_unique<int32_t[]>(c.weights.size());
    std::copy(c.weights.begin(), c.weights.end(), record.vector.get());
    *weights = std::move(record);
    *model = ostrel::accurate_class_model{};
    model->name = c.name;
    model->shape.columns = c.window_columns;
    model->shape.rows = c.window_rows;
    model->shape.aspect = c.aspect;
    model->taught = ostrel::height_range{c.taught_min_height, c.taught_max_height};
    model->calibration.offset = c.calibration_offset;
    model->calibration.slope = c.calibration_slope;
}

// Reads and checks a file completely. On any fault logs why, as the
// operation that finds the file `verdict` ("not valid", "refused"), notes
// the failure and returns false.
bool load_accurate_file(const std::string &path, const ostrel::accurate_settings &defaults, const char *operation,
                        const char *verdict, ostrel::accurate_model_file *file) {
    std::vector<unsigned char> bytes;
    std::string problem;
    int32_t code = OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE;
    if (ostrel::read_whole_file(path, ostrel::kMaxAccurateModelBytes, &bytes, &problem)) {
        code = OSTREL_ALG_ERR_MODEL_INVALID;
        if (ostrel::read_accurate_model(bytes.data(), bytes.size(), file, &problem)) {
            problem = engine_problem(*file, defaults);
            if (problem.empty()) return true;
        }
    }
    ostrel::fail(code, "[Alg.Fail] %s: the accurate model file %s is %s: %s\n", operation, path.c_str(), verdict,
                 problem.c_str());
    return false;
}

}  // namespace

int32_t ostrel_alg::exportAccurateModel(const std::string &path) {
    if (!class_slots.empty() && !everyClassTrained(ostrel::kExportModelName)) {
        return 1;
    }
    ostrel::accurate_model_file file;
    file.settings = file_settings(ostrel::recorded_settings(modelSettings()));
    for (uint32_t k = 0; k < classCount(); ++k) {
        const class_view view = classAt(k);
        file.classes.push_back(file_class(*view.weights, *view.model));
    }
    std::string problem;
    const std::vector<unsigned char> bytes = ostrel::write_accurate_model(file, &problem);
    if (bytes.empty()) {
        ostrel::fail(OSTREL_ALG_ERR_MODEL_INVALID, "[Alg.Fail] %s: the accurate model cannot be written: %s\n",
                     ostrel::kExportModelName, problem.c_str());
        return 1;
    }
    std::FILE *out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) {
        return ostrel::model_file_not_created(path);
    }
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
    const bool closed = std::fclose(out) == 0;
    if (!written || !closed) {
        return ostrel::model_file_not_written(ostrel::kExportWriteLine, path);
    }
    return 0;
}

int32_t ostrel_alg::checkAccurateModel(const std::string &path) {
    ostrel::accurate_model_file file;
    return load_accurate_file(path, options.accurate, ostrel::kCheckModelValidationName, "not valid", &file) ? 0 : 1;
}

int32_t ostrel_alg::importAccurateModel(const std::string &path) {
    ostrel::accurate_model_file file;
    if (!load_accurate_file(path, options.accurate, ostrel::kImportModelName, "refused", &file)) {
        return 1;
    }
    const ostrel::accurate_file_class &c = file.classes.front();
    // A cells option the host set to another value would give another
    // window: the weights would not fit it.
    if (options.host_set(ostrel::kOptionAccurateCells) && options.accurate.object_cells != file.settings.object_cells) {
        const ostrel::window_shape host_shape =
            ostrel::window_for_aspect(c.aspect, options.accurate.object_cells, options.accurate);
        ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                     "[Alg.Fail] %s: the model has %zu weights where the accurate profile's window has %d: it was made "
                     "with %d accurate cells and this engine's accurate cells option is set to %d; set it to %d or "
                     "leave it unset\n",
                     ostrel::kImportModelName, c.weights.size(), host_shape.features(), file.settings.object_cells,
                     options.accurate.object_cells, file.settings.object_cells);
        return 1;
    }

    // The file is good: the engine lets its samples, thumbnails and results
    // go and takes the file's model, profile and the options the host has
    // not set.
    if (initFeatExtractor() == 1) {
        return 1;
    }
    // Class 0 goes to the engine's own fields, as the one class of a
    // one-class file always has; every other class to a slot.
    dropOtherClasses();
    take_file_class(c, &svm_model, &accurate_class);
    if (file.classes.size() > 1) {
        class_slots.resize(file.classes.size());
        for (size_t k = 1; k < file.classes.size(); ++k) {
            const ostrel::accurate_file_class &other = file.classes[k];
            ostrel::class_slot &slot = class_slots[k];
            take_file_class(other, &slot.weights, &slot.model);
            slot.train_width = static_cast<uint32_t>(other.trained_width);
            slot.train_height = static_cast<uint32_t>(other.trained_height);
            slot.train_input_width = static_cast<uint32_t>(other.input_width);
            slot.train_input_height = static_cast<uint32_t>(other.input_height);
        }
    }
    pca_filter = ostrel::pca_fp_filter{};
    pca_filter.fp_filter_enabled = 0;

    model_settings = ostrel::with_recorded(options.accurate, file.settings);
    for (const ostrel::accurate_option &option : ostrel::kAccurateOptions) {
        if (!options.host_set(option.id)) options.set(option.id, model_settings.*option.field);
    }
    train_width = static_cast<uint32_t>(c.trained_width);
    train_height = static_cast<uint32_t>(c.trained_height);
    train_input_width = static_cast<uint32_t>(c.input_width);
    train_input_height = static_cast<uint32_t>(c.input_height);
    accurate_positive_count = 0;
    accurate_negative_count = 0;
    options.profile = ostrel::kProfileAccurate;
    model_profile = ostrel::kProfileAccurate;
    return 0;
}
