// The static evaluation.
#pragma once

#include "board/position.h"

struct evalCacheEntry {
    u64 key;
    i16 score;   // White's point of view
};

struct pawnCacheEntry {
    u64 key;
    bitboard passed;
    i32 score;   // packed, White minus Black
};

constexpr int EVAL_CACHE_SIZE = 16384;
constexpr int PAWN_CACHE_SIZE = 65536;

// Static score of pos from the side to move's point of view. Uses the caches reached
// through pos when they are set. The integer argument is ignored.
int evaluateN(int unused, positionStruct* pos);
