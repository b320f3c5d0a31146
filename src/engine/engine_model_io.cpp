// Model files: export, import and validation.
#include <cstdint>
#include <exception>
#include <fstream>
#include <string>

#include "common/failure.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "engine/ostrel_alg.h"
#include "fpfilter/fp_threshold.h"
#include "model/model_file.h"
#include "model/model_format.h"
#include "train/model_checks.h"

namespace {

constexpr const char *kExportModelName = "ostrel_alg::exportModel";
constexpr const char *kImportModelName = "ostrel_alg::importModel";
constexpr const char *kCheckModelValidationName = "ostrel_alg::checkModelValidation";

constexpr const char *kSvmValueWrongFormat = "[svm model value is wrong!] %s (%s line:%d)\n";
constexpr const char *kPcaValueWrongFormat = "[pca fp filtering value is wrong!] %s (%s line:%d)\n";
constexpr const char *kFileWriteFailFormat = "[file write FAIL!] %s (%s line:%d)\n";
constexpr const char *kFileReadFailFormat = "[file read FAIL!] %s (%s line:%d)\n";
constexpr const char *kExceptionFormat = "[exception] %s (%s line:%d): %s\n";
constexpr const char *kExportOpenFailFormat = "[SVM %s] fail export, check file path : %s \n";
constexpr const char *kReadOpenFailFormat = "[%s] file open fail , check file path : %s \n";
constexpr const char *kStoredLengthFormat = "[file size without CRC] read : %llu, calc : %llu\n";
constexpr const char *kCrcMismatchFormat = "[CRC values ERROR] read : %u, calc : %u\n";

// Line numbers of the model-file messages; hosts match on them.
enum ModelIoLine : int {
    kExportSvmWrongLine = 3449,
    kExportPcaWrongLine = 3456,
    kExportSvmWriteLine = 3472,
    kExportFilterWriteLine = 3482,
    kExportTrailerWriteLine = 3497,
    kExportExceptionLine = 3510,
    kImportSvmReadLine = 3553,
    kImportSvmWrongLine = 3561,
    kImportFilterReadLine = 3570,
    kImportPcaWrongLine = 3578,
    kImportExceptionLine = 3612,
    kCheckSvmReadLine = 3314,
    kCheckFilterReadLine = 3320,
    kCheckSvmWrongLine = 3328,
    kCheckPcaWrongLine = 3334,
    kCheckExceptionLine = 3423,
};

// Length of the file at `path` from a fresh stream, or -1 when it cannot be
// read.
int64_t file_length(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    in.seekg(0, std::ios::end);
    return static_cast<int64_t>(in.tellg());
}

// The model record's values without its weights: what the SVM block reader
// reads in place (it replaces the weights whatever they were).
ostrel::svm_model copy_of_record(const ostrel::svm_model &model) {
    ostrel::svm_model copy;
    copy.class_idx = model.class_idx;
    copy.trained_width = model.trained_width;
    copy.trained_height = model.trained_height;
    copy.input_width = model.input_width;
    copy.input_height = model.input_height;
    copy.trained_acf_scale_idx = model.trained_acf_scale_idx;
    copy.support_vector_size = model.support_vector_size;
    copy.bias = model.bias;
    return copy;
}

// The filter's fields a model file carries, and their transfer back. The
// matrices are shared headers: the reader replaces a matrix, it never
// writes into one.
ostrel::pca_fp_filter filter_file_fields(const ostrel::pca_fp_filter &filter) {
    ostrel::pca_fp_filter fields;
    fields.fp_threshold = filter.fp_threshold;
    fields.pca_filter_ready = filter.pca_filter_ready;
    fields.mean = filter.mean;
    fields.eigenvectors = filter.eigenvectors;
    fields.reduce_mean = filter.reduce_mean;
    fields.reduce_inv_covar = filter.reduce_inv_covar;
    return fields;
}

void take_filter_file_fields(ostrel::pca_fp_filter &filter, const ostrel::pca_fp_filter &fields) {
    filter.fp_threshold = fields.fp_threshold;
    filter.pca_filter_ready = fields.pca_filter_ready;
    filter.mean = fields.mean;
    filter.eigenvectors = fields.eigenvectors;
    filter.reduce_mean = fields.reduce_mean;
    filter.reduce_inv_covar = fields.reduce_inv_covar;
}

}  // namespace

