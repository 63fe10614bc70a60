// Making and taking back moves in place. These are the only copies of the sequence: the
// node search, quiescence, perft, the line reader and the command loop all use them.
// Everything that cannot be recomputed cheaply is saved in the next ply's record.
#pragma once

#include "board/bitboards.h"
#include "board/position.h"
#include "board/zobrist.h"
#include "eval/weights.h"

namespace moveDetail {

inline i32 psq(int idx, int sq, int colour) {
    return pieceSquareScore[idx * 64 + (colour == WHITE ? sq ^ 56 : sq)];
}

// Rights kept after a move touches a square: a king or rook leaving, or a rook captured.
constexpr u8 castlingKeep(int sq) {
    return sq == 4 ? u8(~(WK_CASTLE | WQ_CASTLE)) : sq == 60 ? u8(~(BK_CASTLE | BQ_CASTLE))
         : sq == 7 ? u8(~WK_CASTLE) : sq == 0 ? u8(~WQ_CASTLE)
         : sq == 63 ? u8(~BK_CASTLE) : sq == 56 ? u8(~BQ_CASTLE) : u8(0xFF);
}

inline void movePiece(positionStruct* pos, int pc, int from, int to) {
    bitboard fromTo = bb(from) | bb(to);
    pos->bitboards[pc] ^= fromTo;
    pos->bitboards[pc & 1] ^= fromTo;
    pos->board[from] = 0;
    pos->board[to] = u8(pc);
}

inline void togglePiece(positionStruct* pos, int pc, int sq) {
    pos->bitboards[pc] ^= bb(sq);
    pos->bitboards[pc & 1] ^= bb(sq);
}

}  // namespace moveDetail

// The key after m for ordinary moves and captures, computed without making it: the table
// entry of the child can then be fetched while the move is made. Castling, promotions,
// en passant, double steps and lost castling rights give a different key, which costs
// only a wasted prefetch.
inline u64 keyAfter(const positionStruct* pos, int ply, moveStruct m) {
    const int piece = pos->board[m.from], captured = pos->board[m.to];
    u64 key = pos->hashKey ^ hashCodeBlackToMove ^ hashCodePiece[piece][m.from]
            ^ hashCodePiece[piece][m.to] ^ hashCodePiece[captured][m.to];
    if (const int ep = pos->plyStack[ply].enPassantSquare)
        key ^= hashCodeEnpassant[fileOf(ep)];
    return key;
}

// Makes move m found at ply `ply`; the next ply's record receives the undo information.
inline void makeMove(positionStruct* pos, int ply, moveStruct m) {
    using namespace moveDetail;
    plyStruct& cur = pos->plyStack[ply];
    plyStruct& nxt = pos->plyStack[ply + 1];
    const int us = pos->sideToMove, them = us ^ 1;
    const int from = m.from, to = m.to, type = m.type;
    const int piece = pos->board[from], pi = piece / 2 - 1;
    const int captured = pos->board[to];

    nxt.capturedPiece = u8(captured);
    nxt.savedMaterial[0] = pos->material[0];
    nxt.savedMaterial[1] = pos->material[1];
    nxt.savedPsqScore[0] = pos->psqScore[0];
    nxt.savedPsqScore[1] = pos->psqScore[1];
    nxt.savedPhase = pos->phase;
    nxt.savedHashKey = pos->hashKey;
    nxt.savedPawnKey = pos->pawnKey;
    nxt.savedHalfMoveClock = pos->halfMoveClock;

    u64 key = pos->hashKey, pawnKey = pos->pawnKey;
    if (captured) {
        int ci = captured / 2 - 1;
        pos->material[them] -= pieceValue[ci];
        pos->psqScore[them] -= psq(ci, to, them);
        if (ci)
            pos->phase -= u16(pieceValuePhase[ci]);
        togglePiece(pos, captured, to);
        key ^= hashCodePiece[captured][to];
        if (ci == 0)
            pawnKey ^= hashCodePiece[captured][to];
    }

    nxt.enPassantSquare = 0;
    u8 rights = cur.castlingRights;
    u8 newRights = rights & castlingKeep(from) & castlingKeep(to);
    nxt.castlingRights = newRights;
    if (newRights != rights)
        key ^= hashCodeCastling[rights] ^ hashCodeCastling[newRights];
    if (cur.enPassantSquare)
        key ^= hashCodeEnpassant[fileOf(cur.enPassantSquare)];
    key ^= hashCodeBlackToMove;

    switch (type) {
    case MT_NORMAL:
    case MT_DOUBLE:
        pos->psqScore[us] += psq(pi, to, us) - psq(pi, from, us);
        movePiece(pos, piece, from, to);
        key ^= hashCodePiece[piece][from] ^ hashCodePiece[piece][to];
        if (pi == 0 || pi == 5)
            pawnKey ^= hashCodePiece[piece][from] ^ hashCodePiece[piece][to];
        if (type == MT_DOUBLE) {
            // Set after every double step, whether or not an enemy pawn could take: no
            // look at the neighbours on this hot path. A FEN keeps the square only when
            // the capture exists, so the key of such a position read from a FEN differs.
            nxt.enPassantSquare = u8(to);
            key ^= hashCodeEnpassant[fileOf(to)];
        }
        break;
    case MT_ENPASSANT: {
        int dest = us == WHITE ? to + 8 : to - 8;
        pos->psqScore[us] += psq(0, dest, us) - psq(0, from, us);
        movePiece(pos, piece, from, dest);
        pos->board[to] = 0;
        key ^= hashCodePiece[piece][from] ^ hashCodePiece[piece][dest];
        pawnKey ^= hashCodePiece[piece][from] ^ hashCodePiece[piece][dest];
        break;
    }
    case MT_CASTLE_K:
    case MT_CASTLE_Q: {
        int rook = WROOK + us;
        int rFrom = type == MT_CASTLE_K ? from + 3 : from - 4;
        int rTo = type == MT_CASTLE_K ? to - 1 : to + 1;
        pos->psqScore[us] += psq(5, to, us) - psq(5, from, us) - psq(3, rFrom, us) + psq(3, rTo, us);
        movePiece(pos, piece, from, to);
        movePiece(pos, rook, rFrom, rTo);
        key ^= hashCodePiece[piece][from] ^ hashCodePiece[piece][to]
             ^ hashCodePiece[rook][rFrom] ^ hashCodePiece[rook][rTo];
        pawnKey ^= hashCodePiece[piece][from] ^ hashCodePiece[piece][to];
        break;
    }
    default: {  // promotion
        int promoted = us + type, ppi = promoted / 2 - 1;
        pos->material[us] += pieceValue[ppi] - pieceValue[0];
        pos->psqScore[us] += psq(ppi, to, us) - psq(0, from, us);
        pos->phase += u16(pieceValuePhase[ppi]);
        togglePiece(pos, piece, from);
        togglePiece(pos, promoted, to);
        pos->board[from] = 0;
        pos->board[to] = u8(promoted);
        key ^= hashCodePiece[piece][from] ^ hashCodePiece[promoted][to];
        pawnKey ^= hashCodePiece[piece][from];
        break;
    }
    }

    pos->hashKey = key;
    pos->pawnKey = pawnKey;
    pos->keyHistory[pos->gamePly++] = key;
    pos->halfMoveClock = (captured || pi == 0) ? 0 : i16(pos->halfMoveClock + 1);
    pos->sideToMove = u8(them);
}

