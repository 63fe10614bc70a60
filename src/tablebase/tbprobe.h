// Syzygy endgame tablebases: registration, probing and the root adapter.
//
// The probing code works on its own small position record (tb_pos) with its own move
// generator, so that it can make moves freely without touching a search position.
// initBitboardConstants() must have run before any call.
#pragma once

#include <string>

#include "board/position.h"

// Largest piece count (kings included) of any registered table; 0 when none is loaded.
extern int TB_LARGEST;

// (Re)initialises the tablebases from a ':'-separated list of folders; "" or "<empty>"
// means none. Prints "Found %d tablebases." when a path is given.
void init_tablebases(const std::string& path);

// WDL of pos for the side to move, -2 (lost) to 2 (won); *success is 0 on failure.
int probeWDLPosition(positionStruct* pos, int* success);

// The root adapter: a move that keeps the tablebase result, or the empty move when the
// tables cannot decide. Prints one "info" line when it returns a move.
moveStruct syzygyProbeDTZ(int unused, positionStruct* pos);

// The probing code's position: occupancy per colour and per piece type (both colours).
struct tb_pos {
    bitboard colour[2] = {0, 0};
    bitboard type[8] = {};      // indexed PAWN .. KING
    int rule50 = 0;
    int ep = 0;                 // en-passant target square, 0 when none
    int side = WHITE;
};

enum : u8 { TB_CAPTURE = 1, TB_EP = 2, TB_PAWN_MOVE = 4, TB_DOUBLE = 8 };

struct tb_move {
    u8 from = 0, to = 0;
    u8 promo = 0;               // piece type promoted to, 0 for none
    u8 flags = 0;
};

constexpr int TB_MAX_MOVES = 256;

// Builds the probing position from an engine position's ply-0 state. False when the
// position breaks the rules the tables rely on (two kings, disjoint sets, no pawn on a
// back rank, side not to move not in check, no castling right).
bool tb_pos_from_position(const positionStruct* pos, tb_pos* out);

// All legal moves (no castling: positions with castling rights are never probed).
int tb_legal_moves(const tb_pos& p, tb_move* moves);
// Makes m on a copy; false when it leaves the mover's king in check.
bool tb_do_move(const tb_pos& p, tb_move m, tb_pos* out);
bool tb_in_check(const tb_pos& p);

// WDL (-2..2) and DTZ of p, side to move's view; *success is 0 when a table is missing
// or broken. DTZ is 0 for draws and beyond +-100 for wins and losses the fifty-move
// rule turns into draws.
int probe_wdl(const tb_pos& p, int* success);
int probe_dtz(const tb_pos& p, int* success);
