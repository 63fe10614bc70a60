// Perft counts against reference files: the check of move generation and make/take-back
// together. tests/perft.txt (17 lines of the shared file) travels with the sources, so a
// bare clone checks its generator too; the shared file holds the full set. Under the
// sanitizers (QUORVANE_PERFT_LIMIT set) only cases up to that many nodes run; the section
// after the "full" marker never does here.
#include <cstdlib>

#include "board/perft.h"
#include "test_util.h"

namespace {

// perft() itself, then the full legal lists on the same lines (the largest cases aside, to
// keep the suite quick). perft() also has to leave the position as it found it.
void checkReferenceFile(const std::string& file) {
    const char* limitText = std::getenv("QUORVANE_PERFT_LIMIT");
    const u64 limit = limitText ? std::strtoull(limitText, nullptr, 10) : ~0ULL;
    std::ifstream in(file);
    ASSERT_TRUE(in) << file;
    testPosition pos;
    int run = 0, bySearch = 0;
    for (std::string line; std::getline(in, line) && line != "full";) {
        const size_t fenEnd = line.find(';');  // FEN;depth;count
        const int depth = std::stoi(line.substr(fenEnd + 1));
        const u64 expected = std::stoull(line.substr(line.find(';', fenEnd + 1) + 1));
        if (expected > limit)
            continue;
        pos.set(line.substr(0, fenEnd));
        const std::string before = snapshot(pos.get());
        EXPECT_EQ(perft(0, depth, pos.get()), expected) << line;
        EXPECT_TRUE(snapshot(pos.get()) == before) << line;
        run++;
        if (expected <= std::min<u64>(limit, 25000000)) {
            EXPECT_EQ(slowPerft(pos.get(), 0, depth), expected) << line;
            bySearch++;
        }
    }
    EXPECT_GT(run, 0);
    EXPECT_GT(bySearch, 0);
}

}  // namespace

TEST(Perft, RepositoryReferenceLines) {
    checkReferenceFile(std::string(QUORVANE_SOURCE_DIR) + "/tests/perft.txt");
}

TEST(Perft, SharedReferenceFile) {
    REQUIRE_DATA("perft.txt");
    checkReferenceFile(dataPath("perft.txt"));
}