int32_t ostrel_alg::exportModel(const std::string &path) {
    if (!svm_model.trained() || path.empty()) {
        ostrel::note_failure(path.empty() ? OSTREL_ALG_ERR_BAD_ARGUMENT : OSTREL_ALG_ERR_NOT_TRAINED,
                             path.empty() ? "the path is empty" : nullptr);
        return 1;
    }
    try {
        // A model is written in the format of the profile that made it.
        if (model_profile == ostrel::kProfileAccurate) {
            return exportAccurateModel(path);
        }
        if (ostrel::checkSvmModel(svm_model)) {
            ostrel::log_failure(kSvmValueWrongFormat, kExportModelName, ostrel::kEngineSource, kExportSvmWrongLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID, "the classifier's values are out of their range");
            return 1;
        }
        if (ostrel::checkPcaFilter(pca_filter)) {
            ostrel::log_failure(kPcaValueWrongFormat, kExportModelName, ostrel::kEngineSource, kExportPcaWrongLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID,
                                 "the false-positive filter's values are out of their range");
            return 1;
        }

        std::ofstream out(path, std::ios::binary | std::ios::out | std::ios::trunc);
        if (!out.is_open()) {
            ostrel::log_failure(kExportOpenFailFormat, kExportModelName, path.c_str());
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE,
                                 ("cannot create the model file " + path).c_str());
            return 1;
        }
        if (ostrel::write_svm_block(out, svm_model) != 0) {
            ostrel::log_failure(kFileWriteFailFormat, kExportModelName, ostrel::kEngineSource, kExportSvmWriteLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE, ("cannot write the model file " + path).c_str());
            out.close();
            return 1;
        }
        // The threshold is chosen from the current samples just before it
        // is written, so the file always matches the filter it carries.
        ostrel::getBestFPThreshold(pca_filter, training_samples);
        if (ostrel::write_filter_block(out, pca_filter) != 0) {
            ostrel::log_failure(kFileWriteFailFormat, kExportModelName, ostrel::kEngineSource, kExportFilterWriteLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE, ("cannot write the model file " + path).c_str());
            out.close();
            return 1;
        }
        out.close();

        // The CRC is taken from the finished file as it lies on disk.
        const uint64_t length = static_cast<uint64_t>(file_length(path));
        const uint32_t crc = ostrel::getFileCRC(path, length);

        std::ofstream append(path, std::ios::binary | std::ios::out | std::ios::app);
        const bool written = ostrel::write_trailer(append, length, crc) == 0;
        append.close();
        if (!written || !append) {
            // A file without its trailer is not a model file: say so rather
            // than report success.
            ostrel::log_failure(kFileWriteFailFormat, kExportModelName, ostrel::kEngineSource, kExportTrailerWriteLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE, ("cannot write the model file " + path).c_str());
            return 1;
        }
        return 0;
    } catch (const std::exception &e) {
        ostrel::fail(OSTREL_ALG_ERR_INTERNAL, kExceptionFormat, kExportModelName, ostrel::kEngineSource,
                     kExportExceptionLine, e.what());
        return 1;
    }
}

int32_t ostrel_alg::importModel(const std::string &path) {
    if (path.empty()) {
        ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "the path is empty");
        return 1;
    }
    // The file is read into a copy of the engine's model record and filter
    // and checked there; only a file that passes replaces them. So a failed
    // import leaves the engine exactly as it was: its model, filter,
    // threshold, samples, thumbnails and results. The copies start from the
    // engine's own values because the readers read in place: a value the
    // file does not reach keeps the one before it, as it always has.
    try {
        // The file says which profile made it: its first bytes choose the
        // reader, and the engine takes the file's profile.
        if (ostrel::sniff_model_format(path) == ostrel::model_format::accurate) {
            return importAccurateModel(path);
        }
        std::ifstream in(path, std::ios::binary);
        if (!in.is_open()) {
            ostrel::log_failure(kReadOpenFailFormat, kImportModelName, path.c_str());
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE, ("cannot open the model file " + path).c_str());
            return 1;
        }
        ostrel::svm_model read_model = copy_of_record(svm_model);
        if (ostrel::read_svm_block(in, read_model) != 0) {
            ostrel::log_failure(kFileReadFailFormat, kImportModelName, ostrel::kEngineSource, kImportSvmReadLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID,
                                 ("the model file " + path + " ends inside its records").c_str());
            return 1;
        }
        if (ostrel::checkSvmModel(read_model)) {
            ostrel::log_failure(kSvmValueWrongFormat, kImportModelName, ostrel::kEngineSource, kImportSvmWrongLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID, "the classifier's values are out of their range");
            return 1;
        }
        ostrel::pca_fp_filter read_filter = filter_file_fields(pca_filter);
        if (ostrel::read_filter_block(in, read_filter) != 0) {
            ostrel::log_failure(kFileReadFailFormat, kImportModelName, ostrel::kEngineSource, kImportFilterReadLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID,
                                 ("the model file " + path + " ends inside its records").c_str());
            return 1;
        }
        if (ostrel::checkPcaFilter(read_filter)) {
            ostrel::log_failure(kPcaValueWrongFormat, kImportModelName, ostrel::kEngineSource, kImportPcaWrongLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID,
                                 "the false-positive filter's values are out of their range");
            return 1;
        }
        in.close();

        // The model is good: now the engine lets its samples, thumbnails and
        // results go and takes the file's records.
        if (initFeatExtractor() == 1) {
            return 1;
        }
        // A classic model is one unnamed class.
        dropOtherClasses();
        accurate_class.name.clear();
        svm_model = std::move(read_model);
        take_filter_file_fields(pca_filter, read_filter);

        pca_filter.fp_filter_enabled = pca_filter.pca_filter_ready == 1 ? 1 : 0;
        // The record's sizes are checked positive above.
        train_width = static_cast<uint32_t>(svm_model.trained_width);
        train_height = static_cast<uint32_t>(svm_model.trained_height);
        train_input_width = static_cast<uint32_t>(svm_model.input_width);
        train_input_height = static_cast<uint32_t>(svm_model.input_height);
        // The extractor gets the sizes before and after the scale index is
        // set, so what it derives from them matches the model's scale.
        feat_extractor->setTrainingWindow(svm_model.trained_width, svm_model.trained_height, svm_model.input_width,
                                          svm_model.input_height);
        acf_scale_idx = svm_model.trained_acf_scale_idx;
        feat_extractor->setTrainingWindow(svm_model.trained_width, svm_model.trained_height, svm_model.input_width,
                                          svm_model.input_height);
        options.profile = ostrel::kProfileClassic;
        model_profile = ostrel::kProfileClassic;
        return 0;
    } catch (const std::exception &e) {
        ostrel::fail(OSTREL_ALG_ERR_INTERNAL, kExceptionFormat, kImportModelName, ostrel::kEngineSource,
                     kImportExceptionLine, e.what());
        return 1;
    }
}

