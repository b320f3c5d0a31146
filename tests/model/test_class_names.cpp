// Class names in the accurate model file: one rule for files and for names
// a host gives - at most 255 bytes of UTF-8 (shortest forms, no surrogates)
// without control characters - and, in a file of several classes, no two
// alike. The writer refuses to write what the reader would refuse, and the
// reader refuses a file whose names break the rule (CRC made to match).
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "model/accurate_model_file.h"

namespace {

ostrel::accurate_file_class a_class(const std::string &name) {
    ostrel::accurate_file_class c;
    c.name = name;
    c.window_columns = 10;
    c.window_rows = 10;
    c.channels = 10;
    c.aspect = 1.0f;
    c.taught_min_height = 40.0f;
    c.taught_max_height = 80.0f;
    c.trained_width = 40;
    c.trained_height = 40;
    c.input_width = 640;
    c.input_height = 480;
    c.calibration_offset = 0.0f;
    c.calibration_slope = 1.0f;
    c.weights.assign(1000, 3);
    return c;
}

ostrel::accurate_model_file a_model(const std::vector<std::string> &names) {
    ostrel::accurate_model_file m;
    m.settings.object_cells = 100;
    for (const std::string &n : names) m.classes.push_back(a_class(n));
    return m;
}

TEST(ClassNames, TheRuleTakesUtf8AndRefusesTheRest) {
    EXPECT_EQ(ostrel::class_name_problem(""), "");  // the unnamed class of a one-class file
    EXPECT_EQ(ostrel::class_name_problem("white-pawn"), "");
    EXPECT_EQ(ostrel::class_name_problem("pi\xC3\xB3n"), "");             // ó, two bytes
    EXPECT_EQ(ostrel::class_name_problem("\xE9\xA7\x92"), "");            // 駒, three bytes
    EXPECT_EQ(ostrel::class_name_problem("\xF0\x9F\x90\xB4 horse"), "");  // U+1F434, four bytes
    EXPECT_EQ(ostrel::class_name_problem(std::string(255, 'a')), "");
    EXPECT_NE(ostrel::class_name_problem(std::string(256, 'a')).find("longer than 255"), std::string::npos);
    EXPECT_NE(ostrel::class_name_problem(std::string("a\0b", 3)).find("NUL"), std::string::npos);
    for (const char *bad :
         {"\xFF", "a\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\xC3\x28"}) {
        EXPECT_NE(ostrel::class_name_problem(bad).find("not UTF-8"), std::string::npos) << bad;
    }
    for (const char *bad : {"tab\there", "new\nline", "del\x7F"}) {
        EXPECT_NE(ostrel::class_name_problem(bad).find("control character"), std::string::npos) << bad;
    }
}

TEST(ClassNames, NoTwoClassesOfAFileShareAName) {
    EXPECT_EQ(ostrel::class_names_problem({"a", "b", "c"}), "");
    EXPECT_EQ(ostrel::class_names_problem({"a", "b", "a"}), "classes 1 and 3 have the same name");
    EXPECT_EQ(ostrel::class_names_problem({"", ""}), "classes 1 and 2 have the same name");
    std::string problem;
    EXPECT_TRUE(ostrel::write_accurate_model(a_model({"a", "a"}), &problem).empty());
    EXPECT_EQ(problem, "classes 1 and 2 have the same name");
    EXPECT_TRUE(ostrel::write_accurate_model(a_model({"ok", "\xFF"}), &problem).empty());
    EXPECT_EQ(problem, "a class name is not UTF-8");
    EXPECT_FALSE(ostrel::write_accurate_model(a_model({"a", "b"}), &problem).empty());
}

// A written file whose second name is changed in place, its CRC made to
// match: the reader refuses it for the name alone.
std::string read_with_second_name(const std::string &replacement) {
    std::string problem;
    std::vector<unsigned char> bytes = ostrel::write_accurate_model(a_model({"ab", "cd"}), &problem);
    EXPECT_FALSE(bytes.empty()) << problem;
    // The second record's name follows the first record and its own length
    // and name-length fields.
    const size_t first_record = 76;
    const uint32_t first_length = bytes[first_record] | (bytes[first_record + 1] << 8);
    const size_t second_name = first_record + 4 + first_length + 4 + 4;
    EXPECT_EQ(std::string(bytes.begin() + static_cast<std::ptrdiff_t>(second_name),
                          bytes.begin() + static_cast<std::ptrdiff_t>(second_name + 2)),
              "cd");
    for (size_t i = 0; i < 2; ++i) bytes[second_name + i] = static_cast<unsigned char>(replacement[i]);
    const size_t body = bytes.size() - 12;
    const uint32_t crc = static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), bytes.data(), static_cast<uInt>(body)));
    for (int i = 0; i < 4; ++i) bytes[bytes.size() - 4 + static_cast<size_t>(i)] = (crc >> (8 * i)) & 0xff;
    ostrel::accurate_model_file back;
    if (ostrel::read_accurate_model(bytes.data(), bytes.size(), &back, &problem)) return "";
    return problem;
}

TEST(ClassNames, TheReaderRefusesBadNamesInAFile) {
    EXPECT_EQ(read_with_second_name("ce"), "");
    EXPECT_EQ(read_with_second_name("ab"), "classes 1 and 2 have the same name");
    EXPECT_NE(read_with_second_name("c\xFF").find("not UTF-8"), std::string::npos);
    EXPECT_NE(read_with_second_name("c\x01").find("control character"), std::string::npos);
}

}  // namespace
