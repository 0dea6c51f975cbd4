#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vela {

// Log lines carry text that peers chose (names, paths, frames), so every line
// of the bus passes through the two helpers below: one makes foreign text
// harmless, the other keeps a noisy or hostile peer from flooding the log.

// Longest line written by default (bytes, escapes included); a longer one is
// cut and says how much was left out.
constexpr std::size_t kDefaultLogLineMax = 1024;

// text as it may go into a log line: a newline becomes \n, a backslash \\,
// every other control byte, DEL and every byte that is not part of valid
// UTF-8 \xHH (lower-case hex). The result is at most maxBytes long plus the
// marker " ... (N bytes more)" when text had to be cut; a cut never splits an
// escape or a UTF-8 sequence.
std::string escapeLogText(std::string_view text, std::size_t maxBytes = kDefaultLogLineMax);

// A token bucket for log lines: burst lines at once, then perSecond lines a
// second. Lines refused in between are counted, so that the next admitted
// line can be preceded by how many were dropped. Single-threaded; times are
// steady_clock.
class LogLimiter
{
public:
    using Clock = std::chrono::steady_clock;

    LogLimiter(double perSecond, unsigned burst);

    // True when one more line may be written at now.
    bool admit(Clock::time_point now = Clock::now());
    // Lines refused since the last call of this function.
    std::uint64_t takeSuppressed();

private:
    double m_perSecond;
    double m_burst;
    double m_tokens;
    Clock::time_point m_last;
    bool m_started = false;
    std::uint64_t m_suppressed = 0;
};

}  // namespace vela
