// Tablebase probing against the recorded oracle, self-consistency over random positions,
// the root adapter, registration, broken files and concurrent first use.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

#include "board/makemove.h"
#include "tablebase/tbcore.h"
#include "tablebase/tbprobe.h"
#include "test_util.h"

namespace fs = std::filesystem;

namespace {

const char* const SYZYGY = "syzygy";

struct oracleCase {
    std::string fen;
    int wdl, dtz;
};

std::vector<oracleCase> readOracle() {
    std::vector<oracleCase> cases;
    std::ifstream in(dataPath("syzygy_cases.tsv"));
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        oracleCase c;
        std::getline(fields, c.fen, '\t');
        fields >> c.wdl >> c.dtz;
        cases.push_back(c);
    }
    return cases;
}

// Runs init_tablebases and returns what it printed.
std::string initQuiet(const std::string& path) {
    initTables();
    testing::internal::CaptureStdout();
    init_tablebases(path);
    return testing::internal::GetCapturedStdout();
}

std::string toFen(const tb_pos& p) {
    std::string fen;
    for (int rank = 7; rank >= 0; rank--) {
        int empty = 0;
        for (int file = 0; file < 8; file++) {
            int sq = 8 * rank + file;
            char c = 0;
            for (int t = PAWN; t <= KING; t++)
                if (p.type[t] & bb(sq))
                    c = " PNBRQK"[t];
            if (!c) {
                empty++;
                continue;
            }
            if (empty)
                fen += char('0' + empty);
            empty = 0;
            fen += (p.colour[BLACK] & bb(sq)) ? char(c + 32) : c;
        }
        if (empty)
            fen += char('0' + empty);
        if (rank)
            fen += '/';
    }
    fen += p.side == WHITE ? " w - " : " b - ";
    fen += p.ep ? squareToString(p.ep) : "-";
    return fen + " " + std::to_string(p.rule50) + " 1";
}

// A random legal placement of a table's material (the name's first side is White or
// Black at random), pawns on ranks 2-7, the side not to move not in check.
tb_pos randomPosition(const std::string& name, std::mt19937& rng) {
    for (;;) {
        tb_pos p;
        bool swap = rng() & 1;
        int side = 0;
        bool ok = true;
        for (char c : name) {
            if (c == 'v') {
                side = 1;
                continue;
            }
            int t = int(std::string(" PNBRQK").find(c));
            int colour = side ^ swap, sq;
            do
                sq = int(rng() % 64);
            while ((p.colour[0] | p.colour[1]) & bb(sq));
            if (t == PAWN && (rankOf(sq) == 0 || rankOf(sq) == 7))
                ok = false;
            p.colour[colour] |= bb(sq);
            p.type[t] |= bb(sq);
        }
        p.side = int(rng() & 1);
        tb_pos other = p;
        other.side ^= 1;
        if (ok && !tb_in_check(other))
            return p;
    }
}

int sign(int v) { return (v > 0) - (v < 0); }

// The best result over the legal moves, from the side to move's view.
int bestOverMoves(const tb_pos& p, int* success) {
    tb_move moves[TB_MAX_MOVES];
    int n = tb_legal_moves(p, moves);
    *success = 1;
    if (n == 0)
        return tb_in_check(p) ? -2 : 0;
    int best = -3;
    for (int i = 0; i < n; i++) {
        tb_pos child;
        tb_do_move(p, moves[i], &child);
        best = std::max(best, -probe_wdl(child, success));
        if (!*success)
            return 0;
    }
    return best;
}

