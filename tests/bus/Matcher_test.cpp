#include "Matcher.h"

#include <gtest/gtest.h>

using vela::matcher_t;

namespace {

matcher_t make(std::string equals, std::string startsWith, std::string endsWith, std::string contains,
               std::string equalsNot)
{
    matcher_t m;
    m.equals = std::move(equals);
    m.startsWith = std::move(startsWith);
    m.endsWith = std::move(endsWith);
    m.contains = std::move(contains);
    m.equalsNot = std::move(equalsNot);
    return m;
}

struct Case
{
    matcher_t matcher;
    const char* path;
    bool expected;
};

}  // namespace

TEST(Matcher, TableOfCriteria)
{
    const Case cases[] = {
        // All empty: everything.
        {make("", "", "", "", ""), "anything", true},
        {make("", "", "", "", ""), "", true},
        // equals
        {make("sync/param", "", "", "", ""), "sync/param", true},
        {make("sync/param", "", "", "", ""), "sync/params", false},
        {make("sync/param", "", "", "", ""), "sync/para", false},
        // startsWith
        {make("", "reachableDevices/firewire", "", "", ""), "reachableDevices/firewire0/0A7C31000001", true},
        {make("", "reachableDevices/firewire", "", "", ""), "reachableDevices/firewire", true},
        {make("", "reachableDevices/firewire", "", "", ""), "reachableDevices/usb0/1", false},
        {make("", "reachableDevices/firewire", "", "", ""), "reachable", false},
        // endsWith
        {make("", "", "/master", "", ""), "sync/master", true},
        {make("", "", "/master", "", ""), "sync/masters", false},
        {make("", "", "/master", "", ""), "aster", false},
        // contains
        {make("", "", "", "errors", ""), "sync/errors/-1", true},
        {make("", "", "", "errors", ""), "sync/error", false},
        // equalsNot
        {make("", "", "", "", "sync/app"), "sync/app", false},
        {make("", "", "", "", "sync/app"), "sync/apps", true},
        // Combinations: every non-empty criterion must hold.
        {make("", "sync/", "", "", "sync/app"), "sync/master", true},
        {make("", "sync/", "", "", "sync/app"), "sync/app", false},
        {make("", "sync/", "/5", "errors", ""), "sync/errors/5", true},
        {make("", "sync/", "/5", "errors", ""), "sync/errors/-5x", false},
        {make("sync/app", "other/", "", "", ""), "sync/app", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(vela::matches(c.matcher, c.path), c.expected)
            << "path '" << c.path << "' matcher " << vela::matcherToJson(c.matcher).toStyledString();
    }
}

TEST(Matcher, JsonCarriesOnlyNonEmptyCriteriaAndReadsBack)
{
    const matcher_t m = make("", "a/", "", "x", "a/x");
    const Json::Value json = vela::matcherToJson(m);
    EXPECT_EQ(json.size(), 3u);
    matcher_t back;
    std::string error;
    ASSERT_TRUE(vela::matcherFromJson(json, back, &error)) << error;
    EXPECT_EQ(back.startsWith, "a/");
    EXPECT_EQ(back.contains, "x");
    EXPECT_EQ(back.equalsNot, "a/x");
    EXPECT_TRUE(back.equals.empty());
    EXPECT_TRUE(back.endsWith.empty());
}

TEST(Matcher, UnknownOrNonStringCriteriaAreRefused)
{
    matcher_t m;
    std::string error;
    Json::Value typo(Json::objectValue);
    typo["startswith"] = "a";
    EXPECT_FALSE(vela::matcherFromJson(typo, m, &error));
    EXPECT_NE(error.find("startswith"), std::string::npos);

    Json::Value number(Json::objectValue);
    number["equals"] = 5;
    EXPECT_FALSE(vela::matcherFromJson(number, m, &error));

    EXPECT_FALSE(vela::matcherFromJson(Json::Value("a"), m, &error));
    EXPECT_TRUE(vela::matcherFromJson(Json::Value(), m, &error));
}
