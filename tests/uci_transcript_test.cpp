// Exact transcripts of the real binary: what a GUI sends, what the engine must answer,
// line for line. Each test starts its own engine process.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "engine_process.h"

namespace {

using lines = std::vector<std::string>;

const lines BANNER = {"Quorvane 2.3 NOP", "by Ollivark", "", "enter 'help' to see the commands"};

const lines START_BOARD = {"+---+---+---+---+---+---+---+---+", "| r | n | b | q | k | b | n | r |",
                           "+---+---+---+---+---+---+---+---+", "| p | p | p | p | p | p | p | p |",
                           "+---+---+---+---+---+---+---+---+", "|   |   |   |   |   |   |   |   |",
                           "+---+---+---+---+---+---+---+---+", "|   |   |   |   |   |   |   |   |",
                           "+---+---+---+---+---+---+---+---+", "|   |   |   |   |   |   |   |   |",
                           "+---+---+---+---+---+---+---+---+", "|   |   |   |   |   |   |   |   |",
                           "+---+---+---+---+---+---+---+---+", "| P | P | P | P | P | P | P | P |",
                           "+---+---+---+---+---+---+---+---+", "| R | N | B | Q | K | B | N | R |",
                           "+---+---+---+---+---+---+---+---+"};

// Board diagram from eight rank strings (rank 8 first), blanks for empty squares.
lines diagram(const std::vector<std::string>& ranks) {
    const std::string sep = "+---+---+---+---+---+---+---+---+";
    lines out = {sep};
    for (const auto& r : ranks) {
        std::string row;
        for (char c : r)
            row += std::string("| ") + c + " ";
        out.push_back(row + "|");
        out.push_back(sep);
    }
    return out;
}

// True when `line` is `head`, a number, then `tail`.
bool numberBetween(const std::string& line, const std::string& head, const std::string& tail) {
    if (line.size() <= head.size() + tail.size() || line.rfind(head, 0) != 0
        || line.compare(line.size() - tail.size(), tail.size(), tail) != 0)
        return false;
    std::string middle = line.substr(head.size(), line.size() - head.size() - tail.size());
    char* end = nullptr;
    std::strtod(middle.c_str(), &end);
    return *end == '\0' && middle.find(' ') == std::string::npos;
}

// An engine whose banner has been read and checked.
struct session {
    engineProcess engine;
    explicit session(const engineOptionsStruct& opts = {}) : engine(opts) {
        EXPECT_TRUE(engine.started());
        for (const auto& expected : BANNER)
            EXPECT_EQ(engine.readLine().value_or("<none>"), expected);
    }
    lines ask(const std::string& line) {
        auto reply = engine.ask(line);
        EXPECT_TRUE(reply.has_value()) << "no readyok after '" << line << "'\n"
                                       << engine.transcript();
        return reply.value_or(lines{});
    }
    lines board() { return ask("showboard"); }
};

TEST(UciTranscript, BannerUciAndIsready) {
    engineOptionsStruct opts;
    opts.stderrPath = testing::TempDir() + "quorvane_banner_stderr.txt";
    session s(opts);
    EXPECT_EQ(s.ask("uci"),
              (lines{"id name Quorvane 2.3 NOP", "id author Ollivark",
                     "option name Hash type spin default 256 min 1 max 262144",
                     "option name Threads type spin default 1 min 1 max 256",
                     "option name Ponder type check default false",
                     "option name MoveOverhead type spin default 100 min 1 max 60000",
                     "option name SyzygyPath type string default <empty>",
                     "option name SyzygyProbeDepth type spin default 0 min 0 max 127", "uciok"}));
    s.engine.send("isready");
    EXPECT_EQ(s.engine.readLine(), "readyok");
    // Answered like "isready": the table clear it starts may take a while, and the
    // reply tells the GUI that it has ended.
    s.engine.send("ucinewgame");
    EXPECT_EQ(s.engine.readLine(), "readyok");
    EXPECT_EQ(s.engine.finish(), 0);
    EXPECT_EQ(readTextFile(opts.stderrPath), "");  // nothing on standard error
}

TEST(UciTranscript, SetOptionEchoesWithClamping) {
    session s;
    const std::string hashEcho = "info string Size of Hashtable set to : ";
    const std::pair<std::string, lines> cases[] = {
        {"name Hash value 0", {hashEcho + "1"}},
        {"name Hash value -5", {hashEcho + "1"}},
        {"name Hash value 3", {hashEcho + "3"}},
        // The echo comes first; a table cut down to what memory allows is noted after it.
        {"name Hash value 32768",
         {hashEcho + "32768", "info string not enough memory for a table of 32768 MB, using 256 MB"}},
        // Anything above 32768 jumps to the advertised maximum.
        {"name Hash value 40000",
         {hashEcho + "262144", "info string not enough memory for a table of 262144 MB, using 256 MB"}},
        {"name Hash value 1", {hashEcho + "1"}},
        {"name Threads value 0", {"info string Number of threads set to : 1"}},
        {"name Threads value 300", {"info string Number of threads set to : 256"}},
        {"name Threads value 3", {"info string Number of threads set to : 3"}},
        {"name Ponder value true", {"info string Ponder set to : 1"}},
        {"name Ponder value True", {"info string Ponder set to : 0"}},
        {"name Ponder value false", {"info string Ponder set to : 0"}},
        {"name MoveOverhead value 0", {"info string MoveOverhead set to : 1"}},
        {"name MoveOverhead value 70000", {"info string MoveOverhead set to : 60000"}},
        {"name MoveOverhead value 250", {"info string MoveOverhead set to : 250"}},
        {"name SyzygyPath value <empty>",
         {"info string Syzygy tablebases used from directory : <empty>"}},
        {"name SyzygyProbeDepth value -1", {"info string SyzygyProbeDepth set to: 0"}},
        {"name SyzygyProbeDepth value 500", {"info string SyzygyProbeDepth set to: 127"}},
        {"name SyzygyProbeDepth value 7", {"info string SyzygyProbeDepth set to: 7"}},
        // Unknown names (names are compared exactly) do nothing and say nothing.
        {"name hash value 16", {}},
        {"name Move Overhead value 5", {}},
        {"name Nonsense value 5", {}},
    };
    for (const auto& [args, expected] : cases)
        EXPECT_EQ(s.ask("setoption " + args), expected) << "setoption " << args;
}

TEST(UciTranscript, NonNumericOptionValuesChangeNothing) {
    session s;
    for (const char* name : {"Hash", "Threads", "MoveOverhead", "SyzygyProbeDepth"}) {
        for (const char* value : {"abc", "12abc", "", "1 2"}) {
            auto reply = s.ask(std::string("setoption name ") + name + " value " + value);
            ASSERT_EQ(reply.size(), 1u) << name << " '" << value << "'";
            EXPECT_EQ(reply[0].rfind("info string ", 0), 0u) << reply[0];
        }
    }
    EXPECT_EQ(s.board(), START_BOARD);
}

TEST(UciTranscript, HelpShowboardAndUnknownCommands) {
    session s;
    EXPECT_EQ(s.ask("help"),
              (lines{"supported UCI commands 'uci' 'ucinewgame' 'position' 'go' 'ponderhit' "
                     "'stop 'quit' 'setoption' 'isready'",
                     "other commands 'perft depth', default depth=6, change board with 'position'; "
                     "'showboard' shows the current board"}));
    EXPECT_EQ(s.board(), START_BOARD);
    EXPECT_EQ(s.board().size(), 17u);
    for (const char* line : {"", "   ", "xyzzy", "Uci", "ISREADY", "showboard2", "perfto 3"})
        EXPECT_EQ(s.ask(line), (lines{"Unknown command"})) << "'" << line << "'";
}

TEST(UciTranscript, PositionCommand) {
    session s;
    // The token after "startpos" is taken as the keyword and discarded unchecked.
    EXPECT_EQ(s.ask("position startpos e2e4"), lines{});
    EXPECT_EQ(s.board(), START_BOARD);

    EXPECT_EQ(s.ask("position startpos moves e2e4 e7e5 g1f3 b8c6"), lines{});
    EXPECT_EQ(s.board(), diagram({"r bqkbnr", "pppp ppp", "  n     ", "    p   ", "    P   ",
                                  "     N  ", "PPPP PPP", "RNBQKB R"}));

    // Castling on both wings, given as the king's move.
    EXPECT_EQ(s.ask("position fen r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1 moves e1g1 e8c8"), lines{});
    EXPECT_EQ(s.board(), diagram({"  kr   r", "        ", "        ", "        ", "        ",
                                  "        ", "        ", "R    RK "}));

    // En passant removes the pawn beside the destination; a promotion places the piece.
    EXPECT_EQ(s.ask("position startpos moves e2e4 a7a6 e4e5 d7d5 e5d6"), lines{});
    EXPECT_EQ(s.board(), diagram({"rnbqkbnr", " pp pppp", "p  P    ", "        ", "        ",
                                  "        ", "PPPP PPP", "RNBQKBNR"}));
    EXPECT_EQ(s.ask("position fen 8/1P6/8/8/8/8/2p5/k6K b - - 0 1 moves c2c1n b7b8r"), lines{});
    EXPECT_EQ(s.board(), diagram({" R      ", "        ", "        ", "        ", "        ",
                                  "        ", "        ", "k n    K"}));
    // The perft count follows the position that was set (depth kept from the argument).
    s.ask("position fen r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1");
    auto perft = s.ask("perft 2");
    ASSERT_EQ(perft.size(), 19u);
    EXPECT_EQ(perft[18].rfind("Perft results for depth: 2  2039  Nodes per sec: ", 0), 0u)
        << perft[18];
}

// A move list longer than the key history: the engine must keep going and land on the
// right position.
TEST(UciTranscript, VeryLongMoveList) {
    session s;
    std::string cmd = "position startpos moves";
    for (int i = 0; i < 300; i++)
        cmd += " g1f3 g8f6 f3g1 f6g8";
    EXPECT_EQ(s.ask(cmd), lines{});
    EXPECT_EQ(s.board(), START_BOARD);
    auto perft = s.ask("perft 1");
    ASSERT_FALSE(perft.empty());
    EXPECT_EQ(perft.back().rfind("Perft results for depth: 1  20  ", 0), 0u) << perft.back();
}

// Bad input is refused with one "info string" line and leaves the position as it was.
TEST(UciTranscript, BadInputKeepsThePosition) {
    session s;
    s.ask("position startpos moves e2e4 c7c5");
    const lines before = s.board();
    const char* badFens[] = {
        "rnbqkbnr/ppppxppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",    // unknown letter
        "rnbqkbnr/ppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",     // 7 squares in a rank
        "rnbqkbnr/pppppppp/9/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",    // digit 9
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP w KQkq - 0 1",             // 7 ranks
        "rnbqkbnr/pppppppp/8/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",  // 9 ranks
        "rnbq1bnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQ - 0 1",      // no black king
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBKKBNR w kq - 0 1",      // two white kings
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/PNBQKBNR w Kkq - 0 1",     // pawn on rank 1
        "Pnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQk - 0 1",     // pawn on rank 8
        "4k3/4R3/8/8/8/8/8/4K3 w - - 0 1",                             // side not to move in check
        "4k3/8/8/8/8/8/8/4K3",                                         // one field
        "4k3/8/8/8/8/8/8/4K3 w - - x 1",                               // non-numeric clock
        "4k3/8/8/8/8/8/8/4K3 w - - 0 one",                             // non-numeric move number
    };
    for (const char* fen : badFens) {
        auto reply = s.ask(std::string("position fen ") + fen);
        ASSERT_EQ(reply.size(), 1u) << fen;
        EXPECT_EQ(reply[0].rfind("info string ", 0), 0u) << reply[0];
        EXPECT_EQ(s.board(), before) << fen;
    }
    EXPECT_EQ(s.ask("position"), (lines{"info string position needs 'startpos' or 'fen'"}));
    EXPECT_EQ(s.ask("position somewhere"),
              (lines{"info string position needs 'startpos' or 'fen'"}));
    EXPECT_EQ(s.board(), before);

    // Moves are played up to the first bad one, which is reported.
    for (const char* bad : {"e2e5", "e2e3", "zz", "e2", "e2e4e", "e1g1", "a1a1"}) {
        auto reply = s.ask(std::string("position startpos moves g1f3 ") + bad + " b8c6");
        ASSERT_EQ(reply.size(), 1u) << bad;
        EXPECT_EQ(reply[0].rfind("info string ", 0), 0u) << reply[0];
        EXPECT_EQ(s.board(), diagram({"rnbqkbnr", "pppppppp", "        ", "        ", "        ",
                                      "     N  ", "PPPPPPPP", "RNBQKB R"}))
            << bad;
    }
}

TEST(UciTranscript, PerftCommandKeepsItsDepth) {
    session s;
    auto first = s.ask("perft 3");
    ASSERT_EQ(first.size(), 19u);
    EXPECT_EQ(lines(first.begin(), first.begin() + 17), START_BOARD);
    std::istringstream timing(first[17]);
    long long ns = -1;
    double seconds = -1;
    std::string w1, w2, w3, w4, extra;
    timing >> ns >> w1 >> w2 >> seconds >> w3 >> w4;
    EXPECT_TRUE(timing && !(timing >> extra)) << first[17];
    EXPECT_EQ(w1 + w2 + w3 + w4, "nsandinseconds") << first[17];
    EXPECT_GE(ns, 0);
    EXPECT_NEAR(seconds, double(ns) / 1e9, 1e-5 + 1e-5 * seconds);
    EXPECT_TRUE(numberBetween(first[18], "Perft results for depth: 3  8902  Nodes per sec: ", ""))
        << first[18];

    // Refused depths leave the last one in force.
    EXPECT_EQ(s.ask("perft 0"), (lines{"info string perft depth must be from 1 to 127"}));
    EXPECT_EQ(s.ask("perft -2"), (lines{"info string perft depth must be from 1 to 127"}));
    EXPECT_EQ(s.ask("perft two"), (lines{"info string perft depth 'two' is not a number"}));
    auto again = s.ask("perft");
    ASSERT_EQ(again.size(), 19u);
    EXPECT_EQ(again[18].rfind("Perft results for depth: 3  8902  ", 0), 0u) << again[18];
}

TEST(UciTranscript, RtestReadsAFile) {
    namespace fs = std::filesystem;
    fs::path dir = fs::path(testing::TempDir()) / "quorvane_rtest";
    fs::create_directories(dir);
    const std::string start = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";
    std::ofstream(dir / "perft.txt") << start << ";2;400\n"
                                     << start << ";1;21\nfull\n"
                                     << start << ";9;1\n";
    engineOptionsStruct opts;
    opts.workDir = dir.string();
    session s(opts);
    // Without an argument the file is "perft.txt" in the working directory.
    auto reply = s.ask("rtest");
    ASSERT_EQ(reply.size(), 3u);
    EXPECT_EQ(reply[0].rfind("1; " + start + "; 2; 400; 400; ", 0), 0u) << reply[0];
    EXPECT_EQ(reply[1].rfind("0; " + start + "; 1; 21; 20; ", 0), 0u) << reply[1];
    EXPECT_EQ(reply[2], "Results of the perft checks is OK: 0");

    EXPECT_EQ(s.ask("rtest " + (dir / "missing.txt").string()),
              (lines{"There seems to be a problem with the perftFile. check of the move "
                     "generator not executed"}));
    EXPECT_EQ(s.board(), START_BOARD);
}

TEST(UciTranscript, CommandLineModeRunsOneCommand) {
    engineOptionsStruct opts;
    opts.args = {"perft", "3"};
    engineProcess engine(opts);
    EXPECT_EQ(engine.finish(), 0);
    std::istringstream out(engine.rest());
    lines got;
    for (std::string l; std::getline(out, l);)
        got.push_back(l);
    ASSERT_EQ(got.size(), 4u + 17u + 2u) << engine.rest();
    EXPECT_EQ(lines(got.begin(), got.begin() + 4), BANNER);
    EXPECT_EQ(lines(got.begin() + 4, got.begin() + 21), START_BOARD);
    EXPECT_EQ(got[22].rfind("Perft results for depth: 3  8902  ", 0), 0u) << got[22];

    // The arguments are joined into one line; anything after them on stdin is never read.
    engineOptionsStruct fen;
    fen.args = {"position", "fen", "8/8/8/8/8/8/8/K6k", "w", "moves", "a1b1"};
    engineProcess quiet(fen);
    quiet.send("showboard");
    EXPECT_EQ(quiet.finish(), 0);
    EXPECT_EQ(quiet.rest(), "Quorvane 2.3 NOP\nby Ollivark\n\nenter 'help' to see the commands\n");
}

TEST(UciTranscript, EndOfInputAndQuit) {
    {
        session s;
        s.engine.send("isready");
        EXPECT_EQ(s.engine.readLine(), "readyok");
        EXPECT_EQ(s.engine.finish(), 0);  // closes the input: the same as "quit"
        EXPECT_EQ(s.engine.rest(), "");
    }
    {
        session s;
        s.engine.sendRaw("quit\nisready\n");
        EXPECT_EQ(s.engine.finish(), 0);
        EXPECT_EQ(s.engine.rest(), "");  // nothing after "quit" is executed
    }
    {
        // A last line without its newline is still a command.
        session s;
        s.engine.sendRaw("isready");
        EXPECT_EQ(s.engine.finish(), 0);
        EXPECT_EQ(s.engine.rest(), "readyok\n");
    }
}

}  // namespace