// Checks p's WDL against its children's; returns false (with a failure) on disagreement.
bool checkWdlAgainstMoves(const tb_pos& p) {
    int ok1, ok2;
    int w = probe_wdl(p, &ok1);
    int m = bestOverMoves(p, &ok2);
    EXPECT_TRUE(ok1 && ok2) << toFen(p);
    bool good = sign(m) == sign(w) && (std::abs(w) != 2 || m == w) && (w != 0 || m == 0);
    EXPECT_TRUE(good) << toFen(p) << " wdl " << w << " best over moves " << m;
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

struct tempDir {
    fs::path path;
    explicit tempDir(const std::string& tag) {
        path = fs::temp_directory_path()
             / ("quorvane_tb_" + tag + "_" + std::to_string(::getpid()));
        fs::remove_all(path);
        fs::create_directories(path);
    }
    ~tempDir() { fs::remove_all(path); }
    std::string str() const { return path.string(); }
};

void copyTable(const std::string& file, const fs::path& dir) {
    fs::copy_file(dataPath(std::string(SYZYGY) + "/" + file), dir / file,
                  fs::copy_options::overwrite_existing);
}

// Every multiset of n letters of QRBNP, strongest first.
std::vector<std::string> pieceSets(int n, size_t from = 0) {
    static const std::string letters = "QRBNP";
    if (n == 0)
        return {""};
    std::vector<std::string> sets;
    for (size_t i = from; i < letters.size(); i++)
        for (const std::string& rest : pieceSets(n - 1, i))
            sets.push_back(letters[i] + rest);
    return sets;
}

std::string strengthOrder(std::string s) {
    for (char& c : s)
        c = char('a' + std::string("QRBNP").find(c));
    return s;
}

int probeFen(const std::string& fen, int* success) {
    testPosition tp(fen);
    tb_pos p;
    EXPECT_TRUE(tb_pos_from_position(tp.get(), &p));
    return probe_wdl(p, success);
}

}  // namespace

// ---------------------------------------------------------------------------------------

TEST(Tablebase, OracleWdlAndDtz) {
    REQUIRE_DATA(SYZYGY);
    REQUIRE_DATA("syzygy_cases.tsv");
    initQuiet(dataPath(SYZYGY));
    testPosition tp;
    auto cases = readOracle();
    ASSERT_EQ(cases.size(), 315u);
    int passed = 0;
    for (const oracleCase& c : cases) {
        tp.set(c.fen);
        tb_pos p;
        ASSERT_TRUE(tb_pos_from_position(tp.get(), &p)) << c.fen;
        int ok1, ok2;
        int wdl = probe_wdl(p, &ok1);
        int dtz = probe_dtz(p, &ok2);
        EXPECT_TRUE(ok1 && ok2) << c.fen;
        EXPECT_EQ(wdl, c.wdl) << c.fen;
        EXPECT_EQ(dtz, c.dtz) << c.fen;
        passed += ok1 && ok2 && wdl == c.wdl && dtz == c.dtz;
        // The tree's entry point reads the same position through the engine record.
        int ok3;
        EXPECT_EQ(probeWDLPosition(tp.get(), &ok3), c.wdl) << c.fen;
        EXPECT_EQ(ok3, 1);
    }
    std::printf("oracle cases passed: %d of %zu\n", passed, cases.size());
}

// Every table: a position's WDL is the best of its children's, negated, and its DTZ has
// the sign of its WDL, beyond 100 exactly for the results the fifty-move rule spoils.
TEST(Tablebase, RandomPositionsAgreeWithTheirMoves) {
    REQUIRE_DATA(SYZYGY);
    initQuiet(dataPath(SYZYGY));
    auto names = registeredNames();
    ASSERT_EQ(names.size(), 35u);
    std::mt19937 rng(20240605);
    int epChecked = 0;
    for (const std::string& name : names) {
        for (int k = 0; k < 60; k++) {
            tb_pos p = randomPosition(name, rng);
            if (!checkWdlAgainstMoves(p))
                break;
            if (k < 15) {
                int ok1, ok2;
                int w = probe_wdl(p, &ok1), d = probe_dtz(p, &ok2);
                ASSERT_TRUE(ok1 && ok2) << toFen(p);
                EXPECT_EQ(sign(d), sign(w)) << toFen(p) << " dtz " << d;
                EXPECT_EQ(std::abs(d) > 100, std::abs(w) == 1) << toFen(p) << " dtz " << d;
            }
        }
    }
    // Children after a double step carry an en-passant right; only KPvKP has them here.
    for (int k = 0; k < 20000 && epChecked < 60; k++) {
        tb_pos p = randomPosition("KPvKP", rng);
        tb_move moves[TB_MAX_MOVES];
        int n = tb_legal_moves(p, moves);
        for (int i = 0; i < n; i++) {
            tb_pos child;
            tb_do_move(p, moves[i], &child);
            if (child.ep) {
                checkWdlAgainstMoves(child);
                epChecked++;
            }
        }
    }
    EXPECT_GT(epChecked, 10);
}

