#pragma once

#include <string>

#include <orv/communication/MulticastServer.h>
#include <orv/communication/NetadapterList.h>
#include <orv/communication/Netlink.h>
#include <orv/sys/EventLoop.h>

namespace orv::sys {
class Timer;
}

#include "config/InterfaceType.h"

// The daemon process: its process-wide objects, its handlers and its body.
// Everything runs on the one thread of `eventloop`; the signal handler only
// stops that loop or flips the debug switch.
namespace orv::tsd {

class CheckResponse;
class TimeSyncManagement;

// Built before main in this order and destroyed in reverse at exit: the
// receivers register on the loop and look up adapters in the list.
extern orv::sys::EventLoop eventloop;
extern orv::communication::NetadapterList adapterList;
extern orv::communication::MulticastServer receiverRear;
extern orv::communication::MulticastServer receiverFront;

// Reads one datagram from server and hands it, with the side the server
// serves, to the telegram decoder. Returns what the receive returned.
int multicastReceiveHandler(orv::communication::MulticastServer& server, interface_t side,
                            CheckResponse& check, TimeSyncManagement& tsm);

// Keeps the receivers' memberships in step with the FireWire interfaces the
// kernel reports.
void netLinkEventHandler(orv::communication::Netlink::event_t event, unsigned int interfaceIndex,
                         const std::string& address);

void signalHandler(int signalNumber);
void installSignalHandler(int signalNumber);

// Arms timer (a timer of the daemon's loop) so that the loop's first round
// tells the service manager "READY=1": only a running loop can dispatch the
// timer, so a unit ordered after tsd.service starts once the receivers listen
// and the loop serves them. Does nothing visible when the daemon was not
// started with NOTIFY_SOCKET.
void notifyReadyFromLoop(orv::sys::Timer& timer);

// The body of main: 0 after a stop or the usage text, -1 when the rear side
// cannot be brought up, 1 when another instance is running.
int tsdMain(int argc, char** argv);

}  // namespace orv::tsd
