#include "OwnLine.h"

#include <gtest/gtest.h>

using vela::cli::OwnLine;
using vela::cli::parseOwnLine;

TEST(OwnLine, AddChangeRemove)
{
    OwnLine l;
    std::string error;
    ASSERT_TRUE(parseOwnLine("add sync/param {\"timesource\": \"Ptp\", \"threshold\": 1.5}", l, error));
    EXPECT_EQ(l.op, OwnLine::Op::kAdd);
    EXPECT_EQ(l.path, "sync/param");
    EXPECT_EQ(l.value["timesource"], "Ptp");
    ASSERT_TRUE(parseOwnLine("  change   a/b   \"x y\"  \r", l, error));
    EXPECT_EQ(l.op, OwnLine::Op::kChange);
    EXPECT_EQ(l.path, "a/b");
    EXPECT_EQ(l.value, "x y");
    ASSERT_TRUE(parseOwnLine("remove a/b", l, error));
    EXPECT_EQ(l.op, OwnLine::Op::kRemove);
    EXPECT_EQ(l.path, "a/b");
}

TEST(OwnLine, BlankAndCommentLinesDoNothing)
{
    OwnLine l;
    std::string error;
    ASSERT_TRUE(parseOwnLine("", l, error));
    EXPECT_EQ(l.op, OwnLine::Op::kNone);
    ASSERT_TRUE(parseOwnLine("   # add a 1", l, error));
    EXPECT_EQ(l.op, OwnLine::Op::kNone);
}

TEST(OwnLine, MalformedLinesAreRefusedWithAReason)
{
    OwnLine l;
    for (const char* bad : {"put a 1", "add", "add a", "add a {", "change a 1 2", "remove", "remove a 1"}) {
        std::string error;
        EXPECT_FALSE(parseOwnLine(bad, l, error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
}
