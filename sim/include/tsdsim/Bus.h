#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "tsdsim/PcapWriter.h"

namespace tsdsim {

class BusBridge;
class LoopThread;

// A simulated FireWire bus: a set of ports, each the FireWire interface of one
// module, and every frame one port sends reaches every other port, as a
// FireWire broadcast reaches every node of its bus. A cut port neither sends
// nor receives: that is an unplugged cable.
//
// The bus lives in a network namespace of its own (BusBridge): each port is a
// veth pair, one end in the module (its firewire0 or firewire1), the other a
// port of the bus's bridge. How frames cross depends on the impairments:
//   - none (the usual case): the kernel's bridge copies every frame to every
//     uncut port; cut ports are out of the bridge. Nothing of the simulator
//     lies on a frame's way, and the copies cost no system call each;
//   - loss, duplication or delay set: every port leaves the bridge and the
//     relay copies each frame itself, on the world's LoopThread, through a
//     packet socket on each port's bus end, and applies the impairments to
//     each copy separately, so that every receiver sees its own pattern of
//     faults, as on a noisy bus.
// The bus switches between the two as the impairments are set and cleared;
// frames on their way at that moment may be lost.
//
// A capture (startCapture) writes every frame as a port sent it into the bus
// (before loss, duplication and delay; frames of cut ports never enter the
// bus) into a pcap file: from a socket on the bridge, or from the relay.
//
// Every function may be called from any thread.
class Bus
{
public:
    struct Stats
    {
        std::uint64_t framesIn = 0;    // frames the ports sent into the bus
        std::uint64_t delivered = 0;   // copies handed to ports
        std::uint64_t dropped = 0;     // copies lost to the loss rate
        std::uint64_t duplicated = 0;  // extra copies
        std::uint64_t cut = 0;         // frames sent into, or due out of, a cut port
    };

    // Throws std::runtime_error when the bus's namespace cannot be made.
    Bus(LoopThread& io, std::string name, int index);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    const std::string& name() const { return m_name; }
    // Small number of the bus in its world (1, 2, ...); used in addresses.
    int index() const { return m_index; }

    // Adds a port whose module end is the interface ifname inside the network
    // namespace moduleNetnsFd, left down and without an address for the module
    // to configure. label: "module.rear" style, for diagnostics. Returns the
    // port id. Throws std::runtime_error.
    int attach(int moduleNetnsFd, const std::string& ifname, const std::string& label);
    // Deletes the port, its module end included.
    void detach(int portId);
    // Moves a port's cable to another bus: the bus end leaves this bus's
    // namespace for to's, keeping its cut state, while the module's end, its
    // interface, stays as it is, as when a cable is pulled and put into
    // another module's socket. Returns the port's id on to. Throws
    // std::runtime_error; an unknown port id is an error.
    int moveTo(int portId, Bus& to, const std::string& label);

    // Loss and duplication rates are probabilities 0..1 per copy; delay is
    // added to each copy (ms).
    void setLoss(double rate);
    void setDuplicate(double rate);
    void setDelay(std::chrono::milliseconds delay);
    double loss() const;
    double duplicate() const;
    std::chrono::milliseconds delay() const;
    // True while impairments are set and the relay copies the frames.
    bool relaying() const;

    void setCut(int portId, bool cut);
    bool isCut(int portId) const;

    Stats stats() const;

    // Writes every frame the bus carries from now on into a pcap file at
    // path (created or truncated). False, with the reason in error, when the
    // file or the capture cannot be made.
    bool startCapture(const std::string& path, std::string& error);
    // Finishes the file; the frames written so far.
    std::uint64_t stopCapture();

private:
    struct Port
    {
        int id;
        int index;  // the bus end's interface index in the bus's namespace
        std::string label;
        bool cut = false;
        int relayFd = -1;  // while relaying: the bus end's packet socket
        // The port's counters when the stats last looked.
        mutable std::uint64_t seenFromModule = 0;
        mutable std::uint64_t seenToModule = 0;
    };

    // Takes in the bus end index of from's namespace (Bus::moveTo).
    int adopt(BusBridge& from, int index, bool cut, const std::string& label);
    // Adds a port whose bus end makeEnd(id) puts into this bus's namespace
    // (a new veth pair, or one moved from another bus) and returns the
    // end's index, or -1 with why() telling the reason.
    int takePort(const std::function<int(int id)>& makeEnd, const std::function<std::string()>& why, bool cut,
                 const std::string& label);
    // The port with this id, or null once detached; m_mutex must be held.
    Port* findPort(int portId);
    const Port* findPort(int portId) const;
    // Brings the stats up to the ports' counters for the time the bridge
    // carried the frames; m_control must be held, m_mutex must not.
    void account() const;
    // Applies the impairments: relay when any is set, else bridge. m_control
    // must be held, m_mutex must not (it registers fds with the loop).
    void chooseMedium();
    void startRelaying();
    void stopRelaying();
    int openPortSocket(int index);
    // The capture socket on the bridge, while bridging and capturing.
    void openBridgeCapture();
    void closeBridgeCapture();
    void onRelayReadable(int portId);
    void onCaptureReadable();
    // Reads one frame from the bridge's capture socket into buffer and writes
    // it to the file; false once none is waiting.
    bool readCapture(int fd, unsigned char* buffer, std::size_t size);
    void deliver(int portId, const unsigned char* frame, std::size_t size);

    LoopThread& m_io;
    std::string m_name;
    int m_index;
    std::unique_ptr<BusBridge> m_bridge;
    // Serialises the operations that change the medium (ports, cabling,
    // impairments, capture); taken before m_mutex.
    mutable std::mutex m_control;
    mutable std::mutex m_mutex;  // guards everything below
    std::vector<Port> m_ports;
    int m_nextPortId = 1;
    double m_loss = 0.0;
    double m_duplicate = 0.0;
    std::chrono::milliseconds m_delay{0};
    bool m_relaying = false;
    mutable Stats m_stats;
    PcapWriter m_pcap;
    bool m_capturing = false;
    int m_captureFd = -1;  // the bridge's capture socket
    std::vector<unsigned char> m_buffer;  // the frame being relayed; loop thread only
    std::mt19937 m_random;
    // Delayed copies hold this token; once the bus is going it is null and
    // they are discarded instead of touching a destroyed bus. Read and
    // cleared on the loop's thread only.
    std::shared_ptr<Bus*> m_alive;
};

}  // namespace tsdsim
