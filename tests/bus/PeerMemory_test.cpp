// What a fetch of large values costs the peer library: it remembers a digest
// of each value, not the value, and gives back the memory the parse of a
// large notification took. A program of its own, so that nothing else in
// the process has touched the heap.
#include "BusTestSupport.h"
#include "testsupport/TimeScale.h"

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

using testsupport::ChildProcess;
using testsupport::LocalVelad;
using testsupport::runFor;
using testsupport::runUntil;
using namespace std::chrono_literals;

namespace {

// A JSON array of n zeros: jsoncpp holds each element as a tree node, so the
// parse of one such value takes some 50 times its text.
std::string zeros(std::size_t n)
{
    std::string s = "[0";
    s.reserve(2 * n + 1);
    for (std::size_t i = 1; i < n; ++i) {
        s += ",0";
    }
    return s + "]";
}

}  // namespace

TEST(PeerMemory, FetchingThreeMegabytesOfValuesCostsLessThanTenMegabytes)
{
    LocalVelad velad{{"--quiet"}};
    ASSERT_NE(velad.port(), 0);
    // The owner is another process: only the fetcher's memory is measured.
    ChildProcess owner({bustest::velaPath(), "--port", std::to_string(velad.port()), "own"});
    const std::size_t elements = 520000;  // ~1 MiB of text each
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(owner.write("add big/" + std::to_string(i) + " " + zeros(elements) + "\n"));
        std::string answer;
        // vela parses each megabyte before it answers: slow in a sanitizer build.
        ASSERT_TRUE(owner.readLine(answer, testsupport::scaled(10s)));
        ASSERT_EQ(answer, "ok");
    }

    orv::sys::EventLoop loop;
    const long before = bustest::rssKiB(::getpid());
    vela::PeerAsync watcher(loop, "127.0.0.1", velad.port(), "watcher");
    int adds = 0;
    int changes = 0;
    bool complete = true;
    vela::matcher_t m;
    m.startsWith = "big/";
    watcher.addFetchAsync(m, [&](const Json::Value& n, int) {
        const std::string event = n["event"].asString();
        adds += event == "add" ? 1 : 0;
        changes += event == "change" ? 1 : 0;
        if (event == "add") {
            complete = complete && n["value"].size() == elements;
        }
    });
    ASSERT_TRUE(runUntil(loop, [&] { return adds == 3; }, testsupport::scaled(30s)));
    EXPECT_TRUE(complete);
    // And three changes of each, which the peer compares with what it saw.
    // One at a time: a reader that lets several megabytes pile up would be
    // dropped by the broker's backlog limit.
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(owner.write("change big/" + std::to_string(i) + " " + zeros(elements - 1 - round) + "\n"));
            const int expected = round * 3 + i + 1;
            ASSERT_TRUE(runUntil(loop, [&] { return changes == expected; }, testsupport::scaled(30s))) << changes;
        }
    }
    runFor(loop, 100ms);
    const long after = bustest::rssKiB(::getpid());
    RecordProperty("peer_rss_growth_kib", std::to_string(after - before));
    std::printf("peer RSS before %ld KiB, after fetching 3 x 1 MiB and 9 changes %ld KiB (+%ld KiB)\n", before,
                after, after - before);
    if (!testsupport::sanitizedBuild()) {
        EXPECT_LT(after - before, 10 * 1024) << "KiB";
    }
}
