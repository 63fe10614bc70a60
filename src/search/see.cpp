#include "search/see.h"

#include "board/bitboards.h"
#include "search/searchparams.h"

namespace {

// Every piece of either colour that attacks sq through the occupancy occ.
bitboard attackersTo(const positionStruct* pos, int sq, bitboard occ) {
    const bitboard* b = pos->bitboards;
    bitboard diag = b[WBISHOP] | b[BBISHOP] | b[WQUEEN] | b[BQUEEN];
    bitboard line = b[WROOK] | b[BROOK] | b[WQUEEN] | b[BQUEEN];
    return ((attackByPawnTable[WHITE][sq] & b[WPAWN]) | (attackByPawnTable[BLACK][sq] & b[BPAWN])
            | (knightAttackTable[sq] & (b[WKNIGHT] | b[BKNIGHT]))
            | (kingAttackTable[sq] & (b[WKING] | b[BKING])) | (bishopAttacks(sq, occ) & diag)
            | (rookAttacks(sq, occ) & line))
         & occ;
}

// The exchange of seeAtLeast. With bothSides, every slider that a capture uncovers
// behind the piece that took joins, of either colour; without, only the capturing side's
// bishops and queens behind a pawn, bishop or queen, and rooks and queens behind a rook.
template <bool bothSides>
bool exchangeAtLeast(const positionStruct* pos, moveStruct m, int threshold) {
    const bitboard* bbs = pos->bitboards;
    const int mover = pos->board[m.from];
    int sq = m.to, captured = pos->board[m.to];
    bitboard occ = pos->occupied() ^ bb(m.from);
    if (m.type == MT_ENPASSANT) {
        // Our `to` is the captured pawn's square; the exchange happens behind it.
        sq = (mover & 1) == WHITE ? m.to + 8 : m.to - 8;
        occ ^= bb(m.to);
    } else {
        occ &= ~bb(m.to);
    }

    int balance = seeValue[captured] - threshold;
    if (balance < 0)
        return false;
    balance -= seeValue[mover];  // as if the mover were taken back at once
    if (balance >= 0)
        return true;

    bitboard attackers = attackersTo(pos, sq, occ);
    int side = (mover & 1) ^ 1;
    bool good = true;
    for (;;) {
        bitboard ours = attackers & bbs[side];
        if (!ours)
            break;
        int code = WPAWN + side;
        while (!(ours & bbs[code]))
            code += 2;
        occ ^= bb(lsb(ours & bbs[code]));
        const int type = code >> 1;
        if constexpr (bothSides) {
            if (type == PAWN || type == BISHOP || type == QUEEN)
                attackers |= bishopAttacks(sq, occ) & (bbs[WBISHOP] | bbs[BBISHOP] | bbs[WQUEEN] | bbs[BQUEEN]);
            if (type == ROOK || type == QUEEN)
                attackers |= rookAttacks(sq, occ) & (bbs[WROOK] | bbs[BROOK] | bbs[WQUEEN] | bbs[BQUEEN]);
        } else if (type == PAWN || type == BISHOP || type == QUEEN) {
            attackers |= bishopAttacks(sq, occ) & (bbs[WBISHOP + side] | bbs[WQUEEN + side]);
        } else if (type == ROOK) {
            attackers |= rookAttacks(sq, occ) & (bbs[WROOK + side] | bbs[WQUEEN + side]);
        }
        attackers &= occ;

        if (type == KING) {
            // The king may only take last: with an enemy attacker left it cannot.
            if (!(attackers & bbs[side ^ 1]))
                good = !good;
            break;
        }
        good = !good;
        if (balance + seeValue[code] < 0)
            break;
        balance = -(balance + seeValue[code]);
        side ^= 1;
    }
    return good;
}

}  // namespace

bool seeAtLeast(const positionStruct* pos, moveStruct m, int threshold) {
    return exchangeAtLeast<false>(pos, m, threshold);
}

bool seeAtLeastFull(const positionStruct* pos, moveStruct m, int threshold) {
    return exchangeAtLeast<true>(pos, m, threshold);
}

bool seeGoodCapture(const positionStruct* pos, moveStruct m) {
    if (m.type == MT_ENPASSANT)
        return true;
    if (seeValue[pos->board[m.to]] >= seeValue[pos->board[m.from]])
        return true;
    return seeAtLeast(pos, m, 0);
}
