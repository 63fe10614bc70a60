// The alpha-beta node search.
//
// A principal-variation negamax search with fail-soft scores. Every node runs the same
// numbered steps: counting and the clock, the stop flag, the entry tests (repetition,
// material, mate distance, ply limit), the transposition table, the tablebases, the
// static evaluation and the pruning that rests on it (reverse futility, razoring, null
// move, ProbCut), internal iterative deepening, then the staged move loop with late-move
// pruning, exchange pruning, late-move reductions and the history bookkeeping of
// cut-offs, and finally the table store. The root (ply 0) runs through the same code.
//
// The finer points:
//  - Late-move pruning and exchange pruning look at the moves of the quiet stage
//    (STAGE_QUIETS, 7) at non-PV nodes only, never at a move that gives check, and only
//    once a move has been searched without being mated (pruning everything would fake a
//    stalemate). A quiet move is late once LMP[improving][depth] quiet moves have been
//    searched at this node: the hash move, captures, killers and the counter move searched
//    first do not use up the quiet moves' allowance, and quiet moves skipped by the
//    exchange test do not count. Counting the other stages instead could never grow while
//    the quiet moves are handed out, so nothing would be late. Quiet moves whose exchange
//    loses more than QUIET_SEE_MARGIN per ply of depth are skipped; so are losing captures
//    (stage 8) whose exchange loses more than CAPTURE_SEE_MARGIN per ply.
//  - Late-move reductions: quiet non-promotions after the first move, not when the node
//    is in check or the move gives check; the move number counts every move handed out.
//    When the hash move is a capture, the quiet moves after it are reduced a ply more:
//    the position is sharp, and the quiet alternatives rarely hold. A move the histories
//    rate well is reduced less, one the histories dislike more, and killers and the
//    counter move a ply less: they refuted a sibling and often refute here too.
//  - The continuation-history extension is allowed while ply < 2 * searchDepth, which
//    bounds the length of an extended line.
//  - ProbCut tries only moves whose exchange reaches rbeta - e and returns the verified
//    score less rbeta - beta (a bound at beta, not one at rbeta; mate scores as they
//    are); rbeta is held at the mate score so that it never leaves the 16-bit range.
#include <algorithm>
#include <cstdlib>

#include "board/bitboards.h"
#include "board/makemove.h"
#include "board/movegen.h"
#include "search/movepick.h"
#include "search/search.h"
#include "search/searchlimits.h"
#include "search/searchutil.h"
#include "search/see.h"
#include "search/tt.h"
#include "tablebase/tbprobe.h"

namespace {

inline bool isPromotion(moveStruct m) { return m.type >= MT_PROMO_N && m.type <= MT_PROMO_Q; }

// Searches the child at ply with the window (alpha, beta) seen from this node; a depth of
// 0 or less goes to the quiescence search. Returns the score from this node's view.
inline int searchChild(u8 ply, int depth, int alpha, int beta, positionStruct* pos) {
    return depth > 0 ? -alfabeta(ply, depth, short(-beta), short(-alpha), pos)
                     : -quiescence(ply, 0, short(-beta), short(-alpha), pos);
}

// Gravity update: entries approach +-HISTORY_GRAVITY the more often they move that way.
inline void updateHistory(i16& h, int delta) {
    int v = h;
    v += delta - (std::abs(delta) * v) / HISTORY_GRAVITY;
    h = i16(v);
}

// Base index of the continuation table row of an earlier move (0 when there is none).
inline int contRow(moveStruct prev) {
    return prev.empty() ? -1 : contHistIndex(prev.score, prev.to) * CONT_HIST_SIDE;
}

// The three history tables of the quiet move m: main, by the move of ply - 1, by ply - 2.
inline void updateQuietTables(positionStruct* pos, moveStruct m, int row1, int row2, int delta) {
    const int piece = m.score, idx = contHistIndex(piece, m.to);
    updateHistory(pos->mainHistory[piece][m.to], delta);
    if (row1 >= 0)
        updateHistory(pos->contHist[0][row1 + idx], delta);
    if (row2 >= 0)
        updateHistory(pos->contHist[1][row2 + idx], delta);
}

}  // namespace

