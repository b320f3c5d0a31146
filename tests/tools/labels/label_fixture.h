// The label files of tests/tools/label_files/, copied into a fresh folder
// with the shipped blood pictures where each tool's export puts them.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/test_data.h"
#include "tools/support/tool_test_support.h"

namespace label_fixture {

namespace fs = std::filesystem;

inline fs::path label_files() { return fs::path(__FILE__).parent_path().parent_path() / "label_files"; }

using ::bytes_of;

inline void write(const fs::path &path, const std::string &text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

class LabelFiles : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() / ("ostrel-labels-" + std::to_string(::getpid()) + "-" +
                                             ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root_);
        fs::create_directories(root_);
        fs::copy(label_files(), root_, fs::copy_options::recursive);
        const fs::path blood = ostrel_test::data_path("bccd/images");
        for (const char *where : {"coco/images", "yolo_ultralytics/images/train", "yolo_roboflow/train/images",
                                  "yolo_side_by_side", "cvat/images", "labelstudio", "imglab", "voc"}) {
            fs::create_directories(root_ / where);
            for (const char *name : {"BloodImage_00001.jpg", "BloodImage_00002.jpg"}) {
                fs::copy_file(blood / name, root_ / where / name, fs::copy_options::overwrite_existing);
            }
        }
    }
    void TearDown() override { fs::remove_all(root_); }

    std::string at(const std::string &relative) const { return (root_ / relative).string(); }
    fs::path root_;
};

}  // namespace label_fixture
