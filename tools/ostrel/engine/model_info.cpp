#include "engine/model_info.h"

#include "ostrel_alg.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "cli/tool_error.h"
#include "cli/tool_output.h"

namespace ostrel_tool {

namespace {

// Where the bytes of a model come from: memory or a file, read in order.
class ByteSource {
public:
    virtual ~ByteSource() = default;
    virtual uint64_t size() const = 0;
    // Reads exactly count bytes (the caller checked they are there).
    virtual void read(uint8_t *out, size_t count) = 0;
};

class MemorySource : public ByteSource {
public:
    explicit MemorySource(const std::vector<uint8_t> &bytes) : bytes_(bytes) {}
    uint64_t size() const override { return bytes_.size(); }
    void read(uint8_t *out, size_t count) override {
        std::memcpy(out, bytes_.data() + pos_, count);
        pos_ += count;
    }

private:
    const std::vector<uint8_t> &bytes_;
    size_t pos_ = 0;
};

class FileSource : public ByteSource {
public:
    FileSource(std::ifstream &in, uint64_t size, const std::string &path) : in_(in), size_(size), path_(path) {}
    uint64_t size() const override { return size_; }
    void read(uint8_t *out, size_t count) override {
        in_.read(reinterpret_cast<char *>(out), static_cast<std::streamsize>(count));
        if (static_cast<size_t>(in_.gcount()) != count) {
            throw input_error("cannot read model '" + path_ + "': it changed or could not be read");
        }
    }

private:
    std::ifstream &in_;
    uint64_t size_;
    const std::string &path_;
};

// Reads the records in order, every count checked against the bytes left
// before anything is read or allocated, and keeps the CRC of what it read.
class Reader {
public:
    Reader(ByteSource &source, const std::string &name) : source_(source), name_(name) {}

