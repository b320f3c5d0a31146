// The studio's workspace and its classes: under the accurate profile every
// class it trains is a class of one library engine (one detection pass
// names every box's class, one model file holds every class); one class
// stays a file of one unnamed class; the classic profile keeps an engine a
// class; a model file of several classes brings its classes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include "engine/engine.h"
#include "studio/api_error.h"
#include "studio/picture_store.h"
#include "studio/workspace.h"
#include "support/test_data.h"

namespace {

using ostrel_tool::Engine;
using ostrel_tool::Rect;
using ostrel_tool::studio::ApiError;
using ostrel_tool::studio::PictureStore;
using ostrel_tool::studio::Workspace;
using ostrel_tool::studio::WorkspaceSettings;

const char *const kTraining = "BloodImage_00000.jpg";
const char *const kOther = "BloodImage_00001.jpg";

std::vector<Rect> red_cells() {
    return {{83, 336, 97, 100}, {68, 237, 97, 100}, {219, 362, 97, 100}, {412, 349, 97, 100},
            {153, 75, 97, 100}, {9, 74, 97, 100},   {538, 40, 97, 100}};
}
const Rect kWhiteCell{320, 222, 110, 100};

class StudioWorkspaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = std::filesystem::temp_directory_path() / ("ostrel-studio-workspace-" + std::to_string(::getpid()));
        std::filesystem::remove_all(root_);
        std::filesystem::create_directories(root_ / "uploads");
        std::filesystem::create_directories(root_ / "scratch");
        store_ = std::make_unique<PictureStore>(ostrel_test::data_path("bccd/images"), (root_ / "uploads").string());
    }
    void TearDown() override {
        workspace_.reset();
        store_.reset();
        std::filesystem::remove_all(root_);
    }
    Workspace &open(const std::string &profile) {
        WorkspaceSettings settings;
        settings.scratch_folder = (root_ / "scratch").string();
        settings.profile = profile;
        workspace_ = std::make_unique<Workspace>(*store_, settings);
        return *workspace_;
    }
    // The class names a model file holds, as a fresh engine reads them.
    std::vector<std::string> classes_of(const std::string &bytes) {
        const std::string path = (root_ / "probe.model").string();
        std::ofstream(path, std::ios::binary) << bytes;
        Engine engine;
        EXPECT_TRUE(engine.import_model(path)) << engine.last_error();
        return engine.class_names();
    }

    std::filesystem::path root_;
    std::unique_ptr<PictureStore> store_;
    std::unique_ptr<Workspace> workspace_;
};

TEST_F(StudioWorkspaceTest, AccurateClassesShareOneEngineOneDetectionAndOneModelFile) {
    Workspace &w = open("accurate");
    w.train_labels(kTraining, {{"RBC", red_cells()}, {"WBC", {kWhiteCell}}});
    const auto status = w.status();
    EXPECT_EQ(status["model_files"], 1);
    for (const auto &d : status["detectors"]) EXPECT_TRUE(d["shared"].get<bool>()) << d.dump();

    const auto found = w.detect(kTraining, 100);
    ASSERT_EQ(found.box_classes.size(), found.boxes.size());
    EXPECT_EQ(std::set<std::string>(found.box_classes.begin(), found.box_classes.end()),
              (std::set<std::string>{"RBC", "WBC"}));

    const std::string model = w.model_bytes("");
    EXPECT_EQ(classes_of(model), (std::vector<std::string>{"RBC", "WBC"}));
    // A class named: the file that holds it.
    EXPECT_EQ(w.model_bytes("WBC"), model);
    // Each class's samples are its own.
    uint64_t generation = 0;
    size_t white = 0;
    for (const auto &s : w.samples(generation)) white += s.class_name == "WBC";
    EXPECT_EQ(white, 1u);
}

TEST_F(StudioWorkspaceTest, OneAccurateClassStaysAModelOfOneUnnamedClass) {
    Workspace &w = open("accurate");
    w.train_labels(kTraining, {{"RBC", red_cells()}});
    EXPECT_EQ(classes_of(w.model_bytes("")), (std::vector<std::string>{""}));
}

TEST_F(StudioWorkspaceTest, ANewClassJoinsTheEngineAndARenameReachesTheModelFile) {
    Workspace &w = open("accurate");
    w.train_labels(kTraining, {{"RBC", red_cells()}, {"WBC", {kWhiteCell}}});
    const auto added = w.train_labels(kOther, {{"Platelets", {{10, 10, 100, 90}}}});
    EXPECT_FALSE(added.rebuilt) << "a new class is added to what the engine holds";
    EXPECT_EQ(classes_of(w.model_bytes("")), (std::vector<std::string>{"RBC", "WBC", "Platelets"}));
    w.rename_class("Platelets", "PLT");
    EXPECT_EQ(classes_of(w.model_bytes("")), (std::vector<std::string>{"RBC", "WBC", "PLT"}));
    // Training a picture again rebuilds the engine from every class's list.
    const auto again = w.train_labels(kTraining, {{"RBC", red_cells()}, {"WBC", {kWhiteCell}}});
    EXPECT_TRUE(again.rebuilt);
    EXPECT_EQ(classes_of(w.model_bytes("")), (std::vector<std::string>{"RBC", "WBC", "PLT"}));
}

TEST_F(StudioWorkspaceTest, AModelFileOfSeveralClassesBringsItsClassesAndReplacesTheDetector) {
    Workspace &w = open("accurate");
    w.train_labels(kTraining, {{"RBC", red_cells()}, {"WBC", {kWhiteCell}}});
    const std::string model = w.model_bytes("");

    Workspace &fresh = open("accurate");
    fresh.train_labels(kTraining, {{"object", red_cells()}});
    const auto loaded = fresh.load_model(model, "two.model", "object", false);
    EXPECT_EQ(loaded, (std::vector<std::string>{"RBC", "WBC"}));
    const auto status = fresh.status();
    std::vector<std::string> trained;
    for (const auto &d : status["detectors"]) {
        if (d["trained"].get<bool>()) trained.push_back(d["name"].get<std::string>());
    }
    EXPECT_EQ(trained, (std::vector<std::string>{"RBC", "WBC"}));
    const auto found = fresh.detect(kOther, 100);
    for (const auto &c : found.box_classes) EXPECT_TRUE(c == "RBC" || c == "WBC") << c;
    EXPECT_EQ(classes_of(fresh.model_bytes("")), (std::vector<std::string>{"RBC", "WBC"}));
}

TEST_F(StudioWorkspaceTest, TheClassicProfileKeepsAnEngineAClassAndSaysWhy) {
    Workspace &w = open("classic");
    w.train_labels(kTraining, {{"RBC", red_cells()}, {"WBC", {kWhiteCell}}});
    EXPECT_EQ(w.status()["model_files"], 2);
    try {
        w.model_bytes("");
        FAIL() << "two classic models are not one file";
    } catch (const ApiError &e) {
        EXPECT_EQ(e.status(), 409);
        EXPECT_NE(std::string(e.what()).find("accurate profile"), std::string::npos) << e.what();
    }
    EXPECT_EQ(classes_of(w.model_bytes("WBC")).size(), 1u);
}

}  // namespace
