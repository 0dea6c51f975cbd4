#include "MonitorOptions.h"

#include <cmath>
#include <cstdlib>

#include <pugixml.hpp>

#include "config/ConfigDocument.h"

namespace tsdmon {

namespace {

bool allDigits(const std::string& text)
{
    if (text.empty() || text.size() > 9)
        return false;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return false;
    }
    return true;
}

// The kernel's rule for interface names, so that a name that cannot exist is
// refused here rather than waited for.
bool validInterfaceName(const std::string& name)
{
    if (name.empty() || name.size() > kMaxInterfaceName || name == "." || name == "..")
        return false;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte >= 0x7f || c == '/' || c == ':')
            return false;
    }
    return true;
}

std::optional<double> parseSeconds(const std::string& text)
{
    if (text.empty() || text.size() > 32)
        return std::nullopt;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == nullptr || *end != '\0' || !std::isfinite(value) || value <= 0 || value > kMaxSeconds)
        return std::nullopt;
    return value;
}

}  // namespace

std::string usage()
{
    return "Usage: tsdmon [OPTION]...\n"
           "Watch the time-synchronisation telegrams of a module chain without sending any.\n"
           "\n"
           "  --config FILE    group and port from FILE (default /etc/TimeSourceDaemonConfig.xml)\n"
           "  --group ADDRESS  multicast group of the telegrams (instead of the file's)\n"
           "  --port N         base port: rear side N, front side N + 1 (instead of the file's)\n"
           "  --rear IFACE     rear FireWire interface (default firewire0)\n"
           "  --front IFACE    front FireWire interface (default firewire1)\n"
           "  --side SIDE      rear, front or both (default both)\n"
           "  --live           live view, refreshed in place (default on a terminal)\n"
           "  --lines          one timestamped line per event (default otherwise)\n"
           "  --json           one JSON object per line per event\n"
           "  --for SECONDS    stop after SECONDS\n"
           "  --help           show this help and exit\n"
           "  --version        show the version and exit\n";
}

ParsedOptions parseOptions(const std::vector<std::string>& args)
{
    ParsedOptions parsed;
    MonitorOptions& options = parsed.options;
    int outputs = 0;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i];
        std::optional<std::string> inlineValue;
        const std::string::size_type equals = name.find('=');
        if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
            inlineValue = name.substr(equals + 1);
            name = name.substr(0, equals);
        }
        auto takesValue = [&](std::string& value) {
            if (inlineValue) {
                value = *inlineValue;
                return true;
            }
            if (i + 1 >= args.size()) {
                parsed.error = "option " + name + " needs a value";
                return false;
            }
            value = args[++i];
            return true;
        };
        auto flag = [&]() {
            if (inlineValue) {
                parsed.error = "option " + name + " takes no value";
                return false;
            }
            return true;
        };

        std::string value;
        if (name == "--help" || name == "-h") {
            if (!flag())
                return parsed;
            options.help = true;
        } else if (name == "--version") {
            if (!flag())
                return parsed;
            options.version = true;
        } else if (name == "--json" || name == "--lines" || name == "--live") {
            if (!flag())
                return parsed;
            options.output = name == "--json"    ? MonitorOptions::Output::Json
                             : name == "--lines" ? MonitorOptions::Output::Lines
                                                 : MonitorOptions::Output::Live;
            ++outputs;
        } else if (name == "--config") {
            if (!takesValue(value))
                return parsed;
            if (value.empty()) {
                parsed.error = "--config needs a file name";
                return parsed;
            }
            options.configFile = value;
        } else if (name == "--group") {
            if (!takesValue(value))
                return parsed;
            if (value.empty() || value.size() > 15) {
                parsed.error = "--group needs a dotted IPv4 multicast address";
                return parsed;
            }
            options.group = value;
        } else if (name == "--port") {
            if (!takesValue(value))
                return parsed;
            const unsigned long number = allDigits(value) ? std::strtoul(value.c_str(), nullptr, 10) : 0;
            if (number == 0 || number > kMaxBasePort) {
                parsed.error = "--port needs a number from 1 to " + std::to_string(kMaxBasePort);
                return parsed;
            }
            options.port = static_cast<unsigned>(number);
        } else if (name == "--rear" || name == "--front") {
            if (!takesValue(value))
                return parsed;
            if (!validInterfaceName(value)) {
                parsed.error = name + " needs an interface name (1 to 15 characters, no blanks, '/' or ':')";
                return parsed;
            }
            (name == "--rear" ? options.rearInterface : options.frontInterface) = value;
        } else if (name == "--side") {
            if (!takesValue(value))
                return parsed;
            if (value != "rear" && value != "front" && value != "both") {
                parsed.error = "--side needs rear, front or both";
                return parsed;
            }
            options.watchRear = value != "front";
            options.watchFront = value != "rear";
        } else if (name == "--for") {
            if (!takesValue(value))
                return parsed;
            options.seconds = parseSeconds(value);
            if (!options.seconds) {
                parsed.error = "--for needs a number of seconds above 0";
                return parsed;
            }
        } else {
            parsed.error = "unknown option " + name;
            return parsed;
        }
    }
    if (outputs > 1)
        parsed.error = "--live, --lines and --json exclude each other";
    return parsed;
}

std::string resolveGroup(const MonitorOptions& options, std::string& group, unsigned& port)
{
    group = options.group;
    port = options.port.value_or(0);
    if (!group.empty() && options.port)
        return {};

    pugi::xml_document document;
    const pugi::xml_parse_result loaded = document.load_file(options.configFile.c_str());
    if (!loaded)
        return "cannot read " + options.configFile + ": " + loaded.description() +
               " (give --group and --port to listen without it)";
    const orv::tsd::ConfigDocument config = orv::tsd::ConfigDocument::read(document);
    if (group.empty())
        group = config.multicastAddress;
    if (!options.port)
        port = orv::tsd::ConfigDocument::toNumber(config.multicastPort);
    if (group.empty())
        return options.configFile + " names no multicast group (TimeSyncDaemon/MultiCastParam/Address)";
    if (port == 0 || port > kMaxBasePort)
        return options.configFile + " names no usable port (TimeSyncDaemon/MultiCastParam/Port, 1 to " +
               std::to_string(kMaxBasePort) + ")";
    return {};
}

}  // namespace tsdmon
