#include "engine/engine_lines.h"

#include "common/failure.h"
#include "common/log.h"
#include "common/log_lines.h"

namespace ostrel {

int32_t model_file_not_created(const std::string &path) {
    log_failure("[SVM %s] fail export, check file path : %s \n", kExportModelName, path.c_str());
    note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE, ("cannot create the model file " + path).c_str());
    return 1;
}

int32_t model_file_not_written(int line, const std::string &path) {
    log_failure("[file write FAIL!] %s (%s line:%d)\n", kExportModelName, kEngineSource, line);
    note_failure(OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE, ("cannot write the model file " + path).c_str());
    return 1;
}

}  // namespace ostrel
