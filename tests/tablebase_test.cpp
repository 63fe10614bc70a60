// Tablebase probing against the recorded oracle, self-consistency over random positions,
// the root adapter, registration, broken files and concurrent first use.
#include <filesystem>
#include <thread>

#include "tablebase/tbcore.h"
#include "test_util.h"

namespace fs = std::filesystem;

namespace {

std::string toFen(const tb_pos& p) {
    std::string fen;
    for (int rank = 7; rank >= 0; rank--) {
        for (int sq = 8 * rank; sq < 8 * rank + 8; sq++) {
            char c = '1';
            for (int t = PAWN; t <= KING; t++)
                if (p.type[t] & bb(sq))
                    c = char(" PNBRQK"[t] + ((p.colour[BLACK] & bb(sq)) ? 32 : 0));
            if (c == '1' && !fen.empty() && fen.back() >= '1' && fen.back() < '8')
                fen.back()++;
            else
                fen += c;
        }
        fen += rank ? "/" : "";
    }
    return fen + (p.side == WHITE ? " w - " : " b - ") + (p.ep ? squareToString(p.ep) : "-") + " "
           + std::to_string(p.rule50) + " 1";
}

// A random legal placement of a table's material (the first side of the name White or
// Black at random), pawns on ranks 2-7, the side not to move not in check.
tb_pos randomPosition(const std::string& name, std::mt19937& rng) {
    for (;;) {
        tb_pos p;
        int side = int(rng() & 1), bad = 0;
        for (char c : name) {
            if (c == 'v') {
                side ^= 1;
                continue;
            }
            int t = int(std::string(" PNBRQK").find(c)), sq;
            do
                sq = int(rng() % 64);
            while ((p.colour[0] | p.colour[1]) & bb(sq));
            bad += t == PAWN && (rankOf(sq) == 0 || rankOf(sq) == 7);
            p.colour[side] |= bb(sq);
            p.type[t] |= bb(sq);
        }
        p.side = int(rng() & 1);
        tb_pos other = p;
        other.side ^= 1;
        if (!bad && !tb_in_check(other))
            return p;
    }
}

int sign(int v) { return (v > 0) - (v < 0); }

// p's WDL must be the best of its children's, negated; its DTZ has the WDL's sign and lies
// beyond 100 exactly for the results the fifty-move rule spoils.
bool checkAgainstMoves(const tb_pos& p) {
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
    bool good = ok && okDtz && sign(best) == sign(w) && (std::abs(w) != 2 || best == w) && sign(d) == sign(w)
                && (std::abs(d) > 100) == (std::abs(w) == 1);
    EXPECT_TRUE(good) << toFen(p) << " wdl " << w << " dtz " << d << " best over moves " << best;
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

// Every multiset of n letters of QRBNP, strongest first, and its order by strength.
std::vector<std::string> pieceSets(int n, size_t from = 0) {
    std::vector<std::string> sets = n ? std::vector<std::string>{} : std::vector<std::string>{""};
    for (size_t i = from; i < 5 && n; i++)
        for (const std::string& rest : pieceSets(n - 1, i))
            sets.push_back("QRBNP"[i] + rest);
    return sets;
}
std::string strengthKey(std::string s) {
    for (char& c : s)
        c = char('a' + std::string("QRBNP").find(c));
    return s;
}

// Runs init_tablebases and returns what it printed.
std::string initOutput(const std::string& path) {
    initTables();
    testing::internal::CaptureStdout();
    init_tablebases(path);
    return testing::internal::GetCapturedStdout();
}

int probeFen(const std::string& fen, int* success) {
    testPosition tp(fen);
    tb_pos p;
    EXPECT_TRUE(tb_pos_from_position(tp.get(), &p));
    return probe_wdl(p, success);
}

// The root adapter's move (its "info" line is captured and returned in *out).
moveStruct rootMove(positionStruct* pos, std::string* out = nullptr) {
    testing::internal::CaptureStdout();
    moveStruct m = syzygyProbeDTZ(0, pos);
    std::string text = testing::internal::GetCapturedStdout();
    if (out)
        *out = text;
    return m;
}

struct tempDir {
    fs::path path = fs::temp_directory_path() / ("quorvane_tb_" + std::to_string(::getpid()) + "_" + std::to_string(rand()));
    tempDir() { fs::create_directories(path); }
    ~tempDir() { fs::remove_all(path); }
    void copy(const std::string& file) const {
        fs::copy_file(dataPath("syzygy/" + file), path / file, fs::copy_options::overwrite_existing);
    }
};

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
        for (int k = 0; k < 60 && checkAgainstMoves(randomPosition(name, rng)); k++) {
        }
    // Children after a double step carry an en-passant right; only KPvKP has them here.
    int epChecked = 0;
    for (int k = 0; k < 20000 && epChecked < 60; k++) {
        tb_pos p = randomPosition("KPvKP", rng), child;
        tb_move moves[TB_MAX_MOVES];
        for (int i = 0, n = tb_legal_moves(p, moves); i < n; i++)
            if (tb_do_move(p, moves[i], &child) && child.ep) {
                checkAgainstMoves(child);
                epChecked++;
            }
    }
    EXPECT_GT(epChecked, 10);
}

// A winning DTZ is one more than the best child's, or 1 when a zeroing move keeps the win;
// the files may store distances in whole moves, so one ply of slack either way.
TEST_F(Tablebase, DtzStepsDownAlongTheBestMove) {
    std::mt19937 rng(77);
    for (const std::string& name : registeredNames())
        for (int k = 0; k < 8; k++) {
            tb_pos p = randomPosition(name, rng), child;
            int ok, d = probe_dtz(p, &ok), best = 1000;
            if (d <= 0 || d > 100)
                continue;
            tb_move moves[TB_MAX_MOVES];
            for (int i = 0, n = tb_legal_moves(p, moves); i < n; i++) {
                tb_do_move(p, moves[i], &child);
                int cd = child.rule50 ? probe_dtz(child, &ok) : 0;
                if (child.rule50 == 0 ? probe_wdl(child, &ok) == -2 : cd < 0)
                    best = std::min(best, 1 - cd);
            }
            EXPECT_LE(std::abs(best - d), 1) << toFen(p) << " dtz " << d << " best move gives " << best;
        }
}

// The root adapter keeps a win (never letting the fifty-move counter run out: it mates from
// won positions of several tables, playing both sides), keeps a draw with the same move
// every time, and reports its move in one info line.
TEST_F(Tablebase, RootAdapterPlaysWinsOutAndKeepsDraws) {
    std::mt19937 rng(123);
    testPosition tp;
    for (const char* table : {"KQvK", "KRvK", "KBNvK", "KPvK", "KQvKR", "KRPvK", "KPvKP", "KBBvK"}) {
        tb_pos p;
        int ok, winner = -1;
        while (winner < 0) {
            p = randomPosition(table, rng);
            winner = probe_wdl(p, &ok) == 2 && probe_dtz(p, &ok) <= 100 ? p.side : -1;
        }
        const std::string start = toFen(p);
        tb_move moves[TB_MAX_MOVES];
        for (int plies = 0; plies < 400 && tb_legal_moves(p, moves) > 0; plies++) {
            tp.set(toFen(p));
            std::string info;
            moveStruct m = rootMove(tp.get(), &info);
            ASSERT_FALSE(m.empty()) << start << " at " << toFen(p);
            EXPECT_EQ(info.rfind("info score cp ", 0), 0u) << info;
            EXPECT_NE(info.find(" pv " + moveToLA(&m, u8(p.side)) + "\n"), std::string::npos) << info;
            playAtRoot(tp.get(), m);
            ASSERT_TRUE(tb_pos_from_position(tp.get(), &p));
            ASSERT_LE(p.rule50, 100) << start << " at " << toFen(p);
        }
        EXPECT_TRUE(tb_in_check(p) && p.side != winner && tb_legal_moves(p, moves) == 0) << start << " ended at " << toFen(p);
    }
    int draws = 0;
    for (const std::string& name : registeredNames())
        for (int k = 0; k < 12; k++) {
            tb_pos p = randomPosition(name, rng), child;
            tb_move moves[TB_MAX_MOVES];
            int ok;
            if (probe_wdl(p, &ok) != 0 || tb_legal_moves(p, moves) == 0)
                continue;
            tp.set(toFen(p));
            moveStruct m = rootMove(tp.get());
            playAtRoot(tp.get(), m);
            ASSERT_TRUE(tb_pos_from_position(tp.get(), &child));
            EXPECT_EQ(probe_wdl(child, &ok), 0) << toFen(p);
            tp.set(toFen(p));
            EXPECT_TRUE(rootMove(tp.get()).sameAs(m)) << toFen(p);
            draws++;
        }
    EXPECT_GT(draws, 50);
}

TEST_F(Tablebase, RootAdapterRejectsWhatTheTablesCannotAnswer) {
    testPosition tp("8/8/8/3k4/8/8/1QR5/4K2R w - - 0 1");  // five pieces
    EXPECT_TRUE(rootMove(tp.get()).empty());
    tp.set("8/8/8/4k3/8/8/8/4K2R w K - 0 1");  // a castling right
    EXPECT_TRUE(rootMove(tp.get()).empty());
    // Broken records: a pawn on the back rank, overlapping piece sets.
    for (int piece : {WPAWN, WKNIGHT}) {
        tp.set("8/8/8/4k3/8/8/8/4K2R w - - 0 1");
        tp->bitboards[piece] |= bb(7);
        tb_pos p;
        EXPECT_FALSE(tb_pos_from_position(tp.get(), &p));
        EXPECT_TRUE(rootMove(tp.get()).empty());
    }
}

// The tree's entry point finds the en-passant right of the move just played (at any ply)
// through the position key.
TEST_F(Tablebase, TreeProbeSeesEnPassantAfterADoubleStep) {
    std::mt19937 rng(9);
    testPosition tp;
    int differing = 0;
    for (int k = 0; k < 4000 && differing < 5; k++) {
        tb_pos p = randomPosition("KPvKP", rng), child;
        p.side = WHITE;
        tb_move moves[TB_MAX_MOVES];
        for (int i = 0, n = tb_legal_moves(p, moves); i < n && !tb_in_check(p); i++) {
            if (!tb_do_move(p, moves[i], &child) || !child.ep)
                continue;
            tb_pos noEp = child;
            noEp.ep = 0;
            int ok, withEp = probe_wdl(child, &ok);
            if (withEp == probe_wdl(noEp, &ok))
                continue;
            differing++;
            tp.set(toFen(p));
            makeMove(tp.get(), 3, moveStruct{moves[i].from, moves[i].to, MT_DOUBLE, 0});
            EXPECT_EQ(probeWDLPosition(tp.get(), &ok), withEp) << toFen(p);
            EXPECT_EQ(ok, 1);
        }
    }
    EXPECT_GT(differing, 0);
}

// The count line, empty values, release and reload; the first folder holding a file wins
// (a broken copy there too); every signature of 3 to 6 pieces fits the registry.
TEST_F(Tablebase, Registration) {
    const std::string rook = "8/8/8/4k3/8/8/8/4K2R w - - 0 1";
    int ok;
    EXPECT_EQ(initOutput(dataPath("syzygy")), "Found 35 tablebases.\n");
    EXPECT_EQ(TB_LARGEST, 4);
    for (const char* none : {"<empty>", ""}) {
        EXPECT_EQ(initOutput(none), "");
        EXPECT_EQ(TB_LARGEST + TBnum_piece + TBnum_pawn, 0);
        probeFen(rook, &ok);
        EXPECT_EQ(ok, 0);
    }
    EXPECT_EQ(initOutput(dataPath("syzygy")), "Found 35 tablebases.\n");
    EXPECT_EQ(probeFen("8/8/8/4k3/8/8/8/4K2R b - - 0 1", &ok), -2);
    EXPECT_EQ(initOutput("/nonexistent/folder"), "Found 0 tablebases.\n");

    tempDir a, b;
    b.copy("KRvK.rtbw");
    EXPECT_EQ(initOutput("::/nonexistent:" + a.path.string() + "::" + b.path.string() + ":"), "Found 1 tablebases.\n");
    EXPECT_EQ(probeFen(rook, &ok), 2);
    EXPECT_EQ(ok, 1);
    std::ofstream(a.path / "KRvK.rtbw") << "not a table at all";
    initOutput(a.path.string() + ":" + b.path.string());
    testing::internal::CaptureStderr();
    probeFen(rook, &ok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Corrupted table.\n");
    EXPECT_EQ(ok, 0);

    tempDir all;
    std::vector<std::string> names;
    for (int strong = 1; strong <= 4; strong++)
        for (int weak = 0; weak <= std::min(strong, 4 - strong); weak++)
            for (const std::string& s : pieceSets(strong))
                for (const std::string& w : pieceSets(weak))
                    if (strong != weak || strengthKey(s) <= strengthKey(w))
                        std::ofstream(all.path / ("K" + s + "vK" + w + ".rtbw"));
    EXPECT_EQ(initOutput(all.path.string()), "Found 510 tablebases.\n");
    EXPECT_EQ(TBnum_piece, TBMAX_PIECE);
    EXPECT_EQ(TBnum_pawn, TBMAX_PAWN);
    EXPECT_EQ(TB_LARGEST, 6);
    for (int i = 0; i < TBnum_piece; i++)
        EXPECT_TRUE(tb_lookup(TB_piece[i].key) == &TB_piece[i] && tb_lookup(TB_piece[i].key2) == &TB_piece[i]);
}

TEST_F(Tablebase, MissingAndCorruptedFilesFailTheProbe) {
    tempDir dir;
    for (const char* f : {"KRvK.rtbw", "KRvK.rtbz", "KQvK.rtbw", "KBNvK.rtbw", "KPvK.rtbw", "KQRvK.rtbw"})
        dir.copy(f);
    fs::resize_file(dir.path / "KQvK.rtbw", fs::file_size(dir.path / "KQvK.rtbw") / 2);
    fs::resize_file(dir.path / "KRvK.rtbz", fs::file_size(dir.path / "KRvK.rtbz") / 3);
    std::fstream(dir.path / "KBNvK.rtbw", std::ios::in | std::ios::out | std::ios::binary).put('\x00');
    EXPECT_EQ(initOutput(dir.path.string()), "Found 5 tablebases.\n");
    fs::remove(dir.path / "KPvK.rtbw");
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"8/8/8/4k3/8/8/4P3/4K3 w - - 0 1", "Could not find KPvK.rtbw\n", false},
        {"8/8/8/4k3/8/8/8/4K2Q w - - 0 1", "Corrupted table.\n", false},
        {"8/8/8/4k3/8/8/8/2B1K1N1 w - - 0 1", "Corrupted table.\n", false},
        {"8/8/8/4k3/8/8/8/4K2R b - - 0 1", "Corrupted table.\n", true},
        {"8/8/8/4k3/8/8/8/3QK2R b - - 0 1", "Could not find KQRvK.rtbz\n", true},
    };
    for (auto [fen, message, dtz] : cases) {
        testPosition tp(fen);
        tb_pos p;
        ASSERT_TRUE(tb_pos_from_position(tp.get(), &p));
        for (const char* expected : {message, ""}) {  // said once, then failing quietly
            int ok;
            testing::internal::CaptureStderr();
            dtz ? probe_dtz(p, &ok) : probe_wdl(p, &ok);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), expected) << fen;
            EXPECT_EQ(ok, 0) << fen;
        }
    }
    int ok;
    EXPECT_EQ(probeFen("8/8/8/4k3/8/8/8/4K2R b - - 0 1", &ok), -2) << "the WDL file still answers";
    EXPECT_EQ(ok, 1);
    testPosition tp("8/8/8/4k3/8/8/8/4K2Q w - - 0 1");
    probeWDLPosition(tp.get(), &ok);
    EXPECT_EQ(ok, 0);
    EXPECT_TRUE(rootMove(tp.get()).empty());
    tp.set("8/8/8/4k3/8/8/8/4K2R w - - 0 1");
    EXPECT_TRUE(rootMove(tp.get()).empty());
}

