// The pcap writer read back byte by byte: file header, record headers, the
// cut at the snapshot length, the frames it builds around a datagram, and a
// file that cannot be written.
#include "tsdsim/PcapWriter.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using tsdsim::PcapWriter;

namespace {

struct TempDir
{
    std::string path;
    TempDir()
    {
        char name[] = "/tmp/pcapwriter-XXXXXX";
        path = ::mkdtemp(name) != nullptr ? name : "";
    }
    ~TempDir()
    {
        for (const char* file : {"/a.pcap", "/b.pcap"})
            ::unlink((path + file).c_str());
        ::rmdir(path.c_str());
    }
};

std::vector<unsigned char> readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::uint32_t u32(const std::vector<unsigned char>& data, std::size_t at)
{
    std::uint32_t value = 0;
    std::memcpy(&value, data.data() + at, 4);
    return value;
}

std::uint16_t u16(const std::vector<unsigned char>& data, std::size_t at)
{
    std::uint16_t value = 0;
    std::memcpy(&value, data.data() + at, 2);
    return value;
}

// Internet checksum over a range that includes its checksum field: 0xffff
// when the stored checksum is right.
std::uint32_t onesSum(const unsigned char* data, std::size_t length, std::uint32_t sum = 0)
{
    for (std::size_t i = 0; i + 1 < length; i += 2)
        sum += static_cast<std::uint32_t>(data[i] << 8 | data[i + 1]);
    if (length % 2 != 0)
        sum += static_cast<std::uint32_t>(data[length - 1] << 8);
    while ((sum >> 16) != 0)
        sum = (sum & 0xffff) + (sum >> 16);
    return sum;
}

}  // namespace

TEST(PcapWriter, WritesTheFileHeaderAndOneRecordPerFrame)
{
    TempDir dir;
    ASSERT_FALSE(dir.path.empty());
    const std::string path = dir.path + "/a.pcap";
    PcapWriter writer;
    ASSERT_TRUE(writer.open(path)) << writer.error();
    EXPECT_TRUE(writer.isOpen());
    const auto when = std::chrono::system_clock::time_point(std::chrono::microseconds(1'800'000'000'654'321));
    const std::vector<unsigned char> first = {1, 2, 3, 4, 5};
    const std::vector<unsigned char> second(100, 0xab);
    ASSERT_TRUE(writer.write(when, first));
    ASSERT_TRUE(writer.write(when + std::chrono::milliseconds(5), second));
    EXPECT_EQ(writer.frames(), 2u);
    ASSERT_TRUE(writer.close());
    EXPECT_FALSE(writer.isOpen());

    const std::vector<unsigned char> data = readFile(path);
    ASSERT_EQ(data.size(), 24u + 16 + 5 + 16 + 100);
    EXPECT_EQ(u32(data, 0), 0xa1b2c3d4u);
    EXPECT_EQ(u16(data, 4), 2u);
    EXPECT_EQ(u16(data, 6), 4u);
    EXPECT_EQ(u32(data, 16), 65535u);
    EXPECT_EQ(u32(data, 20), PcapWriter::kLinkEthernet);
    EXPECT_EQ(u32(data, 24), 1'800'000'000u);
    EXPECT_EQ(u32(data, 28), 654'321u);
    EXPECT_EQ(u32(data, 32), 5u);
    EXPECT_EQ(u32(data, 36), 5u);
    EXPECT_EQ(std::vector<unsigned char>(data.begin() + 40, data.begin() + 45), first);
    EXPECT_EQ(u32(data, 45), 1'800'000'000u);
    EXPECT_EQ(u32(data, 49), 659'321u);
    EXPECT_EQ(u32(data, 53), 100u);
}

TEST(PcapWriter, FramesLongerThanTheSnapshotAreStoredCut)
{
    TempDir dir;
    const std::string path = dir.path + "/b.pcap";
    PcapWriter writer;
    ASSERT_TRUE(writer.open(path, 101, 10));
    ASSERT_TRUE(writer.write(std::chrono::system_clock::now(), std::vector<unsigned char>(25, 7)));
    ASSERT_TRUE(writer.close());
    const std::vector<unsigned char> data = readFile(path);
    ASSERT_EQ(data.size(), 24u + 16 + 10);
    EXPECT_EQ(u32(data, 16), 10u);
    EXPECT_EQ(u32(data, 20), 101u);
    EXPECT_EQ(u32(data, 32), 10u);  // stored
    EXPECT_EQ(u32(data, 36), 25u);  // on the wire
}

TEST(PcapWriter, UdpFrameCarriesTheDatagramWithValidChecksums)
{
    const std::string payload = "<sync>:item:1f:a:2:5:<sync>";  // odd length on purpose
    const std::vector<unsigned char> frame =
        PcapWriter::udpFrame("169.254.1.2", "239.255.77.1", 14000, 14001, payload);
    ASSERT_EQ(frame.size(), 14u + 20 + 8 + payload.size());
    EXPECT_EQ(std::vector<unsigned char>(frame.begin(), frame.begin() + 6), std::vector<unsigned char>(6, 0xff));
    EXPECT_EQ(frame[12], 0x08);
    EXPECT_EQ(frame[13], 0x00);
    const unsigned char* ip = frame.data() + 14;
    EXPECT_EQ(ip[0], 0x45);
    EXPECT_EQ(ip[9], 17);
    EXPECT_EQ(ip[2] << 8 | ip[3], static_cast<int>(20 + 8 + payload.size()));
    EXPECT_EQ(std::vector<unsigned char>(ip + 12, ip + 20),
              (std::vector<unsigned char>{169, 254, 1, 2, 239, 255, 77, 1}));
    EXPECT_EQ(onesSum(ip, 20), 0xffffu);
    const unsigned char* udp = ip + 20;
    EXPECT_EQ(udp[0] << 8 | udp[1], 14000);
    EXPECT_EQ(udp[2] << 8 | udp[3], 14001);
    const std::size_t udpLength = 8 + payload.size();
    std::uint32_t pseudo = 17 + static_cast<std::uint32_t>(udpLength);
    for (int i = 12; i < 20; i += 2)
        pseudo += static_cast<std::uint32_t>(ip[i] << 8 | ip[i + 1]);
    EXPECT_EQ(onesSum(udp, udpLength, pseudo), 0xffffu);
    EXPECT_EQ(std::string(udp + 8, udp + udpLength), payload);
}

TEST(PcapWriter, AFileThatCannotBeWrittenIsReported)
{
    PcapWriter writer;
    EXPECT_FALSE(writer.open("/nonexistent-dir/x.pcap"));
    EXPECT_NE(writer.error().find("cannot create /nonexistent-dir/x.pcap"), std::string::npos) << writer.error();
    EXPECT_FALSE(writer.write(std::chrono::system_clock::now(), std::vector<unsigned char>(3, 1)));
    PcapWriter unopened;
    EXPECT_FALSE(unopened.write(std::chrono::system_clock::now(), std::vector<unsigned char>(3, 1)));
    EXPECT_EQ(unopened.error(), "not open");
    // A full device: the write or the close says so.
    PcapWriter full;
    ASSERT_TRUE(full.open("/dev/full")) << full.error();
    bool ok = true;
    for (int i = 0; i < 100 && ok; ++i)
        ok = full.write(std::chrono::system_clock::now(), std::vector<unsigned char>(1000, 1));
    ok = ok && full.close();
    EXPECT_FALSE(ok);
    EXPECT_NE(full.error(), "");
}
