// Syzygy endgame tablebases: registration, probing and the root adapter.
#pragma once

#include <string>

#include "board/position.h"

// Largest piece count (kings included) of any registered table; 0 when none is loaded.
extern int TB_LARGEST;

// (Re)initialises the tablebases from a ':'-separated list of folders; "" or "<empty>"
// means none. Prints "Found %d tablebases." when a path is given.
void init_tablebases(const std::string& path);

// WDL of pos from the side to move's view (-2 loss .. 2 win); *success is 0 on failure.
int probeWDLPosition(positionStruct* pos, int* success);

// The root adapter: a move that keeps the tablebase result, or the empty move when the
// tables cannot decide. Prints one "info" line when it returns a move.
moveStruct syzygyProbeDTZ(int unused, positionStruct* pos);
