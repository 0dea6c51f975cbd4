#include "orv/communication/Netlink.h"

#include <gtest/gtest.h>
#include <net/if_arp.h>

#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "Sandbox.h"
#include "orv/communication/NetadapterList.h"
#include "orv/exception/exception.h"
#include "orv/sys/EventLoop.h"
#include "orv/sys/Timer.h"
#include "testsupport/LoopRun.h"
#include "testsupport/TimeScale.h"

using orv::communication::Netadapter;
using orv::communication::NetadapterList;
using orv::communication::Netlink;
using orv::sys::EventLoop;
using orv::sys::Timer;
using orvtest::run;
using orvtest::runIsolated;
using testsupport::runUntil;
using namespace std::chrono_literals;

namespace {

// One callback as seen from inside it, with what the shared list said then.
struct Event
{
    Netlink::event_t kind;
    unsigned index;
    std::string address;
    bool listHasAdapter;
    std::string name;
    bool up;
    bool listHasAddress;
    bool firewire;
    std::uint64_t nodeId;
};

struct Recorder
{
    NetadapterList& list;
    std::vector<Event> events;

    Netlink::Callback callback()
    {
        return [this](Netlink::event_t kind, unsigned index, const std::string& address) {
            Event e{kind, index, address, list.contains(index), "", false, false, false, 0};
            if (e.listHasAdapter) {
                const Netadapter adapter = list.getAdapterByInterfaceIndex(index);
                e.name = adapter.getName();
                e.up = adapter.isUp();
                e.firewire = adapter.isFirewireAdapter();
                e.nodeId = adapter.getFirewireNodeId();
                for (const auto& a : adapter.getIpv4Addresses()) {
                    e.listHasAddress = e.listHasAddress || a.address == address;
                }
            }
            events.push_back(e);
        };
    }

    std::size_t count(Netlink::event_t kind) const
    {
        std::size_t n = 0;
        for (const Event& e : events) {
            n += e.kind == kind ? 1 : 0;
        }
        return n;
    }

    // Index of the first event matching, at or after from; -1 when none.
    int find(Netlink::event_t kind, const std::string& name, std::size_t from = 0,
             const std::string& address = "") const
    {
        for (std::size_t i = from; i < events.size(); ++i) {
            if (events[i].kind == kind && events[i].name == name &&
                (address.empty() || events[i].address == address)) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }
};

// Lets events that should not come have their chance: a marker change made
// last is seen only after everything before it.
void settle(EventLoop& loop, Recorder& recorder, const std::string& marker)
{
    ASSERT_TRUE(run("ip link add " + marker + " type veth peer name " + marker + "p"));
    ASSERT_TRUE(runUntil(loop, [&] { return recorder.find(Netlink::LINK_ADDED, marker + "p") >= 0; }));
}

}  // namespace

TEST(Netlink, InitialDumpReportsLinksThenAddressesThenComplete)
{
    runIsolated([] {
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        ASSERT_TRUE(run("ip addr add 10.1.0.1/24 dev va"));
        ASSERT_TRUE(run("ip addr add 10.2.0.1/16 dev vb"));
        ASSERT_TRUE(run("ip addr add 10.2.0.2/16 dev vb"));
        ASSERT_TRUE(run("ip link set va up"));
        EventLoop loop;
        NetadapterList list;
        Recorder recorder{list, {}};
        Netlink netlink(list, loop);
        ASSERT_EQ(netlink.start(recorder.callback()), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.count(Netlink::COMPLETE) == 1; }));

        const auto& ev = recorder.events;
        ASSERT_EQ(ev.size(), 3u + 4u + 1u);
        std::set<std::string> links;
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(ev[i].kind, Netlink::LINK_ADDED);
            EXPECT_EQ(ev[i].address, "");
            EXPECT_TRUE(ev[i].listHasAdapter);
            links.insert(ev[i].name);
        }
        // Every link, also the one that is down.
        EXPECT_EQ(links, (std::set<std::string>{"lo", "va", "vb"}));
        std::set<std::string> addresses;
        for (std::size_t i = 3; i < 7; ++i) {
            EXPECT_EQ(ev[i].kind, Netlink::ADDRESS_ADDED);
            EXPECT_TRUE(ev[i].listHasAddress);
            addresses.insert(ev[i].name + " " + ev[i].address);
        }
        EXPECT_EQ(addresses,
                  (std::set<std::string>{"lo 127.0.0.1", "va 10.1.0.1", "vb 10.2.0.1", "vb 10.2.0.2"}));
        EXPECT_EQ(ev[7].kind, Netlink::COMPLETE);
        EXPECT_EQ(ev[7].index, 0u);
        EXPECT_EQ(ev[7].address, "");
        EXPECT_EQ(ev[recorder.find(Netlink::LINK_ADDED, "va")].index, orvtest::interfaceIndex("va"));
    });
}

