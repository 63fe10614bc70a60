// The engine playing through its protocol, driven through the real binary the way a GUI
// drives it: "go" with depth and clock limits, "stop", "ponderhit", "quit" during a search,
// the bench signature, threads, clock games and the tablebase path.
#include "engine_process.h"
#include "test_util.h"

namespace {

using clockType = std::chrono::steady_clock;

i64 msSince(clockType::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clockType::now() - t).count();
}

// The moves after " pv " in an info line.
std::vector<std::string> pvOf(const std::string& info) {
    const size_t at = info.find(" pv ");
    return at == std::string::npos ? std::vector<std::string>{} : words(info.substr(at + 4));
}

struct searchOutput {
    std::vector<std::string> info;
    std::string best, ponder;
    bool ended = false;
};

searchOutput readSearch(engineProcess& e, int timeoutMs = engineProcess::DEFAULT_TIMEOUT_MS) {
    searchOutput out;
    while (auto line = e.readLine(timeoutMs)) {
        if (line->rfind("info", 0) == 0)
            out.info.push_back(*line);
        if (line->rfind("bestmove ", 0) == 0) {
            auto w = words(*line);
            out.best = w[1];
            out.ponder = w.size() >= 4 && w[2] == "ponder" ? w[3] : "";
            out.ended = true;
            break;
        }
    }
    return out;
}

// The bestmove, the ponder move and every pv of a search from fen are legal lines.
void expectLegalOutput(const std::string& fen, const searchOutput& out) {
    ASSERT_TRUE(out.ended) << fen;
    std::vector<std::string> line = {out.best};
    if (!out.ponder.empty())
        line.push_back(out.ponder);
    EXPECT_EQ(firstIllegal(fen, line), "")
        << fen << " bestmove " << out.best << " ponder " << out.ponder;
    for (const auto& info : out.info)
        if (info.find(" pv ") != std::string::npos) {
            EXPECT_EQ(firstIllegal(fen, pvOf(info)), "") << fen << "\n" << info;
        }
}

// The engine past its banner, with a small table.
struct readyEngine : engineProcess {
    readyEngine() {
        EXPECT_TRUE(started());
        EXPECT_TRUE(readUntil("enter 'help' to see the commands"));
        ask("setoption name Hash value 16");
    }
};

TEST(EngineSearch, DepthLimitsProgressLinesAndMates) {
    readyEngine e;
    const std::string fen = "r1bqkb1r/pppp1ppp/2n2n2/4p3/2B1P3/5N2/PPPP1PPP/RNBQK2R w KQkq - 4 4";
    e.send("position fen " + fen);
    e.send("go depth 10");
    auto out = readSearch(e, 120000);
    expectLegalOutput(fen, out);
    ASSERT_FALSE(out.info.empty());
    auto w = words(out.info.back());
    ASSERT_GE(w.size(), 17u) << out.info.back();
    EXPECT_EQ(w[1] + w[2] + w[4] + w[5] + w[6] + w[8] + w[10] + w[12] + w[14] + w[16],
              "scorecpdepth10seldepthnodesnpstimetbhitspv")
        << out.info.back();
    // A mate in one is reported and played; a mated root answers with the null move.
    e.send("position fen 6k1/5ppp/8/8/8/8/5PPP/3R2K1 w - - 0 1");
    e.send("go depth 6");
    out = readSearch(e);
    EXPECT_EQ(out.best, "d1d8");
    EXPECT_TRUE(std::any_of(out.info.begin(), out.info.end(),
                            [](auto& l) { return l.rfind("info score mate 1 ", 0) == 0; }));
    e.send("position startpos moves f2f3 e7e5 g2g4 d8h4");
    e.send("go depth 5");
    out = readSearch(e);
    ASSERT_FALSE(out.info.empty());
    EXPECT_EQ(out.info.back(), "info score mate 0");
    EXPECT_EQ(out.best, "a1a1");
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineSearch, StopQuitAndEndOfInputDuringASearch) {
    for (const char* end : {"stop", "quit", ""}) {
        readyEngine e;
        e.send("position startpos");
        e.send("go infinite");
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(e.readUntil("bestmove", 100)) << "an infinite search never answers by itself";
        auto t0 = clockType::now();
        if (*end) {
            e.send(end);
            expectLegalOutput(fenStartPos, readSearch(e));
            EXPECT_LT(msSince(t0), 2000 * ENGINE_TIME_SCALE) << end;
        }
        EXPECT_EQ(e.finish(), 0);
        if (!*end) {
            EXPECT_NE(e.rest().find("bestmove "), std::string::npos)
                << "end of input acts like quit";
        }
    }
}

