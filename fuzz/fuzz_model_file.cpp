// Fuzz target: arbitrary bytes as a model file.
//
// Each input is written to an in-memory file and given to a fresh engine's
// validation and import. Whatever the bytes, neither may crash, read out of
// bounds, leak or allocate without bound. When an import succeeds, the model
// must also survive the round trip: exporting it gives a file that
// validates, and importing that file gives the same record.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "engine/ostrel_alg.h"
#include "fpfilter/pca_fp_filter.h"
#include "scratch_files.h"

namespace {

using ostrel_fuzz::scratch_files;

const scratch_files &files() {
    static const scratch_files f = ostrel_fuzz::make_scratch_files("model");
    return f;
}

void write_input(const uint8_t *data, size_t size) { ostrel_fuzz::write_input(files(), data, size); }

bool same_model(const ostrel::svm_model &a, const ostrel::svm_model &b) {
    if (a.class_idx != b.class_idx || a.trained_width != b.trained_width || a.trained_height != b.trained_height ||
        a.input_width != b.input_width || a.input_height != b.input_height ||
        a.trained_acf_scale_idx != b.trained_acf_scale_idx || a.support_vector_size != b.support_vector_size ||
        a.bias != b.bias) {
        return false;
    }
    return std::memcmp(a.vector.get(), b.vector.get(), static_cast<size_t>(a.support_vector_size) * 4) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The library logs every refusal to standard output; libFuzzer reports
    // on standard error, so the log lines are only noise here.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::abort();
    }
    files();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    write_input(data, size);
    const scratch_files &f = files();

    ostrel_alg engine;
    const int32_t valid = engine.checkModelValidation(f.input_path);
    if (valid != 0 && valid != 1) {
        std::abort();
    }
    if (engine.importModel(f.input_path) != 0) {
        return 0;
    }

    // A loaded filter must be usable by detection without a crash, even when
    // its parts do not fit one another.
    if (engine.pca_filter.fp_filter_enabled && engine.pca_filter.mean.cols > 0) {
        const cv::Mat window = cv::Mat::ones(1, engine.pca_filter.mean.cols, CV_32F);
        (void)ostrel::fp_distance(engine.pca_filter, window);
    }

    if (engine.exportModel(f.export_path) != 0) {
        std::abort();  // an imported model passed the same checks export runs
    }
    ostrel_alg again;
    if (again.checkModelValidation(f.export_path) != 0 || again.importModel(f.export_path) != 0 ||
        !same_model(engine.svm_model, again.svm_model)) {
        std::abort();
    }
    return 0;
}
