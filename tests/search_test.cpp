// The tree search: mate, draw and tablebase scores, static exchange, the move picker and
// the table-move test, and the position left untouched. Pruning and ordering rules (ProbCut,
// quiescence recaptures, quiet threats) answer to the bench signature: any change moves it.
#include <algorithm>

#include "search/movepick.h"
#include "search/search.h"
#include "search/searchlimits.h"
#include "search/searchutil.h"
#include "search/see.h"
#include "search/tt.h"
#include "test_util.h"

namespace {

// The legal moves with the moving piece in the score byte, as the search keeps them.
std::vector<moveStruct> searchMoves(positionStruct* pos, int ply = 0) {
    auto moves = legalMoves(pos, ply);
    for (moveStruct& m : moves)
        m.score = pos->board[m.from];
    return moves;
}

bool contains(const std::vector<moveStruct>& list, moveStruct m) {
    return std::any_of(list.begin(), list.end(), [&](moveStruct x) { return x.sameAs(m); });
}

class SearchTest : public ::testing::Test {
protected:
    testPosition tp;
    std::unique_ptr<searchTablesStruct> tables = std::make_unique<searchTablesStruct>();

    void SetUp() override {
        initTables();
        if (!hashTable)
            resizeHashTable(hashBucketsForMB(16), 1);
        searchSignals.stopSearch = false;
    }
    positionStruct* load(const std::string& fen) {
        tp.set(fen);
        for (plyStruct& ps : tp->plyStack) {
            ps.killer1 = ps.killer2 = ps.currentMove = ps.bestMove = EMPTYMOVE;
            ps.nullMoveDisable = 0;
        }
        tables->clearAll();
        clearHashTableMT(1);
        tables->bind(tp.get());
        return tp.get();
    }
    searchResultStruct search(const std::string& fen, int depth) {
        return searchFixedDepth(load(fen), depth);
    }
    // A node below the root after `moves` (made at plies 0, 1, ...), clock off, counters clean.
    short node(const std::vector<std::string>& moves, int depth, int alpha, int beta) {
        positionStruct* pos = tp.get();
        for (size_t ply = 0; ply < moves.size(); ply++) {
            moveStruct m = findMove(pos, moves[ply], int(ply));
            EXPECT_FALSE(m.empty()) << moves[ply];
            makeMove(pos, int(ply), m);
        }
        setInCheck(u8(moves.size()), pos);
        pos->nodes = pos->qNodes = 0;
        return searchAt(u8(moves.size()), depth, alpha, beta);
    }
    // The node search at `ply` of the loaded position, with the clock off.
    short searchAt(u8 ply, int depth, int alpha, int beta) {
        searchLimits.infinite = true;
        const short s = alfabeta(ply, depth, short(alpha), short(beta), tp.get());
        searchLimits.infinite = false;
        return s;
    }
};

// Root scores of each position and its mirror: mates by distance, a stalemate, a mated root
// (-MATE whatever its fifty-move counter), the fifty-move draw of the children (reached in
// quiescence), bare minors drawn, a rook or a bishop with its pawn winning. The best move is
// empty exactly when there is no legal move.
TEST_F(SearchTest, RootScores) {
    const std::tuple<std::string, int, int, int> cases[] = {
        {"6k1/5ppp/8/8/8/8/5PPP/R5K1 w - - 0 1", 9, 31999, 31999},
        {"1k6/8/1K6/8/8/8/8/7R w - - 0 1", 9, 31999, 31999},
        {"r2qkb1r/pp2nppp/3p4/2pNN1B1/2BnP3/3P4/PPP2PPP/R2bK2R w KQkq - 1 1", 9, 31997, 31997},
        {"2r3k1/p4p2/3Rp2p/1p2P1pK/8/1P4P1/P3Q2P/1q6 b - - 0 1", 9, 31995, 31995},
        {"r1b1kb1r/pppp1ppp/5q2/4n3/3KP3/2N3PN/PPP4P/R1BQ1B1R b kq - 0 1", 9, 31995, 31995},
        {"7k/5Q2/6K1/8/8/8/8/8 b - - 0 1", 4, 0, 0},
        {"R5k1/5ppp/8/8/8/8/5PPP/6K1 b - - 0 90", 3, -MATE, -MATE},
        {"R5k1/5ppp/8/8/8/8/5PPP/6K1 b - - 99 90", 3, -MATE, -MATE},
        {"R5k1/5ppp/8/8/8/8/5PPP/6K1 b - - 100 90", 3, -MATE, -MATE},
        {"R5k1/5ppp/8/8/8/8/5PPP/6K1 b - - 140 90", 3, -MATE, -MATE},
        {"8/8/8/4k3/8/8/8/KQ6 w - - 100 80", 1, 0, 0},
        {"8/8/4k3/8/8/3BK3/8/8 w - - 0 1", 5, 0, 0},
        {"8/2n5/4k3/8/8/3BK3/8/8 w - - 0 1", 5, 0, 0},
        {"8/8/4k3/8/8/3RK3/8/8 w - - 0 1", 5, 301, INF_SCORE},
        {"8/8/4k3/8/8/3BK3/3P4/8 w - - 0 1", 5, 51, INF_SCORE},
    };
    for (const auto& [start, depth, low, high] : cases)
        for (const std::string& fen : {start, mirrorFen(start)}) {
            const searchResultStruct r = search(fen, depth);
            EXPECT_TRUE(r.score >= low && r.score <= high) << fen << " scores " << r.score;
            EXPECT_EQ(r.bestMove.empty(), legalMoves(tp.get()).empty()) << fen;
        }
    // A checkmated node scores ply - MATE whatever its fifty-move counter, in both searches.
    for (int clock : {0, 99, 100, 140}) {
        load("6k1/5ppp/8/8/8/8/5PPP/R5K1 w - - " + std::to_string(clock) + " 80");
        EXPECT_EQ(node({"a1a8"}, 3, -INF_SCORE, INF_SCORE), 1 - MATE) << clock;
        EXPECT_EQ(quiescence(1, 0, -INF_SCORE, INF_SCORE, tp.get()), 1 - MATE) << clock;
    }
}

// The knights' round trip: inside the search line one repetition is a draw; before the
// root it takes two earlier occurrences.
TEST_F(SearchTest, RepetitionInTheLineAndInTheGame) {
    load(fenStartPos);
    EXPECT_EQ(node({"g1f3", "g8f6", "f3g1", "f6g8", "g1f3"}, 3, -INF_SCORE, INF_SCORE), 1)
        << "odd node count: +1";
    EXPECT_EQ(tp->nodes, 1u);
    tp->qNodes = 1;
    EXPECT_EQ(quiescence(5, 0, -INF_SCORE, INF_SCORE, tp.get()), -1) << "even count: -1";
    auto afterNf3 = [&](int roundTrips) {
        load(fenStartPos);
        for (int i = 0; i < roundTrips; i++)
            for (const char* m : {"g1f3", "g8f6", "f3g1", "f6g8"})
                playAtRoot(tp.get(), findMove(tp.get(), m));
        return node({"g1f3"}, 2, -INF_SCORE, INF_SCORE);
    };
    EXPECT_EQ(std::abs(afterNf3(2)), 1);
    EXPECT_GT(std::abs(afterNf3(1)), 1) << "one earlier occurrence is no draw";
}

TEST_F(SearchTest, TablebaseResultsInTheTree) {
    REQUIRE_DATA("syzygy_cases.tsv");
    loadTablebases();
    const u8 ply = 10;
    auto probe = [&](const std::string& fen, int depth, int alpha, int beta) {
        positionStruct* pos = load(fen);
        pos->plyStack[ply] = pos->plyStack[0];
        pos->plyStack[ply - 2].staticEval = 0;
        pos->tbHits = 0;
        return searchAt(ply, depth, alpha, beta);
    };
    // By outcome (loss, draw, win): the null window that the probe cuts and the stored bound.
    const int alphas[] = {-30001, -100, 30000}, bounds[] = {BOUND_UPPER, BOUND_EXACT, BOUND_LOWER};
    int checked[3] = {};
    std::ifstream in(dataPath("syzygy_cases.tsv"));
    for (std::string line; std::getline(in, line);) {
        const std::string fen = line.substr(0, line.find('\t'));
        const int wdl = line[0] == '#' ? 1 : std::stoi(line.substr(fen.size() + 1));
        if (wdl == 1 || wdl == -1 || insufficientMaterial(load(fen)))
            continue;
        const int k = wdl / 2 + 1, expected = (k - 1) * (MATE_BAND - ply);
        EXPECT_EQ(probe(fen, 3, alphas[k], alphas[k] + 1), expected) << fen;
        const u64 entry = probeHash(tp->hashKey);
        EXPECT_TRUE(tp->tbHits == 1 && hashDepth(entry) == 127 && hashScore(entry) == expected
                    && hashBound(entry) == bounds[k])
            << fen << " hits " << tp->tbHits << " stored depth " << hashDepth(entry) << " score "
            << hashScore(entry);
        checked[k]++;
    }
    EXPECT_GT(*std::min_element(checked, checked + 3), 10);
    // A loss inside the window is searched on.
    EXPECT_NE(probe("1Q1k4/8/p7/8/8/6K1/8/8 b - - 0 1", 2, -INF_SCORE, INF_SCORE), ply - MATE_BAND);
    loadTablebases("");
}

// Exchanges by hand (pawn 88, minor 335, rook 521) and their colour mirrors. Both variants
// agree wherever no slider of the other colour stands behind a capturer.
TEST_F(SearchTest, StaticExchange) {
    const std::tuple<const char*, const char*, int, bool> cases[] = {
        {"4k3/8/8/3p4/4P3/8/8/4K3 w - - 0 1", "e4d5", 88, true},
        {"4k3/8/8/3p4/4P3/8/8/4K3 w - - 0 1", "e4d5", 89, false},
        {"4k3/8/2p5/3p4/8/8/3R4/4K3 w - - 0 1", "d2d5", -433, true},
        {"3r2k1/8/8/3p4/8/8/3R4/3R2K1 w - - 0 1", "d2d5", 89, false},     // the rear rook x-rays
        {"6k1/6b1/2n5/4p3/8/2B2N2/1Q6/6K1 w - - 0 1", "f3e5", 88, true},  // queen behind bishop
        {"8/8/4k3/3p4/8/8/8/3RK3 w - - 0 1", "d1d5", 0, false},           // the king recaptures
        {"3rk3/8/8/3pP3/8/8/8/4K3 w - d6 0 1", "e5d6", 1, false},         // en passant
        {"4k3/8/4p3/8/8/8/8/3RK3 w - - 0 1", "d1d5", 0, false},           // onto a guarded square
    };
    for (auto [fen, move, threshold, expected] : cases) {
        std::string mirrored = move;
        mirrored[1] = char('1' + '8' - mirrored[1]);
        mirrored[3] = char('1' + '8' - mirrored[3]);
        for (auto [f, text] :
             {std::pair<std::string, std::string>(fen, move), {mirrorFen(fen), mirrored}}) {
            moveStruct m = findMove(load(f), text);
            EXPECT_EQ(seeAtLeast(tp.get(), m, threshold), expected)
                << f << " " << text << " " << threshold;
            EXPECT_EQ(seeAtLeastFull(tp.get(), m, threshold), expected)
                << f << " " << text << " " << threshold;
        }
    }
    // NxP NxN BxN, then the black bishop uncovered behind the white one takes back.
    moveStruct m = findMove(load("6k1/8/2n5/4p3/8/2B2N2/8/b5K1 w - - 0 1"), "f3e5");
    EXPECT_TRUE(seeAtLeast(tp.get(), m, 88));
    EXPECT_TRUE(seeAtLeastFull(tp.get(), m, -247));
    EXPECT_FALSE(seeAtLeastFull(tp.get(), m, -246));
}

// Positions of the opening book, then of the tactical suite.
std::vector<std::string> bookAndTactics(size_t book = 40, size_t tactics = 40) {
    std::vector<std::string> fens = readEpd("openings/openings.epd", book),
                             wac = readEpd("epd/wac.epd", tactics);
    fens.insert(fens.end(), wac.begin(), wac.end());
    return fens;
}

// At each node of random games from the book and the tactical suite:
// - the move picker hands out every legal move exactly once and nothing else, the hash move
//   first, stages in order, captures split by the exchange test;
// - the table-move test accepts exactly the legal moves with the right piece byte, also for
//   moves of the previous position and random bytes;
// - the check prediction agrees with the board.
TEST_F(SearchTest, MovePickerTableMoveTestAndCheckPrediction) {
    REQUIRE_DATA("openings/openings.epd");
    std::mt19937 rng(7);
    const u8 types[] = {0, 4, 6, 8, 10, 12, 13, 14, 15, 3};
    int inCheckNodes = 0, hashFirst = 0, accepted = 0, checks = 0;
    std::vector<moveStruct> previous;
    for (const std::string& fen : bookAndTactics())
        randomWalk(load(fen), 30, rng, [&](positionStruct* pos, const std::vector<moveStruct>&) {
            std::vector<moveStruct> legal = searchMoves(pos), probes = previous;
            for (moveStruct m : legal) {
                bool predicted = givesCheck(pos, m);
                makeMove(pos, 0, m);
                ASSERT_EQ(predicted, inCheckNow(pos))
                    << fen << " " << moveToLA(&m, pos->sideToMove ^ 1);
                checks += predicted;
                takeBack(pos, 0, m);
                probes.push_back(m);
                m.score ^= 1;  // right squares, wrong piece
                probes.push_back(m);
            }
            for (int i = 0; i < 60; i++) {
                moveStruct m{u8(rng() % 64), u8(rng() % 64), types[rng() % 10], 0};
                m.score = rng() % 8 ? pos->board[m.from] : u8(rng() % 14);
                probes.push_back(m);
            }
            for (moveStruct m : probes) {
                const bool expected = contains(legal, m) && m.score == pos->board[m.from];
                ASSERT_EQ(isPlayableMove(pos, 0, m), expected)
                    << fen << " " << int(m.from) << "-" << int(m.to) << " type " << int(m.type)
                    << " piece " << int(m.score);
                accepted += expected;
            }
            previous = legal;

            // The picker one ply down, after a random move, with random histories (they
            // vary the quiet order) and hash and killer moves of this or the last node.
            for (int i = 0; i < 200; i++)
                pos->mainHistory[2 + rng() % 12][rng() % 64] = i16(int(rng() % 16001) - 8000);
            std::vector<moveStruct> others = legal;
            moveStruct prev = others[rng() % others.size()];
            pos->plyStack[0].currentMove = prev;
            makeMove(pos, 0, prev);
            std::vector<moveStruct> below = searchMoves(pos, 1);
            others.insert(others.end(), below.begin(), below.end());
            auto pick = [&] { return rng() % 5 == 0 ? EMPTYMOVE : others[rng() % others.size()]; };
            const moveStruct hash = pick();
            pos->plyStack[1].killer1 = pick();
            pos->plyStack[1].killer2 = pick();
            inCheckNodes += pos->plyStack[1].inCheck;
            movePickerStruct mp;
            initMovePicker(mp, pos, 1, hash);
            std::vector<moveStruct> got;
            int lastStage = 0;
            for (moveStruct m; !(m = nextMove(mp)).empty(); got.push_back(m)) {
                const int stage = pos->plyStack[1].pickStage;
                ASSERT_TRUE(contains(below, m) && !contains(got, m)
                            && m.score == pos->board[m.from])
                    << fen << " " << moveToLA(&m, pos->sideToMove)
                    << (contains(got, m) ? " twice" : "");
                if (got.empty() && contains(below, hash) && hash.score == pos->board[hash.from]) {
                    EXPECT_TRUE(stage == STAGE_HASH && m.sameAs(hash));
                    hashFirst++;
                }
                EXPECT_TRUE(stage == STAGE_EVASIONS || stage >= lastStage);
                lastStage = stage == STAGE_EVASIONS ? lastStage : stage;
                if (stage == STAGE_CAPTURES || stage == STAGE_BAD_CAPTURES) {
                    EXPECT_EQ(seeGoodCapture(pos, m), stage == STAGE_CAPTURES);
                }
            }
            EXPECT_EQ(got.size(), below.size()) << fen;
            takeBack(pos, 0, prev);
        });
    EXPECT_GT(inCheckNodes, 10);
    EXPECT_GT(hashFirst, 500);
    EXPECT_GT(accepted, 1000);
    EXPECT_GT(checks, 100);
}

// Over the opening book and the tactical suite: the best move is legal and the position
// (everything but the search's scratch space) is untouched by the search.
TEST_F(SearchTest, BestMoveLegalAndPositionUnchanged) {
    REQUIRE_DATA("epd/wac.epd");
    auto state = [](positionStruct* p) {  // material and scores: the board tests
        return fenOf(p) + " " + std::to_string(p->hashKey) + " " + std::to_string(p->gamePly);
    };
    for (const std::string& fen : bookAndTactics(150, 300)) {
        positionStruct* pos = load(fen);
        const std::string before = state(pos);
        searchResultStruct r = searchFixedDepth(pos, 4);
        EXPECT_EQ(state(pos), before);
        EXPECT_EQ(pos->hashKey, calcHashKey(0, pos)) << fen;
        EXPECT_TRUE(contains(searchMoves(pos), r.bestMove)
                    && r.bestMove.score == pos->board[r.bestMove.from])
            << fen << " " << moveToLA(&r.bestMove, pos->sideToMove);
    }
}

// The singular test's search with a move left out: it neither reads nor writes the table,
// and a node whose only move is left out fails low (alpha) instead of scoring a mate or a
// stalemate, which the test would read as a cut without that move.
TEST_F(SearchTest, SearchWithAMoveLeftOut) {
    for (const char* fen : {"k7/2K5/8/8/8/8/8/8 b - - 0 1", "k7/2K5/8/8/4B3/8/8/8 b - - 0 1",
                            "r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq - 2 3"}) {
        positionStruct* pos = load(fen);
        const std::vector<moveStruct> moves = searchMoves(pos);
        ASSERT_FALSE(moves.empty()) << fen;
        pos->plyStack[0].excludedMove = moves[0];
        const short score = searchAt(0, 6, -100, -99);
        pos->plyStack[0].excludedMove = EMPTYMOVE;
        if (moves.size() == 1) {
            EXPECT_EQ(score, -100) << fen;
        }
        EXPECT_EQ(hashBound(probeHash(pos->hashKey)), BOUND_NONE) << fen;
    }
}

}  // namespace
