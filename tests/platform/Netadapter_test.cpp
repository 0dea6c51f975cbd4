#include "orv/communication/Netadapter.h"

#include <gtest/gtest.h>

using orv::communication::Ipv4Address;
using orv::communication::Netadapter;

TEST(Netadapter, ParseNodeIdTakesFirstEightBytesBigEndian)
{
    EXPECT_EQ(Netadapter::parseNodeId("00:0a:7c:31:00:ab:cd:ef"), 0x000a7c3100abcdefULL);
    EXPECT_EQ(Netadapter::parseNodeId("00:0a:7c:31:00:ab:cd:ef\n"), 0x000a7c3100abcdefULL);
    EXPECT_EQ(Netadapter::parseNodeId("ff:ee:dd:cc:bb:aa:99:88"), 0xffeeddccbbaa9988ULL);
    // The driver shows more than the GUID (record size, speed, FIFO address).
    EXPECT_EQ(Netadapter::parseNodeId("00:0a:7c:31:00:12:34:56:0a:02:ff:ff:f0:00:00:00"),
              0x000a7c3100123456ULL);
    EXPECT_EQ(Netadapter::parseNodeId("00:0A:7C:31:00:AB:CD:EF"), 0x000a7c3100abcdefULL);
}

TEST(Netadapter, ParseNodeIdGivesZeroForShortOrBadText)
{
    EXPECT_EQ(Netadapter::parseNodeId(""), 0u);
    EXPECT_EQ(Netadapter::parseNodeId("\n"), 0u);
    EXPECT_EQ(Netadapter::parseNodeId("02:11:22:33:44:55"), 0u);     // Ethernet: 6 bytes
    EXPECT_EQ(Netadapter::parseNodeId("00:0a:7c:31:00:ab:cd"), 0u);  // 7 bytes
    EXPECT_EQ(Netadapter::parseNodeId("00:0a:7c:31:00:ab:cd:zz"), 0u);
    EXPECT_EQ(Netadapter::parseNodeId("00:0a:7c:31::ab:cd:ef"), 0u);
    EXPECT_EQ(Netadapter::parseNodeId("000:0a:7c:31:00:ab:cd:ef"), 0u);
    EXPECT_EQ(Netadapter::parseNodeId("00-0a-7c-31-00-ab-cd-ef"), 0u);
    EXPECT_EQ(Netadapter::parseNodeId("+0:0a:7c:31:00:ab:cd:ef"), 0u);
}

TEST(Netadapter, FirewireIsLinkType24)
{
    Netadapter adapter;
    EXPECT_FALSE(adapter.isFirewireAdapter());
    adapter.setLinkType(1);  // Ethernet
    EXPECT_FALSE(adapter.isFirewireAdapter());
    adapter.setLinkType(24);
    EXPECT_TRUE(adapter.isFirewireAdapter());
}

TEST(Netadapter, AddressesKeepOrderAndAreNotDuplicated)
{
    Netadapter adapter;
    adapter.addIpv4Address({"10.0.0.1", "255.0.0.0"});
    adapter.addIpv4Address({"169.254.1.2", "255.255.0.0"});
    adapter.addIpv4Address({"10.0.0.1", "255.255.255.0"});
    ASSERT_EQ(adapter.getIpv4Addresses().size(), 2u);
    EXPECT_EQ(adapter.getIpv4Addresses()[0].address, "10.0.0.1");
    EXPECT_EQ(adapter.getIpv4Addresses()[0].mask, "255.255.255.0");
    EXPECT_EQ(adapter.getIpv4Addresses()[1].address, "169.254.1.2");
    EXPECT_TRUE(adapter.removeIpv4Address("10.0.0.1"));
    EXPECT_FALSE(adapter.removeIpv4Address("10.0.0.1"));
    ASSERT_EQ(adapter.getIpv4Addresses().size(), 1u);
    EXPECT_EQ(adapter.getIpv4Addresses()[0].address, "169.254.1.2");
}

TEST(Netadapter, SysfsIdentityOfAnUnknownNameChangesNothing)
{
    Netadapter adapter;
    adapter.setName("no-such-if0");
    adapter.setLinkType(24);
    adapter.setFirewireNodeId(0x1234);
    adapter.readSysfsIdentity();
    // Nothing to read: the type netlink reported stays; the node id is unknown.
    EXPECT_EQ(adapter.getLinkType(), 24u);
    EXPECT_EQ(adapter.getFirewireNodeId(), 0u);

    Netadapter escape;
    escape.setName("../../..");
    escape.setLinkType(1);
    escape.readSysfsIdentity();
    EXPECT_EQ(escape.getLinkType(), 1u);
}

TEST(Netadapter, CopiesAreIndependentSnapshots)
{
    Netadapter original;
    original.setName("firewire0");
    original.setInterfaceIndex(3);
    original.addIpv4Address({"169.254.0.1", "255.255.0.0"});
    Netadapter copy = original;
    original.removeIpv4Address("169.254.0.1");
    original.setName("renamed");
    EXPECT_EQ(copy.getName(), "firewire0");
    EXPECT_EQ(copy.getIpv4Addresses().size(), 1u);
}
