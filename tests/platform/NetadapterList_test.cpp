#include "orv/communication/NetadapterList.h"

#include <gtest/gtest.h>
#include <net/if_arp.h>

#include "Sandbox.h"
#include "orv/exception/exception.h"

using orv::communication::Ipv4Address;
using orv::communication::Netadapter;
using orv::communication::NetadapterList;
using orvtest::run;
using orvtest::runIsolated;

TEST(NetadapterList, SnapshotHasLoopbackWithItsAddress)
{
    runIsolated([] {
        NetadapterList list;
        const Netadapter lo = list.getAdapterByName("lo");
        EXPECT_EQ(lo.getInterfaceIndex(), orvtest::interfaceIndex("lo"));
        EXPECT_TRUE(lo.isUp());
        EXPECT_EQ(lo.getLinkType(), unsigned{ARPHRD_LOOPBACK});
        EXPECT_FALSE(lo.isFirewireAdapter());
        ASSERT_EQ(lo.getIpv4Addresses().size(), 1u);
        EXPECT_EQ(lo.getIpv4Addresses()[0].address, "127.0.0.1");
        EXPECT_EQ(lo.getIpv4Addresses()[0].mask, "255.0.0.0");
    });
}

TEST(NetadapterList, VethWithAddressesInKernelOrder)
{
    runIsolated([] {
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        ASSERT_TRUE(run("ip addr add 10.1.2.3/24 dev va"));
        ASSERT_TRUE(run("ip addr add 10.9.0.1/16 dev va"));
        ASSERT_TRUE(run("ip addr add 169.254.7.8/32 dev vb"));
        ASSERT_TRUE(run("ip link set va up"));
        NetadapterList list;
        const Netadapter va = list.getAdapterByName("va");
        EXPECT_EQ(va.getInterfaceIndex(), orvtest::interfaceIndex("va"));
        EXPECT_TRUE(va.isUp());
        EXPECT_EQ(va.getLinkType(), unsigned{ARPHRD_ETHER});
        EXPECT_FALSE(va.isFirewireAdapter());
        EXPECT_EQ(va.getFirewireNodeId(), 0u);
        ASSERT_EQ(va.getIpv4Addresses().size(), 2u);
        EXPECT_EQ(va.getIpv4Addresses()[0].address, "10.1.2.3");
        EXPECT_EQ(va.getIpv4Addresses()[0].mask, "255.255.255.0");
        EXPECT_EQ(va.getIpv4Addresses()[1].address, "10.9.0.1");
        EXPECT_EQ(va.getIpv4Addresses()[1].mask, "255.255.0.0");

        const Netadapter vb = list.getAdapterByInterfaceIndex(orvtest::interfaceIndex("vb"));
        EXPECT_EQ(vb.getName(), "vb");
        EXPECT_FALSE(vb.isUp());
        ASSERT_EQ(vb.getIpv4Addresses().size(), 1u);
        EXPECT_EQ(vb.getIpv4Addresses()[0].mask, "255.255.255.255");
        EXPECT_TRUE(list.contains(vb.getInterfaceIndex()));
    });
}

TEST(NetadapterList, UnknownNameOrIndexThrows)
{
    runIsolated([] {
        NetadapterList list;
        EXPECT_THROW(list.getAdapterByName("firewire0"), orv::exception::exception);
        EXPECT_THROW(list.getAdapterByName(""), orv::exception::exception);
        EXPECT_THROW(list.getAdapterByInterfaceIndex(0), orv::exception::exception);
        EXPECT_THROW(list.getAdapterByInterfaceIndex(4242), orv::exception::exception);
        EXPECT_FALSE(list.contains(4242));
        try {
            list.getAdapterByName("firewire9");
        } catch (const orv::exception::exception& e) {
            EXPECT_NE(std::string(e.what()).find("firewire9"), std::string::npos) << e.what();
        }
    });
}

TEST(NetadapterList, RefreshFollowsTheKernelWhileCopiesStayUnchanged)
{
    runIsolated([] {
        NetadapterList list;
        EXPECT_THROW(list.getAdapterByName("va"), orv::exception::exception);
        ASSERT_TRUE(run("ip link add va type veth peer name vb"));
        ASSERT_TRUE(run("ip addr add 10.1.2.3/24 dev va"));
        EXPECT_EQ(list.refresh(), 0);
        const Netadapter before = list.getAdapterByName("va");
        ASSERT_EQ(before.getIpv4Addresses().size(), 1u);

        ASSERT_TRUE(run("ip link del va"));
        EXPECT_EQ(list.refresh(), 0);
        EXPECT_THROW(list.getAdapterByName("va"), orv::exception::exception);
        EXPECT_THROW(list.getAdapterByInterfaceIndex(before.getInterfaceIndex()), orv::exception::exception);
        // The copy taken before is a snapshot.
        EXPECT_EQ(before.getName(), "va");
        EXPECT_EQ(before.getIpv4Addresses()[0].address, "10.1.2.3");
    });
}

