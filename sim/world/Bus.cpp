#include "tsdsim/Bus.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>

#include "BusBridge.h"
#include "NsOps.h"
#include "tsdsim/LoopThread.h"
#include "tsdsim/StampedFrame.h"

namespace tsdsim {

namespace {
constexpr std::size_t kMaxFrame = 65536;
constexpr std::size_t kMacLength = 6;
// Frames relayed from one port before the loop turns to its other fds: a
// chatty bus must not hold up the other buses and the modules' observers.
constexpr int kFramesPerTurn = 32;
// What the relay and the capture sockets may hold while the loop is busy
// elsewhere: a whole round of answers of a long chain, many times over.
constexpr int kSocketBuffer = 4 << 20;

std::chrono::system_clock::time_point wallTime(const timespec& t)
{
    return std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(
        std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec)));
}
}  // namespace

Bus::Bus(LoopThread& io, std::string name, int index)
    : m_io(io),
      m_name(std::move(name)),
      m_index(index),
      m_bridge(std::make_unique<BusBridge>()),
      m_buffer(kMaxFrame),
      m_random(std::random_device{}()),
      m_alive(std::make_shared<Bus*>(this))
{
}

Bus::~Bus()
{
    // On the loop's thread, so that no delayed copy is running while the
    // token goes, and none that runs later gets past it.
    m_io.invoke([this] { *m_alive = nullptr; });
    std::vector<int> ids;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& p : m_ports) {
            ids.push_back(p.id);
        }
    }
    for (int id : ids) {
        detach(id);
    }
    stopCapture();
}

Bus::Port* Bus::findPort(int portId)
{
    auto it = std::find_if(m_ports.begin(), m_ports.end(), [&](const Port& p) { return p.id == portId; });
    return it == m_ports.end() ? nullptr : &*it;
}

const Bus::Port* Bus::findPort(int portId) const
{
    return const_cast<Bus*>(this)->findPort(portId);
}

int Bus::attach(int moduleNetnsFd, const std::string& ifname, const std::string& label)
{
    return takePort(
        [&](int id) { return m_bridge->addPort(id, moduleNetnsFd, ifname); }, [&] { return m_bridge->error(); },
        false, label);
}

void Bus::detach(int portId)
{
    std::lock_guard<std::mutex> control(m_control);
    account();
    Port port{};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Port* found = findPort(portId);
        if (!found) {
            return;
        }
        port = *found;
        m_ports.erase(m_ports.begin() + (found - m_ports.data()));
    }
    if (port.relayFd >= 0) {
        m_io.removeFd(port.relayFd);
        ::close(port.relayFd);
    }
    m_bridge->removePort(port.index);
}

void Bus::setLoss(double rate)
{
    std::lock_guard<std::mutex> control(m_control);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_loss = std::clamp(rate, 0.0, 1.0);
    }
    chooseMedium();
}

void Bus::setDuplicate(double rate)
{
    std::lock_guard<std::mutex> control(m_control);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_duplicate = std::clamp(rate, 0.0, 1.0);
    }
    chooseMedium();
}

void Bus::setDelay(std::chrono::milliseconds delay)
{
    std::lock_guard<std::mutex> control(m_control);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_delay = delay.count() < 0 ? std::chrono::milliseconds(0) : delay;
    }
    chooseMedium();
}

double Bus::loss() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loss;
}

double Bus::duplicate() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_duplicate;
}

std::chrono::milliseconds Bus::delay() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_delay;
}

int Bus::moveTo(int portId, Bus& to, const std::string& label)
{
    if (&to == this) {
        return portId;
    }
    Port port{};
    {
        std::lock_guard<std::mutex> control(m_control);
        account();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            Port* found = findPort(portId);
            if (!found) {
                throw std::runtime_error("tsdsim: bus " + m_name + ": no port " + std::to_string(portId) + " to move");
            }
            port = *found;
            m_ports.erase(m_ports.begin() + (found - m_ports.data()));
        }
        if (port.relayFd >= 0) {
            m_io.removeFd(port.relayFd);
            ::close(port.relayFd);
        }
    }
    // This bus's lock is let go first: the other bus takes its own, and two
    // buses never wait for each other.
    return to.adopt(*m_bridge, port.index, port.cut, label);
}