short alfabeta(u8 ply, int depth, short alphaIn, short betaIn, positionStruct* pos) {
    if (depth <= 0)
        return quiescence(ply, 0, alphaIn, betaIn, pos);

    // Step 1. Count the node, poll the clock every nodeCheckInterval + 1 nodes.
    bumpCounter(pos->nodes);
    if (ply > pos->selDepth)
        pos->selDepth = ply;
    if (pos->nodeCheckCountdown-- <= 0) {
        pos->nodeCheckCountdown = searchLimits.nodeCheckInterval;
        if (hardTimeUp(searchLimits, searchSignals.pondering.load(std::memory_order_relaxed))) {
            searchSignals.stopSearch.store(true, std::memory_order_relaxed);
            return 0;
        }
    }

    // Step 2. Stopped by this or another thread, "stop" or "quit".
    if (searchStopped())
        return 0;

    // Step 3. Entry tests below the root.
    int alpha = alphaIn, beta = betaIn;
    if (ply > 0) {
        if (isRepetition(pos, ply))
            return repetitionScore(pos->nodes);
        if (insufficientMaterial(pos))
            return 0;
        // The upper bound MATE + 1 - ply lies above the best score reachable from here
        // (a mate on the next move scores MATE - ply - 1): it ends only windows that no
        // line can enter, never a real one.
        alpha = std::max(alpha, ply - MATE);
        beta = std::min(beta, MATE + 1 - ply);
        if (alpha >= beta)
            return short(alpha);
        if (ply >= MAX_PLY)
            return short(evaluateN(0, pos));
    }

    // Step 4. Per-ply set-up.
    plyStruct& ps = pos->plyStack[ply];
    plyStruct& child = pos->plyStack[ply + 1];
    child.nullMoveDisable = ps.nullMoveDisable;
    const int doubles = DOUBLE_EXT_MARGIN && ply ? ps.doubleExtensions : 0;
    if constexpr (DOUBLE_EXT_MARGIN > 0)
        child.doubleExtensions = u8(doubles);
    ps.hashMove = EMPTYMOVE;

    // Step 5. Transposition table: cut-offs only at non-PV nodes below the root. The
    // singular test's search of this ply (a move left out) neither reads nor writes it.
    const bool pvNode = alpha + 1 < beta;
    const bool excluding = !ps.excludedMove.empty();
    const u64 entry = excluding ? 0 : probeHash(pos->hashKey);
    const int bound = hashBound(entry);
    int ttScore = 0;
    if (bound != BOUND_NONE) {
        ttScore = scoreFromHash(hashScore(entry), ply);
        if (!pvNode && ply > 0 && hashDepth(entry) >= depth
            && (bound == BOUND_EXACT || (bound == BOUND_LOWER && ttScore >= beta)
                || (bound == BOUND_UPPER && ttScore <= alpha)))
            return short(ttScore);
    }
    ps.hashMove = moveStruct::unpack(hashMove(entry));
    if (!ps.hashMove.empty())   // usually searched first, after the pruning below
        prefetchHash(keyAfter(pos, ply, ps.hashMove));

    // Step 6. Tablebases, right after a capture or pawn move with no castling left.
    if (ply > 0 && !excluding && TB_LARGEST > 0 && pos->halfMoveClock == 0 && ps.castlingRights == 0) {
        const int pieces = popCount(pos->occupied());
        if (pieces < TB_LARGEST || (pieces == TB_LARGEST && depth >= searchLimits.syzygyProbeDepth)) {
            int success = 0;
            const int wdl = probeWDLPosition(pos, &success);
            if (success && wdl != -3) {
                bumpCounter(pos->tbHits);
                if (wdl == -2) {
                    const int score = ply - TB_WIN;
                    if (score <= alpha) {
                        storeHash(pos->hashKey, 0, score, TB_DEPTH, BOUND_UPPER);
                        return short(score);
                    }
                } else if (wdl == 2) {
                    const int score = TB_WIN - ply;
                    if (score >= beta) {
                        storeHash(pos->hashKey, 0, score, TB_DEPTH, BOUND_LOWER);
                        return short(score);
                    }
                } else {
                    storeHash(pos->hashKey, 0, 0, TB_DEPTH, BOUND_EXACT);
                    return 0;
                }
            }
        }
    }

    // Step 7. Static evaluation, sharpened by the table entry into the estimate e.
    const bool inCheck = ps.inCheck;
    ps.staticEval = CHECK_EVAL;
    bool improving = true;
    int e = 0;
    if (!inCheck) {
        const int eval = evaluateN(0, pos);
        ps.staticEval = i16(eval);
        e = eval;
        if (bound == BOUND_EXACT)
            e = ttScore;
        else if (bound == BOUND_LOWER)
            e = std::max(eval, ttScore);
        else if (bound == BOUND_UPPER)
            e = std::min(eval, ttScore);
        improving = ply < 2 || eval >= pos->plyStack[ply - 2].staticEval;
    }
    if (!inCheck && !excluding) {
        // Step 8. Reverse futility: far enough above beta, the node is not searched.
        if (depth <= FUTILITY_MAX_DEPTH && !pvNode && std::abs(e) < MATE_BAND
            && e >= beta + futility[depth] && hasNonPawnMaterial(pos))
            return short(e);

        if (!pvNode && depth <= RAZOR_MAX_DEPTH) {
            // Step 9. Razoring: hopelessly below alpha, let the captures decide. Shallow
            // non-PV nodes go straight to the move loop.
            if (e + razor[improving][depth] < alpha) {
                const int q = quiescence(ply, 0, short(alpha), short(beta), pos);
                if (q < alpha)
                    return short(q);
            }
        } else {
            // Step 10. Null move. Only our own previous move (two plies back) must not be
            // a null move: a null reply to the opponent's null move is allowed, and the
            // pair searches this very position shallower, a cheap guard against zugzwang.
            if (depth >= NULL_MIN_DEPTH && !pvNode && ps.nullMoveDisable == 0
                && (ply < 2 || !pos->plyStack[ply - 2].currentMove.empty()) && e >= beta
                && hasNonPawnMaterial(pos)) {
                const int R = NULL_BASE + depth / NULL_DEPTH_DIV
                            + std::min(NULL_EVAL_MAX, (e - beta) / NULL_EVAL_DIV);
                ps.currentMove = EMPTYMOVE;
                makeNullMove(pos, ply);
                child.cutNode = !ps.cutNode;
                int score = searchChild(u8(ply + 1), depth - R, beta - 1, beta, pos);
                takeBackNullMove(pos, ply);
                if (score > MATE_BAND)   // no unproven mates
                    score = beta;
                if (score >= beta)
                    return short(score);
            }

            // Step 11. ProbCut: a capture that beats beta by a margin in a quiescence
            // search and then in a reduced search ends the node.
            if (depth >= PROBCUT_MIN_DEPTH && !pvNode && std::abs(e) < MATE_BAND) {
                const int rbeta = std::min(beta + PROBCUT_MARGIN, int(MATE));
                const int needed = rbeta - e;
                generateMovesCaptures(ply, ps.moveListBegin, pos);
                moveStruct* cur = ps.moveListBegin;
                moveStruct* const end = ps.moveListEnd;
                moveStruct hash = ps.hashMove;
                bool tryHash = !hash.empty() && isPseudoLegal(pos, ply, hash) && isLegal(pos, ply, hash);
                while (tryHash || cur < end) {
                    moveStruct m;
                    if (tryHash) {
                        m = hash;
                        tryHash = false;
                    } else {
                        selectBest(cur, end);
                        m = *cur++;
                        if (m.sameAs(hash) || !isLegal(pos, ply, m))
                            continue;
                    }
                    if (!seeAtLeast(pos, m, needed))
                        continue;
                    m.score = pos->board[m.from];
                    ps.currentMove = m;
                    makeMove(pos, ply, m);
                    child.inCheck = inCheckNow(pos);
                    child.cutNode = !ps.cutNode;
                    int score = -quiescence(u8(ply + 1), 0, short(-rbeta), short(-rbeta + 1), pos);
                    if (score >= rbeta)
                        score = searchChild(u8(ply + 1), depth - PROBCUT_REDUCTION, rbeta - 1, rbeta, pos);
                    takeBack(pos, ply, m);
                    if (score >= rbeta)
                        return short(score >= MATE_BAND ? score : score - (rbeta - beta));
                }
            }

            // Step 12. Internal iterative deepening: find a move to try first.
            if (depth >= IID_MIN_DEPTH && ps.hashMove.empty() && (pvNode || e >= beta - IID_MARGIN)) {
                alfabeta(ply, depth - IID_REDUCTION, short(alpha), short(beta), pos);
                ps.hashMove = moveStruct::unpack(hashMove(probeHash(pos->hashKey)));
            }
        }
    }

    // Step 13. Singular test of the hash move: the other moves at half depth against
    // sBeta, below the table's lower bound.
    int singular = 0;   // the hash move's extension: 2, 1, 0 or -1
    if (ply > 0 && !excluding && depth >= SINGULAR_MIN_DEPTH
        && !ps.hashMove.empty() && (bound & BOUND_LOWER) && hashDepth(entry) >= depth - SINGULAR_TT_DEPTH
        && std::abs(ttScore) < MATE_BAND) {
        const moveStruct hash = ps.hashMove;
        const int sBeta = ttScore - SINGULAR_MARGIN * depth;
        ps.excludedMove = hash;
        const int score = alfabeta(ply, (depth - 1) / 2, short(sBeta - 1), short(sBeta), pos);
        ps.excludedMove = EMPTYMOVE;
        ps.hashMove = hash;
        if (searchStopped())
            return 0;
        if (score < sBeta)
            singular = DOUBLE_EXT_MARGIN && !pvNode && score < sBeta - DOUBLE_EXT_MARGIN
                            && doubles < DOUBLE_EXT_MAX ? 2 : 1;
        else if (sBeta >= beta)
            return short(sBeta);
        else if (ttScore >= beta)
            singular = -1;
    }

    // Step 14. The move loop.
    const int alphaStart = alpha;
    int bestScore = -MATE;
    moveStruct bestMove = EMPTYMOVE;
    int searched = 0, moveNumber = 0, quietsSearched = 0;
    moveStruct quietsTried[MAX_QUIETS_TRIED];
    int quietCount = 0;
    const int row1 = ply >= 1 ? contRow(pos->plyStack[ply - 1].currentMove) : -1;
    const int row2 = ply >= 2 ? contRow(pos->plyStack[ply - 2].currentMove) : -1;
    const bool mayExtend = u64(ply) < 2 * pos->searchDepth;
    const bool hashCaptures = !ps.hashMove.empty() && !isQuietMove(pos, ps.hashMove);

    movePickerStruct mp;
    initMovePicker(mp, pos, ply, ps.hashMove);
    for (moveStruct m; !(m = nextMove(mp)).empty();) {
        if (m.sameAs(ps.excludedMove))
            continue;
        const int stage = ps.pickStage;
        const int piece = m.score;
        const bool quiet = isQuietMove(pos, m);
        const bool capturesNothing = pos->board[m.to] == EMPTY;
        moveNumber++;
        const int idx = contHistIndex(piece, m.to);
        const int mainHist = pos->mainHistory[piece][m.to];
        const int cont1 = row1 >= 0 ? pos->contHist[0][row1 + idx] : 0;
        const int cont2 = row2 >= 0 ? pos->contHist[1][row2 + idx] : 0;

        // At non-PV nodes (the root is a PV node), quiet moves late in the list or losing
        // material by exchange are not searched, unless they give check; nor are captures
        // losing much by exchange.
        if (!pvNode && bestScore > -MATE_BAND) {
            bool skip = false;
            if (stage == STAGE_QUIETS) {
                bool late = depth <= LMP_MAX_DEPTH && quietsSearched >= LMP[improving][depth];
                if (QUIET_FUTILITY_MARGIN && depth >= QUIET_FUTILITY_MIN_DEPTH
                    && depth <= QUIET_FUTILITY_MAX_DEPTH && e + QUIET_FUTILITY_MARGIN * (depth + 1) <= alpha)
                    late = true;
                if (HISTORY_PRUNE_MARGIN && depth <= HISTORY_PRUNE_MAX_DEPTH
                    && mainHist + cont1 + cont2 < -HISTORY_PRUNE_MARGIN * depth)
                    late = true;
                skip = late || (depth <= QUIET_SEE_MAX_DEPTH && m.type != MT_ENPASSANT
                                && m.type < MT_CASTLE_K && !seeAtLeast(pos, m, -QUIET_SEE_MARGIN * depth));
            } else if (stage == STAGE_BAD_CAPTURES) {
                skip = depth <= QUIET_SEE_MAX_DEPTH && !seeAtLeast(pos, m, -CAPTURE_SEE_MARGIN * depth);
            }
            if (skip && !givesCheck(pos, m))
                continue;
        }

        prefetchHash(keyAfter(pos, ply, m));   // the child probes first thing

        // A move both continuation histories rate highly is searched a ply deeper; the
        // singular test's verdict on the hash move adds to that.
        int extension = mayExtend && cont1 > CONT_HIST_EXTENSION && cont2 > CONT_HIST_EXTENSION;
        if (RECAPTURE_EXTENSION && pvNode && mayExtend && !capturesNothing && ply > 0
            && pos->plyStack[ply].capturedPiece != EMPTY && m.to == pos->plyStack[ply - 1].currentMove.to)
            extension = 1;
        if (PAWN_SEVENTH_EXTENSION && mayExtend && piece >> 1 == PAWN
            && rankOf(m.to) == ((piece & 1) ? 1 : 6))
            extension = 1;
        if (singular && m.sameAs(ps.hashMove))
            extension = std::clamp(extension + (mayExtend || singular < 0 ? singular : 0), -1,
                                   std::max(singular, 1));
        const int newDepth = depth - 1 + extension;
        if constexpr (DOUBLE_EXT_MARGIN > 0)
            child.doubleExtensions = u8(doubles + (extension > 1));

        ps.currentMove = m;
        makeMove(pos, ply, m);
        child.inCheck = inCheckNow(pos);

        int score;
        if (searched == 0) {
            child.cutNode = !pvNode && !ps.cutNode;
            score = searchChild(u8(ply + 1), newDepth, alpha, beta, pos);
        } else {
            int r = 0;
            if (depth >= LMR_MIN_DEPTH && capturesNothing && !isPromotion(m) && !inCheck
                && !child.inCheck) {
                r = LMR[std::min(depth, LMR_DEPTHS - 1)][std::min(moveNumber, LMR_MOVES - 1)]
                  + (improving ? 0 : 1);
                if (mainHist < 0 && cont1 < 0 && cont2 < 0)
                    r++;
                r -= std::clamp((mainHist + cont1 + cont2) / LMR_HISTORY_DIV, -LMR_HISTORY_MAX,
                                LMR_HISTORY_MAX);
                if (stage >= STAGE_KILLER1 && stage <= STAGE_COUNTER)   // killers, counter move
                    r--;
                if (hashCaptures)
                    r++;
                if (LMR_CUT_NODE_MORE && ps.cutNode && !pvNode)
                    r += LMR_CUT_NODE_MORE;
                if (LMR_PAWN_LESS && piece >> 1 == PAWN)
                    r--;
                if (LMR_THREAT_ESCAPE_LESS && stage == STAGE_QUIETS) {
                    const bitboard threatened = mp.threats.byLesser[piece >> 1];
                    r -= (threatened & bb(m.from)) && !(threatened & bb(m.to));
                }
                r = std::max(r, 0);
                if (r && pvNode)
                    r--;
            }
            child.cutNode = true;
            score = searchChild(u8(ply + 1), newDepth - r, alpha, alpha + 1, pos);
            child.cutNode = !ps.cutNode;
            if (r > 0 && score > alpha)
                score = searchChild(u8(ply + 1), newDepth, alpha, alpha + 1, pos);
            child.cutNode = false;
            if (pvNode && score > alpha && score < beta)
                score = searchChild(u8(ply + 1), newDepth, alpha, beta, pos);
        }
        takeBack(pos, ply, m);
        if (searchStopped()) {
            if (ply == 0)
                ps.currentMove = ps.bestMove;
            return 0;
        }
        searched++;
        quietsSearched += stage == STAGE_QUIETS;

        if (score > bestScore) {
            bestScore = score;
            if (score > alpha) {
                alpha = score;
                bestMove = m;
                ps.bestMove = m;
                if (ply == 0) {
                    pos->bestMoveChanges++;
                    pos->rootDepth = u16(depth);
                    pos->rootDepthComplete = 0;
                }
                if (score >= beta) {
                    if (!excluding)
                        storeHash(pos->hashKey, m.packed(), scoreToHash(score, ply), depth, BOUND_LOWER);
                    // Cut-off bookkeeping for quiet moves.
                    if (!inCheck && quiet) {
                        if (depth <= HISTORY_MAX_DEPTH) {
                            const int bonus = HISTORY_SCALE * std::min(depth * depth, HISTORY_MAX_DEPTH_SQ);
                            updateQuietTables(pos, m, row1, row2, bonus);
                            if (row1 >= 0) {
                                moveStruct prev = pos->plyStack[ply - 1].currentMove;
                                pos->counterMoves[prev.score][prev.to] = m.packed();
                            }
                            if (!mp.hashMove.empty() && !mp.hashMove.sameAs(m) && isQuietMove(pos, mp.hashMove))
                                updateQuietTables(pos, mp.hashMove, row1, row2, -bonus);
                            if (stage != STAGE_HASH)
                                for (int i = 0; i < quietCount; i++)
                                    updateQuietTables(pos, quietsTried[i], row1, row2, -bonus);
                        }
                        if (!m.sameAs(ps.killer1)) {
                            ps.killer2 = ps.killer1;
                            ps.killer1 = m;
                        }
                    }
                    return short(score);
                }
            }
        }
        if (quiet && quietCount < MAX_QUIETS_TRIED)
            quietsTried[quietCount++] = m;
    }
    if (ply == 0)
        ps.currentMove = ps.bestMove;

    // Step 15. End of node: mate or stalemate, the fifty-move rule, the table store.
    if (searched == 0)
        return short(excluding ? alpha : inCheck ? ply - MATE : 0);
    if (pos->halfMoveClock > 99)
        return 0;
    if (excluding)
        return short(bestScore);
    if (bestScore > alphaStart)
        storeHash(pos->hashKey, bestMove.packed(), scoreToHash(bestScore, ply), depth, BOUND_EXACT);
    else
        storeHash(pos->hashKey, ps.hashMove.packed(), scoreToHash(bestScore, ply), depth, BOUND_UPPER);
    return short(bestScore);
}
