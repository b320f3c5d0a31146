// The accurate model file's writer and reader (layout in the header).
#include "model/accurate_model_file.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include <zlib.h>

#include "common/window_weights.h"

namespace ostrel {

namespace {

constexpr size_t kMagicBytes = sizeof kAccurateModelMagic;
constexpr uint32_t kSettingsBytes = 14 * 4;
constexpr size_t kTrailerBytes = 12;
// Fixed bytes of a class record after its length field, besides the name
// and the weights: name length, 3 int32, 3 float, 4 int32, 2 float, bias,
// weight count.
constexpr uint32_t kClassFixedBytes = 4 + 3 * 4 + 3 * 4 + 4 * 4 + 2 * 4 + 4 + 4;
constexpr int32_t kChannels = 10;
// Sizes in pixels a record may carry (no picture side is longer).
constexpr int32_t kMaxSide = 1 << 20;

void put_u32(std::vector<unsigned char> &out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>((v >> (8 * i)) & 0xffu));
}
void put_i32(std::vector<unsigned char> &out, int32_t v) { put_u32(out, static_cast<uint32_t>(v)); }
void put_f32(std::vector<unsigned char> &out, float v) {
    uint32_t bits = 0;
    std::memcpy(&bits, &v, sizeof bits);
    put_u32(out, bits);
}

// A cursor over the file's bytes that never reads past them.
class byte_reader {
public:
    byte_reader(const unsigned char *bytes, size_t size) : bytes_(bytes), size_(size) {}
    size_t position() const { return position_; }
    size_t left() const { return size_ - position_; }
    bool u32(uint32_t *v) {
        if (left() < 4) return false;
        const unsigned char *b = bytes_ + position_;
        *v = static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) | (static_cast<uint32_t>(b[2]) << 16) |
             (static_cast<uint32_t>(b[3]) << 24);
        position_ += 4;
        return true;
    }
    bool i32(int32_t *v) {
        uint32_t raw = 0;
        if (!u32(&raw)) return false;
        *v = raw <= 0x7fffffffu ? static_cast<int32_t>(raw)
                                : static_cast<int32_t>(static_cast<int64_t>(raw) - 0x100000000LL);
        return true;
    }
    bool f32(float *v) {
        uint32_t raw = 0;
        if (!u32(&raw)) return false;
        std::memcpy(v, &raw, sizeof raw);
        return true;
    }
    bool u64(uint64_t *v) {
        uint32_t lo = 0, hi = 0;
        if (!u32(&lo) || !u32(&hi)) return false;
        *v = static_cast<uint64_t>(lo) | (static_cast<uint64_t>(hi) << 32);
        return true;
    }
    bool bytes(size_t count, std::string *out) {
        if (left() < count) return false;
        out->assign(reinterpret_cast<const char *>(bytes_ + position_), count);
        position_ += count;
        return true;
    }

private:
    const unsigned char *bytes_;
    size_t size_;
    size_t position_ = 0;
};

std::vector<std::string> names_of(const accurate_model_file &model) {
    std::vector<std::string> names;
    for (const accurate_file_class &c : model.classes) names.push_back(c.name);
    return names;
}

bool fail(std::string *problem, const std::string &text) {
    if (problem != nullptr) *problem = text;
    return false;
}

// The settings block's fields in file order.
constexpr int32_t accurate_file_settings::*kSettingsFields[] = {
    &accurate_file_settings::profile,
    &accurate_file_settings::object_cells,
    &accurate_file_settings::size_steps,
    &accurate_file_settings::suppression_overlap_percent,
    &accurate_file_settings::min_height,
    &accurate_file_settings::max_height,
    &accurate_file_settings::search_margin_percent,
    &accurate_file_settings::levels_per_octave,
    &accurate_file_settings::approximation_exponent_permille,
    &accurate_file_settings::norm_radius,
    &accurate_file_settings::norm_floor,
    &accurate_file_settings::edge_reach_percent,
    &accurate_file_settings::size_prior_permille,
    &accurate_file_settings::suppression_contained_percent,
};
static_assert(sizeof kSettingsFields / sizeof kSettingsFields[0] * 4 == kSettingsBytes,
              "every settings field is written");

