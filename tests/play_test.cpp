// The engine playing through its protocol: "go" with every kind of limit, "stop",
// "ponderhit", "quit" during a search, bench, threads and clock handling, all driven
// through the real binary the way a GUI drives it.
#include <fstream>
#include <map>
#include <sstream>

#include "board/makemove.h"
#include "board/movegen.h"
#include "engine_process.h"
#include "test_util.h"

namespace {

using clockType = std::chrono::steady_clock;

i64 msSince(clockType::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clockType::now() - t).count();
}

// Plays the moves of `line` from `fen`; true when every one is legal in turn.
bool legalLine(const std::string& fen, const std::vector<std::string>& moves, std::string* bad = nullptr) {
    testPosition pos(fen);
    for (const auto& text : moves) {
        setInCheck(0, pos.get());
        generateMovesLegal(0, pos.buffer.data(), pos.get());
        moveStruct* found = nullptr;
        for (moveStruct* m = pos.buffer.data(); m < pos->plyStack[0].moveListEnd; m++)
            if (moveToLA(m, pos->sideToMove) == text)
                found = m;
        if (!found) {
            if (bad)
                *bad = text;
            return false;
        }
        makeMove(pos.get(), 0, *found);
        pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
        pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
    }
    return true;
}

std::vector<std::string> words(const std::string& s) {
    std::istringstream in(s);
    std::vector<std::string> w;
    for (std::string t; in >> t;)
        w.push_back(t);
    return w;
}

// The moves after "pv" in an info line.
std::vector<std::string> pvOf(const std::string& info) {
    auto w = words(info);
    auto it = std::find(w.begin(), w.end(), "pv");
    return it == w.end() ? std::vector<std::string>{} : std::vector<std::string>(it + 1, w.end());
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
            if (w.size() >= 4 && w[2] == "ponder")
                out.ponder = w[3];
            out.ended = true;
            break;
        }
    }
    return out;
}

// Checks the bestmove and every pv of a search from fen.
void expectLegalOutput(const std::string& fen, const searchOutput& out) {
    ASSERT_TRUE(out.ended) << fen;
    std::string bad;
    EXPECT_TRUE(legalLine(fen, {out.best}, &bad)) << fen << " bestmove " << out.best;
    if (!out.ponder.empty()) {
        EXPECT_TRUE(legalLine(fen, {out.best, out.ponder})) << fen << " ponder " << out.ponder;
    }
    for (const auto& info : out.info) {
        if (info.find(" pv ") != std::string::npos) {
            EXPECT_TRUE(legalLine(fen, pvOf(info), &bad)) << fen << "\n" << info << "\nillegal: " << bad;
        }
    }
}

// Waits for the banner and sets a small table.
void prepare(engineProcess& e) {
    EXPECT_TRUE(e.started());
    EXPECT_TRUE(e.readUntil("enter 'help' to see the commands"));
    e.ask("setoption name Hash value 16");
}

