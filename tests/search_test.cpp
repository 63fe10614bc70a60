// The tree search: mate and draw scores, static exchange, the move picker and the
// table-move validation, determinism, legality of the best move and the invariance of
// the position, and a concurrent search of two threads sharing the table.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "board/makemove.h"
#include "board/movegen.h"
#include "search/movepick.h"
#include "search/search.h"
#include "search/searchlimits.h"
#include "search/searchparams.h"
#include "search/searchutil.h"
#include "search/see.h"
#include "search/tt.h"
#include "tablebase/tbprobe.h"
#include "test_util.h"

namespace {

// The same position with the colours exchanged: ranks mirrored, case swapped.
std::string mirrorFen(const std::string& fen) {
    std::istringstream in(fen);
    std::string board, side, castling, ep, half = "0", full = "1";
    in >> board >> side >> castling >> ep >> half >> full;
    std::vector<std::string> ranks;
    std::stringstream b(board);
    for (std::string r; std::getline(b, r, '/');)
        ranks.push_back(r);
    std::reverse(ranks.begin(), ranks.end());
    std::string out;
    for (size_t i = 0; i < ranks.size(); i++) {
        for (char c : ranks[i])
            out += std::isalpha(static_cast<unsigned char>(c)) ? char(c ^ 32) : c;
        out += i + 1 < ranks.size() ? "/" : "";
    }
    std::string rights;
    for (char c : std::string("KQkq"))
        if (castling.find(char(c ^ 32)) != std::string::npos)
            rights += c;
    if (ep != "-")
        ep[1] = ep[1] == '3' ? '6' : '3';
    return out + " " + (side == "w" ? "b" : "w") + " " + (rights.empty() ? "-" : rights) + " " + ep + " "
         + half + " " + full;
}

// The legal moves of the position at ply, with the moving piece in the score byte.
std::vector<moveStruct> legalMoves(positionStruct* pos, u8 ply) {
    setInCheck(ply, pos);
    generateMovesLegal(ply, pos->plyStack[ply].moveListBegin, pos);
    std::vector<moveStruct> moves(pos->plyStack[ply].moveListBegin, pos->plyStack[ply].moveListEnd);
    for (moveStruct& m : moves)
        m.score = pos->board[m.from];
    return moves;
}

bool contains(const std::vector<moveStruct>& list, moveStruct m) {
    return std::any_of(list.begin(), list.end(), [&](moveStruct x) { return x.sameAs(m); });
}

moveStruct findMove(positionStruct* pos, const std::string& text) {
    for (moveStruct m : legalMoves(pos, 0))
        if (moveToLA(&m, pos->sideToMove) == text)
            return m;
    ADD_FAILURE() << "no legal move " << text;
    return EMPTYMOVE;
}

// Plays moves as game history before the root, the way the "position" command does.
void playGame(positionStruct* pos, const std::vector<std::string>& moves) {
    for (const std::string& text : moves) {
        makeMove(pos, 0, findMove(pos, text));
        pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
        pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
    }
    setInCheck(0, pos);
}

// Everything that describes the position itself (not the search's scratch space).
struct boardState {
    std::vector<u8> bytes;
    explicit boardState(const positionStruct* p) {
        auto add = [&](const void* at, size_t n) {
            const u8* b = static_cast<const u8*>(at);
            bytes.insert(bytes.end(), b, b + n);
        };
        add(p->board, sizeof p->board);
        add(&p->hashKey, sizeof p->hashKey);
        add(&p->pawnKey, sizeof p->pawnKey);
        add(p->bitboards, sizeof p->bitboards);
        add(&p->sideToMove, 1);
        add(p->material, sizeof p->material);
        add(p->psqScore, sizeof p->psqScore);
        add(&p->phase, sizeof p->phase);
        add(&p->gamePly, sizeof p->gamePly);
        add(&p->halfMoveClock, sizeof p->halfMoveClock);
        add(p->keyHistory, sizeof(u64) * size_t(p->gamePly));
        const plyStruct& root = p->plyStack[0];
        add(&root.castlingRights, 1);
        add(&root.enPassantSquare, 1);
        add(&root.inCheck, 1);
        add(&root.moveListBegin, sizeof root.moveListBegin);
    }
    bool operator==(const boardState& o) const { return bytes == o.bytes; }
};

std::vector<std::string> readFens(const std::string& rel, size_t limit) {
    std::vector<std::string> fens;
    std::ifstream in(dataPath(rel));
    for (std::string line; fens.size() < limit && std::getline(in, line);) {
        std::istringstream s(line);
        std::string f[4];
        if (s >> f[0] >> f[1] >> f[2] >> f[3])
            fens.push_back(f[0] + " " + f[1] + " " + f[2] + " " + f[3] + " 0 1");
    }
    return fens;
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
        load(fen);
        return searchFixedDepth(tp.get(), depth);
    }
    // A node of the search below the root, with a clean clock and counters.
    short node(u8 ply, int depth, int alpha, int beta) {
        searchLimits.infinite = true;
        tp->nodes = tp->qNodes = 0;
        short s = alfabeta(ply, depth, short(alpha), short(beta), tp.get());
        searchLimits.infinite = false;
        return s;
    }
};