// The problem with a class record's values, or an empty string.
std::string class_problem(const accurate_file_class &c) {
    const std::string name = class_name_problem(c.name);
    if (!name.empty()) return name;
    if (c.channels != kChannels) return "a class has " + std::to_string(c.channels) + " channels where there are 10";
    if (c.window_columns < 1 || c.window_rows < 1 || c.window_columns > kMaxWindowWeights ||
        c.window_rows > kMaxWindowWeights) {
        return "a class's window is not a size";
    }
    const int64_t n = static_cast<int64_t>(c.window_columns) * c.window_rows * c.channels;
    if (n < kMinWindowWeights || n > kMaxWindowWeights) {
        return "a class's window of " + std::to_string(n) + " weights is outside " OSTREL_WINDOW_WEIGHTS_RANGE_TEXT;
    }
    if (static_cast<int64_t>(c.weights.size()) != n) {
        return "a class has " + std::to_string(c.weights.size()) + " weights where its window has " + std::to_string(n);
    }
    if (!std::isfinite(c.aspect) || c.aspect < 1.0f / 16.0f || c.aspect > 16.0f) {
        return "a class's object shape is not a width / height ratio within 1/16..16";
    }
    if (!std::isfinite(c.taught_min_height) || !std::isfinite(c.taught_max_height) || !(c.taught_min_height > 0.0f) ||
        c.taught_max_height < c.taught_min_height || c.taught_max_height > static_cast<float>(kMaxSide)) {
        return "a class's taught range of object heights is not a range of sizes";
    }
    if (c.trained_width < 1 || c.trained_height < 1 || c.input_width < 1 || c.input_height < 1 ||
        c.trained_width > kMaxSide || c.trained_height > kMaxSide || c.input_width > kMaxSide ||
        c.input_height > kMaxSide) {
        return "a class's training sizes are not sizes";
    }
    if (!std::isfinite(c.calibration_offset) || !std::isfinite(c.calibration_slope) || !(c.calibration_slope > 0.0f) ||
        std::fabs(c.calibration_offset) > 1.0e6f || c.calibration_slope > 1.0e6f) {
        return "a class's score calibration is not finite with a positive slope";
    }
    return "";
}

// The length of the UTF-8 sequence that begins at s[i] (shortest form, no
// surrogate, at most U+10FFFF), or 0 when none does.
size_t utf8_sequence(const std::string &s, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char lead = byte(i);
    size_t length = 0;
    uint32_t code = 0;
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        code = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        code = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        code = lead & 0x07u;
    } else {
        return 0;
    }
    if (i + length > s.size()) return 0;
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0u) != 0x80u) return 0;
        code = (code << 6) | (byte(i + k) & 0x3Fu);
    }
    const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < least[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return length;
}

}  // namespace

std::string class_name_problem(const std::string &name) {
    if (name.size() > kMaxClassNameBytes) {
        return "a class name is longer than " + std::to_string(kMaxClassNameBytes) + " bytes";
    }
    if (name.find('\0') != std::string::npos) return "a class name holds a NUL byte";
    for (size_t i = 0; i < name.size();) {
        const size_t length = utf8_sequence(name, i);
        if (length == 0) return "a class name is not UTF-8";
        if (length == 1 && (static_cast<unsigned char>(name[i]) < 0x20 || name[i] == 0x7F)) {
            return "a class name holds a control character";
        }
        i += length;
    }
    return "";
}

std::string class_names_problem(const std::vector<std::string> &names) {
    for (size_t k = 0; k < names.size(); ++k) {
        const std::string p = class_name_problem(names[k]);
        if (!p.empty()) return p;
        for (size_t j = 0; j < k; ++j) {
            if (names[j] == names[k]) {
                return "classes " + std::to_string(j + 1) + " and " + std::to_string(k + 1) + " have the same name";
            }
        }
    }
    return "";
}

