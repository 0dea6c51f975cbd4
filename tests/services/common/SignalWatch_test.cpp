// Signals as events of the loop: delivered in order on the loop's thread,
// held while the daemon sets up, and the old mask back afterwards.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <vector>

#include <orv/sys/EventLoop.h>

#include "SignalWatch.h"
#include "testsupport/LoopRun.h"

using namespace std::chrono_literals;
using orv::services::SignalWatch;

namespace {

bool blocked(int signo)
{
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signo) == 1;
}

}  // namespace

TEST(SignalWatch, SignalsArriveOnTheLoopInOrder)
{
    orv::sys::EventLoop loop;
    std::vector<int> seen;
    {
        SignalWatch watch(loop, {SIGHUP, SIGUSR2}, [&](int signo) { seen.push_back(signo); });
        ASSERT_TRUE(watch.ok());
        ::raise(SIGUSR2);
        ::raise(SIGHUP);
        EXPECT_TRUE(seen.empty()) << "nothing runs in a handler";
        EXPECT_TRUE(testsupport::runUntil(
            loop, [&] { return seen.size() == 2; }, 2s));
    }
    // Standard signals are taken lowest number first.
    EXPECT_EQ(seen, (std::vector<int>{SIGHUP, SIGUSR2}));
    EXPECT_FALSE(blocked(SIGHUP)) << "the old mask is back";
    EXPECT_FALSE(blocked(SIGUSR2));
}

TEST(SignalWatch, ASignalDuringSetUpWaitsForTheWatch)
{
    sigset_t before;
    sigprocmask(SIG_BLOCK, nullptr, &before);
    SignalWatch::blockEarly({SIGHUP});
    ::raise(SIGHUP);  // would end the test program if it were not held
    orv::sys::EventLoop loop;
    int seen = 0;
    {
        SignalWatch watch(loop, {SIGHUP}, [&](int signo) { seen = signo; });
        EXPECT_TRUE(testsupport::runUntil(
            loop, [&] { return seen != 0; }, 2s));
    }
    EXPECT_EQ(seen, SIGHUP);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}
