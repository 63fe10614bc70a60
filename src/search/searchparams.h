// The tunables of the tree search, kept together. Everything here is constant.
//
// The ProbCut return, the threat ordering of quiet moves and the recaptures-only deep
// quiescence were kept as one change: +10.4 +- 7.8 Elo over 4,000 games at 2+0.02
// (at 5+0.05: -2.3 +- 18.5 over 600). Each comment below gives the change alone.
#pragma once

#include <array>

#include "board/types.h"

// Reverse futility: a static score this far above beta at this depth ends the node.
constexpr int futility[8] = {0, 65, 130, 195, 260, 325, 390, 455};
constexpr int FUTILITY_MAX_DEPTH = 6;

// Razoring: below alpha by more than this, a quiescence search decides. [improving][depth]
constexpr int razor[2][4] = {{0, 90, 140, 200}, {0, 120, 190, 240}};
constexpr int RAZOR_MAX_DEPTH = 3;

// Late-move pruning: quiet moves searched at most before the rest are skipped.
// [improving][depth]
constexpr u8 LMP[2][8] = {{1, 2, 3, 5, 7, 10, 14, 19}, {2, 4, 6, 8, 11, 16, 20, 27}};
constexpr int LMP_MAX_DEPTH = 7;

// Piece values of the static exchange, by piece code (white and black alternate).
constexpr i16 seeValue[14] = {0, 0, 88, 88, 335, 335, 335, 335, 521, 521, 1035, 1035, 10000, 10000};

// Exchange-test pruning of quiet moves: at depth d a move whose exchange loses more
// than QUIET_SEE_MARGIN * d is skipped. Tried: both exchange tests down to depth 8 (bench
// 15943984), against main 12047341: -2.5 +- 14.9 Elo over 992 games, pairs 31, 118, 203, 115,
// 29, LLR -0.25; stopped undecided, stays at 6.
constexpr int QUIET_SEE_MAX_DEPTH = 6;
constexpr int QUIET_SEE_MARGIN = 64;
// Candidate, off while 0: at non-PV nodes of depth QUIET_FUTILITY_MIN_DEPTH to _MAX_DEPTH, when
// the estimate plus QUIET_FUTILITY_MARGIN * (depth + 1) is still at or below alpha, every
// quiet move of the quiet stage is late. 100 from depth 1 (bench 12222580): -39.8 +- 32.7 Elo
// over 228 games, pairs 11, 35, 43, 19, 6, LLR -0.55; stopped with the interval below zero.
// Up to depth 3 such a node has passed razoring, so a quiescence search has just found the
// captures reach alpha; perhaps the quiet moves matter most there. 100 from depth 4 (bench
// 12715987): -8.7 +- 28.1 over 280 games, pairs 10, 32, 61, 29, 8, LLR -0.18; stopped undecided.
constexpr int QUIET_FUTILITY_MARGIN = 0;
constexpr int QUIET_FUTILITY_MIN_DEPTH = 4;
constexpr int QUIET_FUTILITY_MAX_DEPTH = 6;
// Candidate, off while 0: at non-PV nodes of depth at most HISTORY_PRUNE_MAX_DEPTH, a quiet
// move whose main plus continuation histories sum below -HISTORY_PRUNE_MARGIN * depth is late.
// 4096 (bench 14145962): -8.2 +- 11.8 Elo over 1,602 games, pairs 56, 198, 312, 198, 37, LLR
// -0.96 (+12.3 after the first 508); stopped undecided, leaning against.
constexpr int HISTORY_PRUNE_MARGIN = 0;
constexpr int HISTORY_PRUNE_MAX_DEPTH = 3;
// At non-PV nodes down to the same depth, a losing capture whose exchange loses more than
// CAPTURE_SEE_MARGIN * d is skipped too. Kept with the two reduction and pruning changes
// noted below; see there for its effect.
constexpr int CAPTURE_SEE_MARGIN = 100;

// Null move: R = NULL_BASE + depth / NULL_DEPTH_DIV + min(NULL_EVAL_MAX, (e - beta) / NULL_EVAL_DIV).
constexpr int NULL_MIN_DEPTH = 4;
constexpr int NULL_BASE = 3;
constexpr int NULL_DEPTH_DIV = 4;
constexpr int NULL_EVAL_DIV = 90;
constexpr int NULL_EVAL_MAX = 3;

// ProbCut: a capture that beats beta by this margin in a reduced search ends the node.
// Returning the verified score less the margin: +3.5 +- 16.3 Elo over 800 games.
constexpr int PROBCUT_MIN_DEPTH = 5;
constexpr int PROBCUT_MARGIN = 110;
constexpr int PROBCUT_REDUCTION = 3;

