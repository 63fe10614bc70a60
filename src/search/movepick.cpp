#include "search/movepick.h"

#include <utility>

#include "board/bitboards.h"
#include "board/makemove.h"
#include "board/movegen.h"
#include "search/search.h"
#include "search/searchparams.h"
#include "search/see.h"

namespace {

constexpr int MAX_LIST = 384;   // longest list a generator can write

// The row of continuation table back - 1 chosen by the move made `back` plies above ply;
// null when there is none (the root's parents, a null move).
const i16* contHistRow(const positionStruct* pos, int ply, int back) {
    if (ply < back)
        return nullptr;
    const moveStruct prev = pos->plyStack[ply - back].currentMove;
    if (prev.empty())
        return nullptr;
    return pos->contHist[back - 1] + contHistIndex(prev.score, prev.to) * CONT_HIST_SIDE;
}

inline int contHistoryOf(const i16* row1, const i16* row2, int piece, int to) {
    const int idx = contHistIndex(piece, to);
    return (row1 ? row1[idx] : 0) + (row2 ? row2[idx] : 0);
}

bool isPromotionType(int type) {
    return type == MT_PROMO_N || type == MT_PROMO_B || type == MT_PROMO_R || type == MT_PROMO_Q;
}

bool castlingPlayable(const positionStruct* pos, u8 ply, moveStruct m, int us) {
    const plyStruct& ps = pos->plyStack[ply];
    const int base = us == WHITE ? 0 : 56;
    const bitboard occ = pos->occupied();
    if (ps.inCheck || m.from != base + 4)
        return false;
    if (m.type == MT_CASTLE_K) {
        return m.to == base + 6 && (ps.castlingRights & (us == WHITE ? WK_CASTLE : BK_CASTLE))
            && !(occ & (bb(base + 5) | bb(base + 6))) && pos->board[base + 7] == WROOK + us
            && !squareAttacked(pos, base + 5, us ^ 1, occ);
    }
    return m.to == base + 2 && (ps.castlingRights & (us == WHITE ? WQ_CASTLE : BQ_CASTLE))
        && !(occ & (bb(base + 1) | bb(base + 2) | bb(base + 3))) && pos->board[base] == WROOK + us
        && !squareAttacked(pos, base + 3, us ^ 1, occ);
}

// Hands out a move with the moving piece's code in its score byte.
inline moveStruct withPiece(const positionStruct* pos, moveStruct m) {
    m.score = pos->board[m.from];
    return m;
}

threatMap enemyThreats(const positionStruct* pos) {
    const int them = pos->sideToMove ^ 1;
    const bitboard occ = pos->occupied();
    threatMap t{};
    const bitboard byPawn = pawnAttacksBB(pos->pieces(WPAWN + them), them);
    bitboard byMinor = byPawn;
    for (bitboard b = pos->pieces(WKNIGHT + them); b;)
        byMinor |= knightAttackTable[popLsb(b)];
    for (bitboard b = pos->pieces(WBISHOP + them); b;)
        byMinor |= bishopAttacks(popLsb(b), occ);
    bitboard byRook = byMinor;
    for (bitboard b = pos->pieces(WROOK + them); b;)
        byRook |= rookAttacks(popLsb(b), occ);
    t.byLesser[KNIGHT] = t.byLesser[BISHOP] = byPawn;
    t.byLesser[ROOK] = byMinor;
    t.byLesser[QUEEN] = byRook;
    return t;
}

// Generates the quiet moves behind the captures and sorts them by history, best first.
// A piece that leaves a square attacked by a cheaper enemy piece for a safe one is moved
// up by its kind's bonus; one that steps onto such a square from a safe one, down by it.
void generateQuietsSorted(movePickerStruct& mp) {
    positionStruct* pos = mp.pos;
    plyStruct& ps = pos->plyStack[mp.ply];
    generateMovesQuiets(mp.ply, mp.capturesEnd, pos);
    moveStruct* first = mp.capturesEnd;
    const int count = int(ps.moveListEnd - first);
    int keys[MAX_LIST];
    const i16* row1 = contHistRow(pos, mp.ply, 1);
    const i16* row2 = contHistRow(pos, mp.ply, 2);
    mp.threats = enemyThreats(pos);
    const threatMap& threats = mp.threats;
    // Squares from which each kind of piece would check the enemy king (directly).
    bitboard checking[KING + 1] = {};
    if constexpr (QUIET_CHECK_BONUS != 0) {
        const int us = pos->sideToMove, ksq = pos->kingSquare(us ^ 1);
        const bitboard occ = pos->occupied();
        checking[PAWN] = attackByPawnTable[us][ksq];
        checking[KNIGHT] = knightAttackTable[ksq];
        checking[BISHOP] = bishopAttacks(ksq, occ);
        checking[ROOK] = rookAttacks(ksq, occ);
        checking[QUEEN] = checking[BISHOP] | checking[ROOK];
    }
    for (int i = 0; i < count; i++) {
        moveStruct m = first[i];
        const int piece = pos->board[m.from];
        int key = QUIET_MAIN_HIST_WEIGHT * pos->mainHistory[piece][m.to]
                + QUIET_CONT_HIST_WEIGHT * contHistoryOf(row1, row2, piece, m.to);
        const bitboard threatened = threats.byLesser[piece >> 1];
        const bool fromThreatened = threatened & bb(m.from), toThreatened = threatened & bb(m.to);
        if (fromThreatened != toThreatened)
            key += fromThreatened ? QUIET_THREAT_BONUS[piece >> 1] : -QUIET_THREAT_BONUS[piece >> 1];
        if (checking[piece >> 1] & bb(m.to))
            key += QUIET_CHECK_BONUS;
        int j = i;
        for (; j > 0 && keys[j - 1] < key; j--) {
            keys[j] = keys[j - 1];
            first[j] = first[j - 1];
        }
        keys[j] = key;
        first[j] = m;
    }
    ps.quietsBegin = first;
    ps.movePick = first;
}

// A killer or counter move is handed out when it is still a quiet move of this position
// and was not handed out before.
bool usableRefutation(const movePickerStruct& mp, moveStruct m) {
    const positionStruct* pos = mp.pos;
    return !m.empty() && !m.sameAs(mp.hashMove) && pos->board[m.to] == EMPTY
        && m.type != MT_ENPASSANT && isPseudoLegal(pos, mp.ply, m) && isLegal(pos, mp.ply, m);
}

bool alreadyHandedOut(const movePickerStruct& mp, moveStruct m) {
    return m.sameAs(mp.hashMove) || m.sameAs(mp.killer1) || m.sameAs(mp.killer2)
        || m.sameAs(mp.counterMove);
}

}  // namespace

