#include "tablebase/tbprobe.h"

#include <algorithm>
#include <chrono>

#include "board/bitboards.h"
#include "board/output.h"
#include "board/zobrist.h"
#include "tablebase/tbcore.h"

namespace {

// ---------------------------------------------------------------------------------------
// Move generation and making for tb_pos.

bool attacked(const tb_pos& p, int sq, int by) {
    const bitboard occ = p.colour[0] | p.colour[1], them = p.colour[by];
    return (knightAttackTable[sq] & p.type[KNIGHT] & them)
        || (kingAttackTable[sq] & p.type[KING] & them)
        || (attackByPawnTable[by][sq] & p.type[PAWN] & them)
        || (bishopAttacks(sq, occ) & (p.type[BISHOP] | p.type[QUEEN]) & them)
        || (rookAttacks(sq, occ) & (p.type[ROOK] | p.type[QUEEN]) & them);
}

bitboard pieceAttacks(int type, int sq, bitboard occ) {
    switch (type) {
    case KNIGHT: return knightAttackTable[sq];
    case BISHOP: return bishopAttacks(sq, occ);
    case ROOK: return rookAttacks(sq, occ);
    case QUEEN: return queenAttacks(sq, occ);
    default: return kingAttackTable[sq];
    }
}

tb_move* addPawnMove(tb_move* m, int from, int to, u8 flags) {
    if (rankOf(to) == 0 || rankOf(to) == 7) {
        for (u8 promo : {QUEEN, ROOK, BISHOP, KNIGHT})
            *m++ = tb_move{u8(from), u8(to), promo, flags};
    } else {
        *m++ = tb_move{u8(from), u8(to), 0, flags};
    }
    return m;
}

// Pseudo-legal moves; with capturesOnly just the captures other than en passant, which
// is what the table values are resolved against.
int generateMoves(const tb_pos& p, tb_move* moves, bool capturesOnly) {
    const int us = p.side;
    const bitboard own = p.colour[us], opp = p.colour[us ^ 1], occ = own | opp;
    tb_move* m = moves;
    for (int t = KNIGHT; t <= KING; t++)
        for (bitboard b = p.type[t] & own; b;) {
            int from = popLsb(b);
            bitboard targets = pieceAttacks(t, from, occ) & (capturesOnly ? opp : ~own);
            while (targets) {
                int to = popLsb(targets);
                *m++ = tb_move{u8(from), u8(to), 0, u8((opp & bb(to)) ? TB_CAPTURE : 0)};
            }
        }
    const int up = us == WHITE ? 8 : -8;
    for (bitboard b = p.type[PAWN] & own; b;) {
        int from = popLsb(b);
        for (bitboard caps = pawnAttacksBB(bb(from), us) & opp; caps;)
            m = addPawnMove(m, from, popLsb(caps), TB_CAPTURE | TB_PAWN_MOVE);
        if (capturesOnly)
            continue;
        if (p.ep && (pawnAttacksBB(bb(from), us) & bb(p.ep)))
            *m++ = tb_move{u8(from), u8(p.ep), 0, TB_CAPTURE | TB_EP | TB_PAWN_MOVE};
        int to = from + up;
        if (occ & bb(to))
            continue;
        m = addPawnMove(m, from, to, TB_PAWN_MOVE);
        if (rankOf(from) == (us == WHITE ? 1 : 6) && !(occ & bb(to + up)))
            *m++ = tb_move{u8(from), u8(to + up), 0, TB_PAWN_MOVE | TB_DOUBLE};
    }
    return int(m - moves);
}

int legalOnly(const tb_pos& p, tb_move* moves, int n) {
    int k = 0;
    tb_pos child;
    for (int i = 0; i < n; i++)
        if (tb_do_move(p, moves[i], &child))
            moves[k++] = moves[i];
    return k;
}

void countMaterial(const tb_pos& p, int counts[2][8]) {
    for (int c = 0; c < 2; c++)
        for (int t = PAWN; t <= KING; t++)
            counts[c][t] = popCount(p.colour[c] & p.type[t]);
}

// ---------------------------------------------------------------------------------------
// Table look-up.

// Which stored table a position reads, and how its colours and squares map onto it.
struct orientation {
    int cmirror;    // 8 swaps the file's colours
    int mirror;     // 56 flips the board vertically (pawn tables)
    int bside;      // side to move in the file's colours
};

orientation orient(const tb_entry* e, u64 key, int side, int storedSide) {
    if (e->symmetric) {
        bool flip = side != storedSide;
        return {flip ? TB_BLACK : 0, flip ? 56 : 0, storedSide};
    }
    if (key != e->key)
        return {TB_BLACK, 56, side == WHITE};
    return {0, 0, side == BLACK};
}

// Fills sq[i..] with the squares of the pieces of one kind; returns the next free slot
// or -1 when the position holds none of them.
int fillGroup(const tb_pos& p, int code, int mirror, int* sq, int i, int num) {
    bitboard b = p.colour[code >> 3] & p.type[code & 7];
    if (!b)
        return -1;
    while (b) {
        if (i >= num)
            return -1;
        sq[i++] = popLsb(b) ^ mirror;
    }
    return i;
}

bool fillSquares(const tb_pos& p, const tb_encoding& enc, const orientation& o, int* sq, int i,
                 int num) {
    while (i < num) {
        i = fillGroup(p, enc.pieces[i] ^ o.cmirror, o.mirror, sq, i, num);
        if (i < 0)
            return false;
    }
    return true;
}

const int wdl_to_map[5] = {1, 3, 0, 2, 0};
const u8 pa_flags[5] = {8, 0, 0, 0, 4};
const int wdl_to_dtz[5] = {-1, -101, 0, 101, 1};

int probe_wdl_table(const tb_pos& p, int* success) {
    if (popCount(p.colour[0] | p.colour[1]) == 2)
        return 0;  // bare kings
    int counts[2][8];
    countMaterial(p, counts);
    const u64 key = tb_material_key(counts, false);
    tb_entry* e = tb_lookup(key);
    if (!e || !tb_load_wdl(e)) {
        *success = 0;
        return 0;
    }
    const orientation o = orient(e, key, p.side, WHITE);
    int sq[TB_PIECES];
    const tb_encoding* enc;
    u64 idx;
    if (!e->has_pawns) {
        enc = &e->wdl[0][o.bside];
        if (!fillSquares(p, *enc, {o.cmirror, 0, o.bside}, sq, 0, e->num)) {
            *success = 0;
            return 0;
        }
        idx = encode_piece(*enc, e->enc_type, e->num, sq);
    } else {
        int i = fillGroup(p, e->wdl[0][0].pieces[0] ^ o.cmirror, o.mirror, sq, 0, e->num);
        if (i != e->pawns[0]) {
            *success = 0;
            return 0;
        }
        enc = &e->wdl[pawn_file(e->pawns, sq)][o.bside];
        if (!fillSquares(p, *enc, o, sq, i, e->num)) {
            *success = 0;
            return 0;
        }
        idx = encode_pawn(*enc, e->pawns, e->num, sq);
    }
    int v = decompress_pairs(enc->pairs, idx);
    if (v < 0 || v > 4) {
        *success = 0;
        return 0;
    }
    return v - 2;
}

// The stored DTZ value of p (already scaled to plies), given its WDL. *success becomes
// -1 when the file holds only the other side to move.
int probe_dtz_table(const tb_pos& p, int wdl, int* success) {
    int counts[2][8];
    countMaterial(p, counts);
    const u64 key = tb_material_key(counts, false);
    const tb_entry* e = tb_lookup(key);
    if (!e) {
        *success = 0;
        return 0;
    }
    // The cache may evict and unmap a file, so the whole look-up runs under the lock.
    std::lock_guard<std::mutex> lock(TB_MUTEX);
    const dtz_entry* z = tb_acquire_dtz(e);
    if (!z->ok) {
        *success = 0;
        return 0;
    }
    const orientation o = orient(e, key, p.side, z->enc[0].pairs.flags & 1);
    int sq[TB_PIECES];
    int f = 0;
    u64 idx;
    if (!e->has_pawns) {
        if ((z->enc[0].pairs.flags & 1) != o.bside) {
            *success = -1;
            return 0;
        }
        if (!fillSquares(p, z->enc[0], {o.cmirror, 0, o.bside}, sq, 0, e->num)) {
            *success = 0;
            return 0;
        }
        idx = encode_piece(z->enc[0], e->enc_type, e->num, sq);
    } else {
        int i = fillGroup(p, z->enc[0].pieces[0] ^ o.cmirror, o.mirror, sq, 0, e->num);
        if (i != e->pawns[0]) {
            *success = 0;
            return 0;
        }
        f = pawn_file(e->pawns, sq);
        if ((z->enc[f].pairs.flags & 1) != o.bside) {
            *success = -1;
            return 0;
        }
        if (!fillSquares(p, z->enc[f], o, sq, i, e->num)) {
            *success = 0;
            return 0;
        }
        idx = encode_pawn(z->enc[f], e->pawns, e->num, sq);
    }
    const pairs_data& d = z->enc[f].pairs;
    int res = decompress_pairs(d, idx);
    if (res < 0) {
        *success = 0;
        return 0;
    }
    if (d.flags & 2) {
        int m = wdl_to_map[wdl + 2];
        if (res >= z->map_len[f][m]) {
            *success = 0;
            return 0;
        }
        res = z->maps[z->map_idx[f][m] + u32(res)];
    }
    if (!(d.flags & pa_flags[wdl + 2]) || (wdl & 1))
        res *= 2;
    return res;
}

// WDL resolved over the captures (en passant aside): the stored value may stand for any
// result no better than the best capture. *success becomes 2 when a winning capture is
// at least as good as the stored value.
int probe_ab(const tb_pos& p, int alpha, int beta, int* success) {
    tb_move moves[TB_MAX_MOVES];
    const int n = generateMoves(p, moves, true);
    tb_pos child;
    for (int i = 0; i < n; i++) {
        if (!tb_do_move(p, moves[i], &child))
            continue;
        int v = -probe_ab(child, -beta, -alpha, success);
        if (*success == 0)
            return 0;
        if (v > alpha) {
            if (v >= beta) {
                *success = 2;
                return v;
            }
            alpha = v;
        }
    }
    int v = probe_wdl_table(p, success);
    if (*success == 0)
        return 0;
    if (alpha >= v) {
        *success = 1 + (alpha > 0);
        return alpha;
    }
    *success = 1;
    return v;
}

// probe_ab for a child that may carry an en-passant right after a double step.
int childWdl(const tb_pos& child, int alpha, int beta, int* success) {
    if (!child.ep)
        return probe_ab(child, alpha, beta, success);
    int v = probe_wdl(child, success);
    return std::clamp(v, alpha, beta);
}

bool hasNonEpMove(const tb_move* moves, int n) {
    for (int i = 0; i < n; i++)
        if (!(moves[i].flags & TB_EP))
            return true;
    return false;
}

// The best result of the legal en-passant captures, -3 when there is none.
int bestEpCapture(const tb_pos& p, const tb_move* moves, int n, int* success) {
    int best = -3;
    tb_pos child;
    for (int i = 0; i < n; i++) {
        if (!(moves[i].flags & TB_EP) || !tb_do_move(p, moves[i], &child))
            continue;
        int v = -probe_ab(child, -2, 2, success);
        if (*success == 0)
            return 0;
        best = std::max(best, v);
    }
    return best;
}

int probe_dtz_no_ep(const tb_pos& p, int* success) {
    const int wdl = probe_ab(p, -2, 2, success);
    if (*success == 0 || wdl == 0)
        return 0;
    if (*success == 2)
        return wdl == 2 ? 1 : 101;

    tb_move moves[TB_MAX_MOVES];
    const int n = legalOnly(p, moves, generateMoves(p, moves, false));
    tb_pos child;
    if (wdl > 0) {
        // A pawn step that keeps the win zeroes the counter at once.
        for (int i = 0; i < n; i++) {
            if ((moves[i].flags & (TB_PAWN_MOVE | TB_CAPTURE)) != TB_PAWN_MOVE)
                continue;
            tb_do_move(p, moves[i], &child);
            int v = -childWdl(child, -2, -wdl + 1, success);
            if (*success == 0)
                return 0;
            if (v == wdl)
                return wdl == 2 ? 1 : 101;
        }
    }

    int dtz = 1 + probe_dtz_table(p, wdl, success);
    if (*success >= 0) {
        if (wdl & 1)
            dtz += 100;
        return wdl >= 0 ? dtz : -dtz;
    }

    // The file holds the other side to move: one ply of search over the stored side.
    if (wdl > 0) {
        int best = 0xFFFF;
        for (int i = 0; i < n; i++) {
            if (moves[i].flags & (TB_PAWN_MOVE | TB_CAPTURE))
                continue;
            tb_do_move(p, moves[i], &child);
            int v = -probe_dtz(child, success);
            if (*success == 0)
                return 0;
            if (v > 0 && v + 1 < best)
                best = v + 1;
        }
        // No move keeps the win the WDL table promised: the two files disagree.
        if (best == 0xFFFF)
            *success = 0;
        return best == 0xFFFF ? 0 : best;
    }
    int best = -1;
    for (int i = 0; i < n; i++) {
        tb_do_move(p, moves[i], &child);
        int v;
        if (child.rule50 == 0) {
            if (wdl == -2) {
                v = -1;
            } else {
                v = childWdl(child, 1, 2, success);
                v = v == 2 ? 0 : -101;
            }
        } else {
            v = -probe_dtz(child, success) - 1;
        }
        if (*success == 0)
            return 0;
        best = std::min(best, v);
    }
    return best;
}

// Number of a WDL result as a DTZ just before a zeroing move.
int dtzBeforeZeroing(int wdl) { return wdl_to_dtz[wdl + 2]; }

// The engine's ply-0 en-passant field holds the pawn that advanced; we want its target.
int epTarget(int pawnSq, int side) {
    if (!pawnSq)
        return 0;
    return side == WHITE ? pawnSq + 8 : pawnSq - 8;
}

bool validPosition(const tb_pos& p) {
    const bitboard occ = p.colour[0] | p.colour[1];
    if (p.colour[0] & p.colour[1])
        return false;
    bitboard all = 0;
    for (int t = PAWN; t <= KING; t++) {
        if (all & p.type[t])
            return false;
        all |= p.type[t];
    }
    if (all != occ)
        return false;
    if (popCount(p.type[KING] & p.colour[WHITE]) != 1
        || popCount(p.type[KING] & p.colour[BLACK]) != 1)
        return false;
    if (p.type[PAWN] & (rankBB(0) | rankBB(7)))
        return false;
    int them = p.side ^ 1;
    return !attacked(p, lsb(p.type[KING] & p.colour[them]), p.side);
}

void copyBoard(const positionStruct* pos, tb_pos* out) {
    out->colour[WHITE] = pos->bitboards[WHITE];
    out->colour[BLACK] = pos->bitboards[BLACK];
    for (int t = PAWN; t <= KING; t++)
        out->type[t] = pos->bitboards[2 * t] | pos->bitboards[2 * t + 1];
    out->rule50 = pos->halfMoveClock;
    out->side = pos->sideToMove;
}

// The tree hands us its position without the ply it stands at, so the en-passant file is
// recovered from the incremental key: it differs from the key of the bare board by
// exactly the en-passant code. Any other difference means castling rights: no probe.
bool epFromKey(const positionStruct* pos, int* ep) {
    u64 key = hashCodeCastling[0];
    for (int code = WPAWN; code <= BKING; code++)
        for (bitboard b = pos->bitboards[code]; b;)
            key ^= hashCodePiece[code][popLsb(b)];
    if (pos->sideToMove == BLACK)
        key ^= hashCodeBlackToMove;
    const u64 diff = key ^ pos->hashKey;
    *ep = 0;
    if (!diff)
        return true;
    for (int f = 0; f < 8; f++)
        if (diff == hashCodeEnpassant[f]) {
            int pawnSq = pos->sideToMove == WHITE ? 32 + f : 24 + f;
            if (pos->board[pawnSq] == WPAWN + (pos->sideToMove ^ 1))
                *ep = epTarget(pawnSq, pos->sideToMove);
            return true;
        }
    return false;
}

moveStruct toEngineMove(const tb_move& m, int side) {
    moveStruct mv{m.from, m.to, MT_NORMAL, 0};
    if (m.promo)
        mv.type = u8(2 * m.promo);
    else if (m.flags & TB_EP) {
        mv.type = MT_ENPASSANT;
        mv.to = u8(side == WHITE ? m.to - 8 : m.to + 8);
    } else if (m.flags & TB_DOUBLE)
        mv.type = MT_DOUBLE;
    return mv;
}

}  // namespace

