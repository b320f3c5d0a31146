// Model files: export, import and validation.
#include <string>

#include "common/log.h"
#include "engine/ostrel_alg.h"

int32_t ostrel_alg::exportModel(const std::string &path) {
    if (!svm_model.trained() || path.empty()) {
        return 1;
    }
    ostrel::log("[Debug] ostrel_alg::exportModel: model files are not built yet\n");
    return 1;
}

int32_t ostrel_alg::importModel(const std::string &path) {
    if (path.empty()) {
        return 1;
    }
    ostrel::log("[Debug] ostrel_alg::importModel: model files are not built yet\n");
    return 1;
}

int32_t ostrel_alg::checkModelValidation(const std::string &path) {
    (void)path;
    ostrel::log("[Debug] ostrel_alg::checkModelValidation: model files are not built yet\n");
    return 1;
}
