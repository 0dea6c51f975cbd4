#pragma once

#include <time.h>

#include <cstddef>
#include <optional>

namespace tsdsim {

// One frame read from a packet socket that asked for SO_TIMESTAMPNS: the
// kernel's receive time says when the frame was on the wire, however late
// the reader gets to it.
struct StampedFrame
{
    std::size_t size = 0;           // 0: the socket is drained
    int packetType = -1;            // the link layer's PACKET_* type
    std::optional<timespec> stamp;  // absent when the kernel gave none
};

// Reads one frame without blocking.
StampedFrame readStampedFrame(int fd, unsigned char* buffer, std::size_t capacity);

}  // namespace tsdsim
