// Start-up construction of the geometric tables and the magic slider lookups.
#include "board/bitboards.h"

#include <cstdlib>
#include <vector>

bitboard knightAttackTable[64];
bitboard kingAttackTable[64];
bitboard attackByPawnTable[2][64];
bitboard enpassantTable[64];
magicStruct rookAttackLUT[64];
magicStruct bishopAttackLUT[64];
bitboard rookAttackTable[102400];
bitboard bishopAttackTable[5248];
bitboard rookAttackAll[64];
bitboard bishopAttackAll[64];
bitboard inBetweenSquares[64][64];
bitboard inLineSquares[64][64];
u8 distance[64][64];
bitboard ranksAtOrAbove[2][64];
bitboard isolatedPawns[64];
bitboard passedPawnsMask[2][64];
bitboard kingSafetyArea[2][64];

namespace {

bool onBoard(int f, int r) { return f >= 0 && f < 8 && r >= 0 && r < 8; }

// Attack set of a slider by walking its rays; each ray stops at the first blocker.
bitboard slidingAttacks(int sq, bitboard occ, const int (*dirs)[2]) {
    bitboard att = 0;
    for (int d = 0; d < 4; d++) {
        int f = fileOf(sq) + dirs[d][0], r = rankOf(sq) + dirs[d][1];
        while (onBoard(f, r)) {
            att |= bb(8 * r + f);
            if (occ & bb(8 * r + f))
                break;
            f += dirs[d][0];
            r += dirs[d][1];
        }
    }
    return att;
}

constexpr int ROOK_DIRS[4][2] = {{1, 0}, {-1, 0}, {0, 1}, {0, -1}};
constexpr int BISHOP_DIRS[4][2] = {{1, 1}, {1, -1}, {-1, 1}, {-1, -1}};

// Deterministic generator for the magic search, so start-up is reproducible.
struct xorshiftRng {
    u64 s;
    u64 next() {
        s ^= s >> 12;
        s ^= s << 25;
        s ^= s >> 27;
        return s * 2685821657736338717ULL;
    }
    u64 sparse() { return next() & next() & next(); }
};

// Numbers found once by the search in initMagics; trying them first keeps start-up fast.
// The search still runs for any square whose stored number fails the collision test.
// clang-format off
constexpr u64 ROOK_MAGICS[64] = {
    0x1080004008801020ULL, 0x0840092002C03000ULL, 0x1900200010400900ULL,
    0x0880100008000480ULL, 0x4200100420080200ULL, 0x8100020100080400ULL,
    0x0200040110886200ULL, 0x0200008040220411ULL, 0x0404800084400220ULL,
    0x0000401000402000ULL, 0x0086001081220440ULL, 0x0408800800100280ULL,
    0x000A001201040820ULL, 0x8848800200840080ULL, 0x4001000100040200ULL,
    0x0442000102105084ULL, 0x9080010020804100ULL, 0x0040404000201009ULL,
    0x0000808010002009ULL, 0x2200090021D00100ULL, 0x0008008008040080ULL,
    0x0004004002010040ULL, 0x0011040008015042ULL, 0x00000A0001768104ULL,
    0x0000800080204009ULL, 0x2010004140002001ULL, 0x9800200280100080ULL,
    0x1000100080080080ULL, 0x0442000A00049020ULL, 0x2100040080020080ULL,
    0x0800120400900148ULL, 0x0010040A00128541ULL, 0x2800804000800030ULL,
    0x1010002000400041ULL, 0x4000200011004100ULL, 0x0610008410800800ULL,
    0x0400802402800800ULL, 0xC100020080800400ULL, 0x0002000802000401ULL,
    0x0182085882000401ULL, 0x0220204000808000ULL, 0x2860100040024022ULL,
    0x0001002004110040ULL, 0x99101042000A0020ULL, 0x0004080004008080ULL,
    0x0010040002008080ULL, 0x2012004881020004ULL, 0x8300842444820011ULL,
    0x0088403882010200ULL, 0x0820400080210100ULL, 0x0110910040A00300ULL,
    0x0801100280080480ULL, 0x0242009008200600ULL, 0x1002000489500200ULL,
    0x0040800200010080ULL, 0x0091800041000080ULL, 0x0000209300488001ULL,
    0x04C1002414824001ULL, 0x020020000B001041ULL, 0x7000100004200901ULL,
    0x8002002004100802ULL, 0x30010002084C0007ULL, 0x0888221800813004ULL,
    0x4000002840840112ULL,
};
constexpr u64 BISHOP_MAGICS[64] = {
    0x10102002004A1420ULL, 0x8020040400584008ULL, 0x10510800811201C8ULL,
    0x5204042080000088ULL, 0x2204106880000002ULL, 0x1401042004000000ULL,
    0x0400880410042004ULL, 0x0028208200A02020ULL, 0x1500241990010E00ULL,
    0x8001200182020A40ULL, 0x40004101030B0000ULL, 0x8002041042000100ULL,
    0x4010011041020038ULL, 0x0000010421044000ULL, 0x1500210808020A00ULL,
    0x8000088400880520ULL, 0x0405004010040100ULL, 0x1005823210040108ULL,
    0x2708008102040011ULL, 0x4048200404009100ULL, 0x0018104101400024ULL,
    0x0003000601190101ULL, 0x8004803108491000ULL, 0x8014241200820800ULL,
    0x0006E080100C3040ULL, 0x0501044A11041800ULL, 0x9020300008004045ULL,
    0x0894080000220040ULL, 0x1001010083104000ULL, 0x5004030040900080ULL,
    0x000400422C012400ULL, 0x0002128698404812ULL, 0x1010108404900440ULL,
    0x0928021182084100ULL, 0x2006080409020024ULL, 0x1010202020180080ULL,
    0xA010008200202200ULL, 0x2098015100019004ULL, 0x0002041440810811ULL,
    0x802A02020000B098ULL, 0x0009015090004060ULL, 0x4000821082081001ULL,
    0x0100210040420800ULL, 0x0800004010488A00ULL, 0x2000081104004040ULL,
    0x4C8E029015000082ULL, 0x0420340322224842ULL, 0x1298260043400210ULL,
    0x0000822802400008ULL, 0x00008A0101600000ULL, 0x3040003412080021ULL,
    0x3040290220884800ULL, 0x4A1500401041004AULL, 0x8010200282020781ULL,
    0x0020203142209091ULL, 0x0070300600902110ULL, 0x0040808800B62048ULL,
    0x0000810400C44420ULL, 0x00080400440C0441ULL, 0x8340080020840411ULL,
    0x0000000104208200ULL, 0x0000800810D00080ULL, 0x0400530411080200ULL,
    0x4040702400932244ULL,
};
// clang-format on

// Finds magics for one kind of slider, blocks laid end to end from `base`.
void initMagics(magicStruct* lut, bitboard* base, const int (*dirs)[2], bitboard* allTable,
                const u64* known) {
    xorshiftRng rng{0x9E3779B97F4A7C15ULL};
    std::vector<bitboard> occs(4096), atts(4096);
    // The attempt that last wrote each index: a slot written by an earlier attempt counts
    // as free, so nothing has to be cleared between attempts.
    std::vector<u32> stamp(4096, 0);
    u32 attempt = 0;
    bitboard* next = base;
    for (int sq = 0; sq < 64; sq++) {
        bitboard edges = ((rankBB(0) | rankBB(7)) & ~rankBB(rankOf(sq)))
                       | ((fileBB(0) | fileBB(7)) & ~fileBB(fileOf(sq)));
        magicStruct& m = lut[sq];
        m.mask = slidingAttacks(sq, 0, dirs) & ~edges;
        m.shift = u8(64 - popCount(m.mask));
        m.table = next;
        int n = 0;
        bitboard sub = 0;
        do {
            occs[n] = sub;
            atts[n] = slidingAttacks(sq, sub, dirs);
            n++;
            sub = (sub - m.mask) & m.mask;
        } while (sub);
        next += n;
        for (bool first = true;; first = false) {
            u64 magic = first ? known[sq] : rng.sparse();
            if (!first && popCount((m.mask * magic) >> 56) < 6)
                continue;
            attempt++;
            bool ok = true;
            for (int i = 0; i < n && ok; i++) {
                unsigned idx = unsigned((occs[i] * magic) >> m.shift);
                if (stamp[idx] != attempt) {
                    stamp[idx] = attempt;
                    m.table[idx] = atts[i];
                } else if (m.table[idx] != atts[i])
                    ok = false;
            }
            if (ok) {
                m.magic = magic;
                break;
            }
        }
        allTable[sq] = m.table[0];
    }
}

}  // namespace

