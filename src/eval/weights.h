// Every weight of the evaluation, in one place so that a tuning tool can read and
// rewrite them. All tables are constant; packed values are S(mg, eg) pairs.
#pragma once

#include "eval/score.h"

// Indexed by piece index (code / 2 - 1): pawn, knight, bishop, rook, queen, king.
extern const i32 pieceValue[6];
extern const i32 pieceValuePhase[6];
// [piece index * 64 + entry]; entry = square ^ 56 for White, the square for Black,
// so entries 56..63 are a side's own back rank.
extern const i32 pieceSquareScore[6 * 64];
