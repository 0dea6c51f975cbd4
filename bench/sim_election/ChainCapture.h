#pragma once

// What the election bench sees of a simulated chain, every record stamped by
// the kernel as the frame passed a module's interface:
//   - each telegram as it leaves a module's rear interface (the moment its
//     daemon sent it) and as it arrives at every other module's rear
//     interface (the moment the medium handed it over);
//   - on each module's loopback, the daemon's publications to its broker
//     ("sync/app", "sync/master"), the broker's notifications of reachable
//     devices to the daemon, and the platform's reachable-device updates to
//     the broker.
// The sockets queue what they see (with time stamps) and are read every
// 100 ms by one thread, so that the capture does not compete for a CPU with
// the daemons each time a frame passes.
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tsdsim {
class Module;
}

namespace simbench {

using Clock = std::chrono::steady_clock;

// Wall-clock milliseconds (what the kernel stamps, and what time() reads for
// the daemon's seeding) and steady time points, one fixed offset apart.
double wallMs(Clock::time_point t);
Clock::time_point steadyOf(double wallMs);
double msBetween(Clock::time_point from, Clock::time_point to);

struct Telegram
{
    Clock::time_point time;
    double wallMs = 0;
    int module = -1;  // where it was seen (index into the world's modules)
    int from = -1;    // who sent it (its own module when outgoing)
    bool outgoing = false;
    std::string kind;  // "start", "resync", "item"
};

struct BusMessage
{
    enum Kind
    {
        Publication,  // the daemon to its broker: "sync/app" or "sync/master"
        Notification, // the broker to the daemon: reachable devices changed
        PlatformUpdate // the platform's stand-in to the broker: reachable devices
    };
    Clock::time_point time;
    int module = -1;
    Kind kind = Publication;
};

class ChainCapture
{
public:
    ChainCapture();
    ~ChainCapture();
    ChainCapture(const ChainCapture&) = delete;
    ChainCapture& operator=(const ChainCapture&) = delete;

    // Captures module (index) on its rear interface and loopback; every
    // module before start(). address: its rear address, which identifies the
    // sender of what others receive.
    bool watch(const tsdsim::Module& module, int index, const std::string& address);
    void start();

    // Waits until no module has sent a telegram for quiet (the last answers
    // of an election come after its result), at most timeout.
    void waitQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout);

    // Everything captured so far, in time order.
    std::vector<Telegram> telegrams();
    std::vector<BusMessage> busMessages();

private:
    struct Socket
    {
        int fd;
        int module;
        bool loopback;
    };

    void run();
    void drain();
    void readTelegrams(const Socket& s);
    void readBus(const Socket& s);

    std::vector<Socket> m_sockets;
    std::map<std::string, int> m_moduleOfAddress;  // dotted rear address -> index
    std::thread m_reader;
    std::mutex m_drainMutex;  // one reader of the sockets at a time
    bool m_stop = false;
    std::mutex m_mutex;  // guards everything below and m_stop
    std::vector<Telegram> m_telegrams;
    std::vector<BusMessage> m_bus;
    Clock::time_point m_lastSent;
};

}  // namespace simbench
