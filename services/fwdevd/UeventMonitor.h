#pragma once

#include <functional>

struct udev;
struct udev_monitor;

namespace orv::sys {
class EventLoop;
}

namespace orv::services {

// The kernel's device events for FireWire nodes and network interfaces,
// as a callback on the loop: a node that joins or leaves a card's bus and an
// interface that appears, vanishes or is renamed all change what fwdevd
// publishes. Listens to the kernel's own events, not to udev's re-broadcast,
// since only sysfs is read afterwards and a module (or a namespace of the
// simulator) need not run udev. The callback runs once per wake-up, however
// many events arrived, and also when events may have been lost (a full
// socket buffer), so that the caller rescans instead of trusting a partial
// record. Owns the monitor and its registration.
class UeventMonitor
{
public:
    UeventMonitor(orv::sys::EventLoop& loop, std::function<void()> onEvents);
    ~UeventMonitor();
    UeventMonitor(const UeventMonitor&) = delete;
    UeventMonitor& operator=(const UeventMonitor&) = delete;

    // False when the monitor could not be set up; error() tells why.
    bool ok() const { return m_fd >= 0; }
    const char* error() const { return m_error; }

private:
    orv::sys::EventLoop& m_loop;
    std::function<void()> m_onEvents;
    struct udev* m_udev = nullptr;
    struct udev_monitor* m_monitor = nullptr;
    int m_fd = -1;
    const char* m_error = "";

    void onReadable();
};

}  // namespace orv::services
