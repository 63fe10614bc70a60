// The board layer: geometry tables, generator order and keys, make/take-back against
// from-scratch recomputation over random games, Zobrist keys, the FEN reader and the
// text forms.
#include <algorithm>
#include <cstring>
#include <random>
#include <set>

#include "board/bitboards.h"
#include "board/makemove.h"
#include "board/movegen.h"
#include "board/zobrist.h"
#include "search/searchparams.h"
#include "test_util.h"

namespace {

int sq(const char* s) { return (s[0] - 'a') + 8 * (s[1] - '1'); }

bitboard squares(std::initializer_list<const char*> names) {
    bitboard b = 0;
    for (const char* n : names)
        b |= bb(sq(n));
    return b;
}

// Slider attacks the slow way, independent of the magic tables.
bitboard walkAttacks(int from, bitboard occ, bool rook) {
    static const int dirs[2][4][2] = {{{1, 1}, {1, -1}, {-1, 1}, {-1, -1}},
                                      {{1, 0}, {-1, 0}, {0, 1}, {0, -1}}};
    bitboard att = 0;
    for (const auto& d : dirs[rook]) {
        for (int f = fileOf(from) + d[0], r = rankOf(from) + d[1];
             f >= 0 && f < 8 && r >= 0 && r < 8; f += d[0], r += d[1]) {
            att |= bb(8 * r + f);
            if (occ & bb(8 * r + f))
                break;
        }
    }
    return att;
}

std::vector<moveStruct> legalMoves(positionStruct* pos, int ply = 0) {
    setInCheck(u8(ply), pos);
    moveStruct* first = pos->plyStack[ply].moveListBegin;
    generateMovesLegal(u8(ply), first, pos);
    return {first, pos->plyStack[ply].moveListEnd};
}

// Captures (or evasions in check) followed by the quiet moves, as perft generates them.
std::vector<moveStruct> pseudoMoves(positionStruct* pos, int ply = 0) {
    setInCheck(u8(ply), pos);
    plyStruct& ps = pos->plyStack[ply];
    generateMovesCaptures(u8(ply), ps.moveListBegin, pos);
    if (!ps.inCheck)
        generateMovesQuiets(u8(ply), ps.moveListEnd, pos);
    return {ps.moveListBegin, ps.moveListEnd};
}

std::vector<std::string> texts(const std::vector<moveStruct>& moves, u8 side) {
    std::vector<std::string> out;
    for (const auto& m : moves)
        out.push_back(moveToLA(&m, side));
    return out;
}

// -------------------------------------------------------------------------------------------
// Geometry tables

TEST(BitboardTables, LeaperAndPawnTables) {
    initTables();
    EXPECT_EQ(knightAttackTable[sq("a1")], squares({"b3", "c2"}));
    EXPECT_EQ(knightAttackTable[sq("h8")], squares({"g6", "f7"}));
    EXPECT_EQ(popCount(knightAttackTable[sq("d4")]), 8);
    EXPECT_EQ(kingAttackTable[sq("a1")], squares({"a2", "b1", "b2"}));
    EXPECT_EQ(popCount(kingAttackTable[sq("e4")]), 8);
    EXPECT_EQ(enpassantTable[sq("a4")], squares({"b4"}));
    EXPECT_EQ(enpassantTable[sq("h5")], squares({"g5"}));
    EXPECT_EQ(enpassantTable[sq("e3")], 0u);
    EXPECT_EQ(enpassantTable[sq("e6")], 0u);

    // attackByPawnTable[c][s] holds exactly the squares whose pawn of colour c hits s.
    for (int c = 0; c < 2; c++)
        for (int s = 0; s < 64; s++) {
            bitboard expected = 0;
            for (int p = 8; p < 56; p++)
                if (pawnAttacksBB(bb(p), c) & bb(s))
                    expected |= bb(p);
            bool filled = c == WHITE ? s >= 16 : s <= 47;
            EXPECT_EQ(attackByPawnTable[c][s], filled ? expected : 0) << c << " " << s;
        }
}

TEST(BitboardTables, MagicLookupsMatchRayWalks) {
    initTables();
    std::mt19937_64 rng(7);
    for (int s = 0; s < 64; s++) {
        EXPECT_EQ(rookAttackAll[s], walkAttacks(s, 0, true));
        EXPECT_EQ(bishopAttackAll[s], walkAttacks(s, 0, false));
        EXPECT_EQ(rookAttackAll[s], rookAttackLUT[s].table[0]);
        EXPECT_EQ(bishopAttackAll[s], bishopAttackLUT[s].table[0]);
        for (int i = 0; i < 300; i++) {
            bitboard occ = rng() & rng();
            ASSERT_EQ(rookAttacks(s, occ), walkAttacks(s, occ, true)) << s << " " << occ;
            ASSERT_EQ(bishopAttacks(s, occ), walkAttacks(s, occ, false)) << s << " " << occ;
        }
    }
    // The blocks lie end to end and fill both tables exactly.
    EXPECT_EQ(rookAttackLUT[0].table, rookAttackTable);
    EXPECT_EQ(rookAttackLUT[63].table + (1 << (64 - rookAttackLUT[63].shift)),
              rookAttackTable + 102400);
    EXPECT_EQ(bishopAttackLUT[63].table + (1 << (64 - bishopAttackLUT[63].shift)),
              bishopAttackTable + 5248);
    EXPECT_EQ(popCount(queenAttacks(sq("d4"), 0)), 27);
}

TEST(BitboardTables, LinesAndDistances) {
    initTables();
    EXPECT_EQ(inBetweenSquares[sq("a1")][sq("h8")], squares({"b2", "c3", "d4", "e5", "f6", "g7"}));
    EXPECT_EQ(inBetweenSquares[sq("h8")][sq("a1")], inBetweenSquares[sq("a1")][sq("h8")]);
    EXPECT_EQ(inBetweenSquares[sq("a1")][sq("b3")], 0u);
    EXPECT_EQ(inBetweenSquares[sq("e4")][sq("e5")], 0u);
    EXPECT_EQ(inBetweenSquares[sq("e4")][sq("e4")], 0u);
    EXPECT_EQ(inBetweenSquares[sq("a4")][sq("h4")], squares({"b4", "c4", "d4", "e4", "f4", "g4"}));
    EXPECT_EQ(inLineSquares[sq("c1")][sq("e3")], squares({"c1", "d2", "e3", "f4", "g5", "h6"}));
    EXPECT_EQ(inLineSquares[sq("e2")][sq("e7")], fileBB(4));
    EXPECT_EQ(inLineSquares[sq("a1")][sq("b3")], 0u);
    EXPECT_EQ(inLineSquares[sq("d4")][sq("d4")], 0u);
    EXPECT_EQ(distance[sq("a1")][sq("h8")], 7);
    EXPECT_EQ(distance[sq("b2")][sq("c4")], 2);
    EXPECT_EQ(distance[sq("e4")][sq("e4")], 0);
}

TEST(BitboardTables, PawnAndKingMasks) {
    initTables();
    EXPECT_EQ(isolatedPawns[sq("a5")], fileBB(1));
    EXPECT_EQ(isolatedPawns[sq("e2")], fileBB(3) | fileBB(5));
    EXPECT_EQ(ranksAtOrAbove[WHITE][sq("c3")], ~(rankBB(0) | rankBB(1)));
    EXPECT_EQ(ranksAtOrAbove[BLACK][sq("c3")], rankBB(0) | rankBB(1) | rankBB(2));
    bitboard def = fileBB(3) | fileBB(4) | fileBB(5);
    EXPECT_EQ(passedPawnsMask[WHITE][sq("e4")],
              def & (rankBB(4) | rankBB(5) | rankBB(6) | rankBB(7)));
    EXPECT_EQ(passedPawnsMask[BLACK][sq("e5")],
              def & (rankBB(0) | rankBB(1) | rankBB(2) | rankBB(3)));
    EXPECT_EQ(passedPawnsMask[WHITE][sq("a7")], (fileBB(0) | fileBB(1)) & rankBB(7));
    EXPECT_EQ(passedPawnsMask[WHITE][sq("e1")], 0u);
    EXPECT_EQ(passedPawnsMask[BLACK][sq("e8")], 0u);
    // King zones: 3 x 4 boxes kept away from the edges.
    bitboard fgh = fileBB(5) | fileBB(6) | fileBB(7);
    EXPECT_EQ(kingSafetyArea[WHITE][sq("g1")],
              fgh & (rankBB(0) | rankBB(1) | rankBB(2) | rankBB(3)));
    EXPECT_EQ(kingSafetyArea[WHITE][sq("h8")],
              fgh & (rankBB(4) | rankBB(5) | rankBB(6) | rankBB(7)));
    EXPECT_EQ(kingSafetyArea[BLACK][sq("g8")],
              fgh & (rankBB(4) | rankBB(5) | rankBB(6) | rankBB(7)));
    EXPECT_EQ(
        kingSafetyArea[BLACK][sq("a1")],
        (fileBB(0) | fileBB(1) | fileBB(2)) & (rankBB(0) | rankBB(1) | rankBB(2) | rankBB(3)));
    EXPECT_EQ(kingSafetyArea[WHITE][sq("d4")],
              (fileBB(2) | def) & ~fileBB(5) & (rankBB(2) | rankBB(3) | rankBB(4) | rankBB(5)));
}

TEST(BitboardTables, LateMoveReductions) {
    initTables();
    for (int c = 0; c < 256; c++)
        EXPECT_EQ(LMR[0][c], c == 3 ? 1 : 0) << c;
    for (int r = 0; r < 128; r++)
        EXPECT_EQ(LMR[r][3], 1);
    EXPECT_EQ(LMR[9][11], 3);      // sqrt(81 / 9)
    EXPECT_EQ(LMR[10][5], 1);      // sqrt(30 / 9 = 3)
    EXPECT_EQ(LMR[127][255], 59);  // sqrt(32131 / 9 = 3570)
}

// -------------------------------------------------------------------------------------------
// Move generation

TEST(MoveGen, StartPositionOrder) {
    testPosition pos;
    EXPECT_EQ(texts(legalMoves(pos.get()), WHITE),
              (std::vector<std::string>{"a2a3", "b2b3", "c2c3", "d2d3", "e2e3", "f2f3", "g2g3",
                                        "h2h3", "a2a4", "b2b4", "c2c4", "d2d4", "e2e4", "f2f4",
                                        "g2g4", "h2h4", "b1a3", "b1c3", "g1f3", "g1h3"}));
    auto moves = legalMoves(pos.get());
    EXPECT_EQ(moves[8].type, MT_DOUBLE);
    EXPECT_EQ(moves[0].type, MT_NORMAL);
}

TEST(MoveGen, PromotionsComeQueenRookBishopKnight) {
    testPosition pos("r3k3/1P6/8/8/8/8/8/4K3 w - - 0 1");
    auto moves = pseudoMoves(pos.get());
    ASSERT_GE(moves.size(), 8u);
    // Capture-promotions first (key 8 * captured rook - 14), then the advance.
    const u8 types[4] = {MT_PROMO_Q, MT_PROMO_R, MT_PROMO_B, MT_PROMO_N};
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(moveToLA(&moves[i], WHITE), std::string("b7a8") + "qrbn"[i]);
        EXPECT_EQ(moves[i].type, types[i]);
        EXPECT_EQ(moves[i].score, 8 * BROOK - 14);
        EXPECT_EQ(moveToLA(&moves[4 + i], WHITE), std::string("b7b8") + "qrbn"[i]);
        EXPECT_EQ(moves[4 + i].type, types[i]);
    }
    testPosition black("4k3/8/8/8/8/8/1p6/4K3 b - - 0 1");
    EXPECT_EQ(texts(pseudoMoves(black.get()), BLACK)[3], "b2b1n");
}