// Mates found and scored by distance; colour-mirrored positions score the same, and the
// defender after the mating side's first move scores the negation one ply further on.
TEST_F(SearchTest, MatesScoreByDistance) {
    const struct {
        const char* fen;
        int score;
    } cases[] = {
        {"6k1/5ppp/8/8/8/8/5PPP/R5K1 w - - 0 1", 31999},
        {"1k6/8/1K6/8/8/8/8/7R w - - 0 1", 31999},
        {"r2qkb1r/pp2nppp/3p4/2pNN1B1/2BnP3/3P4/PPP2PPP/R2bK2R w KQkq - 1 1", 31997},
        {"2r3k1/p4p2/3Rp2p/1p2P1pK/8/1P4P1/P3Q2P/1q6 b - - 0 1", 31995},
        {"r1b1kb1r/pppp1ppp/5q2/4n3/3KP3/2N3PN/PPP4P/R1BQ1B1R b kq - 0 1", 31995},
    };
    for (const auto& c : cases) {
        for (const std::string& fen : {std::string(c.fen), mirrorFen(c.fen)}) {
            searchResultStruct r = search(fen, 9);
            EXPECT_EQ(r.score, c.score) << fen;
            ASSERT_FALSE(r.bestMove.empty()) << fen;

            positionStruct* pos = tp.get();
            makeMove(pos, 0, r.bestMove);
            std::string replyFen = fen;  // only for the message
            pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
            pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
            tables->clearAll();
            clearHashTableMT(1);
            searchResultStruct reply = searchFixedDepth(pos, 8);
            EXPECT_EQ(reply.score, -(c.score + 1)) << replyFen << " after " << moveToLA(&r.bestMove, 0);
        }
    }
}

TEST_F(SearchTest, StalemateAndCheckmateAtTheRoot) {
    EXPECT_EQ(search("7k/5Q2/6K1/8/8/8/8/8 b - - 0 1", 4).score, 0);
    EXPECT_TRUE(search("7k/5Q2/6K1/8/8/8/8/8 b - - 0 1", 4).bestMove.empty());
    for (int clock : {0, 57, 99, 100, 180}) {
        std::string fen = "R5k1/5ppp/8/8/8/8/5PPP/6K1 b - - " + std::to_string(clock) + " 90";
        searchResultStruct r = search(fen, 3);
        EXPECT_EQ(r.score, -MATE) << fen;
        EXPECT_TRUE(r.bestMove.empty());
    }
}

// A checkmated node scores ply - 32000 whatever its fifty-move counter; a node with moves
// and a counter above 99 scores 0.
TEST_F(SearchTest, FiftyMoveRuleNeverHidesAMate) {
    for (int clock : {0, 50, 99, 100, 140}) {
        positionStruct* pos = load("6k1/5ppp/8/8/8/8/5PPP/R5K1 w - - 0 1");
        makeMove(pos, 0, findMove(pos, "a1a8"));
        pos->halfMoveClock = i16(clock);
        setInCheck(1, pos);
        EXPECT_EQ(node(1, 3, -INF_SCORE, INF_SCORE), 1 - MATE) << clock;
        EXPECT_EQ(quiescence(1, 0, -INF_SCORE, INF_SCORE, pos), 1 - MATE) << clock;
    }
    EXPECT_EQ(search("6k1/5ppp/8/8/8/8/5PPP/R5K1 w - - 99 80", 4).score, 31999);
    EXPECT_GT(search("8/8/8/4k3/8/8/8/KQ6 w - - 0 80", 4).score, 500);
    EXPECT_EQ(search("8/8/8/4k3/8/8/8/KQ6 w - - 100 80", 4).score, 0);
    // Below the root: a node with moves and the counter at 100 returns 0 after its moves.
    positionStruct* pos = load("8/8/8/4k3/8/8/8/KQ6 w - - 99 80");
    makeMove(pos, 0, findMove(pos, "b1b2"));
    setInCheck(1, pos);
    EXPECT_EQ(node(1, 3, -INF_SCORE, INF_SCORE), 0);
    EXPECT_GT(tp->nodes, 1u);
}

