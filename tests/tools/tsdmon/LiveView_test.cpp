// The live view's screen: what it shows per side, in which order, and that it
// fits the terminal it is drawn on.
#include "LiveView.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "MonitorTestUtil.h"
#include "protocol/Telegram.h"

using namespace tsdmon;
using orv::tsd::FRONT_FW;
using orv::tsd::REAR_FW;
namespace telegram = orv::tsd::telegram;

namespace {

constexpr std::int64_t kWall = tsdmontest::kWallBase;

std::vector<std::string> linesOf(const std::string& screen)
{
    std::vector<std::string> lines;
    std::istringstream in(screen);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The line that holds text; empty when none does.
std::string lineWith(const std::string& screen, const std::string& text)
{
    for (const std::string& line : linesOf(screen)) {
        if (line.find(text) != std::string::npos)
            return line;
    }
    return {};
}

struct Fixture
{
    ElectionTracker tracker;
    LiveView view;

    Fixture()
    {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        view.setTarget("239.255.77.1", 14000, "firewire0", "firewire1", true, true);
        MonitorEvent listening;
        listening.type = EventType::Listening;
        listening.wallMs = kWall;
        listening.interfaceName = "firewire0";
        listening.sender = "169.254.1.1";
        view.record(listening);
        listening.type = EventType::Waiting;
        listening.side = FRONT_FW;
        listening.interfaceName = "firewire1";
        view.record(listening);
    }

    void hear(std::int64_t ms, const std::string& sender, const std::string& bytes)
    {
        for (const MonitorEvent& event : tracker.observe(tsdmontest::heard(ms, REAR_FW, sender, bytes)))
            view.record(event);
    }
    void expire(std::int64_t ms)
    {
        for (const MonitorEvent& event : tracker.expire(ms))
            view.record(event);
    }
    void round(std::int64_t at, bool third)
    {
        hear(at, "169.254.1.1", telegram::encodeStart(REAR_FW));
        hear(at + 10, "169.254.1.1", telegram::encodeItem(ModuleItem(0x101, 10, 1, 5), REAR_FW));
        hear(at + 20, "169.254.1.2", telegram::encodeItem(ModuleItem(0x102, 10, 1, 5), REAR_FW));
        if (third)
            hear(at + 30, "169.254.1.3", telegram::encodeItem(ModuleItem(0x103, 10, 2, 15), REAR_FW));
    }
};

}  // namespace

TEST(LiveView, ShowsEachSideItsRoundAndItsModulesHighestFirst)
{
    Fixture f;
    f.round(0, true);
    f.expire(3030);
    f.round(10000, false);
    const std::string screen = f.tracker.side(REAR_FW).roundOpen ? f.view.render(f.tracker, kWall + 11000, 0, 0) : "";
    ASSERT_FALSE(screen.empty());

    EXPECT_NE(lineWith(screen, "tsdmon " TSD_VERSION).find("group 239.255.77.1"), std::string::npos) << screen;
    EXPECT_NE(lineWith(screen, "REAR  firewire0: listening (169.254.1.1)"), "") << screen;
    EXPECT_NE(lineWith(screen, "FRONT firewire1: waiting for the interface"), "") << screen;
    EXPECT_NE(lineWith(screen, "round 2 open, window ends in 2.0 s, 2 answered; start from 169.254.1.1 (0A7C31000101)"),
              "")
        << screen;
    EXPECT_NE(lineWith(screen, "last election round 1 at 08:00:03.000: master 0A7C31000103, 3 answered"), "")
        << screen;

    // Rows in descending election order, with what each did.
    const std::vector<std::string> lines = linesOf(screen);
    std::vector<std::string> rows;
    for (const std::string& line : lines) {
        if (line.rfind("  0A7C31", 0) == 0)
            rows.push_back(line);
    }
    ASSERT_EQ(rows.size(), 3u) << screen;
    EXPECT_NE(rows[0].find("0A7C31000103  169.254.1.3"), std::string::npos) << rows[0];
    EXPECT_NE(rows[0].find("10    2     1.5  08:00:00.030  master, not yet answered"), std::string::npos) << rows[0];
    EXPECT_NE(rows[1].find("0A7C31000102"), std::string::npos);
    EXPECT_NE(rows[1].find("answered"), std::string::npos);
    EXPECT_NE(rows[2].find("0A7C31000101"), std::string::npos);

    // The round ends without the third module: it stopped answering.
    f.expire(13030);
    const std::string after = f.view.render(f.tracker, kWall + 13100, 0, 0);
    EXPECT_NE(lineWith(after, "0A7C31000103").find("stopped answering"), std::string::npos) << after;
    EXPECT_NE(lineWith(after, "last election round 2").find("master 0A7C31000102, 2 answered, 1 stopped answering"),
              std::string::npos)
        << after;
    EXPECT_NE(lineWith(after, "rear  election round 2"), "") << after;
}

TEST(LiveView, FitsTheTerminalAndKeepsTheNewestEvents)
{
    Fixture f;
    for (int i = 0; i < 10; ++i)
        f.round(i * 5000, true);
    const std::string screen = f.view.render(f.tracker, kWall + 60000, 40, 20);
    const std::vector<std::string> lines = linesOf(screen);
    EXPECT_EQ(lines.size(), 20u);
    for (const std::string& line : lines)
        EXPECT_LE(line.size(), 40u) << line;
    // The newest event is on the last row.
    EXPECT_EQ(lines.back().rfind("  2027-01-15 08:00:45.030 rear  item", 0), 0u) << screen;

    // Without a size, nothing is cut.
    const std::string full = f.view.render(f.tracker, kWall + 60000, 0, 0);
    EXPECT_GT(linesOf(full).size(), 40u);
}

TEST(LiveView, HostileBytesAreShownEscaped)
{
    Fixture f;
    f.hear(0, "169.254.1.9", std::string("\x1b[2J\x1b]0;x\x07\x00", 11));
    const std::string screen = f.view.render(f.tracker, kWall + 100, 0, 0);
    for (const char c : screen) {
        const auto byte = static_cast<unsigned char>(c);
        EXPECT_TRUE(c == '\n' || (byte >= 0x20 && byte < 0x7f)) << static_cast<int>(byte);
    }
    EXPECT_NE(lineWith(screen, "REAR  firewire0: listening (169.254.1.1), 1 malformed"), "") << screen;
    EXPECT_NE(lineWith(screen, "MALFORMED bad-frame"), "") << screen;
}

TEST(LiveView, SideNotWatchedSaysSo)
{
    LiveView view;
    view.setTarget("239.255.77.1", 14000, "firewire0", "firewire1", true, false);
    ElectionTracker tracker;
    const std::string screen = view.render(tracker, kWall, 0, 0);
    EXPECT_NE(lineWith(screen, "FRONT not watched"), "") << screen;
    EXPECT_NE(lineWith(screen, "no items heard yet"), "") << screen;
}
