#include "board/perft.h"

#include <chrono>
#include <fstream>
#include <memory>
#include <ostream>
#include <vector>

#include "board/bitboards.h"

// Perft has a generator of its own that produces legal moves only (pins and checks are
// resolved with masks while generating), counts the last ply without playing it, and
// plays moves on a small copy of the board that carries neither keys nor scores. The
// search's generators and make/take-back are checked against it by the tests.
namespace {

struct perftBoard {
    bitboard pieces[14];  // [0]/[1] colour occupancy, [code] per piece code
    u8 board[64];
    u8 enPassant;         // square of a pawn that just advanced two squares, else 0
    u8 castling;
};

// Rights kept after a move touches a square: a king or rook leaving, or a rook captured.
constexpr u8 castlingKeep(int sq) {
    return sq == 4 ? u8(~(WK_CASTLE | WQ_CASTLE)) : sq == 60 ? u8(~(BK_CASTLE | BQ_CASTLE))
         : sq == 7 ? u8(~WK_CASTLE) : sq == 0 ? u8(~WQ_CASTLE)
         : sq == 63 ? u8(~BK_CASTLE) : sq == 56 ? u8(~BQ_CASTLE) : u8(0xFF);
}
constexpr auto CASTLING_KEEP = [] {
    struct { u8 v[64]; } t{};
    for (int sq = 0; sq < 64; sq++)
        t.v[sq] = castlingKeep(sq);
    return t;
}();

template <int Us>
constexpr bitboard forward(bitboard b, int steps = 1) {
    return Us == WHITE ? b << (8 * steps) : b >> (8 * steps);
}

// The moves of a node go either into a list (List) or only into a count.
template <bool List>
struct moveSink {
    moveStruct* out = nullptr;
    u64 count = 0;

