#include "Readiness.h"

#include <systemd/sd-daemon.h>

namespace orv::services {

void notifyReady()
{
    ::sd_notify(0, "READY=1");
}

void notifyStopping()
{
    ::sd_notify(0, "STOPPING=1");
}

}  // namespace orv::services
