// Tablebase probing against the recorded oracle, self-consistency over random positions,
// the root adapter, registration and broken files, and concurrent first use.
#ifdef __linux__
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tablebase/tbcore.h"
#include "test_util.h"

namespace fs = std::filesystem;

namespace {

tb_pos probePos(const std::string& fen) {
    testPosition tp(fen);
    tb_pos p;
    EXPECT_TRUE(tb_pos_from_position(tp.get(), &p)) << fen;
    return p;
}

int sign(int v) { return (v > 0) - (v < 0); }

// p's WDL must be the best of its children's, negated; its DTZ has the WDL's sign and lies
// beyond 100 exactly for the results the fifty-move rule spoils.
bool checkAgainstMoves(const tb_pos& p, const std::string& where) {
    int ok = 1, okDtz, w = probe_wdl(p, &ok), d = probe_dtz(p, &okDtz), best = -3;
    tb_move moves[TB_MAX_MOVES];
    int n = tb_legal_moves(p, moves);
    for (int i = 0; i < n && ok; i++) {
        tb_pos child;
        tb_do_move(p, moves[i], &child);
        best = std::max(best, -probe_wdl(child, &ok));
    }
    if (n == 0)
        best = tb_in_check(p) ? -2 : 0;
    bool good = ok && okDtz && sign(best) == sign(w) && (std::abs(w) != 2 || best == w)
                && sign(d) == sign(w) && (std::abs(d) > 100) == (std::abs(w) == 1);
    EXPECT_TRUE(good) << where << " wdl " << w << " dtz " << d << " best over moves " << best;
    return good;
}

std::vector<std::string> registeredNames() {
    std::vector<std::string> names;
    for (int i = 0; i < TBnum_piece; i++)
        names.push_back(TB_piece[i].name);
    for (int i = 0; i < TBnum_pawn; i++)
        names.push_back(TB_pawn[i].name);
    return names;
}

int probeFen(const std::string& fen, int* success) { return probe_wdl(probePos(fen), success); }

class Tablebase : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_DATA("syzygy");
        loadTablebases();
    }
};
using TablebaseThreads = Tablebase;

TEST_F(Tablebase, OracleWdlAndDtz) {
    REQUIRE_DATA("syzygy_cases.tsv");
    std::ifstream in(dataPath("syzygy_cases.tsv"));
    testPosition tp;
    int cases = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        std::string fen;
        int wdl, dtz, ok1, ok2, ok3;
        std::getline(fields, fen, '\t');
        fields >> wdl >> dtz;
        tp.set(fen);
        tb_pos p;
        ASSERT_TRUE(tb_pos_from_position(tp.get(), &p)) << fen;
        EXPECT_EQ(probe_wdl(p, &ok1), wdl) << fen;
        EXPECT_EQ(probe_dtz(p, &ok2), dtz) << fen;
        EXPECT_EQ(probeWDLPosition(tp.get(), &ok3), wdl) << fen;  // the tree's entry point
        EXPECT_TRUE(ok1 && ok2 && ok3) << fen;
        cases++;
    }
    EXPECT_EQ(cases, 315);
}

TEST_F(Tablebase, RandomPositionsAgreeWithTheirMoves) {
    auto names = registeredNames();
    ASSERT_EQ(names.size(), 35u);
    std::mt19937 rng(20240605);
    for (const std::string& name : names)
        for (int k = 0; k < 60; k++) {
            std::string fen = randomTableFen(name, rng);
            if (!checkAgainstMoves(probePos(fen), fen))
                break;
        }
}

// The root adapter keeps a win without letting the fifty-move counter run out: it mates
// from won positions of several tables, playing both sides, reporting each move in one line.
// A lost root resists longest.
TEST_F(Tablebase, RootAdapterWinsAndResists) {
    std::mt19937 rng(123);
    testPosition tp;
    for (const char* table :
         {"KQvK", "KRvK", "KBNvK", "KPvK", "KQvKR", "KRPvK", "KPvKP", "KBBvK"}) {
        std::string start;
        tb_pos p;
        int ok;
        do
            p = probePos(start = randomTableFen(table, rng));
        while (probe_wdl(p, &ok) != 2 || probe_dtz(p, &ok) > 100);
        tp.set(start);
        const int winner = tp->sideToMove;
        tb_move moves[TB_MAX_MOVES];
        for (int plies = 0; plies < 400 && tb_legal_moves(p, moves) > 0; plies++) {
            moveStruct m;
            const std::string info = stdoutOf([&] { m = syzygyProbeDTZ(0, tp.get()); });
            ASSERT_FALSE(m.empty()) << start << " at " << fenOf(tp.get());
            EXPECT_EQ(info.rfind("info score cp ", 0), 0u) << info;
            EXPECT_NE(info.find(" pv " + moveToLA(&m, u8(p.side)) + "\n"), std::string::npos)
                << info;
            playAtRoot(tp.get(), m);
            ASSERT_TRUE(tb_pos_from_position(tp.get(), &p));
            ASSERT_LE(p.rule50, 100) << start << " at " << fenOf(tp.get());
        }
        EXPECT_TRUE(tb_in_check(p) && p.side != winner && tb_legal_moves(p, moves) == 0)
            << start << " ended at " << fenOf(tp.get());
    }
    // A lost root resists longest: no other move that keeps the counter running leaves the
    // winner further from zeroing (the quickest loss would also throw away losses that the
    // fifty-move rule draws).
    int losses = 0;
    for (const std::string& name : registeredNames())
        for (int k = 0; k < 12; k++) {
            const std::string fen = randomTableFen(name, rng);
            tb_pos p = probePos(fen), child, other;
            tb_move moves[TB_MAX_MOVES];
            int ok, n = tb_legal_moves(p, moves);
            if (probe_wdl(p, &ok) >= 0 || n == 0)
                continue;
            tp.set(fen);
            moveStruct m;
            stdoutOf([&] { m = syzygyProbeDTZ(0, tp.get()); });
            playAtRoot(tp.get(), m);
            ASSERT_TRUE(tb_pos_from_position(tp.get(), &child));
            const int cd = probe_dtz(child, &ok);
            EXPECT_GT(probe_wdl(child, &ok), 0) << fen;
            for (int i = 0; i < n && child.rule50 != 0; i++)
                if (tb_do_move(p, moves[i], &other) && other.rule50 != 0) {
                    EXPECT_GE(cd, probe_dtz(other, &ok)) << fen;
                }
            losses++;
        }
    EXPECT_GT(losses, 20);
}

