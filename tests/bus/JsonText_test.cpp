#include "JsonText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

TEST(JsonText, CompactFormHasNoBlanksAndSortedKeys)
{
    Json::Value v(Json::objectValue);
    v["b"] = 1;
    v["a"] = Json::Value(Json::arrayValue);
    v["a"].append("x y");
    v["a"].append(Json::Value());
    v["c"] = true;
    EXPECT_EQ(vela::toCompact(v), R"({"a":["x y",null],"b":1,"c":true})");
}

TEST(JsonText, RealsUseTheShortestExactText)
{
    EXPECT_EQ(vela::toCompact(0.1), "0.1");
    EXPECT_EQ(vela::toCompact(1.25), "1.25");
    EXPECT_EQ(vela::toCompact(3 * 0.1), "0.30000000000000004");
    EXPECT_EQ(vela::toCompact(2.0), "2.0");
    EXPECT_EQ(vela::toCompact(1e300), "1e+300");
    EXPECT_EQ(vela::toCompact(-0.5), "-0.5");
}

TEST(JsonText, NonFiniteRealsBecomeNull)
{
    EXPECT_EQ(vela::toCompact(std::numeric_limits<double>::infinity()), "null");
    EXPECT_EQ(vela::toCompact(std::nan("")), "null");
}

TEST(JsonText, StringsAreEscaped)
{
    EXPECT_EQ(vela::toCompact("a\"b\\c\nd\x01"), R"("a\"b\\c\nd\u0001")");
    EXPECT_EQ(vela::toCompact("\xc3\xa9"), "\"\xc3\xa9\"");
}

TEST(JsonText, CompactTextReadsBackEqual)
{
    Json::Value v(Json::objectValue);
    v["threshold"] = 1.3000000000000003;
    v["big"] = Json::Value::UInt64(18446744073709551615ULL);
    v["neg"] = Json::Value::Int64(-9223372036854775807LL - 1);
    v["s"] = "tab\there";
    Json::Value back;
    ASSERT_TRUE(vela::parseJson(vela::toCompact(v), &back, nullptr));
    EXPECT_EQ(back, v);
}

TEST(JsonText, ScalarsAreDocuments)
{
    Json::Value v;
    ASSERT_TRUE(vela::parseJson("42", &v, nullptr));
    EXPECT_EQ(v.asInt(), 42);
    ASSERT_TRUE(vela::parseJson("\"s\"", &v, nullptr));
    EXPECT_EQ(v.asString(), "s");
    ASSERT_TRUE(vela::parseJson("null", &v, nullptr));
    EXPECT_TRUE(v.isNull());
}

TEST(JsonText, BadInputIsRefusedWithAReason)
{
    for (const char* bad : {"", "{", "{\"a\":}", "[1,]", "{\"a\":1} trailing", "nul", "{'a':1}",
                            "{\"a\":1,\"a\":2}", "\"\\ud800\""}) {
        std::string error;
        EXPECT_FALSE(vela::parseJson(bad, nullptr, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
        EXPECT_EQ(error.find('\n'), std::string::npos) << bad;
    }
}

TEST(JsonText, DeepNestingIsRefusedWithoutCrashing)
{
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    std::string error;
    EXPECT_FALSE(vela::parseJson(deep, nullptr, &error));
    EXPECT_FALSE(error.empty());

    const std::string ok =
        std::string(vela::kMaxJsonDepth - 2, '[') + std::string(vela::kMaxJsonDepth - 2, ']');
    EXPECT_TRUE(vela::parseJson(ok, nullptr, &error)) << error;
}