// A winning DTZ is one more than the best child's, or 1 when a zeroing move keeps the win;
// the files may store distances in whole moves, so one ply of slack either way.
TEST(Tablebase, DtzStepsDownAlongTheBestMove) {
    REQUIRE_DATA(SYZYGY);
    initQuiet(dataPath(SYZYGY));
    std::mt19937 rng(77);
    for (const std::string& name : registeredNames()) {
        for (int k = 0; k < 8; k++) {
            tb_pos p = randomPosition(name, rng);
            int ok;
            int d = probe_dtz(p, &ok);
            ASSERT_TRUE(ok);
            if (d <= 0 || d > 100)
                continue;
            tb_move moves[TB_MAX_MOVES];
            int n = tb_legal_moves(p, moves);
            int best = 1000;
            for (int i = 0; i < n; i++) {
                tb_pos child;
                tb_do_move(p, moves[i], &child);
                if (child.rule50 == 0) {
                    if (probe_wdl(child, &ok) == -2)
                        best = std::min(best, 1);
                } else {
                    int cd = probe_dtz(child, &ok);
                    if (cd < 0)
                        best = std::min(best, 1 - cd);
                }
            }
            EXPECT_LE(std::abs(best - d), 1)
                << toFen(p) << " dtz " << d << " best move gives " << best;
        }
    }
}

TEST(Tablebase, RootMoveKeepsTheWinAndLowersDtz) {
    REQUIRE_DATA(SYZYGY);
    initQuiet(dataPath(SYZYGY));
    std::mt19937 rng(4242);
    testPosition tp;
    int wins = 0, draws = 0, losses = 0;
    for (const std::string& name : registeredNames()) {
        for (int k = 0; k < 12; k++) {
            tb_pos p = randomPosition(name, rng);
            int ok;
            int w = probe_wdl(p, &ok), d = probe_dtz(p, &ok);
            tb_move moves[TB_MAX_MOVES];
            if (tb_legal_moves(p, moves) == 0)
                continue;
            tp.set(toFen(p));
            testing::internal::CaptureStdout();
            moveStruct m = syzygyProbeDTZ(0, tp.get());
            std::string out = testing::internal::GetCapturedStdout();
            ASSERT_FALSE(m.empty()) << toFen(p);
            EXPECT_EQ(out.rfind("info score cp ", 0), 0u) << out;
            EXPECT_NE(out.find(" pv " + moveToLA(&m, u8(p.side)) + "\n"), std::string::npos) << out;

            // Play the move on the engine's own board and read the result back.
            int ply = 0;
            makeMove(tp.get(), ply, m);
            tp->plyStack[0].enPassantSquare = tp->plyStack[1].enPassantSquare;
            tb_pos child;
            ASSERT_TRUE(tb_pos_from_position(tp.get(), &child))
                << toFen(p) << " " << moveToLA(&m, u8(p.side));
            int cw = probe_wdl(child, &ok), cd = probe_dtz(child, &ok);
            if (w == 2) {
                wins++;
                bool mate = tb_in_check(child) && tb_legal_moves(child, moves) == 0;
                EXPECT_TRUE(mate || cw == -2) << toFen(p);
                if (!mate && child.rule50 != 0) {
                    EXPECT_LE(-cd, d) << toFen(p) << " -> " << toFen(child);
                }
            } else if (w == 0) {
                draws++;
                EXPECT_EQ(cw, 0) << toFen(p);
                // The same position always gets the same drawing move.
                tp.set(toFen(p));
                testing::internal::CaptureStdout();
                moveStruct again = syzygyProbeDTZ(0, tp.get());
                testing::internal::GetCapturedStdout();
                EXPECT_TRUE(again.sameAs(m)) << toFen(p);
            } else if (w < 0) {
                // Lost: the longest resistance. No other move that keeps the counter
                // running leaves the winner further from zeroing (taking the quickest loss
                // would also throw away losses that the fifty-move rule draws).
                losses++;
                EXPECT_GT(cw, 0) << toFen(p);
                const int n = tb_legal_moves(p, moves);
                for (int i = 0; i < n && child.rule50 != 0; i++) {
                    tb_pos other;
                    tb_do_move(p, moves[i], &other);
                    if (other.rule50 != 0) {
                        EXPECT_GE(cd, probe_dtz(other, &ok)) << toFen(p) << " -> " << toFen(other);
                    }
                }
            }
        }
    }
    EXPECT_GT(wins, 50);
    EXPECT_GT(draws, 50);
    EXPECT_GT(losses, 20);
}

