// Geometry of the board: attack tables, masks and magic slider lookups.
// Every table here is filled once by initBitboardConstants() before any position is
// read or any thread exists, and is read-only afterwards.
#pragma once

#include "board/types.h"

struct magicStruct {
    bitboard* table;   // first entry of this square's block
    bitboard mask;     // relevant occupancy (rays without their last square)
    u64 magic;
    u8 shift;          // 64 - bits in mask
};

extern bitboard knightAttackTable[64];
extern bitboard kingAttackTable[64];
extern bitboard attackByPawnTable[2][64];   // [c][s]: where c's pawns stand to hit s
extern bitboard enpassantTable[64];         // neighbours of a pawn that just advanced two squares
extern magicStruct rookAttackLUT[64];
extern magicStruct bishopAttackLUT[64];
extern bitboard rookAttackTable[102400];
extern bitboard bishopAttackTable[5248];
extern bitboard rookAttackAll[64];
extern bitboard bishopAttackAll[64];
extern bitboard inBetweenSquares[64][64];
extern bitboard inLineSquares[64][64];
extern u8 distance[64][64];
extern bitboard ranksAtOrAbove[2][64];
extern bitboard isolatedPawns[64];
extern bitboard passedPawnsMask[2][64];
extern bitboard kingSafetyArea[2][64];

constexpr bitboard FILE_A = 0x0101010101010101ULL;
constexpr bitboard RANK_1 = 0xFFULL;
constexpr bitboard fileBB(int f) { return FILE_A << f; }
constexpr bitboard rankBB(int r) { return RANK_1 << (8 * r); }

void initBitboardConstants();

inline bitboard rookAttacks(int sq, bitboard occ) {
    const magicStruct& m = rookAttackLUT[sq];
    return m.table[((occ & m.mask) * m.magic) >> m.shift];
}
inline bitboard bishopAttacks(int sq, bitboard occ) {
    const magicStruct& m = bishopAttackLUT[sq];
    return m.table[((occ & m.mask) * m.magic) >> m.shift];
}
inline bitboard queenAttacks(int sq, bitboard occ) {
    return rookAttacks(sq, occ) | bishopAttacks(sq, occ);
}

// Squares attacked by all pawns of a colour.
inline bitboard pawnAttacksBB(bitboard pawns, int colour) {
    constexpr bitboard notA = ~FILE_A, notH = ~(FILE_A << 7);
    return colour == WHITE ? ((pawns & notA) << 7) | ((pawns & notH) << 9)
                           : ((pawns & notA) >> 9) | ((pawns & notH) >> 7);
}
