// The tree search: the alpha-beta node search, the quiescence search, the tables a
// search thread owns, and a fixed-depth search for tests and benchmarks.
//
// How the root search drives alfabeta (ply 0):
//  - The position is bound to a searchTablesStruct and plyStack[0].inCheck is set.
//  - Before the first iteration: nodes, qNodes, tbHits and selDepth are zero,
//    nodeCheckCountdown = searchLimits.nodeCheckInterval, plyStack[0].bestMove = EMPTYMOVE,
//    plyStack[0].nullMoveDisable as wanted (0 allows null moves below the root).
//  - Per iteration: bestMoveChanges = 0, searchDepth = the depth passed, then
//    alfabeta(0, depth, alpha, beta, pos).
//  - The root's best move is plyStack[0].bestMove: the last move that raised alpha at the
//    root in any call so far, with its piece code in the score byte (it survives a fail
//    low or a stop). When alfabeta returns from ply 0, plyStack[0].currentMove holds the
//    same move. Each alpha raise at the root also does bestMoveChanges++,
//    rootDepth = depth and rootDepthComplete = 0.
//  - A result returned while searchSignals.stopSearch is set is meaningless (0).
#pragma once

#include "board/position.h"
#include "eval/evaluate.h"

// Continuation-history tables are indexed by (piece code - 2) * 64 + to-square for the
// earlier move and the same for the move scored: 768 x 768 entries.
constexpr int CONT_HIST_SIDE = 768;
constexpr int CONT_HIST_SIZE = CONT_HIST_SIDE * CONT_HIST_SIDE;

// Everything a search thread owns besides its position: the move lists of all plies,
// the move-ordering tables and the evaluation caches. About 4.5 MB: allocate it on the
// heap, one per thread.
struct searchTablesStruct {
    moveStruct moveBuffer[MOVE_BUFFER];
    i16 mainHistory[14][64];            // [piece code][to]
    u32 counterMoves[14][64];           // [piece code][to] of the previous move, packed
    i16 contHist[2][CONT_HIST_SIZE];    // keyed by the move of ply - 1 / ply - 2
    evalCacheEntry evalCache[EVAL_CACHE_SIZE];
    pawnCacheEntry pawnCache[PAWN_CACHE_SIZE];

    // Points the position's table pointers and its ply-0 move list at these tables.
    void bind(positionStruct* pos);
    // Zeroes the two continuation-history tables (new game, new thread count).
    void clearHistories();
    // Zeroes every table: a search from here depends only on the position and the
    // transposition table.
    void clearAll();
};

// Score of the node at distance ply from the root with depth plies left, fail-soft,
// from the side to move's view. Never called with ply > 0 for a position it did not
// reach by makeMove from the root.
short alfabeta(u8 ply, int depth, short alpha, short beta, positionStruct* pos);

// The capture search below the horizon; depth is 0 at entry and counts down.
short quiescence(u8 ply, int depth, short alpha, short beta, positionStruct* pos);

struct searchResultStruct {
    int score = 0;
    moveStruct bestMove;    // piece code in the score byte; empty without a legal move
    u64 nodes = 0;          // alpha-beta plus quiescence nodes
    int depth = 0;
};

// Iterative deepening from depth 1 to `depth` with a full window, one thread, no clock
// (searchLimits.infinite is set for the duration) and no output. Needs a bound position and
// an allocated transposition table; clears stopSearch, so never call it while a
// threaded search runs.
searchResultStruct searchFixedDepth(positionStruct* pos, int depth);
