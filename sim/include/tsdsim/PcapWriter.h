#pragma once

// Writes frames into a classic pcap file (the format tcpdump, tshark and
// Wireshark read): a 24-byte file header, then per frame a 16-byte record
// header with the capture time in microseconds, the stored length and the
// frame's real length. Numbers are in the host's byte order; readers tell it
// from the magic number. A frame longer than the snapshot length is stored cut
// to it, with its real length in the record.
//
// The simulated buses carry Ethernet frames (their ports are veth pairs), so
// the link type is Ethernet unless told otherwise. udpFrame() builds such a
// frame around one IPv4 UDP datagram, for telegrams that never crossed a
// simulated bus (tests of the dissector, recorded traffic).
//
// Self-contained on purpose (header only, no library): a bus relay writes with
// it from its own thread. Not thread-safe: one writer per thread at a time.

#include <arpa/inet.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace tsdsim {

class PcapWriter
{
public:
    static constexpr std::uint32_t kLinkEthernet = 1;
    static constexpr std::uint32_t kDefaultSnapLength = 65535;

    PcapWriter() = default;
    ~PcapWriter() { close(); }
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    // Creates (or truncates) path and writes the file header. False, with the
    // reason in error(), when the file cannot be written.
    bool open(const std::string& path, std::uint32_t linkType = kLinkEthernet,
              std::uint32_t snapLength = kDefaultSnapLength)
    {
        close();
        m_error.clear();
        m_frames = 0;
        m_snapLength = snapLength == 0 ? kDefaultSnapLength : snapLength;
        m_file = std::fopen(path.c_str(), "wbe");
        if (m_file == nullptr)
            return fail("cannot create " + path, errno);
        FileHeader header{};
        header.magic = 0xa1b2c3d4;  // microsecond time stamps
        header.versionMajor = 2;
        header.versionMinor = 4;
        header.snapLength = m_snapLength;
        header.linkType = linkType;
        return put(&header, sizeof header);
    }

    // Appends one frame captured at when. False once any write failed.
    bool write(std::chrono::system_clock::time_point when, const void* frame, std::size_t length)
    {
        if (m_file == nullptr)
            return m_error.empty() ? fail("not open", 0) : false;
        const auto micros =
            std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count();
        RecordHeader record{};
        record.seconds = static_cast<std::uint32_t>(micros / 1000000);
        record.micros = static_cast<std::uint32_t>(micros % 1000000);
        const std::size_t stored = length < m_snapLength ? length : m_snapLength;
        record.storedLength = static_cast<std::uint32_t>(stored);
        record.frameLength = static_cast<std::uint32_t>(length);
        if (!put(&record, sizeof record) || !put(frame, stored))
            return false;
        ++m_frames;
        return true;
    }

    bool write(std::chrono::system_clock::time_point when, const std::vector<unsigned char>& frame)
    {
        return write(when, frame.data(), frame.size());
    }

    // Flushes and closes; false when the last data could not be written.
    bool close()
    {
        if (m_file == nullptr)
            return m_error.empty();
        const bool flushed = std::fclose(m_file) == 0;
        m_file = nullptr;
        return flushed ? m_error.empty() : fail("cannot finish the file", errno);
    }

    bool isOpen() const { return m_file != nullptr; }
    const std::string& error() const { return m_error; }
    std::uint64_t frames() const { return m_frames; }

