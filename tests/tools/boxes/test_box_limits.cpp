// Box files are bounded (bytes and boxes, counted before any box is built),
// and numbers out of range are named as such.
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "boxes/box_io.h"
#include "cli/tool_error.h"

using namespace ostrel_tool;
namespace fs = std::filesystem;

namespace {

std::string box_list(size_t n) {
    std::string s = "[";
    for (size_t i = 0; i < n; ++i) {
        s += (i ? "," : "") + std::string("[1,2,3,4]");
    }
    return s + "]";
}

struct Refusal {
    ExitCode code = ExitCode::ok;
    std::string message;
};

Refusal refusal_of(const std::function<void()> &f) {
    try {
        f();
    } catch (const ToolError &e) {
        return {e.code(), e.what()};
    }
    return {};
}

}  // namespace

TEST(BoxLimits, AListAboveTheLimitIsRefusedByItsCount) {
    EXPECT_EQ(parse_box_list_json(box_list(kMaxMarkedBoxes), "b.json").size(), kMaxMarkedBoxes);
    const Refusal r = refusal_of([] { parse_box_list_json(box_list(kMaxMarkedBoxes + 1), "b.json"); });
    EXPECT_EQ(r.code, ExitCode::input);
    EXPECT_NE(r.message.find("1001 boxes; a picture takes at most 1000"), std::string::npos) << r.message;
}

TEST(BoxLimits, ABoxFileAboveItsByteLimitIsRefusedUnread) {
    const fs::path dir = fs::temp_directory_path() / "ostrel_box_limits";
    fs::remove_all(dir);
    fs::create_directories(dir / "folder.json");
    {
        std::ofstream big(dir / "big.json");
        big << box_list(200000);
    }
    const Refusal big = refusal_of([&] { read_box_file((dir / "big.json").string(), ""); });
    EXPECT_EQ(big.code, ExitCode::input);
    EXPECT_NE(big.message.find("at most"), std::string::npos) << big.message;
    const Refusal folder = refusal_of([&] { read_box_file((dir / "folder.json").string(), ""); });
    EXPECT_EQ(folder.code, ExitCode::input);
    EXPECT_NE(folder.message.find("is a folder"), std::string::npos) << folder.message;
    fs::remove_all(dir);
}

TEST(BoxLimits, NumbersOutOfRangeAreNamed) {
    const Refusal huge = refusal_of([] { parse_box_list_json("[[1e400, 1, 2, 3]]", "b.json"); });
    EXPECT_EQ(huge.code, ExitCode::input);
    EXPECT_NE(huge.message.find("out of range"), std::string::npos) << huge.message;
    EXPECT_EQ(huge.message.find("json.exception"), std::string::npos) << huge.message;
    const Refusal big_int = refusal_of([] { parse_box_list_json("[[99999999999999999999, 1, 2, 3]]", "b.json"); });
    EXPECT_EQ(big_int.code, ExitCode::input);
    const Refusal argument = refusal_of([] { parse_box_argument("2147483647,2147483647,97,100"); });
    EXPECT_EQ(argument.code, ExitCode::usage);
    EXPECT_NE(argument.message.find("2147483647 is out of range"), std::string::npos) << argument.message;
    const Refusal words = refusal_of([] { parse_box_argument("a,b,c,d"); });
    EXPECT_NE(words.message.find("four integers"), std::string::npos) << words.message;
    EXPECT_EQ(parse_box_argument("1073741823,0,5,5").x, 1073741823);
}
