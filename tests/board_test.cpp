// The board layer: magic lookups against ray walks, make/take-back against from-scratch
// recomputation over random games, castling rights, and the FEN reader on bad and mutated
// input (under the sanitizer build any memory or undefined-behaviour fault stops the test).
#include <cstring>
#include <set>

#include "board/perft.h"
#include "test_util.h"

namespace {

// Slider attacks the slow way, independent of the magic tables.
bitboard walkAttacks(int from, bitboard occ, bool rook) {
    static const int dirs[2][4][2] = {{{1, 1}, {1, -1}, {-1, 1}, {-1, -1}},
                                      {{1, 0}, {-1, 0}, {0, 1}, {0, -1}}};
    bitboard att = 0;
    for (const auto& d : dirs[rook])
        for (int f = fileOf(from) + d[0], r = rankOf(from) + d[1];
             f >= 0 && f < 8 && r >= 0 && r < 8; f += d[0], r += d[1]) {
            att |= bb(8 * r + f);
            if (occ & bb(8 * r + f))
                break;
        }
    return att;
}

TEST(BitboardTables, MagicLookupsMatchRayWalks) {
    initTables();
    std::mt19937_64 rng(7);
    for (int s = 0; s < 64; s++)
        for (int i = 0; i < 300; i++) {
            bitboard occ = i ? rng() & rng() : 0;
            ASSERT_EQ(rookAttacks(s, occ), walkAttacks(s, occ, true)) << s << " " << occ;
            ASSERT_EQ(bishopAttacks(s, occ), walkAttacks(s, occ, false)) << s << " " << occ;
        }
}

// What the position keeps incrementally against a from-scratch computation. The scratch
// key reads the rights and en-passant square of ply 0: those of `ply` are lent to it. A null
// move leaves the key history as it was, without the current key.
void expectConsistent(positionStruct* pos, int ply, const std::string& where,
                      bool afterNull = false) {
    plyStruct& p0 = pos->plyStack[0];
    u8 rights = p0.castlingRights, ep = p0.enPassantSquare;
    p0.castlingRights = pos->plyStack[ply].castlingRights;
    p0.enPassantSquare = pos->plyStack[ply].enPassantSquare;
    u64 key = calcHashKey(0, pos);
    p0.castlingRights = rights;
    p0.enPassantSquare = ep;
    ASSERT_EQ(pos->hashKey, key) << where;
    ASSERT_EQ(pos->pawnKey, calcPawnKey(pos)) << where;
    if (!afterNull) {
        ASSERT_EQ(pos->keyHistory[pos->gamePly - 1], pos->hashKey) << where;
    }
    const std::string incremental = snapshot(pos);
    calcScores(pos);
    ASSERT_TRUE(snapshot(pos) == incremental) << "material, piece-square sums or phase" << where;
    bitboard fromBoard[14] = {};
    for (int s = 0; s < 64; s++)
        if (int pc = pos->board[s]) {
            fromBoard[pc] |= bb(s);
            fromBoard[pc & 1] |= bb(s);
        }
    ASSERT_EQ(std::memcmp(fromBoard, pos->bitboards, sizeof fromBoard), 0) << "bitboards" << where;
}

// The legal list equals the generated moves that do not leave the own king attacked,
// without duplicates (in check: the full pseudo-legal set, generated as if not in check).
void expectLegalListIsExact(positionStruct* pos, int ply, const std::string& where) {
    std::set<u32> legal, expected;
    for (const auto& m : legalMoves(pos, ply))
        ASSERT_TRUE(legal.insert(m.packed() & 0xFFFFFF).second)
            << "duplicate " << moveToLA(&m, pos->sideToMove) << where;
    plyStruct& ps = pos->plyStack[ply];
    u8 inCheck = ps.inCheck;
    ps.inCheck = 0;
    generateMovesCaptures(u8(ply), ps.moveListBegin, pos);
    generateMovesQuiets(u8(ply), ps.moveListEnd, pos);
    std::vector<moveStruct> all(ps.moveListBegin, ps.moveListEnd);
    ps.inCheck = inCheck;
    int us = pos->sideToMove;
    for (const auto& m : all) {
        if (inCheck && (m.type == MT_CASTLE_K || m.type == MT_CASTLE_Q))
            continue;
        makeMove(pos, ply, m);
        if (!squareAttacked(pos, pos->kingSquare(us), us ^ 1, pos->occupied()))
            expected.insert(m.packed() & 0xFFFFFF);
        takeBack(pos, ply, m);
    }
    ASSERT_EQ(legal, expected) << where;
}

TEST(MakeMove, RandomGamesRestoreEveryFieldAndMatchScratch) {
    testPosition pos;
    std::mt19937 rng(20240601);
    long checked = 0;
    for (int g = 0; g < 2000 / TEST_WORK_DIVISOR; g++) {
        const char* start = TEST_FENS[g % std::size(TEST_FENS)];
        pos.set(start);
        std::vector<moveStruct> line;
        for (int ply = 0; ply < 120; ply++) {
            std::string where = " game " + std::to_string(g) + " ply " + std::to_string(ply);
            expectConsistent(pos.get(), ply, where, !line.empty() && line.back().empty());
            if (ply % 16 == 3)
                expectLegalListIsExact(pos.get(), ply, where);
            auto moves = legalMoves(pos.get(), ply);
            if (HasFatalFailure() || moves.empty())
                break;
            const std::string before = snapshot(pos.get());
            const u8 side = pos->sideToMove;
            const i16 gamePly = pos->gamePly, clock = pos->halfMoveClock;  // a null move keeps both
            // Every move makes and takes back cleanly at some plies, the chosen one at all.
            // The prefetch key is exact for ordinary moves and captures that keep the rights.
            auto tryMove = [&](const moveStruct& m) {
                const u64 guess = keyAfter(pos.get(), ply, m);
                const u8 rights = pos->plyStack[ply].castlingRights;
                makeMove(pos.get(), ply, m);
                if (m.type == MT_NORMAL && pos->plyStack[ply + 1].castlingRights == rights) {
                    EXPECT_EQ(guess, pos->hashKey) << where << " " << moveToLA(&m, side);
                }
                expectConsistent(pos.get(), ply + 1, where + " after " + moveToLA(&m, side));
                takeBack(pos.get(), ply, m);
                ASSERT_TRUE(snapshot(pos.get()) == before) << where << " " << moveToLA(&m, side);
                checked++;
            };
            for (size_t i = 0; i < moves.size() && !HasFatalFailure(); i++)
                if (ply % 8 == 0)
                    tryMove(moves[i]);
            if (!pos->plyStack[ply].inCheck && rng() % 10 == 0) {
                makeNullMove(pos.get(), ply);
                expectConsistent(pos.get(), ply + 1, where + " after null move", true);
                EXPECT_EQ(pos->plyStack[ply + 1].enPassantSquare, 0);
                EXPECT_TRUE(pos->gamePly == gamePly && pos->halfMoveClock == clock)
                    << where << " null move";
                takeBackNullMove(pos.get(), ply);
                ASSERT_TRUE(snapshot(pos.get()) == before) << where << " null move";
                if (rng() % 2) {  // sometimes the game goes on from the null move
                    makeNullMove(pos.get(), ply);
                    line.push_back(EMPTYMOVE);
                    continue;
                }
            }
            moveStruct m = moves[rng() % moves.size()];
            tryMove(m);
            makeMove(pos.get(), ply, m);
            line.push_back(m);
        }
        if (HasFatalFailure())
            return;
        // Unwind the whole game and land on the start position again.
        for (int ply = int(line.size()) - 1; ply >= 0; ply--)
            line[ply].empty() ? takeBackNullMove(pos.get(), ply)
                              : takeBack(pos.get(), ply, line[ply]);
        testPosition fresh(start);
        ASSERT_TRUE(snapshot(pos.get()) == snapshot(fresh.get())) << "game " << g;
    }
    EXPECT_GT(checked, 10000 / TEST_WORK_DIVISOR);
}

TEST(Fen, RejectedInputs) {
    initTables();
    for (const char* fen :
         {"", "8/8/8/8/8/8/8/K6k", "rnbqkbnr/ppppxppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
          "rnbqkbnr/ppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",

          "rnbqkbnr/pppppppp/45/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",

          "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP w KQkq - 0 1",
          "rnbqkbnr/pppppppp/8/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
          "8/8/8/8/8/8/8/K7 w - - 0 1", "8/8/8/8/8/8/8/KK5k w - - 0 1",
          "p7/8/8/8/8/8/8/K6k w - - 0 1", "4k3/4R3/8/8/8/8/8/4K3 w - - 0 1",
          "4k3/8/8/8/8/8/3p4/4K3 b - - 0 1", "8/8/8/8/8/8/8/K6k w - - x 1",
          "8/8/8/8/8/8/8/K6k w X - 0 1", "8/8/8/8/8/8/8/K6k w - e9 0 1",
          "8/8/8/8/8/8/8/K6k w - - 0 1 extra"}) {
        auto pos = std::make_unique<positionStruct>();
        std::string error;
        EXPECT_FALSE(setPosition(fen, pos.get(), &error)) << "'" << fen << "'";
        EXPECT_FALSE(error.empty()) << fen;
    }
}

// What the reader accepts holds what the rest of the engine relies on, and generates, makes
// and takes back cleanly; what it refuses comes with a reason.
TEST(Fen, MutatedInputsRefusedOrSound) {
    testPosition tp;
    std::mt19937_64 rng(fuzzSeed());
    int accepted = 0;
    const int rounds = 20000 / TEST_WORK_DIVISOR;
    for (int i = 0; i < rounds && !HasFatalFailure(); i++) {
        const std::string fen = mutatedFen(rng);
        std::string error;
        if (!setPosition(fen, tp.get(), &error)) {
            ASSERT_FALSE(error.empty()) << fen;
            continue;
        }
        accepted++;
        tp->bindMoveBuffer(tp.buffer.data());
        const bitboard* b = tp->bitboards;
        const int them = tp->sideToMove ^ 1;
        ASSERT_TRUE(popCount(b[WKING]) == 1 && popCount(b[BKING]) == 1
                    && !((b[WPAWN] | b[BPAWN]) & (rankBB(0) | rankBB(7)))
                    && !squareAttacked(tp.get(), tp->kingSquare(them), them ^ 1, tp->occupied())
                    && tp->gamePly >= 1 && tp->gamePly <= 513)
            << fen;
        expectConsistent(tp.get(), 0, fen);
        expectLegalListIsExact(tp.get(), 0, fen);
        const std::string before = snapshot(tp.get());
        perft(0, 2, tp.get());
        ASSERT_TRUE(snapshot(tp.get()) == before) << fen;
    }
    EXPECT_GT(accepted, rounds / 20) << "the mutations hardly ever produce a readable FEN";
}

}  // namespace
