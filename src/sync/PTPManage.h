#pragma once

#include <string>

namespace orv::tsd {

class CommandRunner;
class NtpManage;

// The PTP daemon as this module drives it, through "/bin/ptp4ladm.sh start",
// "restart" and "stop", fed by the one-line file /var/run/timesync/ptp4l.cfg.
// The only memory is whether this daemon started the service. Unlike NTP the
// flag is changed before the script runs, so a failing script still leaves it
// in its new state: a failed start is not retried by the next election.
//
// Production code uses instance(); tests may build their own. Every command
// goes through the runner given to the call. Event-loop thread only.
class PTPManage
{
public:
    static constexpr const char* kConfigFile = "/var/run/timesync/ptp4l.cfg";
    // TSD_SCRIPT_DIR is "/bin" unless the build was told otherwise.
    static constexpr const char* kStartCommand = TSD_SCRIPT_DIR "/ptp4ladm.sh start";
    static constexpr const char* kRestartCommand = TSD_SCRIPT_DIR "/ptp4ladm.sh restart";
    static constexpr const char* kStopCommand = TSD_SCRIPT_DIR "/ptp4ladm.sh stop";

    static PTPManage& instance();

    PTPManage() = default;
    PTPManage(const PTPManage&) = delete;
    PTPManage& operator=(const PTPManage&) = delete;

    bool isRunning() const { return m_running; }

    // Stops a running NTP first, writes the configuration file, starts PTP.
    void start(CommandRunner& runner, const std::string& ptpCfg, NtpManage& ntp);
    // Rewrites the configuration file and restarts the running PTP.
    void restart(CommandRunner& runner, const std::string& ptpCfg);
    // With the debug banner; runs the stop script only when running.
    void stop(CommandRunner& runner);

    // Writes ptpCfg plus a line feed. No directory is created here: only the
    // NTP path does that. A failure is logged and does not prevent the start.
    static void writeConfig(const std::string& ptpCfg);

private:
    bool m_running = false;
};

}  // namespace orv::tsd
