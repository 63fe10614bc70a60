// Exact transcripts of the real binary: what a GUI sends, what the engine must answer,
// line for line. Each test starts its own engine process.
#include <gtest/gtest.h>

#include "engine_process.h"

namespace {

using lines = std::vector<std::string>;

const lines BANNER = {"Quorvane 2.3 NOP", "by Ollivark", "", "enter 'help' to see the commands"};

// The board diagram of a FEN's placement field, written out square by square.
lines diagram(const std::string& placement) {
    const std::string sep = "+---+---+---+---+---+---+---+---+";
    lines out = {sep, ""};
    for (char c : placement + "/") {
        if (c == '/') {
            out.back() += "|";
            out.push_back(sep);
            out.push_back("");
        }
        for (int i = 0; i < (std::isdigit(c) ? c - '0' : c != '/'); i++)
            out.back() += std::string("| ") + (std::isdigit(c) ? ' ' : c) + " ";
    }
    out.pop_back();
    return out;
}

const lines START_BOARD = diagram("rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR");

const std::string BIG = "99999999999999999999";  // past every integer type

struct session {
    engineProcess engine;
    explicit session(const engineOptionsStruct& opts = {}) : engine(opts) {
        EXPECT_TRUE(engine.started());
        for (const auto& expected : BANNER)
            EXPECT_EQ(engine.readLine().value_or("<none>"), expected);
    }
    lines ask(const std::string& line) {
        auto reply = engine.ask(line, 60000 * ENGINE_TIME_SCALE);  // 256 threads start slowly
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
    s.engine.send("ucinewgame");  // answered like "isready"
    EXPECT_EQ(s.engine.readLine(), "readyok");
    EXPECT_EQ(s.engine.finish(), 0);
    EXPECT_EQ(readTextFile(opts.stderrPath), "");
}

TEST(UciTranscript, SetOptionEchoesWithClamping) {
    session s;
    const std::string hash = "info string Size of Hashtable set to : ",
                      threads = "info string Number of threads set to : ";
    const std::pair<std::string, lines> cases[] = {
        {"Hash value 0", {hash + "1"}},
        {"Hash value 3", {hash + "3"}},
        // The echo comes first; a table cut down to what memory allows is noted after it.
        {"Hash value 32768",
         {hash + "32768", "info string not enough memory for a table of 32768 MB, using 256 MB"}},
        {"Threads value 0", {threads + "1"}},
        {"Threads value 300", threadsOptionReply(256)},
        {"Ponder value true", {"info string Ponder set to : 1"}},
        {"Ponder value True", {"info string Ponder set to : 0"}},
        {"MoveOverhead value 0", {"info string MoveOverhead set to : 1"}},
        {"MoveOverhead value 250", {"info string MoveOverhead set to : 250"}},
        {"SyzygyPath value <empty>",
         {"info string Syzygy tablebases used from directory : <empty>"}},
        {"SyzygyProbeDepth value -1", {"info string SyzygyProbeDepth set to: 0"}},
        // Numbers past every type are clamped like any other.
        {"Hash value " + BIG,
         {hash + "262144", "info string not enough memory for a table of 262144 MB, using 256 MB"}},
        {"Threads value -" + BIG, {threads + "1"}},
        {"MoveOverhead value 2147483648", {"info string MoveOverhead set to : 60000"}},
        {"SyzygyProbeDepth value " + BIG, {"info string SyzygyProbeDepth set to: 127"}},
        {"hash value 16", {}},  // names are compared exactly; unknown ones say nothing
        {"Move Overhead value 5", {}},
    };
    for (const auto& [args, expected] : cases)
        EXPECT_EQ(s.ask("setoption name " + args), expected) << "setoption name " << args;
    for (const char* bad : {"Hash value abc", "Threads value 12abc", "MoveOverhead value",
                            "SyzygyProbeDepth value 1 2"}) {
        auto reply = s.ask(std::string("setoption name ") + bad);  // changes nothing, says so
        EXPECT_TRUE(reply.size() == 1 && reply[0].rfind("info string ", 0) == 0) << bad;
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
    for (const char* line : {"", "   ", "xyzzy", "Uci", "ISREADY", "showboard2", "perfto 3"})
        EXPECT_EQ(s.ask(line), (lines{"Unknown command"})) << "'" << line << "'";
    const std::string perftRefused = "info string perft depth must be from 1 to 127",
                      benchRefused = "info string bench depth must be a number from 1 to 127";
    const std::pair<std::string, std::string> refused[] = {
        {"perft 128", perftRefused},        {"perft 2147483648", perftRefused},
        {"perft " + BIG, perftRefused},     {"perft -2147483649", perftRefused},
        {"bench 2147483648", benchRefused}, {"bench -" + BIG, benchRefused},
    };
    for (const auto& [line, refusal] : refused)
        EXPECT_EQ(s.ask(line), lines{refusal}) << line;
}

TEST(UciTranscript, PositionCommand) {
    session s;
    const std::pair<std::string, lines> cases[] = {
        // The token after "startpos" is taken as the keyword and discarded unchecked.
        {"startpos e2e4", START_BOARD},
        {"startpos moves e2e4 e7e5 g1f3 b8c6",
         diagram("r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R")},
        {"fen r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1 moves e1g1 e8c8",
         diagram("2kr3r/8/8/8/8/8/8/R4RK1")},
        {"startpos moves e2e4 a7a6 e4e5 d7d5 e5d6",
         diagram("rnbqkbnr/1pp1pppp/p2P4/8/8/8/PPPP1PPP/RNBQKBNR")},
        {"fen 8/1P6/8/8/8/8/2p5/k6K b - - 0 1 moves c2c1n b7b8r", diagram("1R6/8/8/8/8/8/8/k1n4K")},
    };
    for (const auto& [args, board] : cases) {
        EXPECT_EQ(s.ask("position " + args), lines{}) << args;
        EXPECT_EQ(s.board(), board) << args;
    }
    // The perft count follows the position that was set.
    s.ask("position fen r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1");
    auto perft = s.ask("perft 2");
    ASSERT_EQ(perft.size(), 19u);
    EXPECT_EQ(perft[18].rfind("Perft results for depth: 2  2039  Nodes per sec: ", 0), 0u)
        << perft[18];
}

// Bad input is refused with one "info string" line and leaves the position as it was;
// moves are played up to the first bad one.
TEST(UciTranscript, BadInputKeepsThePosition) {
    session s;
    s.ask("position startpos moves e2e4 c7c5");
    const lines before = s.board();
    using namespace std::string_literals;  // a NUL byte inside, echoed in the refusal
    for (const std::string& args :
         {"fen rnbqkbnr/ppppxppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1"s,
          "fen 4k3/8/8/\0\0/8/8/8/4K3 w - - 0 1"s, "fen 4k3/4R3/8/8/8/8/8/4K3 w - - 0 1"s,
          "fen 4k3/8/8/8/8/8/8/4K3"s, "fen 4k3/8/8/8/8/8/8/4K3 w - - 0 one"s, ""s, "somewhere"s}) {
        auto reply = s.ask("position " + args);
        ASSERT_EQ(reply.size(), 1u) << args;
        EXPECT_EQ(reply[0].rfind("info string ", 0), 0u) << reply[0];
        EXPECT_EQ(s.board(), before) << args;
    }
    EXPECT_EQ(s.ask("position fen 8/8/8/8/8/8/8/K6k w - - 2147483648 " + BIG),
              (lines{"info string invalid FEN (bad half-move clock), position unchanged"}));
    EXPECT_EQ(s.board(), before);
    EXPECT_EQ(s.ask("position"), (lines{"info string position needs 'startpos' or 'fen'"}));
    for (const char* bad : {"e2e5", "e2e3", "zz", "e2", "e2e4e", "e1g1", "a1a1"}) {
        auto reply = s.ask(std::string("position startpos moves g1f3 ") + bad + " b8c6");
        ASSERT_EQ(reply.size(), 1u) << bad;
        EXPECT_EQ(reply[0].rfind("info string ", 0), 0u) << reply[0];
        EXPECT_EQ(s.board(), diagram("rnbqkbnr/pppppppp/8/8/8/5N2/PPPPPPPP/RNBQKB1R")) << bad;
    }
}

TEST(UciTranscript, RtestReadsAFile) {
    scratchFolder dir;
    const std::string start = fenStartPos;
    dir.write("perft.txt", start + ";2;400\n" + start + ";1;21\n" + start
                               + ";2x;400\n"  // numbers must be whole
                               + start + ";1;-1\n" + start + ";300;1\n" + start
                               + ";2147483648;1\nfull\n" + start + ";9;1\n");
    engineOptionsStruct opts;
    opts.workDir = dir.path.string();
    session s(opts);
    auto reply = s.ask("rtest");  // without an argument: perft.txt in the working directory
    ASSERT_EQ(reply.size(), 7u);
    EXPECT_EQ(reply[0].rfind("1; " + start + "; 2; 400; 400; ", 0), 0u) << reply[0];
    EXPECT_EQ(reply[1].rfind("0; " + start + "; 1; 21; 20; ", 0), 0u) << reply[1];
    EXPECT_EQ(reply[2], "0; " + start + ";2x;400; unreadable test line");
    EXPECT_EQ(reply[3], "0; " + start + ";1;-1; unreadable test line");
    EXPECT_EQ(reply[4], "0; " + start + ";300;1; unreadable test line");
    EXPECT_EQ(reply[5], "0; " + start + ";2147483648;1; unreadable test line");
    EXPECT_EQ(reply[6], "Results of the perft checks is OK: 0");
    EXPECT_EQ(s.board(), START_BOARD);
}

// The shipped command over the repository's reference lines: the count the user sees comes
// from the generators and make/take-back the search plays with, so a fault there shows here.
TEST(UciTranscript, RtestPassesTheRepositoryLines) {
    scratchFolder dir;
    const std::string reference = readTextFile(QUORVANE_SOURCE_DIR "/tests/perft.txt");
    dir.write("perft.txt", reference);
    std::istringstream in(reference);
    lines expected;
    for (std::string line; std::getline(in, line);)
        expected.push_back("1; " + line.substr(0, line.find(';')) + "; ");
    ASSERT_GT(expected.size(), 10u);
    engineOptionsStruct opts;
    opts.workDir = dir.path.string();
    session s(opts);
    auto reply = s.ask("rtest");
    ASSERT_EQ(reply.size(), expected.size() + 1);
    for (size_t i = 0; i < expected.size(); i++)
        EXPECT_EQ(reply[i].rfind(expected[i], 0), 0u) << reply[i];
    EXPECT_EQ(reply.back(), "Results of the perft checks is OK: 1");
}

TEST(UciTranscript, EndOfInputAndQuit) {
    const std::pair<std::string, std::string> cases[] = {
        {"isready\n", "readyok\n"},  // end of input is "quit"
        {"quit\nisready\n", ""},     // nothing after "quit" runs
        {"isready", "readyok\n"},    // a last line without its newline is still a command
    };
    for (const auto& [input, output] : cases) {
        session s;
        s.engine.sendRaw(input);
        EXPECT_EQ(s.engine.finish(), 0);
        EXPECT_EQ(s.engine.rest(), output) << input;
    }
}

}  // namespace
