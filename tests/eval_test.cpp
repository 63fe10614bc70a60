// The static evaluation: colour symmetry of the score and of every traced term, and cached
// answers against fresh ones. (Incremental sums against scratch: the board tests.)
#include "eval/evaluate.h"
#include "test_util.h"

namespace {

std::vector<std::string> randomGamePositions(int games, int plies, unsigned seed) {
    std::vector<std::string> fens;
    std::mt19937 rng(seed);
    testPosition tp;
    for (int g = 0; g < games; g++) {
        tp.set(fenStartPos);
        randomWalk(tp.get(), plies, rng,
                   [&](positionStruct* pos, auto&) { fens.push_back(fenOf(pos)); });
    }
    return fens;
}

// A position and its colour-flipped mirror score the same, term by term.
void expectMirrorSymmetry(const std::vector<std::string>& fens) {
    testPosition a, b;
    ASSERT_FALSE(fens.empty());
    for (const auto& fen : fens) {
        a.set(fen);
        b.set(mirrorFen(fen));
        ASSERT_EQ(evaluateN(0, a.get()), evaluateN(0, b.get())) << fen << "\n" << mirrorFen(fen);
        evalTraceStruct ta, tb;
        ASSERT_EQ(evaluateTraced(a.get(), &ta), whiteView(a.get()))
            << "trace and evaluation differ: " << fen;
        evaluateTraced(b.get(), &tb);
        for (int t = 0; t < TERM_COUNT; t++) {
            if (t == TERM_INITIATIVE) {  // White's slot only, a correction of the total
                ASSERT_EQ(ta.terms[t][WHITE], -tb.terms[t][WHITE]) << fen;
                continue;
            }
            ASSERT_EQ(ta.terms[t][WHITE], tb.terms[t][BLACK]) << "term " << t << " " << fen;
            ASSERT_EQ(ta.terms[t][BLACK], tb.terms[t][WHITE]) << "term " << t << " " << fen;
        }
        ASSERT_EQ(ta.kingDanger[WHITE], tb.kingDanger[BLACK]) << fen;
        ASSERT_EQ(ta.kingDanger[BLACK], tb.kingDanger[WHITE]) << fen;
    }
}

// Random games reach what the opening book never does: promotions, bare and exposed kings,
// en-passant squares, castling rights on one side only.
TEST(EvalSymmetry, MirrorOfBookAndRandomGamePositions) {
    std::vector<std::string> fens = randomGamePositions(40, 160, 12345),
                             book = readEpd("openings/openings.epd", 5000);  // none without data
    fens.insert(fens.end(), book.begin(), book.end());
    expectMirrorSymmetry(fens);
}

// Random games keep their pawn skeleton while the pieces wander, so most pawn-cache
// lookups hit an entry written for another position; the second pass answers from the
// evaluation cache.
TEST(EvalCache, CachedAnswersEqualFreshComputation) {
    auto fens = randomGamePositions(20, 120, 4242);
    std::vector<evalCacheEntry> evalCache(EVAL_CACHE_SIZE);
    std::vector<pawnCacheEntry> pawnCache(PAWN_CACHE_SIZE);
    testPosition cached, plain;
    cached->evalCache = evalCache.data();
    cached->pawnCache = pawnCache.data();
    int pawnHits = 0;
    for (int pass = 0; pass < 2; pass++)
        for (const auto& fen : fens) {
            cached.set(fen);
            plain.set(fen);
            pawnHits += pawnCache[cached->pawnKey & (PAWN_CACHE_SIZE - 1)].key == cached->pawnKey;
            ASSERT_EQ(evaluateN(0, cached.get()), evaluateN(0, plain.get()))
                << fen << " pass " << pass;
        }
    EXPECT_GT(pawnHits, 200);
}

}  // namespace