TEST_F(SearchTest, InsufficientMaterialIsADrawBelowTheRoot) {
    for (const char* fen : {"8/8/4k3/8/8/3BK3/8/8 w - - 0 1", "8/8/4k3/8/8/3NK3/8/8 b - - 0 1",
                            "8/2n5/4k3/8/8/3BK3/8/8 w - - 0 1"}) {
        EXPECT_EQ(search(fen, 5).score, 0) << fen;
        load(fen);
        makeMove(tp.get(), 0, legalMoves(tp.get(), 0).front());
        setInCheck(1, tp.get());
        EXPECT_EQ(node(1, 4, -INF_SCORE, INF_SCORE), 0) << fen;
        EXPECT_EQ(tp->nodes, 1u) << "must return before searching";
        EXPECT_EQ(quiescence(0, 0, -INF_SCORE, INF_SCORE, tp.get()), 0);
    }
    EXPECT_GT(search("8/8/4k3/8/8/3RK3/8/8 w - - 0 1", 5).score, 300);
    EXPECT_GT(search("8/8/4k3/8/8/3BK3/3P4/8 w - - 0 1", 5).score, 50);
}

// The knights' round trip: once inside the search line it is a draw at once; before the
// root it takes two earlier occurrences.
TEST_F(SearchTest, RepetitionInTheLineAndInTheGame) {
    const std::vector<std::string> trip = {"g1f3", "g8f6", "f3g1", "f6g8"};
    // In the line: the position after g1f3 (ply 1) comes back at ply 5.
    positionStruct* pos = load(fenStartPos);
    const std::vector<std::string> line = {"g1f3", "g8f6", "f3g1", "f6g8", "g1f3"};
    for (int ply = 0; ply < 5; ply++) {
        moveStruct m = findMove(pos, line[ply]);
        makeMove(pos, ply, m);
        pos->plyStack[ply + 1].moveListBegin = pos->plyStack[0].moveListBegin + 1000;
    }
    setInCheck(5, pos);
    EXPECT_EQ(node(5, 3, -INF_SCORE, INF_SCORE), 1) << "first node counted: odd count, +1";
    EXPECT_EQ(tp->nodes, 1u);
    tp->qNodes = 1;
    EXPECT_EQ(quiescence(5, 0, -INF_SCORE, INF_SCORE, pos), -1) << "second quiescence node: even";

    // Game history: the start position has occurred twice before the root (plies 0, 4);
    // the root is its third occurrence, so g1f3 leads to a position seen twice (1, 5).
    auto childAfterNf3 = [&](int roundTrips) {
        pos = load(fenStartPos);
        for (int i = 0; i < roundTrips; i++)
            playGame(pos, trip);
        makeMove(pos, 0, findMove(pos, "g1f3"));
        setInCheck(1, pos);
        return node(1, 2, -INF_SCORE, INF_SCORE);
    };
    EXPECT_EQ(std::abs(childAfterNf3(2)), 1);
    EXPECT_EQ(childAfterNf3(1), childAfterNf3(0)) << "one earlier occurrence is no draw";
    EXPECT_GT(std::abs(childAfterNf3(0)), 1);
}

TEST_F(SearchTest, TableEntriesCutOnlyWhereAllowed) {
    positionStruct* pos = load("r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq - 2 3");
    storeHash(pos->hashKey, 0, 1234, 60, BOUND_EXACT);
    EXPECT_NE(searchFixedDepth(pos, 2).score, 1234) << "no cut at ply 0";

    makeMove(pos, 0, findMove(pos, "f1c4"));
    setInCheck(1, pos);
    storeHash(pos->hashKey, 0, 1234, 60, BOUND_EXACT);
    EXPECT_NE(node(1, 3, -200, 200), 1234) << "no cut at a PV node";
    storeHash(pos->hashKey, 0, 1234, 60, BOUND_EXACT);
    EXPECT_EQ(node(1, 3, 99, 100), 1234) << "non-PV node with enough depth";
    storeHash(pos->hashKey, 0, -1234, 2, BOUND_EXACT);
    EXPECT_NE(node(1, 5, 99, 100), -1234) << "too shallow";
    // Quiescence cuts with any depth and window.
    storeHash(pos->hashKey, 0, 700, 1, BOUND_LOWER);
    EXPECT_EQ(quiescence(1, 0, -600, 600, pos), 700);
    storeHash(pos->hashKey, 0, -700, 1, BOUND_UPPER);
    EXPECT_EQ(quiescence(1, 0, -600, 600, pos), -700);
}