TEST(MoveGen, CaptureOrderAndKeys) {
    // Pawns towards the h-file, then towards the a-file, knights, bishops, rooks, queens,
    // en passant, king; key 8 * captured code - mover's offset.
    testPosition pos("4k3/r7/8/2p1pPp1/3P4/1n3N2/3n3q/R3K1B1 w - g6 0 1");
    std::vector<std::string> caps;
    for (const auto& m : pseudoMoves(pos.get()))
        if (pos->board[m.to] || m.type == MT_ENPASSANT)
            caps.push_back(moveToLA(&m, WHITE) + ":" + std::to_string(m.score));
    EXPECT_EQ(caps,
              (std::vector<std::string>{"d4e5:22", "d4c5:22", "f3d2:36", "f3h2:84", "f3e5:20",
                                        "f3g5:20", "g1h2:82", "a1a7:64", "f5g6:14", "e1d2:28"}));

    // Black takes towards the a-file first; the same capture scores 8 less than White's
    // because the captured code carries its colour.
    testPosition black("4k3/8/8/3p4/2Q5/8/8/4K3 b - - 0 1");
    auto bm = pseudoMoves(black.get());
    ASSERT_FALSE(bm.empty());
    EXPECT_EQ(moveToLA(&bm[0], BLACK), "d5c4");
    EXPECT_EQ(bm[0].score, 8 * WQUEEN - 2);
}

