// The search threads and the flags through which the command loop steers them.
#pragma once

#include <atomic>

// Flags shared by the command loop and every search thread. They are atomics read and
// written with relaxed order: a stale read only delays a reaction by one poll.
struct workForce {
    std::atomic<bool> stopSearch{false};
    std::atomic<bool> pondering{false};
    std::atomic<bool> searchFinished{false};
    std::atomic<int> deepestReported{0};
    std::atomic<unsigned long long> tbHitsTotal{0};
};

extern workForce theWorkForce;
