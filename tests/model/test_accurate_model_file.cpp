// The accurate model file's writer and reader: what is written is read
// back exactly, one class or several with names; every damage - a wrong
// magic or version, a body cut anywhere, a count or length that does not
// agree, a value out of its range, extra bytes, a CRC that does not match -
// is refused with a reason; and the magic keeps the two formats apart: its
// first four bytes read as the classic class_idx are negative, which the
// classic checks refuse, and no classic model file begins with it.
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model/accurate_model_file.h"
#include "model/model_file.h"
#include "support/test_data.h"
#include "train/model_checks.h"

namespace {

ostrel::accurate_file_class a_class(const std::string &name, int32_t columns, int32_t rows, float aspect) {
    ostrel::accurate_file_class c;
    c.name = name;
    c.window_columns = columns;
    c.window_rows = rows;
    c.channels = 10;
    c.aspect = aspect;
    c.taught_min_height = 61.5f;
    c.taught_max_height = 244.0f;
    c.trained_width = 60;
    c.trained_height = 200;
    c.input_width = 640;
    c.input_height = 480;
    c.calibration_offset = -0.35f;
    c.calibration_slope = 1.0f;
    c.bias = -123456;
    for (int32_t i = 0; i < columns * rows * 10; ++i) c.weights.push_back(i * 37 - 5000);
    return c;
}

ostrel::accurate_model_file a_model(size_t classes) {
    ostrel::accurate_model_file m;
    m.settings.object_cells = 100;
    m.settings.size_steps = 1;
    m.settings.suppression_overlap_percent = 30;
    m.settings.search_margin_percent = 150;
    m.settings.levels_per_octave = 6;
    m.settings.approximation_exponent_permille = -100;
    m.settings.norm_radius = 6;
    m.settings.norm_floor = 2;
    m.settings.edge_reach_percent = 50;
    m.settings.size_prior_permille = 2000;
    m.settings.suppression_contained_percent = 70;
    const char *names[] = {"person", "pawn", "cell"};
    for (size_t k = 0; k < classes; ++k)
        m.classes.push_back(a_class(names[k % 3], 5 + static_cast<int32_t>(k), 18, 0.3f));
    return m;
}

std::vector<unsigned char> written(const ostrel::accurate_model_file &m) {
    std::string problem;
    const std::vector<unsigned char> bytes = ostrel::write_accurate_model(m, &problem);
    EXPECT_FALSE(bytes.empty()) << problem;
    return bytes;
}

std::string refusal(const std::vector<unsigned char> &bytes) {
    ostrel::accurate_model_file m;
    std::string problem;
    if (ostrel::read_accurate_model(bytes.data(), bytes.size(), &m, &problem)) return "";
    EXPECT_FALSE(problem.empty());
    return problem.empty() ? "(no reason)" : problem;
}

void put_u32(std::vector<unsigned char> &bytes, size_t offset, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        bytes[offset + static_cast<size_t>(i)] = static_cast<unsigned char>((v >> (8 * i)) & 0xff);
}

uint32_t get_u32(const std::vector<unsigned char> &bytes, size_t offset) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | bytes[offset + static_cast<size_t>(i)];
    return v;
}

TEST(AccurateModelFile, WhatIsWrittenIsReadBack) {
    for (size_t classes : {1u, 3u}) {
        const ostrel::accurate_model_file m = a_model(classes);
        const std::vector<unsigned char> bytes = written(m);
        ostrel::accurate_model_file back;
        std::string problem;
        ASSERT_TRUE(ostrel::read_accurate_model(bytes.data(), bytes.size(), &back, &problem)) << problem;
        EXPECT_EQ(back.version, 1u);
        EXPECT_EQ(back.settings.levels_per_octave, 6);
        EXPECT_EQ(back.settings.suppression_contained_percent, 70);
        ASSERT_EQ(back.classes.size(), classes);
        for (size_t k = 0; k < classes; ++k) {
            EXPECT_EQ(back.classes[k].name, m.classes[k].name);
            EXPECT_EQ(back.classes[k].window_columns, m.classes[k].window_columns);
            EXPECT_EQ(back.classes[k].aspect, m.classes[k].aspect);
            EXPECT_EQ(back.classes[k].taught_min_height, 61.5f);
            EXPECT_EQ(back.classes[k].calibration_offset, -0.35f);
            EXPECT_EQ(back.classes[k].bias, -123456);
            EXPECT_EQ(back.classes[k].weights, m.classes[k].weights);
        }
        EXPECT_EQ(written(back), bytes);
    }
}

TEST(AccurateModelFile, TheLayoutIsAsDocumented) {
    const std::vector<unsigned char> bytes = written(a_model(1));
    EXPECT_EQ(std::memcmp(bytes.data(), ostrel::kAccurateModelMagic, 8), 0);
    EXPECT_EQ(get_u32(bytes, 8), 1u);     // version
    EXPECT_EQ(get_u32(bytes, 12), 56u);   // settings bytes
    EXPECT_EQ(get_u32(bytes, 16), 1u);    // profile
    EXPECT_EQ(get_u32(bytes, 20), 100u);  // object cells
    EXPECT_EQ(get_u32(bytes, 72), 1u);    // classes
    const uint32_t record = get_u32(bytes, 76);
    EXPECT_EQ(record, 60u + 6u + 4u * 5u * 18u * 10u);  // fixed fields with the name length, "person", weights
    EXPECT_EQ(bytes.size(), 80u + record + 12u);
    EXPECT_EQ(get_u32(bytes, bytes.size() - 12), 80u + record);  // L
}