TEST_F(SearchTest, PlyLimitReturnsTheEvaluation) {
    positionStruct* pos = load("r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq - 2 3");
    EXPECT_EQ(node(MAX_PLY, 5, -INF_SCORE, INF_SCORE), evaluateN(0, pos));
    EXPECT_EQ(pos->nodes, 1u);
}

TEST_F(SearchTest, StopFlagAndHardLimit) {
    positionStruct* pos = load(fenStartPos);
    searchSignals.stopSearch = true;
    EXPECT_EQ(alfabeta(0, 5, -INF_SCORE, INF_SCORE, pos), 0);
    searchSignals.stopSearch = false;

    const searchLimitsStruct saved = searchLimits;
    searchLimits.infinite = false;
    searchLimits.startTimeMs = nowMs() - 50;
    searchLimits.maxTime = 10;
    pos->nodeCheckCountdown = 0;
    EXPECT_EQ(alfabeta(0, 5, -INF_SCORE, INF_SCORE, pos), 0);
    EXPECT_TRUE(searchSignals.stopSearch.load());
    EXPECT_EQ(pos->nodeCheckCountdown, searchLimits.nodeCheckInterval);
    searchSignals.stopSearch = false;
    searchSignals.pondering = true;   // pondering suspends the clock
    pos = load("4k3/8/8/8/8/8/8/QQQ1K3 w - - 0 1");
    pos->nodeCheckCountdown = 0;
    EXPECT_NE(alfabeta(0, 2, -INF_SCORE, INF_SCORE, pos), 0);
    EXPECT_FALSE(searchSignals.stopSearch.load());
    searchSignals.pondering = false;
    searchLimits = saved;
}

// Tablebase results inside the tree: a win at ply 10 scores 31862 and is stored with
// depth 127 and no mate adjustment, a loss the negation, a draw 0 as an exact entry;
// four-piece positions wait for SyzygyProbeDepth, three-piece ones do not.
TEST_F(SearchTest, TablebaseResultsInTheTree) {
    REQUIRE_DATA("syzygy/KQvK.rtbw");
    REQUIRE_DATA("syzygy_cases.tsv");
    init_tablebases(dataPath("syzygy"));
    ASSERT_EQ(TB_LARGEST, 4);
    const u8 ply = 10;
    // The loaded position stands for a node at `ply` reached without castling rights.
    auto asNode = [&](const std::string& fen) {
        positionStruct* pos = load(fen);
        pos->plyStack[ply] = pos->plyStack[0];
        pos->plyStack[ply - 2].staticEval = 0;
        pos->tbHits = 0;
        return pos;
    };
    int checked[3] = {0, 0, 0};
    std::ifstream in(dataPath("syzygy_cases.tsv"));
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream cols(line);
        std::string fen, wdlText;
        std::getline(cols, fen, '\t');
        std::getline(cols, wdlText, '\t');
        const int wdl = std::stoi(wdlText);
        if (wdl == 1 || wdl == -1)
            continue;
        positionStruct* pos = asNode(fen);
        if (insufficientMaterial(pos))
            continue;
        const int expected = wdl == 2 ? MATE_BAND - ply : wdl == -2 ? ply - MATE_BAND : 0;
        const int alpha = wdl == 2 ? 30000 : wdl == -2 ? -30001 : -100;
        EXPECT_EQ(node(ply, 3, alpha, alpha + 1), expected) << fen;
        EXPECT_EQ(pos->tbHits, 1u) << fen;
        const u64 entry = probeHash(pos->hashKey);
        EXPECT_EQ(hashDepth(entry), 127) << fen;
        EXPECT_EQ(hashScore(entry), expected) << fen;
        EXPECT_EQ(hashMove(entry), 0u) << fen;
        EXPECT_EQ(hashBound(entry), wdl == 2 ? BOUND_LOWER : wdl == -2 ? BOUND_UPPER : BOUND_EXACT) << fen;
        checked[wdl / 2 + 1]++;
    }
    EXPECT_GT(checked[0], 10);
    EXPECT_GT(checked[1], 10);
    EXPECT_GT(checked[2], 10);

    // A loss inside the window is searched on, not returned.
    positionStruct* pos = asNode("1Q1k4/8/p7/8/8/6K1/8/8 b - - 0 1");
    EXPECT_NE(node(ply, 2, -INF_SCORE, INF_SCORE), ply - MATE_BAND);
    EXPECT_EQ(pos->tbHits, 1u);

    const int savedProbeDepth = searchLimits.syzygyProbeDepth;
    searchLimits.syzygyProbeDepth = 5;
    pos = asNode("1Q1k4/8/p7/8/8/6K1/8/8 b - - 0 1");   // four pieces, depth 3 < 5
    node(ply, 3, -30001, -30000);
    EXPECT_EQ(pos->tbHits, 0u);
    pos = asNode("8/8/8/4k3/8/8/8/KQ6 b - - 0 1");     // three pieces: always probed
    EXPECT_EQ(node(ply, 3, -30001, -30000), ply - MATE_BAND);
    EXPECT_EQ(pos->tbHits, 1u);
    searchLimits.syzygyProbeDepth = savedProbeDepth;
    init_tablebases("");
    EXPECT_EQ(TB_LARGEST, 0);
}