bool isPseudoLegal(const positionStruct* pos, u8 ply, moveStruct m) {
    const int us = pos->sideToMove, them = us ^ 1;
    const int from = m.from, to = m.to;
    if (from > 63 || to > 63 || from == to)
        return false;
    const int piece = pos->board[from];
    if (piece < WPAWN || (piece & 1) != us || m.score != piece)
        return false;
    const int target = pos->board[to];
    if (target && ((target & 1) == us || target >= WKING))
        return false;

    const int type = piece >> 1;
    if (type == PAWN) {
        const int up = us == WHITE ? 8 : -8;
        const int rank = us == WHITE ? rankOf(from) : 7 - rankOf(from);
        if (rank < 1 || rank > 6)
            return false;
        if (m.type == MT_ENPASSANT)
            return pos->plyStack[ply].enPassantSquare == to && (enpassantTable[to] & bb(from))
                && target == WPAWN + them && pos->board[to + up] == EMPTY;
        if (m.type == MT_DOUBLE)
            return rank == 1 && to == from + 2 * up && !pos->board[from + up] && !target;
        if (m.type != MT_NORMAL && !isPromotionType(m.type))
            return false;
        if ((rank == 6) != isPromotionType(m.type))
            return false;
        if (to == from + up)
            return !target;
        return target && (attackByPawnTable[us][to] & bb(from));
    }
    if (type == KING && (m.type == MT_CASTLE_K || m.type == MT_CASTLE_Q))
        return castlingPlayable(pos, ply, m, us);
    if (m.type != MT_NORMAL)
        return false;
    const bitboard occ = pos->occupied();
    const bitboard att = type == KNIGHT ? knightAttackTable[from]
                       : type == BISHOP ? bishopAttacks(from, occ)
                       : type == ROOK   ? rookAttacks(from, occ)
                       : type == QUEEN  ? queenAttacks(from, occ)
                                        : kingAttackTable[from];
    return (att & bb(to)) != 0;
}