TEST(MoveGen, EnPassantIsStoredAsTheCapturedPawn) {
    testPosition pos("4k3/8/8/3pP3/8/8/8/4K3 w - d6 0 1");
    auto moves = legalMoves(pos.get());
    auto ep =
        std::find_if(moves.begin(), moves.end(), [](auto& m) { return m.type == MT_ENPASSANT; });
    ASSERT_NE(ep, moves.end());
    EXPECT_EQ(ep->from, sq("e5"));
    EXPECT_EQ(ep->to, sq("d5"));
    EXPECT_EQ(ep->score, 14);
    EXPECT_EQ(moveToLA(&*ep, WHITE), "e5d6");

    // Taking would leave both pawns off the fifth rank and the king open to the rook.
    testPosition pinned("8/8/8/K2pP2r/8/8/8/7k w - d6 0 1");
    auto pseudo = pseudoMoves(pinned.get());
    EXPECT_TRUE(
        std::any_of(pseudo.begin(), pseudo.end(), [](auto& m) { return m.type == MT_ENPASSANT; }));
    auto legal = legalMoves(pinned.get());
    EXPECT_FALSE(
        std::any_of(legal.begin(), legal.end(), [](auto& m) { return m.type == MT_ENPASSANT; }));
}

TEST(MoveGen, DoubleCheckLeavesOnlyKingMoves) {
    // Rook a1 and knight f3 both check; the queen could take either but must not.
    testPosition pos("4k3/8/8/8/8/2Q2n2/8/r3K3 w - - 0 1");
    ASSERT_TRUE(pos->plyStack[0].inCheck);
    auto moves = legalMoves(pos.get());
    ASSERT_FALSE(moves.empty());
    for (const auto& m : moves)
        EXPECT_EQ(m.from, sq("e1")) << moveToLA(&m, WHITE);
    EXPECT_EQ(pos->plyStack[0].pickStage, 'c');
}

