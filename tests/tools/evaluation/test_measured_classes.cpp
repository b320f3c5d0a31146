// Pins down which classes `ostrel eval` measures when the detections come
// with several classes (a model of several classes, or a file of their
// detections): each --class on its own, a,b merged, by default every class
// named; an unknown --class refused with the classes named; and the order
// a file's classes take (the labels', then the file's own).
#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "evaluation/measured_classes.h"

namespace ostrel_tool {
namespace {

std::vector<std::string> names_of(const std::vector<ClassGroup> &groups) {
    std::vector<std::string> names;
    for (const ClassGroup &g : groups) {
        names.push_back(g.display());
    }
    return names;
}

const std::vector<std::string> kPawns = {"white-pawn", "black-pawn"};

TEST(MeasuredClasses, EveryClassNamedByDefaultInItsOrder) {
    const auto groups = measured_classes({}, kPawns, "the model");
    EXPECT_EQ(names_of(groups), kPawns);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[1].names, std::vector<std::string>{"black-pawn"});
}

TEST(MeasuredClasses, EachClassAskedOnItsOwnInTheOrderAsked) {
    EXPECT_EQ(names_of(measured_classes({"black-pawn", "white-pawn"}, kPawns, "the model")),
              (std::vector<std::string>{"black-pawn", "white-pawn"}));
    EXPECT_EQ(names_of(measured_classes({"black-pawn"}, kPawns, "the model")), std::vector<std::string>{"black-pawn"});
}

TEST(MeasuredClasses, CommaMergesIntoOneClass) {
    const auto groups = measured_classes({"white-pawn,black-pawn"}, kPawns, "the model");
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_EQ(groups[0].names, kPawns);
    // A merged group that holds at least one named class is known.
    EXPECT_EQ(measured_classes({"white-pawn,white-king"}, kPawns, "x").size(), 1u);
    // A class named "a,b" (a model trained with --class a,b) is asked by that name.
    EXPECT_EQ(measured_classes({"a,b"}, {"a,b", "c"}, "x").size(), 1u);
}

TEST(MeasuredClasses, UnknownClassRefusedNamingTheClasses) {
    try {
        measured_classes({"white-pawn", "white-king"}, kPawns, "'found.jsonl'");
        FAIL() << "an unknown class was measured";
    } catch (const ToolError &e) {
        EXPECT_EQ(e.code(), ExitCode::usage);
        EXPECT_STREQ(e.what(), "'found.jsonl' has no class 'white-king' (its classes: white-pawn, black-pawn)");
    }
}

TEST(MeasuredClasses, FileClassesTakeTheLabelsOrderThenTheirOwn) {
    // The labels declare queen, pawn, king; the file names king, rook, pawn.
    EXPECT_EQ(in_label_order({"king", "rook", "pawn"}, {"queen", "pawn", "king"}),
              (std::vector<std::string>{"pawn", "king", "rook"}));
    EXPECT_EQ(in_label_order({"b", "a"}, {}), (std::vector<std::string>{"b", "a"}));
    EXPECT_TRUE(in_label_order({}, {"a"}).empty());
}

}  // namespace
}  // namespace ostrel_tool
