// Entry tests shared by the node search and the quiescence search.
#pragma once

#include <algorithm>

#include "board/position.h"
#include "eval/score.h"
#include "search/searchparams.h"

// True when the position repeats: once inside the search line (after the root), or twice
// in the game before it. Only positions since the last capture or pawn move can match,
// and only those with the same side to move.
inline bool isRepetition(const positionStruct* pos, int ply) {
    const int fifty = pos->halfMoveClock;
    if (fifty < 4)
        return false;
    const int n = pos->gamePly;
    const int lowest = std::max(n - 1 - fifty, 0);
    const int lastOfGame = n - 1 - ply;   // the root's entry
    const u64 key = pos->hashKey;
    int gameMatches = 0;
    for (int i = n - 5; i >= lowest; i -= 2) {
        if (pos->keyHistory[i] != key)
            continue;
        if (i > lastOfGame || ++gameMatches == 2)
            return true;
    }
    return false;
}

// A repetition scores +1 or -1 by the parity of a node counter instead of a flat 0. The
// coin flip costs nothing, and it stops the search from returning to the same drawn line
// every time it has a choice between equal draws.
inline short repetitionScore(u64 counter) { return (counter & 1) ? 1 : -1; }

// No pawns and neither side with more than a minor piece's worth of material.
inline bool insufficientMaterial(const positionStruct* pos) {
    return !(pos->bitboards[WPAWN] | pos->bitboards[BPAWN])
        && mgOf(pos->material[WHITE]) <= INSUFFICIENT_MATERIAL
        && mgOf(pos->material[BLACK]) <= INSUFFICIENT_MATERIAL;
}

// The side to move has a piece other than pawns and king (null move and reverse
// futility are unsafe in pawn endings).
inline bool hasNonPawnMaterial(const positionStruct* pos) {
    const int us = pos->sideToMove;
    return (pos->bitboards[us] & ~(pos->bitboards[WPAWN + us] | pos->bitboards[WKING + us])) != 0;
}
