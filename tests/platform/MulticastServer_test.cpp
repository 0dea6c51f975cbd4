#include "orv/communication/MulticastServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Sandbox.h"
#include "orv/communication/Netadapter.h"
#include "orv/communication/NetadapterList.h"
#include "orv/sys/EventLoop.h"
#include "orv/sys/Timer.h"
#include "testsupport/LoopRun.h"

using orv::communication::MulticastServer;
using orv::communication::Netadapter;
using orv::communication::NetadapterList;
using orv::sys::EventLoop;
using orv::sys::Timer;
using orvtest::Netns;
using orvtest::run;
using orvtest::runIsolated;
using testsupport::runFor;
using testsupport::runUntil;
using namespace std::chrono_literals;

namespace {

constexpr const char* kGroup = "239.77.1.2";
constexpr unsigned kPort = 23456;

struct Datagram
{
    int result;
    std::string data;
    std::string fromName;
    unsigned fromIndex;
    int interfaceIndex;
    bool fromFirewire;
    std::string sender;
};

// Receives every datagram of a server into a list.
struct Collector
{
    std::vector<Datagram> got;
    unsigned bufferSize = 65536;

    MulticastServer::ReceiveCallback callback()
    {
        return [this](MulticastServer& server) {
            std::vector<char> buffer(bufferSize + 1);
            Netadapter from;
            int index = -1;
            std::string sender;
            const int n = server.receiveTelegram(buffer.data(), bufferSize, from, index, sender);
            got.push_back({n, n > 0 ? std::string(buffer.data(), static_cast<std::size_t>(n)) : std::string(),
                           from.getName(), from.getInterfaceIndex(), index, from.isFirewireAdapter(),
                           sender});
            return n;
        };
    }
};

// veth va (10.77.0.1/24, the sandbox's namespace) <-> vb (10.77.0.2/24, "peer").
struct VethLink
{
    Netns peer{"peer"};
    bool ok = false;
    VethLink()
    {
        ok = run("ip link add va type veth peer name vb netns peer") &&
             run("ip addr add 10.77.0.1/24 dev va") && run("ip -n peer addr add 10.77.0.2/24 dev vb") &&
             run("ip link set va up") && run("ip -n peer link set vb up") && orvtest::waitLinkReady("va") &&
             orvtest::waitLinkReady("vb", "-n peer");
    }
};

// A server in the peer namespace with an adapter list of that namespace.
struct PeerServer
{
    Netns& ns;
    std::unique_ptr<NetadapterList> list;
    std::unique_ptr<MulticastServer> server;
    Collector collector;
    PeerServer(Netns& peerNs, EventLoop& loop, unsigned port = kPort) : ns(peerNs)
    {
        Netns::Inside inside(ns);
        list = std::make_unique<NetadapterList>();
        server = std::make_unique<MulticastServer>(*list, loop);
        EXPECT_EQ(server->start(kGroup, port, collector.callback()), 0);
    }

    // Joins the group on the peer namespace's interface with that address.
    int join(const std::string& address)
    {
        Netns::Inside inside(ns);
        return server->addInterface(address);
    }
};

}  // namespace

TEST(MulticastServer, StartValidatesItsArguments)
{
    runIsolated([] {
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector c;
        EXPECT_FALSE(server.isStarted());
        EXPECT_EQ(server.start("not an address", kPort, c.callback()), -EINVAL);
        EXPECT_EQ(server.start("10.0.0.1", kPort, c.callback()), -EINVAL);  // not a group
        EXPECT_EQ(server.start("239.1.1.1.1", kPort, c.callback()), -EINVAL);
        EXPECT_EQ(server.start(kGroup, 0, c.callback()), -EINVAL);
        EXPECT_EQ(server.start(kGroup, 65536, c.callback()), -EINVAL);
        EXPECT_FALSE(server.isStarted());
        EXPECT_EQ(server.start(kGroup, kPort, c.callback()), 0);
        EXPECT_TRUE(server.isStarted());
        EXPECT_EQ(server.groupAddress(), kGroup);
        EXPECT_EQ(server.port(), kPort);
        EXPECT_EQ(server.start(kGroup, kPort + 1, c.callback()), -EALREADY);
        server.stop();
        EXPECT_FALSE(server.isStarted());
        server.stop();
        EXPECT_EQ(server.start(kGroup, kPort + 1, c.callback()), 0);
        // Rear and front of one daemon, and a second process, share group and port.
        MulticastServer other(list, loop);
        EXPECT_EQ(other.start(kGroup, kPort + 1, c.callback()), 0);
    });
}

