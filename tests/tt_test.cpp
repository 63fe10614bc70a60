// The transposition table: sizing, the parallel clear, the data word and its age, mate
// scores, and concurrent use from several threads.
#include <cstring>
#include <thread>

#include "search/tt.h"
#include "test_util.h"

namespace {

constexpr u64 BUCKETS = 16384;

u64 keyIn(u64 bucket, u64 n) { return bucket + (n + 1) * BUCKETS * 7919; }

struct TranspositionTable : ::testing::Test {
    void SetUp() override {
        resizeHashTable(BUCKETS);
        hashAgeCounter = 0;
    }
    void TearDown() override { freeHashTable(); }
};
using TranspositionTableThreads = TranspositionTable;

TEST_F(TranspositionTable, SizingAndParallelClear) {
    const std::pair<int, u64> sizes[] = {{1, 16384},  {3, 65536},     {4, 65536},
                                         {5, 131072}, {257, 8388608}, {262144, 1ULL << 32}};
    for (auto [mb, buckets] : sizes)
        EXPECT_EQ(hashBucketsForMB(mb), buckets) << mb << " MB";
    EXPECT_EQ(reinterpret_cast<uintptr_t>(hashTable) % 64, 0u);
    for (int threads : {1, 3, 16}) {
        std::memset(static_cast<void*>(hashTable), 0xA5, (BUCKETS + 1) * sizeof(hashBucketStruct));
        hashHartBeat = 17;
        clearHashTableMT(threads);
        EXPECT_EQ(hashHartBeat, 0u);
        const auto* bytes = reinterpret_cast<const unsigned char*>(hashTable);
        EXPECT_EQ(std::count(bytes, bytes + (BUCKETS + 1) * sizeof(hashBucketStruct), 0),
                  long((BUCKETS + 1) * 64))
            << threads << " threads";
    }
    EXPECT_EQ(resizeHashTable(hashBucketsForMB(3), 2), 65536u);
    EXPECT_EQ(hashKeyMask, 65535u);
}

TEST_F(TranspositionTable, StoreProbeAndAge) {
    EXPECT_EQ(probeHash(0x1234567890ABCDEFULL), 0u);
    const u32 move = moveStruct{12, 28, MT_DOUBLE, WPAWN}.packed();
    const std::tuple<int, int, int> cases[] = {{0, 0, BOUND_EXACT},
                                               {-123, -1, BOUND_UPPER},
                                               {32767, 127, BOUND_LOWER},
                                               {-32767, -7, BOUND_EXACT}};
    u64 key = 0x9E3779B97F4A7C15ULL;
    for (auto [score, depth, bound] : cases) {
        key = key * 6364136223846793005ULL + 1442695040888963407ULL;
        hashAgeCounter = 37;
        storeHash(key, move, score, depth, bound);
        hashAgeCounter = 40;  // a probe refreshes the age, nothing else
        u64 d = probeHash(key);
        EXPECT_TRUE(hashMove(d) == move && hashScore(d) == score && hashDepth(d) == depth
                    && hashBound(d) == bound && hashAge(d) == 40)
            << score << " " << depth << " " << bound;
        EXPECT_EQ(hashAge(probeHash(key)), 40);
        EXPECT_EQ(probeHash(key ^ (1ULL << 63)), 0u) << "the whole key is compared";
    }
}

TEST(TranspositionTableScores, MateScoresAreNodeRelative) {
    const std::tuple<int, int, int> toHash[] = {{31990, 5, 31995},   {-31990, 5, -31995},
                                                {31872, 3, 31875},   {31871, 3, 31871},
                                                {-31872, 3, -31875}, {-31871, 3, -31871}};
    for (auto [score, ply, stored] : toHash) {
        EXPECT_EQ(scoreToHash(score, ply), stored) << score << " at ply " << ply;
        EXPECT_EQ(scoreFromHash(stored, ply), score) << stored << " at ply " << ply;
    }
    for (int s : {0, 1, -1, 500, -500, 31000, -31000, 31999, -31999, MATE_BAND, -MATE_BAND})
        for (int ply : {0, 1, 60, 127})
            EXPECT_EQ(scoreFromHash(scoreToHash(s, ply), ply), s) << s << " at ply " << ply;
}

// Threads hammer a few buckets with stores and probes, as searchers do. Every word read
// back must be one that some thread wrote (ThreadSanitizer watches the atomics).
TEST_F(TranspositionTableThreads, ConcurrentStoresAndProbes) {
    hashAgeCounter = 5;
    const int threads = 4, rounds = 100000 / TEST_WORK_DIVISOR;
    std::vector<std::thread> pool;
    std::vector<long> hits(threads), bad(threads);
    for (int t = 0; t < threads; t++)
        pool.emplace_back([&, t] {
            std::mt19937_64 rng(t);
            for (int r = 0; r < rounds; r++) {
                u64 key = keyIn(rng() % 8, rng() % 16);
                if (rng() % 2) {
                    storeHash(key, u32(key) | 1, int(rng() % 2000) - 1000, 1 + int(rng() % 20),
                              1 + int(rng() % 3));
                } else if (u64 d = probeHash(key)) {
                    hits[t]++;
                    bad[t] += !(hashDepth(d) >= 1 && hashDepth(d) <= 20 && hashBound(d) != 0
                                && hashAge(d) == 5 && (hashMove(d) & 1) && hashScore(d) >= -1000
                                && hashScore(d) < 1000);
                }
            }
        });
    for (auto& th : pool)
        th.join();
    EXPECT_EQ(bad, std::vector<long>(threads, 0));
    EXPECT_GT(hits[0] + hits[1], 0);
    clearHashTableMT(16);
    for (u64 n = 0; n < 16; n++)
        ASSERT_EQ(probeHash(keyIn(3, n)), 0u);
}

}  // namespace