TEST(EngineSearch, PonderHoldsTheAnswerUntilPonderhit) {
    readyEngine e;
    e.ask("setoption name Ponder value true");
    e.send("position startpos moves d2d4");
    // A budget so small that the search ends by itself while still pondering: it holds
    // the answer until "ponderhit".
    e.send("go ponder wtime 300 btime 300");
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    auto line = e.readLine(100);
    while (line && line->rfind("info", 0) == 0)
        line = e.readLine(100);
    EXPECT_FALSE(line) << "answered while pondering: " << *line;
    e.send("ponderhit");
    expectLegalOutput("rnbqkbnr/pppppppp/8/8/3P4/8/PPP1PPPP/RNBQKBNR b KQkq - 0 1",
                      readSearch(e, 2000 * ENGINE_TIME_SCALE));
    EXPECT_EQ(e.finish(), 0);
}

// The bench node count is the engine's signature: any change to it must be intended and
// recorded. Too slow for the sanitizer builds, which search the same tree.
TEST(EngineSearch, BenchSignatureAsRecorded) {
    if (ENGINE_TIME_SCALE > 1)
        GTEST_SKIP() << "bench runs in the release build only";
    std::ifstream recorded(std::string(QUORVANE_SOURCE_DIR) + "/tools/bench_signature.txt");
    std::string signature;
    ASSERT_TRUE(recorded >> signature) << "tools/bench_signature.txt missing";
    engineOptionsStruct opts;
    opts.args = {"bench"};
    engineProcess e(opts);
    EXPECT_EQ(e.finish(120000), 0);
    EXPECT_NE(e.rest().find("\nNodes searched: " + signature + "\n"), std::string::npos)
        << "bench signature changed (recorded " << signature << "):\n"
        << e.rest().substr(e.rest().rfind("Nodes searched"));
}

// A GUI-driven game against itself: the clocks, kept by the test, never run out.
// Sanitizer builds think slower: their clock, increment and overhead are stretched alike,
// and they play the first 40 plies only: enough moves for their memory and race checks.
// The overhead covers the pipe and the scheduler of a shared machine: 50 ms proved short
// once (a 105 ms move on 97 ms left, with the budget at 23 ms).
void playClockGame(bool movesToGo) {
    readyEngine e;
    e.ask("setoption name MoveOverhead value " + std::to_string(100 * ENGINE_TIME_SCALE));
    e.send("ucinewgame");
    e.readUntil("readyok");
    i64 clock[2] = {2000 * ENGINE_TIME_SCALE, 2000 * ENGINE_TIME_SCALE};
    const i64 inc = 20 * ENGINE_TIME_SCALE;
    std::string moves, history;
    const int plies = ENGINE_TIME_SCALE > 1 ? 40 : 160;
    for (int ply = 0; ply < plies; ply++) {
        const int side = ply & 1;
        e.send(moves.empty() ? std::string("position startpos")
                             : "position startpos moves" + moves);
        std::string go = "go wtime " + std::to_string(clock[0]) + " btime "
                         + std::to_string(clock[1]) + " winc " + std::to_string(inc) + " binc "
                         + std::to_string(inc);
        auto t0 = clockType::now();
        e.send(movesToGo ? go + " movestogo " + std::to_string(40 - (ply / 2) % 40) : go);
        auto out = readSearch(e, int(clock[side]) + 5000);
        const i64 used = msSince(t0);
        history += ' ' + std::to_string(clock[side]);
        history += '-' + std::to_string(used);
        clock[side] += inc - used;
        ASSERT_TRUE(out.ended) << "ply " << ply;
        ASSERT_GE(clock[side], inc)
            << "flagged at ply " << ply << "; clock-used per ply:" << history;
        if (out.best == "a1a1")
            break;
        moves += " " + out.best;
        ASSERT_EQ(firstIllegal(fenStartPos, words(moves)), "");
    }
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineClock, GameAtTwoSecondsNeverFlags) { playClockGame(false); }
TEST(EngineClock, GameWithMovesToGoNeverFlags) { playClockGame(true); }

