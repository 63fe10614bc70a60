// Perft counts against the shared reference file: the check of move generation and
// make/take-back together.
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "board/makemove.h"
#include "board/movegen.h"
#include "board/perft.h"
#include "test_util.h"

namespace {

struct perftCase {
    std::string fen;
    int depth;
    u64 expected;
};

// The normal section of the reference file (before the "full" marker). Under the
// sanitizers (QUORVANE_PERFT_LIMIT set) only cases up to that many nodes are run.
std::vector<perftCase> loadCases() {
    std::vector<perftCase> cases;
    std::ifstream in(dataPath("perft.txt"));
    u64 limit = std::getenv("QUORVANE_PERFT_LIMIT") ? std::strtoull(std::getenv("QUORVANE_PERFT_LIMIT"), nullptr, 10)
                                                    : ~0ULL;
    for (std::string line; std::getline(in, line) && line != "full";) {
        std::istringstream s(line);
        perftCase c;
        std::string depth, count;
        std::getline(s, c.fen, ';');
        std::getline(s, depth, ';');
        std::getline(s, count, ';');
        c.depth = std::stoi(depth);
        c.expected = std::stoull(count);
        if (c.expected <= limit)
            cases.push_back(c);
    }
    return cases;
}

TEST(Perft, ReferenceFile) {
    REQUIRE_DATA("perft.txt");
    auto cases = loadCases();
    ASSERT_FALSE(cases.empty());
    testPosition pos;
    for (const auto& c : cases) {
        pos.set(c.fen);
        EXPECT_EQ(perft(0, c.depth, pos.get()), c.expected) << c.fen << " depth " << c.depth;
    }
}

// The same count through the search's generators, its legality test and make/take-back.
u64 perftBySearchMoves(int ply, int depth, positionStruct* pos) {
    setInCheck(u8(ply), pos);
    plyStruct& ps = pos->plyStack[ply];
    generateMovesLegal(u8(ply), ps.moveListBegin, pos);
    moveStruct *begin = ps.moveListBegin, *end = ps.moveListEnd;
    if (depth == 1)
        return u64(end - begin);
    u64 nodes = 0;
    for (moveStruct* m = begin; m < end; m++) {
        makeMove(pos, ply, *m);
        nodes += perftBySearchMoves(ply + 1, depth - 1, pos);
        takeBack(pos, ply, *m);
    }
    return nodes;
}

// Perft has a generator of its own; the search's generators answer to the same file (the
// largest cases aside, to keep the suite quick).
TEST(Perft, ReferenceFileThroughSearchGenerators) {
    REQUIRE_DATA("perft.txt");
    testPosition pos;
    int run = 0;
    for (const auto& c : loadCases()) {
        if (c.expected > 25000000)
            continue;
        pos.set(c.fen);
        EXPECT_EQ(perftBySearchMoves(0, c.depth, pos.get()), c.expected)
            << c.fen << " depth " << c.depth;
        run++;
    }
    EXPECT_GE(run, 40);
}

TEST(Perft, StartPosition) {
    testPosition pos;
    const u64 expected[] = {20, 400, 8902, 197281, 4865609};
    for (int d = 1; d <= 5; d++)
        EXPECT_EQ(perft(0, d, pos.get()), expected[d - 1]) << "depth " << d;
}

TEST(Perft, FileRunnerReportsEachLineAndSummary) {
    std::string path = testing::TempDir() + "quorvane_perft.txt";
    {
        std::ofstream out(path);
        out << fenStartPos << ";3;8902\n"
            << fenStartPos << ";2;401\n"
            << "garbage line without fields\n"
            << fenStartPos << ";x;20\n"
            << "full\n"
            << fenStartPos << ";9;1\n";
    }
    initTables();
    std::ostringstream report;
    EXPECT_FALSE(runPerftFile(path, report));
    std::string text = report.str();
    EXPECT_NE(text.find("1; " + std::string(fenStartPos) + "; 3; 8902; 8902; "), std::string::npos) << text;
    EXPECT_NE(text.find("0; " + std::string(fenStartPos) + "; 2; 401; 400; "), std::string::npos) << text;
    EXPECT_NE(text.find("0; garbage line without fields"), std::string::npos) << text;
    EXPECT_EQ(text.substr(text.size() - 37), "Results of the perft checks is OK: 0\n");

    std::ofstream(path) << "full\n";
    std::ostringstream empty;
    EXPECT_TRUE(runPerftFile(path, empty));
    EXPECT_EQ(empty.str(), "Results of the perft checks is OK: 1\n");

    std::ostringstream missing;
    EXPECT_FALSE(runPerftFile(path + ".missing", missing));
    EXPECT_EQ(missing.str(),
              "There seems to be a problem with the perftFile. check of the move generator not executed\n");
}

}  // namespace