TEST(MoveGen, EvasionOrderAndKeys) {
    auto evasions = [](const char* fen) {
        testPosition pos(fen);
        EXPECT_TRUE(pos->plyStack[0].inCheck) << fen;
        std::vector<std::string> got;
        for (const auto& m : pseudoMoves(pos.get()))
            got.push_back(moveToLA(&m, pos->sideToMove) + ":" + std::to_string(m.score));
        return got;
    };
    using v = std::vector<std::string>;
    // Rook e8 checks: king moves (e2 stays attacked through the king), then captures of
    // the checker and interpositions by knights, bishops, rooks, queens.
    EXPECT_EQ(evasions("k3r3/7R/3N4/8/1Q6/2N5/5B2/4K3 w - - 0 1"),
              (v{"e1d1:202", "e1f1:202", "e1d2:202", "c3e2:206", "c3e4:206", "d6e4:206", "d6e8:236",
                 "f2e3:205", "h7e7:204", "b4e4:203"}));
    // King captures: the checker scores code - 35, another piece code - 36 (as a byte).
    EXPECT_EQ(evasions("4k3/8/8/8/2B5/8/4r3/3nK3 w - - 0 1"),
              (v{"e1d1:" + std::to_string(u8(BKNIGHT - 36)), "e1f1:202",
                 "e1e2:" + std::to_string(u8(BROOK - 35)), "c4e2:235"}));
    // Pawn captures of the checker, en passant of the checking pawn and pawn interpositions.
    auto pawn = evasions("4k3/8/8/8/2n5/KP6/8/8 w - - 0 1");
    EXPECT_NE(std::find(pawn.begin(), pawn.end(), "b3c4:250"), pawn.end());
    auto ep = evasions("8/8/8/2k5/3Pp3/8/8/4K3 b - d3 0 1");
    EXPECT_NE(std::find(ep.begin(), ep.end(), "e4d3:250"), ep.end());
    EXPECT_NE(std::find(ep.begin(), ep.end(), "c5d4:" + std::to_string(u8(WPAWN - 35))), ep.end());
    auto block = evasions("4k3/8/8/q7/8/8/2P5/4K3 w - - 0 1");
    EXPECT_NE(std::find(block.begin(), block.end(), "c2c3:210"), block.end());
    EXPECT_EQ(std::find(block.begin(), block.end(), "c2c4:210"), block.end());
    auto dbl = evasions("4k3/8/8/8/K6r/8/2P5/8 w - - 0 1");
    EXPECT_NE(std::find(dbl.begin(), dbl.end(), "c2c4:210"), dbl.end());
}

TEST(MoveGen, Castling) {
    auto castles = [](const char* fen) {
        testPosition pos(fen);
        std::vector<std::string> out;
        for (const auto& m : legalMoves(pos.get()))
            if (m.type == MT_CASTLE_K || m.type == MT_CASTLE_Q)
                out.push_back(moveToLA(&m, pos->sideToMove));
        return out;
    };
    using v = std::vector<std::string>;
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1"), (v{"e1g1", "e1c1"}));
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1"), (v{"e8g8", "e8c8"}));
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/8/R3K2R w Qk - 0 1"), (v{"e1c1"}));
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/8/R3K2R w - - 0 1"), v{});
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1"), (v{"e1g1", "e1c1"}));
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/4r3/R3K2R w KQkq - 0 1"), v{});          // in check
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/5r2/R3K2R w KQkq - 0 1"), (v{"e1c1"}));  // f1 attacked
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/3r4/R3K2R w KQkq - 0 1"), (v{"e1g1"}));  // d1 attacked
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/1r6/R3K2R w KQkq - 0 1"), (v{"e1g1", "e1c1"}));  // b1 only
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/8/RN2K1NR w KQkq - 0 1"), v{});                  // blocked
    // Destination attacked: generated, then removed by the filter.
    testPosition dest("r3k2r/8/8/8/8/8/6r1/R3K2R w KQkq - 0 1");
    auto pseudo = pseudoMoves(dest.get());
    EXPECT_TRUE(
        std::any_of(pseudo.begin(), pseudo.end(), [](auto& m) { return m.type == MT_CASTLE_K; }));
    EXPECT_EQ(castles("r3k2r/8/8/8/8/8/6r1/R3K2R w KQkq - 0 1"), (v{"e1c1"}));
}