// Hand-checked exchanges. Values: pawn 88, minor 335, rook 521. Both variants agree
// wherever no slider of the other colour stands behind a capturer.
TEST_F(SearchTest, StaticExchange) {
    auto see = [&](const std::string& fen, const std::string& move, int threshold) {
        positionStruct* pos = load(fen);
        const bool oneSided = seeAtLeast(pos, findMove(pos, move), threshold);
        EXPECT_EQ(seeAtLeastFull(pos, findMove(pos, move), threshold), oneSided) << fen << " " << move;
        return oneSided;
    };
    auto full = [&](const std::string& fen, const std::string& move, int threshold) {
        positionStruct* pos = load(fen);
        return seeAtLeastFull(pos, findMove(pos, move), threshold);
    };
    // NxP NxN BxN, and then the black bishop uncovered behind the white one takes back:
    // only the full exchange sees it.
    const std::string xray = "6k1/8/2n5/4p3/8/2B2N2/8/b5K1 w - - 0 1";
    positionStruct* xpos = load(xray);
    EXPECT_TRUE(seeAtLeast(xpos, findMove(xpos, "f3e5"), 88));
    EXPECT_TRUE(full(xray, "f3e5", -247));
    EXPECT_FALSE(full(xray, "f3e5", -246));
    EXPECT_FALSE(full(mirrorFen(xray), "f6e4", 0));
    // Free pawn.
    EXPECT_TRUE(see("4k3/8/8/3p4/4P3/8/8/4K3 w - - 0 1", "e4d5", 88));
    EXPECT_FALSE(see("4k3/8/8/3p4/4P3/8/8/4K3 w - - 0 1", "e4d5", 89));
    // Rook takes a pawn defended by a pawn.
    EXPECT_FALSE(see("4k3/8/2p5/3p4/8/8/3R4/4K3 w - - 0 1", "d2d5", 0));
    EXPECT_TRUE(see("4k3/8/2p5/3p4/8/8/3R4/4K3 w - - 0 1", "d2d5", -433));
    // Doubled rooks against one defender: the rear rook is seen through the front one.
    EXPECT_TRUE(see("3r2k1/8/8/3p4/8/8/3R4/3R2K1 w - - 0 1", "d2d5", 88));
    EXPECT_FALSE(see("3r2k1/8/8/3p4/8/8/3R4/3R2K1 w - - 0 1", "d2d5", 89));
    // Queen behind the bishop joins after the bishop has recaptured: NxP NxN BxN BxB QxB.
    EXPECT_TRUE(see("6k1/6b1/2n5/4p3/8/2B2N2/1Q6/6K1 w - - 0 1", "f3e5", 0));
    EXPECT_TRUE(see("6k1/6b1/2n5/4p3/8/2B2N2/1Q6/6K1 w - - 0 1", "f3e5", 88));
    EXPECT_FALSE(see("6k1/6b1/2n5/4p3/8/2B2N2/8/6K1 w - - 0 1", "f3e5", 0));
    // The king recaptures only when nothing else attacks the square.
    EXPECT_FALSE(see("8/8/4k3/3p4/8/8/8/3RK3 w - - 0 1", "d1d5", 0));
    EXPECT_TRUE(see("8/8/4k3/3p4/8/8/3R4/3RK3 w - - 0 1", "d2d5", 88));
    // En passant: the exchange is on the square behind the captured pawn, and that pawn
    // no longer blocks the file.
    EXPECT_TRUE(see("4k3/8/8/3pP3/8/8/8/4K3 w - d6 0 1", "e5d6", 88));
    EXPECT_TRUE(see("3rk3/8/8/3pP3/8/8/8/4K3 w - d6 0 1", "e5d6", 0));
    EXPECT_FALSE(see("3rk3/8/8/3pP3/8/8/8/4K3 w - d6 0 1", "e5d6", 1));
    EXPECT_FALSE(see("4k3/8/8/3pP3/3r4/8/8/4K3 w - d6 0 1", "e5d6", 1));
    // A quiet move onto a square guarded by a pawn loses the piece.
    EXPECT_FALSE(see("4k3/8/4p3/8/8/8/8/3RK3 w - - 0 1", "d1d5", 0));
    EXPECT_TRUE(see("4k3/8/4p3/8/8/8/8/3RK3 w - - 0 1", "d1d4", 0));
    // Colour symmetry of all of the above.
    EXPECT_TRUE(see(mirrorFen("6k1/6b1/2n5/4p3/8/2B2N2/1Q6/6K1 w - - 0 1"), "f6e4", 88));
    EXPECT_FALSE(see(mirrorFen("3rk3/8/8/3pP3/8/8/8/4K3 w - d6 0 1"), "e4d3", 1));
}

