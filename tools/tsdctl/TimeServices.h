#pragma once

#include <string>
#include <vector>

#include "ModuleState.h"

namespace tsdctl {

// The scripts that tsd runs keep one pid file per time service they started
// in this directory: ptp4l.pid (with ptp4l.role, "server" or "follower"),
// chronyd.pid or ntpd.pid. The file's modification time is the start.
constexpr const char* kTimesyncDir = "/var/run/timesync";

// The services whose pid file names a live process, in the order ptp4l,
// chronyd, ntpd. A missing, unreadable or malformed pid file, or one whose
// process is gone (or a zombie), means that service does not run.
std::vector<TimeService> readTimeServices(const std::string& dir = kTimesyncDir);

}  // namespace tsdctl