TEST(MoveGen, PinnedPieces) {
    // The rook on e8 pins the knight, which has no move; the bishop on b4 pins the d2
    // bishop, which may still move along the pin.
    testPosition pos("4r1k1/8/8/8/1b6/8/3BN3/4K3 w - - 0 1");
    EXPECT_EQ(computeNotPinned(pos.get()), ~squares({"e2", "d2"}));
    auto moves = legalMoves(pos.get());
    std::set<std::string> from;
    for (const auto& m : moves)
        from.insert(moveToLA(&m, WHITE));
    for (const auto& t : from)
        EXPECT_NE(t.substr(0, 2), "e2") << t;
    EXPECT_TRUE(from.count("d2c3"));
    EXPECT_TRUE(from.count("d2b4"));
    EXPECT_FALSE(from.count("d2e3"));
}

// -------------------------------------------------------------------------------------------
// Random games: the legal list against make-and-test, make/take-back against snapshots,
// incremental keys and scores against recomputation.

// Every field that make/take-back must restore.
struct snapshotStruct {
    u8 board[64];
    bitboard bitboards[14];
    u64 hashKey, pawnKey;
    i32 material[2], psqScore[2];
    u16 phase;
    u8 sideToMove;
    i16 gamePly, halfMoveClock;
    std::vector<u64> keys;

    explicit snapshotStruct(const positionStruct* p)
        : hashKey(p->hashKey),
          pawnKey(p->pawnKey),
          phase(p->phase),
          sideToMove(p->sideToMove),
          gamePly(p->gamePly),
          halfMoveClock(p->halfMoveClock),
          keys(p->keyHistory, p->keyHistory + p->gamePly) {
        std::memcpy(board, p->board, sizeof board);
        std::memcpy(bitboards, p->bitboards, sizeof bitboards);
        std::memcpy(material, p->material, sizeof material);
        std::memcpy(psqScore, p->psqScore, sizeof psqScore);
    }
    bool operator==(const snapshotStruct& o) const {
        return !std::memcmp(board, o.board, sizeof board)
               && !std::memcmp(bitboards, o.bitboards, sizeof bitboards) && hashKey == o.hashKey
               && pawnKey == o.pawnKey && !std::memcmp(material, o.material, sizeof material)
               && !std::memcmp(psqScore, o.psqScore, sizeof psqScore) && phase == o.phase
               && sideToMove == o.sideToMove && gamePly == o.gamePly
               && halfMoveClock == o.halfMoveClock && keys == o.keys;
    }
};

// Checks what the position keeps incrementally against a from-scratch computation. The
// scratch key reads the rights and en-passant square of ply 0, so those of `ply` are
// lent to it for the call.
// afterNull: a null move leaves the key history as it was, without the current key.
void expectConsistent(positionStruct* pos, int ply, const std::string& where, bool afterNull = false) {
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

    i32 material[2] = {pos->material[0], pos->material[1]};
    i32 psq[2] = {pos->psqScore[0], pos->psqScore[1]};
    u16 phase = pos->phase;
    calcScores(pos);
    ASSERT_EQ(material[0], pos->material[0]) << where;
    ASSERT_EQ(material[1], pos->material[1]) << where;
    ASSERT_EQ(psq[0], pos->psqScore[0]) << where;
    ASSERT_EQ(psq[1], pos->psqScore[1]) << where;
    ASSERT_EQ(phase, pos->phase) << where;

    // Board and bitboards describe the same pieces.
    bitboard fromBoard[14] = {};
    for (int s = 0; s < 64; s++)
        if (int pc = pos->board[s]) {
            fromBoard[pc] |= bb(s);
            fromBoard[pc & 1] |= bb(s);
        }
    for (int code = 0; code < 14; code++)
        ASSERT_EQ(fromBoard[code], pos->bitboards[code]) << where << " piece code " << code;
}

// The legal list equals the generated moves that do not leave the own king attacked,
// without duplicates. In check the evasions are compared with the full pseudo-legal set
// (generated as if not in check).
void expectLegalListIsExact(positionStruct* pos, int ply, const std::string& where) {
    auto legal = legalMoves(pos, ply);
    std::set<u32> legalSet;
    for (const auto& m : legal)
        ASSERT_TRUE(legalSet.insert(m.packed() & 0xFFFFFF).second)
            << "duplicate " << moveToLA(&m, pos->sideToMove) << where;

    plyStruct& ps = pos->plyStack[ply];
    u8 inCheck = ps.inCheck;
    ps.inCheck = 0;
    generateMovesCaptures(u8(ply), ps.moveListBegin, pos);
    generateMovesQuiets(u8(ply), ps.moveListEnd, pos);
    std::vector<moveStruct> all(ps.moveListBegin, ps.moveListEnd);
    ps.inCheck = inCheck;
    std::set<u32> expected;
    int us = pos->sideToMove;
    for (const auto& m : all) {
        if (inCheck && (m.type == MT_CASTLE_K || m.type == MT_CASTLE_Q))
            continue;
        makeMove(pos, ply, m);
        if (!squareAttacked(pos, pos->kingSquare(us), us ^ 1, pos->occupied()))
            expected.insert(m.packed() & 0xFFFFFF);
        takeBack(pos, ply, m);
    }
    ASSERT_EQ(legalSet, expected) << where;
}

