#pragma once

namespace orv::tsd {

// A side's status as published on "sync/app" (mode_back, mode_front).
enum enSyncStatus
{
    SYNC_UNKNOWN = 0,  // only in the initial value of "sync/app"
    SYNC_ALONE = 1,    // the side's list holds at most this module
    SYNC_SLAVE = 2,    // another module is the side's master
    SYNC_MASTER = 3,   // this module is the side's master
};

// Phase of the election driver, logged as its number. A plain 32-bit signed
// value: the driver compares it signed ("0 or less") and ignores any value
// it does not know.
enum enTsdPhase : int
{
    INITIALIZED_PHASE = 0,   // election (re)started on the rear side; waiting for the rear result
    PROPAGATION_PHASE = 1,   // gateway only: the two sides exchange propagated master values
    SYNCHRONIZED_PHASE = 2,  // steady state
};

}  // namespace orv::tsd
