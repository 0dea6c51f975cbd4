#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace tsdsim {

class LoopThread;

// A simulated FireWire bus: a set of ports (TAP devices of link type IEEE 1394,
// each the FireWire interface of one module) whose frames are copied to every
// other port of the bus. The destination of each copy is rewritten to
// broadcast: the kernel maps IPv4 multicast on such a link to the device's
// broadcast address anyway, and a broadcast destination is what makes the
// receiving TAP accept the frame as addressed to it.
//
// The relay runs on the world's LoopThread. The impairments (loss, duplication,
// delay) apply to each copy separately, so that every receiver sees its own
// pattern of faults, as on a noisy bus. A cut port neither sends nor
// receives: that is an unplugged cable. Every setter may be called from any
// thread.
class Bus
{
public:
    struct Stats
    {
        std::uint64_t framesIn = 0;    // frames read from ports
        std::uint64_t delivered = 0;   // copies written to ports
        std::uint64_t dropped = 0;     // copies lost to the loss rate
        std::uint64_t duplicated = 0;  // extra copies
        std::uint64_t cut = 0;         // frames or copies stopped at a cut port
    };

    Bus(LoopThread& io, std::string name, int index);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    const std::string& name() const { return m_name; }
    // Small number of the bus in its world (1, 2, ...); used in addresses.
    int index() const { return m_index; }

    // Adds a port; the bus owns fd (a non-blocking TAP fd) from now on and
    // closes it on detach or destruction, which deletes the TAP device.
    // label: "module.rear" style, for cut() and diagnostics. Returns the port id.
    int attach(int fd, const std::string& label);
    void detach(int portId);
    // Takes a port off the bus without closing its fd, which the caller owns
    // from now on (a cable moved to another bus). -1 for an unknown port.
    int release(int portId);

    // Loss and duplication rates are probabilities 0..1 per copy; delay is
    // added to each copy (ms).
    void setLoss(double rate);
    void setDuplicate(double rate);
    void setDelay(std::chrono::milliseconds delay);
    double loss() const;
    double duplicate() const;
    std::chrono::milliseconds delay() const;

    void setCut(int portId, bool cut);
    bool isCut(int portId) const;

    Stats stats() const;

private:
    struct Port
    {
        int id;
        int fd;
        std::string label;
        bool cut = false;
    };

    // The port with this id, or null once detached; m_mutex must be held.
    Port* findPort(int portId);
    const Port* findPort(int portId) const;
    void onReadable(int portId);
    void deliver(int portId, const unsigned char* frame, std::size_t size);

    LoopThread& m_io;
    std::string m_name;
    int m_index;
    mutable std::mutex m_mutex;  // guards everything below
    std::vector<Port> m_ports;
    int m_nextPortId = 1;
    double m_loss = 0.0;
    double m_duplicate = 0.0;
    std::chrono::milliseconds m_delay{0};
    Stats m_stats;
    std::vector<unsigned char> m_buffer;  // the frame being relayed; loop thread only
    std::mt19937 m_random;
    // Delayed copies hold this token; once the bus is going it is null and
    // they are discarded instead of touching a destroyed bus. Read and
    // cleared on the loop's thread only.
    std::shared_ptr<Bus*> m_alive;
};

}  // namespace tsdsim