bool isPlayableMove(positionStruct* pos, u8 ply, moveStruct m) {
    if (!isPseudoLegal(pos, ply, m))
        return false;
    const int us = pos->sideToMove;
    makeMove(pos, ply, m);
    bool legal = !squareAttacked(pos, pos->kingSquare(us), us ^ 1, pos->occupied());
    takeBack(pos, ply, m);
    return legal;
}

bool givesCheck(const positionStruct* pos, moveStruct m) {
    const bitboard* b = pos->bitboards;
    const int us = pos->sideToMove, them = us ^ 1;
    const int ksq = pos->kingSquare(them);
    int type = pos->board[m.from] >> 1;
    int dest = m.to;
    bitboard occ = pos->occupied() ^ bb(m.from);
    if (m.type == MT_ENPASSANT) {
        dest = us == WHITE ? m.to + 8 : m.to - 8;
        occ ^= bb(m.to);
    } else if (isPromotionType(m.type)) {
        type = m.type / 2;
    } else if (m.type == MT_CASTLE_K || m.type == MT_CASTLE_Q) {
        const int rFrom = m.type == MT_CASTLE_K ? m.from + 3 : m.from - 4;
        const int rTo = m.type == MT_CASTLE_K ? m.to - 1 : m.to + 1;
        occ = (occ ^ bb(rFrom)) | bb(m.to) | bb(rTo);
        return (rookAttacks(rTo, occ) & bb(ksq)) != 0;
    }
    occ |= bb(dest);

    bitboard direct = 0;
    switch (type) {
    case PAWN: direct = attackByPawnTable[us][ksq] & bb(dest); break;
    case KNIGHT: direct = knightAttackTable[dest] & bb(ksq); break;
    case BISHOP: direct = bishopAttacks(dest, occ) & bb(ksq); break;
    case ROOK: direct = rookAttacks(dest, occ) & bb(ksq); break;
    case QUEEN: direct = queenAttacks(dest, occ) & bb(ksq); break;
    default: break;
    }
    if (direct)
        return true;
    // A slider of ours uncovered by the move.
    const bitboard stay = ~bb(m.from);
    return ((bishopAttacks(ksq, occ) & (b[WBISHOP + us] | b[WQUEEN + us]) & stay)
            | (rookAttacks(ksq, occ) & (b[WROOK + us] | b[WQUEEN + us]) & stay))
        != 0;
}

int quietHistory(const positionStruct* pos, u8 ply, moveStruct m, int piece) {
    return pos->mainHistory[piece][m.to]
         + contHistoryOf(contHistRow(pos, ply, 1), contHistRow(pos, ply, 2), piece, m.to);
}

void initMovePicker(movePickerStruct& mp, positionStruct* pos, u8 ply, moveStruct hashMove) {
    plyStruct& ps = pos->plyStack[ply];
    mp.pos = pos;
    mp.ply = ply;
    mp.inCheck = ps.inCheck;
    mp.hashMove = EMPTYMOVE;
    mp.killer1 = ps.killer1;
    mp.killer2 = ps.killer2;
    mp.counterMove = EMPTYMOVE;
    if (ply >= 1) {
        moveStruct prev = pos->plyStack[ply - 1].currentMove;
        if (!prev.empty())
            mp.counterMove = moveStruct::unpack(pos->counterMoves[prev.score][prev.to]);
    }
    ps.pickStage = STAGE_START;
    // Until a list is generated, a child searched from here (the hash move) writes its
    // moves where ours will go; a stale end left by an earlier node could point anywhere.
    ps.moveListEnd = ps.moveListBegin;
    pos->plyStack[ply + 1].moveListBegin = ps.moveListBegin;
    if (!hashMove.empty() && !mp.inCheck) {
        // Pins are needed before any generator has computed them.
        ps.notPinned = computeNotPinned(pos);
        if (isPseudoLegal(pos, ply, hashMove) && isLegal(pos, ply, hashMove))
            mp.hashMove = hashMove;
    } else if (mp.inCheck && hashMove.from < 64 && hashMove.score == pos->board[hashMove.from]) {
        mp.hashMove = hashMove;   // checked against the evasion list instead
    }
}

