// The tracker fed directly with telegrams as the daemons write them (their own
// encoder) and with every kind of datagram the daemons drop or refuse.
#include "ElectionTracker.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MonitorTestUtil.h"
#include "protocol/Telegram.h"

using namespace tsdmon;
using orv::tsd::FRONT_FW;
using orv::tsd::REAR_FW;
namespace telegram = orv::tsd::telegram;

namespace {

using tsdmontest::heard;
using tsdmontest::kWallBase;

std::string item(unsigned uuid, unsigned module, unsigned prio, unsigned threshold,
                 orv::tsd::interface_t side = REAR_FW)
{
    return telegram::encodeItem(ModuleItem(uuid, module, prio, threshold), side);
}

std::vector<unsigned> uuids(const std::vector<Answer>& answers)
{
    std::vector<unsigned> result;
    for (const Answer& answer : answers)
        result.push_back(answer.item.uuid);
    return result;
}

// Feeds one observation and returns its single event.
MonitorEvent feed(ElectionTracker& tracker, const Observation& observation)
{
    std::vector<MonitorEvent> events = tracker.observe(observation);
    EXPECT_EQ(events.size(), 1u);
    return events.empty() ? MonitorEvent{} : events.front();
}

// Three modules on the rear side answer a start from the first.
void threeModuleRound(ElectionTracker& tracker, std::int64_t at, bool withThird = true)
{
    feed(tracker, heard(at, REAR_FW, "169.254.1.1", telegram::encodeStart(REAR_FW)));
    feed(tracker, heard(at + 40, REAR_FW, "169.254.1.2", item(0x102, 10, 1, 5)));
    feed(tracker, heard(at + 90, REAR_FW, "169.254.1.1", item(0x101, 10, 1, 5)));
    if (withThird)
        feed(tracker, heard(at + 150, REAR_FW, "169.254.1.3", item(0x103, 10, 2, 10)));
}

}  // namespace

TEST(ElectionTracker, RoundEndsAWindowAfterItsRequestWithTheGreatestAnswerAsWinner)
{
    ElectionTracker tracker;
    const MonitorEvent start = feed(tracker, heard(0, REAR_FW, "169.254.1.1", telegram::encodeStart(REAR_FW)));
    EXPECT_EQ(start.type, EventType::Request);
    EXPECT_EQ(start.command, "start");
    EXPECT_TRUE(start.opensRound);
    EXPECT_EQ(start.round, 1u);
    EXPECT_FALSE(start.uuid);  // nothing came from that address yet
    EXPECT_TRUE(start.notes.empty());

    feed(tracker, heard(40, REAR_FW, "169.254.1.2", item(0x102, 10, 1, 5)));
    const MonitorEvent answer = feed(tracker, heard(90, REAR_FW, "169.254.1.1", item(0x101, 10, 1, 5)));
    EXPECT_EQ(answer.type, EventType::Item);
    EXPECT_EQ(answer.item.uuid, 0x101u);
    EXPECT_EQ(answer.item.module, 10u);
    EXPECT_EQ(answer.item.prio, 1u);
    EXPECT_EQ(answer.item.threshold, 5u);
    EXPECT_EQ(answer.round, 1u);
    EXPECT_TRUE(answer.notes.empty());
    feed(tracker, heard(150, REAR_FW, "169.254.1.3", item(0x103, 10, 2, 10)));

    ASSERT_EQ(tracker.nextDeadline(), 3000);
    EXPECT_TRUE(tracker.expire(2999).empty());
    const std::vector<MonitorEvent> closed = tracker.expire(3000);
    ASSERT_EQ(closed.size(), 1u);
    const ElectionResult& result = closed[0].election;
    EXPECT_EQ(closed[0].type, EventType::Election);
    EXPECT_EQ(closed[0].side, REAR_FW);
    EXPECT_EQ(result.round, 1u);
    EXPECT_EQ(result.trigger, "start");
    EXPECT_EQ(result.openedMs, kWallBase);
    EXPECT_EQ(result.closedMs, kWallBase + 3000);
    EXPECT_FALSE(result.interrupted);
    ASSERT_TRUE(result.winner);
    EXPECT_EQ(result.winner->item.uuid, 0x103u);
    EXPECT_EQ(result.winner->sender, "169.254.1.3");
    // Descending election order: 10+2, then the equal sums by uuid.
    EXPECT_EQ(uuids(result.answered), (std::vector<unsigned>{0x103, 0x102, 0x101}));
    // The start's sender answered later: it is named by that item.
    ASSERT_EQ(result.requests.size(), 1u);
    EXPECT_EQ(result.requests[0].uuid, 0x101u);
    EXPECT_TRUE(result.stopped.empty());
    EXPECT_TRUE(result.joined.empty());  // a first round has nothing to compare with
    EXPECT_FALSE(tracker.nextDeadline());
    EXPECT_FALSE(tracker.side(REAR_FW).roundOpen);
}

