// What the GoogleTest files and the fuzz harnesses share: positions owning their move
// buffer, state bytes, the from-scratch checks, FEN writing, legal moves, slow perft,
// random tablebase positions, words and numbers, scratch files. No GoogleTest here: the
// harnesses build without it.
#pragma once

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "board/bitboards.h"
#include "board/makemove.h"
#include "board/movegen.h"
#include "board/position.h"
#include "board/zobrist.h"
#include "tuning/pgn.h"

inline void initTables() {
    initBitboardConstants();
    initHashCodeTables();
}

// A position with its own move buffer.
struct ownedPosition {
    std::unique_ptr<positionStruct> pos = std::make_unique<positionStruct>();
    std::vector<moveStruct> buffer = std::vector<moveStruct>(MOVE_BUFFER);
    positionStruct* get() {
        pos->bindMoveBuffer(buffer.data());
        return pos.get();
    }
    positionStruct* operator->() { return get(); }
};

// The board and everything make/take-back keep incrementally. `history` adds the game ply
// and the key history (a FEN read back starts a new one); `ply` >= 0 adds the castling
// rights and en-passant square of that ply record.
inline std::string positionBytes(const positionStruct* p, bool history, int ply = -1) {
    std::string s;
    auto add = [&](const void* at, size_t n) { s.append(static_cast<const char*>(at), n); };
    add(p->board, sizeof p->board);
    add(p->bitboards, sizeof p->bitboards);
    add(&p->hashKey, sizeof p->hashKey);
    add(&p->pawnKey, sizeof p->pawnKey);
    add(p->material, sizeof p->material);
    add(p->psqScore, sizeof p->psqScore);
    add(&p->phase, sizeof p->phase);
    add(&p->sideToMove, sizeof p->sideToMove);
    add(&p->halfMoveClock, sizeof p->halfMoveClock);
    if (history) {
        add(&p->gamePly, sizeof p->gamePly);
        add(p->keyHistory, sizeof(u64) * size_t(p->gamePly));
    }
    if (ply >= 0) {
        add(&p->plyStack[ply].castlingRights, 1);
        add(&p->plyStack[ply].enPassantSquare, 1);
    }
    return s;
}

// What is wrong with the incremental state against a from-scratch computation, "" when
// nothing: keys, material, piece-square sums and phase rebuilt from the board; bitboards;
// one king each and no pawn on a back rank; the side not to move not in check; with
// `history`, the key history ending in the current key (a null move and "ucinewgame" leave
// it without). The scratch key reads ply 0's rights and en-passant square: `ply`'s are lent.
inline std::string inconsistency(positionStruct* pos, int ply, bool history = true) {
    plyStruct& p0 = pos->plyStack[0];
    const u8 rights = p0.castlingRights, ep = p0.enPassantSquare;
    p0.castlingRights = pos->plyStack[ply].castlingRights;
    p0.enPassantSquare = pos->plyStack[ply].enPassantSquare;
    const u64 key = calcHashKey(0, pos);
    p0.castlingRights = rights;
    p0.enPassantSquare = ep;
    if (key != pos->hashKey)
        return "hash key differs from the one rebuilt from the board";
    if (calcPawnKey(pos) != pos->pawnKey)
        return "pawn key differs from the one rebuilt from the board";
    if (pos->gamePly < 1 || pos->gamePly > KEY_HISTORY
        || (history && pos->keyHistory[pos->gamePly - 1] != pos->hashKey))
        return "key history does not end in the current key";
    const std::string incremental = positionBytes(pos, false);
    calcScores(pos);
    if (positionBytes(pos, false) != incremental)
        return "material, piece-square sums or phase differ from the rebuilt ones";
    bitboard fromBoard[14] = {};
    for (int sq = 0; sq < 64; sq++)
        if (const int pc = pos->board[sq]) {
            if (pc < WPAWN || pc > BKING)
                return "bad piece code on the board";
            fromBoard[pc] |= bb(sq);
            fromBoard[pc & 1] |= bb(sq);
        }
    if (std::memcmp(fromBoard, pos->bitboards, sizeof fromBoard) != 0)
        return "bitboards differ from the board";
    if (popCount(fromBoard[WKING]) != 1 || popCount(fromBoard[BKING]) != 1
        || ((fromBoard[WPAWN] | fromBoard[BPAWN]) & (rankBB(0) | rankBB(7))))
        return "not one king per side, or a pawn on a back rank";
    const int them = pos->sideToMove ^ 1;
    if (squareAttacked(pos, pos->kingSquare(them), them ^ 1, pos->occupied()))
        return "the side not to move is in check";
    return "";
}