// Internal iterative deepening without a hash move.
constexpr int IID_MIN_DEPTH = 8;
constexpr int IID_REDUCTION = 6;
constexpr int IID_MARGIN = 100;

// Late-move reductions apply from this depth on.
constexpr int LMR_MIN_DEPTH = 3;

// Late-move reduction in plies by [depth][move number]: none for the first three moves,
// one for the fourth at any depth, then floor(sqrt(depth * (number - 2) / 9)).
constexpr int LMR_DEPTHS = 128;
constexpr int LMR_MOVES = 256;
constexpr std::array<std::array<u8, LMR_MOVES>, LMR_DEPTHS> makeLmrTable() {
    std::array<std::array<u8, LMR_MOVES>, LMR_DEPTHS> t{};
    for (int r = 0; r < LMR_DEPTHS; r++) {
        int root = 0;  // n grows with c: the root only climbs (few steps for a compiler's limit)
        for (int c = 0; c < LMR_MOVES; c++) {
            const int n = (r * (c - 2)) / 9;
            while ((root + 1) * (root + 1) <= n)
                root++;
            t[r][c] = u8(c < 3 ? 0 : c == 3 ? 1 : root);
        }
    }
    return t;
}
inline constexpr auto LMR = makeLmrTable();

// Kept, and no longer switches: late-move and exchange pruning of quiets left out at PV
// nodes, quiet moves reduced one ply more when the hash move is a capture, and
// CAPTURE_SEE_MARGIN = 100 above, together (bench 13726223 -> 13313914): +8.6 +- 5.5
// Elo over 6,896 games at 2+0.02 against the search without them, pairs 157, 799, 1400,
// 901, 191; SPRT [0, 5] passed (LLR 2.94). Alone, before that run: +9.3 +- 10.1 (1,940
// games), +8.6 +- 15.9 (764) and +10.1 +- 19.2 (618).
//
// Kept: one ply less reduction per LMR_HISTORY_DIV of the move's main plus continuation
// histories (one more per LMR_HISTORY_DIV below zero), at most LMR_HISTORY_MAX either way,
// on top of the all-negative step; and killers and the counter move reduced a ply less.
// Together (bench 13313914 -> 12047341), against the search with the three above: +12.3
// +- 6.7 Elo over 4,342 games at 2+0.02, pairs 97, 447, 942, 575, 110; SPRT [0, 5] passed
// (LLR 2.96). Alone, with the three above off: +3.1 +- 14.5 (1,002 games, 8192) and
// +5.8 +- 18.9 (600). Tried since: 6144 (bench 13810950), against main 12047341: +2.7
// +- 13.7 over 1,276 games, then -3.1 +- 11.7 over 1,780 more; together -0.7 +- 8.9 over
// 3,056, pairs 107, 376, 560, 386, 99, LLR -0.44; stopped undecided, stays at 8192.
// Rejected: losing captures reduced like quiets (bench 13836656), -35.6 +- 22.8 over 402
// games (LLR -0.93; stopped, below zero by more than its error). Rejected too: quiet checks
// reduced, a ply less than other quiets (bench 13369876), -39.8 +- 26.1 over 342 games, pairs
// 12, 63, 56, 32, 8 (LLR -0.84; stopped, the whole interval below zero).
constexpr int LMR_HISTORY_DIV = 8192;
constexpr int LMR_HISTORY_MAX = 2;
//
// Candidates below are off until a match keeps them, each measured at 2+0.02 against the
// main of its time (SPRT [0, 5], Elo with its 95% error).
// Candidate: a quiet move (from the history-sorted stage) taking a piece off a square
// attacked by a cheaper enemy piece to one that is not is reduced a ply less (bench then
// 12578513). Against the main before the history and refutation step: +13.1 +- 14.2 over
// 874 games, pairs 14, 90, 200, 115, 18, LLR 0.68. Against main with them (bench 13971855):
// -11.1 +- 19.5 over 566 games, pairs 16, 77, 115, 59, 16, LLR -0.44. Both undecided.
constexpr bool LMR_THREAT_ESCAPE_LESS = false;
// Candidate, off while 0: quiet moves at an expected cut node (a zero-window node whose
// parent expects it to fail high) are reduced this many plies more. 1 (bench 12869536),
// against main with the three above on: +1.9 +- 12.9 over 1,124 games, LLR 0.02. Again
// against main with the history and refutation steps (bench 12794530): -4.6 +- 10.7 over
// 1,890 games, pairs 57, 236, 374, 231, 47, LLR -0.72; stopped undecided, leaning against.
// Both runs: -2.2 +- 8.3 over 3,014, so a few Elo at most either way; off.
constexpr int LMR_CUT_NODE_MORE = 0;
// Candidate, off: a pawn move (it captures nothing here) is reduced a ply less. On (bench
// 17122667), against main 12047341: -6.5 +- 10.5 Elo over 1,984 games, pairs 59, 258, 384,
// 243, 48, LLR -0.98; stopped undecided, leaning against, off.
constexpr bool LMR_PAWN_LESS = false;

