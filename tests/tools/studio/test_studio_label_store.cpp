// The studio's labels on disk: written at once in the chosen format next to
// the pictures, read back by a new store, other tools' labels shown and
// their files left alone, links out of the folder neither read nor written,
// classes renamed in every file.
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "labels/label_formats.h"
#include "studio/api_error.h"
#include "studio/label_store.h"
#include "studio/picture_store.h"
#include "support/test_data.h"

using namespace ostrel_tool;
using namespace ostrel_tool::studio;
namespace fs = std::filesystem;

namespace {

class LabelStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() /
                ("ostrel-label-store-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root_);
        fs::create_directories(folder());
        fs::create_directories(uploads());
        for (const char *name : {"BloodImage_00000.jpg", "BloodImage_00001.jpg"}) {
            fs::copy_file(ostrel_test::data_path(std::string("bccd/images/") + name), folder() / name);
        }
    }
    void TearDown() override { fs::remove_all(root_); }

    fs::path folder() const { return root_ / "pictures"; }
    fs::path uploads() const { return root_ / "uploads"; }
    static std::string text_of(const fs::path &p) {
        std::ifstream in(p);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    static std::vector<StudioLabel> cells() {
        return {{"RBC", {83, 336, 97, 100}}, {"RBC", {68, 237, 97, 100}}, {"WBC", {320, 222, 110, 100}}};
    }

    fs::path root_;
};

bool same(const std::vector<StudioLabel> &a, const std::vector<StudioLabel> &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].class_name != b[i].class_name || a[i].box != b[i].box) return false;
    }
    return true;
}

}  // namespace

TEST_F(LabelStoreTest, VocFilesBesideThePicturesAreReadBackByANewStore) {
    {
        PictureStore store(folder().string(), uploads().string());
        LabelStore labels(store, {});
        EXPECT_EQ(labels.format(), LabelFormat::voc);
        ASSERT_EQ(labels.classes().size(), 1u);
        EXPECT_EQ(labels.classes()[0].name, "object");
        EXPECT_EQ(labels.save("BloodImage_00000.jpg", cells()), "BloodImage_00000.xml");
        EXPECT_TRUE(fs::exists(folder() / "BloodImage_00000.xml"));
        EXPECT_NE(text_of(folder() / "BloodImage_00000.xml").find("<xmin>84</xmin>"), std::string::npos);
    }
    PictureStore store(folder().string(), uploads().string());
    LabelStore labels(store, {});
    EXPECT_TRUE(same(labels.labels("BloodImage_00000.jpg"), cells()));
    EXPECT_FALSE(labels.has_labels("BloodImage_00001.jpg"));
    const auto classes = labels.classes();
    ASSERT_EQ(classes.size(), 2u);  // as the labels name them; "object" only when there is none
    EXPECT_EQ(classes[0].name, "RBC");
    EXPECT_EQ(classes[1].name, "WBC");
}

TEST_F(LabelStoreTest, YoloAndCocoAsChosen) {
    for (const LabelFormat f : {LabelFormat::yolo, LabelFormat::coco}) {
        fs::remove_all(folder() / "BloodImage_00000.txt");
        LabelStoreSettings settings;
        settings.format = f;
        {
            PictureStore store(folder().string(), uploads().string());
            LabelStore labels(store, settings);
            labels.save("BloodImage_00000.jpg", cells());
        }
        EXPECT_TRUE(fs::exists(folder() / (f == LabelFormat::yolo ? "BloodImage_00000.txt" : "instances_studio.json")));
        PictureStore store(folder().string(), uploads().string());
        LabelStore labels(store, settings);
        EXPECT_TRUE(same(labels.labels("BloodImage_00000.jpg"), cells())) << format_name(f);
        // The tool reads them too.
        const LabelSet set = read_labels(folder().string(), f);
        EXPECT_EQ(box_count(set), 3u) << format_name(f);
    }
}

TEST_F(LabelStoreTest, BoxesOutsideThePictureAndBadClassNamesAreRefusedAndNothingIsWritten) {
    PictureStore store(folder().string(), uploads().string());
    LabelStore labels(store, {});
    const auto status_of = [&](const std::vector<StudioLabel> &l) {
        try {
            labels.save("BloodImage_00000.jpg", l);
        } catch (const ApiError &e) {
            return e.status();
        }
        return 200;
    };
    EXPECT_EQ(status_of({{"a", {600, 0, 50, 50}}}), 422);
    EXPECT_EQ(status_of({{"a", {0, 0, 0, 50}}}), 422);
    EXPECT_EQ(status_of({{"", {0, 0, 10, 10}}}), 422);
    EXPECT_EQ(status_of({{"a\nb", {0, 0, 10, 10}}}), 422);
    EXPECT_EQ(status_of({{"\xff\xfe", {0, 0, 10, 10}}}), 422);
    EXPECT_EQ(status_of(std::vector<StudioLabel>(501, {"a", {0, 0, 10, 10}})), 422);
    EXPECT_FALSE(fs::exists(folder() / "BloodImage_00000.xml"));
    try {
        labels.save("../BloodImage_00000.jpg", cells());
        FAIL() << "a name with a folder was taken";
    } catch (const ApiError &e) {
        EXPECT_EQ(e.status(), 404);
    }
}

