#include "Frame.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using vela::FrameDecoder;

namespace {

std::vector<std::string> drain(FrameDecoder& d)
{
    std::vector<std::string> frames;
    std::string_view payload;
    while (d.next(payload) == FrameDecoder::Result::kFrame) {
        frames.emplace_back(payload);
    }
    return frames;
}

}  // namespace

TEST(Frame, HeaderIsBigEndianLength)
{
    std::string out;
    vela::appendFrame(out, std::string(0x010203, 'x'));
    ASSERT_EQ(out.size(), 4u + 0x010203);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], 1);
    EXPECT_EQ(out[2], 2);
    EXPECT_EQ(out[3], 3);
}

TEST(Frame, DecodesFramesSplitAtEveryByte)
{
    std::string stream;
    vela::appendFrame(stream, "{\"a\":1}");
    vela::appendFrame(stream, "[]");
    vela::appendFrame(stream, "\"x\"");
    FrameDecoder d;
    std::vector<std::string> frames;
    for (char c : stream) {
        d.feed(&c, 1);
        for (auto& f : drain(d)) {
            frames.push_back(f);
        }
    }
    EXPECT_EQ(frames, (std::vector<std::string>{"{\"a\":1}", "[]", "\"x\""}));
    EXPECT_EQ(d.buffered(), 0u);
}

TEST(Frame, TruncatedFrameWaitsForMore)
{
    std::string stream;
    vela::appendFrame(stream, "{\"a\":1}");
    FrameDecoder d;
    d.feed(stream.data(), stream.size() - 1);
    std::string_view payload;
    EXPECT_EQ(d.next(payload), FrameDecoder::Result::kNeedMore);
    d.feed(stream.data() + stream.size() - 1, 1);
    EXPECT_EQ(d.next(payload), FrameDecoder::Result::kFrame);
    EXPECT_EQ(payload, "{\"a\":1}");
}

TEST(Frame, ZeroLengthIsRefused)
{
    FrameDecoder d;
    const char zero[4] = {0, 0, 0, 0};
    d.feed(zero, 4);
    std::string_view payload;
    EXPECT_EQ(d.next(payload), FrameDecoder::Result::kBadLength);
    EXPECT_EQ(d.badLength(), 0u);
}

TEST(Frame, LengthAboveLimitIsRefusedBeforeTheBodyArrives)
{
    FrameDecoder d(100);
    std::string header;
    vela::appendFrameHeader(header, 101);
    d.feed(header.data(), header.size());
    std::string_view payload;
    EXPECT_EQ(d.next(payload), FrameDecoder::Result::kBadLength);
    EXPECT_EQ(d.badLength(), 101u);
}

TEST(Frame, LengthAtLimitIsAccepted)
{
    FrameDecoder d(100);
    std::string stream;
    vela::appendFrame(stream, std::string(100, 'a'));
    d.feed(stream.data(), stream.size());
    std::string_view payload;
    EXPECT_EQ(d.next(payload), FrameDecoder::Result::kFrame);
    EXPECT_EQ(payload.size(), 100u);
}

TEST(Frame, GarbageBytesReadAsAnOversizedLength)
{
    FrameDecoder d;
    const std::string garbage = "GET / HTTP/1.1\r\n\r\n";
    d.feed(garbage.data(), garbage.size());
    std::string_view payload;
    EXPECT_EQ(d.next(payload), FrameDecoder::Result::kBadLength);
}
