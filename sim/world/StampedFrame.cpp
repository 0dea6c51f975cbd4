#include "tsdsim/StampedFrame.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cstring>

namespace tsdsim {

StampedFrame readStampedFrame(int fd, unsigned char* buffer, std::size_t capacity)
{
    StampedFrame frame;
    char control[CMSG_SPACE(sizeof(timespec))];
    iovec iov{buffer, capacity};
    sockaddr_ll from{};
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(fd, &msg, MSG_DONTWAIT);
    if (n <= 0) {
        return frame;  // EAGAIN: drained
    }
    frame.size = static_cast<std::size_t>(n);
    frame.packetType = from.sll_pkttype;
    const cmsghdr* c = CMSG_FIRSTHDR(&msg);
    if (c && c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
        timespec stamp{};
        std::memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
        frame.stamp = stamp;
    }
    return frame;
}

}  // namespace tsdsim