TEST(MulticastServer, OperationsBeforeStartFailCleanly)
{
    runIsolated([] {
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        char buffer[16];
        Netadapter from;
        int index = 7;
        EXPECT_LT(server.receiveTelegram(buffer, sizeof buffer, from, index), 0);
        EXPECT_LT(server.addInterface(1), 0);
        EXPECT_LT(server.addInterface("127.0.0.1"), 0);
        EXPECT_EQ(server.dropInterface(1), 0);
        EXPECT_LT(server.sendOverInterface(list.getAdapterByName("lo"), "x", 1), 0);
        EXPECT_LT(server.sendOverInterfaceByAddress("127.0.0.1", "x", 1), 0);
        EXPECT_EQ(server.setMulticastLoop(false), 0);
    });
}

TEST(MulticastServer, ReceivesOnTheJoinedInterfaceAndNamesIt)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        ASSERT_EQ(server.addInterface("10.77.0.1"), 0);
        PeerServer peer(link.peer, loop);
        EXPECT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "<sync>:start:<sync>", 1), 19);
        ASSERT_TRUE(runUntil(loop, [&] { return !here.got.empty(); }));
        const Datagram& d = here.got[0];
        EXPECT_EQ(d.result, 19);
        EXPECT_EQ(d.data, "<sync>:start:<sync>");
        EXPECT_EQ(d.fromName, "va");
        EXPECT_EQ(d.fromIndex, orvtest::interfaceIndex("va"));
        EXPECT_EQ(d.interfaceIndex, static_cast<int>(orvtest::interfaceIndex("va")));
        EXPECT_FALSE(d.fromFirewire);
        EXPECT_EQ(d.sender, "10.77.0.2");
        char buffer[8];
        Netadapter from;
        int index = 0;
        std::string sender = "stale";
        EXPECT_EQ(server.receiveTelegram(buffer, sizeof buffer, from, index, sender), -EAGAIN);
        EXPECT_EQ(sender, "");
    });
}

TEST(MulticastServer, HearsTheGroupOnlyWhereItJoined)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        // Another socket of this host joins on va; with IP_MULTICAST_ALL off
        // that must not make our server hear the group.
        MulticastServer bystander(list, loop);
        Collector other;
        ASSERT_EQ(bystander.start(kGroup, kPort, other.callback()), 0);
        ASSERT_EQ(bystander.addInterface(static_cast<int>(orvtest::interfaceIndex("va"))), 0);

        PeerServer peer(link.peer, loop);
        const Netadapter vb = [&] {
            Netns::Inside inside(link.peer);
            return NetadapterList().getAdapterByName("vb");
        }();
        ASSERT_GT(peer.server->sendOverInterface(vb, "not joined", 1), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return other.got.size() == 1; }));

        ASSERT_EQ(server.addInterface(static_cast<int>(orvtest::interfaceIndex("va"))), 0);
        ASSERT_GT(peer.server->sendOverInterface(vb, "joined", 1), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return other.got.size() == 2 && !here.got.empty(); }));
        ASSERT_EQ(here.got.size(), 1u);
        EXPECT_EQ(here.got[0].data, "joined");

        ASSERT_EQ(server.dropInterface(static_cast<int>(orvtest::interfaceIndex("va"))), 0);
        ASSERT_GT(peer.server->sendOverInterface(vb, "dropped", 1), 0);
        ASSERT_TRUE(runUntil(loop, [&] { return other.got.size() == 3; }));
        // Datagrams on one link arrive in order: had "dropped" reached our
        // server, it would be there by now.
        EXPECT_EQ(here.got.size(), 1u);
    });
}

