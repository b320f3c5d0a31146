// The tool's engine wrapper keeps the library's lines off standard output.
#include <gtest/gtest.h>

#include "engine/engine.h"
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
    });
    EXPECT_EQ(leaked, "");
}

// What a failed call means comes from the library's error record, not from
// its lines.
TEST(Engine, LastErrorSaysWhatFailed) {
    Engine engine;
    EXPECT_EQ(engine.last_error_code(), OSTREL_ALG_ERR_OK);
    EXPECT_EQ(engine.last_error(), "");
    EXPECT_FALSE(engine.import_model("/nonexistent/model.bin"));
    EXPECT_EQ(engine.last_error_code(), OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE);
    EXPECT_EQ(engine.last_error(), "ostrel_alg_importModel_ptr: cannot open the model file /nonexistent/model.bin");
    // A call that succeeds leaves the record as it was.
    EXPECT_TRUE(engine.set_sensitivity(50));
    EXPECT_EQ(engine.last_error_code(), OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE);
}
