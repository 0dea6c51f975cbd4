#include "ChainCapture.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "tsdsim/Module.h"
#include "tsdsim/StampedFrame.h"

namespace simbench {

namespace {

const Clock::time_point kSteadyRef = Clock::now();
const double kWallRef =
    std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch()).count();

constexpr std::size_t kLinkHeader = 14;
constexpr std::uint16_t kBrokerPort = 11122;
constexpr auto kReadEvery = std::chrono::milliseconds(100);

// IPv4 over the link header, and the given transport protocol; on loopback
// only what leaves (each frame passes it twice).
std::vector<sock_filter> filterFor(std::uint8_t protocol, bool outgoingOnly)
{
    std::vector<sock_filter> code;
    if (outgoingOnly) {
        code.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)));
        code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 5));
    }
    code.push_back(BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12));
    code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 3));
    code.push_back(BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kLinkHeader + 9));
    code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, protocol, 0, 1));
    code.push_back(BPF_STMT(BPF_RET | BPF_K, 65535));
    code.push_back(BPF_STMT(BPF_RET | BPF_K, 0));
    return code;
}

int openCapture(const tsdsim::Module& module, const char* ifname, const std::vector<sock_filter>& code)
{
    const int fd = module.sandbox().openSocket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(ETH_P_ALL));
    if (fd < 0) {
        return -1;
    }
    sock_fprog filter{static_cast<unsigned short>(code.size()), const_cast<sock_filter*>(code.data())};
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    int on = 1;
    // Enough for what two readings 100 ms apart may leave between them.
    int size = 8 << 20;
    if (::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
        ::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0 ||
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0 ||
        ::ioctl(fd, SIOCGIFINDEX, &ifr) != 0) {
        ::close(fd);
        return -1;
    }
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_ALL);
    at.sll_ifindex = ifr.ifr_ifindex;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

struct Received
{
    std::size_t size = 0;
    int packetType = -1;
    double wallMs = 0;
};

// One frame with its kernel time stamp; size 0 when the socket is drained.
Received receive(int fd, unsigned char* frame, std::size_t capacity)
{
    Received r;
    const tsdsim::StampedFrame f = tsdsim::readStampedFrame(fd, frame, capacity);
    if (f.size == 0) {
        return r;
    }
    if (!f.stamp) {
        r.size = static_cast<std::size_t>(-1);  // no time stamp: skip, keep reading
        return r;
    }
    r.size = f.size;
    r.packetType = f.packetType;
    r.wallMs = static_cast<double>(f.stamp->tv_sec) * 1000.0 + static_cast<double>(f.stamp->tv_nsec) / 1e6;
    return r;
}

bool contains(const unsigned char* data, std::size_t size, const char* text)
{
    const std::size_t n = std::strlen(text);
    return std::search(data, data + size, text, text + n) != data + size;
}

}  // namespace

double msBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

double wallMs(Clock::time_point t)
{
    return kWallRef + msBetween(kSteadyRef, t);
}

Clock::time_point steadyOf(double wall)
{
    return kSteadyRef +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(wall - kWallRef));
}

ChainCapture::ChainCapture() = default;

ChainCapture::~ChainCapture()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    if (m_reader.joinable()) {
        m_reader.join();
    }
    for (const auto& s : m_sockets) {
        ::close(s.fd);
    }
}

bool ChainCapture::watch(const tsdsim::Module& module, int index, const std::string& address)
{
    const int rear = openCapture(module, tsdsim::interfaceName(tsdsim::Side::Rear), filterFor(IPPROTO_UDP, false));
    if (rear < 0) {
        return false;
    }
    m_sockets.push_back({rear, index, false});
    const int lo = openCapture(module, "lo", filterFor(IPPROTO_TCP, true));
    if (lo < 0) {
        return false;
    }
    m_sockets.push_back({lo, index, true});
    m_moduleOfAddress[address] = index;
    return true;
}

void ChainCapture::start()
{
    m_reader = std::thread([this] { run(); });
}

void ChainCapture::run()
{
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stop) {
                return;
            }
        }
        drain();
        std::this_thread::sleep_for(kReadEvery);
    }
}

void ChainCapture::drain()
{
    std::lock_guard<std::mutex> lock(m_drainMutex);
    for (const auto& s : m_sockets) {
        if (s.loopback) {
            readBus(s);
        } else {
            readTelegrams(s);
        }
    }
}

