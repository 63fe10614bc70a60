// Zobrist keys. The tables are copied out of one fixed set of 800 constants at start-up
// by initHashCodeTables() and are read-only afterwards.
#pragma once

#include "board/types.h"

extern u64 hashCodePiece[14][64];     // rows 2..13 used
extern u64 hashCodeCastling[16];      // by the whole castling-rights value
extern u64 hashCodeEnpassant[8];      // by file of the en-passant square
extern u64 hashCodeBlackToMove;

void initHashCodeTables();
