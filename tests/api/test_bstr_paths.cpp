// The UTF-16 path forms (_bstr) as a host sees them, on every platform: a
// path with characters beyond ASCII names the right file in export, check
// and import; paths that cannot be converted are refused with status 1 and
// one line, and the longest path accepted costs a bounded amount of stack.
// Built for Linux and, unchanged, for Windows (run under Wine).
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#if defined(_WIN32)
#include <windows.h>
#endif

#include "ostrel_alg.h"
#include "support/stdout_capture.h"

using ostrel_test::capture_stdout;

namespace {

// "modèle_ü€": every character is in Windows-1252, the ANSI code page of
// an English Windows (and of Wine by default), and in UTF-8.
const std::u16string kNonAsciiName = u"ostrel_mod\u00e8le_\u00fc\u20ac.bin";

std::string ascii(const std::u16string &text) { return std::string(text.begin(), text.end()); }

// A temporary folder as UTF-16, with its separator at the end.
std::u16string temporary_folder() {
    const std::string folder = testing::TempDir();
    return std::u16string(folder.begin(), folder.end());
}

#if !defined(_WIN32)
// The Linux build names files in UTF-8; this builds that name independently
// of the library's converter, for the characters these tests use.
std::string utf8_name(const std::u16string &path) {
    std::string name;
    for (char16_t c : path) {
        if (c < 0x80) {
            name.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            name.push_back(static_cast<char>(0xC0 | (c >> 6)));
            name.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            name.push_back(static_cast<char>(0xE0 | (c >> 12)));
            name.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            name.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return name;
}
#endif

std::FILE *open_for_reading(const std::u16string &path) {
#if defined(_WIN32)
    return _wfopen(reinterpret_cast<const wchar_t *>(path.c_str()), L"rb");
#else
    return std::fopen(utf8_name(path).c_str(), "rb");
#endif
}

void remove_file(const std::u16string &path) {
#if defined(_WIN32)
    _wremove(reinterpret_cast<const wchar_t *>(path.c_str()));
#else
    std::remove(utf8_name(path).c_str());
#endif
}

std::vector<char> bytes_of_file(const std::u16string &path) {
    std::vector<char> bytes;
    std::FILE *f = open_for_reading(path);
    if (f == nullptr) return bytes;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    std::fclose(f);
    return bytes;
}

std::vector<char> bytes_of_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A light picture with dark rings in 64 x 64 boxes, the object to learn.
struct RingPicture {
    static constexpr int kWidth = 640, kHeight = 480, kBox = 64;
    std::vector<uint8_t> pixels = std::vector<uint8_t>(kWidth * kHeight * 3);
    std::vector<ostrel_alg_box> boxes;

    RingPicture() {
        for (int i = 0; i < 6; ++i) boxes.push_back({40 + 100 * i, 60 + 160 * (i % 3), kBox, kBox, 0.0f, 1, 0, 0});
        uint32_t seed = 1;
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                seed = seed * 1103515245u + 12345u;
                uint8_t v = static_cast<uint8_t>(200 + (seed >> 16) % 24);
                for (const ostrel_alg_box &b : boxes) {
                    const int dx = x - (b.x + kBox / 2), dy = y - (b.y + kBox / 2);
                    const int d2 = dx * dx + dy * dy;
                    if (d2 < 24 * 24 && d2 > 12 * 12) v = 40;
                }
                std::memset(&pixels[3 * (y * kWidth + x)], v, 3);
            }
    }
    ostrel_alg_image record() { return {kWidth, kHeight, 3, pixels.data(), 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED}; }
};

class Utf16Paths : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ostrel_alg_create(&engine_), 0); }
    void TearDown() override { ASSERT_EQ(ostrel_alg_destroy(engine_), 0); }

    void train() {
        RingPicture picture;
        const ostrel_alg_image image = picture.record();
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 1), 0);
        int32_t status = 1;
        capture_stdout([&] {
            status = ostrel_alg_setDetector_ptr(engine_, &image, picture.boxes.data(),
                                                static_cast<int32_t>(picture.boxes.size()));
        });
        ASSERT_EQ(status, 0);
    }

    // Runs each of the three _bstr forms on path; returns their lines.
    std::vector<std::string> refusals(const char16_t *path) {
        std::vector<std::string> lines;
        int32_t status = 0;
        lines.push_back(capture_stdout([&] { status = ostrel_alg_exportModel_bstr(engine_, path); }));
        EXPECT_EQ(status, 1);
        lines.push_back(capture_stdout([&] { status = ostrel_alg_importModel_bstr(engine_, path); }));
        EXPECT_EQ(status, 1);
        lines.push_back(capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, path); }));
        EXPECT_EQ(status, 1);
        return lines;
    }

    static std::vector<std::string> lines_for(const std::string &tail) {
        return {"[Alg.Fail] ostrel_alg_exportModel_bstr: " + tail + "\n",
                "[Alg.Fail] ostrel_alg_importModel_bstr: " + tail + "\n",
                "[Alg.Fail] ostrel_alg_checkModelValidation_bstr: " + tail + "\n"};
    }

    ostrel_alg *engine_ = nullptr;
};

}  // namespace

