#include "search/tt.h"

#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "platform/platform.h"

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

namespace {

u64 allocatedBytes = 0;  // of hashTable, as asked for

// Room for `buckets` buckets and the spare one behind them.
hashBucketStruct* allocateBuckets(u64 buckets) {
    u64 bytes = (buckets + 1) * sizeof(hashBucketStruct);
    void* p = platform::allocateLarge(bytes);
    if (p)
        allocatedBytes = bytes;
    return static_cast<hashBucketStruct*>(p);
}

}  // namespace

void freeHashTable() {
    platform::freeLarge(hashTable, allocatedBytes);
    hashTable = nullptr;
    allocatedBytes = 0;
    hashKeyMask = 0;
}

u64 resizeHashTable(u64 buckets, int threads) {
    freeHashTable();
    for (; buckets >= 1; buckets /= 2)
        if ((hashTable = allocateBuckets(buckets)))
            break;
    hashKeyMask = buckets - 1;
    clearHashTableMT(threads);
    return buckets;
}

hashChunkStruct hashClearChunk(u64 buckets, int threads, int i) {
    u64 t = u64(threads < 1 ? 1 : threads), chunk = buckets / t;
    u64 count = u64(i) + 1 == t ? buckets - i * chunk + 1 : chunk;  // + 1: the spare
    return {i * chunk, count};
}

void clearHashTableMT(int threads) {
    if (!hashTable)
        return;
    int t = threads < 1 ? 1 : threads;
    auto zero = [](hashChunkStruct c) {
        std::memset(static_cast<void*>(hashTable + c.first), 0, c.count * sizeof(hashBucketStruct));
    };
    std::vector<std::thread> workers;
    for (int i = 0; i < t; i++) {
        hashChunkStruct c = hashClearChunk(hashKeyMask + 1, t, i);
        try {
            workers.emplace_back(zero, c);
        } catch (const std::system_error&) {
            zero(c);  // no thread to spare: do it here
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
