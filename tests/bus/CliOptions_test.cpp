#include "CliOptions.h"

#include <gtest/gtest.h>

#include <vector>

using vela::cli::CliOptions;

namespace {

bool parse(std::vector<const char*> args, CliOptions& o, std::string& error)
{
    args.insert(args.begin(), "vela");
    return vela::cli::parseCliOptions(static_cast<int>(args.size()), args.data(), o, error);
}

}  // namespace

TEST(CliOptions, DefaultsAndGlobalOptions)
{
    CliOptions o;
    std::string error;
    ASSERT_TRUE(parse({"get", "sync/app"}, o, error)) << error;
    EXPECT_EQ(o.address, "127.0.0.1");
    EXPECT_EQ(o.port, 11122u);
    EXPECT_EQ(o.command, "get");
    EXPECT_EQ(o.args, std::vector<std::string>{"sync/app"});

    CliOptions o2;
    ASSERT_TRUE(parse({"--address", "127.0.0.2", "--port", "4000", "list"}, o2, error)) << error;
    EXPECT_EQ(o2.address, "127.0.0.2");
    EXPECT_EQ(o2.port, 4000u);
    EXPECT_TRUE(o2.args.empty());
}

TEST(CliOptions, WatchTakesCountAndForAnywhere)
{
    CliOptions o;
    std::string error;
    ASSERT_TRUE(parse({"watch", "--count", "3", "sync/", "--for", "1.5"}, o, error)) << error;
    EXPECT_EQ(o.args, std::vector<std::string>{"sync/"});
    EXPECT_EQ(o.count, 3);
    EXPECT_DOUBLE_EQ(o.forSeconds, 1.5);
}

TEST(CliOptions, SetTakesPathAndJson)
{
    CliOptions o;
    std::string error;
    ASSERT_TRUE(parse({"set", "sync/app", "{\"a\": 1}"}, o, error)) << error;
    EXPECT_EQ(o.args[1], "{\"a\": 1}");
}

TEST(CliOptions, MistakesAreRefused)
{
    const std::vector<std::vector<const char*>> bad = {
        {},
        {"frobnicate"},
        {"get"},
        {"get", "a", "b"},
        {"set", "a"},
        {"list", "a", "b"},
        {"own", "x"},
        {"--port", "0", "list"},
        {"--port", "70000", "list"},
        {"--port", "x", "list"},
        {"--port"},
        {"watch", "--count", "0"},
        {"watch", "--for", "-1"},
        {"get", "a", "--count", "2"},
        {"--bogus", "list"},
    };
    for (const auto& args : bad) {
        CliOptions o;
        std::string error;
        EXPECT_FALSE(parse(args, o, error)) << (args.empty() ? "(none)" : args[0]);
        EXPECT_FALSE(error.empty());
    }
}