// Export, check and import through a name with characters beyond ASCII: the
// file appears under exactly that name, holds the same bytes as an export
// through a plain ASCII path, and loads into a fresh engine.
TEST_F(Utf16Paths, NonAsciiPathRoundTrip) {
    ASSERT_NO_FATAL_FAILURE(train());
    const std::u16string wide = temporary_folder() + kNonAsciiName;
    const std::string reference = testing::TempDir() + "ostrel_bstr_reference.bin";
    int32_t status = 1;
    // Export says what the plain form says (a note on the filter, if any).
    const std::string said = capture_stdout([&] { status = ostrel_alg_exportModel_bstr(engine_, wide.c_str()); });
    ASSERT_EQ(status, 0);
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_exportModel_ptr(engine_, reference.c_str()); }), said);
    ASSERT_EQ(status, 0);

    const std::vector<char> written = bytes_of_file(wide);
    ASSERT_FALSE(written.empty()) << "no file under the UTF-16 name";
    EXPECT_EQ(written, bytes_of_file(reference));

    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, wide.c_str()); }), "");
    EXPECT_EQ(status, 0);
    ostrel_alg *fresh = nullptr;
    ASSERT_EQ(ostrel_alg_create(&fresh), 0);
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_importModel_bstr(fresh, wide.c_str()); }), "");
    EXPECT_EQ(status, 0);
    uint8_t trained = 0;
    EXPECT_EQ(ostrel_alg_istraied(fresh, &trained), 0);
    EXPECT_EQ(trained, 1);
    EXPECT_EQ(ostrel_alg_destroy(fresh), 0);

    remove_file(wide);
    std::remove(reference.c_str());
}

// A null path and unpaired surrogates are refused before anything is read.
TEST_F(Utf16Paths, NullPathAndUnpairedSurrogatesAreRefused) {
    const char16_t lone_high[] = {u'a', 0xD800, u'b', 0};
    const char16_t high_at_end[] = {u'a', 0xDBFF, 0};
    const char16_t lone_low[] = {0xDC00, u'x', 0};
    const char16_t swapped[] = {0xDC00, 0xD800, 0};
    const std::vector<std::string> expected = lines_for("the path is null or not a valid UTF-16 string");
    EXPECT_EQ(refusals(static_cast<const char16_t *>(nullptr)), expected);
    for (const char16_t *path : {lone_high, high_at_end, lone_low, swapped}) {
        EXPECT_EQ(refusals(path), expected);
    }
}

// A paired surrogate (a character beyond the first 65536) is valid UTF-16:
// it is converted, and the missing file is reported by the engine itself.
TEST_F(Utf16Paths, PairedSurrogateIsAccepted) {
    const std::u16string wide = temporary_folder() + u"ostrel_missing_\U0001F600.bin";
    int32_t status = 0;
    const std::string out =
        capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, wide.c_str()); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out.rfind("[ostrel_alg::checkModelValidation] file open fail , check file path : ", 0), 0u) << out;
}

// One unit more than Windows' longest path is refused, and so is a path of
// four million units, without reading it to its end.
TEST_F(Utf16Paths, PathsLongerThanTheLimitAreRefused) {
    const std::vector<std::string> expected = lines_for("the path is longer than 32767 UTF-16 units");
    for (size_t units : {size_t{32768}, size_t{4} << 20}) {
        const std::u16string path(units, u'a');
        EXPECT_EQ(refusals(path.c_str()), expected) << units << " units";
    }
}

// The longest accepted path is converted, also on a thread with a small
// stack (the converted bytes live on the stack: 64 KiB at most), and the
// engine reports that no such file exists.
TEST_F(Utf16Paths, LongestAcceptedPathIsConverted) {
    const std::u16string path(32767, u'a');
    const std::string expected =
        "[ostrel_alg::checkModelValidation] file open fail , check file path : " + ascii(path) + " \n";
    int32_t status = 0;
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, path.c_str()); }), expected);
    EXPECT_EQ(status, 1);

    // std::thread takes the default stack; on Windows ask for 256 KiB.
    status = 0;
    std::string out;
#if defined(_WIN32)
    struct Call {
        ostrel_alg *engine;
        const char16_t *path;
        int32_t status;
    } call{engine_, path.c_str(), 0};
    out = capture_stdout([&] {
        HANDLE thread = CreateThread(
            nullptr, 256 * 1024,
            [](void *argument) -> DWORD {
                auto *c = static_cast<Call *>(argument);
                c->status = ostrel_alg_checkModelValidation_bstr(c->engine, c->path);
                return 0;
            },
            &call, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
        ASSERT_NE(thread, nullptr);
        WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread);
    });
    status = call.status;
#else
    out = capture_stdout([&] {
        // A thread for its default stack only, joined at once: one thread at a time.
        std::thread thread([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, path.c_str()); });
        thread.join();
    });
#endif
    EXPECT_EQ(out, expected);
    EXPECT_EQ(status, 1);
}