int Bus::adopt(BusBridge& from, int index, bool cut, const std::string& label)
{
    return takePort([&](int id) { return from.movePort(index, *m_bridge, id); }, [&] { return from.error(); }, cut,
                    label);
}

int Bus::takePort(const std::function<int(int id)>& makeEnd, const std::function<std::string()>& why, bool cut,
                  const std::string& label)
{
    std::lock_guard<std::mutex> control(m_control);
    account();
    int id;
    bool relaying;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        id = m_nextPortId++;
        relaying = m_relaying;
    }
    const int index = makeEnd(id);
    if (index < 0) {
        throw std::runtime_error("tsdsim: bus " + m_name + ": " + label + ": " + why());
    }
    Port port{id, index, label};
    port.cut = cut;
    // A bus end moved from another bus keeps its counters: what it counted
    // there is not this bus's traffic.
    std::map<int, BusBridge::Counters> counters;
    if (m_bridge->allCounters(counters)) {
        const auto it = counters.find(index);
        if (it != counters.end()) {
            port.seenFromModule = it->second.fromModule;
            port.seenToModule = it->second.toModule;
        }
    }
    if (cut || relaying) {
        m_bridge->setForwarding(index, false);
    }
    if (relaying) {
        port.relayFd = openPortSocket(index);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ports.push_back(port);
    }
    if (port.relayFd >= 0) {
        m_io.addFd(port.relayFd, EPOLLIN, [this, id](std::uint32_t) { onRelayReadable(id); });
    }
    return id;
}

bool Bus::relaying() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_relaying;
}

void Bus::setCut(int portId, bool cut)
{
    std::lock_guard<std::mutex> control(m_control);
    account();
    int index;
    bool bridging;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Port* port = findPort(portId);
        if (!port || port->cut == cut) {
            return;
        }
        port->cut = cut;
        index = port->index;
        bridging = !m_relaying;
    }
    if (bridging) {
        m_bridge->setForwarding(index, !cut);
    }
}

bool Bus::isCut(int portId) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Port* port = findPort(portId);
    return port && port->cut;
}

Bus::Stats Bus::stats() const
{
    std::lock_guard<std::mutex> control(m_control);
    account();
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stats;
}

void Bus::account() const
{
    // While the bridge carries the frames, the ports' own counters tell what
    // crossed: what each module sent in, and what each was handed. The relay
    // counts for itself; its time only moves the marks on.
    std::map<int, BusBridge::Counters> now;
    if (!m_bridge->allCounters(now)) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    std::uint64_t fromUncut = 0;
    std::uint64_t cutPorts = 0;
    for (const Port& p : m_ports) {
        const auto it = now.find(p.index);
        if (it == now.end()) {
            continue;
        }
        const std::uint64_t fromModule = it->second.fromModule - p.seenFromModule;
        const std::uint64_t toModule = it->second.toModule - p.seenToModule;
        p.seenFromModule = it->second.fromModule;
        p.seenToModule = it->second.toModule;
        if (m_relaying) {
            continue;
        }
        m_stats.framesIn += fromModule;
        m_stats.delivered += toModule;
        if (p.cut) {
            m_stats.cut += fromModule;
            ++cutPorts;
        } else {
            fromUncut += fromModule;
        }
    }
    if (!m_relaying) {
        // Every frame from an uncut port was due out of each cut one.
        m_stats.cut += fromUncut * cutPorts;
    }
}

void Bus::chooseMedium()
{
    bool impaired;
    bool relaying;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        impaired = m_loss > 0.0 || m_duplicate > 0.0 || m_delay.count() > 0;
        relaying = m_relaying;
    }
    if (impaired == relaying) {
        return;
    }
    account();
    if (impaired) {
        startRelaying();
    } else {
        stopRelaying();
    }
}