moveStruct nextMove(movePickerStruct& mp) {
    positionStruct* pos = mp.pos;
    const u8 ply = mp.ply;
    plyStruct& ps = pos->plyStack[ply];

    switch (ps.pickStage) {
    case STAGE_START:
        if (mp.inCheck) {
            generateMovesCaptures(ply, ps.moveListBegin, pos);   // evasions, stage 99
            ps.movePick = ps.moveListBegin;
            moveStruct hash = mp.hashMove;
            mp.hashMove = EMPTYMOVE;
            if (!hash.empty()) {
                for (moveStruct* m = ps.movePick; m < ps.moveListEnd; m++) {
                    if (m->sameAs(hash)) {
                        std::swap(*m, *ps.movePick);
                        mp.hashMove = withPiece(pos, *ps.movePick++);
                        ps.pickStage = STAGE_HASH;
                        return withPiece(pos, mp.hashMove);
                    }
                }
            }
            ps.pickStage = STAGE_EVASIONS;
            return nextMove(mp);
        }
        ps.pickStage = STAGE_HASH;
        if (!mp.hashMove.empty())
            return mp.hashMove;
        [[fallthrough]];
    case STAGE_HASH:
        if (mp.inCheck) {
            ps.pickStage = STAGE_EVASIONS;
            return nextMove(mp);
        }
        ps.pickStage = STAGE_GEN_CAPTURES;
        [[fallthrough]];
    case STAGE_GEN_CAPTURES:
        generateMovesCaptures(ply, ps.moveListBegin, pos);
        mp.capturesEnd = ps.moveListEnd;
        ps.movePick = ps.badCapturesEnd = ps.moveListBegin;
        ps.pickStage = STAGE_CAPTURES;
        [[fallthrough]];
    case STAGE_CAPTURES:
        while (ps.movePick < mp.capturesEnd) {
            selectBest(ps.movePick, mp.capturesEnd);
            moveStruct* cur = ps.movePick++;
            moveStruct m = *cur;
            if (m.sameAs(mp.hashMove))
                continue;
            if (!seeGoodCapture(pos, m)) {
                // Park it in front with the mark; the handed-out ones behind it are done.
                cur->score = BAD_CAPTURE_MARK;
                std::swap(*cur, *ps.badCapturesEnd++);
                continue;
            }
            if (isLegal(pos, ply, m))
                return withPiece(pos, m);
        }
        // From here on each refutation slot keeps only a move actually handed out, so that
        // the quiet stage passes over exactly those.
        ps.pickStage = STAGE_KILLER1;
        if (usableRefutation(mp, mp.killer1))
            return mp.killer1;
        mp.killer1 = EMPTYMOVE;
        [[fallthrough]];
    case STAGE_KILLER1:
        ps.pickStage = STAGE_KILLER2;
        if (!mp.killer2.sameAs(mp.killer1) && usableRefutation(mp, mp.killer2))
            return mp.killer2;
        mp.killer2 = EMPTYMOVE;
        [[fallthrough]];
    case STAGE_KILLER2:
        ps.pickStage = STAGE_COUNTER;
        if (!mp.counterMove.sameAs(mp.killer1) && !mp.counterMove.sameAs(mp.killer2)
            && usableRefutation(mp, mp.counterMove))
            return mp.counterMove;
        mp.counterMove = EMPTYMOVE;
        [[fallthrough]];
    case STAGE_COUNTER:
        generateQuietsSorted(mp);
        ps.pickStage = STAGE_QUIETS;
        [[fallthrough]];
    case STAGE_QUIETS:
        while (ps.movePick < ps.moveListEnd) {
            moveStruct m = *ps.movePick++;
            if (!alreadyHandedOut(mp, m) && isLegal(pos, ply, m))
                return withPiece(pos, m);
        }
        ps.movePick = ps.moveListBegin;
        ps.pickStage = STAGE_BAD_CAPTURES;
        [[fallthrough]];
    case STAGE_BAD_CAPTURES:
        while (ps.movePick < ps.badCapturesEnd) {
            moveStruct m = *ps.movePick++;
            if (isLegal(pos, ply, m))
                return withPiece(pos, m);
        }
        return EMPTYMOVE;
    case STAGE_EVASIONS:
        while (ps.movePick < ps.moveListEnd) {
            selectBest(ps.movePick, ps.moveListEnd);
            moveStruct m = *ps.movePick++;
            // The generator leaves only the horizontal pin of en passant to be checked.
            if (m.type != MT_ENPASSANT || isLegal(pos, ply, m))
                return withPiece(pos, m);
        }
        return EMPTYMOVE;
    default:
        return EMPTYMOVE;
    }
}
