// Phone photos in the studio: a JPEG stored on its side with EXIF
// orientation 6 is listed, uploaded and decoded upright, with the size a
// viewer shows, as every other picture.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <unistd.h>

#include <opencv2/imgcodecs.hpp>

#include "studio/picture_store.h"
#include "support/exif_pictures.h"
#include "support/test_data.h"

using namespace ostrel_tool;
using namespace ostrel_tool::studio;
namespace fs = std::filesystem;

namespace {

class PhonePhoto : public testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() / ("ostrel_studio_orientation_" + std::to_string(::getpid()));
        fs::remove_all(root_);
        fs::create_directories(root_ / "pictures");
        fs::create_directories(root_ / "uploads");
        upright_ = cv::imread(ostrel_test::data_path("bccd/images/BloodImage_00000.jpg"), cv::IMREAD_COLOR);
        ASSERT_EQ(upright_.cols, 640);
        photo_ = ostrel_test::jpeg_with_orientation(ostrel_test::stored_for_orientation(upright_, 6), 6);
        std::ofstream(root_ / "pictures" / "phone.jpg", std::ios::binary) << photo_;
    }
    void TearDown() override { fs::remove_all(root_); }

    fs::path root_;
    cv::Mat upright_;
    std::string photo_;
};

}  // namespace

TEST_F(PhonePhoto, AFolderPictureIsListedAndDecodedUpright) {
    PictureStore store((root_ / "pictures").string(), (root_ / "uploads").string());
    EXPECT_TRUE(store.skipped().empty());
    const PictureEntry entry = store.find("phone.jpg");
    EXPECT_EQ(entry.width, 640);
    EXPECT_EQ(entry.height, 480);
    const auto picture = store.picture("phone.jpg");  // refused as "cannot be decoded" when the sizes disagree
    EXPECT_EQ(picture->width(), 640);
    EXPECT_EQ(picture->height(), 480);
}

TEST_F(PhonePhoto, AnUploadIsAcceptedUpright) {
    PictureStore store((root_ / "pictures").string(), (root_ / "uploads").string());
    const PictureEntry entry = store.add_upload(photo_, "portrait.jpg");  // refused as "damaged" when they disagree
    EXPECT_EQ(entry.width, 640);
    EXPECT_EQ(entry.height, 480);
    EXPECT_EQ(store.picture(entry.name)->width(), 640);
}
