#include "UeventMonitor.h"

#include <libudev.h>
#include <sys/epoll.h>

#include <cerrno>

#include <orv/sys/EventLoop.h>

namespace orv::services {

UeventMonitor::UeventMonitor(orv::sys::EventLoop& loop, std::function<void()> onEvents)
    : m_loop(loop), m_onEvents(std::move(onEvents))
{
    m_udev = udev_new();
    if (m_udev == nullptr) {
        m_error = "udev_new failed";
        return;
    }
    m_monitor = udev_monitor_new_from_netlink(m_udev, "kernel");
    if (m_monitor == nullptr) {
        m_error = "cannot open the kernel's device event socket";
        return;
    }
    if (udev_monitor_filter_add_match_subsystem_devtype(m_monitor, "firewire", nullptr) < 0 ||
        udev_monitor_filter_add_match_subsystem_devtype(m_monitor, "net", nullptr) < 0 ||
        udev_monitor_enable_receiving(m_monitor) < 0) {
        m_error = "cannot listen to FireWire and network device events";
        return;
    }
    const int fd = udev_monitor_get_fd(m_monitor);
    if (fd < 0 || m_loop.addFd(fd, EPOLLIN, [this](std::uint32_t) { onReadable(); }) < 0) {
        m_error = "cannot watch the device event socket";
        return;
    }
    m_fd = fd;
}

UeventMonitor::~UeventMonitor()
{
    if (m_fd >= 0) {
        m_loop.removeFd(m_fd);
    }
    if (m_monitor != nullptr) {
        udev_monitor_unref(m_monitor);
    }
    if (m_udev != nullptr) {
        udev_unref(m_udev);
    }
}

void UeventMonitor::onReadable()
{
    // Drain everything waiting; the caller rescans the whole tree anyway, so
    // one rescan covers any number of events.
    bool relevant = false;
    for (;;) {
        errno = 0;
        struct udev_device* device = udev_monitor_receive_device(m_monitor);
        if (device != nullptr) {
            udev_device_unref(device);
            relevant = true;
            continue;
        }
        // Not EAGAIN: an event that did not match the filter (errno 0 or
        // EAGAIN) ends the round quietly, but an overrun means events were
        // lost, and only a rescan can make up for them.
        if (errno != 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            relevant = true;
        }
        break;
    }
    if (relevant && m_onEvents) {
        m_onEvents();
    }
}

}  // namespace orv::services
