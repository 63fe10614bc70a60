// Perft counts against the shared reference file: the check of move generation and
// make/take-back together. Under the sanitizers (QUORVANE_PERFT_LIMIT set) only cases
// up to that many nodes run; the section after the "full" marker never does here.
#include <cstdlib>

#include "board/perft.h"
#include "test_util.h"

TEST(Perft, ReferenceFile) {
    REQUIRE_DATA("perft.txt");
    const char* limitText = std::getenv("QUORVANE_PERFT_LIMIT");
    const u64 limit = limitText ? std::strtoull(limitText, nullptr, 10) : ~0ULL;
    std::ifstream in(dataPath("perft.txt"));
    testPosition pos;
    int run = 0;
    for (std::string line; std::getline(in, line) && line != "full";) {
        std::istringstream s(line);
        std::string fen, depth, count;
        std::getline(s, fen, ';');
        std::getline(s, depth, ';');
        std::getline(s, count, ';');
        if (std::stoull(count) > limit)
            continue;
        pos.set(fen);
        EXPECT_EQ(perft(0, std::stoi(depth), pos.get()), std::stoull(count)) << line;
        run++;
    }
    EXPECT_GT(run, 10);
}
