#include "orv/string/split.h"

#include <gtest/gtest.h>

using orv::string::split;
using Fields = std::vector<std::string>;

TEST(split, SplitsAtEveryDelimiter)
{
    EXPECT_EQ(split("<sync>:start:<sync>", ":"), (Fields{"<sync>", "start", "<sync>"}));
}

TEST(split, KeepsEmptyFields)
{
    EXPECT_EQ(split("a::b", ":"), (Fields{"a", "", "b"}));
    EXPECT_EQ(split("a:", ":"), (Fields{"a", ""}));
    EXPECT_EQ(split(":a", ":"), (Fields{"", "a"}));
    EXPECT_EQ(split(":", ":"), (Fields{"", ""}));
}

TEST(split, EmptyTextIsOneEmptyField)
{
    EXPECT_EQ(split("", ":"), (Fields{""}));
}

TEST(split, TextWithoutDelimiterIsOneField)
{
    EXPECT_EQ(split("firewire0", "/"), (Fields{"firewire0"}));
}

TEST(split, MultiCharacterDelimiter)
{
    EXPECT_EQ(split("a<>b<><>c", "<>"), (Fields{"a", "b", "", "c"}));
    // Overlapping candidates: the scan resumes after each whole delimiter.
    EXPECT_EQ(split("aaa", "aa"), (Fields{"", "a"}));
}

TEST(split, EmptyDelimiterGivesWholeText)
{
    EXPECT_EQ(split("a:b", ""), (Fields{"a:b"}));
    EXPECT_EQ(split("", ""), (Fields{""}));
}

TEST(split, FieldCountIsDelimitersPlusOne)
{
    const std::string text = "reachableDevices/firewire0/0a7c31abcdef01/x/";
    EXPECT_EQ(split(text, "/").size(), 5u);
}

TEST(split, EmbeddedNulBytesAreKept)
{
    const std::string text("a\0b:c", 5);
    const Fields fields = split(text, ":");
    ASSERT_EQ(fields.size(), 2u);
    EXPECT_EQ(fields[0], std::string("a\0b", 3));
    EXPECT_EQ(fields[1], "c");
}