// Both sides follow the root adapter from won positions: the winner mates without the
// fifty-move counter ever running out, through promotions and captures into other tables.
TEST(Tablebase, AdapterPlaysWinsOutToMate) {
    REQUIRE_DATA(SYZYGY);
    initQuiet(dataPath(SYZYGY));
    std::mt19937 rng(123);
    testPosition tp;
    for (const char* table :
         {"KQvK", "KRvK", "KBNvK", "KPvK", "KQvKR", "KRPvK", "KPvKP", "KBBvK"}) {
        tb_pos p;
        int ok, winner = -1;
        do {
            p = randomPosition(table, rng);
            int w = probe_wdl(p, &ok), d = probe_dtz(p, &ok);
            if (w == 2 && d <= 100)
                winner = p.side;
        } while (winner < 0);
        const std::string start = toFen(p);
        int plies = 0;
        tb_move moves[TB_MAX_MOVES];
        for (; plies < 400 && tb_legal_moves(p, moves) > 0; plies++) {
            tp.set(toFen(p));
            testing::internal::CaptureStdout();
            moveStruct m = syzygyProbeDTZ(0, tp.get());
            testing::internal::GetCapturedStdout();
            ASSERT_FALSE(m.empty()) << start << " at " << toFen(p);
            makeMove(tp.get(), 0, m);
            tp->plyStack[0].enPassantSquare = tp->plyStack[1].enPassantSquare;
            ASSERT_TRUE(tb_pos_from_position(tp.get(), &p));
            ASSERT_LE(p.rule50, 100) << start << " at " << toFen(p);
        }
        EXPECT_TRUE(tb_in_check(p) && p.side != winner && tb_legal_moves(p, moves) == 0)
            << start << " ended at " << toFen(p) << " after " << plies << " plies";
    }
}

TEST(Tablebase, RootAdapterRejectsWhatTheTablesCannotAnswer) {
    REQUIRE_DATA(SYZYGY);
    initQuiet(dataPath(SYZYGY));
    testPosition tp;
    // Five pieces: no table here.
    tp.set("8/8/8/3k4/8/8/1QR5/4K2R w - - 0 1");
    EXPECT_TRUE(syzygyProbeDTZ(0, tp.get()).empty());
    // Castling right left.
    tp.set("8/8/8/4k3/8/8/8/4K2R w K - 0 1");
    EXPECT_TRUE(syzygyProbeDTZ(0, tp.get()).empty());
    // Hand-made broken records: a pawn on the back rank, overlapping piece sets.
    tp.set("8/8/8/4k3/8/8/8/4K2R w - - 0 1");
    tb_pos p;
    EXPECT_TRUE(tb_pos_from_position(tp.get(), &p));
    tp->bitboards[WPAWN] |= bb(7);
    EXPECT_FALSE(tb_pos_from_position(tp.get(), &p));
    EXPECT_TRUE(syzygyProbeDTZ(0, tp.get()).empty());
    tp.set("8/8/8/4k3/8/8/8/4K2R w - - 0 1");
    tp->bitboards[WKNIGHT] |= bb(7);
    EXPECT_FALSE(tb_pos_from_position(tp.get(), &p));
}

// The tree's entry point finds the en-passant right of the move just played through the
// position key, whatever ply it stands at.
TEST(Tablebase, TreeProbeSeesEnPassantAfterADoubleStep) {
    REQUIRE_DATA(SYZYGY);
    initQuiet(dataPath(SYZYGY));
    std::mt19937 rng(9);
    testPosition tp;
    int differing = 0;
    for (int k = 0; k < 4000 && differing < 5; k++) {
        tb_pos p = randomPosition("KPvKP", rng);
        p.side = WHITE;
        tb_move moves[TB_MAX_MOVES];
        int n = tb_legal_moves(p, moves);
        for (int i = 0; i < n; i++) {
            tb_pos child;
            tb_do_move(p, moves[i], &child);
            if (!child.ep || tb_in_check(p))
                continue;
            tb_pos noEp = child;
            noEp.ep = 0;
            int ok, withEp = probe_wdl(child, &ok), without = probe_wdl(noEp, &ok);
            if (withEp == without)
                continue;
            differing++;
            tp.set(toFen(p));
            // Through the engine's make-move at a deeper ply, so ply 0 knows nothing of it.
            makeMove(tp.get(), 3, moveStruct{moves[i].from, moves[i].to, MT_DOUBLE, 0});
            int success;
            EXPECT_EQ(probeWDLPosition(tp.get(), &success), withEp) << toFen(p);
            EXPECT_EQ(success, 1);
        }
    }
    EXPECT_GT(differing, 0);
}