// ---------------------------------------------------------------------------------------

bool tb_in_check(const tb_pos& p) {
    return attacked(p, lsb(p.type[KING] & p.colour[p.side]), p.side ^ 1);
}

bool tb_do_move(const tb_pos& p, tb_move m, tb_pos* out) {
    *out = p;
    const int us = p.side, them = us ^ 1;
    const bitboard from = bb(m.from), to = bb(m.to);
    int moving = PAWN;
    while (moving < KING && !(p.type[moving] & from))
        moving++;
    if (m.flags & TB_EP) {
        bitboard victim = bb(us == WHITE ? m.to - 8 : m.to + 8);
        out->type[PAWN] &= ~victim;
        out->colour[them] &= ~victim;
    } else if (m.flags & TB_CAPTURE) {
        for (int t = PAWN; t <= KING; t++)
            out->type[t] &= ~to;
        out->colour[them] &= ~to;
    }
    out->colour[us] ^= from | to;
    out->type[moving] ^= from;
    out->type[m.promo ? m.promo : moving] |= to;
    out->rule50 = (m.flags & (TB_CAPTURE | TB_PAWN_MOVE)) ? 0 : p.rule50 + 1;
    out->ep = 0;
    // A right to take en passant that no pawn can use is not recorded.
    if (m.flags & TB_DOUBLE) {
        int target = (m.from + m.to) / 2;
        if (pawnAttacksBB(bb(target), us) & p.type[PAWN] & p.colour[them])
            out->ep = target;
    }
    out->side = them;
    return !attacked(*out, lsb(out->type[KING] & out->colour[us]), them);
}

