// What the tree search polls while it runs: the stop and ponder flags, the hard time
// limit and the tablebase probe depth. The engine driver fills the limits before it
// wakes the threads (which orders the writes) and raises the flags from any thread.
#pragma once

#include <atomic>
#include <chrono>

#include "board/types.h"

// Monotonic clock in milliseconds.
inline i64 nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct searchLimitsStruct {
    int nodeCheckInterval = 4096;   // nodes between two looks at the clock, less one
    bool infinite = false;          // "go infinite" and fixed-depth searches: no clock
    i64 startTimeMs = 0;            // arrival of the "go"
    i64 maxTime = 0;                // hard limit, milliseconds after startTimeMs
    int syzygyProbeDepth = 0;       // least depth of a probe in the tree at the largest size
};

// Relaxed atomics: the flags publish no other data, and the tree reads stopSearch at every
// node, so a thread that still sees the old value stops a node or so later.
struct searchSignalsStruct {
    std::atomic<bool> stopSearch{false};   // "stop", "quit", the clock or a finished search
    std::atomic<bool> pondering{false};    // the clock is suspended until "ponderhit"
};

// The limits of the running search, one copy for all threads.
extern searchLimitsStruct searchLimits;
extern searchSignalsStruct searchSignals;

inline bool searchStopped() { return searchSignals.stopSearch.load(std::memory_order_relaxed); }

// Hard limit: true when the time is up and neither pondering nor infinite analysis
// suspends the clock (then the clock is not even read). The tree search polls it.
inline bool hardTimeUp(const searchLimitsStruct& l, bool pondering) {
    return !pondering && !l.infinite && nowMs() - l.startTimeMs >= l.maxTime;
}
