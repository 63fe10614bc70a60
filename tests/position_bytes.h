// A position's state as bytes, for before-and-after comparisons in the tests and the fuzz
// harnesses (no GoogleTest here: the harnesses build without it).
#pragma once

#include <string>

#include "board/position.h"

// The board and everything make/take-back keep incrementally. `history` adds the game ply
// and the key history (a FEN read back starts a new one); `ply` >= 0 adds the castling
// rights and en-passant square of that ply record.
inline std::string positionBytes(const positionStruct* p, bool history, int ply = -1) {
    std::string s;
    auto add = [&](const void* at, size_t n) { s.append(static_cast<const char*>(at), n); };
    add(p->board, sizeof p->board);
    add(p->bitboards, sizeof p->bitboards);
    add(&p->hashKey, sizeof p->hashKey);
    add(&p->pawnKey, sizeof p->pawnKey);
    add(p->material, sizeof p->material);
    add(p->psqScore, sizeof p->psqScore);
    add(&p->phase, sizeof p->phase);
    add(&p->sideToMove, sizeof p->sideToMove);
    add(&p->halfMoveClock, sizeof p->halfMoveClock);
    if (history) {
        add(&p->gamePly, sizeof p->gamePly);
        add(p->keyHistory, sizeof(u64) * size_t(p->gamePly));
    }
    if (ply >= 0) {
        add(&p->plyStack[ply].castlingRights, 1);
        add(&p->plyStack[ply].enPassantSquare, 1);
    }
    return s;
}