// ---------------------------------------------------------------------------------------
// Registration.

TEST(TablebaseRegistration, SharedFolderAndEmptyValues) {
    REQUIRE_DATA(SYZYGY);
    EXPECT_EQ(initQuiet(dataPath(SYZYGY)), "Found 35 tablebases.\n");
    EXPECT_EQ(TB_LARGEST, 4);
    EXPECT_EQ(TBnum_piece, 24);
    EXPECT_EQ(TBnum_pawn, 11);
    int ok;
    EXPECT_EQ(probeFen("8/8/8/4k3/8/8/8/4K2R w - - 0 1", &ok), 2);
    EXPECT_EQ(ok, 1);

    for (const char* none : {"<empty>", ""}) {
        EXPECT_EQ(initQuiet(none), "");
        EXPECT_EQ(TB_LARGEST, 0);
        EXPECT_EQ(TBnum_piece + TBnum_pawn, 0);
        probeFen("8/8/8/4k3/8/8/8/4K2R w - - 0 1", &ok);
        EXPECT_EQ(ok, 0);
    }
    // Everything comes back after a release.
    EXPECT_EQ(initQuiet(dataPath(SYZYGY)), "Found 35 tablebases.\n");
    EXPECT_EQ(probeFen("8/8/8/4k3/8/8/8/4K2R b - - 0 1", &ok), -2);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(initQuiet("/nonexistent/folder"), "Found 0 tablebases.\n");
}

