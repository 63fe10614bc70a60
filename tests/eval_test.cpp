// The static evaluation: colour symmetry, the caches, hand-checked terms, the phase blend
// and the "eval" / "evil" commands of the real binary.
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

#include "board/makemove.h"
#include "board/movegen.h"
#include "eval/evaluate.h"
#include "eval/weights.h"
#include "test_util.h"

namespace {

// FEN of a position, with the castling rights and en-passant square of ply `ply`.
std::string fenOf(const positionStruct* pos, int ply = 0) {
    std::string fen;
    for (int rank = 7; rank >= 0; rank--) {
        int empty = 0;
        for (int file = 0; file < 8; file++) {
            int pc = pos->board[8 * rank + file];
            if (!pc) {
                empty++;
                continue;
            }
            if (empty)
                fen += char('0' + empty);
            empty = 0;
            fen += fenLabelPieces[pc];
        }
        if (empty)
            fen += char('0' + empty);
        if (rank)
            fen += '/';
    }
    fen += pos->sideToMove == WHITE ? " w " : " b ";
    const plyStruct& p = pos->plyStack[ply];
    std::string rights;
    if (p.castlingRights & WK_CASTLE)
        rights += 'K';
    if (p.castlingRights & WQ_CASTLE)
        rights += 'Q';
    if (p.castlingRights & BK_CASTLE)
        rights += 'k';
    if (p.castlingRights & BQ_CASTLE)
        rights += 'q';
    fen += rights.empty() ? "-" : rights;
    fen += ' ';
    if (p.enPassantSquare)
        fen += squareToString(pos->sideToMove == WHITE ? p.enPassantSquare + 8
                                                       : p.enPassantSquare - 8);
    else
        fen += '-';
    return fen + " " + std::to_string(pos->halfMoveClock) + " 1";
}

// The same position with the board flipped vertically, the colours and the side to move
// swapped, castling rights and en-passant square mirrored.
std::string mirrorFen(const std::string& fen) {
    std::istringstream in(fen);
    std::string board, side, castling, ep, rest;
    in >> board >> side >> castling >> ep;
    std::getline(in, rest);
    std::vector<std::string> ranks;
    std::stringstream rs(board);
    for (std::string r; std::getline(rs, r, '/');)
        ranks.push_back(r);
    std::string out;
    for (auto it = ranks.rbegin(); it != ranks.rend(); ++it) {
        for (char c : *it)
            out += std::isalpha(c) ? char(std::isupper(c) ? std::tolower(c) : std::toupper(c)) : c;
        if (it + 1 != ranks.rend())
            out += '/';
    }
    for (char& c : castling)
        if (c != '-')
            c = char(std::isupper(c) ? std::tolower(c) : std::toupper(c));
    if (ep != "-")
        ep[1] = char('1' + '8' - ep[1]);
    return out + (side == "w" ? " b " : " w ") + castling + " " + ep + rest;
}

// Plays `games` random legal games of up to `plies` plies and calls visit(pos, ply)
// after every move (ply is the ply of the position reached).
template <typename Visit>
void walkRandomGames(int games, int plies, unsigned seed, Visit visit) {
    testPosition tp;
    std::mt19937 rng(seed);
    for (int g = 0; g < games; g++) {
        tp.set(fenStartPos);
        positionStruct* pos = tp.get();
        for (int ply = 0; ply < plies; ply++) {
            setInCheck(u8(ply), pos);
            generateMovesLegal(u8(ply), pos->plyStack[ply].moveListBegin, pos);
            moveStruct* begin = pos->plyStack[ply].moveListBegin;
            long n = pos->plyStack[ply].moveListEnd - begin;
            if (n == 0)
                break;
            makeMove(pos, ply, begin[rng() % n]);
            visit(pos, ply + 1);
        }
    }
}

// FENs of every position of `games` random legal games of up to `plies` plies.
std::vector<std::string> randomGamePositions(int games, int plies, unsigned seed) {
    std::vector<std::string> fens;
    walkRandomGames(games, plies, seed, [&](positionStruct* pos, int ply) { fens.push_back(fenOf(pos, ply)); });
    return fens;
}

std::vector<std::string> openingPositions(size_t limit) {
    std::vector<std::string> fens;
    std::ifstream in(dataPath("openings/openings.epd"));
    for (std::string line; fens.size() < limit && std::getline(in, line);)
        if (!line.empty())
            fens.push_back(line);
    return fens;
}

int whiteView(positionStruct* pos) {
    int v = evaluateN(0, pos);
    return pos->sideToMove == WHITE ? v : -v;
}

evalTraceStruct traceOf(const std::string& fen) {
    testPosition tp(fen);
    evalTraceStruct t;
    evaluateTraced(tp.get(), &t);
    return t;
}

// The evaluation of a position must equal that of its colour-flipped mirror, and so must
// every term of the trace with the colours exchanged.
void expectMirrorSymmetry(const std::vector<std::string>& fens) {
    testPosition a, b;
    int checked = 0;
    for (const auto& fen : fens) {
        a.set(fen);
        b.set(mirrorFen(fen));
        ASSERT_EQ(evaluateN(0, a.get()), evaluateN(0, b.get())) << fen << "\n" << mirrorFen(fen);
        evalTraceStruct ta, tb;
        evaluateTraced(a.get(), &ta);
        evaluateTraced(b.get(), &tb);
        for (int t = 0; t < TERM_COUNT; t++) {
            if (t == TERM_INITIATIVE) {
                ASSERT_EQ(ta.terms[t][WHITE], -tb.terms[t][WHITE]) << fen;
                continue;
            }
            ASSERT_EQ(ta.terms[t][WHITE], tb.terms[t][BLACK]) << "term " << t << " " << fen;
            ASSERT_EQ(ta.terms[t][BLACK], tb.terms[t][WHITE]) << "term " << t << " " << fen;
        }
        ASSERT_EQ(ta.kingDanger[WHITE], tb.kingDanger[BLACK]) << fen;
        ASSERT_EQ(ta.kingDanger[BLACK], tb.kingDanger[WHITE]) << fen;
        checked++;
    }
    EXPECT_GT(checked, 0);
}

TEST(EvalSymmetry, MirrorOfOpeningPositions) {
    REQUIRE_DATA("openings/openings.epd");
    auto fens = openingPositions(5000);
    ASSERT_EQ(fens.size(), 5000u);
    expectMirrorSymmetry(fens);
}

TEST(EvalSymmetry, MirrorOfRandomGamePositions) {
    // Random games reach what openings never do: promotions, bare kings, exposed kings,
    // en-passant squares, castling rights on one side only.
    auto fens = randomGamePositions(40, 160, 12345);
    ASSERT_GT(fens.size(), 3000u);
    expectMirrorSymmetry(fens);
}

TEST(EvalSymmetry, MirrorOfHandPickedPositions) {
    expectMirrorSymmetry({
        fenStartPos,
        "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
        "rnbqkbnr/ppp1p1pp/8/3pPp2/8/8/PPPP1PPP/RNBQKBNR w KQkq f6 0 3",
        "4r1k1/8/8/8/8/3p4/4Q3/4K3 w - - 0 1",
        "8/2P5/8/8/8/8/5k2/K7 b - - 0 1",
        "6k1/5ppp/8/8/8/8/5PPP/6K1 w - - 0 1",
        "r1bq1rk1/pp3ppp/2n1pn2/2bp4/2P5/2N1PN2/PPQ1BPPP/R1B2RK1 b - - 0 9",
    });
}

TEST(EvalConsistency, IncrementalPositionsScoreAsFromScratch) {
    // The evaluation reads the incrementally kept material and piece-square sums; after
    // any line of moves they must give what a freshly read FEN gives.
    testPosition fresh;
    walkRandomGames(20, 150, 777, [&](positionStruct* pos, int ply) {
        fresh.set(fenOf(pos, ply));
        ASSERT_EQ(evaluateN(0, pos), evaluateN(0, fresh.get())) << fenOf(pos, ply);
    });
}

TEST(EvalConsistency, TraceAddsUpToTheScore) {
    auto fens = randomGamePositions(5, 120, 99);
    fens.push_back(fenStartPos);
    testPosition tp;
    for (const auto& fen : fens) {
        tp.set(fen);
        evalTraceStruct t;
        int traced = evaluateTraced(tp.get(), &t);
        ASSERT_EQ(traced, whiteView(tp.get())) << fen;
        i32 total = 0;
        for (int i = 0; i < TERM_COUNT; i++)
            total += t.terms[i][WHITE] - t.terms[i][BLACK];
        int p = std::clamp<int>(t.phase, EVALPHASEMIN, EVALPHASEMAX);
        int blended = (mgOf(total) * (p - EVALPHASEMIN) + egOf(total) * (EVALPHASEMAX - p)) / 5733;
        ASSERT_EQ(traced, blended) << fen;
        ASSERT_EQ(evaluateN(12345, tp.get()), evaluateN(0, tp.get()))
            << "the integer argument is ignored";
    }
}

// Caches owned by the test, as a search thread owns its own.
struct testCaches {
    std::vector<evalCacheEntry> eval = std::vector<evalCacheEntry>(EVAL_CACHE_SIZE);
    std::vector<pawnCacheEntry> pawn = std::vector<pawnCacheEntry>(PAWN_CACHE_SIZE);
};

TEST(EvalCache, HitReturnsTheStoredScoreWithoutRecomputing) {
    testCaches caches;
    for (const char* fen : {"r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq - 2 3",
                            "r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R b KQkq - 2 3"}) {
        testPosition tp(fen);
        tp->evalCache = caches.eval.data();
        evalCacheEntry& e = caches.eval[tp->hashKey & (EVAL_CACHE_SIZE - 1)];
        e.key = tp->hashKey;
        e.score = 1234;  // no real evaluation of this position gives that
        EXPECT_EQ(evaluateN(0, tp.get()), tp->sideToMove == WHITE ? 1234 : -1234) << fen;

        // An entry of another key in the same slot is not taken, and is replaced.
        e.key ^= 1ULL << 40;
        int v = evaluateN(0, tp.get());
        EXPECT_NE(v, tp->sideToMove == WHITE ? 1234 : -1234);
        EXPECT_EQ(e.key, tp->hashKey);
        EXPECT_EQ(e.score, tp->sideToMove == WHITE ? v : -v) << "stored from White's point of view";
    }
}

TEST(EvalCache, CachedAnswersEqualFreshComputation) {
    auto fens = randomGamePositions(20, 120, 4242);
    testCaches caches;
    testPosition cached, plain;
    cached->evalCache = caches.eval.data();
    cached->pawnCache = caches.pawn.data();
    int blackToMove = 0;
    for (int pass = 0; pass < 2; pass++) {  // the second pass answers from the caches
        for (const auto& fen : fens) {
            cached.set(fen);
            plain.set(fen);
            ASSERT_EQ(evaluateN(0, cached.get()), evaluateN(0, plain.get()))
                << fen << " pass " << pass;
            blackToMove += cached->sideToMove == BLACK;
        }
    }
    EXPECT_GT(blackToMove, 1000);
}

TEST(EvalCache, PawnCacheHitGivesTheSameTotalAsAMiss) {
    // Random games keep their pawn skeleton for many moves while the pieces wander, so
    // most lookups hit an entry written for a different position.
    auto fens = randomGamePositions(20, 120, 31337);
    testCaches caches;
    testPosition cached, plain;
    cached->pawnCache = caches.pawn.data();
    int hits = 0;
    for (const auto& fen : fens) {
        cached.set(fen);
        plain.set(fen);
        hits += caches.pawn[cached->pawnKey & (PAWN_CACHE_SIZE - 1)].key == cached->pawnKey;
        ASSERT_EQ(evaluateN(0, cached.get()), evaluateN(0, plain.get())) << fen;
        ASSERT_EQ(caches.pawn[cached->pawnKey & (PAWN_CACHE_SIZE - 1)].key, cached->pawnKey);
    }
    EXPECT_GT(hits, 200);
}

// --- Hand-checked terms -------------------------------------------------------------

i32 storm(int kind, int file, int dist) {
    return EVALPAWNSTORM[kind * 64 + file * 8 + dist];
}

TEST(EvalTerms, PassedPawnWithKingDistances) {
    // White pawn b6, White king g1, Black king a2. The pawn is passed and isolated; the
    // b-file is none of the g1 king's storm files. The black king's files a-c hold no
    // white pawn at or below its rank, so its storm entries all read distance 7.
    auto t = traceOf("8/8/1P6/8/8/8/k7/6K1 w - - 0 1");
    i32 white = EVALPAWNPASSED[41 ^ 56] + EVALPAWNPASSEDDISTOWN[5] * 6  // g1-b7: 6
                + EVALPAWNPASSEDDISTOTHER[5] * 5                        // a2-b7: 5
                + EVALPAWNISOLATED[1] + storm(0, 5, 7) + storm(0, 6, 7) + storm(0, 7, 7);
    i32 black = storm(0, 0, 7) + storm(0, 1, 7) + storm(0, 2, 7);
    // b6 is the fixed 6th-rank entry 72/71 of the passed-pawn table.
    EXPECT_EQ(white,
              S(72 - 6, 71 - 120 + 200 - 9) + storm(0, 5, 7) + storm(0, 6, 7) + storm(0, 7, 7));
    EXPECT_EQ(t.terms[TERM_PAWNS][WHITE], white);
    EXPECT_EQ(t.terms[TERM_PAWNS][BLACK], black);
    // Passed pawn whose stop square White does not attack: no stop-control bonus.
    EXPECT_EQ(t.terms[TERM_THREATS][WHITE], EVALPAWNLESSFLANK);

    // The mirror for Black: b3 is its relative 6th rank, indexed by the square itself.
    auto b = traceOf("6k1/K7/8/8/8/1p6/8/8 b - - 0 1");
    EXPECT_EQ(b.terms[TERM_PAWNS][BLACK], storm(0, 5, 7) + storm(0, 6, 7) + storm(0, 7, 7)
                                              + EVALPAWNPASSED[17] + EVALPAWNPASSEDDISTOWN[5] * 6
                                              + EVALPAWNPASSEDDISTOTHER[5] * 5
                                              + EVALPAWNISOLATED[1]);
}

TEST(EvalTerms, DoubledAndIsolatedPawnsOnAStormFile) {
    // White Kg1 with isolated doubled pawns h2, h3 (h4 blocks them) and a lone f3 pawn
    // blocked by f4; Black Ka8 on the other flank.
    auto t = traceOf("k7/8/8/8/5p1p/5P1P/7P/6K1 w - - 0 1");
    i32 white = 0;
    // h2: isolated and doubled, both on a storm file; h3: isolated, on a storm file.
    white += 2 * (EVALPAWNISOLATED[7] + EVALPAWNISOLATEDSTORM) + EVALPAWNDOUBLED[7]
             + EVALPAWNDOUBLEDSTORM;
    // f3: isolated on a storm file; neither backward (nothing attacks f4) nor a candidate.
    white += EVALPAWNISOLATED[5] + EVALPAWNISOLATEDSTORM;
    // Storm: the f-file's nearest own pawn f3 stands right below f4 (blocked, distance 3);
    // on the h-file the nearest own pawn is h2, not the blocked h3, so h4 counts as
    // unblocked at distance 3. The g-file is empty.
    white += storm(1, 5, 3) + storm(0, 6, 7) + storm(0, 7, 3);
    EXPECT_EQ(t.terms[TERM_PAWNS][WHITE], white);
    i32 black = EVALPAWNISOLATED[5] + EVALPAWNISOLATED[7] + storm(0, 0, 7) + storm(0, 1, 7)
                + storm(0, 2, 7);
    EXPECT_EQ(t.terms[TERM_PAWNS][BLACK], black);

    // Three pawns on a file pay the doubled penalty twice.
    auto three = traceOf("k7/8/8/7p/7P/7P/7P/6K1 w - - 0 1");
    auto two = traceOf("k7/8/8/7p/8/7P/7P/6K1 w - - 0 1");
    i32 extra = three.terms[TERM_PAWNS][WHITE] - two.terms[TERM_PAWNS][WHITE];
    EXPECT_EQ(extra, EVALPAWNISOLATED[7] + EVALPAWNISOLATEDSTORM + EVALPAWNDOUBLED[7]
                         + EVALPAWNDOUBLEDSTORM);
}

TEST(EvalTerms, PinnedQueenAttackedByAPawn) {
    // Queen e2 pinned by the rook e8 and attacked by the pawn d3: the pinned-piece term
    // alone. Along the pin it still sees e3-e8, the king's square is not mobility.
    auto q = traceOf("4r1k1/8/8/8/8/3p4/4Q3/4K3 w - - 0 1");
    EXPECT_EQ(q.terms[TERM_PIECES][WHITE], S(-104, -256));
    EXPECT_EQ(q.terms[TERM_MOBILITY][WHITE], EVALMOBILITYQUEEN[6]);
    // Attacked by the rook, defended once by the king.
    EXPECT_EQ(q.terms[TERM_THREATS][WHITE],
              EVALQUEENATTACKED + EVALDEFENDEDONCE + EVALPAWNLESSFLANK);

    // A rook in its place pays far less, and earns the open file.
    auto r = traceOf("4r1k1/8/8/8/8/3p4/4R3/4K3 w - - 0 1");
    EXPECT_EQ(r.terms[TERM_PIECES][WHITE], S(-100, -104) + EVALROOKONOPEN[1]);
    // Without the pawn the pinned queen gets the small pair.
    auto free = traceOf("4r1k1/8/8/8/8/8/4Q3/4K3 w - - 0 1");
    EXPECT_EQ(free.terms[TERM_PIECES][WHITE], S(-3, 5));
    // The rook on e8 with our queen in between: a discovered-check piece for Black? No,
    // the blocker is White's, so only White's pin is recorded; Black's rook gets the file.
    EXPECT_EQ(free.terms[TERM_PIECES][BLACK], EVALROOKONOPEN[1]);
}

TEST(EvalTerms, Threats) {
    // The knight c3 is hit by the b4 pawn and defended by nothing; the black rook d5 is
    // hit by the knight and the e4 pawn; e4 cannot advance safely (the rook sees e5); the
    // black king has no pawn on its flank.
    auto t = traceOf("6k1/8/8/3r4/1p2P3/2N5/8/6K1 w - - 0 1");
    EXPECT_EQ(t.terms[TERM_THREATS][WHITE], EVALMINORBYPAWN);
    EXPECT_EQ(t.terms[TERM_THREATS][BLACK], EVALROOKBYMINOR + EVALPAWNLESSFLANK);
    // Without the rook, and the knight on d3: the e4 passer's stop square is covered,
    // e5 is a safe push, and the knight reaches all eight of its squares.
    auto u = traceOf("6k1/8/8/8/1p2P3/3N4/8/6K1 w - - 0 1");
    EXPECT_EQ(u.terms[TERM_THREATS][WHITE], EVALPASSEDSTOPCONTROL);
    EXPECT_EQ(u.terms[TERM_MOBILITY][WHITE], EVALMOBILITYKNIGHT[8] + EVALPAWNPUSH);
}

TEST(EvalTerms, SpaceBehindCentralPawns) {
    // d3 d2 d1 e3 e2 behind the d4/e4 pawns (e1 holds the king), three White pieces.
    EXPECT_EQ(traceOf("4k3/8/8/8/3PP3/8/8/4K3 w - - 0 1").terms[TERM_SPACE][WHITE],
              EVALSPACE2[3] * 5);
    // A black pawn c4 takes d3 away; h-file pawns earn nothing.
    EXPECT_EQ(traceOf("4k3/8/8/8/2pPP3/8/8/4K3 w - - 0 1").terms[TERM_SPACE][WHITE],
              EVALSPACE2[3] * 4);
    EXPECT_EQ(traceOf("4k3/8/8/8/7P/8/8/4K3 w - - 0 1").terms[TERM_SPACE][WHITE], 0);
}

TEST(EvalTerms, DiscoveredCheckPiece) {
    // White knight d4 between the rook d1 and the black king d8.
    auto t = traceOf("3k4/8/8/8/3N4/8/8/3RK3 w - - 0 1");
    // It also stands on an unopposed outpost, undefended, three squares from its king; the
    // rook has the open file.
    EXPECT_EQ(t.terms[TERM_PIECES][WHITE], EVALDISCOVERED[0] + EVALOUTPOSTKNIGHT[0]
                                               + EVALMINORKINGDISTANCE * 3 + EVALROOKONOPEN[1]);
}

TEST(EvalTerms, LoneAttackerGivesNoKingDanger) {
    // A rook on the 7th hits three squares of the black king zone, but alone and without
    // a queen (count 1) it is no king attack.
    auto lone = traceOf("7k/R7/8/8/8/8/8/K7 b - - 0 1");
    EXPECT_EQ(lone.kingAttackers[BLACK], 1);
    EXPECT_EQ(lone.terms[TERM_KINGDANGER][BLACK], 0);
    EXPECT_EQ(lone.kingDanger[BLACK], 0);

    // Queen and rook together against a bare king: the penalty follows d exactly.
    auto duo = traceOf("6k1/R7/8/8/8/8/8/K5Q1 b - - 0 1");
    EXPECT_EQ(duo.kingAttackers[BLACK], 2);
    int d = duo.kingDanger[BLACK];
    ASSERT_GT(d, 0);
    EXPECT_EQ(duo.terms[TERM_KINGDANGER][BLACK], -S(d * d / 4140, d / 11));
    EXPECT_EQ(duo.terms[TERM_KINGDANGER][WHITE], 0);
}

TEST(EvalTerms, KingDangerByHand) {
    // Black Kh8 alone against the rook a7 and the queen g1 (White Ka1).
    //  Zone f5-h8: the rook hits f7 g7 h7, the queen g5 g6 g7 g8: count 2, weight 15 + 5;
    //  king-adjacent hits: rook g7 h7, queen g7 g8 = 4.
    //  Flank (files f-h, ranks 4-8, attacked): f7 g7 h7 g4 g5 g6 g8 = 7; g7 is attacked
    //  twice without black pawn cover: flank2 = 1.
    //  Black defends only with its king, so every attacked square is weak: 6 in the zone.
    //  Check squares from h8: rook lines h7..h1 and g8..a8, diagonal g7..a1.
    //  The rook reaches a8 (safe) and h7 (king-defended, unsafe); the queen reaches h1 h2
    //  d4 (safe), g7 (weak and attacked twice: safe), g8 (unsafe) and a1 (own king).
    //  Unsafe checks inside White's mobility area: h7 g8 = 2.
    //  d = 16 * 8 + 2 * 20 + 40 * 4 + 73 * 6 + 105 * 2 + 320 + 420 - 292 = 1424.
    auto t = traceOf("7k/R7/8/8/8/8/8/K5Q1 b - - 0 1");
    EXPECT_EQ(t.kingAttackers[BLACK], 2);
    EXPECT_EQ(t.kingDanger[BLACK], 1424);
    EXPECT_EQ(t.terms[TERM_KINGDANGER][BLACK], -S(1424 * 1424 / 4140, 1424 / 11));

    // Black Kh8 with a pawn h7 against the rook g1 and the queen g2 (the rook x-rays
    // through its queen, so g3-g8 are attacked twice).
    //  count 2, weight 20, king-adjacent g7 g8 by both = 4.
    //  flank g4-g8 = 5; flank2 the doubly attacked ones except g6, which the h7 pawn
    //  covers = 4. Weak in the zone: g5 g7 g8 (g6 has the pawn's cover) = 3.
    //  Checks: rook g8, queen g8 g7 b2 a8, all safe (g7 and g8 weak and hit twice);
    //  no unsafe checks; h7 is not pinned.
    //  d = 16 * 9 + 40 + 160 + 73 * 3 + 420 + 320 - 292 = 1011.
    EXPECT_EQ(traceOf("7k/7p/8/8/8/8/6Q1/K5R1 b - - 0 1").kingDanger[BLACK], 1011);
}

TEST(EvalTerms, ShieldCountsHalfWithoutTheEnemyQueen) {
    auto with = traceOf("3qk3/8/8/8/8/8/5PPP/6K1 w - - 0 1");
    auto without = traceOf("3rk3/8/8/8/8/8/5PPP/6K1 w - - 0 1");
    i32 full = EVALPAWNSHIELD[13 ^ 56] + EVALPAWNSHIELD[14 ^ 56] + EVALPAWNSHIELD[15 ^ 56];
    EXPECT_EQ(with.terms[TERM_SHIELD][WHITE], full);
    EXPECT_EQ(without.terms[TERM_SHIELD][WHITE], S(mgOf(full) / 2, egOf(full) / 2));
    // Only the rearmost pawn of a file counts: g3 behind g2 adds nothing.
    auto doubled = traceOf("3qk3/8/8/8/8/6P1/5PPP/6K1 w - - 0 1");
    EXPECT_EQ(doubled.terms[TERM_SHIELD][WHITE], full);
}

TEST(EvalTerms, InitiativeInKingAndPawnEndings) {
    auto check = [](const std::string& fen, int complexity) {
        auto t = traceOf(fen);
        i32 before = 0;
        for (int i = 0; i < TERM_COUNT; i++)
            if (i != TERM_INITIATIVE && i != TERM_TEMPO)
                before += t.terms[i][WHITE] - t.terms[i][BLACK];
        int eg = egOf(before);
        int sign = (eg > 0) - (eg < 0);
        EXPECT_EQ(t.terms[TERM_INITIATIVE][WHITE], S(0, sign * std::max(complexity, -std::abs(eg))))
            << fen;
        return eg;
    };
    // One pawn, one flank, only kings and pawns: 6 - 70 + 59 = -5.
    EXPECT_NE(check("8/8/4k3/8/8/4K3/4P3/8 w - - 0 1", -5), 0);
    // Two pawns on both flanks: 12 - 44 + 59 = 27, the lead grows.
    check("8/8/4k3/p7/7P/4K3/8/8 w - - 0 1", 27);
    // With a piece on the board the king-and-pawn bonus goes: 6 - 70 = -64.
    check("8/8/4k3/8/8/4K3/4P3/6N1 w - - 0 1", -64);
    // A symmetric ending has an endgame half of 0, which receives nothing.
    EXPECT_EQ(check("4k3/4p3/8/8/8/8/4P3/4K3 w - - 0 1", -5), 0);
    EXPECT_EQ(traceOf("4k3/4p3/8/8/8/8/4P3/4K3 w - - 0 1").terms[TERM_INITIATIVE][WHITE], 0);
}

TEST(EvalTerms, PhaseClampsAtBothEnds) {
    auto blendIs = [](const std::string& fen, bool middlegame) {
        testPosition tp(fen);
        evalTraceStruct t;
        int v = evaluateTraced(tp.get(), &t);
        i32 total = 0;
        for (int i = 0; i < TERM_COUNT; i++)
            total += t.terms[i][WHITE] - t.terms[i][BLACK];
        EXPECT_EQ(v, middlegame ? mgOf(total) : egOf(total)) << fen << " phase " << t.phase;
    };
    blendIs(fenStartPos, true);                                                 // 6950
    blendIs("r1bqkbnr/pppppppp/8/8/8/8/PPPPPPPP/R1BQKBNR w KQkq - 0 1", true);  // 6264
    blendIs("8/8/4k3/8/8/4K3/4P3/8 w - - 0 1", false);                          // 0
    blendIs("8/8/4k3/8/8/4K3/4P3/4R3 w - - 0 1", false);                        // 478
    blendIs("8/8/4k3/8/8/4K3/4P3/4N3 b - - 0 1", false);                        // 343
    // Just inside: a bishop (377) plus a knight (343) blends both halves.
    testPosition tp("8/8/4k3/8/8/4K3/4P3/2B1N3 w - - 0 1");
    evalTraceStruct t;
    int v = evaluateTraced(tp.get(), &t);
    i32 total = 0;
    for (int i = 0; i < TERM_COUNT; i++)
        total += t.terms[i][WHITE] - t.terms[i][BLACK];
    EXPECT_EQ(v, (mgOf(total) * (720 - 499) + egOf(total) * (6232 - 720)) / 5733);
}

// --- The commands of the real binary --------------------------------------------------

std::string runEngine(const std::string& input) {
    std::string path = testing::TempDir() + "quorvane_eval_input.txt";
    std::ofstream(path) << input;
    std::string cmd = std::string(QUORVANE_BINARY) + " < " + path;
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;)
        out.append(buf, n);
    if (p)
        pclose(p);
    return out;
}

