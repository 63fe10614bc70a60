// Helpers shared by the tests: tables, positions owning their move buffer, data paths,
// FEN writing and mirroring, legal moves and lines, random walks, EPD files, tablebases.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "board/bitboards.h"
#include "board/makemove.h"
#include "board/movegen.h"
#include "board/position.h"
#include "board/zobrist.h"
#include "tablebase/tbprobe.h"

// Sanitized builds run slower: randomised tests do less work there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int TEST_WORK_DIVISOR = 4;
#else
constexpr int TEST_WORK_DIVISOR = 1;
#endif

inline void initTables() {
    initBitboardConstants();
    initHashCodeTables();
}

struct testPosition {
    std::unique_ptr<positionStruct> pos = std::make_unique<positionStruct>();
    std::vector<moveStruct> buffer = std::vector<moveStruct>(MOVE_BUFFER);

    explicit testPosition(const std::string& fen = fenStartPos) {
        initTables();
        set(fen);
    }
    void set(const std::string& fen) {
        std::string error;
        EXPECT_TRUE(setPosition(fen, pos.get(), &error)) << fen << ": " << error;
        pos->bindMoveBuffer(buffer.data());
    }
    positionStruct* operator->() { return pos.get(); }
    positionStruct* get() { return pos.get(); }
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

// The legal moves at `ply`, with the generator's ordering keys.
inline std::vector<moveStruct> legalMoves(positionStruct* pos, int ply = 0) {
    setInCheck(u8(ply), pos);
    generateMovesLegal(u8(ply), pos->plyStack[ply].moveListBegin, pos);
    return {pos->plyStack[ply].moveListBegin, pos->plyStack[ply].moveListEnd};
}

inline moveStruct findMove(positionStruct* pos, const std::string& text, int ply = 0) {
    for (const moveStruct& m : legalMoves(pos, ply))
        if (moveToLA(&m, pos->sideToMove) == text)
            return m;
    return EMPTYMOVE;
}

// Plays a move as game history before the root, the way "position ... moves" does.
inline void playAtRoot(positionStruct* pos, moveStruct m) {
    makeMove(pos, 0, m);
    pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
    pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
    setInCheck(0, pos);
}

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

// The placement field of a FEN from 64 characters indexed by square, '1' for empty ones.
inline std::string placement(const std::string& board) {
    std::string fen;
    for (int sq = 56; sq >= 0; sq = sq % 8 == 7 ? sq - 15 : sq + 1) {
        bool merge = board[sq] == '1' && !fen.empty() && fen.back() >= '1' && fen.back() < '8';
        merge ? void(fen.back()++) : void(fen += board[sq]);
        fen += sq % 8 == 7 && sq > 7 ? "/" : "";
    }
    return fen;
}

// The FEN of a position (rights and en-passant square of ply 0).
inline std::string fenOf(const positionStruct* pos) {
    std::string board(64, '1');
    for (int sq = 0; sq < 64; sq++)
        board[sq] = pos->board[sq] ? fenLabelPieces[pos->board[sq]] : '1';
    std::string fen = placement(board);
    const plyStruct& p = pos->plyStack[0];
    std::string rights;
    for (int i : {0, 2, 1, 3})
        if (p.castlingRights & (1 << i))
            rights += "KkQq"[i];
    fen += std::string(pos->sideToMove == WHITE ? " w " : " b ") + (rights.empty() ? "-" : rights)
           + " ";
    int ep = pos->sideToMove == WHITE ? p.enPassantSquare + 8 : p.enPassantSquare - 8;
    return fen + (p.enPassantSquare ? squareToString(ep) : "-") + " "
           + std::to_string(pos->halfMoveClock) + " 1";
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

// Loads the shared tables (their count line goes to the captured output, not the log).
inline void loadTablebases(const std::string& path = dataPath("syzygy")) {
    initTables();
    testing::internal::CaptureStdout();
    init_tablebases(path);
    testing::internal::GetCapturedStdout();
}