TEST(SearchThreads, RapidGoStopCyclesLoseNoMove) {
    readyEngine e;
    for (int threads : {1, 4}) {
        auto reply = e.ask("setoption name Threads value " + std::to_string(threads));
        EXPECT_EQ(reply.value_or(std::vector<std::string>{}), threadsOptionReply(threads));
        e.send("position startpos moves e2e4");
        const int cycles = 200;
        for (int i = 0; i < cycles; i++) {
            e.send(i % 3 == 2 ? "go depth 3" : "go infinite");
            e.send("stop");
        }
        int bestmoves = 0;
        for (searchOutput out;
             bestmoves < cycles && (out = readSearch(e, 20000 * ENGINE_TIME_SCALE)).ended;
             bestmoves++)
            EXPECT_EQ(firstIllegal("rnbqkbnr/pppppppp/8/8/4P3/8/PPPP1PPP/RNBQKBNR b KQkq - 0 1",
                                   {out.best}),
                      "");
        EXPECT_EQ(bestmoves, cycles) << threads << " threads";
        EXPECT_TRUE(e.send("isready") && e.readUntil("readyok"));
    }
    EXPECT_EQ(e.finish(), 0);
}

// SyzygyPath set during a search is confirmed at once and loaded when the next "go" begins;
// a won position of the tables is then answered at once, in one info line. Then a table
// first opened by a search thread while the command loop waits for that search to end (the
// WebAssembly console's search threads ask its main thread for file access).
TEST(EngineTablebases, PathTakesEffectAtTheNextGoAndLoadsDuringAWait) {
    REQUIRE_DATA("syzygy/KQvK.rtbw");
    readyEngine e;
    e.send("go infinite");
    auto reply = e.ask("setoption name SyzygyPath value " + dataPath("syzygy"));
    ASSERT_TRUE(reply);
    std::erase_if(*reply, [](auto& l) { return l.rfind("info string", 0) != 0; });  // search lines
    EXPECT_EQ(*reply,
              std::vector<std::string>{"info string Syzygy tablebases used from directory : "
                                       + dataPath("syzygy")});
    e.send("stop");
    EXPECT_TRUE(readSearch(e).ended);
    std::string fen = "8/8/8/4k3/8/8/3QK3/8 w - - 0 1";
    e.send("position fen " + fen);
    auto t0 = clockType::now();
    e.send("go wtime 60000 btime 60000");
    EXPECT_EQ(e.readLine(), "Found 35 tablebases.");
    auto out = readSearch(e);
    EXPECT_LT(msSince(t0), 1000 * ENGINE_TIME_SCALE);
    expectLegalOutput(fen, out);
    ASSERT_EQ(out.info.size(), 1u);
    EXPECT_EQ(pvOf(out.info[0]), std::vector<std::string>{out.best}) << out.info[0];

    // One write: the loop reads the next "position", which waits for the search, before the
    // search has probed its table (KRvK, not opened yet).
    fen = "8/8/8/4k3/8/8/3RK3/8 w - - 0 1";
    ASSERT_TRUE(e.sendRaw("position fen " + fen + "\ngo infinite\nposition startpos\n"));
    expectLegalOutput(fen, readSearch(e));
    e.send("go depth 1");  // from the start position: the loop runs on
    EXPECT_TRUE(readSearch(e).ended);
    EXPECT_EQ(e.finish(), 0);
}

}  // namespace
