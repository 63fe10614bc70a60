// The clock: the time budget of one move and the rules that end a search.
//
// computeTimeBudget turns the limits of a "go" into a soft target (the root search stops
// between iterations once it is spent, scaled by how unstable the best move is) and a
// hard limit (maxTime, which the tree search polls every nodeCheckInterval + 1 nodes
// through hardTimeUp in search/searchlimits.h). It reads and writes only the engine
// record passed to it, so it can be tested alone.
#pragma once

#include "board/types.h"
#include "engine/engine.h"

// Fills targetTime, maxTime and timeScale for the side `side` to move; without
// "movestogo" it overwrites movesToGo with the horizon it assumed. At the first call of
// a game (newGame set) it also fixes usageFactor and clears newGame.
void computeTimeBudget(engineStruct& e, int side);

// The iteration factor after an iteration of depth `depth` whose instability (best-move
// changes plus extra aspiration failures) was `instability`; `previous` is the factor of
// the iteration before (1.0 before depth 6).
float nextIterationFactor(int depth, int instability, float previous);