bool has_accurate_magic(const unsigned char *bytes, size_t size) {
    return size >= kMagicBytes && std::memcmp(bytes, kAccurateModelMagic, kMagicBytes) == 0;
}

std::vector<unsigned char> write_accurate_model(const accurate_model_file &model, std::string *problem) {
    std::vector<unsigned char> out;
    if (model.classes.empty() || model.classes.size() > kMaxAccurateModelClasses) {
        fail(problem, "a model file holds 1 to " + std::to_string(kMaxAccurateModelClasses) + " classes");
        return out;
    }
    for (const accurate_file_class &c : model.classes) {
        const std::string p = class_problem(c);
        if (!p.empty()) {
            fail(problem, p);
            return out;
        }
    }
    const std::string names = class_names_problem(names_of(model));
    if (!names.empty()) {
        fail(problem, names);
        return out;
    }
    out.insert(out.end(), kAccurateModelMagic, kAccurateModelMagic + kMagicBytes);
    put_u32(out, model.version);
    put_u32(out, kSettingsBytes);
    for (const auto field : kSettingsFields) put_i32(out, model.settings.*field);
    put_u32(out, static_cast<uint32_t>(model.classes.size()));
    for (const accurate_file_class &c : model.classes) {
        const uint32_t record =
            kClassFixedBytes + static_cast<uint32_t>(c.name.size()) + 4u * static_cast<uint32_t>(c.weights.size());
        put_u32(out, record);
        put_u32(out, static_cast<uint32_t>(c.name.size()));
        out.insert(out.end(), c.name.begin(), c.name.end());
        put_i32(out, c.window_columns);
        put_i32(out, c.window_rows);
        put_i32(out, c.channels);
        put_f32(out, c.aspect);
        put_f32(out, c.taught_min_height);
        put_f32(out, c.taught_max_height);
        put_i32(out, c.trained_width);
        put_i32(out, c.trained_height);
        put_i32(out, c.input_width);
        put_i32(out, c.input_height);
        put_f32(out, c.calibration_offset);
        put_f32(out, c.calibration_slope);
        put_i32(out, c.bias);
        put_i32(out, static_cast<int32_t>(c.weights.size()));
        for (int32_t w : c.weights) put_i32(out, w);
    }
    const uint64_t length = out.size();
    const uLong crc = crc32(crc32(0L, Z_NULL, 0), out.data(), static_cast<uInt>(out.size()));
    put_u32(out, static_cast<uint32_t>(length & 0xffffffffu));
    put_u32(out, static_cast<uint32_t>(length >> 32));
    put_u32(out, static_cast<uint32_t>(crc));
    return out;
}

