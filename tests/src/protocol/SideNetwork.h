#pragma once

// A module's two FireWire sides inside a forked test child (see
// orvtest::runIsolated): veth pairs named firewire0 and firewire1 that the
// daemon's code takes for FireWire ports (link type and node id shown in the
// child's sysfs), whose other ends sit in a second network namespace where
// the test plays the neighbouring module with MulticastServers of its own.
// Also puts the identity in place: UUID, module type and configuration file.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <orv/communication/MulticastServer.h>
#include <orv/communication/Netadapter.h>
#include <orv/communication/NetadapterList.h>
#include <orv/sys/EventLoop.h>

#include "../../platform/Sandbox.h"
#include "testsupport/PrivateMounts.h"

namespace tsdtest {

constexpr unsigned kOwnUuid = 0x123456;
constexpr unsigned kPort = 14000;
const char kGroup[] = "239.255.77.1";

inline std::string nodeIdAddress(unsigned low24)
{
    char text[32];
    std::snprintf(text, sizeof text, "00:0a:7c:31:00:%02x:%02x:%02x", (low24 >> 16) & 0xFF,
                  (low24 >> 8) & 0xFF, low24 & 0xFF);
    return text;
}

inline std::string configFile(const std::string& group, unsigned port)
{
    return "<?xml version=\"1.0\"?><TimeSyncDaemon><MultiCastParam><Address>" + group + "</Address><Port>" +
           std::to_string(port) +
           "</Port></MultiCastParam><PrioLevel><ModuleType><KP>20</KP><RZ>10</RZ></ModuleType>"
           "<TimeSource><Ptp>2</Ptp><Ntp>1</Ntp></TimeSource></PrioLevel></TimeSyncDaemon>";
}

// Identity files of the module under test; call before anything asks
// Config or ConfigParams.
inline void prepareIdentity(unsigned uuid, const std::string& group = kGroup, unsigned port = kPort)
{
    using testsupport::PrivateMounts;
    ASSERT_TRUE(PrivateMounts::shadow("/etc"));
    ASSERT_TRUE(PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml", configFile(group, port)));
    ASSERT_TRUE(PrivateMounts::setModuleType("RZ"));
    char text[16];
    std::snprintf(text, sizeof text, "%x", uuid);
    ::setenv("UUID", text, 1);
    // The time services are not under test here: harmless stand-ins.
    ASSERT_TRUE(PrivateMounts::shadow("/usr/bin"));
    for (const char* script : {"/usr/bin/ptp4ladm.sh", "/usr/bin/start_ntpd.sh", "/usr/bin/stop_ntpd.sh"})
        ASSERT_TRUE(PrivateMounts::writeFile(script, "#!/bin/sh\nexit 0\n", 0755));
    ASSERT_TRUE(PrivateMounts::shadow("/run"));
}

// One cable: ownName in the child's namespace, peerName in the peer
// namespace, with the own end shown as a FireWire port with the given node
// bits.
inline void addCable(const std::string& ownName, const std::string& peerName, const std::string& peerNs,
                     unsigned nodeLow24, const std::string& ownAddress, const std::string& peerAddress)
{
    ASSERT_TRUE(
        orvtest::run("ip link add " + ownName + " type veth peer name " + peerName + " netns " + peerNs));
    ASSERT_TRUE(orvtest::overlayFile("/sys/class/net/" + ownName + "/type", "24\n"));
    ASSERT_TRUE(
        orvtest::overlayFile("/sys/class/net/" + ownName + "/address", nodeIdAddress(nodeLow24) + "\n"));
    ASSERT_TRUE(orvtest::run("ip addr add " + ownAddress + "/24 dev " + ownName));
    ASSERT_TRUE(orvtest::run("ip link set " + ownName + " up"));
    ASSERT_TRUE(orvtest::run("ip -n " + peerNs + " addr add " + peerAddress + "/24 dev " + peerName));
    ASSERT_TRUE(orvtest::run("ip -n " + peerNs + " link set " + peerName + " up"));
    ASSERT_TRUE(orvtest::waitLinkReady(ownName));
    ASSERT_TRUE(orvtest::waitLinkReady(peerName, "-n " + peerNs));
}

// The neighbouring module as the test plays it: one multicast server per
// side in the peer namespace, recording every telegram it hears.
class PeerModule
{
public:
    PeerModule(orv::sys::EventLoop& loop, const orvtest::Netns& ns, unsigned port)
    {
        orvtest::Netns::Inside inside(ns);
        m_adapters = std::make_unique<orv::communication::NetadapterList>();
        for (int side = 0; side < 2; ++side) {
            m_servers[side] = std::make_unique<orv::communication::MulticastServer>(*m_adapters, loop);
            const std::string name = side == 0 ? "peer0" : "peer1";
            if (!m_adapters->contains(orvtest::interfaceIndex(name)))
                continue;
            m_adapter[side] = m_adapters->getAdapterByName(name);
            EXPECT_EQ(m_servers[side]->start(
                          kGroup, port + static_cast<unsigned>(side),
                          [this, side](orv::communication::MulticastServer& server) {
                              char buffer[65536];
                              orv::communication::Netadapter from;
                              int index = 0;
                              const int n = server.receiveTelegram(buffer, sizeof buffer, from, index);
                              if (n > 0)
                                  m_heard[side].emplace_back(buffer, static_cast<size_t>(n));
                              return n;
                          }),
                      0);
            m_servers[side]->setMulticastLoop(false);
            EXPECT_EQ(m_servers[side]->addInterface(static_cast<int>(m_adapter[side].getInterfaceIndex())),
                      0);
        }
    }

    // Sends text over the peer's end of the side's cable.
    void send(int side, const std::string& text)
    {
        EXPECT_EQ(m_servers[side]->sendOverInterface(m_adapter[side], text, 1), static_cast<int>(text.size()))
            << text;
    }
    std::vector<std::string>& heard(int side) { return m_heard[side]; }

    // One more server at the peer's end of a cable, on another port (a
    // module wired differently would use it). Returns its number.
    int addExtra(orv::sys::EventLoop& loop, const orvtest::Netns& ns, int cable, unsigned port)
    {
        orvtest::Netns::Inside inside(ns);
        auto server = std::make_unique<orv::communication::MulticastServer>(*m_adapters, loop);
        const int id = static_cast<int>(m_extras.size());
        m_extraHeard.emplace_back();
        EXPECT_EQ(server->start(kGroup, port,
                                [this, id](orv::communication::MulticastServer& s) {
                                    char buffer[65536];
                                    orv::communication::Netadapter from;
                                    int index = 0;
                                    const int n = s.receiveTelegram(buffer, sizeof buffer, from, index);
                                    if (n > 0)
                                        m_extraHeard[static_cast<std::size_t>(id)].emplace_back(
                                            buffer, static_cast<size_t>(n));
                                    return n;
                                }),
                  0);
        server->setMulticastLoop(false);
        EXPECT_EQ(server->addInterface(static_cast<int>(m_adapter[cable].getInterfaceIndex())), 0);
        m_extras.push_back(std::move(server));
        m_extraCable.push_back(cable);
        return id;
    }
    void sendExtra(int id, const std::string& text)
    {
        const auto i = static_cast<std::size_t>(id);
        EXPECT_EQ(m_extras[i]->sendOverInterface(m_adapter[m_extraCable[i]], text, 1),
                  static_cast<int>(text.size()));
    }
    std::vector<std::string>& heardExtra(int id) { return m_extraHeard[static_cast<std::size_t>(id)]; }

private:
    std::unique_ptr<orv::communication::NetadapterList> m_adapters;
    std::unique_ptr<orv::communication::MulticastServer> m_servers[2];
    orv::communication::Netadapter m_adapter[2];
    std::vector<std::string> m_heard[2];
    std::vector<std::unique_ptr<orv::communication::MulticastServer>> m_extras;
    std::vector<int> m_extraCable;
    std::vector<std::vector<std::string>> m_extraHeard;
};

// The whole arrangement: identity, both cables and the peer.
struct SideNetwork
{
    explicit SideNetwork(bool withFront = true) : peerNs("peer")
    {
        prepareIdentity(kOwnUuid);
        addCable("firewire0", "peer0", "peer", kOwnUuid, "169.254.1.1", "169.254.1.2");
        if (withFront)
            addCable("firewire1", "peer1", "peer", 0x654321, "169.254.2.1", "169.254.2.2");
        adapters = std::make_unique<orv::communication::NetadapterList>();
        peer = std::make_unique<PeerModule>(loop, peerNs, kPort);
    }

    orvtest::Netns peerNs;
    orv::sys::EventLoop loop;
    std::unique_ptr<orv::communication::NetadapterList> adapters;
    std::unique_ptr<PeerModule> peer;
};

}  // namespace tsdtest