TEST(MakeMove, RandomGamesRestoreEveryFieldAndMatchScratch) {
    testPosition pos;
    std::mt19937 rng(20240601);
    const int games = 2000 / TEST_WORK_DIVISOR;
    const char* starts[] = {fenStartPos,
                            "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
                            "8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1",
                            "r3k2r/Pppp1ppp/1b3nbN/nP6/BBP1P3/q4N2/Pp1P2PP/R2Q1RK1 w kq - 0 1",
                            "rnbq1k1r/pp1Pbppp/2p5/8/2B5/8/PPP1NnPP/RNBQK2R w KQ - 1 8"};
    long checked = 0;
    for (int g = 0; g < games; g++) {
        pos.set(starts[g % 5]);
        std::vector<moveStruct> line;
        for (int ply = 0; ply < 120; ply++) {
            std::string where = " game " + std::to_string(g) + " ply " + std::to_string(ply);
            expectConsistent(pos.get(), ply, where, !line.empty() && line.back().empty());
            if (ply % 16 == 3)
                expectLegalListIsExact(pos.get(), ply, where);
            if (HasFatalFailure())
                return;
            auto moves = legalMoves(pos.get(), ply);
            if (moves.empty())
                break;
            bool inCheck = pos->plyStack[ply].inCheck;
            // Every move of the list makes and takes back cleanly at some plies, the
            // chosen one at all.
            snapshotStruct before(pos.get());
            auto tryMove = [&](const moveStruct& m) {
                makeMove(pos.get(), ply, m);
                expectConsistent(pos.get(), ply + 1,
                                 where + " after " + moveToLA(&m, before.sideToMove));
                takeBack(pos.get(), ply, m);
                ASSERT_TRUE(snapshotStruct(pos.get()) == before)
                    << where << " " << moveToLA(&m, before.sideToMove);
                checked++;
            };
            if (ply % 8 == 0)
                for (const auto& m : moves)
                    tryMove(m);
            if (HasFatalFailure())
                return;

            if (!inCheck && rng() % 10 == 0) {
                makeNullMove(pos.get(), ply);
                expectConsistent(pos.get(), ply + 1, where + " after null move", true);
                EXPECT_EQ(pos->plyStack[ply + 1].enPassantSquare, 0);
                EXPECT_EQ(pos->gamePly, before.gamePly);
                EXPECT_EQ(pos->halfMoveClock, before.halfMoveClock);
                takeBackNullMove(pos.get(), ply);
                ASSERT_TRUE(snapshotStruct(pos.get()) == before) << where << " null move";
                // Sometimes the game goes on from the null move.
                if (rng() % 2) {
                    makeNullMove(pos.get(), ply);
                    line.push_back(EMPTYMOVE);
                    continue;
                }
            }
            moveStruct m = moves[rng() % moves.size()];
            tryMove(m);
            if (HasFatalFailure())
                return;
            makeMove(pos.get(), ply, m);
            line.push_back(m);
        }
        // Unwind the whole game and land on the start position again.
        for (int ply = int(line.size()) - 1; ply >= 0; ply--) {
            if (line[ply].empty())
                takeBackNullMove(pos.get(), ply);
            else
                takeBack(pos.get(), ply, line[ply]);
        }
        testPosition fresh(starts[g % 5]);
        ASSERT_TRUE(snapshotStruct(pos.get()) == snapshotStruct(fresh.get())) << "game " << g;
    }
    EXPECT_GT(checked, 10000 / TEST_WORK_DIVISOR);
}

