#include "model/model_format.h"

#include <cstdio>

#include "model/accurate_model_file.h"

namespace ostrel {

model_format sniff_model_format(const std::string &path) {
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return model_format::classic;
    }
    unsigned char head[sizeof kAccurateModelMagic] = {};
    const size_t got = std::fread(head, 1, sizeof head, file);
    std::fclose(file);
    return has_accurate_magic(head, got) ? model_format::accurate : model_format::classic;
}

bool read_whole_file(const std::string &path, uint64_t max_bytes, std::vector<unsigned char> *out,
                     std::string *problem) {
    out->clear();
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        *problem = "it cannot be opened";
        return false;
    }
    // Read block by block, never more than max_bytes + 1: a file that keeps
    // growing (or a device) costs no more than that.
    unsigned char block[64 * 1024];
    bool ok = true;
    for (;;) {
        const size_t got = std::fread(block, 1, sizeof block, file);
        out->insert(out->end(), block, block + got);
        if (out->size() > max_bytes) {
            *problem = "it is longer than any model of its kind";
            ok = false;
            break;
        }
        if (got < sizeof block) {
            if (std::ferror(file)) {
                *problem = "it cannot be read";
                ok = false;
            }
            break;
        }
    }
    std::fclose(file);
    if (!ok) out->clear();
    return ok;
}

}  // namespace ostrel
