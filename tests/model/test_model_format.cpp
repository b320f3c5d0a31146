// Which reader a model file goes to: the accurate magic first means the
// accurate reader; anything else - a classic file, a short file, a file
// that does not exist - the classic reader, which answers as it always has.
// Whole files are read within a bound.
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model/accurate_model_file.h"
#include "model/model_format.h"
#include "support/test_data.h"

namespace {

std::string temporary(const std::string &name, const std::string &bytes) {
    const std::string path = testing::TempDir() + name;
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
}

TEST(ModelFormat, TheFirstBytesChooseTheReader) {
    const std::string magic(reinterpret_cast<const char *>(ostrel::kAccurateModelMagic), 8);
    EXPECT_EQ(ostrel::sniff_model_format(temporary("format_accurate.model", magic + "rest")),
              ostrel::model_format::accurate);
    EXPECT_EQ(ostrel::sniff_model_format(temporary("format_short.model", magic.substr(0, 7))),
              ostrel::model_format::classic);
    EXPECT_EQ(ostrel::sniff_model_format(temporary("format_empty.model", "")), ostrel::model_format::classic);
    EXPECT_EQ(ostrel::sniff_model_format(testing::TempDir() + "format_missing.model"), ostrel::model_format::classic);
    EXPECT_EQ(ostrel::sniff_model_format(std::string(OSTREL_TEST_DATA_DIR) + "/../fuzz/corpus/plain_201.model"),
              ostrel::model_format::classic);
}

TEST(ModelFormat, WholeFilesAreReadWithinABound) {
    const std::string path = temporary("format_whole.model", std::string(100, 'x'));
    std::vector<unsigned char> bytes;
    std::string problem;
    ASSERT_TRUE(ostrel::read_whole_file(path, 100, &bytes, &problem)) << problem;
    EXPECT_EQ(bytes.size(), 100u);
    EXPECT_FALSE(ostrel::read_whole_file(path, 99, &bytes, &problem));
    EXPECT_TRUE(bytes.empty());
    EXPECT_NE(problem.find("longer"), std::string::npos);
    EXPECT_FALSE(ostrel::read_whole_file(testing::TempDir() + "format_missing.model", 100, &bytes, &problem));
    EXPECT_NE(problem.find("cannot be opened"), std::string::npos);
    std::remove(path.c_str());
}

}  // namespace