TEST(EngineSearch, GoDepthEndsWithLegalBestMove) {
    engineProcess e;
    prepare(e);
    e.send("position startpos moves e2e4 e7e5");
    e.send("go depth 5");
    auto out = readSearch(e);
    expectLegalOutput("rnbqkbnr/pppp1ppp/8/4p3/4P3/8/PPPP1PPP/RNBQKBNR w KQkq - 0 2", out);
    // Depths below 10 print no progress lines.
    for (const auto& info : out.info)
        EXPECT_EQ(info.find("info score cp"), std::string::npos) << info;
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineSearch, DepthTenPrintsProgressWithLegalLines) {
    engineProcess e;
    prepare(e);
    const std::string fen = "r1bqkb1r/pppp1ppp/2n2n2/4p3/2B1P3/5N2/PPPP1PPP/RNBQK2R w KQkq - 4 4";
    e.send("position fen " + fen);
    e.send("go depth 10");
    auto out = readSearch(e, 120000);
    expectLegalOutput(fen, out);
    ASSERT_FALSE(out.info.empty());
    auto w = words(out.info.back());
    ASSERT_GE(w.size(), 17u) << out.info.back();
    EXPECT_EQ(w[1], "score");
    EXPECT_EQ(w[2], "cp");
    EXPECT_EQ(w[4], "depth");
    EXPECT_EQ(w[5], "10");
    for (const char* key : {"seldepth", "nodes", "nps", "time", "tbhits", "pv"})
        EXPECT_NE(std::find(w.begin(), w.end(), key), w.end()) << key;
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineSearch, InfiniteStopsPromptly) {
    engineProcess e;
    prepare(e);
    e.send("position startpos");
    e.send("go infinite");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    // An infinite search never answers by itself.
    EXPECT_FALSE(e.readUntil("bestmove", 200));
    auto t0 = clockType::now();
    e.send("stop");
    auto out = readSearch(e);
    EXPECT_LT(msSince(t0), 2000 * ENGINE_TIME_SCALE);
    expectLegalOutput(fenStartPos, out);
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineSearch, PonderHoldsTheMoveUntilPonderhit) {
    engineProcess e;
    prepare(e);
    e.ask("setoption name Ponder value true");
    e.send("position startpos moves d2d4");
    // A budget so small that the search ends by itself while still pondering.
    e.send("go ponder wtime 300 btime 300");
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    auto line = e.readLine(100);
    while (line && line->rfind("info", 0) == 0)
        line = e.readLine(100);
    EXPECT_FALSE(line) << "answered while pondering: " << *line;
    e.send("ponderhit");
    auto out = readSearch(e, 2000 * ENGINE_TIME_SCALE);
    expectLegalOutput("rnbqkbnr/pppppppp/8/8/3P4/8/PPP1PPPP/RNBQKBNR b KQkq - 0 1", out);

    // Ponderhit during a still running search hands it over to the clock.
    e.send("go ponder wtime 2000 btime 2000");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    e.send("ponderhit");
    auto t0 = clockType::now();
    out = readSearch(e, 5000 * ENGINE_TIME_SCALE);
    EXPECT_TRUE(out.ended);
    EXPECT_LT(msSince(t0), 2000 * ENGINE_TIME_SCALE);
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineSearch, MovetimeIsRespected) {
    engineProcess e;
    prepare(e);
    e.send("position startpos");
    auto t0 = clockType::now();
    e.send("go movetime 200");
    auto out = readSearch(e);
    i64 took = msSince(t0);
    expectLegalOutput(fenStartPos, out);
    EXPECT_GE(took, 150);
    EXPECT_LT(took, 200 + 400 * ENGINE_TIME_SCALE);
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineSearch, QuitDuringSearchStillAnswers) {
    engineProcess e;
    prepare(e);
    e.send("position startpos");
    e.send("go infinite");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    e.send("quit");
    auto out = readSearch(e);
    EXPECT_TRUE(out.ended);
    EXPECT_EQ(e.finish(), 0);

    // End of input during a search acts like "quit".
    engineProcess f;
    prepare(f);
    f.send("go infinite");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(f.finish(), 0);
    EXPECT_NE(f.rest().find("bestmove "), std::string::npos);
}

TEST(EngineSearch, MatedAndSingleMoveRoots) {
    engineProcess e;
    prepare(e);
    // Fool's mate: White is checkmated.
    e.send("position startpos moves f2f3 e7e5 g2g4 d8h4");
    e.send("go depth 5");
    auto out = readSearch(e);
    ASSERT_TRUE(out.ended);
    ASSERT_FALSE(out.info.empty());
    EXPECT_EQ(out.info.back(), "info score mate 0");
    EXPECT_EQ(out.best, "a1a1");

    // Only one legal move: answered after depth 3, without progress lines.
    const std::string fen = "k7/8/2K5/8/8/8/8/R7 b - - 0 1";
    e.send("position fen " + fen);
    e.send("go wtime 100000 btime 100000");
    auto t0 = clockType::now();
    out = readSearch(e);
    EXPECT_LT(msSince(t0), 2000 * ENGINE_TIME_SCALE);
    EXPECT_EQ(out.best, "a8b8");
    for (const auto& info : out.info)
        EXPECT_EQ(info.find("info score cp"), std::string::npos) << info;
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineSearch, MateIsReportedAndPlayed) {
    engineProcess e;
    prepare(e);
    const std::string fen = "6k1/5ppp/8/8/8/8/5PPP/3R2K1 w - - 0 1";
    e.send("position fen " + fen);
    e.send("go depth 6");
    auto out = readSearch(e);
    expectLegalOutput(fen, out);
    EXPECT_EQ(out.best, "d1d8");
    bool mateLine = false;
    for (const auto& info : out.info)
        mateLine |= info.rfind("info score mate 1 ", 0) == 0;
    EXPECT_TRUE(mateLine);
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineSearch, BenchIsDeterministic) {
    auto run = [] {
        engineOptionsStruct opts;
        opts.args = {"bench", "6"};
        engineProcess e(opts);
        EXPECT_EQ(e.finish(120000 * ENGINE_TIME_SCALE), 0);
        std::vector<std::string> lines;
        std::istringstream in(e.rest());
        for (std::string l; std::getline(in, l);)
            lines.push_back(l);
        EXPECT_GE(lines.size(), 2u);
        return lines;
    };
    auto a = run(), b = run();
    ASSERT_GE(a.size(), 2u);
    ASSERT_GE(b.size(), 2u);
    EXPECT_EQ(a[a.size() - 2].rfind("Nodes searched: ", 0), 0u) << a[a.size() - 2];
    EXPECT_EQ(a.back().rfind("Nodes/second: ", 0), 0u) << a.back();
    EXPECT_EQ(a[a.size() - 2], b[b.size() - 2]);
}

