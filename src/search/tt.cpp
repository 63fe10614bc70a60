#include "search/tt.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

hashBucketStruct* hashTable = nullptr;
u64 hashKeyMask = 0;
u8 hashAgeCounter = 0;
u32 hashHartBeat = 0;

u64 hashBucketsForMB(int mb) {
    u64 buckets = 16384, c = 1;
    while (c < u64(mb)) {
        buckets *= 2;
        c *= 2;
    }
    return buckets;
}

void freeHashTable() {
    std::free(hashTable);
    hashTable = nullptr;
    hashKeyMask = 0;
}

u64 resizeHashTable(u64 buckets, int threads) {
    freeHashTable();
    for (; buckets >= 1; buckets /= 2) {
        // One spare bucket lies behind the last one.
        hashTable = static_cast<hashBucketStruct*>(std::aligned_alloc(64, (buckets + 1) * 64));
        if (hashTable)
            break;
    }
    hashKeyMask = buckets - 1;
    clearHashTableMT(threads);
    return buckets;
}

// Thread i of T zeroes (buckets / T) buckets from i * chunk; the last one zeroes the
// rest, the spare bucket included.
void clearHashTableMT(int threads) {
    if (!hashTable)
        return;
    u64 t = u64(threads < 1 ? 1 : threads);
    u64 chunk = (hashKeyMask + 1) / t;
    auto zero = [](u64 first, u64 count) {
        std::memset(static_cast<void*>(hashTable + first), 0, count * sizeof(hashBucketStruct));
    };
    std::vector<std::thread> workers;
    for (u64 i = 0; i < t; i++) {
        u64 count = i + 1 == t ? hashKeyMask - i * chunk + 2 : chunk;
        try {
            workers.emplace_back(zero, i * chunk, count);
        } catch (const std::system_error&) {
            zero(i * chunk, count);  // no thread to spare: do it here
        }
    }
    for (auto& w : workers)
        w.join();
    hashHartBeat = 0;
}

void storeHash(u64 key, u32 move, int score, int depth, int bound) {
    hashBucketStruct* b = hashBucket(key);
    int slot = -1;
    for (int i = 0; i < 4; i++)
        if (b->key[i].load(std::memory_order_relaxed) == key || b->data[i].load(std::memory_order_relaxed) == 0) {
            slot = i;
            break;
        }
    if (slot < 0) {
        // Replace the shallowest, least exact, oldest entry; ties go to the lower index.
        int best = 1 << 30;
        for (int i = 0; i < 4; i++) {
            u64 d = b->data[i].load(std::memory_order_relaxed);
            int ageGap = u8((hashAgeCounter - hashAge(d)) * 4);
            int value = hashDepth(d) + (hashBound(d) == BOUND_EXACT) - ageGap;
            if (value < best) {
                best = value;
                slot = i;
            }
        }
    }
    u64 data = u64(move) | (u64(u16(score)) << 32) | (u64(u8(depth)) << 48)
             | (u64(hashAgeCounter * 4 + bound) << 56);
    b->key[slot].store(key, std::memory_order_relaxed);
    b->data[slot].store(data, std::memory_order_relaxed);
}