TEST(NetadapterList, AdaptersAreOrderedByIndex)
{
    runIsolated([] {
        ASSERT_TRUE(run("ip link add zz index 40 type veth peer name aa index 30"));
        NetadapterList list;
        const auto adapters = list.getAdapters();
        ASSERT_EQ(adapters.size(), 3u);
        EXPECT_EQ(list.size(), 3u);
        EXPECT_EQ(adapters[0].getName(), "lo");
        EXPECT_EQ(adapters[1].getName(), "aa");
        EXPECT_EQ(adapters[1].getInterfaceIndex(), 30u);
        EXPECT_EQ(adapters[2].getName(), "zz");
        EXPECT_EQ(adapters[2].getInterfaceIndex(), 40u);
    });
}

TEST(NetadapterList, TapWithLinkType24IsFirewireWithNodeIdFromSysfs)
{
    runIsolated([] {
        orvtest::Tap tap("fw7", ARPHRD_IEEE1394);
        ASSERT_TRUE(orvtest::overlayFile("/sys/class/net/fw7/address", "00:0a:7c:31:00:ab:cd:ef\n"));
        ASSERT_TRUE(run("ip addr add 169.254.10.1/16 dev fw7"));
        NetadapterList list;
        const Netadapter fw = list.getAdapterByName("fw7");
        EXPECT_EQ(fw.getLinkType(), 24u);
        EXPECT_TRUE(fw.isFirewireAdapter());
        EXPECT_EQ(fw.getFirewireNodeId(), 0x000a7c3100abcdefULL);
        ASSERT_EQ(fw.getIpv4Addresses().size(), 1u);
        EXPECT_EQ(fw.getIpv4Addresses()[0].address, "169.254.10.1");
    });
}

TEST(NetadapterList, TapWithLinkType24AndNoGuidHasNodeIdZero)
{
    runIsolated([] {
        orvtest::Tap tap("fw8", ARPHRD_IEEE1394);
        NetadapterList list;
        const Netadapter fw = list.getAdapterByName("fw8");
        EXPECT_TRUE(fw.isFirewireAdapter());
        // The kernel's own address text for this device has fewer than 8 bytes.
        EXPECT_EQ(fw.getFirewireNodeId(), 0u);
    });
}

TEST(NetadapterList, SysfsTypeDecidesTheClassification)
{
    runIsolated([] {
        orvtest::Tap ethernet("et0", 0);
        orvtest::Tap shown("et1", 0);
        ASSERT_TRUE(orvtest::overlayFile("/sys/class/net/et1/type", "24\n"));
        ASSERT_TRUE(orvtest::overlayFile("/sys/class/net/et1/address", "00:0a:7c:31:00:12:34:56\n"));
        // An Ethernet address with eight bytes would still not make et0 FireWire.
        ASSERT_TRUE(orvtest::overlayFile("/sys/class/net/et0/address", "00:0a:7c:31:00:12:34:57\n"));
        NetadapterList list;
        const Netadapter plain = list.getAdapterByName("et0");
        EXPECT_FALSE(plain.isFirewireAdapter());
        EXPECT_EQ(plain.getFirewireNodeId(), 0u);
        const Netadapter fw = list.getAdapterByName("et1");
        EXPECT_TRUE(fw.isFirewireAdapter());
        EXPECT_EQ(fw.getFirewireNodeId(), 0x000a7c3100123456ULL);
    });
}

TEST(NetadapterList, MirrorOperationsUpdateByIndex)
{
    runIsolated([] {
        NetadapterList list;
        Netadapter fw;
        fw.setName("firewire1");
        fw.setInterfaceIndex(77);
        fw.setLinkType(24);
        list.updateAdapter(fw);
        list.addAddress(77, {"169.254.3.4", "255.255.0.0"});
        list.addAddress(78, {"10.0.0.1", "255.0.0.0"});  // unknown index: ignored
        EXPECT_FALSE(list.contains(78));
        Netadapter found = list.getAdapterByInterfaceIndex(77);
        EXPECT_EQ(found.getName(), "firewire1");
        ASSERT_EQ(found.getIpv4Addresses().size(), 1u);

        fw.setName("firewire2");  // replace keeps one entry per index
        list.updateAdapter(fw);
        EXPECT_EQ(list.getAdapterByName("firewire2").getInterfaceIndex(), 77u);
        EXPECT_THROW(list.getAdapterByName("firewire1"), orv::exception::exception);

        list.addAddress(77, {"169.254.3.4", "255.255.0.0"});
        list.removeAddress(77, "169.254.3.4");
        list.removeAddress(77, "169.254.3.4");  // harmless
        list.removeAddress(99, "1.2.3.4");      // harmless
        EXPECT_TRUE(list.getAdapterByInterfaceIndex(77).getIpv4Addresses().empty());
        list.removeAdapter(77);
        list.removeAdapter(77);
        EXPECT_FALSE(list.contains(77));
    });
}