// The FEN of a position (rights and en-passant square of ply 0). Unlike fenFields() it
// keeps an en-passant square that no pawn can take, as the reader does.
inline std::string fenOf(const positionStruct* pos) {
    std::string fen = fenFields(pos);
    fen.erase(fen.rfind(' ') + 1);
    const int ep = pos->plyStack[0].enPassantSquare;
    fen += ep ? squareToString(pos->sideToMove == WHITE ? ep + 8 : ep - 8) : "-";
    const int fullMove = std::max(1, (pos->gamePly - 1 - pos->sideToMove) / 2 + 1);
    return fen + " " + std::to_string(pos->halfMoveClock) + " " + std::to_string(fullMove);
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

// A random legal placement of a table's material ("KRvKP", the side before the 'v' White
// or Black at random) as a FEN with that half-move clock. The reader refuses pawns on the
// back ranks and the side not to move in check: such draws are drawn again.
inline std::string randomTableFen(const std::string& name, std::mt19937& rng, int clock = 0) {
    static const std::unique_ptr<positionStruct> scratch = std::make_unique<positionStruct>();
    for (;;) {
        std::string board(64, '1');
        int white = int(rng() & 1);
        for (char c : name) {
            size_t sq = rng() % 64;
            while (c != 'v' && board[sq] != '1')
                sq = rng() % 64;
            white ^= c == 'v';
            if (c != 'v')
                board[sq] = white ? c : char(c ^ 32);
        }
        const std::string fen =
            placement(board) + (rng() & 1 ? " w - - " : " b - - ") + std::to_string(clock) + " 1";
        if (setPosition(fen, scratch.get()))
            return fen;
    }
}

// The legal moves at `ply`, with the generator's ordering keys.
inline std::vector<moveStruct> legalMoves(positionStruct* pos, int ply = 0) {
    setInCheck(u8(ply), pos);
    generateMovesLegal(u8(ply), pos->plyStack[ply].moveListBegin, pos);
    return {pos->plyStack[ply].moveListBegin, pos->plyStack[ply].moveListEnd};
}

// What is wrong with the legal list at `ply`, "" when nothing: it must hold, once each, the
// generated moves that do not leave the own king attacked (in check: of the full
// pseudo-legal set, generated as if not in check).
inline std::string legalListFault(positionStruct* pos, int ply) {
    std::set<u32> legal, expected;
    for (const moveStruct& m : legalMoves(pos, ply))
        if (!legal.insert(m.packed() & 0xFFFFFF).second)
            return "move listed twice: " + moveToLA(&m, pos->sideToMove);
    plyStruct& ps = pos->plyStack[ply];
    const u8 inCheck = ps.inCheck;
    ps.inCheck = 0;
    generateMovesCaptures(u8(ply), ps.moveListBegin, pos);
    generateMovesQuiets(u8(ply), ps.moveListEnd, pos);
    const std::vector<moveStruct> all(ps.moveListBegin, ps.moveListEnd);
    ps.inCheck = inCheck;
    const int us = pos->sideToMove;
    for (const moveStruct& m : all) {
        if (inCheck && (m.type == MT_CASTLE_K || m.type == MT_CASTLE_Q))
            continue;
        makeMove(pos, ply, m);
        if (!squareAttacked(pos, pos->kingSquare(us), us ^ 1, pos->occupied()))
            expected.insert(m.packed() & 0xFFFFFF);
        takeBack(pos, ply, m);
    }
    return legal == expected ? "" : "the legal list is not the set of moves keeping the king safe";
}

// The legal move written `text` at `ply`; EMPTYMOVE when there is none.
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

// Leaf count through generateMovesLegal and make/take-back, apart from perft(): every ply
// filtered, the evasions included, the last ply counted from the list.
inline u64 slowPerft(positionStruct* pos, int ply, int depth) {
    plyStruct& ps = pos->plyStack[ply];
    setInCheck(u8(ply), pos);
    generateMovesLegal(u8(ply), ps.moveListBegin, pos);
    if (depth <= 1)
        return u64(ps.moveListEnd - ps.moveListBegin);
    u64 n = 0;
    for (moveStruct* m = ps.moveListBegin; m < ps.moveListEnd; m++) {
        makeMove(pos, ply, *m);
        n += slowPerft(pos, ply + 1, depth - 1);
        takeBack(pos, ply, *m);
    }
    return n;
}

// The words of a line, split at white space.
inline std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> w;
    for (std::string t; in >> t;)
        w.push_back(t);
    return w;
}

// An integer as the command loop reads it (sign, digits only), pinned to +-2^40.
inline bool wholeNumber(const std::string& s, long long& v) {
    size_t i = !s.empty() && (s[0] == '-' || s[0] == '+');
    if (i == s.size())
        return false;
    v = 0;
    for (size_t k = i; k < s.size(); k++) {
        if (s[k] < '0' || s[k] > '9')
            return false;
        v = std::min(v * 10 + (s[k] - '0'), 1LL << 40);
    }
    v = s[0] == '-' ? -v : v;
    return true;
}

// A whole file (a tool's report, standard error captured in a file).
inline std::string readTextFile(const std::string& path) {
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// A folder of its own under the system's temporary one, removed with its owner. (Windows
// deletes no file that is still mapped: tablebases are released first.)
struct scratchFolder {
    std::filesystem::path path = std::filesystem::temp_directory_path()
                                 / ("quorvane-" + std::to_string(std::random_device{}()));
    scratchFolder() { std::filesystem::create_directories(path); }
    scratchFolder(const scratchFolder&) = delete;
    ~scratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    // Writes `bytes` to the file `name` of the folder; returns its path.
    std::string write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path / name, std::ios::binary) << bytes;
        return (path / name).string();
    }
};