int tb_legal_moves(const tb_pos& p, tb_move* moves) {
    return legalOnly(p, moves, generateMoves(p, moves, false));
}

bool tb_pos_from_position(const positionStruct* pos, tb_pos* out) {
    copyBoard(pos, out);
    const plyStruct& p0 = pos->plyStack[0];
    out->ep = epTarget(p0.enPassantSquare, pos->sideToMove);
    return p0.castlingRights == 0 && validPosition(*out);
}

int probe_wdl(const tb_pos& p, int* success) {
    *success = 1;
    int v = probe_ab(p, -2, 2, success);
    if (*success == 0)
        return 0;
    if (!p.ep)
        return v;

    // The tables know nothing of en passant: weigh the en-passant captures here.
    tb_move moves[TB_MAX_MOVES];
    const int n = legalOnly(p, moves, generateMoves(p, moves, false));
    const int v1 = bestEpCapture(p, moves, n, success);
    if (*success == 0)
        return 0;
    if (v1 > -3) {
        if (v1 >= v)
            v = v1;
        else if (v == 0 && !hasNonEpMove(moves, n))
            v = v1;  // stalemate but for the en-passant capture
    }
    *success = 1;
    return v;
}

int probe_dtz(const tb_pos& p, int* success) {
    *success = 1;
    int v = probe_dtz_no_ep(p, success);
    if (*success == 0)
        return 0;
    if (!p.ep) {
        *success = 1;
        return v;
    }

    tb_move moves[TB_MAX_MOVES];
    const int n = legalOnly(p, moves, generateMoves(p, moves, false));
    int v1 = bestEpCapture(p, moves, n, success);
    if (*success == 0)
        return 0;
    *success = 1;
    if (v1 == -3)
        return v;
    v1 = wdl_to_dtz[v1 + 2];
    if (v < -100) {
        if (v1 >= 0)
            v = v1;
    } else if (v < 0) {
        if (v1 >= 0 || v1 < -100)
            v = v1;
    } else if (v > 100) {
        if (v1 > 0)
            v = v1;
    } else if (v > 0) {
        if (v1 == 1)
            v = v1;
    } else if (v1 >= 0) {
        v = v1;
    } else if (!hasNonEpMove(moves, n)) {
        v = v1;
    }
    return v;
}