TEST(ElectionTracker, EqualSumsGoToTheLargerUuidAndALargerSumBeatsBoth)
{
    ElectionTracker tracker;
    feed(tracker, heard(0, REAR_FW, "10.0.0.1", telegram::encodeResync(REAR_FW)));
    feed(tracker, heard(10, REAR_FW, "10.0.0.2", item(0x200, 10, 5, 0)));
    feed(tracker, heard(20, REAR_FW, "10.0.0.3", item(0x100, 12, 3, 0)));
    std::vector<MonitorEvent> closed = tracker.expire(3000);
    ASSERT_EQ(closed.size(), 1u);
    ASSERT_TRUE(closed[0].election.winner);
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x200u);

    feed(tracker, heard(4000, REAR_FW, "10.0.0.1", telegram::encodeResync(REAR_FW)));
    feed(tracker, heard(4010, REAR_FW, "10.0.0.2", item(0x200, 10, 5, 0)));
    feed(tracker, heard(4020, REAR_FW, "10.0.0.3", item(0x100, 12, 3, 0)));
    feed(tracker, heard(4030, REAR_FW, "10.0.0.4", item(0x001, 14, 2, 0)));
    closed = tracker.expire(7030);
    ASSERT_EQ(closed.size(), 1u);
    ASSERT_TRUE(closed[0].election.winner);
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x001u);
    // Threshold takes no part, and sums wrap as the daemons form them.
    feed(tracker, heard(8000, REAR_FW, "10.0.0.1", telegram::encodeResync(REAR_FW)));
    feed(tracker, heard(8010, REAR_FW, "10.0.0.2", item(0x200, 0xffffffffu, 2, 900)));
    feed(tracker, heard(8020, REAR_FW, "10.0.0.3", item(0x100, 1, 1, 1)));
    closed = tracker.expire(11020);
    ASSERT_EQ(closed.size(), 1u);
    ASSERT_TRUE(closed[0].election.winner);
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x100u);
}

TEST(ElectionTracker, EveryFurtherRequestRunsTheWindowAnew)
{
    ElectionTracker tracker;
    feed(tracker, heard(0, REAR_FW, "169.254.1.1", telegram::encodeStart(REAR_FW)));
    feed(tracker, heard(100, REAR_FW, "169.254.1.2", item(0x102, 10, 1, 5)));
    const MonitorEvent again = feed(tracker, heard(2000, REAR_FW, "169.254.1.2", telegram::encodeResync(REAR_FW)));
    EXPECT_FALSE(again.opensRound);
    EXPECT_EQ(again.round, 1u);
    EXPECT_EQ(again.uuid, 0x102u);  // that address sent an item before
    EXPECT_TRUE(tracker.expire(3000).empty());
    EXPECT_EQ(tracker.nextDeadline(), 5000);
    const std::vector<MonitorEvent> closed = tracker.expire(5000);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].election.closedMs, kWallBase + 5000);
    EXPECT_EQ(closed[0].election.requests.size(), 2u);
    // A resync keeps what was heard before it.
    EXPECT_EQ(uuids(closed[0].election.answered), (std::vector<unsigned>{0x102}));
}

