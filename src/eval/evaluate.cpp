// The frame of the evaluation: the caches, the material accumulators, the initiative,
// the tempo and the phase blend. The pawn and piece halves live in pawns.cpp and
// pieces.cpp; the "eval" command's trace runs through this same code.
#include "eval/evaluate.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "eval/evalterms.h"
#include "eval/weights.h"

using namespace evalDetail;

namespace {

// Pawn terms, from the thread's pawn cache when it holds this pawn key. A trace always
// computes them, so that it can list both colours.
template <bool Trace>
i32 pawnTerms(const positionStruct* pos, bitboard* passed, evalTraceStruct* trace) {
    if (!Trace && pos->pawnCache) {
        pawnCacheEntry& entry = pos->pawnCache[pos->pawnKey & (PAWN_CACHE_SIZE - 1)];
        if (entry.key == pos->pawnKey) {
            *passed = entry.passed;
            return entry.score;
        }
        const i32 score = evaluatePawns<false>(pos, passed, nullptr);
        entry.key = pos->pawnKey;
        entry.passed = *passed;
        entry.score = score;
        return score;
    }
    return evaluatePawns<Trace>(pos, passed, trace);
}

// The endgame correction: pawns and their spread make a lead easier to convert, pawns on
// one flank only make it harder. It shrinks or grows the endgame half, never flips it.
int complexityOf(const positionStruct* pos) {
    const bitboard pawns = pos->bitboards[WPAWN] | pos->bitboards[BPAWN];
    const bitboard kings = pos->bitboards[WKING] | pos->bitboards[BKING];
    const bool bothFlanks = (pawns & QUEENSIDE) && (pawns & KINGSIDE);
    return EVALINITIATIVEPAWN * popCount(pawns)
           + (bothFlanks ? EVALINITIATIVEBOTHFLANKS : EVALINITIATIVEONEFLANK)
           + (pos->occupied() == (pawns | kings) ? EVALINITIATIVEPAWNENDING : 0);
}

int initiative(int complexity, int eg) {
    const int sign = (eg > 0) - (eg < 0);
    return sign * std::max(complexity, -std::abs(eg));
}

// The piece-square entries inside the position's accumulators, for a trace.
void recordPieceSquares(const positionStruct* pos, evalTraceStruct* trace) {
    for (int code = WPAWN; code <= BKING; code++) {
        const int colour = code & 1, idx = code / 2 - 1;
        for (bitboard b = pos->bitboards[code]; b;) {
            const int sq = popLsb(b);
            recordUse<true>(trace, TUNED_PSQ, colour, idx * 64 + (colour == WHITE ? sq ^ 56 : sq));
        }
    }
}

// The whole evaluation from White's point of view, without the evaluation cache.
template <bool Trace>
int evaluateWhite(const positionStruct* pos, evalTraceStruct* trace) {
    const int phase = std::clamp<int>(pos->phase, EVALPHASEMIN, EVALPHASEMAX);
    i32 score =
        pos->material[WHITE] + pos->psqScore[WHITE] - pos->material[BLACK] - pos->psqScore[BLACK];

    bitboard passed;
    score += pawnTerms<Trace>(pos, &passed, trace);
    score += evaluatePieces<Trace>(pos, passed, trace);

    const int complexity = complexityOf(pos);
    if constexpr (Trace) {
        trace->beforeInitiative = score;
        trace->complexity = complexity;
        recordPieceSquares(pos, trace);
    }
    const int bonus = initiative(complexity, egOf(score));
    score += S(0, bonus);
    const i32 tempo = pos->sideToMove == WHITE ? EVALTEMPO : -EVALTEMPO;
    score += tempo;

    const int v = i16((mgOf(score) * (phase - EVALPHASEMIN) + egOf(score) * (EVALPHASEMAX - phase))
                      / (EVALPHASEMAX - EVALPHASEMIN));
    if constexpr (Trace) {
        for (int c = WHITE; c <= BLACK; c++)
            trace->terms[TERM_MATERIAL][c] = pos->material[c] + pos->psqScore[c];
        trace->terms[TERM_INITIATIVE][WHITE] = S(0, bonus);
        trace->terms[TERM_TEMPO][pos->sideToMove] = EVALTEMPO;
        trace->phase = pos->phase;
        trace->whiteScore = v;
    }
    return v;
}

template <typename... Args>
void appendf(std::string& text, const char* format, Args... args) {
    char line[128];
    const int n = std::snprintf(line, sizeof line, format, args...);
    text.append(line, size_t(std::clamp(n, 0, int(sizeof line) - 1)));
}

}  // namespace

int evaluateN(int, positionStruct* pos) {
    const u64 key = pos->hashKey;
    evalCacheEntry* entry = nullptr;
    if (pos->evalCache) {
        entry = &pos->evalCache[key & (EVAL_CACHE_SIZE - 1)];
        if (entry->key == key)
            return pos->sideToMove == WHITE ? entry->score : -entry->score;
    }
    const int v = evaluateWhite<false>(pos, nullptr);
    if (entry) {
        entry->key = key;
        entry->score = i16(v);
    }
    return pos->sideToMove == WHITE ? v : -v;
}

int evaluateTraced(const positionStruct* pos, evalTraceStruct* trace) {
    std::memset(trace, 0, sizeof *trace);
    return evaluateWhite<true>(pos, trace);
}

std::string evalTraceText(const positionStruct* pos) {
    static const char* const names[TERM_COUNT] = {
        "Material+psq", "Pawns",       "Pieces", "Mobility",   "Threats",
        "King shield",  "King danger", "Space",  "Initiative", "Tempo"};
    const char* const rule = " -------------+---------------+---------------+--------------\n";
    evalTraceStruct t;
    const int v = evaluateTraced(pos, &t);

    std::string text =
        "         Term |     White     |     Black     |     Total\n"
        "              |    MG     EG  |    MG     EG  |    MG     EG\n";
    text += rule;
    int mg = 0, eg = 0;
    for (int i = 0; i < TERM_COUNT; i++) {
        const i32 w = t.terms[i][WHITE], b = t.terms[i][BLACK];
        const int tm = mgOf(w) - mgOf(b), te = egOf(w) - egOf(b);
        mg += tm;
        eg += te;
        if (i == TERM_INITIATIVE)
            appendf(text, " %12s |   ----   ---- |   ----   ---- | %5d  %5d\n", names[i], tm, te);
        else
            appendf(text, " %12s | %5d  %5d  | %5d  %5d  | %5d  %5d\n", names[i], mgOf(w), egOf(w),
                    mgOf(b), egOf(b), tm, te);
    }
    text += rule;
    appendf(text, " %12s |               |               | %5d  %5d\n", "Total", mg, eg);
    const int phase = std::clamp(t.phase, EVALPHASEMIN, EVALPHASEMAX);
    appendf(text, "\nPhase: %d (middlegame weight %d of %d)\n", t.phase, phase - EVALPHASEMIN,
            EVALPHASEMAX - EVALPHASEMIN);
    appendf(text, "King danger: White king %d (attackers %d), Black king %d (attackers %d)\n",
            t.kingDanger[WHITE], t.kingAttackers[WHITE], t.kingDanger[BLACK],
            t.kingAttackers[BLACK]);
    appendf(text, "Evaluation: %d\n", v);
    return text;
}
