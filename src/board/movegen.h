// Move generators. Each writes moves for the side to move from `first` on, stores its end
// in moveListEnd of the ply and moveListBegin of the next ply, and writes a first
// ordering key into each move's score byte (used directly for captures and evasions).
#pragma once

#include "board/position.h"

// Captures and capture-promotions; in check it produces the evasions instead and sets
// the ply's pickStage to 'c'. Also computes the ply's notPinned mask.
void generateMovesCaptures(u8 ply, moveStruct* first, positionStruct* pos);
// Non-captures and non-capture promotions; only when not in check, after the captures.
void generateMovesQuiets(u8 ply, moveStruct* first, positionStruct* pos);
// All evasions of a check (pseudo-legal; pinned pieces are left out).
void generateMovesEvade(u8 ply, moveStruct* first, positionStruct* pos);
// Every legal move: captures, quiets, then the legality filter.
void generateMovesLegal(u8 ply, moveStruct* first, positionStruct* pos);

// Sets the ply's inCheck byte from the board.
inline void setInCheck(u8 ply, positionStruct* pos) { pos->plyStack[ply].inCheck = inCheckNow(pos); }

// The legality test of a generated move: king moves, en passant and moves of pinned
// pieces are checked, everything else is legal by construction.
bool isLegal(const positionStruct* pos, u8 ply, moveStruct m);

// Removes illegal moves from [begin, end) by swapping in the last one; returns the new end.
moveStruct* filterLegal(const positionStruct* pos, u8 ply, moveStruct* begin, moveStruct* end);
// The number of moves in [begin, end) that pass the legality test; the list is left as is.
u64 countLegal(const positionStruct* pos, u8 ply, const moveStruct* begin, const moveStruct* end);

// Computes the pin mask of the side to move (complement of its pinned pieces).
bitboard computeNotPinned(const positionStruct* pos);