TEST(ElectionTracker, StartDiscardsEarlierAnswersOfTheRound)
{
    ElectionTracker tracker;
    feed(tracker, heard(0, REAR_FW, "169.254.1.1", telegram::encodeStart(REAR_FW)));
    feed(tracker, heard(50, REAR_FW, "169.254.1.2", item(0x102, 10, 1, 5)));
    feed(tracker, heard(60, REAR_FW, "169.254.1.3", item(0x103, 10, 2, 5)));
    feed(tracker, heard(100, REAR_FW, "169.254.1.2", telegram::encodeStart(REAR_FW)));
    feed(tracker, heard(180, REAR_FW, "169.254.1.2", item(0x102, 10, 1, 5)));
    const std::vector<MonitorEvent> closed = tracker.expire(3100);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(uuids(closed[0].election.answered), (std::vector<unsigned>{0x102}));
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x102u);
}

TEST(ElectionTracker, LatestItemOfAModuleCounts)
{
    ElectionTracker tracker;
    feed(tracker, heard(0, REAR_FW, "169.254.1.1", telegram::encodeResync(REAR_FW)));
    feed(tracker, heard(10, REAR_FW, "169.254.1.2", item(0x102, 10, 9, 5)));
    feed(tracker, heard(20, REAR_FW, "169.254.1.3", item(0x103, 10, 2, 5)));
    feed(tracker, heard(30, REAR_FW, "169.254.1.2", item(0x102, 10, 1, 7)));
    const std::vector<MonitorEvent> closed = tracker.expire(3000);
    ASSERT_EQ(closed.size(), 1u);
    ASSERT_EQ(closed[0].election.answered.size(), 2u);
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x103u);
    EXPECT_EQ(tracker.side(REAR_FW).modules.at(0x102).item.threshold, 7u);
}

TEST(ElectionTracker, ModulesThatStopAnsweringAreNamedAndReturningOnesAreNew)
{
    ElectionTracker tracker;
    threeModuleRound(tracker, 0);
    tracker.expire(3000);

    threeModuleRound(tracker, 10000, false);
    std::vector<MonitorEvent> closed = tracker.expire(13000);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].election.stopped, (std::vector<unsigned>{0x103}));
    EXPECT_TRUE(closed[0].election.joined.empty());
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x102u);
    EXPECT_TRUE(tracker.side(REAR_FW).modules.at(0x103).stoppedAnswering);
    EXPECT_FALSE(tracker.side(REAR_FW).modules.at(0x102).stoppedAnswering);

    threeModuleRound(tracker, 20000);
    closed = tracker.expire(23000);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_TRUE(closed[0].election.stopped.empty());
    EXPECT_EQ(closed[0].election.joined, (std::vector<unsigned>{0x103}));
    EXPECT_FALSE(tracker.side(REAR_FW).modules.at(0x103).stoppedAnswering);
}

TEST(ElectionTracker, AnEmptyItemLeavesTheRoundWithoutWinner)
{
    ElectionTracker tracker;
    feed(tracker, heard(0, REAR_FW, "169.254.1.1", telegram::encodeStart(REAR_FW)));
    feed(tracker, heard(10, REAR_FW, "169.254.1.1", item(0x101, 10, 2, 5)));
    const MonitorEvent empty = feed(tracker, heard(20, REAR_FW, "169.254.1.2", item(0x102, 10, 0, 5)));
    ASSERT_EQ(empty.notes.size(), 1u);
    EXPECT_NE(empty.notes[0].find("priority 0"), std::string::npos);
    const std::vector<MonitorEvent> closed = tracker.expire(3000);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_FALSE(closed[0].election.winner);
    EXPECT_EQ(closed[0].election.empty, (std::vector<unsigned>{0x102}));
    EXPECT_EQ(closed[0].election.answered.size(), 2u);
}

