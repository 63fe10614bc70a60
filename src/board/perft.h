// Leaf counts of the legal move tree: the check of move generation and make/take-back.
#pragma once

#include <iosfwd>
#include <string>

#include "board/position.h"

// The deepest perft the ply records and the move buffer hold; deeper requests are refused.
constexpr int PERFT_MAX_DEPTH = MAX_PLY;

// Counts the leaves `depth` plies below pos (1 <= depth <= PERFT_MAX_DEPTH), with the rights and
// en-passant square of record `ply`. The moves are generated into the buffer bound to pos and made
// and taken back on pos itself, which ends as it started.
u64 perft(u8 ply, int depth, positionStruct* pos);

// Runs the reference tests of a "FEN;depth;count" file up to its "full"/"extended"
// marker, printing one line per test and the summary. Returns true when all passed;
// counts the tests that ran (readable lines) in *testsRun when given.
bool runPerftFile(const std::string& path, std::ostream& out, int* testsRun = nullptr);