// One engine session (start-up costs seconds): "eval" after each of three positions, then
// "evil" between two "isready" answers, which must follow each other directly.
TEST(EvalCommand, EvalPrintsTheTableAndTheScoreEvilPrintsNothing) {
    const char* fens[] = {"r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq - 2 3",
                          "r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R b KQkq - 2 3",
                          "4r1k1/8/8/8/8/3p4/4Q3/4K3 b - - 0 1"};
    std::string input, expected;
    for (const char* fen : fens) {
        input += std::string("position fen ") + fen + "\neval\n";
        testPosition tp(fen);
        expected += "Evaluation: " + std::to_string(whiteView(tp.get())) + "\n";
    }
    std::string out =
        runEngine(input + "isready\nevil\nposition startpos moves e2e4\nevil\nisready\nquit\n");
    std::string got;
    for (size_t at = 0; (at = out.find("Evaluation: ", at)) != std::string::npos; at++)
        got += out.substr(at, out.find('\n', at) + 1 - at);
    EXPECT_EQ(got, expected) << out;
    // The score is the last line of each table.
    EXPECT_NE(out.find(expected.substr(expected.rfind("Evaluation")) + "readyok\nreadyok\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Material+psq"), std::string::npos);
    EXPECT_NE(out.find("King danger"), std::string::npos);
    EXPECT_NE(out.find("Phase: "), std::string::npos);
}

}  // namespace
