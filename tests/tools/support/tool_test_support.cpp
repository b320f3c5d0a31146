#include "tools/support/tool_test_support.h"

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "cli/tool_error.h"

namespace fs = std::filesystem;

fs::path fresh_dir(const std::string &name) {
    const fs::path dir = fs::path(::testing::TempDir()) / ("ostrel_tool_" + name);
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

std::string bytes_of(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string content_of(const fs::path &path) { return bytes_of(path); }

bool has_temporaries(const fs::path &dir) {
    for (const auto &e : fs::directory_iterator(dir)) {
        if (e.path().filename().string().find(".tmp-") != std::string::npos) {
            return true;
        }
    }
    return false;
}

ostrel_tool::ExitCode code_of(const std::function<void()> &f) {
    try {
        f();
    } catch (const ostrel_tool::ToolError &e) {
        return e.code();
    }
    return ostrel_tool::ExitCode::ok;
}

std::string message_of(const std::function<void()> &f) {
    try {
        f();
    } catch (const ostrel_tool::ToolError &e) {
        return e.what();
    }
    return "";
}

ostrel_alg_progress samples(int32_t count) {
    ostrel_alg_progress p{};
    p.stage = OSTREL_ALG_STAGE_SAMPLES;
    p.samples = count;
    return p;
}

ostrel_alg_progress skipped() {
    ostrel_alg_progress p{};
    p.stage = OSTREL_ALG_STAGE_BOX_SKIPPED;
    p.boxes_skipped = 1;
    return p;
}

ostrel_alg_progress pass(int32_t round, int32_t false_positives, int32_t low_confidence) {
    ostrel_alg_progress p{};
    p.stage = OSTREL_ALG_STAGE_PASS;
    p.round = round;
    p.false_positives = false_positives;
    p.low_confidence = low_confidence;
    return p;
}