TEST(Zobrist, KeysOfSpecificMoves) {
    testPosition pos;
    const u64 start = pos->hashKey;
    EXPECT_EQ(start, calcHashKey(0, pos.get()));
    auto play = [&](int ply, const char* text) {
        for (const auto& m : legalMoves(pos.get(), ply))
            if (moveToLA(&m, pos->sideToMove) == text) {
                makeMove(pos.get(), ply, m);
                return;
            }
        FAIL() << "no move " << text;
    };
    const auto& P = hashCodePiece;
    // The en-passant file enters the key even though no black pawn can take.
    play(0, "e2e4");
    u64 afterE4 = start ^ P[WPAWN][sq("e2")] ^ P[WPAWN][sq("e4")] ^ hashCodeEnpassant[4]
                  ^ hashCodeBlackToMove;
    EXPECT_EQ(pos->hashKey, afterE4);
    EXPECT_EQ(pos->plyStack[1].enPassantSquare, sq("e4"));
    // After e5 the e-file key leaves and comes back.
    play(1, "e7e5");
    EXPECT_EQ(pos->hashKey,
              afterE4 ^ P[BPAWN][sq("e7")] ^ P[BPAWN][sq("e5")] ^ hashCodeBlackToMove);
    play(2, "g1f3");
    EXPECT_EQ(pos->plyStack[3].enPassantSquare, 0);
    EXPECT_EQ(pos->hashKey, afterE4 ^ P[BPAWN][sq("e7")] ^ P[BPAWN][sq("e5")] ^ hashCodeEnpassant[4]
                                ^ P[WKNIGHT][sq("g1")] ^ P[WKNIGHT][sq("f3")]);
    EXPECT_EQ(pos->pawnKey, calcPawnKey(pos.get()));
}

TEST(Zobrist, CastlingRightsChanges) {
    struct rightsCase {
        const char* fen;
        const char* move;
        int after;
    } cases[] = {
        {"r3k2r/8/8/8/8/8/1B6/R3K2R w KQkq - 0 1", "b2h8", 13},  // rook on h8 taken
        {"r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1", "a1a8", 3},     // rook takes rook: both lose
        {"r3k2r/8/8/8/8/8/6b1/R3K2R b KQkq - 0 1", "g2h1", 14},  // rook on h1 taken
        {"r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1", "e1f1", 10},    // king move: both rights
        {"r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1", "e1g1", 10},    // castling too
        {"r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1", "h1h2", 14},
        {"r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1", "a8a7", 7},
        {"r3k2r/8/8/8/8/8/8/R2RK2R w KQkq - 0 1", "d1d2", 15},  // rook off a corner: nothing
    };
    for (const auto& c : cases) {
        testPosition pos(c.fen);
        bool found = false;
        for (const auto& m : legalMoves(pos.get()))
            if (moveToLA(&m, pos->sideToMove) == c.move) {
                makeMove(pos.get(), 0, m);
                found = true;
                break;
            }
        ASSERT_TRUE(found) << c.fen << " " << c.move;
        EXPECT_EQ(pos->plyStack[1].castlingRights, c.after) << c.fen << " " << c.move;
        expectConsistent(pos.get(), 1, c.move);
    }
}

// -------------------------------------------------------------------------------------------
// FEN reader and text forms

TEST(Fen, AcceptedEdgeCases) {
    testPosition pos("8/8/8/8/8/8/8/K6k w");
    EXPECT_EQ(pos->sideToMove, WHITE);
    EXPECT_EQ(pos->plyStack[0].castlingRights, 0);
    EXPECT_EQ(pos->plyStack[0].enPassantSquare, 0);
    EXPECT_EQ(pos->halfMoveClock, 0);
    EXPECT_EQ(pos->gamePly, 1);  // game ply 0, its key is entry 0
    EXPECT_EQ(pos->keyHistory[0], pos->hashKey);
    EXPECT_EQ(pos->hashKey,
              hashCodePiece[WKING][0] ^ hashCodePiece[BKING][7] ^ hashCodeCastling[0]);
    EXPECT_EQ(pos->material[0], 0);
    EXPECT_EQ(pos->phase, 0);

    pos.set("8/8/8/8/8/8/8/K6k b - - 7 1");
    EXPECT_EQ(pos->gamePly, 2);
    EXPECT_EQ(pos->halfMoveClock, 7);
    EXPECT_EQ(pos->keyHistory[0], 0u);
    EXPECT_EQ(pos->keyHistory[1], pos->hashKey);
    pos.set("8/8/8/8/8/8/8/K6k w - - 0 300");
    EXPECT_EQ(pos->gamePly, 513);  // capped at ply 512
    pos.set("8/8/8/8/8/8/8/K6k b - - 0 40");
    EXPECT_EQ(pos->gamePly, 80);

    pos.set(fenStartPos);
    EXPECT_EQ(pos->plyStack[0].castlingRights, 15);
    pos.set("r3k2r/8/8/8/8/8/8/R3K2R w Kk - 0 1");
    EXPECT_EQ(pos->plyStack[0].castlingRights, 3);
    pos.set("r3k2r/8/8/8/8/8/8/R3K2R w Qq - 0 1");
    EXPECT_EQ(pos->plyStack[0].castlingRights, 12);
    pos.set("r3k2r/8/8/8/8/8/8/R3K2R w - - 0 1");
    EXPECT_EQ(pos->plyStack[0].castlingRights, 0);

    pos.set("rnbqkbnr/pppppppp/8/8/4P3/8/PPPP1PPP/RNBQKBNR b KQkq e3 0 1");
    EXPECT_EQ(pos->plyStack[0].enPassantSquare, 28);
    EXPECT_EQ(pos->hashKey, calcHashKey(0, pos.get()));
    pos.set("rnbqkbnr/ppp1pppp/8/3pP3/8/8/PPPP1PPP/RNBQKBNR w KQkq d6 0 2");
    EXPECT_EQ(pos->plyStack[0].enPassantSquare, 35);
    EXPECT_EQ(pos->material[WHITE], pos->material[BLACK]);
    EXPECT_EQ(pos->phase, 4 * pieceValuePhase[1] + 4 * pieceValuePhase[2] + 4 * pieceValuePhase[3]
                              + 2 * pieceValuePhase[4]);
    // Side to move in check is fine.
    pos.set("4k3/8/8/8/8/8/8/r3K3 w - - 0 1");
    EXPECT_EQ(pos->plyStack[0].inCheck, 1);
}

