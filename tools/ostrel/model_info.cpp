#include "model_info.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tool_error.h"
#include "tool_output.h"

namespace ostrel_tool {

namespace {

class Reader {
public:
    Reader(const std::vector<uint8_t> &bytes, const std::string &source) : bytes_(bytes), source_(source) {}

    void need(uint64_t count, const std::string &what) const {
        if (count > bytes_.size() - pos_) {
            throw input_error(strformat("'%s' is not a model file: it ends at byte %zu, inside %s", source_.c_str(),
                                        bytes_.size(), what.c_str()));
        }
    }
    uint32_t u32(const std::string &what) {
        need(4, what);
        uint32_t v = 0;
        for (int i = 3; i >= 0; --i) {
            v = (v << 8) | bytes_[pos_ + static_cast<size_t>(i)];
        }
        pos_ += 4;
        return v;
    }
    int32_t i32(const std::string &what) { return static_cast<int32_t>(u32(what)); }
    uint64_t u64(const std::string &what) {
        need(8, what);
        uint64_t v = 0;
        for (int i = 7; i >= 0; --i) {
            v = (v << 8) | bytes_[pos_ + static_cast<size_t>(i)];
        }
        pos_ += 8;
        return v;
    }
    float f32(const std::string &what) {
        const uint32_t bits = u32(what);
        float v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
    uint8_t u8(const std::string &what) {
        need(1, what);
        return bytes_[pos_++];
    }
    void skip(uint64_t count, const std::string &what) {
        need(count, what);
        pos_ += static_cast<size_t>(count);
    }
    size_t position() const { return pos_; }

private:
    const std::vector<uint8_t> &bytes_;
    const std::string &source_;
    size_t pos_ = 0;
};

}  // namespace

const char *filter_matrix_name(size_t index) {
    static const char *const names[] = {"mean", "eigenvectors", "reduce_mean", "reduce_inv_covar"};
    return index < 4 ? names[index] : "?";
}

uint32_t model_crc32(const uint8_t *data, size_t size) {
    uLong crc = crc32(0L, Z_NULL, 0);
    while (size > 0) {
        const uInt chunk = static_cast<uInt>(std::min<size_t>(size, 1u << 30));
        crc = crc32(crc, data, chunk);
        data += chunk;
        size -= chunk;
    }
    return static_cast<uint32_t>(crc);
}

ModelInfo parse_model(const std::vector<uint8_t> &bytes, const std::string &source) {
    ModelInfo info;
    Reader r(bytes, source);
    info.file_size = bytes.size();
    info.class_idx = r.i32("the model record");
    info.trained_width = r.i32("the model record");
    info.trained_height = r.i32("the model record");
    info.input_width = r.i32("the model record");
    info.input_height = r.i32("the model record");
    info.trained_acf_scale_idx = r.i32("the model record");
    info.support_vector_size = r.i32("the model record");
    info.bias = r.i32("the model record");
    if (info.support_vector_size < 0) {
        throw input_error(strformat("'%s' is not a model file: it gives a negative weight count (%d)", source.c_str(),
                                    info.support_vector_size));
    }
    const std::string weights = strformat("the %d weights", info.support_vector_size);
    r.need(4ull * static_cast<uint64_t>(info.support_vector_size), weights);
    for (int32_t i = 0; i < info.support_vector_size; ++i) {
        const int32_t w = r.i32(weights);
        info.weight_min = i == 0 ? w : std::min(info.weight_min, w);
        info.weight_max = i == 0 ? w : std::max(info.weight_max, w);
    }
    info.fp_threshold = r.f32("fp_threshold");
    info.pca_filter_ready = r.u8("the filter flag");
    if (info.pca_filter_ready != 0) {
        for (size_t m = 0; m < 4; ++m) {
            const std::string name = std::string("the matrix ") + filter_matrix_name(m);
            info.filter[m].rows = r.i32(name);
            info.filter[m].cols = r.i32(name);
            if (info.filter[m].rows < 0 || info.filter[m].cols < 0) {
                throw input_error(strformat("'%s' is not a model file: %s has a negative size (%d x %d)",
                                            source.c_str(), name.c_str(), info.filter[m].rows, info.filter[m].cols));
            }
            r.skip(4ull * static_cast<uint64_t>(info.filter[m].rows) * static_cast<uint64_t>(info.filter[m].cols),
                   name);
        }
    }
    info.content_length = r.position();
    info.stored_length = r.u64("the trailer");
    info.stored_crc = r.u32("the trailer");
    info.computed_crc = model_crc32(bytes.data(), static_cast<size_t>(info.content_length));

    // The same bounds the library applies when it loads a model.
    if (info.class_idx < 0 || info.trained_width <= 0 || info.trained_height <= 0 || info.input_width <= 0 ||
        info.input_height <= 0 || info.trained_acf_scale_idx < 0) {
        info.problems.push_back("model record: a size is not positive or an index is negative");
    }
    if (info.support_vector_size < 201 || info.support_vector_size > 5999) {
        info.problems.push_back(
            strformat("model record: %d weights, outside the accepted 201..5999", info.support_vector_size));
    }
    if (info.pca_filter_ready != 0) {
        const auto &f = info.filter;
        for (size_t m = 0; m < 4; ++m) {
            if (f[m].rows == 0 || f[m].cols == 0) {
                info.problems.push_back(std::string("filter: ") + filter_matrix_name(m) + " is empty");
            }
        }
        const bool sizes_ok = f[0].rows == 1 && f[0].cols >= 201 && f[0].cols <= 6000 && f[1].rows >= 1 &&
                              f[1].rows <= 14 && f[1].cols >= 201 && f[1].cols <= 6000 && f[2].rows == f[0].rows &&
                              f[2].cols >= 1 && f[2].cols <= 14 && f[3].rows >= 1 && f[3].rows <= 14 &&
                              f[3].cols >= 1 && f[3].cols <= 14;
        if (!sizes_ok) {
            info.problems.push_back("filter: matrix sizes outside the accepted ranges");
        }
    }
    const uint64_t expected_size = info.content_length + 12;
    if (info.file_size != expected_size) {
        info.problems.push_back(strformat("%llu bytes follow the trailer",
                                          static_cast<unsigned long long>(info.file_size - expected_size)));
    }
    return info;
}

ModelInfo read_model_info(const std::string &path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        throw input_error("cannot open model '" + path + "': no such file");
    }
    if (std::filesystem::is_directory(path, ec)) {
        throw input_error("cannot read model '" + path + "': it is a folder");
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw input_error("cannot read model '" + path + "'");
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return parse_model(bytes, path);
}

std::string describe_model(const ModelInfo &info) {
    std::string s;
    s += strformat("class_idx: %d\n", info.class_idx);
    s += strformat("trained_width: %d\n", info.trained_width);
    s += strformat("trained_height: %d\n", info.trained_height);
    s += strformat("input_width: %d\n", info.input_width);
    s += strformat("input_height: %d\n", info.input_height);
    s += strformat("trained_acf_scale_idx: %d\n", info.trained_acf_scale_idx);
    s += strformat("support_vector_size: %d\n", info.support_vector_size);
    s += strformat("bias: %d (%.5f)\n", info.bias, info.bias / 100000.0);
    s += strformat("weights: min %d, max %d (x 1/100000)\n", info.weight_min, info.weight_max);
    s += strformat("fp_threshold: %g\n", static_cast<double>(info.fp_threshold));
    s += strformat("pca_filter_ready: %u\n", static_cast<unsigned>(info.pca_filter_ready));
    if (info.pca_filter_ready != 0) {
        for (size_t m = 0; m < 4; ++m) {
            s += strformat("%s: %d x %d\n", filter_matrix_name(m), info.filter[m].rows, info.filter[m].cols);
        }
    }
    s += "profile: not recorded in the file (classic and accurate models share the layout; accurate weights and bias "
         "are x 1/10000000): give detect the profile it was trained with\n";
    s += strformat("content bytes (L): %llu\n", static_cast<unsigned long long>(info.content_length));
    s += strformat("stored L: %llu%s\n", static_cast<unsigned long long>(info.stored_length),
                   info.length_matches() ? "" : " (differs)");
    s += strformat("stored CRC: 0x%08x\n", info.stored_crc);
    s += strformat("computed CRC: 0x%08x\n", info.computed_crc);
    s += strformat("CRC matches: %s\n", info.crc_matches() ? "yes" : "no");
    s += strformat("file size: %llu\n", static_cast<unsigned long long>(info.file_size));
    for (const auto &p : info.problems) {
        s += "problem: " + p + "\n";
    }
    return s;
}

}  // namespace ostrel_tool
