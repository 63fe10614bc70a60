// The settings and limits record of the engine driver, shared by the command loop and the
// search threads. The command loop writes it while no search runs (or before waking the
// threads, which orders the writes); the searchers only read it, except for elapsedMs.
// Its search limits part is handed to the tree search (searchLimits) at every start.
#pragma once

#include <string>

#include "board/types.h"
#include "search/searchlimits.h"

struct engineStruct : searchLimitsStruct {
    // Options.
    int hashSizeMB = 256;
    int nofThreads = 1;
    int moveOverhead = 100;
    bool ponderOption = false;
    std::string syzygyPath;

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

    // Time budget (milliseconds of the monotonic clock).
    i64 elapsedMs = 0;
    i64 targetTime = 0;
    float timeScale = 1.0f;
};

extern engineStruct engine;

// Replaces the transposition table by one for `mb` MB (never more than half the memory;
// a smaller table is reported on one "info string" line).
void setHashSizeNow(int mb);