// The count line, empty values; the first folder holding a file wins, a broken copy there
// fails the probe with one message, and so does a file that cannot be mapped; a file the
// system gives no status for is passed over with the system's reason.
TEST_F(Tablebase, Registration) {
    const std::string rook = "8/8/8/4k3/8/8/8/4K2R w - - 0 1";
    int ok;
    EXPECT_EQ(loadTablebases(), "Found 35 tablebases.\n");
    EXPECT_EQ(loadTablebases("<empty>"), "");
    EXPECT_EQ(TB_LARGEST + TBnum_piece + TBnum_pawn, 0);
    probeFen(rook, &ok);
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(loadTablebases("/nonexistent/folder"), "Found 0 tablebases.\n");

    scratchFolder a, b;
    fs::copy_file(dataPath("syzygy/KRvK.rtbw"), b.path / "KRvK.rtbw");
    const std::string sep(1, platform::PATH_LIST_SEPARATOR);
    EXPECT_EQ(loadTablebases(sep + sep + "/nonexistent" + sep + a.path.string() + sep + sep
                             + b.path.string() + sep),
              "Found 1 tablebases.\n");
    EXPECT_EQ(probeFen(rook, &ok), 2);
    EXPECT_EQ(ok, 1);
    std::ofstream(a.path / "KRvK.rtbw") << "not a table at all";
    loadTablebases(a.path.string() + sep + b.path.string());
    for (const char* message : {"Corrupted table.\n", ""}) {
        testing::internal::CaptureStderr();
        probeFen(rook, &ok);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
        EXPECT_EQ(ok, 0);
    }
    // A file whose status the system refuses counts as missing, and says why: the next
    // folder's copy is used, and with no folder left the probe fails.
    const std::string reason = "fstat: " + std::string(std::strerror(EIO)) + "\n";
    for (const bool second : {true, false}) {
        loadTablebases(b.path.string() + (second ? sep + b.path.string() : ""));
        platform::failNextFileStatus(EIO);
        testing::internal::CaptureStderr();
        const int wdl = probeFen(rook, &ok);
        const std::string err = testing::internal::GetCapturedStderr();
#ifdef _WIN32  // the code is a Windows error number there, with its own text
        EXPECT_EQ(err.rfind("fstat: ", 0), 0u) << err;
#else
        EXPECT_EQ(err.substr(0, reason.size()), reason);
#endif
        EXPECT_EQ(err.substr(err.find('\n') + 1), second ? "" : "Could not find KRvK.rtbw\n");
        EXPECT_EQ(ok, second ? 1 : 0);
        EXPECT_EQ(wdl, second ? 2 : 0);
    }
#ifdef __linux__
    // A file too large for the address space left: the probe fails, the program goes on.
    std::ofstream(a.path / "KBvK.rtbw").put('\x71');
    fs::resize_file(a.path / "KBvK.rtbw", uintmax_t(8) << 30);  // sparse
    loadTablebases(a.path.string());
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit old{}, low{};
    ::getrlimit(RLIMIT_AS, &old);
    low = old;
    low.rlim_cur = rlim_t(pages) * rlim_t(::sysconf(_SC_PAGESIZE)) + (rlim_t(256) << 20);
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &low), 0);
    // An emulator (qemu-user) keeps the limit for itself: there the file maps.
    void* room = ::mmap(nullptr, size_t(512) << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (room != MAP_FAILED) {
        ::munmap(room, size_t(512) << 20);
        ::setrlimit(RLIMIT_AS, &old);
    } else {
        testing::internal::CaptureStderr();
        probeFen("8/8/8/4k3/8/8/8/4KB2 w - - 0 1", &ok);
        ::setrlimit(RLIMIT_AS, &old);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Could not mmap() " + (a.path / "KBvK.rtbw").string() + ".\n");
        EXPECT_EQ(ok, 0);
    }
#endif
    loadTablebases("<empty>");
}

// Threads probe at once from a cold start: every table loads once, every thread reads the
// same values.
TEST_F(TablebaseThreads, ConcurrentFirstUseAgrees) {
    std::mt19937 rng(31);
    std::vector<tb_pos> positions;
    std::vector<int> expected;
    for (const std::string& name : registeredNames())
        for (int k = 0; k < 20; k++) {
            int ok;
            positions.push_back(probePos(randomTableFen(name, rng)));
            expected.push_back(probe_wdl(positions.back(), &ok));
        }
    loadTablebases();
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (size_t i = 0; i < positions.size(); i++) {
                size_t j = (i * 7 + size_t(t) * 13) % positions.size();
                int ok;
                mismatches[t] += probe_wdl(positions[j], &ok) != expected[j] || !ok;
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

}  // namespace