// Starting points of the random walks: book openings and tactical positions.
std::vector<std::string> walkStarts() {
    std::vector<std::string> fens = readFens("openings/openings.epd", 40);
    auto wac = readFens("epd/wac.epd", 40);
    fens.insert(fens.end(), wac.begin(), wac.end());
    return fens;
}

// Every legal move exactly once, nothing else; the hash move first; stage bytes in order;
// captures split by the exchange test; quiet moves by falling history.
TEST_F(SearchTest, MovePickerHandsOutEachLegalMoveOnce) {
    REQUIRE_DATA("openings/openings.epd");
    std::mt19937 rng(7);
    auto fens = walkStarts();
    int inCheckNodes = 0, hashFirst = 0;
    for (const std::string& fen : fens) {
        positionStruct* pos = load(fen);
        for (int step = 0; step < 25; step++) {
            // Random history tables so that the quiet order varies.
            for (int i = 0; i < 200; i++) {
                pos->mainHistory[2 + rng() % 12][rng() % 64] = i16(int(rng() % 16001) - 8000);
                pos->contHist[0][rng() % CONT_HIST_SIZE] = i16(int(rng() % 16001) - 8000);
            }
            // Ply 1 after a random legal move, so that a counter move exists.
            std::vector<moveStruct> rootMoves = legalMoves(pos, 0);
            if (rootMoves.empty())
                break;
            moveStruct prev = rootMoves[rng() % rootMoves.size()];
            pos->plyStack[0].currentMove = prev;
            makeMove(pos, 0, prev);
            std::vector<moveStruct> legal = legalMoves(pos, 1);
            std::vector<moveStruct> others = rootMoves;   // moves of another position
            auto pickFrom = [&](const std::vector<moveStruct>& a, const std::vector<moveStruct>& b) {
                const auto& v = (rng() % 2 || b.empty()) ? a : b;
                return v.empty() || rng() % 5 == 0 ? EMPTYMOVE : v[rng() % v.size()];
            };
            moveStruct hash = pickFrom(legal, others);
            pos->plyStack[1].killer1 = pickFrom(legal, others);
            pos->plyStack[1].killer2 = pickFrom(legal, others);
            pos->counterMoves[prev.score][prev.to] = pickFrom(legal, others).packed();
            if (rng() % 4 == 0)
                hash = moveStruct{u8(rng() % 64), u8(rng() % 64), u8(rng() % 16), u8(rng() % 14)};
            setInCheck(1, pos);
            inCheckNodes += pos->plyStack[1].inCheck;

            movePickerStruct mp;
            initMovePicker(mp, pos, 1, hash);
            std::vector<moveStruct> got;
            int lastStage = 0, lastHistory = 1 << 30;
            for (moveStruct m; !(m = nextMove(mp)).empty();) {
                const int stage = pos->plyStack[1].pickStage;
                ASSERT_TRUE(contains(legal, m)) << fen << " " << moveToLA(&m, pos->sideToMove);
                ASSERT_EQ(m.score, pos->board[m.from]);
                ASSERT_FALSE(contains(got, m)) << "handed out twice: " << moveToLA(&m, pos->sideToMove);
                if (got.empty() && contains(legal, hash) && hash.score == pos->board[hash.from]) {
                    EXPECT_EQ(stage, STAGE_HASH);
                    EXPECT_TRUE(m.sameAs(hash));
                    hashFirst++;
                }
                if (stage != STAGE_EVASIONS) {
                    EXPECT_GE(stage, lastStage);
                }
                if (stage == STAGE_CAPTURES) {
                    EXPECT_TRUE(seeGoodCapture(pos, m));
                }
                if (stage == STAGE_BAD_CAPTURES) {
                    EXPECT_FALSE(seeGoodCapture(pos, m));
                }
                if (stage == STAGE_KILLER1) {
                    EXPECT_TRUE(m.sameAs(pos->plyStack[1].killer1));
                }
                if (stage == STAGE_KILLER2) {
                    EXPECT_TRUE(m.sameAs(pos->plyStack[1].killer2));
                }
                if (stage == STAGE_QUIETS) {
                    int h = quietHistory(pos, 1, m, m.score);
                    EXPECT_LE(h, lastHistory);
                    lastHistory = h;
                }
                if (pos->plyStack[1].inCheck) {
                    EXPECT_TRUE(stage == STAGE_EVASIONS || stage == STAGE_HASH);
                }
                lastStage = stage == STAGE_EVASIONS ? lastStage : stage;
                got.push_back(m);
            }
            EXPECT_EQ(got.size(), legal.size()) << fen;
            takeBack(pos, 0, prev);
            // Walk on: play a random move so the next step sees another position.
            moveStruct next = rootMoves[rng() % rootMoves.size()];
            makeMove(pos, 0, next);
            pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
            pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
        }
    }
    EXPECT_GT(inCheckNodes, 10);
    EXPECT_GT(hashFirst, 500);
}

