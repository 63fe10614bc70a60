// Start-up construction of the geometric tables and the magic slider lookups.
#include "board/bitboards.h"

#include <cmath>
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
u8 LMR[128][256];

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

// Finds magics for one kind of slider, blocks laid end to end from `base`.
void initMagics(magicStruct* lut, bitboard* base, const int (*dirs)[2], bitboard* allTable) {
    xorshiftRng rng{0x9E3779B97F4A7C15ULL};
    std::vector<bitboard> occs(4096), atts(4096), used(4096);
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
        for (;;) {
            u64 magic = rng.sparse();
            if (popCount((m.mask * magic) >> 56) < 6)
                continue;
            std::fill(used.begin(), used.begin() + n, 0);
            std::fill(m.table, m.table + n, 0);
            bool ok = true;
            for (int i = 0; i < n && ok; i++) {
                unsigned idx = unsigned((occs[i] * magic) >> m.shift);
                if (!used[idx]) {
                    used[idx] = 1;
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

    initMagics(rookAttackLUT, rookAttackTable, ROOK_DIRS, rookAttackAll);
    initMagics(bishopAttackLUT, bishopAttackTable, BISHOP_DIRS, bishopAttackAll);

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

    // Late-move reductions; the first columns are deliberately uneven.
    for (int r = 0; r < 128; r++)
        for (int c = 0; c < 256; c++)
            LMR[r][c] = c < 3 ? 0 : c == 3 ? 1 : u8(std::sqrt(double((r * (c - 2)) / 9)));
}
