// The pawn half of the evaluation: structure, passed pawns, candidates and the storm in
// front of each king. Its result depends only on the pawns and the kings, which is what
// the pawn key covers, so evaluate.cpp caches it per thread.
#include <algorithm>

#include "eval/evalterms.h"
#include "eval/weights.h"

namespace evalDetail {

namespace {

// Rank distance from the king to the pawn of `pawns` nearest to it on one file; 7 for none.
template <int Us>
int nearestPawnDistance(bitboard pawns, int king) {
    if (!pawns)
        return 7;
    int sq = Us == WHITE ? lsb(pawns) : msb(pawns);
    return std::abs(rankOf(sq) - rankOf(king));
}

template <int Us, bool Trace>
i32 pawnSide(const positionStruct* pos, bool kingsOnOneFlank, bitboard* passed,
             evalTraceStruct* trace) {
    constexpr int Them = Us ^ 1;
    const bitboard own = pos->bitboards[WPAWN + Us];
    const bitboard enemy = pos->bitboards[WPAWN + Them];
    const int king = pos->kingSquare(Us), enemyKing = pos->kingSquare(Them);
    const int kf = std::clamp(fileOf(king), 1, 6);
    const bitboard stormFiles = fileBB(kf - 1) | fileBB(kf) | fileBB(kf + 1);
    i32 score = 0;

    // Storm: the nearest enemy pawn in front of the king on each of its three files, and
    // whether an own pawn stands right in front of it.
    const bitboard ahead = ranksAtOrAbove[Us][king];
    for (int f = kf - 1; f <= kf + 1; f++) {
        int dE = nearestPawnDistance<Us>(enemy & ahead & fileBB(f), king);
        int dO = nearestPawnDistance<Us>(own & ahead & fileBB(f), king);
        int kind = (dO == dE - 1 && dE != 7 ? 1 : 0) + (kingsOnOneFlank ? 2 : 0);
        score += EVALPAWNSTORM[kind * 64 + f * 8 + dE];
        recordUse<Trace>(trace, TUNED_STORM, Us, kind * 64 + f * 8 + dE);
    }

    for (bitboard b = own; b;) {
        const int s = popLsb(b);
        const int r = Us == WHITE ? rankOf(s) : 7 - rankOf(s);
        const int f = fileOf(s);
        const int stop = Us == WHITE ? s + 8 : s - 8;
        const bitboard stopAttackers = attackByPawnTable[Them][stop] & enemy;
        const bitboard supporters = attackByPawnTable[Us][s] & own;
        const bitboard phalanx = attackByPawnTable[Us][stop] & own;
        const bitboard inFront = passedPawnsMask[Us][s] & enemy;
        const bool onStormFile = stormFiles & bb(s);

        if (!inFront) {
            *passed |= bb(s);
            recordUse<Trace>(trace, TUNED_PASSED, Us, Us == WHITE ? s ^ 56 : s);
            score += EVALPAWNPASSED[Us == WHITE ? s ^ 56 : s]
                     + EVALPAWNPASSEDDISTOWN[r] * distance[king][stop]
                     + EVALPAWNPASSEDDISTOTHER[r] * distance[enemyKing][stop];
        } else {
            // A candidate: the only enemy pawns ahead are those that can take it now or on
            // its stop square, and its neighbours can answer the latter.
            const bitboard attackers = attackByPawnTable[Them][s] & enemy;
            if ((inFront & ~attackers) == stopAttackers
                && popCount(stopAttackers) <= popCount(phalanx))
                score += EVALPAWNPASSEDCANDIDATE[popCount(attackers) <= popCount(supporters)][r];
        }

        if (!(own & isolatedPawns[s])) {
            score += EVALPAWNISOLATED[f];
            if (onStormFile)
                score += EVALPAWNISOLATEDSTORM;
        }
        // Charged to the lower pawn of each pair, so n pawns on a file pay n - 1 times.
        if (own & fileBB(f) & ~((bb(s) << 1) - 1)) {
            score += EVALPAWNDOUBLED[f];
            if (onStormFile)
                score += EVALPAWNDOUBLEDSTORM;
        }
        if (!(own & passedPawnsMask[Them][s]) && stopAttackers) {
            if (onStormFile)
                score += EVALPAWNBACKWARDSTORM;
            if (!(enemy & fileBB(f)))
                score += EVALPAWNBACKHALF[f];
        }
        if (supporters)
            score += EVALPAWNCONNECTED[r];
        if (phalanx)
            score += EVALPAWNNEIGHBOUR[r];
    }
    return score;
}

}  // namespace

template <bool Trace>
i32 evaluatePawns(const positionStruct* pos, bitboard* passed, evalTraceStruct* trace) {
    const bool kingsOnOneFlank =
        !((bb(pos->kingSquare(WHITE)) | bb(pos->kingSquare(BLACK))) & QUEENSIDE)
        || !((bb(pos->kingSquare(WHITE)) | bb(pos->kingSquare(BLACK))) & KINGSIDE);
    *passed = 0;
    const i32 white = pawnSide<WHITE, Trace>(pos, kingsOnOneFlank, passed, trace);
    const i32 black = pawnSide<BLACK, Trace>(pos, kingsOnOneFlank, passed, trace);
    if constexpr (Trace) {
        trace->terms[TERM_PAWNS][WHITE] = white;
        trace->terms[TERM_PAWNS][BLACK] = black;
    }
    return white - black;
}

template i32 evaluatePawns<false>(const positionStruct*, bitboard*, evalTraceStruct*);
template i32 evaluatePawns<true>(const positionStruct*, bitboard*, evalTraceStruct*);

}  // namespace evalDetail