TEST(MulticastServer, SendByAdapterAndByAddressUseThatInterface)
{
    runIsolated([] {
        // Two links out of the sandbox: va/vb to "peer" and wa/wb to "third".
        VethLink link;
        ASSERT_TRUE(link.ok);
        Netns third("third");
        ASSERT_TRUE(run("ip link add wa type veth peer name wb netns third"));
        ASSERT_TRUE(run("ip addr add 10.78.0.1/24 dev wa"));
        ASSERT_TRUE(run("ip -n third addr add 10.78.0.2/24 dev wb"));
        ASSERT_TRUE(run("ip link set wa up"));
        ASSERT_TRUE(run("ip -n third link set wb up"));
        ASSERT_TRUE(orvtest::waitLinkReady("wa"));
        ASSERT_TRUE(orvtest::waitLinkReady("wb", "-n third"));

        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        PeerServer atPeer(link.peer, loop);
        PeerServer atThird(third, loop);
        ASSERT_EQ(atPeer.join("10.77.0.2"), 0);
        ASSERT_EQ(atThird.join("10.78.0.2"), 0);
        EXPECT_EQ(server.sendOverInterface(list.getAdapterByName("wa"), "to third", 1), 8);
        EXPECT_EQ(server.sendOverInterfaceByAddress("10.77.0.1", "to peer", 1), 7);
        ASSERT_TRUE(
            runUntil(loop, [&] { return !atPeer.collector.got.empty() && !atThird.collector.got.empty(); }));
        // Let anything misrouted arrive too before judging.
        EXPECT_EQ(server.sendOverInterfaceByAddress("10.77.0.1", "end", 1), 3);
        EXPECT_EQ(server.sendOverInterface(list.getAdapterByName("wa"), "end", 1), 3);
        ASSERT_TRUE(runUntil(
            loop, [&] { return atPeer.collector.got.size() >= 2 && atThird.collector.got.size() >= 2; }));
        ASSERT_EQ(atPeer.collector.got.size(), 2u);
        ASSERT_EQ(atThird.collector.got.size(), 2u);
        EXPECT_EQ(atPeer.collector.got[0].data, "to peer");
        EXPECT_EQ(atPeer.collector.got[0].fromName, "vb");
        EXPECT_EQ(atThird.collector.got[0].data, "to third");
        EXPECT_EQ(atThird.collector.got[0].fromName, "wb");
    });
}

TEST(MulticastServer, SendByAddressUsesThatSourceAddress)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        ASSERT_TRUE(run("ip addr add 10.77.0.9/24 dev va"));
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        // A plain socket in the peer namespace sees the sender's address.
        int probe = -1;
        {
            Netns::Inside inside(link.peer);
            probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            sockaddr_in bindAddress{};
            bindAddress.sin_family = AF_INET;
            bindAddress.sin_port = htons(kPort);
            ::inet_pton(AF_INET, kGroup, &bindAddress.sin_addr);
            int on = 1;
            ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&bindAddress), sizeof bindAddress), 0);
            ip_mreqn join{};
            join.imr_multiaddr = bindAddress.sin_addr;
            join.imr_ifindex = static_cast<int>(orvtest::interfaceIndex("vb"));
            ASSERT_EQ(::setsockopt(probe, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join), 0);
            ASSERT_EQ(::setsockopt(probe, IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0);
        }
        ASSERT_EQ(server.sendOverInterfaceByAddress("10.77.0.9", "ttl", 5), 3);
        char data[16];
        sockaddr_in sender{};
        iovec iov{data, sizeof data};
        alignas(cmsghdr) char control[64];
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof sender;
        message.msg_iov = &iov;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        timeval timeout{5, 0};
        ::setsockopt(probe, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        ASSERT_EQ(::recvmsg(probe, &message, 0), 3);
        char text[INET_ADDRSTRLEN];
        EXPECT_STREQ(::inet_ntop(AF_INET, &sender.sin_addr, text, sizeof text), "10.77.0.9");
        int ttl = -1;
        for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL) {
                std::memcpy(&ttl, CMSG_DATA(c), sizeof ttl);
            }
        }
        EXPECT_EQ(ttl, 5);
        ::close(probe);
    });
}

