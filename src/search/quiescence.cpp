// The quiescence search: past the horizon it plays only captures (every evasion when in
// check) until no capture worth trying is left. Out of check the side to move may decline
// them all, so its static evaluation is the least the node scores (stand pat). It reads
// the transposition table but never writes it, and it neither looks at the clock nor at
// the stop flag: a stopped search finishes its quiescence subtrees and the node search
// above returns.
//
// Below depth -4 only recaptures are searched (captures on the square the last move went
// to), without the exchange filter: the exchange under way is played out, and no new
// one starts that deep. A capture the filter passes over is dropped, not searched later.
#include <algorithm>

#include "board/makemove.h"
#include "board/movegen.h"
#include "search/movepick.h"
#include "search/search.h"
#include "search/searchutil.h"
#include "search/see.h"
#include "search/tt.h"

short quiescence(u8 ply, int depth, short alpha, short beta, positionStruct* pos) {
    // Step 1. Count the node.
    bumpCounter(pos->qNodes);

    // Step 2. Repetition, at every ply including the root.
    if (isRepetition(pos, ply))
        return repetitionScore(pos->qNodes);

    // Step 3. Insufficient material.
    if (insufficientMaterial(pos))
        return 0;

    // Step 4. Mate distance: no line from here beats a mate already found nearer the root.
    int a = std::max<int>(alpha, ply - MATE);
    const int b = std::min<int>(beta, MATE + 1 - ply);
    if (a >= b)
        return short(a);

    // Step 5. Ply limit.
    if (ply >= MAX_PLY)
        return short(evaluateN(0, pos));

    // Step 6. Table probe: any bound cuts, whatever its depth.
    const u64 entry = probeHash(pos->hashKey);
    const int bound = hashBound(entry);
    int ttScore = 0;
    if (bound != BOUND_NONE) {
        ttScore = scoreFromHash(hashScore(entry), ply);
        if ((bound == BOUND_LOWER || bound == BOUND_EXACT) && ttScore >= b)
            return short(ttScore);
        if (bound == BOUND_EXACT || (bound == BOUND_UPPER && ttScore <= a))
            return short(ttScore);
    }

    // Step 7. Stand pat, sharpened by the table bound. In check there is none.
    plyStruct& ps = pos->plyStack[ply];
    const bool inCheck = ps.inCheck;
    int best = ply - MATE;
    if (!inCheck) {
        int eval = evaluateN(0, pos);
        if ((bound == BOUND_LOWER && ttScore > eval) || (bound == BOUND_UPPER && ttScore < eval))
            eval = ttScore;
        if (eval >= b)
            return short(eval);
        best = eval;
        a = std::max(a, eval);
    }

    // Step 8. Moves: evasions in check, else captures and capture-promotions.
    moveStruct* const first = ps.moveListBegin;
    if (inCheck)
        generateMovesEvade(ply, first, pos);
    else
        generateMovesCaptures(ply, first, pos);
    moveStruct* const end = ps.moveListEnd;
    for (moveStruct* m = first; m < end; m++)   // their table entries load meanwhile
        prefetchHash(keyAfter(pos, ply, *m));

    // Step 9. Best-first by the ordering byte; near the horizon captures that lose
    // material by the exchange (every x-ray of both sides counted) are dropped. An empty
    // list returns the stand pat (or mated).
    const bool exchangeFilter = !inCheck && depth >= QS_SEE_MIN_DEPTH && depth <= 0;
    const bool recapturesOnly = !inCheck && depth < QS_SEE_MIN_DEPTH;
    const int recaptureSquare = ply > 0 ? pos->plyStack[ply - 1].currentMove.to : -1;
    plyStruct& child = pos->plyStack[ply + 1];
    int searched = 0;
    for (moveStruct* cur = first; cur < end; cur++) {
        selectBest(cur, end);
        const moveStruct m = *cur;
        if (recapturesOnly && m.to != recaptureSquare)
            continue;
        if (exchangeFilter && m.type != MT_ENPASSANT && m.type < MT_CASTLE_K
            && seeValue[pos->board[m.to]] < seeValue[pos->board[m.from]] && !seeAtLeastFull(pos, m, 0))
            continue;
        // Step 10. Legality: captures are pseudo-legal; evasions are legal except for a
        // pinned en passant.
        if ((!inCheck || m.type == MT_ENPASSANT) && !isLegal(pos, ply, m))
            continue;

        // Step 11. Search the move: the first with the full window, the others with a
        // null window first and again with the full one when they land inside it.
        ps.currentMove = m;
        makeMove(pos, ply, m);
        child.inCheck = inCheckNow(pos);
        int score;
        if (searched == 0) {
            score = -quiescence(u8(ply + 1), depth - 1, short(-b), short(-a), pos);
        } else {
            score = -quiescence(u8(ply + 1), depth - 1, short(-a - 1), short(-a), pos);
            if (score > a && score < b)
                score = -quiescence(u8(ply + 1), depth - 1, short(-b), short(-a), pos);
        }
        takeBack(pos, ply, m);
        searched++;

        // Step 12. The best score so far; one at beta or above ends the node.
        if (score > best) {
            best = score;
            if (score > a) {
                if (score >= b)
                    return short(score);
                a = score;
            }
        }
    }
    return short(best);
}
