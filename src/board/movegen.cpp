#include "board/movegen.h"

#include "board/bitboards.h"

namespace {

inline moveStruct* emit(moveStruct* m, int from, int to, int type, int score) {
    *m = moveStruct{u8(from), u8(to), u8(type), u8(score)};
    return m + 1;
}

inline void closeList(u8 ply, moveStruct* end, positionStruct* pos) {
    pos->plyStack[ply].moveListEnd = end;
    pos->plyStack[ply + 1].moveListBegin = end;
}

// Pawn captures of one diagonal. `delta` is to - from; promotions come first.
template <int Us>
inline moveStruct* pawnCaptures(moveStruct* m, bitboard targets, int delta, const positionStruct* pos) {
    constexpr bitboard lastRank = Us == WHITE ? rankBB(7) : rankBB(0);
    for (bitboard t = targets & lastRank; t;) {
        int to = popLsb(t), key = 8 * pos->board[to] - 14;
        for (int type : {MT_PROMO_Q, MT_PROMO_R, MT_PROMO_B, MT_PROMO_N})
            m = emit(m, to - delta, to, type, key);
    }
    for (bitboard t = targets & ~lastRank; t;) {
        int to = popLsb(t);
        m = emit(m, to - delta, to, MT_NORMAL, 8 * pos->board[to] - 2);
    }
    return m;
}

template <int Us>
inline moveStruct* pieceMoves(moveStruct* m, bitboard pieces, bitboard targets, bitboard occ,
                              int kind, int key, const positionStruct* pos, bool capture) {
    while (pieces) {
        int from = popLsb(pieces);
        bitboard att = kind == KNIGHT ? knightAttackTable[from]
                     : kind == BISHOP ? bishopAttacks(from, occ)
                     : kind == ROOK   ? rookAttacks(from, occ)
                     : kind == QUEEN  ? queenAttacks(from, occ)
                                      : kingAttackTable[from];
        for (bitboard t = att & targets; t;) {
            int to = popLsb(t);
            m = emit(m, from, to, MT_NORMAL, capture ? 8 * pos->board[to] + key : 0);
        }
    }
    return m;
}

template <int Us>
bitboard notPinnedMask(const positionStruct* pos) {
    constexpr int Them = Us ^ 1;
    const bitboard* b = pos->bitboards;
    int k = pos->kingSquare(Us);
    bitboard occ = pos->occupied(), blockers = 0;
    bitboard snipers = (bishopAttackAll[k] & (b[WBISHOP + Them] | b[WQUEEN + Them]))
                     | (rookAttackAll[k] & (b[WROOK + Them] | b[WQUEEN + Them]));
    while (snipers) {
        bitboard between = inBetweenSquares[k][popLsb(snipers)] & occ;
        if (between && !moreThanOne(between))
            blockers |= between;
    }
    return ~(blockers & b[Us]);
}

template <int Us>
void genCaptures(u8 ply, moveStruct* m, positionStruct* pos) {
    constexpr int Them = Us ^ 1;
    const bitboard* b = pos->bitboards;
    plyStruct& ps = pos->plyStack[ply];
    bitboard notPinned = ps.notPinned = notPinnedMask<Us>(pos);
    bitboard enemy = b[Them], occ = pos->occupied();
    bitboard pawns = b[WPAWN + Us];
    constexpr bitboard notA = ~FILE_A, notH = ~(FILE_A << 7);

    if constexpr (Us == WHITE) {
        m = pawnCaptures<Us>(m, ((pawns & notH) << 9) & enemy, 9, pos);
        m = pawnCaptures<Us>(m, ((pawns & notA) << 7) & enemy, 7, pos);
    } else {
        m = pawnCaptures<Us>(m, ((pawns & notA) >> 9) & enemy, -9, pos);
        m = pawnCaptures<Us>(m, ((pawns & notH) >> 7) & enemy, -7, pos);
    }
    m = pieceMoves<Us>(m, b[WKNIGHT + Us] & notPinned, enemy, occ, KNIGHT, -4, pos, true);
    m = pieceMoves<Us>(m, b[WBISHOP + Us], enemy, occ, BISHOP, -6, pos, true);
    m = pieceMoves<Us>(m, b[WROOK + Us], enemy, occ, ROOK, -8, pos, true);
    m = pieceMoves<Us>(m, b[WQUEEN + Us], enemy, occ, QUEEN, -10, pos, true);
    if (int ep = ps.enPassantSquare) {
        for (bitboard p = enpassantTable[ep] & pawns; p;)
            m = emit(m, popLsb(p), ep, MT_ENPASSANT, 14);
    }
    m = pieceMoves<Us>(m, b[WKING + Us], enemy, occ, KING, -12, pos, true);
    closeList(ply, m, pos);
}

template <int Us>
void genQuiets(u8 ply, moveStruct* m, positionStruct* pos) {
    const bitboard* b = pos->bitboards;
    const plyStruct& ps = pos->plyStack[ply];
    bitboard occ = pos->occupied(), empty = ~occ;
    bitboard pawns = b[WPAWN + Us];
    constexpr int up = Us == WHITE ? 8 : -8;
    constexpr bitboard lastRank = Us == WHITE ? rankBB(7) : rankBB(0);
    constexpr bitboard thirdRank = Us == WHITE ? rankBB(2) : rankBB(5);
    m->score = 0;

    bitboard single = (Us == WHITE ? pawns << 8 : pawns >> 8) & empty;
    for (bitboard t = single & lastRank; t;) {
        int to = popLsb(t);
        for (int type : {MT_PROMO_Q, MT_PROMO_R, MT_PROMO_B, MT_PROMO_N})
            m = emit(m, to - up, to, type, 0);
    }
    for (bitboard t = single & ~lastRank; t;) {
        int to = popLsb(t);
        m = emit(m, to - up, to, MT_NORMAL, 0);
    }
    bitboard dbl = (Us == WHITE ? (single & thirdRank) << 8 : (single & thirdRank) >> 8) & empty;
    for (bitboard t = dbl; t;) {
        int to = popLsb(t);
        m = emit(m, to - 2 * up, to, MT_DOUBLE, 0);
    }

    if (!ps.inCheck) {
        constexpr int kSide = Us == WHITE ? WK_CASTLE : BK_CASTLE;
        constexpr int qSide = Us == WHITE ? WQ_CASTLE : BQ_CASTLE;
        constexpr int base = Us == WHITE ? 0 : 56;
        int rights = ps.castlingRights;
        if (rights & (kSide | qSide)) {
            if ((rights & kSide) && !(occ & (bb(base + 5) | bb(base + 6)))
                && !squareAttacked(pos, base + 5, Us ^ 1, occ))
                m = emit(m, base + 4, base + 6, MT_CASTLE_K, 0);
            if ((rights & qSide) && !(occ & (bb(base + 1) | bb(base + 2) | bb(base + 3)))
                && !squareAttacked(pos, base + 3, Us ^ 1, occ))
                m = emit(m, base + 4, base + 2, MT_CASTLE_Q, 0);
        }
    }

    m = pieceMoves<Us>(m, b[WKNIGHT + Us] & ps.notPinned, empty, occ, KNIGHT, 0, pos, false);
    m = pieceMoves<Us>(m, b[WBISHOP + Us], empty, occ, BISHOP, 0, pos, false);
    m = pieceMoves<Us>(m, b[WROOK + Us], empty, occ, ROOK, 0, pos, false);
    m = pieceMoves<Us>(m, b[WQUEEN + Us], empty, occ, QUEEN, 0, pos, false);
    m = pieceMoves<Us>(m, b[WKING + Us], empty, occ, KING, 0, pos, false);
    closeList(ply, m, pos);
}

template <int Us>
void genEvasions(u8 ply, moveStruct* m, positionStruct* pos) {
    constexpr int Them = Us ^ 1;
    const bitboard* b = pos->bitboards;
    plyStruct& ps = pos->plyStack[ply];
    int k = pos->kingSquare(Us);
    bitboard occ = pos->occupied();
    bitboard checkers = (bishopAttacks(k, occ) & (b[WBISHOP + Them] | b[WQUEEN + Them]))
                      | (rookAttacks(k, occ) & (b[WROOK + Them] | b[WQUEEN + Them]))
                      | (attackByPawnTable[Them][k] & b[WPAWN + Them])
                      | (knightAttackTable[k] & b[WKNIGHT + Them]);

    // King moves first, with the king taken off so sliders see through it.
    bitboard occNoKing = occ ^ bb(k);
    for (bitboard t = kingAttackTable[k] & ~b[Us]; t;) {
        int to = popLsb(t);
        if (squareAttacked(pos, to, Them, occNoKing))
            continue;
        int cap = pos->board[to];
        int key = !cap ? 202 : (checkers & bb(to)) ? cap - 35 : cap - 36;
        m = emit(m, k, to, MT_NORMAL, key & 0xFF);
    }

    bitboard notPinned = ps.notPinned = notPinnedMask<Us>(pos);
    if (checkers && !moreThanOne(checkers)) {
        int checker = lsb(checkers);
        bitboard block = inBetweenSquares[k][checker];
        bitboard pawns = b[WPAWN + Us] & notPinned;
        constexpr int up = Us == WHITE ? 8 : -8;
        constexpr bitboard lastRank = Us == WHITE ? rankBB(7) : rankBB(0);
        constexpr bitboard thirdRank = Us == WHITE ? rankBB(2) : rankBB(5);

        for (bitboard p = attackByPawnTable[Us][checker] & pawns; p;) {
            int from = popLsb(p);
            if (bb(checker) & lastRank) {
                for (int type : {MT_PROMO_Q, MT_PROMO_R, MT_PROMO_B, MT_PROMO_N})
                    m = emit(m, from, checker, type, 250);
            } else
                m = emit(m, from, checker, MT_NORMAL, 250);
        }
        if (ps.enPassantSquare == checker) {
            for (bitboard p = enpassantTable[checker] & pawns; p;)
                m = emit(m, popLsb(p), checker, MT_ENPASSANT, 250);
        }
        bitboard single = (Us == WHITE ? pawns << 8 : pawns >> 8) & ~occ;
        for (bitboard t = single & block & lastRank; t;) {
            int to = popLsb(t);
            for (int type : {MT_PROMO_Q, MT_PROMO_R, MT_PROMO_B, MT_PROMO_N})
                m = emit(m, to - up, to, type, 210);
        }
        for (bitboard t = single & block & ~lastRank; t;) {
            int to = popLsb(t);
            m = emit(m, to - up, to, MT_NORMAL, 210);
        }
        bitboard dbl = (Us == WHITE ? (single & thirdRank) << 8 : (single & thirdRank) >> 8) & ~occ & block;
        for (bitboard t = dbl; t;) {
            int to = popLsb(t);
            m = emit(m, to - 2 * up, to, MT_DOUBLE, 210);
        }

        constexpr int kinds[4] = {KNIGHT, BISHOP, ROOK, QUEEN};
        for (int i = 0; i < 4; i++) {
            for (bitboard p = b[2 * kinds[i] + Us] & notPinned; p;) {
                int from = popLsb(p);
                bitboard att = kinds[i] == KNIGHT ? knightAttackTable[from]
                             : kinds[i] == BISHOP ? bishopAttacks(from, occ)
                             : kinds[i] == ROOK   ? rookAttacks(from, occ)
                                                  : queenAttacks(from, occ);
                for (bitboard t = att & (checkers | block); t;) {
                    int to = popLsb(t);
                    m = emit(m, from, to, MT_NORMAL, (to == checker ? 236 : 206) - i);
                }
            }
        }
    }
    closeList(ply, m, pos);
}

}  // namespace