TEST(MulticastServer, LoopbackOfOwnSendsFollowsTheSetting)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        const int va = static_cast<int>(orvtest::interfaceIndex("va"));
        MulticastServer sender(list, loop);
        Collector sent;
        ASSERT_EQ(sender.start(kGroup, kPort, sent.callback()), 0);
        ASSERT_EQ(sender.addInterface(va), 0);
        MulticastServer listener(list, loop);
        Collector heard;
        ASSERT_EQ(listener.start(kGroup, kPort, heard.callback()), 0);
        ASSERT_EQ(listener.addInterface(va), 0);
        PeerServer peer(link.peer, loop);
        ASSERT_EQ(peer.join("10.77.0.2"), 0);

        ASSERT_EQ(sender.setMulticastLoop(false), 0);
        ASSERT_EQ(sender.sendOverInterfaceByAddress("10.77.0.1", "quiet", 1), 5);
        // The peer hears it: proof that it was sent while this host stayed deaf.
        ASSERT_TRUE(runUntil(loop, [&] { return peer.collector.got.size() == 1; }));
        ASSERT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "marker", 1), 6);
        ASSERT_TRUE(runUntil(loop, [&] { return !heard.got.empty() && !sent.got.empty(); }));
        ASSERT_EQ(heard.got.size(), 1u);
        EXPECT_EQ(heard.got[0].data, "marker");
        ASSERT_EQ(sent.got.size(), 1u);

        ASSERT_EQ(sender.setMulticastLoop(true), 0);
        ASSERT_EQ(sender.sendOverInterfaceByAddress("10.77.0.1", "loud", 1), 4);
        ASSERT_TRUE(runUntil(loop, [&] { return heard.got.size() == 2 && sent.got.size() == 2; }));
        EXPECT_EQ(heard.got[1].data, "loud");
        EXPECT_EQ(heard.got[1].fromName, "va");
        EXPECT_EQ(sent.got[1].data, "loud");
    });
}

TEST(MulticastServer, LoopSettingBeforeStartIsApplied)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer sender(list, loop);
        Collector sent;
        ASSERT_EQ(sender.setMulticastLoop(false), 0);
        ASSERT_EQ(sender.start(kGroup, kPort, sent.callback()), 0);
        ASSERT_EQ(sender.addInterface("10.77.0.1"), 0);
        PeerServer peer(link.peer, loop);
        ASSERT_EQ(peer.join("10.77.0.2"), 0);
        ASSERT_EQ(sender.sendOverInterfaceByAddress("10.77.0.1", "quiet", 1), 5);
        ASSERT_TRUE(runUntil(loop, [&] { return peer.collector.got.size() == 1; }));
        ASSERT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "marker", 1), 6);
        ASSERT_TRUE(runUntil(loop, [&] { return !sent.got.empty(); }));
        EXPECT_EQ(sent.got[0].data, "marker");
    });
}