TEST(Netlink, InitialDumpBringsTheSnapshotUpToDate)
{
    runIsolated([] {
        ASSERT_TRUE(run("ip link add old type veth peer name oldp"));
        ASSERT_TRUE(run("ip addr add 10.3.0.1/24 dev lo"));
        EventLoop loop;
        NetadapterList list;
        ASSERT_TRUE(list.contains(orvtest::interfaceIndex("old")));
        // Changes between the snapshot and start().
        const unsigned oldIndex = orvtest::interfaceIndex("old");
        ASSERT_TRUE(run("ip link del old"));
        ASSERT_TRUE(run("ip addr del 10.3.0.1/24 dev lo"));
        ASSERT_TRUE(run("ip link add new type veth peer name newp"));
        Recorder recorder{list, {}};
        Netlink netlink(list, loop);
        ASSERT_EQ(netlink.start(recorder.callback()), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.count(Netlink::COMPLETE) == 1; }));
        EXPECT_FALSE(list.contains(oldIndex));
        EXPECT_THROW(list.getAdapterByName("old"), orv::exception::exception);
        EXPECT_EQ(list.getAdapterByName("new").getInterfaceIndex(), orvtest::interfaceIndex("new"));
        EXPECT_GE(recorder.find(Netlink::LINK_ADDED, "new"), 0);
        EXPECT_EQ(list.getAdapterByName("lo").getIpv4Addresses().size(), 1u);
        // Nothing is reported about what vanished before start().
        for (const Event& e : recorder.events) {
            EXPECT_NE(e.index, oldIndex);
            EXPECT_NE(e.address, "10.3.0.1");
        }
    });
}

TEST(Netlink, LinkAddedUpDownAndDeleted)
{
    runIsolated([] {
        EventLoop loop;
        NetadapterList list;
        Recorder recorder{list, {}};
        Netlink netlink(list, loop);
        ASSERT_EQ(netlink.start(recorder.callback()), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.count(Netlink::COMPLETE) == 1; }));

        std::size_t mark = recorder.events.size();
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        ASSERT_TRUE(runUntil(loop, [&] {
            return recorder.find(Netlink::LINK_ADDED, "va", mark) >= 0 &&
                   recorder.find(Netlink::LINK_ADDED, "vb", mark) >= 0;
        }));
        const unsigned va = orvtest::interfaceIndex("va");
        EXPECT_TRUE(list.contains(va));
        EXPECT_FALSE(list.getAdapterByName("va").isUp());

        mark = recorder.events.size();
        ASSERT_TRUE(run("ip link set va up"));
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.find(Netlink::LINK_ADDED, "va", mark) >= 0; }));
        EXPECT_TRUE(recorder.events[recorder.find(Netlink::LINK_ADDED, "va", mark)].up);

        mark = recorder.events.size();
        ASSERT_TRUE(run("ip link set va down"));
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.find(Netlink::LINK_REMOVED, "va", mark) >= 0; }));
        // Inside the callback the adapter was still there and still up.
        EXPECT_TRUE(recorder.events[recorder.find(Netlink::LINK_REMOVED, "va", mark)].up);
        // A link that went down stays in the list.
        ASSERT_TRUE(list.contains(va));
        EXPECT_FALSE(list.getAdapterByName("va").isUp());

        mark = recorder.events.size();
        ASSERT_TRUE(run("ip link del va"));
        ASSERT_TRUE(runUntil(loop, [&] {
            return recorder.find(Netlink::LINK_REMOVED, "va", mark) >= 0 &&
                   recorder.find(Netlink::LINK_REMOVED, "vb", mark) >= 0;
        }));
        const Event& removed = recorder.events[recorder.find(Netlink::LINK_REMOVED, "va", mark)];
        EXPECT_TRUE(removed.listHasAdapter);
        EXPECT_EQ(removed.index, va);
        EXPECT_FALSE(list.contains(va));
        EXPECT_THROW(list.getAdapterByName("vb"), orv::exception::exception);
        // Nothing was reported twice or without cause.
        settle(loop, recorder, "mk");
        std::size_t vaAdded = 0;
        std::size_t vaRemoved = 0;
        for (const Event& e : recorder.events) {
            if (e.index == va) {
                vaAdded += e.kind == Netlink::LINK_ADDED ? 1 : 0;
                vaRemoved += e.kind == Netlink::LINK_REMOVED ? 1 : 0;
            }
        }
        EXPECT_EQ(vaAdded, 2u);    // appeared, came up
        EXPECT_EQ(vaRemoved, 2u);  // went down, deleted
    });
}