int probeWDLPosition(positionStruct* pos, int* success) {
    *success = 0;
    if (!TB_LARGEST || popCount(pos->occupied()) > TB_LARGEST)
        return 0;
    tb_pos p;
    copyBoard(pos, &p);
    if (!epFromKey(pos, &p.ep))
        return 0;
    int ok;
    int v = probe_wdl(p, &ok);
    if (!ok)
        return 0;
    *success = 1;
    return v;
}

moveStruct syzygyProbeDTZ(int, positionStruct* pos) {
    const auto start = std::chrono::steady_clock::now();
    tb_pos root;
    if (!TB_LARGEST || !tb_pos_from_position(pos, &root))
        return EMPTYMOVE;
    int success;
    const int dtz = probe_dtz(root, &success);
    if (!success)
        return EMPTYMOVE;
    u64 probes = 1;

    // Rate every move by the DTZ it leaves, from our side: positive wins, negative loses.
    tb_move moves[TB_MAX_MOVES];
    int scores[TB_MAX_MOVES];
    const int n = tb_legal_moves(root, moves);
    int drawing = 0;
    tb_pos child;
    for (int i = 0; i < n; i++) {
        tb_do_move(root, moves[i], &child);
        int v;
        tb_move reply[TB_MAX_MOVES];
        if (tb_in_check(child) && tb_legal_moves(child, reply) == 0) {
            v = 1;
        } else if (dtz == 0 || child.rule50 == 0) {
            // A drawn root needs only the results; after a zeroing move the distance
            // restarts, so the result decides too.
            v = dtzBeforeZeroing(-probe_wdl(child, &success));
        } else {
            v = -probe_dtz(child, &success);
            v += v > 0 ? 1 : v < 0 ? -1 : 0;
        }
        probes++;
        if (!success)
            return EMPTYMOVE;
        scores[i] = v;
        drawing += v == 0;
    }

    int chosen = -1;
    if (dtz > 0) {
        for (int i = 0; i < n; i++)
            if (scores[i] > 0 && (chosen < 0 || scores[i] < scores[chosen]))
                chosen = i;
    } else if (dtz < 0) {
        // Resist longest: the most negative rating is the furthest from zeroing.
        for (int i = 0; i < n; i++)
            if (scores[i] < 0 && (chosen < 0 || scores[i] < scores[chosen]))
                chosen = i;
    } else if (drawing > 0) {
        // Fixed for a position, different between positions: the material key seen
        // from the side to move picks one of the drawing moves.
        int counts[2][8];
        countMaterial(root, counts);
        u64 k = tb_material_key(counts, root.side == BLACK) % u64(drawing);
        for (int i = 0; i < n && chosen < 0; i++)
            if (scores[i] == 0 && k-- == 0)
                chosen = i;
    }
    if (chosen < 0)
        return EMPTYMOVE;

    const moveStruct best = toEngineMove(moves[chosen], root.side);
    int score = 0;
    if (dtz > 0 && dtz + root.rule50 <= 100)
        score = MATE_BAND - dtz;
    else if (dtz < 0 && root.rule50 - dtz <= 100)
        score = -MATE_BAND - dtz;
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start).count();
    printLine("info score cp " + std::to_string(score) + " depth 1 seldepth 1 nodes "
              + std::to_string(probes) + " tbhits " + std::to_string(probes) + " time "
              + std::to_string(ms) + " pv " + moveToLA(&best, root.side));
    return best;
}
