// Fuzz target: arbitrary bytes as an accurate model file.
//
// The reader (model/accurate_model_file.h) takes the bytes as they are; a
// file it accepts must come back byte for byte from the writer. The same
// bytes then go through the engine as a file: validation and import must
// agree with each other, and an imported model exported again must be the
// same file (the import took everything the file records, nothing else).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engine/ostrel_alg.h"
#include "model/accurate_model_file.h"
#include "scratch_files.h"

namespace {

using ostrel_fuzz::scratch_files;

const scratch_files &files() {
    static const scratch_files f = ostrel_fuzz::make_scratch_files("accurate");
    return f;
}

void write_input(const uint8_t *data, size_t size) { ostrel_fuzz::write_input(files(), data, size); }

std::vector<unsigned char> file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    files();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ostrel::accurate_model_file model;
    std::string problem;
    const bool read = ostrel::read_accurate_model(data, size, &model, &problem);
    if (read) {
        std::string again_problem;
        const std::vector<unsigned char> again = ostrel::write_accurate_model(model, &again_problem);
        if (again.size() != size || !std::equal(again.begin(), again.end(), data)) std::abort();
    } else if (problem.empty()) {
        std::abort();  // every refusal says why
    }

    write_input(data, size);
    const scratch_files &f = files();
    ostrel_alg engine;
    const int32_t valid = engine.checkModelValidation(f.input_path);
    const int32_t imported = engine.importModel(f.input_path);
    if (!ostrel::has_accurate_magic(data, size)) {
        return 0;  // the classic reader's file: fuzz_model_file's business
    }
    if (valid != imported && !(valid == 0 && model.classes.size() > 1)) {
        std::abort();  // validation and import judge an accurate file alike (import takes one class)
    }
    if (imported == 0) {
        if (!read || engine.exportModel(f.export_path) != 0) std::abort();
        const std::vector<unsigned char> exported = file_bytes(f.export_path);
        if (exported.size() != size || !std::equal(exported.begin(), exported.end(), data)) std::abort();
    }
    return 0;
}