TEST(Netlink, AddressAddedAndRemoved)
{
    runIsolated([] {
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        EventLoop loop;
        NetadapterList list;
        Recorder recorder{list, {}};
        Netlink netlink(list, loop);
        ASSERT_EQ(netlink.start(recorder.callback()), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.count(Netlink::COMPLETE) == 1; }));

        std::size_t mark = recorder.events.size();
        ASSERT_TRUE(run("ip addr add 169.254.4.5/16 dev va"));
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.find(Netlink::ADDRESS_ADDED, "va", mark) >= 0; }));
        const Event added = recorder.events[recorder.find(Netlink::ADDRESS_ADDED, "va", mark)];
        EXPECT_EQ(added.address, "169.254.4.5");
        EXPECT_EQ(added.index, orvtest::interfaceIndex("va"));
        EXPECT_TRUE(added.listHasAddress);  // the list was updated before the callback
        const Netadapter va = list.getAdapterByName("va");
        ASSERT_EQ(va.getIpv4Addresses().size(), 1u);
        EXPECT_EQ(va.getIpv4Addresses()[0].mask, "255.255.0.0");

        mark = recorder.events.size();
        ASSERT_TRUE(run("ip addr del 169.254.4.5/16 dev va"));
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.find(Netlink::ADDRESS_REMOVED, "va", mark) >= 0; }));
        const Event removed = recorder.events[recorder.find(Netlink::ADDRESS_REMOVED, "va", mark)];
        EXPECT_EQ(removed.address, "169.254.4.5");
        EXPECT_TRUE(removed.listHasAddress);  // and after it for removals
        EXPECT_TRUE(list.getAdapterByName("va").getIpv4Addresses().empty());

        // Deleting a link with addresses reports the addresses' removal first.
        ASSERT_TRUE(run("ip addr add 10.6.0.1/24 dev vb"));
        mark = recorder.events.size();
        ASSERT_TRUE(run("ip link del vb"));
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.find(Netlink::LINK_REMOVED, "vb", mark) >= 0; }));
        const int addressGone = recorder.find(Netlink::ADDRESS_REMOVED, "vb", mark, "10.6.0.1");
        EXPECT_GE(addressGone, 0);
        EXPECT_LT(addressGone, recorder.find(Netlink::LINK_REMOVED, "vb", mark));
    });
}

TEST(Netlink, FirewireInterfaceComingUpIsClassifiedInTheCallback)
{
    runIsolated([] {
        EventLoop loop;
        NetadapterList list;
        Recorder recorder{list, {}};
        Netlink netlink(list, loop);
        ASSERT_EQ(netlink.start(recorder.callback()), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.count(Netlink::COMPLETE) == 1; }));

        orvtest::Tap tap("firewire1", ARPHRD_IEEE1394);
        ASSERT_TRUE(orvtest::overlayFile("/sys/class/net/firewire1/address", "00:0a:7c:31:00:12:34:56\n"));
        const std::size_t mark = recorder.events.size();
        ASSERT_TRUE(run("ip link set firewire1 up"));
        ASSERT_TRUE(run("ip addr add 169.254.9.9/16 dev firewire1"));
        ASSERT_TRUE(
            runUntil(loop, [&] { return recorder.find(Netlink::ADDRESS_ADDED, "firewire1", mark) >= 0; }));
        const int up = recorder.find(Netlink::LINK_ADDED, "firewire1", mark);
        ASSERT_GE(up, 0);
        EXPECT_TRUE(recorder.events[up].firewire);
        EXPECT_EQ(recorder.events[up].nodeId, 0x000a7c3100123456ULL);
        EXPECT_TRUE(list.getAdapterByName("firewire1").isFirewireAdapter());
    });
}

