// Helpers of the GoogleTest files (test_core.h: those the fuzz harnesses share): positions
// read from a FEN, data paths, moves and lines, random walks, mirroring, mutated text, EPD
// files, captured output, tablebases.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>

#include "eval/evaluate.h"
#include "tablebase/tbprobe.h"
#include "test_core.h"

// Sanitized builds run slower: randomised tests do less work there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED_BUILD = true;
#else
constexpr bool SANITIZED_BUILD = false;
#endif
constexpr int TEST_WORK_DIVISOR = SANITIZED_BUILD ? 4 : 1;

// Start points for random games and fuzzing: the usual perft positions, then en passant at
// once, an en-passant capture that would bare the king, a crowd of queens, a FEN without its
// last fields, and pawns about to promote.
inline const char* const TEST_FENS[] = {
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

struct testPosition : ownedPosition {
    explicit testPosition(const std::string& fen = fenStartPos) {
        initTables();
        set(fen);
    }
    void set(const std::string& fen) {
        std::string error;
        EXPECT_TRUE(setPosition(fen, pos.get(), &error)) << fen << ": " << error;
        get();  // binds the move buffer
    }
};

inline std::string dataPath(const std::string& rel) {
    return std::string(QUORVANE_DATA_DIR) + "/" + rel;
}

#define REQUIRE_DATA(rel)                                                         \
    do {                                                                          \
        if (!std::filesystem::exists(dataPath(rel)))                              \
            GTEST_SKIP() << "test data missing: " << dataPath(rel)                \
                         << " (set QUORVANE_DATA_DIR to the shared data folder)"; \
    } while (0)

// The first move of `moves` that is not legal in turn from `fen`; empty when all are.
inline std::string firstIllegal(const std::string& fen, const std::vector<std::string>& moves) {
    testPosition tp(fen);
    for (const std::string& text : moves) {
        moveStruct m = findMove(tp.get(), text);
        if (m.empty())
            return text.empty() ? "<none>" : text;
        playAtRoot(tp.get(), m);
    }
    return "";
}

// Plays up to `plies` random legal moves at the root, calling visit(pos, legal) before each.
template <typename Visit>
void randomWalk(positionStruct* pos, int plies, std::mt19937& rng, Visit visit) {
    for (int i = 0; i < plies; i++) {
        std::vector<moveStruct> legal = legalMoves(pos);
        if (legal.empty())
            return;
        visit(pos, legal);
        playAtRoot(pos, legal[rng() % legal.size()]);
    }
}

// The static evaluation from White's side.
inline int whiteView(positionStruct* pos) {
    return pos->sideToMove == WHITE ? evaluateN(0, pos) : -evaluateN(0, pos);
}

// The same position with the board flipped, colours and side to move exchanged.
inline std::string mirrorFen(const std::string& fen) {
    std::istringstream in(fen);
    std::string board, side, castling, ep, rest;
    in >> board >> side >> castling >> ep;
    std::getline(in, rest);
    std::vector<std::string> ranks;
    std::stringstream rs(board);
    for (std::string r; std::getline(rs, r, '/');)
        ranks.insert(ranks.begin(), r);
    std::string out;
    for (size_t i = 0; i < ranks.size(); i++) {
        out += i ? "/" : "";
        for (char c : ranks[i])
            out += std::isalpha(static_cast<unsigned char>(c)) ? char(c ^ 32) : c;
    }
    std::string rights;
    for (char c : std::string("KQkq"))
        if (castling.find(char(c ^ 32)) != std::string::npos)
            rights += c;
    if (ep != "-")
        ep[1] = char('1' + '8' - ep[1]);
    return out + (side == "w" ? " b " : " w ") + (rights.empty() ? "-" : rights) + " " + ep + rest;
}

// The fuzzers' seed: fixed for reproducibility; QUORVANE_FUZZ_SEED picks another.
inline u64 fuzzSeed() {
    const char* s = std::getenv("QUORVANE_FUZZ_SEED");
    return s ? std::strtoull(s, nullptr, 10) : 20240611;
}

// `s` after `edits` random deletions, insertions, replacements, repeats and cuts.
inline std::string mutate(std::string s, std::mt19937_64& rng, const std::string& alphabet,
                          int edits) {
    for (int e = 0; e < edits; e++) {
        size_t at = s.empty() ? 0 : rng() % s.size();
        char c = alphabet[rng() % alphabet.size()];
        switch (rng() % 6) {
            case 0:
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

// One of TEST_FENS with one to three edits in the characters a FEN is made of.
inline std::string mutatedFen(std::mt19937_64& rng) {
    const char* base = TEST_FENS[rng() % std::size(TEST_FENS)];
    return mutate(base, rng, "pnbrqkPNBRQK12345678/ -wbKQkqabcdefgh0123456789x9",
                  1 + int(rng() % 3));
}

// The first `limit` positions of an EPD file (the four FEN fields of each line).
inline std::vector<std::string> readEpd(const std::string& rel, size_t limit) {
    std::vector<std::string> fens;
    std::ifstream in(dataPath(rel));
    for (std::string line; fens.size() < limit && std::getline(in, line);) {
        std::istringstream s(line);
        std::string f[4];
        if (s >> f[0] >> f[1] >> f[2] >> f[3])
            fens.push_back(f[0] + " " + f[1] + " " + f[2] + " " + f[3] + " 0 1");
    }
    return fens;
}

// Every field that make/take-back must restore, as bytes.
inline std::string snapshot(const positionStruct* p) { return positionBytes(p, true); }

// What run() prints on standard output, kept out of the log.
template <typename Run>
std::string stdoutOf(Run run) {
    testing::internal::CaptureStdout();
    run();
    return testing::internal::GetCapturedStdout();
}

// Loads the tables found on `path`; returns the count line they print.
inline std::string loadTablebases(const std::string& path = dataPath("syzygy")) {
    initTables();
    return stdoutOf([&] { init_tablebases(path); });
}
