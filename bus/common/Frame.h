#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vela {

// Framing of the bus stream: each frame is a 4-byte big-endian length N
// followed by N bytes of JSON text. A length of 0 or above the receiver's
// limit cannot be skipped safely (the stream position is lost), so it ends the
// connection.

constexpr std::size_t kFrameHeaderSize = 4;
// Largest frame a peer may send to the broker (bytes of JSON text).
constexpr std::size_t kMaxFrameSize = 1024 * 1024;
// Largest frame a peer accepts from the broker: a notification wraps a value
// of up to kMaxFrameSize with its path and the list of matching fetches.
constexpr std::size_t kMaxBrokerFrameSize = 16 * 1024 * 1024;

// Appends the header for a payload of length n.
void appendFrameHeader(std::string& out, std::size_t n);
// Appends header and payload.
void appendFrame(std::string& out, std::string_view payload);

// Splits a byte stream into frames. Owns the bytes received but not yet
// consumed; single-threaded.
class FrameDecoder
{
public:
    enum class Result
    {
        kFrame,     // payload holds the next frame
        kNeedMore,  // no complete frame buffered
        kBadLength  // the next header announces 0 or more than the limit
    };

    explicit FrameDecoder(std::size_t maxFrameSize = kMaxFrameSize) : m_maxFrameSize(maxFrameSize) {}

    void feed(const char* data, std::size_t n);
    // On kFrame, payload views the decoder's buffer and stays valid until the
    // next call of feed() or next().
    Result next(std::string_view& payload);
    // The length announced by the header that next() refused (kBadLength).
    std::uint32_t badLength() const { return m_badLength; }
    std::size_t buffered() const { return m_buffer.size() - m_offset; }
    // Drops the consumed bytes and the room a large frame left behind;
    // invalidates the payload views handed out so far.
    void release();

private:
    std::size_t m_maxFrameSize;
    std::string m_buffer;
    std::size_t m_offset = 0;
    std::uint32_t m_badLength = 0;
};

}  // namespace vela