void ChainCapture::readTelegrams(const Socket& s)
{
    unsigned char frame[2048];
    std::vector<Telegram> got;
    for (;;) {
        const Received r = receive(s.fd, frame, sizeof frame);
        if (r.size == 0) {
            break;
        }
        // The daemon's own telegrams come back to it through the stack, not
        // the medium; what leaves is stamped as outgoing already.
        if (r.size == static_cast<std::size_t>(-1) || r.packetType == PACKET_LOOPBACK) {
            continue;
        }
        const unsigned char* ip = frame + kLinkHeader;
        if (r.size < kLinkHeader + 28) {
            continue;
        }
        const std::size_t ipHeader = static_cast<std::size_t>(ip[0] & 0x0f) * 4;
        const std::size_t start = kLinkHeader + ipHeader + 8;
        if (start > r.size) {
            continue;
        }
        const std::string text(frame + start, frame + r.size);
        if (text.rfind("<sync>:", 0) != 0) {
            continue;
        }
        char source[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, ip + 12, source, sizeof source);
        const auto sender = m_moduleOfAddress.find(source);
        Telegram t;
        t.wallMs = r.wallMs;
        t.time = steadyOf(r.wallMs);
        t.module = s.module;
        t.outgoing = r.packetType == PACKET_OUTGOING;
        t.from = t.outgoing ? s.module : sender == m_moduleOfAddress.end() ? -1 : sender->second;
        const std::size_t end = text.find(':', 7);
        t.kind = text.substr(7, end == std::string::npos ? std::string::npos : end - 7);
        got.push_back(std::move(t));
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& t : got) {
        if (t.outgoing && t.time > m_lastSent) {
            m_lastSent = t.time;
        }
        m_telegrams.push_back(std::move(t));
    }
}

void ChainCapture::readBus(const Socket& s)
{
    unsigned char frame[65536];
    std::vector<BusMessage> got;
    for (;;) {
        const Received r = receive(s.fd, frame, sizeof frame);
        if (r.size == 0) {
            break;
        }
        if (r.size == static_cast<std::size_t>(-1) || r.size < kLinkHeader + 40) {
            continue;
        }
        const unsigned char* ip = frame + kLinkHeader;
        const std::size_t ipHeader = static_cast<std::size_t>(ip[0] & 0x0f) * 4;
        const unsigned char* tcp = ip + ipHeader;
        if (kLinkHeader + ipHeader + 20 > r.size) {
            continue;
        }
        const std::size_t tcpHeader = static_cast<std::size_t>(tcp[12] >> 4) * 4;
        const std::size_t start = kLinkHeader + ipHeader + tcpHeader;
        if (start >= r.size) {
            continue;
        }
        const unsigned char* payload = frame + start;
        const std::size_t size = r.size - start;
        const auto sourcePort = static_cast<std::uint16_t>(tcp[0] << 8 | tcp[1]);
        const auto destinationPort = static_cast<std::uint16_t>(tcp[2] << 8 | tcp[3]);
        BusMessage m;
        m.time = steadyOf(r.wallMs);
        m.module = s.module;
        if (destinationPort == kBrokerPort &&
            (contains(payload, size, "\"sync/app\"") || contains(payload, size, "\"sync/master\""))) {
            m.kind = BusMessage::Publication;
        } else if (destinationPort == kBrokerPort && contains(payload, size, "reachableDevices/")) {
            m.kind = BusMessage::PlatformUpdate;
        } else if (sourcePort == kBrokerPort && contains(payload, size, "reachableDevices/")) {
            m.kind = BusMessage::Notification;
        } else {
            continue;
        }
        got.push_back(m);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bus.insert(m_bus.end(), got.begin(), got.end());
}

void ChainCapture::waitQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            // Readings lag by up to one period.
            if (m_lastSent == Clock::time_point() || Clock::now() - m_lastSent >= quiet + kReadEvery) {
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

std::vector<Telegram> ChainCapture::telegrams()
{
    drain();
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Telegram> out = m_telegrams;
    std::stable_sort(out.begin(), out.end(), [](const Telegram& a, const Telegram& b) { return a.time < b.time; });
    return out;
}

std::vector<BusMessage> ChainCapture::busMessages()
{
    drain();
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<BusMessage> out = m_bus;
    std::stable_sort(out.begin(), out.end(), [](const BusMessage& a, const BusMessage& b) { return a.time < b.time; });
    return out;
}

}  // namespace simbench