TEST_F(LabelStoreTest, ALabelFileThatIsALinkOutOfTheFolderIsNeitherReadNorWritten) {
    const fs::path outside = root_ / "outside.xml";
    {
        std::ofstream out(outside);
        out << "not a label file";
    }
    fs::create_symlink(outside, folder() / "BloodImage_00000.xml");
    PictureStore store(folder().string(), uploads().string());
    LabelStore labels(store, {});
    EXPECT_FALSE(labels.has_labels("BloodImage_00000.jpg"));
    ASSERT_FALSE(labels.notes().empty());
    try {
        labels.save("BloodImage_00000.jpg", cells());
        FAIL() << "written through a link out of the folder";
    } catch (const ApiError &e) {
        EXPECT_EQ(e.status(), 409);
    }
    EXPECT_EQ(text_of(outside), "not a label file");
    // Another picture is saved as usual.
    labels.save("BloodImage_00001.jpg", cells());
    EXPECT_TRUE(fs::exists(folder() / "BloodImage_00001.xml"));
}

TEST_F(LabelStoreTest, AnUnreadableLabelFileIsNotWrittenOver) {
    {
        std::ofstream out(folder() / "BloodImage_00000.xml");
        out << "<annotation><object><name>x</name><bndbox><xmin>oops</xmin></bndbox></object>";
    }
    const std::string before = text_of(folder() / "BloodImage_00000.xml");
    PictureStore store(folder().string(), uploads().string());
    LabelStore labels(store, {});
    EXPECT_FALSE(labels.notes().empty());
    EXPECT_THROW(labels.save("BloodImage_00000.jpg", cells()), ApiError);
    EXPECT_EQ(text_of(folder() / "BloodImage_00000.xml"), before);
}

TEST_F(LabelStoreTest, RenamingAClassRewritesEveryFileThatUsesIt) {
    PictureStore store(folder().string(), uploads().string());
    LabelStore labels(store, {});
    labels.save("BloodImage_00000.jpg", cells());
    labels.save("BloodImage_00001.jpg", {{"WBC", {10, 10, 100, 100}}});
    labels.update_class("WBC", std::string("white cell"), std::string("#00ff00"));
    EXPECT_NE(text_of(folder() / "BloodImage_00000.xml").find("<name>white cell</name>"), std::string::npos);
    EXPECT_NE(text_of(folder() / "BloodImage_00001.xml").find("<name>white cell</name>"), std::string::npos);
    EXPECT_EQ(labels.labels("BloodImage_00001.jpg")[0].class_name, "white cell");
    EXPECT_THROW(labels.update_class("RBC", std::string("white cell"), std::nullopt), ApiError);
    EXPECT_THROW(labels.update_class("nothing", std::string("x"), std::nullopt), ApiError);
    EXPECT_THROW(labels.update_class("RBC", std::nullopt, std::string("blue")), ApiError);
    EXPECT_THROW(labels.add_class("RBC", ""), ApiError);
}

TEST_F(LabelStoreTest, LabelsOfAnotherToolAreShownAndItsFileIsLeftAlone) {
    LabelSet other;
    other.format = LabelFormat::coco;
    other.classes = {"RBC"};
    LabelledPicture p;
    p.name = "BloodImage_00001.jpg";
    p.picture_path = (folder() / "BloodImage_00001.jpg").string();
    p.width = 640;
    p.height = 480;
    p.boxes.push_back(label_box_of({5, 6, 70, 80}, "RBC"));
    other.pictures.push_back(p);
    write_label_set(other, LabelFormat::coco, (folder() / "_annotations.coco.json").string());
    const std::string before = text_of(folder() / "_annotations.coco.json");

    PictureStore store(folder().string(), uploads().string());
    LabelStore labels(store, {});
    EXPECT_EQ(labels.format(), LabelFormat::coco);  // the folder's labels are COCO: the studio keeps it
    ASSERT_TRUE(labels.has_labels("BloodImage_00001.jpg"));
    EXPECT_EQ(labels.labels("BloodImage_00001.jpg")[0].box, (Rect{5, 6, 70, 80}));
    labels.save("BloodImage_00001.jpg", cells());
    EXPECT_EQ(text_of(folder() / "_annotations.coco.json"), before);
    EXPECT_TRUE(fs::exists(folder() / "instances_studio.json"));
}