    void need(uint64_t count, const std::string &what) const {
        if (count > source_.size() - pos_) {
            throw input_error(strformat("'%s' is not a model file: it ends at byte %llu, inside %s", name_.c_str(),
                                        static_cast<unsigned long long>(source_.size()), what.c_str()));
        }
    }
    void bytes(uint8_t *out, size_t count, const std::string &what) {
        need(count, what);
        source_.read(out, count);
        if (crc_on_) {
            crc_ = crc32(crc_, out, static_cast<uInt>(count));
        }
        pos_ += count;
    }
    uint32_t u32(const std::string &what) {
        uint8_t b[4];
        bytes(b, 4, what);
        return uint32_t(b[0]) | (uint32_t(b[1]) << 8) | (uint32_t(b[2]) << 16) | (uint32_t(b[3]) << 24);
    }
    int32_t i32(const std::string &what) { return static_cast<int32_t>(u32(what)); }
    uint64_t u64(const std::string &what) {
        const uint64_t low = u32(what);
        return low | (static_cast<uint64_t>(u32(what)) << 32);
    }
    float f32(const std::string &what) {
        const uint32_t bits = u32(what);
        float v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
    uint8_t u8(const std::string &what) {
        uint8_t b = 0;
        bytes(&b, 1, what);
        return b;
    }
    // Reads count int32 values block by block, handing each to take.
    template <typename Take>
    void i32_values(uint64_t count, const std::string &what, Take take) {
        need(4 * count, what);
        uint8_t block[4096];
        while (count > 0) {
            const size_t n = static_cast<size_t>(std::min<uint64_t>(count, sizeof block / 4));
            bytes(block, 4 * n, what);
            for (size_t i = 0; i < n; ++i) {
                const uint8_t *b = block + 4 * i;
                take(static_cast<int32_t>(uint32_t(b[0]) | (uint32_t(b[1]) << 8) | (uint32_t(b[2]) << 16) |
                                          (uint32_t(b[3]) << 24)));
            }
            count -= n;
        }
    }
    void skip(uint64_t count, const std::string &what) {
        need(count, what);
        uint8_t block[4096];
        while (count > 0) {
            const size_t n = static_cast<size_t>(std::min<uint64_t>(count, sizeof block));
            bytes(block, n, what);
            count -= n;
        }
    }
    uint64_t position() const { return pos_; }
    // The CRC of every byte read so far; later bytes are not added.
    uint32_t finish_crc() {
        crc_on_ = false;
        return static_cast<uint32_t>(crc_);
    }

private:
    ByteSource &source_;
    const std::string &name_;
    uint64_t pos_ = 0;
    uLong crc_ = crc32(0L, Z_NULL, 0);
    bool crc_on_ = true;
};

ModelInfo parse_from(ByteSource &source, const std::string &name);

constexpr uint8_t kAccurateMagic[8] = {0x4F, 0x53, 0x54, 0xC1, 0x0D, 0x0A, 0x1A, 0x0A};

}  // namespace

const char *accurate_setting_name(size_t index) {
    static const char *const names[kAccurateSettingsCount] = {"profile",
                                                              "accurate cells",
                                                              "accurate size steps",
                                                              "accurate overlap",
                                                              "accurate min height",
                                                              "accurate max height",
                                                              "search margin (%)",
                                                              "levels per octave",
                                                              "approximation exponent (1/1000)",
                                                              "normalisation radius",
                                                              "normalisation floor",
                                                              "edge reach (%)",
                                                              "size prior (1/1000)",
                                                              "contained suppression (%)"};
    return index < kAccurateSettingsCount ? names[index] : "?";
}

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

namespace {

// What the trailer says against what was read: a length that differs from
// the records' end, and bytes after the trailer.
void add_trailer_problems(ModelInfo &info) {
    if (!info.length_matches()) {
        info.problems.push_back(strformat("trailer: its length field says %llu bytes, the records end at byte %llu",
                                          static_cast<unsigned long long>(info.stored_length),
                                          static_cast<unsigned long long>(info.content_length)));
    }
    if (info.bytes_after_trailer() > 0) {
        info.problems.push_back(
            strformat("%llu bytes follow the trailer", static_cast<unsigned long long>(info.bytes_after_trailer())));
    }
}

// The accurate layout, after the magic (already read by r).
void parse_accurate(Reader &r, ModelInfo &info, const std::string &source) {
    info.accurate = true;
    info.format_version = r.u32("the header");
    if (info.format_version != 1) {
        info.problems.push_back(strformat("format version %u; this tool reads version 1", info.format_version));
        return;
    }
    const uint32_t settings_bytes = r.u32("the header");
    if (settings_bytes != 4 * kAccurateSettingsCount) {
        throw input_error(strformat("'%s' is not an accurate model file: its settings block is %u bytes",
                                    source.c_str(), settings_bytes));
    }
    for (int32_t &v : info.accurate_settings) v = r.i32("the settings");
    const uint32_t classes = r.u32("the class count");
    if (classes < 1 || classes > OSTREL_ALG_MAX_CLASSES) {
        info.problems.push_back(strformat("%u classes, outside 1..%d", classes, OSTREL_ALG_MAX_CLASSES));
        return;
    }
    for (uint32_t k = 0; k < classes; ++k) {
        const std::string what = strformat("class record %u", k + 1);
        const uint32_t record = r.u32(what);
        const uint64_t start = r.position();
        r.need(record, what);
        AccurateClassInfo c;
        const uint32_t name_bytes = r.u32(what);
        if (name_bytes > 255) {
            throw input_error(strformat("'%s' is not an accurate model file: %s has a name of %u bytes", source.c_str(),
                                        what.c_str(), name_bytes));
        }
        c.name.resize(name_bytes);
        if (name_bytes > 0) r.bytes(reinterpret_cast<uint8_t *>(&c.name[0]), name_bytes, what);
        c.window_columns = r.i32(what);
        c.window_rows = r.i32(what);
        c.channels = r.i32(what);
        c.aspect = r.f32(what);
        c.taught_min_height = r.f32(what);
        c.taught_max_height = r.f32(what);
        const int32_t trained_width = r.i32(what);
        const int32_t trained_height = r.i32(what);
        const int32_t input_width = r.i32(what);
        const int32_t input_height = r.i32(what);
        c.calibration_offset = r.f32(what);
        c.calibration_slope = r.f32(what);
        const int32_t bias = r.i32(what);
        c.weights = r.i32(what);
        if (c.weights < 0) {
            throw input_error(strformat("'%s' is not an accurate model file: %s gives a negative weight count",
                                        source.c_str(), what.c_str()));
        }
        bool first = true;
        int32_t low = 0, high = 0;
        r.i32_values(static_cast<uint64_t>(c.weights), what + " weights", [&](int32_t w) {
            low = first ? w : std::min(low, w);
            high = first ? w : std::max(high, w);
            first = false;
        });
        if (r.position() - start != record) {
            info.problems.push_back(what + ": its length field does not agree with its contents");
        }
        if (static_cast<int64_t>(c.window_columns) * c.window_rows * c.channels != c.weights) {
            info.problems.push_back(what + ": the weights do not fit its window");
        }
        if (k == 0) {
            info.trained_width = trained_width;
            info.trained_height = trained_height;
            info.input_width = input_width;
            info.input_height = input_height;
            info.support_vector_size = c.weights;
            info.bias = bias;
            info.weight_min = low;
            info.weight_max = high;
        }
        info.classes.push_back(std::move(c));
    }
}

// The accurate layout from its first byte; the magic was seen before.
ModelInfo parse_accurate_from(ByteSource &bytes, const std::string &source) {
    ModelInfo info;
    Reader r(bytes, source);
    info.file_size = bytes.size();
    uint8_t head[sizeof kAccurateMagic];
    r.bytes(head, sizeof head, "the header");
    parse_accurate(r, info, source);
    if (info.classes.empty()) {
        return info;  // a version or class count this tool cannot follow: the problem says which
    }
    info.content_length = r.position();
    info.computed_crc = r.finish_crc();
    info.stored_length = r.u64("the trailer");
    info.stored_crc = r.u32("the trailer");
    add_trailer_problems(info);
    return info;
}

ModelInfo parse_from(ByteSource &bytes, const std::string &source) {
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
    bool first = true;
    r.i32_values(static_cast<uint64_t>(info.support_vector_size), weights, [&](int32_t w) {
        info.weight_min = first ? w : std::min(info.weight_min, w);
        info.weight_max = first ? w : std::max(info.weight_max, w);
        first = false;
    });
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
    info.computed_crc = r.finish_crc();
    info.stored_length = r.u64("the trailer");
    info.stored_crc = r.u32("the trailer");

    // The same bounds the library applies when it loads a model.
    if (info.class_idx < 0 || info.trained_width <= 0 || info.trained_height <= 0 || info.input_width <= 0 ||
        info.input_height <= 0 || info.trained_acf_scale_idx < 0) {
        info.problems.push_back("model record: a size is not positive or an index is negative");
    }
    if (info.support_vector_size < OSTREL_ALG_MIN_WINDOW_WEIGHTS ||
        info.support_vector_size > OSTREL_ALG_MAX_WINDOW_WEIGHTS) {
        info.problems.push_back(strformat("model record: %d weights, outside the accepted %d..%d",
                                          info.support_vector_size, OSTREL_ALG_MIN_WINDOW_WEIGHTS,
                                          OSTREL_ALG_MAX_WINDOW_WEIGHTS));
    }
    if (info.pca_filter_ready != 0) {
        const auto &f = info.filter;
        for (size_t m = 0; m < 4; ++m) {
            if (f[m].rows == 0 || f[m].cols == 0) {
                info.problems.push_back(std::string("filter: ") + filter_matrix_name(m) + " is empty");
            }
        }
        // A filter's feature length may be one more than a window's weights.
        const int max_length = OSTREL_ALG_MAX_WINDOW_WEIGHTS + 1;
        const bool sizes_ok = f[0].rows == 1 && f[0].cols >= OSTREL_ALG_MIN_WINDOW_WEIGHTS && f[0].cols <= max_length &&
                              f[1].rows >= 1 && f[1].rows <= 14 && f[1].cols >= OSTREL_ALG_MIN_WINDOW_WEIGHTS &&
                              f[1].cols <= max_length && f[2].rows == f[0].rows && f[2].cols >= 1 && f[2].cols <= 14 &&
                              f[3].rows >= 1 && f[3].rows <= 14 && f[3].cols >= 1 && f[3].cols <= 14;
        if (!sizes_ok) {
            info.problems.push_back("filter: matrix sizes outside the accepted ranges");
        }
    }
    add_consistency_problems(info);
    add_trailer_problems(info);
    return info;
}

}  // namespace

void add_consistency_problems(ModelInfo &info) {
    if (info.pca_filter_ready == 0) {
        return;
    }
    const auto &f = info.filter;
    const int32_t d = info.support_vector_size;
    const int32_t k = f[1].rows;
    if (f[0].rows != 1 || f[0].cols != d || f[1].cols != d || f[2].rows != 1 || f[2].cols != k || f[3].rows != k ||
        f[3].cols != k) {
        info.problems.push_back(strformat(
            "filter: the matrices do not fit each other or the %d weights (mean %d x %d, eigenvectors %d x %d, "
            "reduce_mean %d x %d, reduce_inv_covar %d x %d; they must be 1 x %d, K x %d, 1 x K, K x K)",
            d, f[0].rows, f[0].cols, f[1].rows, f[1].cols, f[2].rows, f[2].cols, f[3].rows, f[3].cols, d, d));
    }
}

ModelInfo parse_model(const std::vector<uint8_t> &bytes, const std::string &source) {
    MemorySource memory(bytes);
    const bool accurate =
        bytes.size() >= sizeof kAccurateMagic && std::memcmp(bytes.data(), kAccurateMagic, sizeof kAccurateMagic) == 0;
    return accurate ? parse_accurate_from(memory, source) : parse_from(memory, source);
}

ModelInfo read_model_info(const std::string &path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        throw input_error("cannot open model '" + path + "': no such file");
    }
    if (std::filesystem::is_directory(path, ec)) {
        throw input_error("cannot read model '" + path + "': it is a folder");
    }
    // A device or FIFO would be read without end (or block): refused unread.
    if (!std::filesystem::is_regular_file(path, ec)) {
        throw input_error("cannot read model '" + path + "': not a regular file");
    }
    std::ifstream in(path, std::ios::binary);
    const uintmax_t size = std::filesystem::file_size(path, ec);
    if (!in || ec) {
        throw input_error("cannot read model '" + path + "'");
    }
    // The first bytes choose the layout, as the library's do.
    uint8_t head[sizeof kAccurateMagic] = {};
    in.read(reinterpret_cast<char *>(head), sizeof head);
    const bool accurate =
        in.gcount() == static_cast<std::streamsize>(sizeof head) && std::memcmp(head, kAccurateMagic, sizeof head) == 0;
    in.clear();
    in.seekg(0);
    FileSource file(in, static_cast<uint64_t>(size), path);
    return accurate ? parse_accurate_from(file, path) : parse_from(file, path);
}

namespace {

// The trailer both layouts end with: the length and the CRC, stored and as
// computed from the content.
std::string describe_trailer(const ModelInfo &info) {
    std::string s;
    s += strformat("content bytes (L): %llu\n", static_cast<unsigned long long>(info.content_length));
    s += strformat("stored L: %llu%s\n", static_cast<unsigned long long>(info.stored_length),
                   info.length_matches() ? "" : " (differs)");
    s += strformat("stored CRC: 0x%08x\n", info.stored_crc);
    s += strformat("computed CRC: 0x%08x\n", info.computed_crc);
    s += strformat("CRC matches: %s\n", info.crc_matches() ? "yes" : "no");
    return s;
}

// The file's size and every problem found while reading it.
std::string describe_file(const ModelInfo &info) {
    std::string s = strformat("file size: %llu\n", static_cast<unsigned long long>(info.file_size));
    for (const auto &p : info.problems) {
        s += "problem: " + p + "\n";
    }
    return s;
}

std::string describe_accurate(const ModelInfo &info) {
    std::string s;
    s += strformat("format: accurate model file, version %u\n", info.format_version);
    s += "profile: accurate (recorded in the file)\n";
    for (size_t i = 1; i < kAccurateSettingsCount; ++i) {
        // Heights 0: the search covers the taught heights and the size steps' margin.
        const bool automatic_height = (i == 4 || i == 5) && info.accurate_settings[i] == 0;
        s += strformat("%s: %d%s\n", accurate_setting_name(i), info.accurate_settings[i],
                       automatic_height ? " (automatic: the taught heights and the size steps' margin)" : "");
    }
    s += strformat("classes: %zu\n", info.classes.size());
    for (size_t k = 0; k < info.classes.size(); ++k) {
        const AccurateClassInfo &c = info.classes[k];
        s += strformat(
            "class %zu: name \"%s\", window %d x %d cells (%d channels, %d weights), object width / height "
            "%.3f, taught heights %.1f to %.1f pixels, 50%% confidence at margin %.3f (slope %.3f)\n",
            k + 1, c.name.c_str(), c.window_columns, c.window_rows, c.channels, c.weights,
            static_cast<double>(c.aspect), static_cast<double>(c.taught_min_height),
            static_cast<double>(c.taught_max_height), static_cast<double>(c.calibration_offset),
            static_cast<double>(c.calibration_slope));
    }
    if (!info.classes.empty()) {
        s += strformat("trained_width: %d\n", info.trained_width);
        s += strformat("trained_height: %d\n", info.trained_height);
        s += strformat("input_width: %d\n", info.input_width);
        s += strformat("input_height: %d\n", info.input_height);
        s += strformat("bias: %d (%.7f)\n", info.bias, info.bias / 10000000.0);
        s += strformat("weights: min %d, max %d (x 1/10000000)\n", info.weight_min, info.weight_max);
        s += describe_trailer(info);
    }
    return s + describe_file(info);
}

}  // namespace

std::string describe_model(const ModelInfo &info) {
    if (info.accurate) {
        return describe_accurate(info);
    }
    std::string s;
    s += "format: classic model file (no magic number)\n";
    s += "profile: classic (the classic layout says so; accurate models have a format of their own)\n";
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
    return s + describe_trailer(info) + describe_file(info);
}

}  // namespace ostrel_tool