TEST(ElectionTracker, RoundWithoutAnswersHasNoWinnerAndEveryEarlierModuleStopped)
{
    ElectionTracker tracker;
    threeModuleRound(tracker, 0);
    tracker.expire(3000);
    feed(tracker, heard(5000, REAR_FW, "169.254.1.1", telegram::encodeResync(REAR_FW)));
    const std::vector<MonitorEvent> closed = tracker.expire(8000);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_FALSE(closed[0].election.winner);
    EXPECT_TRUE(closed[0].election.answered.empty());
    EXPECT_EQ(closed[0].election.stopped, (std::vector<unsigned>{0x101, 0x102, 0x103}));
}

TEST(ElectionTracker, ItemWhoseRequestWasNotHeardOpensARound)
{
    ElectionTracker tracker;
    const MonitorEvent first = feed(tracker, heard(500, REAR_FW, "169.254.1.2", item(0x102, 10, 1, 5)));
    EXPECT_EQ(first.round, 1u);
    feed(tracker, heard(600, REAR_FW, "169.254.1.3", item(0x103, 10, 1, 5)));
    // Items do not extend the window.
    const std::vector<MonitorEvent> closed = tracker.expire(3500);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].election.trigger, "item");
    EXPECT_TRUE(closed[0].election.requests.empty());
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x103u);
}

TEST(ElectionTracker, SidesKeepRoundsOfTheirOwn)
{
    ElectionTracker tracker;
    feed(tracker, heard(0, REAR_FW, "169.254.1.1", telegram::encodeStart(REAR_FW)));
    feed(tracker, heard(1000, FRONT_FW, "169.254.2.1", telegram::encodeStart(FRONT_FW)));
    feed(tracker, heard(1100, FRONT_FW, "169.254.2.5", item(0x105, 20, 1, 5, FRONT_FW)));
    feed(tracker, heard(1200, REAR_FW, "169.254.1.4", item(0x104, 10, 1, 5)));
    EXPECT_EQ(tracker.nextDeadline(), 3000);
    std::vector<MonitorEvent> closed = tracker.expire(3000);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].side, REAR_FW);
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x104u);
    EXPECT_EQ(tracker.nextDeadline(), 4000);
    closed = tracker.expire(4000);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].side, FRONT_FW);
    EXPECT_EQ(closed[0].election.winner->item.uuid, 0x105u);
    EXPECT_EQ(tracker.side(REAR_FW).modules.count(0x105), 0u);
}

TEST(ElectionTracker, FinishClosesOpenRoundsAsInterrupted)
{
    ElectionTracker tracker;
    threeModuleRound(tracker, 0);
    tracker.expire(3000);
    feed(tracker, heard(5000, REAR_FW, "169.254.1.1", telegram::encodeResync(REAR_FW)));
    const std::vector<MonitorEvent> closed = tracker.finish(kWallBase + 5500);
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_TRUE(closed[0].election.interrupted);
    EXPECT_EQ(closed[0].election.closedMs, kWallBase + 5500);
    // Cut short, it says nothing about who stopped answering.
    EXPECT_TRUE(closed[0].election.stopped.empty());
    EXPECT_TRUE(tracker.finish(kWallBase + 6000).empty());
}

struct MalformedCase
{
    const char* name;
    std::string bytes;
    orv::tsd::interface_t side;
    Malformation expected;
};

