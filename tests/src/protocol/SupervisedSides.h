#pragma once

// The module's two side servers, each under a supervisor, inside a
// SideNetwork, with its error state on a velad of the test's own and a
// watcher of that state. The side servers are not started: each suite starts
// them with the receive handler it tests.

#include <chrono>

#include <orv/communication/MulticastServer.h>
#include <vela/PeerAsync.h>

#include "errors/TsdErrors.h"
#include "protocol/CheckResponse.h"
#include "protocol/SideNetwork.h"
#include "testsupport/BusWatcher.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"

namespace tsdtest {

struct SupervisedSides
{
    SideNetwork net;
    testsupport::LocalVelad broker{{"--quiet"}};
    vela::PeerAsync bus{net.loop, "127.0.0.1", broker.port()};
    testsupport::BusWatcher watcher{net.loop, broker.port(), "sync/errors/"};
    orv::tsd::TsdErrors errors{bus};
    orv::communication::MulticastServer rear{*net.adapters, net.loop};
    orv::communication::MulticastServer front{*net.adapters, net.loop};
    orv::tsd::CheckResponse rearCheck{orv::tsd::REAR_FW, net.loop, rear, errors};
    orv::tsd::CheckResponse frontCheck{orv::tsd::FRONT_FW, net.loop, front, errors};

    // Error states published before the watcher follows them would be missed.
    bool watching()
    {
        return testsupport::runUntil(
            net.loop, [&] { return watcher.ready(); }, std::chrono::seconds(5));
    }
};

}  // namespace tsdtest
