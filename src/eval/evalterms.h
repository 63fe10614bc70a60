// Internal to the evaluation: the board masks of its terms and the two halves that
// evaluate.cpp puts together. Each half exists once, as a template whose Trace variant
// also records its terms.
#pragma once

#include "board/bitboards.h"
#include "eval/evaluate.h"

namespace evalDetail {

constexpr bitboard QUEENSIDE = 0x0F0F0F0F0F0F0F0FULL;    // files a-d
constexpr bitboard KINGSIDE = ~QUEENSIDE;                // files e-h
constexpr bitboard CENTREFILES = 0x3C3C3C3C3C3C3C3CULL;  // files c-f
constexpr bitboard LIGHTSQUARES = 0x55AA55AA55AA55AAULL;

// White: ranks 4-6; Black: ranks 3-5.
constexpr bitboard outpostMask[2] = {0x0000FFFFFF000000ULL, 0x000000FFFFFF0000ULL};
// The ranks on which the enemy's control of the king flank counts: White 1-5, Black 4-8.
constexpr bitboard RANK1TO5BB[2] = {0x000000FFFFFFFFFFULL, 0xFFFFFFFFFF000000ULL};
// Relative ranks 2-4, where a minor behind its own pawn is sheltered.
constexpr bitboard RANK2TO4BB[2] = {0x00000000FFFFFF00ULL, 0x00FFFFFF00000000ULL};
constexpr bitboard RANK3BB[2] = {0x0000000000FF0000ULL, 0x0000FF0000000000ULL};
constexpr bitboard RANK7BB[2] = {0x00FF000000000000ULL, 0x000000000000FF00ULL};
constexpr bitboard RANK1TO2BB[2] = {0x000000000000FFFFULL, 0xFFFF000000000000ULL};

// The files that count as the flank of a king on each file.
constexpr bitboard kingSideFiles[8] = {
    FILE_A * 0x07, FILE_A * 0x0F, FILE_A * 0x0F, FILE_A * 0x3C,
    FILE_A * 0x3C, FILE_A * 0xF0, FILE_A * 0xF0, FILE_A * 0xE0,
};

template <int Us>
constexpr bitboard pawnPush(bitboard b) {
    return Us == WHITE ? b << 8 : b >> 8;
}

// A traced evaluation lists each entry of a tuned table it adds, with its colour.
template <bool Trace>
inline void recordUse(evalTraceStruct* trace, tunedTable table, int colour, int entry) {
    if constexpr (Trace)
        trace->uses[trace->useCount++] = {table, u8(colour), u16(entry)};
}

// Pawn structure and storm, White minus Black; the passed pawns of both colours go to
// *passed. Only called on a pawn-cache miss (always when tracing).
template <bool Trace>
i32 evaluatePawns(const positionStruct* pos, bitboard* passed, evalTraceStruct* trace);

// Everything computed on every call: shield, pieces, mobility, threats, space and king
// danger, White minus Black.
template <bool Trace>
i32 evaluatePieces(const positionStruct* pos, bitboard passed, evalTraceStruct* trace);

}  // namespace evalDetail