TEST(MulticastServer, OversizedAndTruncatedDatagrams)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        here.bufferSize = 16;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        ASSERT_EQ(server.addInterface("10.77.0.1"), 0);
        PeerServer peer(link.peer, loop);

        // Larger than any IPv4 datagram: refused by the sender.
        EXPECT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", std::string(70000, 'x'), 1),
                  -EMSGSIZE);
        // Larger than the receiver's buffer: reported, dropped, and the next
        // datagram is intact.
        EXPECT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", std::string(17, 'y'), 1), 17);
        EXPECT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", std::string(16, 'z'), 1), 16);
        ASSERT_TRUE(runUntil(loop, [&] { return here.got.size() == 2; }));
        EXPECT_EQ(here.got[0].result, -EMSGSIZE);
        EXPECT_EQ(here.got[1].result, 16);
        EXPECT_EQ(here.got[1].data, std::string(16, 'z'));

        // A fragmented datagram near the IPv4 limit arrives whole.
        here.bufferSize = 65536;
        const std::string big(65000, 'b');
        EXPECT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", big, 1), 65000);
        ASSERT_TRUE(runUntil(loop, [&] { return here.got.size() == 3; }));
        EXPECT_EQ(here.got[2].result, 65000);
        EXPECT_EQ(here.got[2].data, big);
    });
}

TEST(MulticastServer, ZeroLengthDatagramGivesZero)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        ASSERT_EQ(server.addInterface("10.77.0.1"), 0);
        PeerServer peer(link.peer, loop);
        EXPECT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "", 1), 0);
        EXPECT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "after", 1), 5);
        ASSERT_TRUE(runUntil(loop, [&] { return here.got.size() == 2; }));
        EXPECT_EQ(here.got[0].result, 0);
        EXPECT_EQ(here.got[0].fromName, "va");
        EXPECT_EQ(here.got[1].data, "after");
    });
}

TEST(MulticastServer, UnreadDatagramDoesNotSpinTheLoop)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        int calls = 0;
        ASSERT_EQ(server.start(kGroup, kPort,
                               [&](MulticastServer&) {
                                   ++calls;
                                   return 0;
                               }),
                  0);
        ASSERT_EQ(server.addInterface("10.77.0.1"), 0);
        PeerServer peer(link.peer, loop);
        ASSERT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "ignored", 1), 7);
        ASSERT_TRUE(runUntil(loop, [&] { return calls > 0; }));
        const std::uint64_t wakeups = loop.wakeups();
        runFor(loop, 200ms);
        EXPECT_EQ(calls, 1);
        EXPECT_LE(loop.wakeups() - wakeups, 2u);
    });
}

TEST(MulticastServer, JoinTwiceAndDropNeverJoinedAreHarmless)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        const int va = static_cast<int>(orvtest::interfaceIndex("va"));
        EXPECT_EQ(server.dropInterface(va), 0);  // never joined
        EXPECT_EQ(server.addInterface(va), 0);
        EXPECT_EQ(server.addInterface(va), 0);
        EXPECT_EQ(server.addInterface("10.77.0.1"), 0);
        PeerServer peer(link.peer, loop);
        ASSERT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "once", 1), 4);
        ASSERT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "twice", 1), 5);
        ASSERT_TRUE(runUntil(loop, [&] { return here.got.size() >= 2; }));
        // One membership, so every datagram arrives once.
        ASSERT_EQ(here.got.size(), 2u);
        EXPECT_EQ(here.got[0].data, "once");
        EXPECT_EQ(here.got[1].data, "twice");
        EXPECT_EQ(server.dropInterface(va), 0);
        EXPECT_EQ(server.dropInterface(va), 0);
    });
}

TEST(MulticastServer, UnknownInterfacesAreRefused)
{
    runIsolated([] {
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        EXPECT_LT(server.addInterface(4242), 0);
        EXPECT_LT(server.addInterface(0), 0);
        EXPECT_LT(server.addInterface(-3), 0);
        EXPECT_EQ(server.dropInterface(4242), 0);
        EXPECT_EQ(server.dropInterface(-3), 0);
        EXPECT_EQ(server.addInterface("10.99.99.99"), -EADDRNOTAVAIL);
        EXPECT_EQ(server.addInterface("no address"), -EINVAL);
        EXPECT_EQ(server.addInterface(""), -EINVAL);
        Netadapter ghost;
        ghost.setName("ghost0");
        ghost.setInterfaceIndex(4242);
        EXPECT_LT(server.sendOverInterface(ghost, "x", 1), 0);
        EXPECT_LT(server.sendOverInterface(Netadapter(), "x", 1), 0);
        EXPECT_EQ(server.sendOverInterfaceByAddress("10.99.99.99", "x", 1), -EADDRNOTAVAIL);
        EXPECT_EQ(server.sendOverInterfaceByAddress("nonsense", "x", 1), -EINVAL);
        EXPECT_EQ(server.sendOverInterface(list.getAdapterByName("lo"), "x", 256), -EINVAL);
        // The server is still usable afterwards.
        EXPECT_EQ(server.addInterface("127.0.0.1"), 0);
    });
}

