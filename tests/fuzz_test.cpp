// Bad input through the real binary: numbers past every limit, then random and mutated
// command lines. Under the sanitizer build the engine runs instrumented, so any memory or
// undefined-behaviour fault ends it and fails the test. (Mutated FENs through the reader in
// process: the fuzz regression tests.)
#include <algorithm>
#include <chrono>
#include <random>

#include "engine_process.h"

namespace {

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
const std::vector<std::string> TOKENS = words(
    "moves fen startpos value name 0 -1 3 99999999999999999999 e2e4 e7e8q a1a1 depth wtime nodes "
    "infinite ponder Hash Threads");

// Keeps the fuzz bounded however the engine grows: no "quit", no perft deeper than 2
// (a bare "perft" uses the depth last set, which starts the run at 1).
bool safeToSend(const std::string& line) {
    const std::vector<std::string> w = words(line);
    long long depth;  // a depth that is no number is refused before any count
    return w.empty()
           || (w[0] != "quit"
               && !(w[0] == "perft" && w.size() >= 2 && wholeNumber(w[1], depth) && depth > 2));
}

std::string randomLine(std::mt19937_64& rng) {
    const char* base = BASE_LINES[rng() % std::size(BASE_LINES)];
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
            std::vector<std::string> toks = words(base);
            for (int e = int(rng() % 3); e >= 0; e--) {
                size_t at = rng() % (toks.size() + 1);
                if (rng() % 2 && at < toks.size())
                    toks.erase(toks.begin() + long(at));
                else
                    toks.insert(toks.begin() + long(at), TOKENS[rng() % TOKENS.size()]);
            }
            std::string s;
            for (const auto& t : toks)
                s += t + (rng() % 8 ? " " : "  ");
            return s;
        }
        case 2:
            return "position fen " + mutatedFen(rng);
        default:  // a base line with character edits
            return mutate(base, rng, LINE_ALPHABET, 1 + int(rng() % 3));
    }
}

std::string firstWord(const std::string& line) {
    std::string w;
    std::istringstream(line) >> w;
    return w;
}

// Lines a running search may print at any moment; they belong to no command.
bool searchOutput(const std::string& line) {
    return line.rfind("bestmove", 0) == 0
           || (line.rfind("info ", 0) == 0 && line.rfind("info string", 0) != 0);
}

// Huge and overflowing numbers in every numeric argument: each command answers, no search
// or perft runs past the ply records. Then random lines: each is answered, and a refused
// position leaves the board alone. The engine goes on afterwards and quits cleanly.
TEST(UciFuzz, HugeNumbersThenRandomLines) {
    scratchFolder dir;  // no perft.txt or tuning file here
    dir.write("deep.txt", std::string(fenStartPos) + ";300;1\n" + fenStartPos + ";2147483648;1\n");
    engineOptionsStruct opts;
    opts.workDir = dir.path.string();
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
        {"setoption name Hash value " + big,
         {"info string Size of Hashtable set to : 262144",
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
        {"go wtime " + big + " btime " + big + " winc " + big + " binc " + big + " movestogo "
             + big,
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

    std::mt19937_64 rng(fuzzSeed());
    auto ask = [&](const std::string& line) {
        auto reply = engine.ask(line);
        const std::string cmd = firstWord(line);  // these two answer "readyok" themselves:
        if (reply && (cmd == "ucinewgame" || cmd == "isready") && !engine.readUntil("readyok"))
            reply.reset();
        if (reply)
            std::erase_if(*reply, searchOutput);
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
        std::string cmd = firstWord(line);
        auto reply = ask(line);
        const std::string& said = engine.transcript();
        ASSERT_TRUE(reply) << "no answer after: '" << line << "'\n"
                           << said.substr(std::max<size_t>(said.size(), 3000) - 3000);
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

    ASSERT_TRUE(ask("position startpos"));
    auto perft = ask("perft 2");
    ASSERT_TRUE(perft && !perft->empty());
    EXPECT_EQ(perft->back().rfind("Perft results for depth: 2  400  ", 0), 0u) << perft->back();
    engine.send("quit");
    EXPECT_EQ(engine.finish(), 0);
}

}  // namespace
