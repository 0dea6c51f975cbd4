#include "tsdsim/Bus.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tsdsim/LoopThread.h"

namespace tsdsim {

namespace {
constexpr std::size_t kMaxFrame = 65536;
constexpr std::size_t kMacLength = 6;
// Frames relayed from one port before the loop turns to its other fds: a
// chatty bus must not hold up the other buses and the modules' observers.
constexpr int kFramesPerTurn = 32;
}  // namespace

Bus::Bus(LoopThread& io, std::string name, int index)
    : m_io(io),
      m_name(std::move(name)),
      m_index(index),
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
}

int Bus::attach(int fd, const std::string& label)
{
    int id;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        id = m_nextPortId++;
        m_ports.push_back(Port{id, fd, label, false});
    }
    m_io.addFd(fd, EPOLLIN, [this, id](std::uint32_t) { onReadable(id); });
    return id;
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

void Bus::detach(int portId)
{
    const int fd = release(portId);
    if (fd >= 0) {
        ::close(fd);
    }
}

int Bus::release(int portId)
{
    int fd = -1;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = std::find_if(m_ports.begin(), m_ports.end(), [&](const Port& p) { return p.id == portId; });
        if (it == m_ports.end()) {
            return -1;
        }
        fd = it->fd;
        m_ports.erase(it);
    }
    m_io.removeFd(fd);
    return fd;
}

void Bus::setLoss(double rate)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_loss = std::clamp(rate, 0.0, 1.0);
}

void Bus::setDuplicate(double rate)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_duplicate = std::clamp(rate, 0.0, 1.0);
}

void Bus::setDelay(std::chrono::milliseconds delay)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_delay = delay.count() < 0 ? std::chrono::milliseconds(0) : delay;
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

void Bus::setCut(int portId, bool cut)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (Port* port = findPort(portId)) {
        port->cut = cut;
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
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stats;
}

void Bus::onReadable(int portId)
{
    int fd = -1;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (const Port* port = findPort(portId)) {
            fd = port->fd;
        }
    }
    if (fd < 0) {
        return;
    }
    // The rest waits for the next turn: the fd stays readable.
    for (int i = 0; i < kFramesPerTurn; ++i) {
        const ssize_t n = ::read(fd, m_buffer.data(), m_buffer.size());
        if (n <= 0) {
            return;  // EAGAIN: drained
        }
        const auto size = static_cast<std::size_t>(n);
        if (size < 2 * kMacLength) {
            continue;
        }
        std::memset(m_buffer.data(), 0xff, kMacLength);
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
        std::uniform_real_distribution<double> uniform(0.0, 1.0);
        for (const auto& p : m_ports) {
            if (p.id == fromId) {
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
            copies.push_back(Copy{p.fd, p.id, count});
        }
        delay = m_delay;
    }
    if (delay.count() == 0) {
        for (const auto& c : copies) {
            for (int i = 0; i < c.count; ++i) {
                ssize_t n = ::write(c.fd, frame, size);
                (void)n;  // a full TAP queue drops the copy, as a busy bus would
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
            if (!port || port->cut) {
                return;
            }
            for (int i = 0; i < count; ++i) {
                ssize_t n = ::write(port->fd, frame.data(), frame.size());
                (void)n;
            }
        });
    }
}

}  // namespace tsdsim
