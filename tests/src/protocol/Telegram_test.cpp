#include "protocol/Telegram.h"

#include <gtest/gtest.h>

#include <string>

#include "protocol/ModuleItem.h"

using namespace orv::tsd;
using telegram::Decoded;
using telegram::Kind;

namespace {

Decoded decodeText(const std::string& text)
{
    return telegram::decode(text.data(), text.size());
}

}  // namespace

TEST(Telegram, EncodesRequestsPerSide)
{
    EXPECT_EQ(telegram::encodeStart(REAR_FW), "<sync>:start:<sync>");
    EXPECT_EQ(telegram::encodeStart(FRONT_FW), "<sync>:start:1:<sync>");
    EXPECT_EQ(telegram::encodeResync(REAR_FW), "<sync>:resync:<sync>");
    EXPECT_EQ(telegram::encodeResync(FRONT_FW), "<sync>:resync:1:<sync>");
    EXPECT_EQ(telegram::encodeStart(FRONT_FW), "<sync>:start:1:<sync>");
    EXPECT_EQ(telegram::encodeResync(REAR_FW), "<sync>:resync:<sync>");
}

TEST(Telegram, EncodesItemInLowerCaseHexWithoutPadding)
{
    const ModuleItem item(0x12345, 5, 10, 100);
    EXPECT_EQ(telegram::encodeItem(item, FRONT_FW), "<sync>:item:12345:5:a:64:1:<sync>");
    EXPECT_EQ(telegram::encodeItem(item, REAR_FW), "<sync>:item:12345:5:a:64:<sync>");
    EXPECT_EQ(telegram::encodeItem(ModuleItem(0xABCDEF, 0, 0xFFFFFFFF, 0), REAR_FW),
              "<sync>:item:abcdef:0:ffffffff:0:<sync>");
}

TEST(Telegram, SideBeyondOneIsEncodedLikeRear)
{
    EXPECT_EQ(telegram::encodeStart(static_cast<interface_t>(2)), "<sync>:start:<sync>");
}

TEST(Telegram, EncodedTelegramsDecodeBack)
{
    for (interface_t side : {REAR_FW, FRONT_FW}) {
        Decoded start = decodeText(telegram::encodeStart(side));
        EXPECT_EQ(start.kind, Kind::Start);
        EXPECT_EQ(start.sentOver, side);
        Decoded resync = decodeText(telegram::encodeResync(side));
        EXPECT_EQ(resync.kind, Kind::Resync);
        EXPECT_EQ(resync.sentOver, side);
        const ModuleItem item(0xFEDCBA, 7, 0x11, 0x1234);
        Decoded decoded = decodeText(telegram::encodeItem(item, side));
        ASSERT_EQ(decoded.kind, Kind::Item);
        EXPECT_EQ(decoded.sentOver, side);
        EXPECT_EQ(telegram::parseHex(decoded.uuid), item.uuid);
        EXPECT_EQ(telegram::parseHex(decoded.module), item.module);
        EXPECT_EQ(telegram::parseHex(decoded.prio), item.prio);
        EXPECT_EQ(telegram::parseHex(decoded.threshold), item.threshold);
    }
}

TEST(Telegram, ExtraFieldIsCountedNeverRead)
{
    const Decoded d = decodeText("<sync>:start:x:<sync>");
    EXPECT_EQ(d.kind, Kind::Start);
    EXPECT_EQ(d.sentOver, FRONT_FW);
    EXPECT_EQ(decodeText("<sync>:item:1:2:3:4:zz:<sync>").sentOver, FRONT_FW);
}

TEST(Telegram, RearItemFieldsComeOutAsText)
{
    const Decoded d = decodeText("<sync>:item:1:2:3:4:<sync>");
    ASSERT_EQ(d.kind, Kind::Item);
    EXPECT_EQ(d.sentOver, REAR_FW);
    EXPECT_EQ(d.uuid, "1");
    EXPECT_EQ(d.module, "2");
    EXPECT_EQ(d.prio, "3");
    EXPECT_EQ(d.threshold, "4");
}

TEST(Telegram, BadFramesAreInvalidFormat)
{
    for (const char* text :
         {"", "<sync>", "<sync>:start", "<sync>:<sync>", "<sync>:item:1:2:3:4:<SYNC>", "<SYNC>:start:<SYNC>",
          "x:start:x", ":::", "<sync>:start:<sync>:", " <sync>:start:<sync>", "<sync>:start:<sync> "}) {
        EXPECT_EQ(decodeText(text).kind, Kind::BadFormat) << '"' << text << '"';
    }
}

TEST(Telegram, UnknownCommandsAndCountsAreInvalidMessages)
{
    for (const char* text : {"<sync>:hello:<sync>", "<sync>:item:1:2:<sync>", "<sync>:start:1:2:<sync>",
                             "<sync>:resync:1:2:3:<sync>", "<sync>:item:1:2:3:4:5:6:<sync>", "<sync>::<sync>",
                             "<sync>:START:<sync>", "<sync>:<sync>:<sync>"}) {
        EXPECT_EQ(decodeText(text).kind, Kind::Unknown) << '"' << text << '"';
    }
}

TEST(Telegram, EmptyItemFieldsParseAsZero)
{
    const Decoded d = decodeText("<sync>:item:::::<sync>");
    ASSERT_EQ(d.kind, Kind::Item);
    EXPECT_EQ(telegram::parseHex(d.uuid), 0u);
    EXPECT_EQ(telegram::parseHex(d.threshold), 0u);
}

TEST(Telegram, HexParsingKeepsLeadingDigitsAndCutsTo32Bits)
{
    EXPECT_EQ(telegram::parseHex("1fzz"), 0x1Fu);
    EXPECT_EQ(telegram::parseHex("zz"), 0u);
    EXPECT_EQ(telegram::parseHex("0x10"), 0x10u);
    EXPECT_EQ(telegram::parseHex("123456789"), 0x23456789u);
    EXPECT_EQ(telegram::parseHex("ffffffffffffffffffff"), 0xFFFFFFFFu);
}

TEST(Telegram, HugeFieldCountsAndNoiseNeverDecodeAsCommands)
{
    std::string many = "<sync>";
    for (int i = 0; i < 100000; ++i)
        many += ":item";
    many += ":<sync>";
    EXPECT_EQ(decodeText(many).kind, Kind::Unknown);

    std::string noise(65536, '\0');
    unsigned state = 12345;
    for (char& c : noise) {
        state = state * 1103515245u + 12345u;
        c = static_cast<char>(state >> 16);
    }
    EXPECT_EQ(decodeText(noise).kind, Kind::BadFormat);

    const std::string nonAscii = "<sync>:st\xC3\xA4rt:<sync>";
    EXPECT_EQ(decodeText(nonAscii).kind, Kind::Unknown);
    const std::string embeddedNul("<sync>:start\0:<sync>", 20);
    EXPECT_EQ(decodeText(embeddedNul).kind, Kind::Unknown);
}
