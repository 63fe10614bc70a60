// Basic types shared by every subsystem: squares, piece codes, moves and bit tricks.
#pragma once

#include <bit>
#include <cstdint>

#include "platform/portable.h"

using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using u64 = uint64_t;
using i8 = int8_t;
using i16 = int16_t;
using i32 = int32_t;
using i64 = int64_t;
using bitboard = uint64_t;

// Squares run a1 = 0 .. h8 = 63; square ^ 56 mirrors vertically.
constexpr int fileOf(int sq) { return sq & 7; }
constexpr int rankOf(int sq) { return sq >> 3; }
constexpr bitboard bb(int sq) { return 1ULL << sq; }

enum : u8 { WHITE = 0, BLACK = 1 };

// Piece code = 2 * type + colour; codes 0 and 1 double as the colour occupancy indices.
enum : u8 { PAWN = 1, KNIGHT = 2, BISHOP = 3, ROOK = 4, QUEEN = 5, KING = 6 };
enum : u8 {
    EMPTY = 0,
    WPAWN = 2, BPAWN = 3, WKNIGHT = 4, BKNIGHT = 5, WBISHOP = 6, BBISHOP = 7,
    WROOK = 8, BROOK = 9, WQUEEN = 10, BQUEEN = 11, WKING = 12, BKING = 13
};

// Move types stored in moveStruct::type.
enum : u8 {
    MT_NORMAL = 0,
    MT_PROMO_N = 4, MT_PROMO_B = 6, MT_PROMO_R = 8, MT_PROMO_Q = 10,
    MT_ENPASSANT = 12, MT_DOUBLE = 13, MT_CASTLE_K = 14, MT_CASTLE_Q = 15
};

// Castling rights bits.
enum : u8 { WK_CASTLE = 1, BK_CASTLE = 2, WQ_CASTLE = 4, BQ_CASTLE = 8 };

constexpr int MAX_PLY = 127;          // the search never goes deeper
constexpr int PLY_STACK = 165;        // ply records per position
constexpr int KEY_HISTORY = 1024;     // keys of game plus search line
// Move slots shared by all plies of a position: room for the largest possible list at
// every ply, so no search line can overflow it.
constexpr int MOVE_BUFFER = 384 * 165;

// Score constants (side-to-move view).
constexpr int MATE = 32000;
constexpr int MATE_BAND = 31872;      // |score| >= this is a mate score
constexpr int INF_SCORE = 32767;

// One move in four bytes. For en passant `to` holds the captured pawn's square.
// As a little-endian u32 the bytes read from | to << 8 | type << 16 | score << 24;
// the transposition table stores the moving piece in place of the score byte.
struct moveStruct {
    u8 from = 0;
    u8 to = 0;
    u8 type = 0;
    u8 score = 0;

    u32 packed() const { return portable::bitCast<u32>(*this); }
    static moveStruct unpack(u32 v) { return portable::bitCast<moveStruct>(v); }
    bool empty() const { return packed() == 0; }
    // Same move, ignoring the score/piece byte.
    bool sameAs(const moveStruct& m) const { return ((packed() ^ m.packed()) & 0xFFFFFF) == 0; }
};
static_assert(sizeof(moveStruct) == 4);

constexpr moveStruct EMPTYMOVE{};

inline int popCount(bitboard b) { return std::popcount(b); }
inline int lsb(bitboard b) { return std::countr_zero(b); }
inline int msb(bitboard b) { return 63 - std::countl_zero(b); }
inline int popLsb(bitboard& b) {
    int s = std::countr_zero(b);
    b &= b - 1;
    return s;
}
inline bool moreThanOne(bitboard b) { return (b & (b - 1)) != 0; }

// Node counters are bumped by their own search thread and read by the reporting thread
// while the search runs; relaxed atomic access keeps that well defined at no cost (the
// increment is a plain add, as only the owner ever writes).
inline void bumpCounter(u64& c) { portable::storeRelaxed(c, portable::loadRelaxed(c) + 1); }
inline u64 readCounter(u64& c) { return portable::loadRelaxed(c); }

// One step of the splitmix64 generator: fixed pseudo-random constants built at compile time.
constexpr u64 splitMix64(u64& state) {
    state += 0x9E3779B97F4A7C15ULL;
    u64 z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}