TEST(MulticastServer, InterfaceVanishingBetweenLookupAndUse)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        Collector here;
        ASSERT_EQ(server.start(kGroup, kPort, here.callback()), 0);
        const Netadapter va = list.getAdapterByName("va");
        ASSERT_EQ(server.addInterface(static_cast<int>(va.getInterfaceIndex())), 0);

        ASSERT_TRUE(run("ip link del va"));
        // The list still holds the stale adapter; every use fails cleanly.
        EXPECT_LT(server.sendOverInterface(va, "gone", 1), 0);
        EXPECT_LT(server.sendOverInterfaceByAddress("10.77.0.1", "gone", 1), 0);
        EXPECT_LT(server.addInterface(static_cast<int>(va.getInterfaceIndex())), 0);
        EXPECT_LT(server.addInterface("10.77.0.1"), 0);
        EXPECT_EQ(server.dropInterface(static_cast<int>(va.getInterfaceIndex())), 0);
        EXPECT_EQ(server.dropInterface(static_cast<int>(va.getInterfaceIndex())), 0);

        // A new link works with the same server.
        ASSERT_TRUE(run("ip link add vc type veth peer name vd netns peer"));
        ASSERT_TRUE(run("ip addr add 10.79.0.1/24 dev vc"));
        ASSERT_TRUE(run("ip -n peer addr add 10.79.0.2/24 dev vd"));
        ASSERT_TRUE(run("ip link set vc up"));
        ASSERT_TRUE(run("ip -n peer link set vd up"));
        ASSERT_TRUE(orvtest::waitLinkReady("vc"));
        ASSERT_TRUE(orvtest::waitLinkReady("vd", "-n peer"));
        ASSERT_EQ(server.addInterface("10.79.0.1"), 0);
        PeerServer peer(link.peer, loop);
        ASSERT_EQ(peer.server->sendOverInterfaceByAddress("10.79.0.2", "new link", 1), 8);
        ASSERT_TRUE(runUntil(loop, [&] { return !here.got.empty(); }));
        EXPECT_EQ(here.got[0].data, "new link");
        // vc is not in the server's (stale) list: the adapter comes back empty,
        // the index is still reported.
        EXPECT_EQ(here.got[0].fromName, "");
        EXPECT_EQ(here.got[0].interfaceIndex, static_cast<int>(orvtest::interfaceIndex("vc")));
    });
}

TEST(MulticastServer, StopFromInsideTheCallback)
{
    runIsolated([] {
        VethLink link;
        ASSERT_TRUE(link.ok);
        EventLoop loop;
        NetadapterList list;
        MulticastServer server(list, loop);
        int calls = 0;
        ASSERT_EQ(server.start(kGroup, kPort,
                               [&](MulticastServer& s) {
                                   ++calls;
                                   char buffer[64];
                                   Netadapter from;
                                   int index = 0;
                                   const int n = s.receiveTelegram(buffer, sizeof buffer, from, index);
                                   s.stop();
                                   return n;
                               }),
                  0);
        ASSERT_EQ(server.addInterface("10.77.0.1"), 0);
        PeerServer peer(link.peer, loop);
        ASSERT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "one", 1), 3);
        ASSERT_EQ(peer.server->sendOverInterfaceByAddress("10.77.0.2", "two", 1), 3);
        ASSERT_TRUE(runUntil(loop, [&] { return calls > 0; }));
        EXPECT_FALSE(server.isStarted());
        runFor(loop, 100ms);
        EXPECT_EQ(calls, 1);
    });
}

