// Every weight of the evaluation, in one place so that a tuning tool can read and
// rewrite them. Packed values are S(mg, eg) pairs. The tables live in weights.cpp; the
// single pairs and scalars below are constexpr so that the hot path folds them.
// All of them are constant: nothing changes a weight while the program runs.
#pragma once

#include "eval/score.h"

// The tables a tuner fits are constant like every other weight, except in the tuning
// tool's own build of the engine code (QUORVANE_TUNING_BUILD), which writes trial values
// into them and measures them with the real evaluation.
#ifdef QUORVANE_TUNING_BUILD
#define TUNED_WEIGHT
#else
#define TUNED_WEIGHT const
#endif

// Indexed by piece index (code / 2 - 1): pawn, knight, bishop, rook, queen, king.
extern const i32 pieceValue[6];
extern const i32 pieceValuePhase[6];
// [piece index * 64 + entry]; entry = square ^ 56 for White, the square for Black,
// so entries 56..63 are a side's own back rank.
extern TUNED_WEIGHT i32 pieceSquareScore[6 * 64];

// Pawn structure, by file a..h.
extern const i32 EVALPAWNISOLATED[8];
extern const i32 EVALPAWNDOUBLED[8];
extern const i32 EVALPAWNBACKHALF[8];
// Pawn structure, by relative rank 0..7.
extern const i32 EVALPAWNCONNECTED[8];
extern const i32 EVALPAWNNEIGHBOUR[8];
extern const i32 EVALPAWNPASSEDDISTOWN[8];    // per square of own king distance to the stop square
extern const i32 EVALPAWNPASSEDDISTOTHER[8];  // per square of enemy king distance to it
// [1 when the pawn's attackers are no more than its supporters][relative rank]
extern const i32 EVALPAWNPASSEDCANDIDATE[2][8];
// Passed pawns and the king's pawn shield, indexed like pieceSquareScore.
extern TUNED_WEIGHT i32 EVALPAWNPASSED[64];
extern TUNED_WEIGHT i32 EVALPAWNSHIELD[64];
// Enemy pawns in front of the king: [kind * 64 + file * 8 + rank distance], kind = 1 when
// an own pawn blocks the nearest enemy pawn, plus 2 when both kings share a flank.
extern TUNED_WEIGHT i32 EVALPAWNSTORM[4 * 8 * 8];

// Pieces: [0 or 1 by the outpost rule below].
extern const i32 EVALOUTPOSTKNIGHT[2];
extern const i32 EVALOUTPOSTBISHOP[2];
extern const i32 EVALROOKONOPEN[2];  // [0] semi-open file, [1] open file
extern const i32 EVALSPACE2[20];     // per space square, by own piece count
extern const i32 EVALMOBILITYKNIGHT[9];
extern const i32 EVALMOBILITYBISHOP[14];
extern const i32 EVALMOBILITYROOK[15];
extern const i32 EVALMOBILITYQUEEN[28];
// Pinned and discovered-check pieces, knight, bishop, rook, queen.
extern const i32 EVALPINNED[4];            // pinned, no enemy pawn attacks it
extern const i32 EVALPINNEDPAWNATTACK[4];  // pinned and attacked by an enemy pawn
extern const i32 EVALDISCOVERED[4];        // blocks an own slider aimed at the enemy king

// Which knight or bishop on an outpost square earns the second EVALOUTPOST* entry. The
// tuner measures each rule against the game results; the engine uses the one they prefer.
enum outpostRuleKind : int {
    OUTPOST_PAWN_DEFENDED,      // an own pawn defends the square
    OUTPOST_NOT_TRADEABLE,      // defended, and no enemy knight or same-coloured bishop
    OUTPOST_ADVANCED,           // on the relative 5th or 6th rank
    OUTPOST_DEFENDED_ADVANCED,  // defended and on the relative 5th or 6th rank
    OUTPOST_DEFENDED_CENTRE,    // defended and on files c-f
    OUTPOST_RULE_COUNT
};
constexpr int OUTPOST_RULE = OUTPOST_PAWN_DEFENDED;  // the rule in use
#ifdef QUORVANE_TUNING_BUILD
extern int outpostRule;  // starts as OUTPOST_RULE; the tuner tries the others
#else
constexpr int outpostRule = OUTPOST_RULE;
#endif

// Phase: counter values at and beyond which the score is pure middlegame / endgame.
constexpr int EVALPHASEMAX = 6232;
constexpr int EVALPHASEMIN = 499;

// Small pawn-structure adjustments on the three files around the own king.
constexpr i32 EVALPAWNISOLATEDSTORM = S(-6, 2);
constexpr i32 EVALPAWNDOUBLEDSTORM = S(9, -2);
constexpr i32 EVALPAWNBACKWARDSTORM = S(-2, 6);

// Piece placement.
constexpr i32 EVALMINORKINGDISTANCE = S(-3, 0);    // per square between a minor and its king
constexpr i32 EVALBISHOPBLOCKEDPAWN = S(-4, -12);  // per own blocked pawn on the bishop's colour
constexpr i32 EVALROOKONSEVENTH = S(-8, 10);
constexpr i32 EVALQUEENONSEVENTH = S(-13, 21);
constexpr i32 EVALPAWNPUSH = S(-1, 6);  // per safe pawn push

// Threats.
constexpr i32 EVALDEFENDEDONCE = S(16, 13);  // attacked piece that is defended exactly once
constexpr i32 EVALWEAKPAWN = S(-2, -28);
constexpr i32 EVALMINORBYPAWN = S(-55, -13);
constexpr i32 EVALMINORBYMINOR = S(-24, -19);
constexpr i32 EVALMINORBYMAJOR = S(-19, -43);  // on a weak square
constexpr i32 EVALROOKBYMINOR = S(-48, -4);    // attacked by a pawn, knight or bishop
constexpr i32 EVALQUEENATTACKED = S(-53, -14);
constexpr i32 EVALPAWNPUSHTHREAT = S(-6, -13);
constexpr i32 EVALMINORBEHINDPAWN = S(8, 3);
constexpr i32 EVALPASSEDSTOPCONTROL = S(0, 10);
constexpr i32 EVALPAWNLESSFLANK = S(4, -28);

// King danger, in danger units; the penalty is d * d / EVALKDMGDIVISOR, d / EVALKDEGDIVISOR.
constexpr int EVALKDATTACKERWEIGHT[4] = {15, 15, 15, 5};  // knight, bishop, rook, queen
constexpr int EVALKDFLANK = 16;
constexpr int EVALKDADJACENT = 40;
constexpr int EVALKDWEAK = 73;
constexpr int EVALKDUNSAFECHECK = 105;
constexpr int EVALKDQUEENCHECK = 320;
constexpr int EVALKDROOKCHECK = 420;
constexpr int EVALKDBISHOPCHECK = 195;
constexpr int EVALKDKNIGHTCHECK = 390;
constexpr int EVALKDNOQUEEN = -620;
constexpr int EVALKDOFFSET = -292;
constexpr int EVALKDPINNED = 20;
constexpr int EVALKDMGDIVISOR = 4140;
constexpr int EVALKDEGDIVISOR = 11;

// Initiative: endgame correction by the pawn count and spread.
constexpr int EVALINITIATIVEPAWN = 6;
constexpr int EVALINITIATIVEBOTHFLANKS = -44;
constexpr int EVALINITIATIVEONEFLANK = -70;
constexpr int EVALINITIATIVEPAWNENDING = 59;

constexpr i32 EVALTEMPO = S(25, 17);