bool read_accurate_model(const unsigned char *bytes, size_t size, accurate_model_file *out, std::string *problem) {
    *out = accurate_model_file{};
    if (!has_accurate_magic(bytes, size)) {
        return fail(problem, "it does not begin with the accurate model magic");
    }
    if (size > kMaxAccurateModelBytes) {
        return fail(problem, "it is longer than any accurate model (" + std::to_string(size) + " bytes)");
    }
    byte_reader in(bytes + kMagicBytes, size - kMagicBytes);
    uint32_t version = 0;
    if (!in.u32(&version)) return fail(problem, "it ends inside its header");
    if (version != kAccurateModelVersion) {
        return fail(problem, "its format version is " + std::to_string(version) + "; this library reads version " +
                                 std::to_string(kAccurateModelVersion));
    }
    out->version = version;
    uint32_t settings_bytes = 0;
    if (!in.u32(&settings_bytes)) return fail(problem, "it ends inside its header");
    if (settings_bytes != kSettingsBytes) {
        return fail(problem, "its settings block is " + std::to_string(settings_bytes) + " bytes where version 1 has " +
                                 std::to_string(kSettingsBytes));
    }
    for (const auto field : kSettingsFields) {
        if (!in.i32(&(out->settings.*field))) return fail(problem, "it ends inside its settings");
    }
    if (out->settings.profile != 1) {
        return fail(problem,
                    "it names profile " + std::to_string(out->settings.profile) + " where it must be 1 (accurate)");
    }
    uint32_t classes = 0;
    if (!in.u32(&classes)) return fail(problem, "it ends before its class count");
    if (classes < 1 || classes > kMaxAccurateModelClasses) {
        return fail(problem, "it holds " + std::to_string(classes) + " classes where a model holds 1 to " +
                                 std::to_string(kMaxAccurateModelClasses));
    }
    for (uint32_t k = 0; k < classes; ++k) {
        const std::string which = "class record " + std::to_string(k + 1);
        uint32_t record = 0;
        if (!in.u32(&record)) return fail(problem, "it ends before " + which);
        if (record > in.left()) return fail(problem, which + " announces more bytes than the file holds");
        const size_t start = in.position();
        accurate_file_class c;
        uint32_t name_bytes = 0;
        if (!in.u32(&name_bytes)) return fail(problem, "it ends inside " + which);
        if (name_bytes > kMaxClassNameBytes) {
            return fail(problem, which + " has a name longer than " + std::to_string(kMaxClassNameBytes) + " bytes");
        }
        int32_t weights = 0;
        if (!in.bytes(name_bytes, &c.name) || !in.i32(&c.window_columns) || !in.i32(&c.window_rows) ||
            !in.i32(&c.channels) || !in.f32(&c.aspect) || !in.f32(&c.taught_min_height) ||
            !in.f32(&c.taught_max_height) || !in.i32(&c.trained_width) || !in.i32(&c.trained_height) ||
            !in.i32(&c.input_width) || !in.i32(&c.input_height) || !in.f32(&c.calibration_offset) ||
            !in.f32(&c.calibration_slope) || !in.i32(&c.bias) || !in.i32(&weights)) {
            return fail(problem, "it ends inside " + which);
        }
        if (weights < kMinWindowWeights || weights > kMaxWindowWeights) {
            return fail(problem, which + " has " + std::to_string(weights) +
                                     " weights, outside " OSTREL_WINDOW_WEIGHTS_RANGE_TEXT);
        }
        if (static_cast<uint64_t>(record) != kClassFixedBytes + static_cast<uint64_t>(name_bytes) + 4ull * weights) {
            return fail(problem, which + " is " + std::to_string(record) + " bytes, which does not agree with its " +
                                     "name and its " + std::to_string(weights) + " weights");
        }
        if (in.left() < 4ull * static_cast<uint64_t>(weights)) return fail(problem, "it ends inside " + which);
        c.weights.resize(static_cast<size_t>(weights));
        for (int32_t &w : c.weights) in.i32(&w);
        if (in.position() - start != record) return fail(problem, which + " does not end where its length says");
        const std::string p = class_problem(c);
        if (!p.empty()) return fail(problem, which + ": " + p);
        out->classes.push_back(std::move(c));
    }
    const std::string names = class_names_problem(names_of(*out));
    if (!names.empty()) return fail(problem, names);
    const size_t body = kMagicBytes + in.position();
    if (in.left() != kTrailerBytes) {
        return fail(problem, "after its class records come " + std::to_string(in.left()) +
                                 " bytes where the 12-byte trailer should end the file");
    }
    uint64_t length = 0;
    uint32_t stored_crc = 0;
    in.u64(&length);
    in.u32(&stored_crc);
    if (length != body) {
        return fail(problem, "its trailer gives " + std::to_string(length) + " bytes before it where there are " +
                                 std::to_string(body));
    }
    const uint32_t computed = static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), bytes, static_cast<uInt>(body)));
    if (computed != stored_crc) {
        char text[96];
        std::snprintf(text, sizeof text, "its CRC-32 does not match (stored 0x%08x, computed 0x%08x)", stored_crc,
                      computed);
        return fail(problem, text);
    }
    return true;
}

}  // namespace ostrel
