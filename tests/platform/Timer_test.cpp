#include "orv/sys/Timer.h"
#include "testsupport/Watchdog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <vector>

#include "orv/sys/EventLoop.h"

using orv::sys::EventLoop;
using orv::sys::Timer;
using testsupport::Watchdog;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// Lets the loop run for a while, then stops it.
void runFor(EventLoop& loop, std::chrono::milliseconds duration)
{
    Watchdog stopper(loop, duration);
    EXPECT_EQ(loop.execute(), 0);
}

struct Call
{
    int id;
    bool fired;
};

}  // namespace

TEST(Timer, FiresInOrderOfExpiry)
{
    EventLoop loop;
    Timer slow(loop);
    Timer fast(loop);
    Timer middle(loop);
    std::vector<int> order;
    slow.set(300ms, false, [&](bool) {
        order.push_back(3);
        loop.stop();
    });
    fast.set(50ms, false, [&](bool) { order.push_back(1); });
    middle.set(150ms, false, [&](bool) { order.push_back(2); });
    Watchdog watchdog(loop, 10s);
    EXPECT_EQ(loop.execute(), 0);
    EXPECT_FALSE(watchdog.fired());
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(Timer, ExpiryCallsBackWithTrueAfterThePeriod)
{
    EventLoop loop;
    Timer timer(loop);
    std::vector<bool> calls;
    const auto start = Clock::now();
    Clock::time_point firedAt;
    ASSERT_EQ(timer.set(100ms, false,
                        [&](bool fired) {
                            calls.push_back(fired);
                            firedAt = Clock::now();
                            loop.stop();
                        }),
              0);
    EXPECT_TRUE(timer.isPending());
    Watchdog watchdog(loop, 10s);
    EXPECT_EQ(loop.execute(), 0);
    EXPECT_EQ(calls, (std::vector<bool>{true}));
    EXPECT_GE(firedAt - start, 100ms);
    EXPECT_FALSE(timer.isPending());
}

TEST(Timer, OneShotFiresOnce)
{
    EventLoop loop;
    Timer timer(loop);
    int calls = 0;
    timer.set(20ms, false, [&](bool) { ++calls; });
    runFor(loop, 300ms);
    EXPECT_EQ(calls, 1);
}

TEST(Timer, SecondSetReplacesPeriodAndCallback)
{
    EventLoop loop;
    Timer timer(loop);
    std::vector<Call> calls;
    const auto start = Clock::now();
    Clock::time_point firedAt;
    timer.set(50ms, false, [&](bool fired) { calls.push_back({1, fired}); });
    timer.set(250ms, false, [&](bool fired) {
        calls.push_back({2, fired});
        firedAt = Clock::now();
    });
    runFor(loop, 600ms);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].id, 2);
    EXPECT_TRUE(calls[0].fired);
    EXPECT_GE(firedAt - start, 250ms);
}

TEST(Timer, SetAgainPushesTheExpiryOut)
{
    // A burst of changes gives one expiry, a full period after the last set.
    EventLoop loop;
    Timer delay(loop);
    Timer poke(loop);
    int pokes = 0;
    int fired = 0;
    Clock::time_point lastSet = Clock::now();
    Clock::time_point firedAt;
    auto onDelay = [&](bool) {
        ++fired;
        firedAt = Clock::now();
        loop.stop();
    };
    delay.set(200ms, false, onDelay);
    poke.set(100ms, true, [&](bool f) {
        if (!f) {
            return;
        }
        if (++pokes == 3) {
            poke.cancel();
        }
        lastSet = Clock::now();
        delay.set(200ms, false, onDelay);
    });
    Watchdog watchdog(loop, 10s);
    EXPECT_EQ(loop.execute(), 0);
    EXPECT_FALSE(watchdog.fired());
    EXPECT_EQ(pokes, 3);
    EXPECT_EQ(fired, 1);
    EXPECT_GE(firedAt - lastSet, 200ms);
}

TEST(Timer, ReplacingAnExpiryAlreadyDueInTheSameRoundDoesNotFireIt)
{
    // Both timerfds become readable in one epoll round; the first callback
    // re-arms the other, whose already counted expiry must then be dropped.
    EventLoop loop;
    Timer a(loop);
    Timer b(loop);
    std::vector<Call> calls;
    auto rearmOther = [&](Timer& other, int id) {
        return [&, id](bool fired) {
            calls.push_back({id, fired});
            if (calls.size() == 1) {
                other.set(300ms, false, [&, id](bool f) { calls.push_back({id + 10, f}); });
            }
        };
    };
    a.set(50ms, false, rearmOther(b, 1));
    b.set(50ms, false, rearmOther(a, 2));
    // Block the loop until both are due.
    Timer gate(loop);
    gate.set(0ms, false, [](bool) { ::usleep(150 * 1000); });
    runFor(loop, 600ms);
    ASSERT_EQ(calls.size(), 2u);
    // Whichever ran first re-armed the other, which then fired only once, late.
    EXPECT_EQ(calls[1].id, calls[0].id == 1 ? 11 : 12);
    EXPECT_TRUE(calls[1].fired);
}

TEST(Timer, CancelOfPendingTimerCallsBackWithFalse)
{
    EventLoop loop;
    Timer timer(loop);
    std::vector<bool> calls;
    timer.set(100ms, false, [&](bool fired) { calls.push_back(fired); });
    timer.cancel();
    EXPECT_EQ(calls, (std::vector<bool>{false}));
    EXPECT_FALSE(timer.isPending());
    runFor(loop, 300ms);
    EXPECT_EQ(calls, (std::vector<bool>{false}));
    // A second cancel is a no-op.
    timer.cancel();
    EXPECT_EQ(calls.size(), 1u);
}

