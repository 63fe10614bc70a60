// The static evaluation: a tapered sum of packed (mg, eg) terms, blended by phase.
#pragma once

#include <string>

#include "board/position.h"

struct evalCacheEntry {
    u64 key;
    i16 score;  // White's point of view
};

struct pawnCacheEntry {
    u64 key;
    bitboard passed;
    i32 score;  // packed, White minus Black
};

constexpr int EVAL_CACHE_SIZE = 16384;
constexpr int PAWN_CACHE_SIZE = 65536;

// Static score of pos from the side to move's point of view. Uses the caches reached
// through pos when they are set. The integer argument is ignored.
int evaluateN(int unused, positionStruct* pos);

// The groups of terms that the "eval" command lists.
enum evalTerm : int {
    TERM_MATERIAL,  // material and piece-square sums
    TERM_PAWNS,     // pawn structure, passed pawns, candidates and the pawn storm
    TERM_PIECES,    // pins, discovered checks, outposts, bishops, rooks and queens
    TERM_MOBILITY,  // piece mobility and safe pawn pushes
    TERM_THREATS,
    TERM_SHIELD,
    TERM_KINGDANGER,
    TERM_SPACE,
    TERM_INITIATIVE,  // held in White's slot only: it corrects the total
    TERM_TEMPO,       // held in the slot of the side to move
    TERM_COUNT
};

// The tables a tuner fits, and one use of one of their entries by a traced evaluation.
enum tunedTable : u8 {
    TUNED_PSQ,
    TUNED_PASSED,
    TUNED_SHIELD,
    TUNED_STORM
};
struct tunedUseStruct {
    u8 table;
    u8 colour;  // the side whose score the entry enters
    u16 entry;  // index into the table
};
// 32 pieces, 16 passers, 3 shield and 3 storm files per side.
constexpr int MAX_TUNED_USES = 80;

// What the traced evaluation records. Terms are packed pairs from each colour's own point
// of view, so the total of a term is terms[t][WHITE] - terms[t][BLACK].
struct evalTraceStruct {
    i32 terms[TERM_COUNT][2];
    int phase;             // the position's phase counter, before clamping
    int kingAttackers[2];  // attackers' count against each colour's king
    int kingDanger[2];     // danger units against each colour's king (0 when not computed)
    int whiteScore;        // the final score, White's point of view
    // For a tuner: the score before the initiative (packed, White's view), the complexity
    // that the initiative weighs against it, every use of a tuned table's entry, and for
    // each colour whether its shield sum was halved (no enemy queen).
    i32 beforeInitiative;
    int complexity;
    bool shieldHalved[2];
    int useCount;
    tunedUseStruct uses[MAX_TUNED_USES];
};

// The evaluation of evaluateN through the same code, without the caches, recording every
// term. Returns the score from White's point of view.
int evaluateTraced(const positionStruct* pos, evalTraceStruct* trace);

// The text of the "eval" command: the table of terms, the phase, and as its last line
// "Evaluation: N" with N the score in centipawns from White's point of view.
std::string evalTraceText(const positionStruct* pos);
