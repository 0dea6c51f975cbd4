#pragma once

#include <string>

namespace orv::tsd {

class CommandRunner;
class PTPManage;

// The NTP daemon as this module drives it: started with "/bin/start_ntpd.sh &"
// (the shell detaches it), stopped with "/bin/stop_ntpd.sh", fed by the
// one-line file /var/run/timesync/ntpserver.ip. The only memory is whether
// this daemon started the service and has not stopped it since; the flag
// follows the scripts' exit statuses (a failed start leaves it false so the
// next election tries again, a failed stop leaves it true).
//
// Production code uses instance(); tests may build their own. Every command
// goes through the runner given to the call. Event-loop thread only.
class NtpManage
{
public:
    static constexpr const char* kTimesyncDir = "/var/run/timesync";
    static constexpr const char* kServerFile = "/var/run/timesync/ntpserver.ip";
    // TSD_SCRIPT_DIR is "/bin" unless the build was told otherwise.
    static constexpr const char* kStartCommand = TSD_SCRIPT_DIR "/start_ntpd.sh &";
    static constexpr const char* kStopCommand = TSD_SCRIPT_DIR "/stop_ntpd.sh";

    static NtpManage& instance();

    NtpManage() = default;
    NtpManage(const NtpManage&) = delete;
    NtpManage& operator=(const NtpManage&) = delete;

    bool isRunning() const { return m_running; }

    // Stops a running PTP first, writes the server file, then starts NTP.
    void start(CommandRunner& runner, const std::string& ntpCfg, PTPManage& ptp);
    // Rewrites the server file, stops and starts NTP again.
    void restart(CommandRunner& runner, const std::string& ntpCfg);
    // With the debug banner; runs the stop script only when running.
    void stop(CommandRunner& runner);

    // Creates the directory with two mkdir commands (their results do not
    // matter: the open below reports what went wrong) and writes ntpCfg plus a
    // line feed. A failure is logged and does not prevent the start.
    static void writeConfig(CommandRunner& runner, const std::string& ntpCfg);

private:
    void stopService(CommandRunner& runner);
    void startService(CommandRunner& runner);

    bool m_running = false;
};

}  // namespace orv::tsd