void Bus::startRelaying()
{
    closeBridgeCapture();
    std::vector<Port> ports;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ports = m_ports;
    }
    // Out of the bridge first: a frame in between is lost rather than
    // carried twice.
    std::vector<std::pair<int, int>> opened;
    for (const Port& p : ports) {
        if (!p.cut) {
            m_bridge->setForwarding(p.index, false);
        }
        opened.emplace_back(p.id, openPortSocket(p.index));
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_relaying = true;
        for (const auto& [id, fd] : opened) {
            if (Port* p = findPort(id)) {
                p->relayFd = fd;
            }
        }
    }
    for (const auto& [id, fd] : opened) {
        if (fd >= 0) {
            const int port = id;
            m_io.addFd(fd, EPOLLIN, [this, port](std::uint32_t) { onRelayReadable(port); });
        }
    }
}

void Bus::stopRelaying()
{
    std::vector<int> fds;
    std::vector<Port> ports;
    bool capturing;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_relaying = false;
        for (Port& p : m_ports) {
            if (p.relayFd >= 0) {
                fds.push_back(p.relayFd);
                p.relayFd = -1;
            }
        }
        ports = m_ports;
        capturing = m_capturing;
    }
    for (int fd : fds) {
        m_io.removeFd(fd);
        ::close(fd);
    }
    for (const Port& p : ports) {
        if (!p.cut) {
            m_bridge->setForwarding(p.index, true);
        }
    }
    if (capturing) {
        openBridgeCapture();
    }
}

int Bus::openPortSocket(int index)
{
    const int fd = nsops::socketIn(m_bridge->netnsFd(), AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(ETH_P_ALL));
    if (fd < 0) {
        return -1;
    }
    int on = 1;
    int size = kSocketBuffer;
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_ALL);
    at.sll_ifindex = index;
    // The relay's own copies leave through these sockets: not to be read back.
    if (::setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0 ||
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0 ||
        ::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

void Bus::openBridgeCapture()
{
    const int fd = openPortSocket(m_bridge->bridgeIndex());
    if (fd < 0) {
        return;
    }
    // Promiscuous: the bridge hands up to its own device what it floods
    // anyway (multicast, broadcast); unicast between two modules too, then.
    packet_mreq promisc{};
    promisc.mr_ifindex = m_bridge->bridgeIndex();
    promisc.mr_type = PACKET_MR_PROMISC;
    int on = 1;
    if (::setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promisc, sizeof promisc) != 0 ||
        ::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0) {
        ::close(fd);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_captureFd = fd;
    }
    m_io.addFd(fd, EPOLLIN, [this](std::uint32_t) { onCaptureReadable(); });
}

void Bus::closeBridgeCapture()
{
    int fd;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        fd = m_captureFd;
        m_captureFd = -1;
    }
    if (fd >= 0) {
        m_io.removeFd(fd);
        // What the bridge handed up before the loop came to read it still
        // belongs in the file: the medium changes right after a frame more
        // often than not (a cable cut, an impairment set in reply to it).
        std::vector<unsigned char> buffer(kMaxFrame);
        while (readCapture(fd, buffer.data(), buffer.size())) {
        }
        ::close(fd);
    }
}

bool Bus::startCapture(const std::string& path, std::string& error)
{
    std::lock_guard<std::mutex> control(m_control);
    bool relaying;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_pcap.open(path)) {
            error = m_pcap.error();
            return false;
        }
        m_capturing = true;
        relaying = m_relaying;
    }
    if (!relaying) {
        closeBridgeCapture();
        openBridgeCapture();
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_captureFd < 0) {
            error = "cannot capture on bus " + m_name + ": " + std::strerror(errno);
            m_capturing = false;
            m_pcap.close();
            return false;
        }
    }
    return true;
}

