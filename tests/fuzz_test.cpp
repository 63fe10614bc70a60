// Bad input never hurts: mutated FENs through the reader in process, and random and
// mutated command lines through the real binary. Under the sanitizer build both run
// instrumented, so any memory or undefined-behaviour fault stops the test. The seed is
// fixed for reproducibility; QUORVANE_FUZZ_SEED picks another.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "board/makemove.h"
#include "board/movegen.h"
#include "board/perft.h"
#include "engine_process.h"
#include "test_util.h"

namespace {

u64 fuzzSeed() {
    const char* s = std::getenv("QUORVANE_FUZZ_SEED");
    return s ? std::strtoull(s, nullptr, 10) : 20240611;
}

const char* const BASE_FENS[] = {
    "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
    "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
    "8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1",
    "r3k2r/Pppp1ppp/1b3nbN/nP6/BBP1P3/q4N2/Pp1P2PP/R2Q1RK1 w kq - 0 1",
    "rnbq1k1r/pp1Pbppp/2p5/8/2B5/8/PPP1NnPP/RNBQK2R w KQ - 1 8",
    "rnbqkbnr/ppp1pppp/8/3pP3/8/8/PPPP1PPP/RNBQKBNR w KQkq d6 0 2",
    "8/8/8/K2pP2r/8/8/8/7k w - d6 0 1",
    "3Q4/1Q4Q1/4Q3/2Q4R/Q4Q2/3Q4/1Q4Rp/1K1BBNNk w - - 0 1",
    "8/8/8/8/8/8/8/K6k w",
    "4k3/1P6/8/8/8/8/6p1/4K3 b - - 0 1",
};

const std::string FEN_ALPHABET = "pnbrqkPNBRQK12345678/ -wbKQkqabcdefgh0123456789x9";

std::string mutate(std::string s, std::mt19937_64& rng, const std::string& alphabet, int edits) {
    for (int e = 0; e < edits; e++) {
        size_t at = s.empty() ? 0 : rng() % s.size();
        char c = alphabet[rng() % alphabet.size()];
        switch (rng() % 6) {
            case 0:
                if (!s.empty())
                    s.erase(at, 1);
                break;
            case 1:
                s.insert(at, 1, c);
                break;
            case 2:
                if (!s.empty())
                    s[at] = c;
                break;
            case 3:
                if (!s.empty())
                    s.erase(at, rng() % 6);  // a run of characters
                break;
            case 4:
                s.insert(at, s.substr(rng() % (s.size() + 1), rng() % 8));  // a repeated piece
                break;
            default:
                s = s.substr(0, at);  // cut short
                break;
        }
    }
    return s;
}

// Accepted positions must satisfy what the rest of the engine relies on, and every
// generator, make and take-back must run cleanly on them.
TEST(FenFuzz, MutatedFensInProcess) {
    initTables();
    std::mt19937_64 rng(fuzzSeed());
    auto pos = std::make_unique<positionStruct>();
    std::vector<moveStruct> buffer(MOVE_BUFFER);
    int accepted = 0;
    const int rounds = 20000 / TEST_WORK_DIVISOR;
    for (int i = 0; i < rounds; i++) {
        std::string fen =
            mutate(BASE_FENS[rng() % std::size(BASE_FENS)], rng, FEN_ALPHABET, 1 + int(rng() % 3));
        std::string error;
        if (!setPosition(fen, pos.get(), &error)) {
            ASSERT_FALSE(error.empty()) << fen;
            continue;
        }
        accepted++;
        pos->bindMoveBuffer(buffer.data());
        const bitboard* b = pos->bitboards;
        ASSERT_EQ(popCount(b[WKING]), 1) << fen;
        ASSERT_EQ(popCount(b[BKING]), 1) << fen;
        ASSERT_EQ((b[WPAWN] | b[BPAWN]) & (rankBB(0) | rankBB(7)), 0u) << fen;
        int them = pos->sideToMove ^ 1;
        ASSERT_FALSE(
            squareAttacked(pos.get(), pos->kingSquare(them), pos->sideToMove, pos->occupied()))
            << fen;
        ASSERT_EQ(pos->hashKey, calcHashKey(0, pos.get())) << fen;
        ASSERT_EQ(pos->pawnKey, calcPawnKey(pos.get())) << fen;
        ASSERT_EQ(pos->keyHistory[pos->gamePly - 1], pos->hashKey) << fen;
        ASSERT_GE(pos->gamePly, 1);
        ASSERT_LE(pos->gamePly, 513);
        // Every legal move keeps the own king safe.
        setInCheck(0, pos.get());
        generateMovesLegal(0, buffer.data(), pos.get());
        for (moveStruct* m = buffer.data(); m < pos->plyStack[0].moveListEnd; m++) {
            int us = pos->sideToMove;
            makeMove(pos.get(), 0, *m);
            ASSERT_FALSE(squareAttacked(pos.get(), pos->kingSquare(us), us ^ 1, pos->occupied()))
                << fen << " " << moveToLA(m, u8(us));
            takeBack(pos.get(), 0, *m);
        }
        // Two plies of make and take-back leave the position as it was.
        u64 key = pos->hashKey;
        std::string diagram = boardToString(pos.get());
        perft(0, 2, pos.get());
        ASSERT_EQ(pos->hashKey, key) << fen;
        ASSERT_EQ(boardToString(pos.get()), diagram) << fen;
    }
    EXPECT_GT(accepted, rounds / 20) << "the mutations hardly ever produce a readable FEN";
}

// ---------------------------------------------------------------------------------------------
// The binary

const char* const BASE_LINES[] = {
    "uci",
    "isready",
    "ucinewgame",
    "help",
    "showboard",
    "perft 1",
    "perft 2",
    "position startpos",
    "position startpos moves e2e4 e7e5 g1f3 b8c6 f1b5",
    "position fen r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1 moves e1g1",
    "position fen 8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1 moves e2e4 c7c5 b5c6",
    "setoption name Hash value 2",
    "setoption name Threads value 2",
    "setoption name MoveOverhead value 50",
    "setoption name Ponder value true",
    "setoption name SyzygyProbeDepth value 3",
    "setoption name SyzygyPath value <empty>",
    "go depth 1",
    "go wtime 1000 btime 1000 winc 10 binc 10 movestogo 5",
    "go nodes 500 movetime 20",
    "stop",
    "ponderhit",
    "evil",
    "rtest no-such-file.txt",
};

const std::string LINE_ALPHABET = "abcdefghklmnopqrstuvwxyzKQRBNP0123456789 /-+_.<>\t\"'";
const char* const TOKENS[] = {"moves",    "fen",    "startpos",
                              "value",    "name",   "0",
                              "-1",       "3",      "99999999999999999999",
                              "e2e4",     "e7e8q",  "a1a1",
                              "depth",    "wtime",  "nodes",
                              "infinite", "ponder", "Hash",
                              "Threads",  ""};

std::string firstToken(const std::string& line) {
    std::istringstream in(line);
    std::string t;
    in >> t;
    return t;
}

// Keeps the fuzz bounded however the engine grows: no "quit", no perft deeper than 2
// (a bare "perft" uses the depth last set, which starts the run at 1).
bool safeToSend(const std::string& line) {
    std::string cmd = firstToken(line);
    if (cmd == "quit")
        return false;
    if (cmd == "perft") {
        std::istringstream in(line);
        std::string word, depth;
        in >> word >> depth;
        char* end = nullptr;
        long long d = depth.empty() ? 0 : std::strtoll(depth.c_str(), &end, 10);
        bool numeric = !depth.empty() && *end == '\0';
        return !numeric || d <= 2;
    }
    return true;
}

std::string randomLine(std::mt19937_64& rng) {
    switch (rng() % 5) {
        case 0: {  // raw bytes, anything but a newline
            std::string s(rng() % 40, ' ');
            for (auto& c : s)
                do
                    c = char(rng() % 256);
                while (c == '\n');
            return s;
        }
        case 1: {  // a base line with token edits
            std::istringstream in(BASE_LINES[rng() % std::size(BASE_LINES)]);
            std::vector<std::string> toks;
            for (std::string t; in >> t;)
                toks.push_back(t);
            for (int e = int(rng() % 3); e >= 0; e--) {
                size_t at = rng() % (toks.size() + 1);
                if (rng() % 2 && at < toks.size())
                    toks.erase(toks.begin() + long(at));
                else
                    toks.insert(toks.begin() + long(at), TOKENS[rng() % std::size(TOKENS)]);
            }
            std::string s;
            for (const auto& t : toks)
                s += t + (rng() % 8 ? " " : "  ");
            return s;
        }
        case 2:  // a mutated FEN
            return "position fen "
                   + mutate(BASE_FENS[rng() % std::size(BASE_FENS)], rng, FEN_ALPHABET,
                            1 + int(rng() % 3));
        default:  // a base line with character edits
            return mutate(BASE_LINES[rng() % std::size(BASE_LINES)], rng, LINE_ALPHABET,
                          1 + int(rng() % 3));
    }
}

// Lines a running search may print at any moment; they belong to no command.
bool searchOutput(const std::string& line) {
    return line.rfind("bestmove", 0) == 0
           || (line.rfind("info ", 0) == 0 && line.rfind("info string", 0) != 0);
}

TEST(UciFuzz, RandomAndMutatedCommandLines) {
    namespace fs = std::filesystem;
    fs::path dir = fs::path(testing::TempDir()) / "quorvane_fuzz";
    fs::create_directories(dir);  // no perft.txt or tuning file here
    engineOptionsStruct opts;
    opts.workDir = dir.string();
    opts.env = {"QUORVANE_HASH_LIMIT_MB=16"};
    engineProcess engine(opts);
    ASSERT_TRUE(engine.readUntil("enter 'help' to see the commands"));

    std::mt19937_64 rng(fuzzSeed());
    auto ask = [&](const std::string& line) {
        auto reply = engine.ask(line);
        if (!reply)
            return reply;
        std::string cmd = firstToken(line);
        if (cmd == "ucinewgame" || cmd == "isready") {  // they answer "readyok" themselves
            if (!engine.readUntil("readyok"))
                return std::optional<std::vector<std::string>>();
        }
        reply->erase(std::remove_if(reply->begin(), reply->end(), searchOutput), reply->end());
        return reply;
    };
    ASSERT_TRUE(ask("perft 1"));
    auto board = ask("showboard");
    ASSERT_TRUE(board);

    const int maxLines = 3000 / TEST_WORK_DIVISOR;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    int sent = 0;
    for (; sent < maxLines && std::chrono::steady_clock::now() < deadline; sent++) {
        std::string line = randomLine(rng);
        if (!safeToSend(line))
            continue;
        std::string cmd = firstToken(line);
        auto reply = ask(line);
        ASSERT_TRUE(reply) << "no answer after: '" << line << "'\n"
                           << engine.transcript().substr(engine.transcript().size() > 3000
                                                             ? engine.transcript().size() - 3000
                                                             : 0);
        if (cmd == "go") {
            ASSERT_TRUE(ask("stop"));
        }
        ASSERT_LE(reply->size(), 40u) << line;
        if (cmd == "position") {
            bool refused = std::any_of(reply->begin(), reply->end(),
                                       [](auto& l) { return l.rfind("info string", 0) == 0; });
            auto now = ask("showboard");
            ASSERT_TRUE(now);
            // Refused FENs leave the board alone; refused moves keep those before them.
            bool fenRefused = refused && (*reply)[0].find("FEN") != std::string::npos;
            if (fenRefused || (refused && (*reply)[0].find("needs") != std::string::npos)) {
                ASSERT_EQ(*now, *board) << line;
            }
            board = now;
        }
    }
    EXPECT_GT(sent, maxLines / 10);

    auto startpos = ask("position startpos");
    ASSERT_TRUE(startpos);
    auto perft = ask("perft 2");
    ASSERT_TRUE(perft && !perft->empty());
    EXPECT_EQ(perft->back().rfind("Perft results for depth: 2  400  ", 0), 0u) << perft->back();
    engine.send("quit");
    EXPECT_EQ(engine.finish(), 0);
}

// Huge and overflowing numbers in every numeric argument: each command answers, no
// search or perft runs past the ply records, and the engine goes on afterwards.
TEST(UciFuzz, HugeNumbers) {
    namespace fs = std::filesystem;
    fs::path dir = fs::path(testing::TempDir()) / "quorvane_huge";
    fs::create_directories(dir);
    {
        std::ofstream deep(dir / "deep.txt");
        deep << fenStartPos << ";300;1\n" << fenStartPos << ";2147483648;1\n";
    }
    engineOptionsStruct opts;
    opts.workDir = dir.string();
    opts.env = {"QUORVANE_HASH_LIMIT_MB=16"};
    engineProcess engine(opts);
    ASSERT_TRUE(engine.readUntil("enter 'help' to see the commands"));
    ASSERT_TRUE(engine.ask("setoption name Hash value 16"));  // past the start-up table note

    const std::string big = "99999999999999999999";
    const std::string perftRefused = "info string perft depth must be from 1 to 127";
    const std::string benchRefused = "info string bench depth must be a number from 1 to 127";
    const struct {
        std::string line;
        std::vector<std::string> reply;  // checked unless it is a "go"
    } cases[] = {
        {"perft 128", {perftRefused}},
        {"perft 300", {perftRefused}},
        {"perft 2147483648", {perftRefused}},
        {"perft " + big, {perftRefused}},
        {"perft -2147483649", {perftRefused}},
        {"bench 2147483648", {benchRefused}},
        {"bench -" + big, {benchRefused}},
        {"rtest deep.txt",
         {std::string("0; ") + fenStartPos + ";300;1; unreadable test line",
          std::string("0; ") + fenStartPos + ";2147483648;1; unreadable test line",
          "Results of the perft checks is OK: 0"}},
        {"setoption name Hash value " + big, {"info string Size of Hashtable set to : 262144",
                                              "info string not enough memory for a table of "
                                              "262144 MB, using 16 MB"}},
        {"setoption name Threads value -" + big, {"info string Number of threads set to : 1"}},
        {"setoption name MoveOverhead value 2147483648",
         {"info string MoveOverhead set to : 60000"}},
        {"setoption name SyzygyProbeDepth value " + big,
         {"info string SyzygyProbeDepth set to: 127"}},
        {"position fen 8/8/8/8/8/8/8/K6k w - - 2147483648 " + big,
         {"info string invalid FEN (bad half-move clock), position unchanged"}},
        {"go depth 2147483648", {}},
        {"go depth " + big + " movetime " + big + " nodes " + big + "9", {}},
        {"go mate 2147483648 nodes 18446744073709551615", {}},
        {"go wtime " + big + " btime " + big + " winc " + big + " binc " + big + " movestogo " + big,
         {}},
        {"go wtime -" + big + " btime -2147483649 winc -" + big + " binc -1 movestogo -" + big, {}},
        {"go wtime 2147483647 winc 2147483647 movestogo 2147483647", {}},
    };
    for (const auto& c : cases) {
        auto reply = engine.ask(c.line);
        ASSERT_TRUE(reply) << "no answer after: " << c.line;
        if (c.line.rfind("go ", 0) != 0) {
            EXPECT_EQ(*reply, c.reply) << c.line;
            continue;
        }
        // Huge limits run until stopped; tiny clocks end at once, perhaps before the
        // "readyok". Either way one move.
        ASSERT_TRUE(engine.send("stop"));
        bool moved = std::any_of(reply->begin(), reply->end(),
                                 [](auto& l) { return l.rfind("bestmove", 0) == 0; });
        for (std::optional<std::string> l; !moved && (l = engine.readLine());)
            moved = l->rfind("bestmove", 0) == 0;
        ASSERT_TRUE(moved) << "no bestmove after: " << c.line;
    }
    auto perft = engine.ask("perft 2");
    ASSERT_TRUE(perft && !perft->empty());
    EXPECT_EQ(perft->back().rfind("Perft results for depth: 2  400  ", 0), 0u) << perft->back();
    engine.send("quit");
    EXPECT_EQ(engine.finish(), 0);
}

}  // namespace
