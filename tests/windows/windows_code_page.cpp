// The _bstr forms convert with the calling thread's ANSI code page
// (CP_THREAD_ACP) into a buffer of two bytes per UTF-16 unit. In a code page
// that needs three bytes for a character that buffer is too small, and
// WideCharToMultiByte fails: the library must refuse the path with status 1
// and one line, not read a string that was never written.
//
// A thread locale without an ANSI code page of its own (Hindi) makes the
// thread code page UTF-8 under Wine, where '€' takes three bytes. On a system
// where that is not so, the test says it cannot run, and test-windows.sh,
// which runs it under Wine, treats a skip as a failure.
#include <windows.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"

using ostrel_test::capture_stdout;

namespace {

// Bytes WideCharToMultiByte(CP_THREAD_ACP) gives for one '€', terminator included.
int thread_code_page_bytes_for_euro() {
    return WideCharToMultiByte(CP_THREAD_ACP, 0, L"\u20ac", -1, nullptr, 0, nullptr, nullptr);
}

class ThreadCodePage : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        saved_ = GetThreadLocale();
    }
    void TearDown() override {
        SetThreadLocale(saved_);
        ASSERT_EQ(ostrel_alg_destroy(engine_), 0);
    }
    ostrel_alg *engine_ = nullptr;
    LCID saved_ = 0;
};

}  // namespace

TEST_F(ThreadCodePage, ConversionThatDoesNotFitIsRefused) {
    ASSERT_TRUE(SetThreadLocale(MAKELCID(MAKELANGID(LANG_HINDI, SUBLANG_HINDI_INDIA), SORT_DEFAULT)));
    if (thread_code_page_bytes_for_euro() != 4) {
        GTEST_SKIP() << "the thread code page does not take three bytes for U+20AC here";
    }
    const std::wstring path = std::wstring(8, L'\u20ac') + L".bin";  // 9 units, 29 bytes in UTF-8
    int32_t status = 0;
    std::string out = capture_stdout([&] { status = ostrel_alg_exportModel_bstr(engine_, path.c_str()); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_exportModel_bstr: the path cannot be converted to the thread's code page\n");
    out = capture_stdout([&] { status = ostrel_alg_importModel_bstr(engine_, path.c_str()); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_importModel_bstr: the path cannot be converted to the thread's code page\n");
    out = capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, path.c_str()); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out,
              "[Alg.Fail] ostrel_alg_checkModelValidation_bstr: the path cannot be converted to the thread's code "
              "page\n");
}

// In the same code page a path that fits (one '€' needs 3 of its 4 bytes) is
// converted: the engine reports the missing file under the UTF-8 name.
TEST_F(ThreadCodePage, ConversionThatFitsGoesThrough) {
    ASSERT_TRUE(SetThreadLocale(MAKELCID(MAKELANGID(LANG_HINDI, SUBLANG_HINDI_INDIA), SORT_DEFAULT)));
    if (thread_code_page_bytes_for_euro() != 4) {
        GTEST_SKIP() << "the thread code page does not take three bytes for U+20AC here";
    }
    int32_t status = 0;
    const std::string out = capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, L"\u20ac"); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[ostrel_alg::checkModelValidation] file open fail , check file path : \xe2\x82\xac \n");
}

// The thread's code page, not the process's: back in the default locale the
// same long path converts (to Windows-1252, '€' is one byte).
TEST_F(ThreadCodePage, DefaultThreadLocaleConvertsTheSamePath) {
    ASSERT_EQ(thread_code_page_bytes_for_euro(), 2) << "expected a single-byte ANSI code page by default";
    const std::wstring path = std::wstring(8, L'\u20ac') + L".bin";
    int32_t status = 0;
    const std::string out =
        capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, path.c_str()); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[ostrel_alg::checkModelValidation] file open fail , check file path : " + std::string(8, '\x80') +
                       ".bin \n");
}