TEST(EngineSearch, ManyPositionsGiveLegalMoves) {
    REQUIRE_DATA("openings/openings.epd");
    std::ifstream in(dataPath("openings/openings.epd"));
    std::vector<std::string> fens;
    for (std::string l; fens.size() < 120 && std::getline(in, l);)
        fens.push_back(l);
    engineProcess e;
    prepare(e);
    for (size_t i = 0; i < fens.size(); i++) {
        e.send("position fen " + fens[i]);
        e.send(i % 12 == 0 ? "go depth 10" : "go depth 3");
        expectLegalOutput(fens[i], readSearch(e, 60000 * ENGINE_TIME_SCALE));
    }
    EXPECT_EQ(e.finish(), 0);
}

// A GUI-driven game against itself: the clocks, kept by the test, never run out.
void playClockGame(bool movesToGo) {
    engineProcess e;
    prepare(e);
    // Sanitizer builds think and answer several times slower: their clock, increment and
    // overhead are stretched alike, so the test asks the same of them.
    e.ask("setoption name MoveOverhead value " + std::to_string(50 * ENGINE_TIME_SCALE));
    e.send("ucinewgame");
    e.readUntil("readyok");
    i64 clock[2] = {2000 * ENGINE_TIME_SCALE, 2000 * ENGINE_TIME_SCALE};
    const i64 inc = 20 * ENGINE_TIME_SCALE;
    std::vector<std::string> moves;
    std::string fen = fenStartPos, history;
    for (int ply = 0; ply < 160; ply++) {
        int side = ply & 1;
        std::string pos = "position startpos";
        if (!moves.empty()) {
            pos += " moves";
            for (auto& m : moves)
                pos += " " + m;
        }
        e.send(pos);
        std::string go = "go wtime " + std::to_string(clock[0]) + " btime " + std::to_string(clock[1]) + " winc "
                       + std::to_string(inc) + " binc " + std::to_string(inc);
        if (movesToGo)
            go += " movestogo " + std::to_string(40 - (ply / 2) % 40);
        auto t0 = clockType::now();
        e.send(go);
        auto out = readSearch(e, int(clock[side]) + 5000);
        i64 used = msSince(t0);
        history += " ";
        history += std::to_string(clock[side]);
        history += "-";
        history += std::to_string(used);
        clock[side] -= used;
        ASSERT_TRUE(out.ended) << "ply " << ply;
        ASSERT_GE(clock[side], 0) << "flagged at ply " << ply << (movesToGo ? " with movestogo" : "")
                                  << "; clock-used per ply:" << history;
        clock[side] += inc;
        if (out.best == "a1a1")
            break;
        ASSERT_TRUE(legalLine(fen, [&] { auto v = moves; v.push_back(out.best); return v; }()));
        moves.push_back(out.best);
    }
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineClock, GameAtTwoSecondsNeverFlags) { playClockGame(false); }
TEST(EngineClock, GameWithMovesToGoNeverFlags) { playClockGame(true); }