// Quiet move ordering: history bonus for a piece escaping an attack by a cheaper enemy
// piece, and malus for one walking into it, by piece kind (pawn and king: none).
// +2.7 +- 11.6 Elo over 1,800 games at 2+0.02.
constexpr int QUIET_THREAT_BONUS[KING + 1] = {0, 0, 8192, 8192, 12288, 16384, 0};
// Weight of the main history against each continuation history (weight 1) in the quiet
// order. Tried: 2 (bench 11589029), against main with the history and refutation steps:
// +1.6 +- 10.3 over 1,996 games, pairs 57, 232, 401, 261, 47, LLR -0.01 (+7.7 after the
// first 1,528, then -18.6 over the next 468); stopped undecided, stays at 1.
constexpr int QUIET_MAIN_HIST_WEIGHT = 1;
// Candidate, off while 1: weight of the two continuation histories together in the quiet
// order, the main history keeping weight 1. 2 (bench 11969682), against main 12047341: -0.2
// +- 11.1 Elo over 1,830 games, pairs 59, 214, 367, 219, 56, LLR -0.21 (+6.7 after the first
// 774); stopped undecided, stays at 1. Neither weighting moves the engine measurably.
constexpr int QUIET_CONT_HIST_WEIGHT = 1;
// Candidate, off while 0: a quiet move that checks the enemy king directly from its
// destination is moved up the quiet order by this much. 8192 (bench 14715077), against main
// 12047341: +0.4 +- 10.9 Elo over 1,932 games, pairs 62, 234, 365, 250, 55, LLR -0.16 (+14.3
// after the first 194); stopped undecided, off. Such checks are never pruned or reduced;
// moved up, perhaps they only use up the late-move allowance sooner.
constexpr int QUIET_CHECK_BONUS = 0;

// Quiet moves remembered per node for the history penalty of a cut-off.
constexpr int MAX_QUIETS_TRIED = 64;

// A move whose two continuation-history scores both exceed this is extended by a ply.
constexpr int CONT_HIST_EXTENSION = 4096;

// Singular extension. At depth SINGULAR_MIN_DEPTH or more, a hash move whose lower bound
// was stored at most SINGULAR_TT_DEPTH plies shallower is tested: the other moves are
// searched at half depth against sBeta = table score - SINGULAR_MARGIN * depth. All of
// them failing low extends the hash move by a ply; sBeta at or above beta ends the node
// with sBeta (multi-cut); else a table score at or above beta reduces it by a ply.
// Measured at 5+0.05 against the search without it: +24.9 +- 13.2 Elo over 1,006 games
// (SPRT [0, 10] passed, LLR 2.98); at 2+0.02, where the table rarely holds an entry deep
// enough, it was -10 +- 21.
constexpr int SINGULAR_MIN_DEPTH = 8;
constexpr int SINGULAR_TT_DEPTH = 3;
constexpr int SINGULAR_MARGIN = 2;
// Candidate, off while 0: at a non-PV node, a hash move whose alternatives all fail more
// than this below sBeta is extended by two plies, at most DOUBLE_EXT_MAX times on one line.
// (At PV nodes too, 20 grew bench from 12047341 to 20351782.) 20 (bench 12975964) at
// 5+0.05 against main: +0.0 +- 15.4 Elo over 762 games, pairs 15, 92, 164, 98, 12, LLR
// -0.08 (+12.2 after 370 games); stopped undecided, off.
constexpr int DOUBLE_EXT_MARGIN = 0;
constexpr int DOUBLE_EXT_MAX = 6;
// Candidate, off: at PV nodes a capture on the square where the last move captured is
// extended by a ply. On (bench 15887795), at 5+0.05 against main: -18.4 +- 22.7 Elo over 360
// games, pairs 9, 51, 74, 42, 4, LLR -0.47; stopped undecided, leaning against.
constexpr bool RECAPTURE_EXTENSION = false;
// Candidate, off: a pawn moving to its seventh rank is extended by a ply. On (bench
// 12371228), at 5+0.05 against main: -6.1 +- 26.3 Elo over 226 games, pairs 3, 28, 55, 24, 3,
// LLR -0.12; stopped undecided.
constexpr bool PAWN_SEVENTH_EXTENSION = false;

