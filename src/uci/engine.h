// The settings and limits record shared by the command loop and the search threads.
// The command loop writes it while no search runs (or before waking the threads, which
// orders the writes); the searchers only read it, except for elapsedMs.
#pragma once

#include <string>

#include "board/types.h"

struct engineStruct {
    // Options.
    int hashSizeMB = 256;
    int nofThreads = 1;
    int moveOverhead = 100;
    bool ponderOption = false;
    std::string syzygyPath;
    int syzygyProbeDepth = 0;

    // Game state for the time budget.
    bool newGame = true;
    float usageFactor = 1.37f;
    int gamePly = 0;            // half-moves since the start; 1024 = unknown

    // Limits of the current "go".
    int timeLeft[2] = {0, 0};
    int increment[2] = {0, 0};
    int movesToGo = 0;
    bool movesToGoGiven = false;
    int moveTime = 0;
    int depthLimit = 0;
    u64 nodesLimit = 0;
    int mateLimit = 0;
    bool infinite = false;
    int nodeCheckInterval = 4096;

    // Time budget (milliseconds of the monotonic clock).
    i64 startTimeMs = 0;
    i64 elapsedMs = 0;
    i64 targetTime = 0;
    i64 maxTime = 0;
    float timeScale = 1.0f;
};

extern engineStruct engine;
