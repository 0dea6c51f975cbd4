#pragma once

namespace orv::services {

// Tells the service manager (Type=notify units) that the daemon serves, or
// that it is stopping. Harmless without one: nothing is sent when
// NOTIFY_SOCKET is not set.
void notifyReady();
void notifyStopping();

}  // namespace orv::services