// There is no check extension (a checking move with SEE >= 0 extended by a ply): it grew
// fixed-depth trees elevenfold and scored below zero at both clocks, -35.8 +- 20.3 Elo at
// 2+0.02 (SPRT failed) and -8.7 +- 12.0 over 1,312 games at 5+0.05 (LLR -2.03 for [0, 10]).

// History bonus of a cut-off at depth d: HISTORY_SCALE * min(d * d, HISTORY_MAX_DEPTH_SQ);
// the tables are only updated up to HISTORY_MAX_DEPTH. HISTORY_GRAVITY bounds the entries.
constexpr int HISTORY_SCALE = 32;
constexpr int HISTORY_MAX_DEPTH_SQ = 324;
constexpr int HISTORY_MAX_DEPTH = 18;
constexpr int HISTORY_GRAVITY = 8192;

// Quiescence applies the exchange filter between these depths (0 at its entry); below
// them it searches recaptures only (+3.8 +- 6.3 Elo over 5,600 games at 2+0.02).
constexpr int QS_SEE_MIN_DEPTH = -4;

// Entry tests shared by both searches: no pawns and both material sums at most this.
constexpr int INSUFFICIENT_MATERIAL = 377;
constexpr int TB_WIN = MATE_BAND;        // a tablebase win at ply p scores TB_WIN - p
constexpr int TB_DEPTH = 127;            // stored depth of tablebase results
constexpr int CHECK_EVAL = -32767;       // static evaluation placeholder in check

// The iterative deepening of each thread (src/engine/rootsearch.cpp).
//
// Aspiration windows, one row per thread (thread number mod 32). From depth 6 an iteration
// opens at the previous score +- column 0. Fail k (k = 1..4) on one side moves that bound
// column k past the returned score (a fail low also pulls beta to the window's middle, a
// fail high re-searches a ply shallower); fail 5 opens that side to mate. Row 0, all that
// a single thread uses, is 15, 35, 40, 80, 160, and row 2 repeats it. Fourteen rows are
// 35, 40, 80, 160 and a fifth step of 12 to 48; the rest open anywhere from 9 to 66.
// Row 31's last step is 0: its 4th failure re-searches with the bound on the returned
// score. The unevenness is on purpose: it puts the helpers' bounds in different places,
// so one bad guess does not make every thread fail the same way.
// clang-format off
constexpr i16 aspMatrix[32][5] = {
    {15, 35, 40, 80, 160}, {9, 24, 34, 75, 113}, {15, 35, 40, 80, 160}, {54, 69, 79, 195, 15},
    {35, 40, 80, 160, 15}, {35, 40, 80, 160, 12}, {27, 37, 83, 117, 51}, {66, 76, 187, 169, 15},
    {35, 40, 80, 160, 15}, {35, 40, 80, 160, 15}, {35, 40, 80, 160, 48}, {63, 73, 179, 165, 15},
    {30, 40, 91, 121, 18}, {33, 43, 99, 125, 15}, {35, 40, 80, 160, 45}, {60, 70, 171, 161, 21},
    {36, 46, 107, 129, 15}, {35, 40, 80, 160, 15}, {35, 40, 80, 160, 42}, {57, 67, 163, 157, 15},
    {35, 40, 80, 160, 15}, {35, 40, 80, 160, 24}, {39, 49, 115, 133, 39}, {54, 64, 155, 153, 27},
    {42, 52, 123, 137, 15}, {35, 40, 80, 160, 15}, {35, 40, 80, 160, 36}, {51, 61, 147, 149, 15},
    {35, 40, 80, 160, 30}, {45, 55, 131, 141, 15}, {35, 40, 80, 160, 33}, {48, 58, 139, 145, 0},
};
// Helper threads skip depths by these, indexed by thread number mod 16.
constexpr int skipSize[16] = {1, 2, 2, 3, 3, 3, 4, 4, 6, 3, 2, 2, 4, 5, 3, 2};
constexpr int skipPhase[16] = {0, 1, 0, 1, 1, 0, 0, 2, 1, 0, 1, 1, 2, 1, 1, 0};
// clang-format on
