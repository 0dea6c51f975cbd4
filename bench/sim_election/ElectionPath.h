#pragma once

// The critical path of one election and where its time went.
//
// What the protocol prescribes. A daemon restarts its election 3000 ms after
// the last change of its reachable devices (and at once on its first
// parameters, as it starts) and sends "start"; every daemon answers every
// request it takes up, its own included, with an "item" after a back-off of
// rand() % 200 ms, for which it seeds the generator with srand(time(nullptr))
// on every answer, so modules answering in the same second draw the same
// back-off. Taking up a request also arms the daemon's supervision: when its
// list is not complete 3000 ms later it sends "resync". The back-off blocks
// the daemon: requests wait for it, and so do its timers and bus
// notifications. A daemon's list is complete once it holds an item of every
// module after the last request it took up.
//
// The path is traced back from the publication of the module whose result
// the simulator saw last, one cause at a time:
//   - a publication follows the item that completed the list (its arrival),
//     or the daemon's own back-off when that ended later;
//   - an answer ends a back-off (inferred from the second it began in: the
//     bench draws the number the daemon drew), which began when the daemon
//     took up the request: when the request arrived, or right after the
//     previous answer when the request was already waiting;
//   - a "start" after a reachable-device change ends a 3000 ms wait that
//     began when the daemon took the broker's notification in (or, when the
//     wait ran out during a back-off, the start follows that back-off);
//   - a "resync" ends the 3000 ms supervision armed when the daemon took up
//     its last request;
//   - the first "start" of a daemon follows its start-up.
// The waits and back-offs on the path are prescribed. Every other stretch is
// attributed to one of:
//   simulator    starting the daemons, publishing the cabling change (the
//                platform's stand-in writes to the broker);
//   medium       a telegram from leaving its sender's interface to arriving
//                at the receiver's: the simulated FireWire bus;
//   daemons      from a telegram's arrival (or a notification, or the end of
//                a wait or back-off) to what the daemon sent next: tsd, the
//                platform library, the bus peer and broker, and waiting for a
//                CPU the daemons share here;
//   measurement  from the last publication until the simulator saw every
//                module agree (broker, watcher, observer).
#include <string>
#include <vector>

#include "ChainCapture.h"

namespace simbench {

struct Attribution
{
    double observedMs = -1;
    double prescribedMs = 0;
    int debounces = 0;     // 3000 ms reachable-device waits on the path
    int supervisions = 0;  // 3000 ms supervision expiries on the path
    int backoffs = 0;
    int resyncs = 0;  // resyncs anywhere in the election: supervision expired
    double simulatorMs = 0;
    double mediumMs = 0;
    double daemonsMs = 0;
    double measurementMs = 0;
    std::vector<double> mediumHops;  // each telegram on the path
    std::vector<double> daemonHops;  // each stretch of a daemon on the path
    // The daemons' stretches with the module whose daemon the path waited
    // for, so that its scheduling can be looked up in [from, to]: placed
    // where the time went (a late start of a 3000 ms wait shows at its end,
    // but was lost at its beginning) and, before a back-off, reaching over
    // it: a back-off is inferred from when its answer left, so time the
    // daemon lost after the back-off (woken late, waiting for a CPU to send)
    // shows before it.
    struct Stretch
    {
        int module;
        Clock::time_point from;
        Clock::time_point to;
        double sleepMs;  // the back-off inside [from, to]
    };
    std::vector<Stretch> daemonStretches;

    double overheadMs() const { return observedMs - prescribedMs; }
    // What the trace could not place (0 when every stretch was explained).
    double otherMs() const { return overheadMs() - simulatorMs - mediumMs - daemonsMs - measurementMs; }
};

struct ElectionInput
{
    std::vector<Telegram> telegrams;  // everything captured, in time order
    std::vector<BusMessage> bus;
    Clock::time_point trigger;
    Clock::time_point agreed;  // when the simulator saw every module agree
    int except = -1;           // a module off the chain (unplugged), not waited for
    bool atStart = false;      // the daemons were started at the trigger
    std::vector<Clock::time_point> started;  // per module: its daemon's exec
    // Per module: when the simulator saw its last result (or the trigger).
    std::vector<Clock::time_point> results;
    bool trace = false;  // print each step
};

Attribution traceElection(const ElectionInput& in);

}  // namespace simbench