TEST(Timer, CancelOfNonPendingTimerGivesNoCallback)
{
    EventLoop loop;
    Timer never(loop);
    never.cancel();  // never set
    EXPECT_FALSE(never.isPending());

    Timer expired(loop);
    std::vector<bool> calls;
    expired.set(20ms, false, [&](bool fired) { calls.push_back(fired); });
    runFor(loop, 200ms);
    ASSERT_EQ(calls, (std::vector<bool>{true}));
    expired.cancel();
    EXPECT_EQ(calls, (std::vector<bool>{true}));
}

TEST(Timer, CancelFromAnotherCallback)
{
    EventLoop loop;
    Timer victim(loop);
    Timer killer(loop);
    std::vector<bool> calls;
    victim.set(300ms, false, [&](bool fired) { calls.push_back(fired); });
    killer.set(50ms, false, [&](bool) { victim.cancel(); });
    runFor(loop, 600ms);
    EXPECT_EQ(calls, (std::vector<bool>{false}));
}

TEST(Timer, RepeatFiresEveryPeriodUntilCancelled)
{
    EventLoop loop;
    Timer timer(loop);
    int ticks = 0;
    int cancels = 0;
    const auto start = Clock::now();
    Clock::time_point fifth;
    timer.set(40ms, true, [&](bool fired) {
        if (!fired) {
            ++cancels;
            loop.stop();
            return;
        }
        EXPECT_TRUE(timer.isPending());
        if (++ticks == 5) {
            fifth = Clock::now();
            timer.cancel();
        }
    });
    Watchdog watchdog(loop, 10s);
    EXPECT_EQ(loop.execute(), 0);
    EXPECT_FALSE(watchdog.fired());
    EXPECT_EQ(ticks, 5);
    EXPECT_EQ(cancels, 1);
    EXPECT_GE(fifth - start, 200ms);
    EXPECT_FALSE(timer.isPending());
    runFor(loop, 150ms);
    EXPECT_EQ(ticks, 5);
}

TEST(Timer, RearmFromInsideTheCallback)
{
    EventLoop loop;
    Timer timer(loop);
    int shots = 0;
    std::function<void(bool)> again = [&](bool fired) {
        EXPECT_TRUE(fired);
        EXPECT_FALSE(timer.isPending());
        if (++shots < 3) {
            EXPECT_EQ(timer.set(30ms, false, again), 0);
            EXPECT_TRUE(timer.isPending());
        } else {
            loop.stop();
        }
    };
    timer.set(30ms, false, again);
    Watchdog watchdog(loop, 10s);
    EXPECT_EQ(loop.execute(), 0);
    EXPECT_FALSE(watchdog.fired());
    EXPECT_EQ(shots, 3);
}

TEST(Timer, CallbackReplacedFromInsideItselfStaysUsable)
{
    // The running callback owns captured state; set() replaces it while it runs.
    EventLoop loop;
    Timer timer(loop);
    std::vector<std::string> seen;
    const std::string first(200, 'a');
    timer.set(10ms, false, [&, first](bool) {
        timer.set(10ms, false, [&](bool) { loop.stop(); });
        seen.push_back(first);
    });
    Watchdog watchdog(loop, 10s);
    EXPECT_EQ(loop.execute(), 0);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], first);
}

TEST(Timer, DestroyingAPendingTimerIsSilent)
{
    EventLoop loop;
    int calls = 0;
    {
        Timer timer(loop);
        timer.set(20ms, false, [&](bool) { ++calls; });
    }
    runFor(loop, 200ms);
    EXPECT_EQ(calls, 0);
}

TEST(Timer, CallbackMayDestroyItsTimer)
{
    EventLoop loop;
    auto timer = std::make_unique<Timer>(loop);
    int calls = 0;
    timer->set(20ms, true, [&](bool) {
        ++calls;
        timer.reset();
    });
    runFor(loop, 200ms);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(timer, nullptr);
}

TEST(Timer, ZeroPeriodFiresPromptly)
{
    EventLoop loop;
    Timer timer(loop);
    bool fired = false;
    timer.set(0ms, false, [&](bool f) {
        fired = f;
        loop.stop();
    });
    Watchdog watchdog(loop, 5s);
    EXPECT_EQ(loop.execute(), 0);
    EXPECT_TRUE(fired);
    EXPECT_FALSE(watchdog.fired());
}

TEST(Timer, NegativePeriodIsRefused)
{
    EventLoop loop;
    Timer timer(loop);
    int calls = 0;
    EXPECT_EQ(timer.set(-5ms, false, [&](bool) { ++calls; }), -EINVAL);
    EXPECT_FALSE(timer.isPending());
    timer.cancel();
    EXPECT_EQ(calls, 0);
}

TEST(Timer, LongPeriodsKeepSecondsAndMilliseconds)
{
    // 1500 ms must not become 1 s or 500 ms: check that it is still pending
    // after 1.2 s and fires by 1.5 s.
    EventLoop loop;
    Timer timer(loop);
    const auto start = Clock::now();
    Clock::time_point firedAt;
    timer.set(1500ms, false, [&](bool) {
        firedAt = Clock::now();
        loop.stop();
    });
    Timer probe(loop);
    bool pendingAtProbe = false;
    probe.set(1200ms, false, [&](bool) { pendingAtProbe = timer.isPending(); });
    Watchdog watchdog(loop, 10s);
    EXPECT_EQ(loop.execute(), 0);
    EXPECT_TRUE(pendingAtProbe);
    EXPECT_GE(firedAt - start, 1500ms);
}
