#include "LogLimiter.h"

#include <algorithm>

namespace vela {

namespace {

// Length of the UTF-8 sequence starting at text[i], or 0 when the bytes
// there are not one (overlong forms, surrogates and code points above
// U+10FFFF included, as a terminal or journal reader would mistrust them).
std::size_t utf8Length(std::string_view text, std::size_t i)
{
    const auto b = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
    const unsigned char c = b(0);
    std::size_t n = 0;
    unsigned char lo = 0x80;
    unsigned char hi = 0xbf;
    if (c >= 0xc2 && c <= 0xdf) {
        n = 2;
    } else if (c >= 0xe0 && c <= 0xef) {
        n = 3;
        if (c == 0xe0) {
            lo = 0xa0;
        } else if (c == 0xed) {
            hi = 0x9f;
        }
    } else if (c >= 0xf0 && c <= 0xf4) {
        n = 4;
        if (c == 0xf0) {
            lo = 0x90;
        } else if (c == 0xf4) {
            hi = 0x8f;
        }
    } else {
        return 0;
    }
    if (i + n > text.size() || b(1) < lo || b(1) > hi) {
        return 0;
    }
    for (std::size_t k = 2; k < n; ++k) {
        if (b(k) < 0x80 || b(k) > 0xbf) {
            return 0;
        }
    }
    return n;
}

void appendHex(std::string& out, unsigned char c)
{
    static const char kHex[] = "0123456789abcdef";
    out += "\\x";
    out += kHex[c >> 4];
    out += kHex[c & 0xf];
}

}  // namespace

std::string escapeLogText(std::string_view text, std::size_t maxBytes)
{
    std::string out;
    out.reserve(std::min(text.size(), maxBytes));
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t taken = 1;
        std::string piece;
        if (c == '\n') {
            piece = "\\n";
        } else if (c == '\\') {
            piece = "\\\\";
        } else if (c < 0x20 || c == 0x7f) {
            appendHex(piece, c);
        } else if (c < 0x80) {
            piece.assign(1, static_cast<char>(c));
        } else if ((taken = utf8Length(text, i)) > 0) {
            piece.assign(text.substr(i, taken));
        } else {
            taken = 1;
            appendHex(piece, c);
        }
        if (out.size() + piece.size() > maxBytes) {
            break;
        }
        out += piece;
        i += taken;
    }
    if (i < text.size()) {
        out += " ... (" + std::to_string(text.size() - i) + " bytes more)";
    }
    return out;
}

LogLimiter::LogLimiter(double perSecond, unsigned burst)
    : m_perSecond(std::max(perSecond, 0.0)),
      m_burst(std::max(1.0, static_cast<double>(burst))),
      m_tokens(m_burst)
{
}

bool LogLimiter::admit(Clock::time_point now)
{
    if (m_started) {
        const std::chrono::duration<double> elapsed = now - m_last;
        if (elapsed.count() > 0) {
            m_tokens = std::min(m_burst, m_tokens + elapsed.count() * m_perSecond);
        }
    }
    m_started = true;
    m_last = now;
    if (m_tokens >= 1.0) {
        m_tokens -= 1.0;
        return true;
    }
    ++m_suppressed;
    return false;
}

std::uint64_t LogLimiter::takeSuppressed()
{
    const std::uint64_t n = m_suppressed;
    m_suppressed = 0;
    return n;
}

}  // namespace vela