TEST(TablebaseRegistration, FirstFolderHoldingTheFileWins) {
    REQUIRE_DATA(SYZYGY);
    tempDir a("a"), b("b");
    copyTable("KRvK.rtbw", b.path);
    EXPECT_EQ(initQuiet(a.str() + ":" + b.str()), "Found 1 tablebases.\n");
    EXPECT_EQ(TB_LARGEST, 3);
    int ok;
    EXPECT_EQ(probeFen("8/8/8/4k3/8/8/8/4K2R w - - 0 1", &ok), 2);
    EXPECT_EQ(ok, 1);
    // Empty elements and a missing folder are skipped.
    EXPECT_EQ(initQuiet("::/nonexistent:" + a.str() + "::" + b.str() + ":"),
              "Found 1 tablebases.\n");
    // With a broken copy in the first folder, that copy is the one used.
    std::ofstream(a.path / "KRvK.rtbw") << "not a table at all";
    initQuiet(a.str() + ":" + b.str());
    testing::internal::CaptureStderr();
    probeFen("8/8/8/4k3/8/8/8/4K2R w - - 0 1", &ok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Corrupted table.\n");
    EXPECT_EQ(ok, 0);
}

// The option through the real program: the count comes before the confirmation.
TEST(TablebaseRegistration, OptionTranscriptOfTheBinary) {
    REQUIRE_DATA(SYZYGY);
    auto run = [](const std::string& value) {
        std::string cmd = std::string(QUORVANE_BINARY) + " setoption name SyzygyPath value '" + value
                        + "' 2>&1";
        std::string out;
        FILE* f = ::popen(cmd.c_str(), "r");
        for (int c; f && (c = std::fgetc(f)) != EOF;)
            out += char(c);
        if (f)
            ::pclose(f);
        return out.substr(out.find("commands\n") + 9);
    };
    const std::string dir = dataPath(SYZYGY);
    EXPECT_EQ(run(dir), "Found 35 tablebases.\ninfo string Syzygy tablebases used from directory : "
                            + dir + "\n");
    EXPECT_EQ(run("<empty>"), "info string Syzygy tablebases used from directory : <empty>\n");
}

// Every signature of 3 to 6 pieces at once: the limits and the hash hold them all.
TEST(TablebaseRegistration, AllSignaturesFitTheRegistry) {
    tempDir dir("all");
    std::vector<std::string> names;
    for (int strong = 1; strong <= 4; strong++)
        for (int weak = 0; weak <= std::min(strong, 4 - strong); weak++)
            for (const std::string& s : pieceSets(strong))
                for (const std::string& w : pieceSets(weak))
                    if (strong != weak || strengthOrder(s) <= strengthOrder(w))
                        names.push_back("K" + s + "vK" + w);
    ASSERT_EQ(names.size(), 510u);
    for (const std::string& n : names)
        std::ofstream(dir.path / (n + ".rtbw"));
    EXPECT_EQ(initQuiet(dir.str()), "Found 510 tablebases.\n");
    EXPECT_EQ(TBnum_piece, TBMAX_PIECE);
    EXPECT_EQ(TBnum_pawn, TBMAX_PAWN);
    EXPECT_EQ(TB_LARGEST, 6);
    for (int i = 0; i < TBnum_piece; i++) {
        EXPECT_EQ(tb_lookup(TB_piece[i].key), &TB_piece[i]);
        EXPECT_EQ(tb_lookup(TB_piece[i].key2), &TB_piece[i]);
    }
    // The empty files only fail when used.
    testing::internal::CaptureStderr();
    int ok;
    probeFen("8/8/8/3k4/8/8/1QR5/4K2R w - - 0 1", &ok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Corrupted table.\n");
    EXPECT_EQ(ok, 0);
}

// ---------------------------------------------------------------------------------------
// Broken files: the probe fails, says why once, and nothing reads out of bounds.

TEST(TablebaseFiles, MissingAndCorruptedFilesFailTheProbe) {
    REQUIRE_DATA(SYZYGY);
    tempDir dir("bad");
    for (const char* f :
         {"KRvK.rtbw", "KRvK.rtbz", "KQvK.rtbw", "KBNvK.rtbw", "KPvK.rtbw", "KQRvK.rtbw"})
        copyTable(f, dir.path);
    auto truncate = [&](const std::string& f, double keep) {
        fs::resize_file(dir.path / f, uintmax_t(double(fs::file_size(dir.path / f)) * keep));
    };
    truncate("KQvK.rtbw", 0.5);
    truncate("KRvK.rtbz", 0.3);
    {
        std::fstream f(dir.path / "KBNvK.rtbw", std::ios::in | std::ios::out | std::ios::binary);
        f.put('\x00');
    }
    EXPECT_EQ(initQuiet(dir.str()), "Found 5 tablebases.\n");
    fs::remove(dir.path / "KPvK.rtbw");

    auto expectFailure = [&](const std::string& fen, const std::string& message, bool dtz) {
        int ok;
        testPosition tp(fen);
        tb_pos p;
        ASSERT_TRUE(tb_pos_from_position(tp.get(), &p));
        testing::internal::CaptureStderr();
        dtz ? probe_dtz(p, &ok) : probe_wdl(p, &ok);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), message) << fen;
        EXPECT_EQ(ok, 0) << fen;
        // A second probe fails quietly.
        testing::internal::CaptureStderr();
        dtz ? probe_dtz(p, &ok) : probe_wdl(p, &ok);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << fen;
        EXPECT_EQ(ok, 0);
    };
    expectFailure("8/8/8/4k3/8/8/4P3/4K3 w - - 0 1", "Could not find KPvK.rtbw\n", false);
    expectFailure("8/8/8/4k3/8/8/8/4K2Q w - - 0 1", "Corrupted table.\n", false);
    expectFailure("8/8/8/4k3/8/8/8/2B1K1N1 w - - 0 1", "Corrupted table.\n", false);
    expectFailure("8/8/8/4k3/8/8/8/4K2R b - - 0 1", "Corrupted table.\n", true);
    expectFailure("8/8/8/4k3/8/8/8/3QK2R b - - 0 1", "Could not find KQRvK.rtbz\n", true);

    // The WDL side of the tables with a broken DTZ file still answers.
    int ok;
    EXPECT_EQ(probeFen("8/8/8/4k3/8/8/8/4K2R b - - 0 1", &ok), -2);
    EXPECT_EQ(ok, 1);
    // The engine's entry points report the failure and go on.
    testPosition tp("8/8/8/4k3/8/8/8/4K2Q w - - 0 1");
    probeWDLPosition(tp.get(), &ok);
    EXPECT_EQ(ok, 0);
    EXPECT_TRUE(syzygyProbeDTZ(0, tp.get()).empty());
    tp.set("8/8/8/4k3/8/8/8/4K2R w - - 0 1");
    EXPECT_TRUE(syzygyProbeDTZ(0, tp.get()).empty());

    // A file too large for the address space left: the probe fails and the program goes
    // on (ending it would lose a GUI's game).
    {
        std::ofstream(dir.path / "KBvK.rtbw").put('\x71');
        fs::resize_file(dir.path / "KBvK.rtbw", uintmax_t(8) << 30);   // sparse
        initQuiet(dir.str());
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        rlimit old{};
        ::getrlimit(RLIMIT_AS, &old);
        rlimit low = old;
        low.rlim_cur = rlim_t(pages) * rlim_t(::sysconf(_SC_PAGESIZE)) + (rlim_t(256) << 20);
        ASSERT_EQ(::setrlimit(RLIMIT_AS, &low), 0);
        testing::internal::CaptureStderr();
        probeFen("8/8/8/4k3/8/8/8/4KB2 w - - 0 1", &ok);
        ::setrlimit(RLIMIT_AS, &old);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Could not mmap() " + (dir.path / "KBvK.rtbw").string() + ".\n");
        EXPECT_EQ(ok, 0);
    }
}