TEST(SearchThreads, ThreadCountChangesBetweenSearches) {
    engineProcess e;
    prepare(e);
    for (int threads : {4, 1, 3, 2}) {
        auto reply = e.ask("setoption name Threads value " + std::to_string(threads));
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->back(), "info string Number of threads set to : " + std::to_string(threads));
        e.send("position startpos moves g1f3 d7d5");
        e.send("go depth 8");
        expectLegalOutput("rnbqkbnr/ppp1pppp/8/3p4/8/5N2/PPPPPPPP/RNBQKB1R w KQkq - 0 2", readSearch(e, 60000));
    }
    EXPECT_EQ(e.finish(), 0);
}

TEST(SearchThreads, RapidGoStopCyclesLoseNoMove) {
    for (int threads : {1, 4}) {
        engineProcess e;
    prepare(e);
        e.ask("setoption name Threads value " + std::to_string(threads));
        e.send("position startpos moves e2e4");
        const int cycles = 200;
        for (int i = 0; i < cycles; i++) {
            e.send(i % 3 == 2 ? "go depth 3" : "go infinite");
            e.send("stop");
        }
        int bestmoves = 0;
        for (int i = 0; i < cycles; i++) {
            auto out = readSearch(e, 20000 * ENGINE_TIME_SCALE);
            if (!out.ended)
                break;
            bestmoves++;
            EXPECT_TRUE(legalLine("rnbqkbnr/pppppppp/8/8/4P3/8/PPPP1PPP/RNBQKBNR b KQkq - 0 1", {out.best}))
                << out.best;
        }
        EXPECT_EQ(bestmoves, cycles) << threads << " threads";
        EXPECT_TRUE(e.ask("isready"));
        EXPECT_EQ(e.finish(), 0);
    }
}

}  // namespace

namespace {

// Value of the word after `key` in an info line, or -1.
long long infoField(const std::string& info, const std::string& key) {
    auto w = words(info);
    auto it = std::find(w.begin(), w.end(), key);
    return it == w.end() || it + 1 == w.end() ? -1 : std::stoll(*(it + 1));
}

TEST(EngineTablebases, RootAnswersAtOnceAndTheTreeProbes) {
    REQUIRE_DATA("syzygy/KRPvK.rtbw");
    engineProcess e;
    prepare(e);
    // Set during a search, the path is confirmed at once; the search goes on undisturbed
    // and the tables are loaded when the next "go" begins.
    e.send("go infinite");
    auto reply = e.ask("setoption name SyzygyPath value " + dataPath("syzygy"));
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, std::vector<std::string>{"info string Syzygy tablebases used from directory : "
                                               + dataPath("syzygy")});
    e.send("stop");
    EXPECT_TRUE(readSearch(e).ended);

    // Won and drawn positions of the tables: a tablebase move at once, without a search.
    bool first = true;
    for (const std::string fen : {"8/8/8/4k3/8/8/3QK3/8 w - - 0 1", "8/8/8/4k3/8/8/3NK3/8 b - - 0 1",
                                  "8/8/4k3/8/3P4/3K4/8/8 w - - 0 1"}) {
        e.send("position fen " + fen);
        auto t0 = clockType::now();
        e.send("go wtime 60000 btime 60000");
        if (first) {
            EXPECT_EQ(e.readLine(), "Found 35 tablebases.");
        }
        first = false;
        auto out = readSearch(e);
        EXPECT_LT(msSince(t0), 1000 * ENGINE_TIME_SCALE) << fen;
        expectLegalOutput(fen, out);
        ASSERT_EQ(out.info.size(), 1u) << fen;
        EXPECT_EQ(pvOf(out.info[0]), std::vector<std::string>{out.best}) << out.info[0];
    }

    // Five pieces: the exchange of rooks leads into the tables, which the tree probes.
    const std::string fen = "3r2k1/8/8/8/8/8/5P2/3R2K1 w - - 0 1";
    e.send("position fen " + fen);
    e.send("go depth 12");
    auto out = readSearch(e, 60000 * ENGINE_TIME_SCALE);
    expectLegalOutput(fen, out);
    ASSERT_FALSE(out.info.empty());
    EXPECT_GT(infoField(out.info.back(), "tbhits"), 0) << out.info.back();
    EXPECT_EQ(e.finish(), 0);
}

}  // namespace
