// Model files: export, import and validation.
#include <cstdint>
#include <exception>
#include <fstream>
#include <string>

#include "common/failure.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "engine/engine_lines.h"
#include "engine/ostrel_alg.h"
#include "fpfilter/fp_threshold.h"
#include "model/model_file.h"
#include "model/model_format.h"
#include "train/model_checks.h"

namespace {

constexpr const char *kSvmValueWrongFormat = "[svm model value is wrong!] %s (%s line:%d)\n";
constexpr const char *kPcaValueWrongFormat = "[pca fp filtering value is wrong!] %s (%s line:%d)\n";
constexpr const char *kFileReadFailFormat = "[file read FAIL!] %s (%s line:%d)\n";
constexpr const char *kExceptionFormat = "[exception] %s (%s line:%d): %s\n";
constexpr const char *kReadOpenFailFormat = "[%s] file open fail , check file path : %s \n";
constexpr const char *kStoredLengthFormat = "[file size without CRC] read : %llu, calc : %llu\n";
constexpr const char *kCrcMismatchFormat = "[CRC values ERROR] read : %u, calc : %u\n";

// Line numbers of the model-file messages; hosts match on them.
enum ModelIoLine : int {
    kExportSvmWrongLine = 3449,
    kExportPcaWrongLine = 3456,
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

// The failure lines of the classic model file's readers and checks: each
// logs its line, notes the failure and returns 1.
int32_t model_file_not_opened(const char *operation, const std::string &path) {
    ostrel::log_failure(kReadOpenFailFormat, operation, path.c_str());
    ostrel::note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE, ("cannot open the model file " + path).c_str());
    return 1;
}

int32_t records_cut_short(const char *operation, int line, const std::string &path) {
    ostrel::log_failure(kFileReadFailFormat, operation, ostrel::kEngineSource, line);
    ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID, ("the model file " + path + " ends inside its records").c_str());
    return 1;
}

int32_t classifier_values_wrong(const char *operation, int line) {
    ostrel::log_failure(kSvmValueWrongFormat, operation, ostrel::kEngineSource, line);
    ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID, "the classifier's values are out of their range");
    return 1;
}

int32_t exception_failure(const char *operation, int line, const std::exception &e) {
    ostrel::fail(OSTREL_ALG_ERR_INTERNAL, kExceptionFormat, operation, ostrel::kEngineSource, line, e.what());
    return 1;
}

int32_t filter_values_wrong(const char *operation, int line) {
    ostrel::log_failure(kPcaValueWrongFormat, operation, ostrel::kEngineSource, line);
    ostrel::note_failure(OSTREL_ALG_ERR_MODEL_INVALID, "the false-positive filter's values are out of their range");
    return 1;
}

// How a reader of the classic records reports its faults: its operation,
// the line of each fault, and whether the classifier's values are checked
// as soon as it is read (the import) or once both records are in (the
// validation).
struct record_reads {
    const char *operation;
    int svm_read_line;
    int svm_wrong_line;
    int filter_read_line;
    int filter_wrong_line;
    bool check_after_both;
};

constexpr record_reads kImportReads = {ostrel::kImportModelName, kImportSvmReadLine,  kImportSvmWrongLine,
                                       kImportFilterReadLine,    kImportPcaWrongLine, false};
constexpr record_reads kCheckReads = {ostrel::kCheckModelValidationName,
                                      kCheckSvmReadLine,
                                      kCheckSvmWrongLine,
                                      kCheckFilterReadLine,
                                      kCheckPcaWrongLine,
                                      true};

// Opens the file at `path` in `in`, reads its classifier and filter
// records into *model and *filter (in place) and checks their values;
// returns 0, or 1 after the first fault's failure line.
int32_t read_records(std::ifstream &in, const std::string &path, const record_reads &reads, ostrel::svm_model *model,
                     ostrel::pca_fp_filter *filter) {
    in.open(path, std::ios::binary);
    if (!in.is_open()) {
        return model_file_not_opened(reads.operation, path);
    }
    if (ostrel::read_svm_block(in, *model) != 0) {
        return records_cut_short(reads.operation, reads.svm_read_line, path);
    }
    if (!reads.check_after_both && ostrel::checkSvmModel(*model)) {
        return classifier_values_wrong(reads.operation, reads.svm_wrong_line);
    }
    if (ostrel::read_filter_block(in, *filter) != 0) {
        return records_cut_short(reads.operation, reads.filter_read_line, path);
    }
    if (reads.check_after_both && ostrel::checkSvmModel(*model)) {
        return classifier_values_wrong(reads.operation, reads.svm_wrong_line);
    }
    if (ostrel::checkPcaFilter(*filter)) {
        return filter_values_wrong(reads.operation, reads.filter_wrong_line);
    }
    return 0;
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

// The filter's fields a model file carries, copied from one filter record
// to another: out of the engine's filter before a read, back into it after
// one. The matrices are shared headers: the reader replaces a matrix, it
// never writes into one.
void copy_filter_file_fields(const ostrel::pca_fp_filter &from, ostrel::pca_fp_filter &to) {
    to.fp_threshold = from.fp_threshold;
    to.pca_filter_ready = from.pca_filter_ready;
    to.mean = from.mean;
    to.eigenvectors = from.eigenvectors;
    to.reduce_mean = from.reduce_mean;
    to.reduce_inv_covar = from.reduce_inv_covar;
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
            return classifier_values_wrong(ostrel::kExportModelName, kExportSvmWrongLine);
        }
        if (ostrel::checkPcaFilter(pca_filter)) {
            return filter_values_wrong(ostrel::kExportModelName, kExportPcaWrongLine);
        }

        std::ofstream out(path, std::ios::binary | std::ios::out | std::ios::trunc);
        if (!out.is_open()) {
            return ostrel::model_file_not_created(path);
        }
        if (ostrel::write_svm_block(out, svm_model) != 0) {
            ostrel::model_file_not_written(ostrel::kExportWriteLine, path);
            out.close();
            return 1;
        }
        // The threshold is chosen from the current samples just before it
        // is written, so the file always matches the filter it carries.
        ostrel::getBestFPThreshold(pca_filter, training_samples);
        if (ostrel::write_filter_block(out, pca_filter) != 0) {
            ostrel::model_file_not_written(kExportFilterWriteLine, path);
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
            return ostrel::model_file_not_written(kExportTrailerWriteLine, path);
        }
        return 0;
    } catch (const std::exception &e) {
        return exception_failure(ostrel::kExportModelName, kExportExceptionLine, e);
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
        std::ifstream in;
        ostrel::svm_model read_model = copy_of_record(svm_model);
        ostrel::pca_fp_filter read_filter;
        copy_filter_file_fields(pca_filter, read_filter);
        if (read_records(in, path, kImportReads, &read_model, &read_filter) != 0) {
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
        copy_filter_file_fields(read_filter, pca_filter);

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
        return exception_failure(ostrel::kImportModelName, kImportExceptionLine, e);
    }
}

int32_t ostrel_alg::checkModelValidation(const std::string &path) {
    try {
        if (ostrel::sniff_model_format(path) == ostrel::model_format::accurate) {
            return checkAccurateModel(path);
        }
        std::ifstream in;
        ostrel::svm_model scratch_model;
        ostrel::pca_fp_filter scratch_filter;
        if (read_records(in, path, kCheckReads, &scratch_model, &scratch_filter) != 0) {
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
        return exception_failure(ostrel::kCheckModelValidationName, kCheckExceptionLine, e);
    }
}