// Random damage to every part of a few files; run it under the address sanitizer.
TEST(TablebaseFiles, DamagedCopiesNeverCrash) {
    REQUIRE_DATA(SYZYGY);
    std::mt19937 rng(5);
    const std::vector<std::string> tables = {"KRvKN", "KBBvK", "KRPvK", "KPvKP"};
    tempDir dir("fuzz");
    int answered = 0;
    for (int round = 0; round < 12; round++) {
        for (const std::string& t : tables)
            for (const char* ext : {".rtbw", ".rtbz"}) {
                std::string file = t + ext;
                copyTable(file, dir.path);
                std::fstream f(dir.path / file, std::ios::in | std::ios::out | std::ios::binary);
                auto size = fs::file_size(dir.path / file);
                // Headers are the interesting part: most flips land there.
                for (int k = 0; k < 6; k++) {
                    auto at = (rng() & 1) ? rng() % std::min<uintmax_t>(size, 160) : rng() % size;
                    if (at < 4)
                        continue;
                    f.seekp(std::streamoff(at));
                    f.put(char(rng()));
                }
                f.close();
                if (round % 4 == 3)
                    fs::resize_file(dir.path / file, size - rng() % (size / 2));
            }
        initQuiet(dir.str());
        testing::internal::CaptureStderr();
        for (const std::string& t : tables)
            for (int k = 0; k < 40; k++) {
                tb_pos p = randomPosition(t, rng);
                int ok;
                int w = probe_wdl(p, &ok);
                if (ok) {
                    EXPECT_TRUE(w >= -2 && w <= 2);
                    answered++;
                }
                if (k < 5)
                    probe_dtz(p, &ok);
            }
        testing::internal::GetCapturedStderr();
    }
    // Damage inside the data blocks leaves tables loadable: the decoder must have run.
    EXPECT_GT(answered, 100);
}

// ---------------------------------------------------------------------------------------

// Many threads probe at once from a cold start: every table is loaded exactly once under
// the lock and every thread reads the same values.
TEST(TablebaseThreads, ConcurrentFirstUseAgrees) {
    REQUIRE_DATA(SYZYGY);
    initQuiet(dataPath(SYZYGY));
    std::mt19937 rng(31);
    std::vector<tb_pos> positions;
    std::vector<int> expected;
    for (const std::string& name : registeredNames())
        for (int k = 0; k < 20; k++)
            positions.push_back(randomPosition(name, rng));
    for (const tb_pos& p : positions) {
        int ok;
        expected.push_back(probe_wdl(p, &ok));
    }
    initQuiet(dataPath(SYZYGY));
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
    for (int m : mismatches)
        EXPECT_EQ(m, 0);
}