int32_t ostrel_alg::checkModelValidation(const std::string &path) {
    try {
        if (ostrel::sniff_model_format(path) == ostrel::model_format::accurate) {
            return checkAccurateModel(path);
        }
        std::ifstream in(path, std::ios::binary);
        if (!in.is_open()) {
            ostrel::log_failure(kReadOpenFailFormat, kCheckModelValidationName, path.c_str());
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE, ("cannot open the model file " + path).c_str());
            return 1;
        }
        ostrel::svm_model scratch_model;
        if (ostrel::read_svm_block(in, scratch_model) != 0) {
            ostrel::log_failure(kFileReadFailFormat, kCheckModelValidationName, ostrel::kEngineSource, kCheckSvmReadLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID,
                                 ("the model file " + path + " ends inside its records").c_str());
            return 1;
        }
        ostrel::pca_fp_filter scratch_filter;
        if (ostrel::read_filter_block(in, scratch_filter) != 0) {
            ostrel::log_failure(kFileReadFailFormat, kCheckModelValidationName, ostrel::kEngineSource, kCheckFilterReadLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID,
                                 ("the model file " + path + " ends inside its records").c_str());
            return 1;
        }
        if (ostrel::checkSvmModel(scratch_model)) {
            ostrel::log_failure(kSvmValueWrongFormat, kCheckModelValidationName, ostrel::kEngineSource, kCheckSvmWrongLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID, "the classifier's values are out of their range");
            return 1;
        }
        if (ostrel::checkPcaFilter(scratch_filter)) {
            ostrel::log_failure(kPcaValueWrongFormat, kCheckModelValidationName, ostrel::kEngineSource, kCheckPcaWrongLine);
            ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID,
                                 "the false-positive filter's values are out of their range");
            return 1;
        }

        // P: the bytes the two blocks took. A stream that ran out inside
        // them reports -1, which as a limit covers the whole file.
        const uint64_t consumed = static_cast<uint64_t>(static_cast<int64_t>(in.tellg()));
        uint64_t stored_length = 0;
        uint32_t stored_crc = 0;
        ostrel::read_trailer(in, &stored_length, &stored_crc);

        const uint64_t total_length = static_cast<uint64_t>(file_length(path));
        const uint32_t computed_crc = ostrel::getFileCRC(path, consumed);
        if (computed_crc == stored_crc) {
            return 0;  // only the CRC decides; the stored length is not compared
        }
        ostrel::log(kStoredLengthFormat, static_cast<unsigned long long>(stored_length),
                    static_cast<unsigned long long>(total_length));
        ostrel::log_failure(kCrcMismatchFormat, stored_crc, computed_crc);
        ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID,
                             ("the CRC-32 of the model file " + path + " does not match its contents").c_str());
        return 1;
    } catch (const std::exception &e) {
        ostrel::fail(OSTREL_ALG_ERR_INTERNAL, kExceptionFormat, kCheckModelValidationName, ostrel::kEngineSource,
                     kCheckExceptionLine, e.what());
        return 1;
    }
}
