// Bad input through the real binary: numbers past every limit, then random bytes and the
// command-loop harness's kept lines, as they are and mutated. Under the sanitizer build the engine
// runs instrumented, so any memory or undefined-behaviour fault ends it and fails the test.
// (Mutated FENs through the reader in process: the fuzz regression tests.)
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <sstream>

#include "engine_process.h"
#include "fuzz/targets.h"

namespace {

namespace fs = std::filesystem;

// The lines of the command-loop harness's kept inputs: the seeds of the random lines.
std::vector<std::string> keptUciLines() {
    std::vector<std::string> lines;
    std::error_code ec;  // a missing folder leaves fewer seeds, and the test says so
    for (const char* kind : {"corpus", "regressions"})
        for (const auto& f : fs::directory_iterator(
                 fs::path(QUORVANE_SOURCE_DIR) / "tests/fuzz" / kind / "uci", ec)) {
            std::istringstream in(readTextFile(f.path().string()));
            for (std::string line; std::getline(in, line);)
                lines.push_back(line);
        }
    return lines;
}

// Raw bytes, a kept line, or a kept line with character edits; bounded as the harness
// bounds it ("" when left out).
std::string randomLine(const std::vector<std::string>& kept, std::mt19937_64& rng) {
    const std::string& base = kept[rng() % kept.size()];
    std::string line;
    switch (rng() % 4) {
        case 0:  // anything but a newline
            line.resize(rng() % 40);
            for (auto& c : line)
                do
                    c = char(rng() % 256);
                while (c == '\n');
            break;
        case 1:
            line = base;
            break;
        default:
            line = mutate(base, rng, "abcdefghklmnopqrstuvwxyzKQRBNP0123456789 /-+_.<>\t\"'",
                          1 + int(rng() % 3));
    }
    const std::string bounded = boundedLine(line);  // the raw spacing where nothing changed
    return bounded.empty() || words(bounded) != words(line) ? bounded : line;
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

// Huge and overflowing numbers in every search limit and clock: each "go" ends in one move.
// (The other commands' huge numbers: the transcript tests.) Then random lines, from the
// command-loop harness's kept inputs: each is answered (the harness checks the replies in
// process), and the engine goes on afterwards and quits cleanly.
TEST(UciFuzz, HugeLimitsThenRandomLines) {
    engineOptionsStruct opts;
    opts.env = {"QUORVANE_HASH_LIMIT_MB=16"};
    engineProcess engine(opts);
    ASSERT_TRUE(engine.readUntil("enter 'help' to see the commands"));
    ASSERT_TRUE(engine.ask("setoption name Hash value 16"));  // past the start-up table note

    const std::string big = "99999999999999999999";
    const std::string goLines[] = {
        "go depth 2147483648",
        "go depth " + big + " movetime " + big + " nodes " + big + "9",
        "go mate 2147483648 nodes 18446744073709551615",
        "go wtime " + big + " btime " + big + " winc " + big + " binc " + big + " movestogo " + big,
        "go wtime -" + big + " btime -2147483649 winc -" + big + " binc -1 movestogo -" + big,
        "go wtime 2147483647 winc 2147483647 movestogo 2147483647",
    };
    for (const std::string& go : goLines) {
        // Huge limits run until stopped; tiny clocks end at once, perhaps before the
        // "readyok". Either way one move.
        auto reply = engine.ask(go);
        ASSERT_TRUE(reply) << "no answer after: " << go;
        ASSERT_TRUE(engine.send("stop"));
        bool moved = std::any_of(reply->begin(), reply->end(),
                                 [](auto& l) { return l.rfind("bestmove", 0) == 0; });
        for (std::optional<std::string> l; !moved && (l = engine.readLine());)
            moved = l->rfind("bestmove", 0) == 0;
        ASSERT_TRUE(moved) << "no bestmove after: " << go;
    }

    const std::vector<std::string> kept = keptUciLines();
    ASSERT_GT(kept.size(), 100u) << "the kept inputs of tests/fuzz/corpus/uci are missing";
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
    ASSERT_TRUE(ask("setoption name Threads value 2"));

    const int maxLines = 3000 / TEST_WORK_DIVISOR;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    int sent = 0;
    for (; sent < maxLines && std::chrono::steady_clock::now() < deadline; sent++) {
        const std::string line = randomLine(kept, rng);
        if (line.empty())
            continue;
        auto reply = ask(line);
        const std::string& said = engine.transcript();
        ASSERT_TRUE(reply) << "no answer after: '" << line << "'\n"
                           << said.substr(std::max<size_t>(said.size(), 3000) - 3000);
        if (firstWord(line) == "go") {
            ASSERT_TRUE(ask("stop"));
        }
        ASSERT_LE(reply->size(), 40u) << line;
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