// FireWire interfaces of the simulator are TAP devices of link type 24 whose
// frames a relay carries to the other side with a broadcast destination.
// IPv4 multicast must work across such a pair.
TEST(MulticastServer, MulticastOverLinkType24TapsRelayedAsBroadcast)
{
    runIsolated([] {
        Netns peerNs("peer");
        orvtest::Tap here("fwa", ARPHRD_IEEE1394);
        std::unique_ptr<orvtest::Tap> there;
        {
            Netns::Inside inside(peerNs);
            there = std::make_unique<orvtest::Tap>("fwb", ARPHRD_IEEE1394);
        }
        ASSERT_TRUE(run("ip addr add 169.254.1.1/16 dev fwa"));
        ASSERT_TRUE(run("ip -n peer addr add 169.254.1.2/16 dev fwb"));
        ASSERT_TRUE(run("ip link set fwa up"));
        ASSERT_TRUE(run("ip -n peer link set fwb up"));
        ASSERT_TRUE(orvtest::waitLinkReady("fwa"));
        ASSERT_TRUE(orvtest::waitLinkReady("fwb", "-n peer"));

        EventLoop loop;
        int relayed = 0;
        auto relay = [&](int from, int to) {
            return [&, from, to](std::uint32_t) {
                unsigned char frame[65536];
                const ssize_t n = ::read(from, frame, sizeof frame);
                if (n < 14) {
                    return;
                }
                // The kernel leaves the destination of these frames all zero,
                // which the receiving side would drop as meant for another host.
                std::memset(frame, 0xff, 6);
                if (::write(to, frame, static_cast<std::size_t>(n)) == n) {
                    ++relayed;
                }
            };
        };
        ASSERT_EQ(loop.addFd(here.fd(), EPOLLIN, relay(here.fd(), there->fd())), 0);
        ASSERT_EQ(loop.addFd(there->fd(), EPOLLIN, relay(there->fd(), here.fd())), 0);

        NetadapterList list;
        MulticastServer local(list, loop);
        Collector atLocal;
        ASSERT_EQ(local.start(kGroup, kPort, atLocal.callback()), 0);
        ASSERT_EQ(local.setMulticastLoop(false), 0);  // hear only what crossed the relay
        ASSERT_EQ(local.addInterface("169.254.1.1"), 0);
        PeerServer remote(peerNs, loop);
        {
            Netns::Inside inside(peerNs);
            ASSERT_EQ(remote.server->addInterface("169.254.1.2"), 0);
            ASSERT_EQ(remote.server->setMulticastLoop(false), 0);
        }
        const Netadapter fwa = list.getAdapterByName("fwa");
        EXPECT_TRUE(fwa.isFirewireAdapter());

        EXPECT_EQ(local.sendOverInterface(fwa, "<sync>:start:<sync>", 1), 19);
        ASSERT_TRUE(runUntil(loop, [&] { return !remote.collector.got.empty(); }))
            << "IPv4 multicast did not cross a link-type-24 TAP pair (" << relayed << " frames relayed)";
        EXPECT_EQ(remote.collector.got[0].data, "<sync>:start:<sync>");
        EXPECT_EQ(remote.collector.got[0].fromName, "fwb");
        EXPECT_TRUE(remote.collector.got[0].fromFirewire);

        EXPECT_EQ(remote.server->sendOverInterfaceByAddress("169.254.1.2", "<sync>:item:1:2:3:4:<sync>", 1),
                  26);
        ASSERT_TRUE(runUntil(loop, [&] { return !atLocal.got.empty(); }));
        EXPECT_EQ(atLocal.got[0].data, "<sync>:item:1:2:3:4:<sync>");
        EXPECT_EQ(atLocal.got[0].fromName, "fwa");
        EXPECT_TRUE(atLocal.got[0].fromFirewire);
        loop.removeFd(here.fd());
        loop.removeFd(there->fd());
    });
}