TEST(Fen, RejectedInputs) {
    initTables();
    const char* bad[] = {
        "",
        "8/8/8/8/8/8/8/K6k",
        "rnbqkbnr/ppppxppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNZ w KQkq - 0 1",
        "rnbqkbnr/ppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "rnbqkbnr/ppppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "rnbqkbnr/pppppppp/45/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "rnbqkbnr/pppppppp/0/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP w KQkq - 0 1",
        "rnbqkbnr/pppppppp/8/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR/ w KQkq - 0 1",
        "8/8/8/8/8/8/8/K7 w - - 0 1",
        "8/8/8/8/8/8/8/7k w - - 0 1",
        "8/8/8/8/8/8/8/KK5k w - - 0 1",
        "8/8/8/8/8/8/8/K5kk w - - 0 1",
        "8/8/8/8/8/8/8/KP5k w - - 0 1",
        "p7/8/8/8/8/8/8/K6k w - - 0 1",
        "4k3/4R3/8/8/8/8/8/4K3 w - - 0 1",
        "4k3/8/8/8/8/8/3p4/4K3 b - - 0 1",
        "8/8/8/8/8/8/8/K6k w - - x 1",
        "8/8/8/8/8/8/8/K6k w - - 0 y",
        "8/8/8/8/8/8/8/K6k w - - -1 1",
        "8/8/8/8/8/8/8/K6k x - - 0 1",
        "8/8/8/8/8/8/8/K6k w X - 0 1",
        "8/8/8/8/8/8/8/K6k w - e9 0 1",
        "8/8/8/8/8/8/8/K6k w - - 0 1 extra",
    };
    for (const char* fen : bad) {
        auto pos = std::make_unique<positionStruct>();
        std::string error;
        EXPECT_FALSE(setPosition(fen, pos.get(), &error)) << "'" << fen << "'";
        EXPECT_FALSE(error.empty()) << fen;
    }
}

TEST(Fen, TextForms) {
    testPosition pos;
    std::string diagram = boardToString(pos.get());
    EXPECT_EQ(std::count(diagram.begin(), diagram.end(), '\n'), 17);
    EXPECT_EQ(diagram.substr(0, 68),
              "+---+---+---+---+---+---+---+---+\n| r | n | b | q | k | b | n | r |\n");
    EXPECT_EQ(diagram.substr(diagram.size() - 34), "+---+---+---+---+---+---+---+---+\n");

    moveStruct promo{u8(sq("b2")), u8(sq("b1")), MT_PROMO_N, 0};
    EXPECT_EQ(moveToLA(&promo, BLACK), "b2b1n");
    moveStruct queen{u8(sq("g7")), u8(sq("h8")), MT_PROMO_Q, 0};
    EXPECT_EQ(moveToLA(&queen, WHITE), "g7h8q");
    moveStruct epWhite{36, 35, MT_ENPASSANT, 0};
    EXPECT_EQ(moveToLA(&epWhite, WHITE), "e5d6");
    moveStruct epBlack{u8(sq("d4")), u8(sq("e4")), MT_ENPASSANT, 0};
    EXPECT_EQ(moveToLA(&epBlack, BLACK), "d4e3");
    moveStruct castle{4, 6, MT_CASTLE_K, 0};
    EXPECT_EQ(moveToLA(&castle, WHITE), "e1g1");
    EXPECT_EQ(moveToLA(&EMPTYMOVE, WHITE), "a1a1");

    pos->plyStack[0].currentMove = moveStruct{12, 28, MT_DOUBLE, 0};
    pos->plyStack[1].currentMove = moveStruct{51, 35, MT_DOUBLE, 0};
    pos->plyStack[2].currentMove = moveStruct{28, 35, MT_NORMAL, 0};
    pos->pvLength = 2;
    EXPECT_EQ(PVToString(pos.get()), "e2e4 d7d5 e4d5 ");
    pos->pvLength = 0;
    EXPECT_EQ(PVToString(pos.get()), "e2e4 ");
}

}  // namespace