    // An Ethernet frame (broadcast destination, as on a simulated bus) that
    // carries one IPv4 UDP datagram with correct header and UDP checksums.
    // Addresses are dotted IPv4 text; an unreadable one is written as 0.0.0.0.
    static std::vector<unsigned char> udpFrame(const std::string& source, const std::string& destination,
                                               std::uint16_t sourcePort, std::uint16_t destinationPort,
                                               const std::string& payload, const unsigned char sourceMac[6] = nullptr)
    {
        constexpr std::size_t kEthernet = 14;
        constexpr std::size_t kIp = 20;
        constexpr std::size_t kUdp = 8;
        const std::size_t udpLength = kUdp + payload.size();
        const std::size_t ipLength = kIp + udpLength;
        std::vector<unsigned char> frame(kEthernet + ipLength, 0);

        std::memset(frame.data(), 0xff, 6);
        static const unsigned char kLocalMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
        std::memcpy(frame.data() + 6, sourceMac != nullptr ? sourceMac : kLocalMac, 6);
        frame[12] = 0x08;  // IPv4
        frame[13] = 0x00;

        unsigned char* ip = frame.data() + kEthernet;
        ip[0] = 0x45;
        putBig16(ip + 2, static_cast<std::uint16_t>(ipLength));
        ip[6] = 0x40;  // don't fragment
        ip[8] = 1;     // TTL: telegrams stay on the link
        ip[9] = 17;    // UDP
        in_addr address{};
        if (::inet_pton(AF_INET, source.c_str(), &address) == 1)
            std::memcpy(ip + 12, &address, 4);
        address = in_addr{};
        if (::inet_pton(AF_INET, destination.c_str(), &address) == 1)
            std::memcpy(ip + 16, &address, 4);
        putBig16(ip + 10, checksum(ip, kIp, 0));

        unsigned char* udp = ip + kIp;
        putBig16(udp, sourcePort);
        putBig16(udp + 2, destinationPort);
        putBig16(udp + 4, static_cast<std::uint16_t>(udpLength));
        std::memcpy(udp + kUdp, payload.data(), payload.size());
        // Pseudo header: addresses, protocol, UDP length.
        std::uint32_t pseudo = 0;
        for (int i = 12; i < 20; i += 2)
            pseudo += static_cast<std::uint32_t>(ip[i] << 8 | ip[i + 1]);
        pseudo += 17 + static_cast<std::uint32_t>(udpLength);
        std::uint16_t sum = checksum(udp, udpLength, pseudo);
        putBig16(udp + 6, sum == 0 ? 0xffff : sum);  // 0 would mean "no checksum"
        return frame;
    }

private:
    struct FileHeader
    {
        std::uint32_t magic;
        std::uint16_t versionMajor;
        std::uint16_t versionMinor;
        std::int32_t zone;
        std::uint32_t sigfigs;
        std::uint32_t snapLength;
        std::uint32_t linkType;
    };
    struct RecordHeader
    {
        std::uint32_t seconds;
        std::uint32_t micros;
        std::uint32_t storedLength;
        std::uint32_t frameLength;
    };
    static_assert(sizeof(FileHeader) == 24 && sizeof(RecordHeader) == 16, "pcap headers are packed by layout");

    std::FILE* m_file = nullptr;
    std::uint32_t m_snapLength = kDefaultSnapLength;
    std::uint64_t m_frames = 0;
    std::string m_error;

    bool fail(const std::string& what, int error)
    {
        m_error = what + (error != 0 ? std::string(": ") + std::strerror(error) : std::string());
        if (m_file != nullptr) {
            std::fclose(m_file);
            m_file = nullptr;
        }
        return false;
    }

    bool put(const void* data, std::size_t length)
    {
        if (length != 0 && std::fwrite(data, 1, length, m_file) != length)
            return fail("cannot write", errno);
        return true;
    }

    static void putBig16(unsigned char* at, std::uint16_t value)
    {
        at[0] = static_cast<unsigned char>(value >> 8);
        at[1] = static_cast<unsigned char>(value & 0xff);
    }

    // The Internet checksum (RFC 1071) over data, starting from sum.
    static std::uint16_t checksum(const unsigned char* data, std::size_t length, std::uint32_t sum)
    {
        for (std::size_t i = 0; i + 1 < length; i += 2)
            sum += static_cast<std::uint32_t>(data[i] << 8 | data[i + 1]);
        if (length % 2 != 0)
            sum += static_cast<std::uint32_t>(data[length - 1] << 8);
        while ((sum >> 16) != 0)
            sum = (sum & 0xffff) + (sum >> 16);
        return static_cast<std::uint16_t>(~sum & 0xffff);
    }
};

}  // namespace tsdsim
