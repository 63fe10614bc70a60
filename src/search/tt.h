// The transposition table.
//
// One process-wide array of 64-byte buckets shared by all search threads without locks.
// A bucket holds four entries: four 64-bit data words followed by their four full keys.
// Data word: bits 0-31 packed move (from, to, type, moving piece), 32-47 score, 48-55
// depth, 56-57 bound, 58-63 age. A writer stores the key and then the data word, so a
// reader racing it can find a matching key beside data written for some other position.
// We take that over a lock: no table move is played before it is checked in the current
// position (isPseudoLegal() and isLegal() in the tree, the legal move list in the PV
// walk), so a torn entry can at worst feed one wrong score into the tree, never corrupt
// the board. Words are accessed with relaxed atomics so that the race is well defined.
// The table has one spare bucket behind the last; the clear zeroes it too.
#pragma once

#include <atomic>
#include <string>

#include "board/types.h"

enum : int { BOUND_NONE = 0, BOUND_UPPER = 1, BOUND_LOWER = 2, BOUND_EXACT = 3 };

struct alignas(64) hashBucketStruct {
    std::atomic<u64> data[4];
    std::atomic<u64> key[4];
};
static_assert(sizeof(hashBucketStruct) == 64);

extern hashBucketStruct* hashTable;
extern u64 hashKeyMask;          // buckets - 1
extern u8 hashAgeCounter;        // age of the running search, 0..63
extern u32 hashHartBeat;         // searches started since the last clear

// Bucket count for a "Hash" value in MB: 16384 buckets per MB, rounded up to a power of two.
u64 hashBucketsForMB(int mb);
// Replaces the table by one of `buckets` buckets (a power of two) and clears it with
// `threads` threads. When memory is short it settles for the largest half that fits;
// returns the bucket count obtained.
u64 resizeHashTable(u64 buckets, int threads = 1);
void clearHashTableMT(int threads);
// The buckets that clearing thread i of `threads` zeroes: (buckets / threads) from
// i * that; the last thread takes the remainder and the spare bucket behind the table.
struct hashChunkStruct {
    u64 first;
    u64 count;
};
hashChunkStruct hashClearChunk(u64 buckets, int threads, int i);
void freeHashTable();
// Start of a search: the age advances.
inline void advanceHashAge() { hashAgeCounter = u8(hashHartBeat++ & 63); }

constexpr u32 hashMove(u64 data) { return u32(data); }
constexpr int hashScore(u64 data) { return i16(u16(data >> 32)); }
constexpr int hashDepth(u64 data) { return i8(u8(data >> 48)); }
constexpr int hashBound(u64 data) { return int(data >> 56) & 3; }
constexpr int hashAge(u64 data) { return int(data >> 58); }

// Mate scores are stored relative to the node and read back relative to the root.
constexpr int scoreToHash(int score, int ply) {
    return score >= MATE_BAND ? score + ply : score <= -MATE_BAND ? score - ply : score;
}
constexpr int scoreFromHash(int score, int ply) {
    return score >= MATE_BAND ? score - ply : score < -(MATE_BAND - 1) ? score + ply : score;
}

inline hashBucketStruct* hashBucket(u64 key) { return hashTable + (key & hashKeyMask); }
inline void prefetchHash(u64 key) { __builtin_prefetch(hashBucket(key)); }

// Returns the data word of the entry holding key (0 when none), refreshing its age.
inline u64 probeHash(u64 key) {
    hashBucketStruct* b = hashBucket(key);
    for (int i = 0; i < 4; i++) {
        if (b->key[i].load(std::memory_order_relaxed) != key)
            continue;
        u64 data = b->data[i].load(std::memory_order_relaxed);
        if (hashAge(data) != hashAgeCounter) {
            data = (data & 0x03FFFFFFFFFFFFFFULL) | (u64(hashAgeCounter) << 58);
            b->data[i].store(data, std::memory_order_relaxed);
        }
        return data;
    }
    return 0;
}

// Stores an entry; `score` must already be node-relative (scoreToHash).
void storeHash(u64 key, u32 move, int score, int depth, int bound);