TEST(AccurateModelFile, EveryDamageIsRefusedWithAReason) {
    const std::vector<unsigned char> good = written(a_model(2));
    // Cut anywhere.
    for (size_t size = 0; size < good.size(); ++size) {
        const std::vector<unsigned char> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
        ASSERT_NE(refusal(cut), "") << "cut at " << size;
    }
    std::vector<unsigned char> bad = good;
    bad[3] = 0x41;
    EXPECT_NE(refusal(bad).find("magic"), std::string::npos);
    bad = good;
    put_u32(bad, 8, 2);
    EXPECT_NE(refusal(bad).find("format version is 2"), std::string::npos);
    bad = good;
    put_u32(bad, 12, 60);
    EXPECT_NE(refusal(bad).find("settings block"), std::string::npos);
    bad = good;
    put_u32(bad, 16, 0);
    EXPECT_NE(refusal(bad).find("profile 0"), std::string::npos);
    for (const uint32_t classes : {0u, 3u, 65u}) {
        bad = good;
        put_u32(bad, 72, classes);
        EXPECT_NE(refusal(bad), "") << classes;
    }
    bad = good;
    put_u32(bad, 76, get_u32(good, 76) + 4);
    EXPECT_NE(refusal(bad), "");
    bad = good;
    put_u32(bad, 80, 300);  // a name longer than 255 bytes
    EXPECT_NE(refusal(bad).find("longer than 255"), std::string::npos);
    bad = good;
    bad.push_back(0);
    EXPECT_NE(refusal(bad).find("trailer"), std::string::npos);
    bad = good;
    bad[300] ^= 1;  // a weight
    EXPECT_NE(refusal(bad).find("CRC-32 does not match"), std::string::npos);
    bad = good;
    put_u32(bad, bad.size() - 12, get_u32(good, good.size() - 12) + 1);
    EXPECT_NE(refusal(bad).find("trailer gives"), std::string::npos);
}

TEST(AccurateModelFile, ValuesOutOfTheirRangesAreNeitherWrittenNorRead) {
    std::string problem;
    ostrel::accurate_model_file m = a_model(1);
    m.classes[0].aspect = std::nanf("");
    EXPECT_TRUE(ostrel::write_accurate_model(m, &problem).empty());
    EXPECT_NE(problem.find("shape"), std::string::npos);
    m = a_model(1);
    m.classes[0].weights.pop_back();
    EXPECT_TRUE(ostrel::write_accurate_model(m, &problem).empty());
    m = a_model(1);
    m.classes[0].calibration_slope = 0.0f;
    EXPECT_TRUE(ostrel::write_accurate_model(m, &problem).empty());
    m = a_model(1);
    m.classes[0].taught_max_height = 10.0f;  // below the minimum
    EXPECT_TRUE(ostrel::write_accurate_model(m, &problem).empty());
    m = a_model(1);
    m.classes[0].name = std::string("a\0b", 3);
    EXPECT_TRUE(ostrel::write_accurate_model(m, &problem).empty());
    m = a_model(0);
    EXPECT_TRUE(ostrel::write_accurate_model(m, &problem).empty());
    // A value changed in a written file (and its CRC made to match) is
    // refused by the reader too: the aspect of the first class.
    std::vector<unsigned char> bytes = written(a_model(1));
    const size_t aspect = 80 + 4 + 6 + 12;
    const float huge = 100.0f;
    std::memcpy(bytes.data() + aspect, &huge, 4);
    EXPECT_NE(refusal(bytes), "");
}

TEST(AccurateModelFile, TheMagicKeepsTheFormatsApart) {
    // Read as the classic layout's class_idx, the magic's first four bytes
    // are negative: the classic checks refuse every file that begins with it.
    int32_t class_idx = 0;
    std::memcpy(&class_idx, ostrel::kAccurateModelMagic, 4);  // little-endian on every platform built for
    EXPECT_LT(class_idx, 0);
    const std::vector<unsigned char> bytes = written(a_model(1));
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    ostrel::svm_model record;
    ostrel::read_svm_block(in, record);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(ostrel::checkSvmModel(record));
    testing::internal::GetCapturedStdout();
    // No classic model file of the fuzz corpus or the tests begins with it.
    for (const char *name : {"bccd_rbc_plain.model", "bccd_rbc_two_pictures.model", "filter_201_k1.model",
                             "filter_220_k3.model", "plain_201.model", "plain_260.model"}) {
        std::ifstream file(std::string(OSTREL_TEST_DATA_DIR) + "/../fuzz/corpus/" + name, std::ios::binary);
        const std::vector<unsigned char> classic((std::istreambuf_iterator<char>(file)),
                                                 std::istreambuf_iterator<char>());
        ASSERT_GE(classic.size(), 8u) << name;
        EXPECT_FALSE(ostrel::has_accurate_magic(classic.data(), classic.size())) << name;
        EXPECT_LT(classic[3], 0x80) << name;  // class_idx >= 0
    }
}

}  // namespace
