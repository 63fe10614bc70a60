// The board layer: magic lookups against ray walks, make/take-back against from-scratch
// recomputation over random games, and FENs the reader must refuse. (Mutated FENs: the FEN
// harness, run by the fuzz regression tests.)
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
            const bool afterNull = !line.empty() && line.back().empty();
            ASSERT_EQ(inconsistency(pos.get(), ply, !afterNull), "") << where;
            if (ply % 16 == 3) {
                ASSERT_EQ(legalListFault(pos.get(), ply), "") << where;
            }
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
                ASSERT_EQ(inconsistency(pos.get(), ply + 1), "")
                    << where << " after " << moveToLA(&m, side);
                takeBack(pos.get(), ply, m);
                ASSERT_TRUE(snapshot(pos.get()) == before) << where << " " << moveToLA(&m, side);
                checked++;
            };
            for (size_t i = 0; i < moves.size() && !HasFatalFailure(); i++)
                if (ply % 8 == 0)
                    tryMove(moves[i]);
            if (!pos->plyStack[ply].inCheck && rng() % 10 == 0) {
                makeNullMove(pos.get(), ply);
                ASSERT_EQ(inconsistency(pos.get(), ply + 1, false), "")
                    << where << " after null move";
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

}  // namespace
