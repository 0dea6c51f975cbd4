// The escaping every log line of the bus goes through, and the token bucket
// that keeps one peer (or all of them) from flooding the log.
#include "LogLimiter.h"

#include <gtest/gtest.h>

#include <chrono>

using vela::escapeLogText;
using vela::LogLimiter;
using namespace std::chrono_literals;

TEST(EscapeLogText, NewlineCannotStartALineOfItsOwn)
{
    EXPECT_EQ(escapeLogText("tsd\nvelad: peer #1 (root) connected"), "tsd\\nvelad: peer #1 (root) connected");
    EXPECT_EQ(escapeLogText("a\r\nb"), "a\\x0d\\nb");
}

TEST(EscapeLogText, ControlBytesDelAndBackslashAreWrittenAsEscapes)
{
    EXPECT_EQ(escapeLogText(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(escapeLogText("\x1b[31mred\x7f"), "\\x1b[31mred\\x7f");
    EXPECT_EQ(escapeLogText("\t"), "\\x09");
    // A backslash is doubled, so a peer cannot write text that reads as an
    // escape the broker made.
    EXPECT_EQ(escapeLogText("a\\nb"), "a\\\\nb");
}

TEST(EscapeLogText, ValidUtf8StaysAndBrokenUtf8IsEscaped)
{
    EXPECT_EQ(escapeLogText("Gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xf0\x9f\x98\x80"),
              "Gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xf0\x9f\x98\x80");
    // A lone continuation byte, a C1 control as a single byte, an overlong
    // slash, a surrogate and a truncated sequence.
    EXPECT_EQ(escapeLogText("\x80"), "\\x80");
    EXPECT_EQ(escapeLogText("\x9b" "31m"), "\\x9b31m");
    EXPECT_EQ(escapeLogText("\xc0\xaf"), "\\xc0\\xaf");
    EXPECT_EQ(escapeLogText("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(escapeLogText("x\xe2\x82"), "x\\xe2\\x82");
}

TEST(EscapeLogText, LongTextIsCutWithoutSplittingAnEscapeAndSaysHowMuchIsLeft)
{
    const std::string text = std::string(10, 'a') + "\n" + std::string(100, 'b');
    // 10 letters fit, the escape of the newline (2 bytes) would not.
    EXPECT_EQ(escapeLogText(text, 11), std::string(10, 'a') + " ... (101 bytes more)");
    EXPECT_EQ(escapeLogText("\xe2\x82\xac\xe2\x82\xac", 4), "\xe2\x82\xac ... (3 bytes more)");
    EXPECT_EQ(escapeLogText(std::string(2000, 'x')).size(),
              vela::kDefaultLogLineMax + std::string(" ... (976 bytes more)").size());
}

TEST(LogLimiter, BurstThenRateAndCountsWhatItRefused)
{
    LogLimiter limiter(2.0, 3);  // 3 at once, then 2 a second
    const auto t0 = LogLimiter::Clock::now();
    EXPECT_TRUE(limiter.admit(t0));
    EXPECT_TRUE(limiter.admit(t0));
    EXPECT_TRUE(limiter.admit(t0));
    EXPECT_FALSE(limiter.admit(t0));
    EXPECT_FALSE(limiter.admit(t0 + 100ms));
    EXPECT_EQ(limiter.takeSuppressed(), 2u);
    EXPECT_EQ(limiter.takeSuppressed(), 0u);
    // Half a second earns one line.
    EXPECT_TRUE(limiter.admit(t0 + 500ms));
    EXPECT_FALSE(limiter.admit(t0 + 500ms));
    // A long quiet spell refills the burst, not more.
    const auto later = t0 + 60s;
    int admitted = 0;
    for (int i = 0; i < 10; ++i) {
        admitted += limiter.admit(later) ? 1 : 0;
    }
    EXPECT_EQ(admitted, 3);
}

TEST(LogLimiter, ThousandLinesInASecondLeaveOnlyTheBurstAndTheRate)
{
    LogLimiter limiter(1.0, 10);
    const auto t0 = LogLimiter::Clock::now();
    int admitted = 0;
    for (int i = 0; i < 1000; ++i) {
        admitted += limiter.admit(t0 + std::chrono::microseconds(i * 1000)) ? 1 : 0;
    }
    EXPECT_EQ(admitted, 10);  // less than a second: no token earned back yet
    EXPECT_EQ(limiter.takeSuppressed(), 990u);
}