// Random damage to every part of a few files (run under the address sanitizer).
TEST_F(Tablebase, DamagedCopiesNeverCrash) {
    std::mt19937 rng(5);
    const std::vector<std::string> tables = {"KRvKN", "KBBvK", "KRPvK", "KPvKP"};
    tempDir dir;
    int answered = 0;
    for (int round = 0; round < 12; round++) {
        for (const std::string& t : tables)
            for (const char* ext : {".rtbw", ".rtbz"}) {
                fs::path file = dir.path / (t + ext);
                dir.copy(t + ext);
                auto size = fs::file_size(file);
                std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
                for (int k = 0; k < 6; k++) {  // most flips land in the headers
                    auto at = (rng() & 1) ? rng() % std::min<uintmax_t>(size, 160) : rng() % size;
                    f.seekp(std::streamoff(std::max<uintmax_t>(at, 4)));
                    f.put(char(rng()));
                }
                f.close();
                if (round % 4 == 3)
                    fs::resize_file(file, size - rng() % (size / 2));
            }
        initOutput(dir.path.string());
        testing::internal::CaptureStderr();
        for (const std::string& t : tables)
            for (int k = 0; k < 40; k++) {
                tb_pos p = randomPosition(t, rng);
                int ok, w = probe_wdl(p, &ok);
                EXPECT_TRUE(!ok || (w >= -2 && w <= 2));
                answered += ok;
                if (k < 5)
                    probe_dtz(p, &ok);
            }
        testing::internal::GetCapturedStderr();
    }
    EXPECT_GT(answered, 100) << "damage inside the data blocks leaves tables loadable: the decoder must run";
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
            positions.push_back(randomPosition(name, rng));
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