TEST(ElectionTracker, EveryKindOfMalformedTelegramIsReportedAndChangesNothing)
{
    const std::vector<MalformedCase> cases = {
        {"empty datagram", "", REAR_FW, Malformation::Empty},
        {"frame alone", "<sync>", REAR_FW, Malformation::BadFrame},
        {"no closing frame", "<sync>:start", REAR_FW, Malformation::BadFrame},
        {"no opening frame", "start:x:<sync>", REAR_FW, Malformation::BadFrame},
        {"closing frame in capitals", "<sync>:item:1:2:3:4:<SYNC>", REAR_FW, Malformation::BadFrame},
        {"trailing newline", "<sync>:start:<sync>\n", REAR_FW, Malformation::BadFrame},
        {"binary bytes", std::string("\x00\xff\x1b[2J", 6), REAR_FW, Malformation::BadFrame},
        {"NUL inside", std::string("<sync>:start\0:<sync>", 20), REAR_FW, Malformation::Unknown},
        {"unknown command", "<sync>:hello:<sync>", REAR_FW, Malformation::Unknown},
        {"empty command", "<sync>::<sync>", REAR_FW, Malformation::Unknown},
        {"item with too few fields", "<sync>:item:1:2:<sync>", REAR_FW, Malformation::Unknown},
        {"item with too many fields", "<sync>:item:1:2:3:4:5:6:<sync>", FRONT_FW, Malformation::Unknown},
        {"start with too many fields", "<sync>:start:1:2:<sync>", FRONT_FW, Malformation::Unknown},
        {"front start on the rear port", "<sync>:start:1:<sync>", REAR_FW, Malformation::WrongSide},
        {"rear resync on the front port", "<sync>:resync:<sync>", FRONT_FW, Malformation::WrongSide},
        {"rear item on the front port", "<sync>:item:1:2:3:4:<sync>", FRONT_FW, Malformation::WrongSide},
        {"front item on the rear port", "<sync>:item:1:2:3:4:1:<sync>", REAR_FW, Malformation::WrongSide},
    };
    ElectionTracker tracker;
    unsigned rear = 0;
    unsigned front = 0;
    for (const MalformedCase& c : cases) {
        SCOPED_TRACE(c.name);
        const MonitorEvent event = feed(tracker, heard(0, c.side, "169.254.1.9", c.bytes));
        EXPECT_EQ(event.type, EventType::Malformed);
        EXPECT_EQ(event.malformation, c.expected);
        EXPECT_EQ(event.bytes, c.bytes);
        EXPECT_EQ(event.sender, "169.254.1.9");
        ++(c.side == FRONT_FW ? front : rear);
    }
    EXPECT_FALSE(tracker.nextDeadline());
    EXPECT_TRUE(tracker.side(REAR_FW).modules.empty());
    EXPECT_TRUE(tracker.side(FRONT_FW).modules.empty());
    EXPECT_EQ(tracker.side(REAR_FW).malformed, rear);
    EXPECT_EQ(tracker.side(FRONT_FW).malformed, front);
}

TEST(ElectionTracker, TelegramsTheDaemonsAcceptButNeverWriteCarryANote)
{
    ElectionTracker tracker;
    const MonitorEvent start = feed(tracker, heard(0, FRONT_FW, "169.254.2.1", "<sync>:start:x:<sync>"));
    EXPECT_EQ(start.type, EventType::Request);
    ASSERT_EQ(start.notes.size(), 1u);
    EXPECT_NE(start.notes[0].find("<sync>:start:1:<sync>"), std::string::npos);

    // Upper case, a prefix and text without digits read as the daemons read them.
    const MonitorEvent odd = feed(tracker, heard(10, FRONT_FW, "169.254.2.2", "<sync>:item:0x1F:A:2:zz:1:<sync>"));
    EXPECT_EQ(odd.type, EventType::Item);
    EXPECT_EQ(odd.item.uuid, 0x1fu);
    EXPECT_EQ(odd.item.module, 10u);
    EXPECT_EQ(odd.item.prio, 2u);
    EXPECT_EQ(odd.item.threshold, 0u);
    ASSERT_EQ(odd.notes.size(), 1u);
    EXPECT_NE(odd.notes[0].find("<sync>:item:1f:a:2:0:1:<sync>"), std::string::npos);

    // Beyond 32 bits: cut to the record's width.
    const MonitorEvent wide = feed(tracker, heard(20, FRONT_FW, "169.254.2.3", "<sync>:item:1ffffffff:a:2:0:1:<sync>"));
    EXPECT_EQ(wide.item.uuid, 0xffffffffu);
    EXPECT_EQ(wide.notes.size(), 1u);

    // Not a number at all: priority 0, so also an empty item.
    const MonitorEvent garbage = feed(tracker, heard(30, FRONT_FW, "169.254.2.4", "<sync>:item:4:zz:zz:0:1:<sync>"));
    EXPECT_EQ(garbage.notes.size(), 2u);
}