// The table-move test accepts exactly the legal moves, also for moves of nearby
// positions and for random bytes.
TEST_F(SearchTest, TableMoveValidation) {
    REQUIRE_DATA("openings/openings.epd");
    std::mt19937 rng(11);
    auto fens = walkStarts();
    const u8 types[] = {0, 4, 6, 8, 10, 12, 13, 14, 15, 3};
    int accepted = 0;
    for (const std::string& fen : fens) {
        positionStruct* pos = load(fen);
        std::vector<moveStruct> previous;
        for (int step = 0; step < 30; step++) {
            std::vector<moveStruct> legal = legalMoves(pos, 0);
            if (legal.empty())
                break;
            for (moveStruct m : legal)
                ASSERT_TRUE(isPlayableMove(pos, 0, m)) << fen << " " << moveToLA(&m, pos->sideToMove);
            std::vector<moveStruct> probes = previous;
            for (int i = 0; i < 60; i++) {
                moveStruct m{u8(rng() % 64), u8(rng() % 64), types[rng() % 10], 0};
                m.score = rng() % 8 ? pos->board[m.from] : u8(rng() % 14);
                probes.push_back(m);
            }
            // Right squares, wrong piece byte or type.
            moveStruct wrong = legal[rng() % legal.size()];
            wrong.score ^= 1;
            probes.push_back(wrong);
            for (moveStruct m : probes) {
                const bool ok = isPlayableMove(pos, 0, m);
                const bool expected = contains(legal, m) && m.score == pos->board[m.from];
                ASSERT_EQ(ok, expected) << fen << " " << int(m.from) << "-" << int(m.to) << " type "
                                        << int(m.type) << " piece " << int(m.score);
                accepted += ok;
            }
            previous = legal;
            makeMove(pos, 0, legal[rng() % legal.size()]);
            pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
            pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
        }
    }
    EXPECT_GT(accepted, 50);
}

