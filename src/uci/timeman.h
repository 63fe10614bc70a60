// The clock: the time budget of one move and the rules that end a search.
//
// computeTimeBudget turns the limits of a "go" into a soft target (the root search stops
// between iterations once it is spent, scaled by how unstable the best move is) and a
// hard limit (polled inside the tree search every nodeCheckInterval + 1 nodes). It reads
// and writes only the engine record passed to it, so it can be tested alone.
#pragma once

#include "board/types.h"
#include "uci/engine.h"
#include "uci/uci.h"

// Fills targetTime, maxTime and timeScale for the side `side` to move; without
// "movestogo" it overwrites movesToGo with the horizon it assumed. At the first call of
// a game (newGame set) it also fixes usageFactor and clears newGame.
void computeTimeBudget(engineStruct& e, int side);
// The same for the global record and the side to move of the command position; "go"
// calls it once its tokens are read.
void computeTimeBudget();

// The iteration factor after an iteration of depth `depth` whose instability (best-move
// changes plus extra aspiration failures) was `instability`; `previous` is the factor of
// the iteration before (1.0 before depth 6).
float nextIterationFactor(int depth, int instability, float previous);

// Hard limit: true when the time is up and neither pondering nor infinite analysis
// suspends the clock (then the clock is not even read). The tree search polls it.
inline bool hardTimeUp(const engineStruct& e, bool pondering) {
    return !pondering && !e.infinite && nowMs() - e.startTimeMs >= e.maxTime;
}

// Soft test inside an iteration (boss only, after an aspiration search without a fail
// low): the elapsed time has passed the target scaled by the iteration factor.
inline bool softTimeUp(const engineStruct& e, i64 elapsed, float factor) {
    return float(elapsed) > float(e.targetTime) * factor;
}

// Test between iterations (no depth limit): like softTimeUp, but the elapsed time is
// inflated by timeScale, which is 5 when the clock is short.
inline bool iterationTimeUp(const engineStruct& e, i64 elapsed, float factor) {
    return float(elapsed) * e.timeScale > float(e.targetTime) * factor;
}