    void add(int from, int to, int type) {
        if constexpr (List)
            *out++ = moveStruct{u8(from), u8(to), u8(type), 0};
        else
            count++;
    }
    // One piece from `from` to every square of `targets`.
    void piece(int from, bitboard targets) {
        if constexpr (List) {
            while (targets)
                add(from, popLsb(targets), MT_NORMAL);
        } else
            count += u64(popCount(targets));
    }
    // Pawns arriving on every square of `targets`, each from `delta` squares back.
    void pawns(bitboard targets, int delta, int type) {
        if constexpr (List) {
            while (targets) {
                int to = popLsb(targets);
                add(to - delta, to, type);
            }
        } else
            count += u64(popCount(targets));
    }
    void promotions(bitboard targets, int delta) {
        if constexpr (List) {
            while (targets) {
                int to = popLsb(targets);
                for (int type : {MT_PROMO_Q, MT_PROMO_R, MT_PROMO_B, MT_PROMO_N})
                    add(to - delta, to, type);
            }
        } else
            count += 4 * u64(popCount(targets));
    }
};

template <int Them>
inline bool attacked(const bitboard* b, int sq, bitboard occ) {
    return (kingAttackTable[sq] & b[WKING + Them]) || (knightAttackTable[sq] & b[WKNIGHT + Them])
        || (attackByPawnTable[Them][sq] & b[WPAWN + Them])
        || (bishopAttacks(sq, occ) & (b[WBISHOP + Them] | b[WQUEEN + Them]))
        || (rookAttacks(sq, occ) & (b[WROOK + Them] | b[WQUEEN + Them]));
}

// Pawn pushes and captures of the pawns in `pawns`, onto squares of `mask` only.
template <int Us, bool List>
inline void pawnMoves(moveSink<List>& s, bitboard pawns, bitboard mask, bitboard empty,
                      bitboard enemy) {
    constexpr int up = Us == WHITE ? 8 : -8;
    constexpr bitboard lastRank = Us == WHITE ? rankBB(7) : rankBB(0);
    constexpr bitboard thirdRank = Us == WHITE ? rankBB(2) : rankBB(5);
    constexpr bitboard notA = ~FILE_A, notH = ~(FILE_A << 7);
    constexpr int west = Us == WHITE ? 7 : -9, east = Us == WHITE ? 9 : -7;

    bitboard push = forward<Us>(pawns) & empty;
    bitboard twice = forward<Us>(push & thirdRank) & empty & mask;
    push &= mask;
    bitboard capW = (Us == WHITE ? (pawns & notA) << 7 : (pawns & notA) >> 9) & enemy & mask;
    bitboard capE = (Us == WHITE ? (pawns & notH) << 9 : (pawns & notH) >> 7) & enemy & mask;
    s.pawns(push & ~lastRank, up, MT_NORMAL);
    s.pawns(twice, 2 * up, MT_DOUBLE);
    s.pawns(capW & ~lastRank, west, MT_NORMAL);
    s.pawns(capE & ~lastRank, east, MT_NORMAL);
    if ((push | capW | capE) & lastRank) {
        s.promotions(push & lastRank, up);
        s.promotions(capW & lastRank, west);
        s.promotions(capE & lastRank, east);
    }
}

// Every legal move of the side to move (Us) into the sink.
template <int Us, bool List>
void generateLegal(const perftBoard& p, moveSink<List>& s) {
    constexpr int Them = Us ^ 1;
    const bitboard* b = p.pieces;
    const bitboard own = b[Us], enemy = b[Them], occ = own | enemy;
    const int k = lsb(b[WKING + Us]);
    const bitboard theirDiag = b[WBISHOP + Them] | b[WQUEEN + Them];
    const bitboard theirLine = b[WROOK + Them] | b[WQUEEN + Them];

    const bitboard checkers = (bishopAttacks(k, occ) & theirDiag)
                            | (rookAttacks(k, occ) & theirLine)
                            | (knightAttackTable[k] & b[WKNIGHT + Them])
                            | (attackByPawnTable[Them][k] & b[WPAWN + Them]);

    // King steps, with the king lifted so that a slider's ray through it still counts.
    const bitboard noKing = occ ^ bb(k);
    for (bitboard t = kingAttackTable[k] & ~own; t;) {
        int to = popLsb(t);
        if (!attacked<Them>(b, to, noKing))
            s.add(k, to, MT_NORMAL);
    }
    if (checkers && moreThanOne(checkers))
        return;

    // Pinned pieces: seen through our own pieces, an enemy slider with exactly one of
    // ours (and none of theirs) between it and the king pins that piece.
    bitboard pinned = 0;
    bitboard snipers = (bishopAttacks(k, enemy) & theirDiag) | (rookAttacks(k, enemy) & theirLine);
    while (snipers) {
        bitboard between = inBetweenSquares[k][popLsb(snipers)] & own;
        if (between && !moreThanOne(between))
            pinned |= between;
    }

    // Out of check any square not our own will do; in check only the checker's square and
    // the squares between it and the king, and a pinned piece can do neither.
    const bitboard target = checkers ? checkers | inBetweenSquares[k][lsb(checkers)] : ~own;
    const bitboard movable = checkers ? ~pinned : ~0ULL;
    const bitboard pawns = b[WPAWN + Us] & movable;

    pawnMoves<Us>(s, pawns & ~pinned, target, ~occ, enemy);
    for (bitboard pp = pawns & pinned; pp;) {
        int from = popLsb(pp);
        pawnMoves<Us>(s, bb(from), target & inLineSquares[k][from], ~occ, enemy);
    }
    for (bitboard n = b[WKNIGHT + Us] & ~pinned; n;) {
        int from = popLsb(n);
        s.piece(from, knightAttackTable[from] & target);
    }
    for (bitboard d = (b[WBISHOP + Us] | b[WQUEEN + Us]) & movable; d;) {
        int from = popLsb(d);
        bitboard to = bishopAttacks(from, occ) & target;
        if (pinned & bb(from))
            to &= inLineSquares[k][from];
        s.piece(from, to);
    }
    for (bitboard l = (b[WROOK + Us] | b[WQUEEN + Us]) & movable; l;) {
        int from = popLsb(l);
        bitboard to = rookAttacks(from, occ) & target;
        if (pinned & bb(from))
            to &= inLineSquares[k][from];
        s.piece(from, to);
    }

    // En passant, rare enough for a full test: after the capture no slider may see the
    // king, and any other checker must have been the captured pawn.
    if (int ep = p.enPassant) {
        constexpr int up = Us == WHITE ? 8 : -8;
        for (bitboard pp = enpassantTable[ep] & b[WPAWN + Us]; pp;) {
            int from = popLsb(pp);
            bitboard after = (occ ^ bb(from) ^ bb(ep)) | bb(ep + up);
            if (!(checkers & ~bb(ep) & ~(theirDiag | theirLine))
                && !(bishopAttacks(k, after) & theirDiag) && !(rookAttacks(k, after) & theirLine))
                s.add(from, ep, MT_ENPASSANT);
        }
    }

    if (!checkers) {
        constexpr int base = Us == WHITE ? 0 : 56;
        constexpr u8 kSide = Us == WHITE ? WK_CASTLE : BK_CASTLE;
        constexpr u8 qSide = Us == WHITE ? WQ_CASTLE : BQ_CASTLE;
        if ((p.castling & kSide) && !(occ & (bb(base + 5) | bb(base + 6)))
            && !attacked<Them>(b, base + 5, occ) && !attacked<Them>(b, base + 6, occ))
            s.add(base + 4, base + 6, MT_CASTLE_K);
        if ((p.castling & qSide) && !(occ & (bb(base + 1) | bb(base + 2) | bb(base + 3)))
            && !attacked<Them>(b, base + 3, occ) && !attacked<Them>(b, base + 2, occ))
            s.add(base + 4, base + 2, MT_CASTLE_Q);
    }
}

inline void movePiece(perftBoard& p, int pc, int from, int to) {
    bitboard fromTo = bb(from) | bb(to);
    p.pieces[pc] ^= fromTo;
    p.pieces[pc & 1] ^= fromTo;
    p.board[from] = 0;
    p.board[to] = u8(pc);
}

inline void togglePiece(perftBoard& p, int pc, int sq) {
    p.pieces[pc] ^= bb(sq);
    p.pieces[pc & 1] ^= bb(sq);
}

// The board after move m of side Us, written into n.
template <int Us>
inline void playMove(const perftBoard& p, perftBoard& n, moveStruct m) {
    n = p;
    const int from = m.from, to = m.to, piece = p.board[from];
    n.enPassant = 0;
    n.castling = p.castling & CASTLING_KEEP.v[from] & CASTLING_KEEP.v[to];
    if (int captured = p.board[to])
        togglePiece(n, captured, to);
    switch (m.type) {
    case MT_NORMAL:
        movePiece(n, piece, from, to);
        break;
    case MT_DOUBLE:
        movePiece(n, piece, from, to);
        n.enPassant = u8(to);
        break;
    case MT_ENPASSANT:
        movePiece(n, piece, from, Us == WHITE ? to + 8 : to - 8);
        n.board[to] = 0;
        break;
    case MT_CASTLE_K:
        movePiece(n, piece, from, to);
        movePiece(n, WROOK + Us, from + 3, to - 1);
        break;
    case MT_CASTLE_Q:
        movePiece(n, piece, from, to);
        movePiece(n, WROOK + Us, from - 4, to + 1);
        break;
    default:  // promotion
        togglePiece(n, piece, from);
        togglePiece(n, Us + m.type, to);
        n.board[from] = 0;
        n.board[to] = u8(Us + m.type);
        break;
    }
}

template <int Us>
u64 perftNode(const perftBoard& p, int depth) {
    if (depth <= 1) {
        moveSink<false> count;
        generateLegal<Us>(p, count);
        return count.count;
    }
    moveStruct list[256];
    moveSink<true> s{list};
    generateLegal<Us>(p, s);
    u64 nodes = 0;
    perftBoard next;
    for (moveStruct* m = list; m < s.out; m++) {
        playMove<Us>(p, next, *m);
        nodes += perftNode<Us ^ 1>(next, depth - 1);
    }
    return nodes;
}

}  // namespace