std::uint64_t Bus::stopCapture()
{
    std::lock_guard<std::mutex> control(m_control);
    closeBridgeCapture();
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::uint64_t frames = m_pcap.frames();
    m_capturing = false;
    m_pcap.close();
    return frames;
}

void Bus::onCaptureReadable()
{
    int fd;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        fd = m_captureFd;
    }
    // The rest waits for the next turn: the fd stays readable.
    for (int i = 0; fd >= 0 && i < kFramesPerTurn; ++i) {
        if (!readCapture(fd, m_buffer.data(), m_buffer.size())) {
            return;
        }
    }
}

bool Bus::readCapture(int fd, unsigned char* buffer, std::size_t size)
{
    const StampedFrame frame = readStampedFrame(fd, buffer, size);
    if (frame.size == 0) {
        return false;
    }
    const auto when = frame.stamp ? wallTime(*frame.stamp) : std::chrono::system_clock::now();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_capturing) {
        m_pcap.write(when, buffer, frame.size);
    }
    return true;
}

void Bus::onRelayReadable(int portId)
{
    int fd = -1;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (const Port* port = findPort(portId)) {
            fd = port->relayFd;
        }
    }
    if (fd < 0) {
        return;
    }
    // The rest waits for the next turn: the fd stays readable.
    for (int i = 0; i < kFramesPerTurn; ++i) {
        const ssize_t n = ::recv(fd, m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
        if (n <= 0) {
            return;  // EAGAIN: drained
        }
        const auto size = static_cast<std::size_t>(n);
        if (size < 2 * kMacLength) {
            continue;
        }
        deliver(portId, m_buffer.data(), size);
    }
}

void Bus::deliver(int fromId, const unsigned char* frame, std::size_t size)
{
    struct Copy
    {
        int fd;
        int id;
        int count;
    };
    std::vector<Copy> copies;
    std::chrono::milliseconds delay;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_stats.framesIn;
        const Port* from = findPort(fromId);
        if (from && from->cut) {
            ++m_stats.cut;
            return;
        }
        if (m_capturing) {
            m_pcap.write(std::chrono::system_clock::now(), frame, size);
        }
        std::uniform_real_distribution<double> uniform(0.0, 1.0);
        for (const auto& p : m_ports) {
            if (p.id == fromId || p.relayFd < 0) {
                continue;
            }
            if (p.cut) {
                ++m_stats.cut;
                continue;
            }
            if (m_loss > 0.0 && uniform(m_random) < m_loss) {
                ++m_stats.dropped;
                continue;
            }
            int count = 1;
            if (m_duplicate > 0.0 && uniform(m_random) < m_duplicate) {
                count = 2;
                ++m_stats.duplicated;
            }
            m_stats.delivered += static_cast<std::uint64_t>(count);
            copies.push_back(Copy{p.relayFd, p.id, count});
        }
        delay = m_delay;
    }
    if (delay.count() == 0) {
        for (const auto& c : copies) {
            for (int i = 0; i < c.count; ++i) {
                ssize_t n = ::send(c.fd, frame, size, MSG_DONTWAIT);
                (void)n;  // a full queue drops the copy, as a busy bus would
            }
        }
        return;
    }
    std::weak_ptr<Bus*> alive = m_alive;
    const std::vector<unsigned char> copy(frame, frame + size);
    for (const auto& c : copies) {
        int id = c.id;
        int count = c.count;
        m_io.after(delay, [alive, id, count, frame = copy] {
            auto bus = alive.lock();
            if (!bus || !*bus) {
                return;
            }
            Bus* self = *bus;
            std::lock_guard<std::mutex> lock(self->m_mutex);
            const Port* port = self->findPort(id);
            if (!port || port->cut || port->relayFd < 0) {
                return;
            }
            for (int i = 0; i < count; ++i) {
                ssize_t n = ::send(port->relayFd, frame.data(), frame.size(), MSG_DONTWAIT);
                (void)n;
            }
        });
    }
}

}  // namespace tsdsim