TEST(Netlink, StartTwiceIsRefusedAndRestartDumpsAgain)
{
    runIsolated([] {
        EventLoop loop;
        NetadapterList list;
        Recorder recorder{list, {}};
        Netlink netlink(list, loop);
        ASSERT_EQ(netlink.start(recorder.callback()), 0);
        EXPECT_EQ(netlink.start(recorder.callback()), -EALREADY);
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.count(Netlink::COMPLETE) == 1; }));
        netlink.stop();
        netlink.stop();
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        // Stopped: nothing arrives. The restart reports the present state.
        ASSERT_EQ(netlink.start(recorder.callback()), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.count(Netlink::COMPLETE) == 2; }));
        const std::size_t firstComplete = static_cast<std::size_t>(recorder.find(Netlink::COMPLETE, ""));
        EXPECT_EQ(firstComplete, 2u);  // lo and its address
        EXPECT_GE(recorder.find(Netlink::LINK_ADDED, "lo", firstComplete + 1), 0);
        EXPECT_GE(recorder.find(Netlink::LINK_ADDED, "va", firstComplete + 1), 0);
    });
}

TEST(Netlink, StopFromInsideTheCallbackEndsTheEvents)
{
    runIsolated([] {
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        EventLoop loop;
        NetadapterList list;
        Netlink netlink(list, loop);
        int calls = 0;
        ASSERT_EQ(netlink.start([&](Netlink::event_t, unsigned, const std::string&) {
            ++calls;
            netlink.stop();
        }),
                  0);
        Timer pause(loop);
        pause.set(300ms, false, [&](bool) { loop.stop(); });
        ASSERT_TRUE(run("ip link add vc type veth peer name vd"));
        loop.execute();
        EXPECT_EQ(calls, 1);
    });
}

TEST(Netlink, DestroyedMonitorLeavesTheLoopClean)
{
    runIsolated([] {
        EventLoop loop;
        NetadapterList list;
        int calls = 0;
        {
            Netlink netlink(list, loop);
            ASSERT_EQ(netlink.start([&](Netlink::event_t, unsigned, const std::string&) { ++calls; }), 0);
        }
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        Timer pause(loop);
        pause.set(200ms, false, [&](bool) { loop.stop(); });
        loop.execute();
        EXPECT_EQ(calls, 0);
        EXPECT_EQ(loop.wakeups(), 1u);  // only the timer
    });
}

TEST(Netlink, LostNotificationsAreRecoveredByADump)
{
    runIsolated([] {
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        EventLoop loop;
        NetadapterList list;
        Recorder recorder{list, {}};
        Netlink netlink(list, loop);
        ASSERT_EQ(netlink.start(recorder.callback()), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return recorder.count(Netlink::COMPLETE) == 1; }));
        const std::size_t mark = recorder.events.size();

        // Far more changes than the socket buffers while the loop is not reading.
        constexpr int kAddresses = 6000;
        std::string batch;
        for (int i = 0; i < kAddresses; ++i) {
            batch += "addr add 10.8." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1) +
                     "/32 dev va\n";
        }
        orvtest::writeFile("/mnt/batch", batch);
        ASSERT_TRUE(run("ip -batch /mnt/batch"));
        ASSERT_TRUE(runUntil(
            loop, [&] { return list.getAdapterByName("va").getIpv4Addresses().size() == kAddresses; },
            testsupport::scaled(20s)));
        settle(loop, recorder, "mk");
        EXPECT_GT(netlink.overruns(), 0u) << "the kernel kept up; the recovery was not exercised";
        // Every address reported exactly once, whether by notification or by the dump.
        std::set<std::string> reported;
        std::size_t added = 0;
        for (std::size_t i = mark; i < recorder.events.size(); ++i) {
            if (recorder.events[i].kind == Netlink::ADDRESS_ADDED) {
                ++added;
                reported.insert(recorder.events[i].address);
            }
        }
        EXPECT_EQ(added, static_cast<std::size_t>(kAddresses));
        EXPECT_EQ(reported.size(), static_cast<std::size_t>(kAddresses));
        EXPECT_EQ(recorder.count(Netlink::COMPLETE), 1u);
    });
}