void initBitboardConstants() {
    static bool done = false;
    if (done)
        return;
    done = true;

    for (int sq = 0; sq < 64; sq++) {
        int f = fileOf(sq), r = rankOf(sq);
        constexpr int KN[8][2] = {{1, 2}, {2, 1}, {2, -1}, {1, -2}, {-1, -2}, {-2, -1}, {-2, 1}, {-1, 2}};
        knightAttackTable[sq] = kingAttackTable[sq] = 0;
        for (auto& d : KN)
            if (onBoard(f + d[0], r + d[1]))
                knightAttackTable[sq] |= bb(8 * (r + d[1]) + f + d[0]);
        for (int df = -1; df <= 1; df++)
            for (int dr = -1; dr <= 1; dr++)
                if ((df || dr) && onBoard(f + df, r + dr))
                    kingAttackTable[sq] |= bb(8 * (r + dr) + f + df);

        // A white pawn attacking sq stands one rank below it, a black one one rank above.
        attackByPawnTable[WHITE][sq] = attackByPawnTable[BLACK][sq] = 0;
        for (int df : {-1, 1}) {
            if (sq >= 16 && onBoard(f + df, r - 1))
                attackByPawnTable[WHITE][sq] |= bb(8 * (r - 1) + f + df);
            if (sq <= 47 && onBoard(f + df, r + 1))
                attackByPawnTable[BLACK][sq] |= bb(8 * (r + 1) + f + df);
        }
        enpassantTable[sq] = 0;
        if (sq >= 24 && sq <= 39) {
            if (f > 0)
                enpassantTable[sq] |= bb(sq - 1);
            if (f < 7)
                enpassantTable[sq] |= bb(sq + 1);
        }

        isolatedPawns[sq] = (f > 0 ? fileBB(f - 1) : 0) | (f < 7 ? fileBB(f + 1) : 0);
        ranksAtOrAbove[WHITE][sq] = ranksAtOrAbove[BLACK][sq] = 0;
        for (int rr = 0; rr < 8; rr++) {
            if (rr >= r)
                ranksAtOrAbove[WHITE][sq] |= rankBB(rr);
            if (rr <= r)
                ranksAtOrAbove[BLACK][sq] |= rankBB(rr);
        }
        bitboard three = fileBB(f) | isolatedPawns[sq];
        passedPawnsMask[WHITE][sq] = passedPawnsMask[BLACK][sq] = 0;
        if (r >= 1 && r <= 6) {
            passedPawnsMask[WHITE][sq] = three & ~ranksAtOrAbove[BLACK][sq];
            passedPawnsMask[BLACK][sq] = three & ~ranksAtOrAbove[WHITE][sq];
        }

        // King zone: 3 files x 4 ranks, centre clamped away from the edges.
        int cf = f < 1 ? 1 : f > 6 ? 6 : f;
        bitboard files3 = fileBB(cf - 1) | fileBB(cf) | fileBB(cf + 1);
        int rw = r < 1 ? 1 : r > 5 ? 5 : r;
        int rb = r < 2 ? 2 : r > 6 ? 6 : r;
        kingSafetyArea[WHITE][sq] = files3 & (rankBB(rw - 1) | rankBB(rw) | rankBB(rw + 1) | rankBB(rw + 2));
        kingSafetyArea[BLACK][sq] = files3 & (rankBB(rb - 2) | rankBB(rb - 1) | rankBB(rb) | rankBB(rb + 1));

        for (int s2 = 0; s2 < 64; s2++) {
            int df = std::abs(f - fileOf(s2)), dr = std::abs(r - rankOf(s2));
            distance[sq][s2] = u8(df > dr ? df : dr);
        }
    }

    initMagics(rookAttackLUT, rookAttackTable, ROOK_DIRS, rookAttackAll, ROOK_MAGICS);
    initMagics(bishopAttackLUT, bishopAttackTable, BISHOP_DIRS, bishopAttackAll, BISHOP_MAGICS);

    for (int a = 0; a < 64; a++)
        for (int b = 0; b < 64; b++) {
            inBetweenSquares[a][b] = inLineSquares[a][b] = 0;
            if (a == b)
                continue;
            if (rookAttackAll[a] & bb(b)) {
                inBetweenSquares[a][b] = rookAttacks(a, bb(b)) & rookAttacks(b, bb(a));
                inLineSquares[a][b] = bb(a) | bb(b) | (rookAttackAll[a] & rookAttackAll[b]);
            }
            if (bishopAttackAll[a] & bb(b)) {
                inBetweenSquares[a][b] = bishopAttacks(a, bb(b)) & bishopAttacks(b, bb(a));
                inLineSquares[a][b] = bb(a) | bb(b) | (bishopAttackAll[a] & bishopAttackAll[b]);
            }
        }
}
