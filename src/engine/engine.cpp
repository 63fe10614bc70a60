#include "engine/engine.h"

#include <algorithm>
#include <cstdlib>

#include "board/output.h"
#include "platform/platform.h"
#include "search/tt.h"

engineStruct engine;

namespace {

// The largest table that physical memory can hold comfortably: half of it. The tests
// lower that ceiling with QUORVANE_HASH_LIMIT_MB so that the largest sizes stay cheap.
u64 affordableBuckets(u64 wanted) {
    u64 memory = platform::physicalMemory();
    u64 limit = memory ? memory / 2 / 64 : wanted;
    if (const char* cap = std::getenv("QUORVANE_HASH_LIMIT_MB"))
        limit = std::min<u64>(limit, std::strtoull(cap, nullptr, 10) * 16384);
    while (wanted > 16384 && wanted > limit)
        wanted /= 2;
    return wanted;
}

}  // namespace

void setHashSizeNow(int mb) {
    u64 wanted = hashBucketsForMB(mb);
    u64 capped = affordableBuckets(wanted);
    u64 got = resizeHashTable(capped, engine.nofThreads);
    if (got != wanted)
        printLine("info string not enough memory for a table of " + std::to_string(wanted / 16384)
                  + " MB, using " + std::to_string(got * 64 / 1048576) + " MB");
}