bitboard computeNotPinned(const positionStruct* pos) {
    return pos->sideToMove == WHITE ? notPinnedMask<WHITE>(pos) : notPinnedMask<BLACK>(pos);
}

void generateMovesEvade(u8 ply, moveStruct* first, positionStruct* pos) {
    if (pos->sideToMove == WHITE)
        genEvasions<WHITE>(ply, first, pos);
    else
        genEvasions<BLACK>(ply, first, pos);
}

void generateMovesCaptures(u8 ply, moveStruct* first, positionStruct* pos) {
    if (pos->plyStack[ply].inCheck) {
        generateMovesEvade(ply, first, pos);
        pos->plyStack[ply].pickStage = 'c';
        return;
    }
    if (pos->sideToMove == WHITE)
        genCaptures<WHITE>(ply, first, pos);
    else
        genCaptures<BLACK>(ply, first, pos);
}

void generateMovesQuiets(u8 ply, moveStruct* first, positionStruct* pos) {
    if (pos->sideToMove == WHITE)
        genQuiets<WHITE>(ply, first, pos);
    else
        genQuiets<BLACK>(ply, first, pos);
}

bool isLegal(const positionStruct* pos, u8 ply, moveStruct m) {
    const bitboard* b = pos->bitboards;
    int us = pos->sideToMove, them = us ^ 1;
    int piece = pos->board[m.from];
    bitboard occ = pos->occupied();
    if (piece == WKING + us) {
        occ = (occ ^ bb(m.from)) | bb(m.to);
        return !squareAttacked(pos, m.to, them, occ);
    }
    int k = pos->kingSquare(us);
    bitboard diag = b[WBISHOP + them] | b[WQUEEN + them];
    bitboard line = b[WROOK + them] | b[WQUEEN + them];
    if (m.type == MT_ENPASSANT) {
        int dest = us == WHITE ? m.to + 8 : m.to - 8;
        occ = (occ ^ bb(m.from) ^ bb(m.to)) | bb(dest);
        return !(bishopAttacks(k, occ) & diag) && !(rookAttacks(k, occ) & line);
    }
    if (pos->plyStack[ply].notPinned & bb(m.from))
        return true;
    occ = (occ ^ bb(m.from)) | bb(m.to);
    bitboard keep = ~bb(m.to);
    return !(bishopAttacks(k, occ) & diag & keep) && !(rookAttacks(k, occ) & line & keep);
}