u64 perft(u8 ply, int depth, positionStruct* pos) {
    perftBoard p;
    for (int i = 0; i < 14; i++)
        p.pieces[i] = pos->bitboards[i];
    for (int sq = 0; sq < 64; sq++)
        p.board[sq] = pos->board[sq];
    p.enPassant = pos->plyStack[ply].enPassantSquare;
    p.castling = pos->plyStack[ply].castlingRights;
    return pos->sideToMove == WHITE ? perftNode<WHITE>(p, depth) : perftNode<BLACK>(p, depth);
}

bool runPerftFile(const std::string& path, std::ostream& out, int* testsRun) {
    std::ifstream in(path);
    if (!in) {
        out << "There seems to be a problem with the perftFile. check of the move generator not executed\n"
            << std::flush;
        return false;
    }
    auto pos = std::make_unique<positionStruct>();
    bool allPassed = true;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line == "full" || line == "extended")
            break;
        if (line.empty())
            continue;
        // FEN;depth;count. A line that does not parse counts as a failed test.
        size_t a = line.find(';'), b = a == std::string::npos ? a : line.find(';', a + 1);
        std::string fen = line.substr(0, a), error;
        int depth = 0;
        unsigned long long expected = 0;
        bool ok = b != std::string::npos;
        if (ok) {
            try {
                size_t used;
                depth = std::stoi(line.substr(a + 1, b - a - 1), &used);
                expected = std::stoull(line.substr(b + 1), &used);
            } catch (const std::exception&) {
                ok = false;
            }
        }
        ok = ok && depth >= 1 && depth <= PERFT_MAX_DEPTH && setPosition(fen, pos.get(), &error);
        if (!ok) {
            out << "0; " << line << "; unreadable test line\n" << std::flush;
            allPassed = false;
            continue;
        }
        auto t0 = std::chrono::steady_clock::now();
        u64 count = perft(0, depth, pos.get());
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
        bool pass = count == expected;
        allPassed &= pass;
        out << (pass ? 1 : 0) << "; " << fen << "; " << depth << "; " << expected << "; " << count << "; " << ns
            << "\n" << std::flush;
        if (testsRun)
            ++*testsRun;
    }
    out << "Results of the perft checks is OK: " << (allPassed ? 1 : 0) << "\n" << std::flush;
    return allPassed;
}
