// The tool's engine wrapper keeps the library's lines off standard output.
#include <gtest/gtest.h>

#include "engine.h"
#include "support/stdout_capture.h"

using namespace ostrel_tool;

TEST(Engine, LibraryLinesNeverReachStandardOutput) {
    const std::string leaked = ostrel_test::capture_stdout([] {
        Engine engine;
        EXPECT_FALSE(engine.trained());
        EXPECT_TRUE(engine.set_sensitivity(50));
        // A missing model file is refused, and the library says why.
        EXPECT_FALSE(engine.check_model("/nonexistent/model.bin"));
        EXPECT_FALSE(engine.last_lines().empty());
        EXPECT_FALSE(engine.last_line().empty());
    });
    EXPECT_EQ(leaked, "");
}

TEST(Engine, ExtraHandlerSeesTheLines) {
    Engine engine;
    int seen = 0;
    engine.set_line_handler([&](const std::string &) { ++seen; });
    EXPECT_FALSE(engine.import_model("/nonexistent/model.bin"));
    EXPECT_EQ(static_cast<size_t>(seen), engine.last_lines().size());
}