namespace {

// Only king moves, en passant and moves of pinned pieces can leave the king attacked; the
// rest are legal by the way they were generated and skip the test.
inline bool passesLegality(const positionStruct* pos, u8 ply, bitboard careful, moveStruct m) {
    return !((bb(m.from) & careful) || m.type == MT_ENPASSANT) || isLegal(pos, ply, m);
}

inline bitboard carefulSquares(const positionStruct* pos, u8 ply) {
    return ~pos->plyStack[ply].notPinned | pos->bitboards[WKING + pos->sideToMove];
}

}  // namespace

moveStruct* filterLegal(const positionStruct* pos, u8 ply, moveStruct* begin, moveStruct* end) {
    const bitboard careful = carefulSquares(pos, ply);
    for (moveStruct* m = begin; m < end;) {
        if (passesLegality(pos, ply, careful, *m))
            m++;
        else
            *m = *--end;
    }
    return end;
}

u64 countLegal(const positionStruct* pos, u8 ply, const moveStruct* begin, const moveStruct* end) {
    const bitboard careful = carefulSquares(pos, ply);
    u64 legal = 0;
    for (const moveStruct* m = begin; m < end; m++)
        legal += passesLegality(pos, ply, careful, *m);
    return legal;
}

void generateMovesLegal(u8 ply, moveStruct* first, positionStruct* pos) {
    generateMovesCaptures(ply, first, pos);
    plyStruct& ps = pos->plyStack[ply];
    if (!ps.inCheck)
        generateMovesQuiets(ply, ps.moveListEnd, pos);
    moveStruct* end = filterLegal(pos, ply, first, ps.moveListEnd);
    ps.moveListEnd = end;
    pos->plyStack[ply + 1].moveListBegin = end;
}