// The check detection used to spare checking moves from pruning agrees with the board.
TEST_F(SearchTest, GivesCheckAgreesWithTheBoard) {
    REQUIRE_DATA("openings/openings.epd");
    std::mt19937 rng(5);
    int checks = 0;
    for (const std::string& fen : walkStarts()) {
        positionStruct* pos = load(fen);
        for (int step = 0; step < 30; step++) {
            std::vector<moveStruct> legal = legalMoves(pos, 0);
            if (legal.empty())
                break;
            for (moveStruct m : legal) {
                bool predicted = givesCheck(pos, m);
                makeMove(pos, 0, m);
                bool actual = inCheckNow(pos);
                takeBack(pos, 0, m);
                ASSERT_EQ(predicted, actual) << fen << " " << moveToLA(&m, pos->sideToMove);
                checks += actual;
            }
            makeMove(pos, 0, legal[rng() % legal.size()]);
            pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
            pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
        }
    }
    EXPECT_GT(checks, 100);
}

// Same search from cleared tables: same nodes, score and move.
TEST_F(SearchTest, FixedDepthSearchIsDeterministic) {
    for (const char* fen : {fenStartPos, "r1bq1rk1/pppn1pb1/3p1npp/4p1B1/3PP3/2PB1N2/PP3PPP/RN1QR1K1 w - - 0 9",
                            "2rr3k/pp3pp1/1nnqbN1p/3pN3/2pP4/2P3Q1/PPB4P/R4RK1 w - - 0 1",
                            "8/7p/5k2/5p2/p1p2P2/Pr1pPK2/1P1R3P/8 b - - 0 1"}) {
        searchResultStruct a = search(fen, 7);
        searchResultStruct b = search(fen, 7);
        EXPECT_EQ(a.nodes, b.nodes) << fen;
        EXPECT_EQ(a.score, b.score) << fen;
        EXPECT_TRUE(a.bestMove.sameAs(b.bestMove)) << fen;
        EXPECT_GT(a.nodes, 100u);
    }
}

// Over the opening book and the tactical suite: the best move is legal, the position is
// untouched by the search, the incremental keys still match a recomputation.
TEST_F(SearchTest, BestMoveLegalAndPositionUnchanged) {
    REQUIRE_DATA("openings/openings.epd");
    REQUIRE_DATA("epd/wac.epd");
    std::vector<std::string> fens = readFens("openings/openings.epd", 150);
    auto wac = readFens("epd/wac.epd", 300);
    fens.insert(fens.end(), wac.begin(), wac.end());
    ASSERT_GT(fens.size(), 400u);
    for (const std::string& fen : fens) {
        positionStruct* pos = load(fen);
        boardState before(pos);
        searchResultStruct r = searchFixedDepth(pos, 4);
        EXPECT_TRUE(before == boardState(pos)) << fen;
        EXPECT_EQ(pos->hashKey, calcHashKey(0, pos)) << fen;
        std::vector<moveStruct> legal = legalMoves(pos, 0);
        EXPECT_TRUE(contains(legal, r.bestMove)) << fen << " " << moveToLA(&r.bestMove, pos->sideToMove);
        EXPECT_TRUE(pos->plyStack[0].currentMove.sameAs(r.bestMove));
        EXPECT_EQ(r.bestMove.score, pos->board[r.bestMove.from]);
        EXPECT_LT(std::abs(r.score), INF_SCORE);
    }
}

// Two threads, each with its own position and tables, sharing the transposition table
// (run under ThreadSanitizer by "make sanitize").
TEST(SearchThreads, TwoSearchersShareTheTable) {
    initTables();
    if (!hashTable)
        resizeHashTable(hashBucketsForMB(16), 1);
    clearHashTableMT(1);
    searchSignals.stopSearch = false;
    searchLimits.infinite = true;
    // Positions and tables are set up here: the global tables are filled before any
    // searcher exists, as in the engine.
    testPosition p1, p2;
    auto t1Tables = std::make_unique<searchTablesStruct>(), t2Tables = std::make_unique<searchTablesStruct>();
    auto worker = [](positionStruct* pos, searchTablesStruct* tables, short* score) {
        tables->clearAll();
        tables->bind(pos);
        setInCheck(0, pos);
        pos->nodeCheckCountdown = searchLimits.nodeCheckInterval;
        for (int d = 1; d <= 7; d++) {
            pos->searchDepth = u64(d);
            *score = alfabeta(0, d, -INF_SCORE, INF_SCORE, pos);
        }
    };
    short a = 0, b = 0;
    std::thread t1(worker, p1.get(), t1Tables.get(), &a);
    std::thread t2(worker, p2.get(), t2Tables.get(), &b);
    t1.join();
    t2.join();
    searchLimits.infinite = false;
    EXPECT_LT(std::abs(a), 300);
    EXPECT_LT(std::abs(b), 300);
}

}  // namespace
