// The built-in benchmark: fixed positions, fixed depth, one thread.
#pragma once

#include "board/types.h"

constexpr int BENCH_DEPTH = 13;

struct benchResultStruct {
    u64 nodes = 0;
    i64 ms = 0;
};

// Searches every bench position to `depth`; unless quiet its last three lines are
// "Nodes searched: N", "Nodes/second: M" and "N nodes M nps". The settings are restored after.
benchResultStruct runBench(int depth, bool quiet = false);
