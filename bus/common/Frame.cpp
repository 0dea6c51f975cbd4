#include "Frame.h"

namespace vela {

void appendFrameHeader(std::string& out, std::size_t n)
{
    const auto len = static_cast<std::uint32_t>(n);
    out += static_cast<char>((len >> 24) & 0xff);
    out += static_cast<char>((len >> 16) & 0xff);
    out += static_cast<char>((len >> 8) & 0xff);
    out += static_cast<char>(len & 0xff);
}

void appendFrame(std::string& out, std::string_view payload)
{
    appendFrameHeader(out, payload.size());
    out.append(payload.data(), payload.size());
}

void FrameDecoder::feed(const char* data, std::size_t n)
{
    // Drop consumed bytes only now: payload views handed out by next() stay
    // valid until the caller feeds again, and compacting once per read keeps
    // the copying linear.
    if (m_offset > 0) {
        m_buffer.erase(0, m_offset);
        m_offset = 0;
    }
    m_buffer.append(data, n);
}

void FrameDecoder::release()
{
    std::string rest(m_buffer, m_offset);
    m_buffer.swap(rest);
    m_offset = 0;
}

FrameDecoder::Result FrameDecoder::next(std::string_view& payload)
{
    const std::size_t avail = m_buffer.size() - m_offset;
    if (avail < kFrameHeaderSize) {
        return Result::kNeedMore;
    }
    const auto* p = reinterpret_cast<const unsigned char*>(m_buffer.data() + m_offset);
    const std::uint32_t len = (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) |
                              (std::uint32_t{p[2]} << 8) | std::uint32_t{p[3]};
    if (len == 0 || len > m_maxFrameSize) {
        m_badLength = len;
        return Result::kBadLength;
    }
    if (avail < kFrameHeaderSize + len) {
        return Result::kNeedMore;
    }
    payload = std::string_view(m_buffer.data() + m_offset + kFrameHeaderSize, len);
    m_offset += kFrameHeaderSize + len;
    return Result::kFrame;
}

}  // namespace vela
