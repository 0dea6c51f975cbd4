#pragma once

#include <optional>
#include <string>
#include <vector>

// The command line of tsdmon and where its group and port come from. Every
// value is checked here, before anything listens.
namespace tsdmon {

struct MonitorOptions
{
    enum class Output
    {
        Auto,   // live view on a terminal, timestamped lines otherwise
        Live,
        Lines,
        Json,
    };

    std::string configFile = "/etc/TimeSourceDaemonConfig.xml";
    std::string group;             // empty: from the configuration file
    std::optional<unsigned> port;  // base port (rear); none: from the configuration file
    std::string rearInterface = "firewire0";
    std::string frontInterface = "firewire1";
    bool watchRear = true;
    bool watchFront = true;
    Output output = Output::Auto;
    std::optional<double> seconds;  // stop after this long; none: until SIGINT or SIGTERM
    bool help = false;
    bool version = false;
};

struct ParsedOptions
{
    MonitorOptions options;
    std::string error;  // empty when the command line is fine
};

// args: the arguments after the program name.
ParsedOptions parseOptions(const std::vector<std::string>& args);
std::string usage();

// The group and base port to listen on: those given on the command line, the
// rest from the configuration file read as the daemon reads it. Returns an
// error text, empty on success.
std::string resolveGroup(const MonitorOptions& options, std::string& group, unsigned& port);

// Limits of what the command line accepts.
constexpr unsigned kMaxBasePort = 65534;  // the front side listens on base + 1
constexpr double kMaxSeconds = 1e7;
constexpr std::size_t kMaxInterfaceName = 15;  // IFNAMSIZ less its terminator

}  // namespace tsdmon
