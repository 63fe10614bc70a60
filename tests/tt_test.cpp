// The transposition table: sizing, the parallel clear, the data word, the replacement
// rule with ages, mate scores, and concurrent use from several threads.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "search/tt.h"
#include "test_util.h"

namespace {

constexpr u64 BUCKETS = 16384;

u64 dataWord(u32 move, int score, int depth, int bound, int age) {
    return u64(move) | (u64(u16(score)) << 32) | (u64(u8(depth)) << 48)
           | (u64(age * 4 + bound) << 56);
}

// Keys that all fall into bucket `bucket` of a BUCKETS-bucket table.
u64 keyIn(u64 bucket, u64 n) { return bucket + (n + 1) * BUCKETS * 7919; }

void setEntry(u64 bucket, int i, u64 key, u64 data) {
    hashTable[bucket].key[i].store(key);
    hashTable[bucket].data[i].store(data);
}

struct TranspositionTableStore : ::testing::Test {
    void SetUp() override {
        resizeHashTable(BUCKETS);
        hashAgeCounter = 0;
    }
    void TearDown() override { freeHashTable(); }
};

TEST(TranspositionTable, BucketCountFromMegabytes) {
    const std::pair<int, u64> cases[] = {{1, 16384},     {2, 32768},          {3, 65536},
                                         {4, 65536},     {5, 131072},         {256, 4194304},
                                         {257, 8388608}, {32768, 1ULL << 29}, {262144, 1ULL << 32}};
    for (auto [mb, buckets] : cases)
        EXPECT_EQ(hashBucketsForMB(mb), buckets) << mb << " MB";
    // One bucket is 64 bytes: a power-of-two size in MB is exactly that many MB.
    EXPECT_EQ(hashBucketsForMB(64) * sizeof(hashBucketStruct), 64ULL << 20);
}

TEST(TranspositionTable, ClearChunks) {
    auto c0 = hashClearChunk(16384, 3, 0), c1 = hashClearChunk(16384, 3, 1),
         c2 = hashClearChunk(16384, 3, 2);
    EXPECT_EQ(c0.first, 0u);
    EXPECT_EQ(c0.count, 5461u);
    EXPECT_EQ(c1.first, 5461u);
    EXPECT_EQ(c1.count, 5461u);
    EXPECT_EQ(c2.first, 10922u);
    EXPECT_EQ(c2.count, 5463u);  // the rest and the spare bucket
    EXPECT_EQ(hashClearChunk(16384, 1, 0).count, 16385u);
    EXPECT_EQ(hashClearChunk(16384, 0, 0).count, 16385u);  // no threads configured: one

    // For every split the chunks tile the table and its spare bucket exactly.
    for (u64 buckets : {16384ULL, 32768ULL, 1ULL << 21})
        for (int t : {1, 2, 3, 5, 7, 16, 100, 256}) {
            u64 next = 0;
            for (int i = 0; i < t; i++) {
                auto c = hashClearChunk(buckets, t, i);
                ASSERT_EQ(c.first, next) << buckets << " / " << t << " chunk " << i;
                next += c.count;
            }
            EXPECT_EQ(next, buckets + 1) << buckets << " / " << t;
        }
}

TEST_F(TranspositionTableStore, ResizeAndParallelClear) {
    EXPECT_EQ(hashKeyMask, BUCKETS - 1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(hashTable) % 64, 0u);
    for (int threads : {1, 3, 4}) {
        std::memset(static_cast<void*>(hashTable), 0xA5, (BUCKETS + 1) * sizeof(hashBucketStruct));
        hashHartBeat = 17;
        clearHashTableMT(threads);
        EXPECT_EQ(hashHartBeat, 0u);
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(hashTable);
        size_t dirty = 0;
        for (size_t i = 0; i < (BUCKETS + 1) * sizeof(hashBucketStruct); i++)
            dirty += bytes[i] != 0;
        EXPECT_EQ(dirty, 0u) << threads << " threads";
    }
    EXPECT_EQ(resizeHashTable(hashBucketsForMB(3), 2), 65536u);
    EXPECT_EQ(hashKeyMask, 65535u);
}

TEST_F(TranspositionTableStore, StoreAndProbeRoundTrip) {
    EXPECT_EQ(probeHash(0x1234567890ABCDEFULL), 0u);
    const u32 move = moveStruct{12, 28, MT_DOUBLE, WPAWN}.packed();
    const struct {
        int score, depth, bound;
    } cases[] = {{0, 0, BOUND_EXACT},
                 {-123, -1, BOUND_UPPER},
                 {32767, 127, BOUND_LOWER},
                 {-32767, -7, BOUND_EXACT},
                 {31995, 64, BOUND_LOWER}};
    u64 key = 0x9E3779B97F4A7C15ULL;
    hashAgeCounter = 37;
    for (const auto& c : cases) {
        key = key * 6364136223846793005ULL + 1442695040888963407ULL;
        storeHash(key, move, c.score, c.depth, c.bound);
        u64 d = probeHash(key);
        EXPECT_EQ(hashMove(d), move);
        EXPECT_EQ(moveStruct::unpack(hashMove(d)).score, WPAWN);  // moving piece byte
        EXPECT_EQ(hashScore(d), c.score);
        EXPECT_EQ(hashDepth(d), c.depth);
        EXPECT_EQ(hashBound(d), c.bound);
        EXPECT_EQ(hashAge(d), 37);
        EXPECT_EQ(d, dataWord(move, c.score, c.depth, c.bound, 37));
    }
    // The whole key is compared, not only the index bits.
    EXPECT_EQ(probeHash(key ^ (1ULL << 63)), 0u);
}

TEST_F(TranspositionTableStore, ReplacementTakesFirstEmptyOrSameKey) {
    const u64 b = 77;
    // Entry 1 empty, entry 3 holds the key: the empty entry is taken first.
    setEntry(b, 0, keyIn(b, 0), dataWord(1, 10, 3, BOUND_EXACT, 0));
    setEntry(b, 2, keyIn(b, 2), dataWord(2, 10, 3, BOUND_EXACT, 0));
    setEntry(b, 3, keyIn(b, 9), dataWord(3, 10, 3, BOUND_EXACT, 0));
    storeHash(keyIn(b, 9), 44, 55, 6, BOUND_LOWER);
    EXPECT_EQ(hashTable[b].key[1].load(), keyIn(b, 9));
    EXPECT_EQ(hashMove(hashTable[b].data[1].load()), 44u);
    EXPECT_EQ(hashMove(hashTable[b].data[3].load()), 3u);  // left as it was
    EXPECT_EQ(hashMove(probeHash(keyIn(b, 9))), 44u);      // found in entry 1 first

    // A store for a key overwrites that key's entry, however deep it was.
    setEntry(b, 1, keyIn(b, 1), dataWord(5, 0, 1, BOUND_EXACT, 0));
    setEntry(b, 2, keyIn(b, 5), dataWord(6, 0, 60, BOUND_EXACT, 0));
    storeHash(keyIn(b, 5), 7, -3, 1, BOUND_UPPER);
    EXPECT_EQ(hashTable[b].data[2].load(), dataWord(7, -3, 1, BOUND_UPPER, 0));
}

TEST_F(TranspositionTableStore, ReplacementValueOfFullBuckets) {
    const u64 b = 4095;
    auto fill = [&](const int depth[4], const int bound[4], const int age[4]) {
        for (int i = 0; i < 4; i++)
            setEntry(b, i, keyIn(b, i), dataWord(100 + i, 0, depth[i], bound[i], age[i]));
    };
    auto replaced = [&]() {
        storeHash(keyIn(b, 50), 999, 0, 4, BOUND_LOWER);
        for (int i = 0; i < 4; i++)
            if (hashTable[b].key[i].load() == keyIn(b, 50))
                return i;
        return -1;
    };
    const int depths[4] = {5, 5, 9, 2};
    const int exact3[4] = {BOUND_EXACT, BOUND_EXACT, BOUND_EXACT, BOUND_LOWER};
    const int sameAge[4] = {0, 0, 0, 0};
    hashAgeCounter = 0;
    fill(depths, exact3, sameAge);  // values 6, 6, 10, 2
    EXPECT_EQ(replaced(), 3);

    hashAgeCounter = 10;
    const int oldFirst[4] = {0, 10, 10, 10};
    fill(depths, exact3, oldFirst);  // 5 + 1 - 40, 6, 10, 2
    EXPECT_EQ(replaced(), 0);

    // Ages wrap at 64: stored 63 under current 0 is one search old, penalty 4.
    hashAgeCounter = 0;
    const int tens[4] = {10, 10, 10, 10};
    const int lower[4] = {BOUND_LOWER, BOUND_LOWER, BOUND_LOWER, BOUND_LOWER};
    const int wrapped[4] = {0, 0, 63, 0};
    fill(tens, lower, wrapped);  // 10, 10, 6, 10
    EXPECT_EQ(replaced(), 2);
    const int wrappedDeep[4] = {0, 63, 0, 0};
    const int deeper[4] = {5, 10, 8, 7};
    fill(deeper, lower, wrappedDeep);  // 5, 6, 8, 7
    EXPECT_EQ(replaced(), 0);

    // Ties go to the lower index; negative depths (quiescence) are the cheapest.
    fill(tens, lower, sameAge);
    EXPECT_EQ(replaced(), 0);
    const int shallow[4] = {3, -1, -1, 0};
    fill(shallow, lower, sameAge);
    EXPECT_EQ(replaced(), 1);
}

TEST(TranspositionTable, MateScoresAreNodeRelative) {
    EXPECT_EQ(scoreToHash(31990, 5), 31995);
    EXPECT_EQ(scoreFromHash(31995, 9), 31986);
    EXPECT_EQ(scoreToHash(-31990, 5), -31995);
    EXPECT_EQ(scoreFromHash(-31995, 9), -31986);
    // Anything within 128 of the mate base counts as mate, on both sides.
    EXPECT_EQ(scoreToHash(31872, 3), 31875);
    EXPECT_EQ(scoreToHash(31871, 3), 31871);
    EXPECT_EQ(scoreToHash(-31872, 3), -31875);
    EXPECT_EQ(scoreToHash(-31871, 3), -31871);
    EXPECT_EQ(scoreFromHash(31872, 3), 31869);
    EXPECT_EQ(scoreFromHash(31871, 3), 31871);
    EXPECT_EQ(scoreFromHash(-31872, 3), -31869);
    EXPECT_EQ(scoreFromHash(-31871, 3), -31871);
    for (int s : {0, 1, -1, 500, -500, 31000, -31000})
        for (int ply : {0, 1, 60, 127})
            EXPECT_EQ(scoreFromHash(scoreToHash(s, ply), ply), s);
    for (int mate = 1; mate < 100; mate++)
        for (int ply = 0; ply < 28; ply++) {
            EXPECT_EQ(scoreFromHash(scoreToHash(MATE - mate, ply), ply), MATE - mate);
            EXPECT_EQ(scoreFromHash(scoreToHash(mate - MATE, ply), ply), mate - MATE);
        }
}

TEST_F(TranspositionTableStore, ProbeRefreshesAgeOnly) {
    const u64 b = 123, key = keyIn(b, 4);
    const u64 old = dataWord(0xABCDEF12, -250, 11, BOUND_UPPER, 20);
    setEntry(b, 2, key, old);
    hashAgeCounter = 30;
    u64 d = probeHash(key);
    EXPECT_EQ(d, dataWord(0xABCDEF12, -250, 11, BOUND_UPPER, 30));
    EXPECT_EQ(hashTable[b].data[2].load(), d);  // written back into the table
    hashAgeCounter = 30;
    EXPECT_EQ(probeHash(key), d);
}

TEST_F(TranspositionTableStore, AgeCounterCyclesFromTheClear) {
    hashHartBeat = 1000;
    clearHashTableMT(2);
    for (int search = 0; search < 130; search++) {
        advanceHashAge();
        EXPECT_EQ(hashAgeCounter, search % 64);
    }
    EXPECT_EQ(hashHartBeat, 130u);
}

// Several threads hammer a few buckets with stores and probes, as searchers do. Words are
// atomics, so ThreadSanitizer must stay silent; a key may be paired with another thread's
// data word, but every word read back must be one that some thread wrote.
TEST(TranspositionTableThreads, ConcurrentStoresAndProbes) {
    resizeHashTable(BUCKETS, 4);
    hashAgeCounter = 5;
    const int threads = 4, rounds = 100000 / TEST_WORK_DIVISOR;
    // Every data word written carries its key's low bits in the move and a depth 1..20.
    auto encode = [](u64 key) { return u32(key) | 1; };
    std::vector<std::thread> pool;
    std::vector<long> hits(threads), bad(threads);
    for (int t = 0; t < threads; t++)
        pool.emplace_back([&, t] {
            std::mt19937_64 rng(t);
            for (int r = 0; r < rounds; r++) {
                u64 key = keyIn(rng() % 8, rng() % 16);
                if (rng() % 2) {
                    storeHash(key, encode(key), int(rng() % 2000) - 1000, 1 + int(rng() % 20),
                              1 + int(rng() % 3));
                } else if (u64 d = probeHash(key)) {
                    hits[t]++;
                    bool wellFormed = hashDepth(d) >= 1 && hashDepth(d) <= 20 && hashBound(d) != 0
                                      && hashAge(d) == 5 && (hashMove(d) & 1)
                                      && hashScore(d) >= -1000 && hashScore(d) < 1000;
                    bad[t] += !wellFormed;
                }
            }
        });
    for (auto& th : pool)
        th.join();
    long totalHits = 0;
    for (int t = 0; t < threads; t++) {
        totalHits += hits[t];
        EXPECT_EQ(bad[t], 0) << "thread " << t;
    }
    EXPECT_GT(totalHits, 0);
    // Quiet again: the last store for each key wins.
    for (u64 n = 0; n < 16; n++) {
        u64 key = keyIn(3, n);
        storeHash(key, encode(key), 42, 9, BOUND_EXACT);
        EXPECT_EQ(probeHash(key), dataWord(encode(key), 42, 9, BOUND_EXACT, 5));
    }
    // A parallel clear with many threads leaves nothing behind.
    clearHashTableMT(16);
    for (u64 b = 0; b <= BUCKETS; b++)
        for (int i = 0; i < 4; i++)
            ASSERT_EQ(hashTable[b].data[i].load() | hashTable[b].key[i].load(), 0u) << b;
    freeHashTable();
}

}  // namespace