// Takes back move m made at ply `ply`.
inline void takeBack(positionStruct* pos, int ply, moveStruct m) {
    using namespace moveDetail;
    const plyStruct& nxt = pos->plyStack[ply + 1];
    pos->sideToMove ^= 1;
    const int us = pos->sideToMove;
    const int from = m.from, to = m.to, type = m.type;
    pos->hashKey = nxt.savedHashKey;
    pos->pawnKey = nxt.savedPawnKey;
    pos->gamePly--;
    pos->halfMoveClock = i16(nxt.savedHalfMoveClock);

    switch (type) {
    case MT_NORMAL:
    case MT_DOUBLE:
        movePiece(pos, pos->board[to], to, from);
        break;
    case MT_ENPASSANT:
        movePiece(pos, WPAWN + us, us == WHITE ? to + 8 : to - 8, from);
        break;
    case MT_CASTLE_K:
        movePiece(pos, WKING + us, to, from);
        movePiece(pos, WROOK + us, to - 1, from + 3);
        break;
    case MT_CASTLE_Q:
        movePiece(pos, WKING + us, to, from);
        movePiece(pos, WROOK + us, to + 1, from - 4);
        break;
    default:
        togglePiece(pos, us + type, to);
        togglePiece(pos, WPAWN + us, from);
        pos->board[from] = u8(WPAWN + us);
        pos->board[to] = 0;
        break;
    }
    if (int captured = nxt.capturedPiece) {
        togglePiece(pos, captured, to);
        pos->board[to] = u8(captured);
    }
    pos->material[0] = nxt.savedMaterial[0];
    pos->material[1] = nxt.savedMaterial[1];
    pos->psqScore[0] = nxt.savedPsqScore[0];
    pos->psqScore[1] = nxt.savedPsqScore[1];
    pos->phase = nxt.savedPhase;
}

// Passes the move: the child record starts as a copy of this one (so its move list
// begins where ours does), without an en-passant square. Only the side and the key
// change: the key history and the fifty-move counter stay as they are, so the child's
// entry of the history is missing and no repetition is matched across a null move (the
// positions on either side of it differ in the side to move).
inline void makeNullMove(positionStruct* pos, int ply) {
    plyStruct& cur = pos->plyStack[ply];
    plyStruct& nxt = pos->plyStack[ply + 1];
    nxt = cur;
    nxt.savedHashKey = pos->hashKey;
    nxt.enPassantSquare = 0;
    nxt.inCheck = 0;
    u64 key = pos->hashKey ^ hashCodeBlackToMove;
    if (cur.enPassantSquare)
        key ^= hashCodeEnpassant[fileOf(cur.enPassantSquare)];
    pos->hashKey = key;
    pos->sideToMove ^= 1;
}

inline void takeBackNullMove(positionStruct* pos, int ply) {
    pos->sideToMove ^= 1;
    pos->hashKey = pos->plyStack[ply + 1].savedHashKey;
}
