#include "BrokerConfig.h"

#include "ConfigText.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <set>

namespace vela {

namespace {

enum class Kind
{
    kCount,     // a plain number
    kBytes,     // a number with an optional K/M/G suffix
    kMillis,    // milliseconds
    kRate       // lines per second, a decimal number
};

// Every knob with its range. The ranges keep the broker working: a backlog
// must hold at least one largest frame with room to spare, a path must fit
// in a frame, and so on.
struct Knob
{
    const char* name;
    Kind kind;
    double min;
    double max;
    std::size_t Limits::*size = nullptr;
    std::chrono::milliseconds Limits::*millis = nullptr;
    double Limits::*rate = nullptr;
    unsigned Limits::*burst = nullptr;
};

constexpr double kKiB = 1024;
constexpr double kMiB = 1024 * kKiB;
constexpr double kGiB = 1024 * kMiB;

const Knob kKnobs[] = {
    {"max-connections", Kind::kCount, 1, 65536, &Limits::maxConnections},
    {"max-connections-per-user", Kind::kCount, 1, 65536, &Limits::maxConnectionsPerUser},
    {"hello-timeout-ms", Kind::kMillis, 100, 600000, nullptr, &Limits::helloTimeout},
    {"max-states-per-connection", Kind::kCount, 1, 16777216, &Limits::maxStatesPerConnection},
    {"max-fetches-per-connection", Kind::kCount, 1, 65536, &Limits::maxFetchesPerConnection},
    {"max-pending-sets-per-connection", Kind::kCount, 1, 65536, &Limits::maxPendingSetsPerConnection},
    {"max-path-length", Kind::kCount, 16, 65536, &Limits::maxPathLength},
    {"max-stored-bytes", Kind::kBytes, kMiB, 16 * kGiB, &Limits::maxStoredBytes},
    {"max-backlog-bytes", Kind::kBytes, 2 * kMiB, 4 * kGiB, &Limits::maxBacklogBytes},
    {"max-total-backlog-bytes", Kind::kBytes, 2 * kMiB, 64 * kGiB, &Limits::maxTotalBacklogBytes},
    {"send-buffer-bytes", Kind::kBytes, 64 * kKiB, 4 * kMiB, &Limits::sendBufferBytes},
    {"set-timeout-ms", Kind::kMillis, 1, 3600000, nullptr, &Limits::setTimeout},
    {"log-rate", Kind::kRate, 0, 1e6, nullptr, nullptr, &Limits::logRate},
    {"log-burst", Kind::kCount, 1, 1e6, nullptr, nullptr, nullptr, &Limits::logBurst},
    {"peer-log-rate", Kind::kRate, 0, 1e6, nullptr, nullptr, &Limits::peerLogRate},
    {"peer-log-burst", Kind::kCount, 1, 1e6, nullptr, nullptr, nullptr, &Limits::peerLogBurst},
    {"log-line-max", Kind::kCount, 128, 1048576, &Limits::logLineMax},
};

// Reads a whole non-negative number with the suffixes its kind allows.
bool parseValue(const std::string& text, Kind kind, double& out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    if (kind == Kind::kRate) {
        out = std::strtod(text.c_str(), &end);
        return errno == 0 && end != text.c_str() && *end == '\0' && std::isfinite(out);
    }
    const unsigned long long n = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str()) {
        return false;
    }
    double factor = 1;
    if (kind == Kind::kBytes && *end != '\0' && end[1] == '\0') {
        switch (*end) {
            case 'K':
                factor = kKiB;
                break;
            case 'M':
                factor = kMiB;
                break;
            case 'G':
                factor = kGiB;
                break;
            default:
                return false;
        }
        ++end;
    }
    out = static_cast<double>(n) * factor;
    return *end == '\0';
}

std::string rangeText(const Knob& k)
{
    auto show = [&](double v) {
        if (k.kind == Kind::kBytes && v >= kMiB && std::fmod(v, kMiB) == 0) {
            return std::to_string(static_cast<unsigned long long>(v / kMiB)) + "M";
        }
        if (k.kind == Kind::kBytes && v >= kKiB && std::fmod(v, kKiB) == 0) {
            return std::to_string(static_cast<unsigned long long>(v / kKiB)) + "K";
        }
        return std::to_string(static_cast<unsigned long long>(v));
    };
    return show(k.min) + ".." + show(k.max);
}

}  // namespace

bool parseBrokerConfig(std::string_view text, Limits& limits, std::string& error)
{
    std::vector<ConfigLine> lines;
    if (!splitConfigLines(text, lines, error)) {
        return false;
    }
    std::set<std::string> seen;
    for (const ConfigLine& line : lines) {
        const std::string where = "line " + std::to_string(line.number) + ": ";
        const std::string& name = line.words[0];
        const Knob* knob = nullptr;
        for (const Knob& k : kKnobs) {
            if (name == k.name) {
                knob = &k;
            }
        }
        if (!knob) {
            error = where + "unknown setting '" + name + "'";
            return false;
        }
        if (line.words.size() != 2) {
            error = where + name + " takes one value";
            return false;
        }
        if (!seen.insert(name).second) {
            error = where + name + " is set twice";
            return false;
        }
        double v = 0;
        if (!parseValue(line.words[1], knob->kind, v) || v < knob->min || v > knob->max) {
            error = where + "bad value '" + line.words[1] + "' for " + name + " (" + rangeText(*knob) + ")";
            return false;
        }
        if (knob->size) {
            limits.*knob->size = static_cast<std::size_t>(v);
        } else if (knob->millis) {
            limits.*knob->millis = std::chrono::milliseconds(static_cast<long long>(v));
        } else if (knob->rate) {
            limits.*knob->rate = v;
        } else {
            limits.*knob->burst = static_cast<unsigned>(v);
        }
    }
    if (limits.maxTotalBacklogBytes < limits.maxBacklogBytes) {
        error = "max-total-backlog-bytes must not be below max-backlog-bytes";
        return false;
    }
    if (limits.maxConnectionsPerUser > limits.maxConnections) {
        limits.maxConnectionsPerUser = limits.maxConnections;
    }
    return true;
}

bool loadBrokerConfig(const std::string& path, bool mayBeMissing, Limits& limits, std::string& error)
{
    return loadConfigFile(
        path, mayBeMissing,
        [&limits](std::string_view text, std::string& why) { return parseBrokerConfig(text, limits, why); }, error);
}

}  // namespace vela
