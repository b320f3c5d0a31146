// A studio's JSON handlers over the shipped pictures, without HTTP: a
// picture store (uploads in a temporary folder), a workspace and the
// interface, for tests that call StudioApi::handle directly.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include <unistd.h>

#include "studio/picture_store.h"
#include "studio/studio_api.h"
#include "studio/workspace.h"
#include "support/test_data.h"

namespace ostrel_test {

class StudioHandlersTest : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = std::filesystem::temp_directory_path() / ("ostrel-studio-handlers-" + std::to_string(::getpid()));
        std::filesystem::remove_all(root_);
        std::filesystem::create_directories(root_ / "uploads");
        std::filesystem::create_directories(root_ / "scratch");
        store_ =
            std::make_unique<ostrel_tool::studio::PictureStore>(data_path("bccd/images"), (root_ / "uploads").string());
        ostrel_tool::studio::WorkspaceSettings settings;
        settings.scratch_folder = (root_ / "scratch").string();
        workspace_ = std::make_unique<ostrel_tool::studio::Workspace>(*store_, settings);
        api_ = std::make_unique<ostrel_tool::studio::StudioApi>(*store_, *workspace_);
    }
    void TearDown() override {
        api_.reset();
        workspace_.reset();
        store_.reset();
        std::filesystem::remove_all(root_);
    }

    ostrel_tool::studio::ApiResponse call(const std::string &method, const std::string &path,
                                          const std::string &body = "", const std::string &type = "application/json",
                                          std::map<std::string, std::string> query = {}) {
        ostrel_tool::studio::ApiRequest r;
        r.method = method;
        r.path = path;
        r.body = body;
        r.content_type = type;
        r.query = std::move(query);
        return api_->handle(r);
    }

    std::filesystem::path root_;
    std::unique_ptr<ostrel_tool::studio::PictureStore> store_;
    std::unique_ptr<ostrel_tool::studio::Workspace> workspace_;
    std::unique_ptr<ostrel_tool::studio::StudioApi> api_;
};

}  // namespace ostrel_test
