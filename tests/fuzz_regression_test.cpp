// Every kept fuzz input, replayed through its harness without libFuzzer: the seed corpus
// of tests/fuzz/corpus/<harness>/ and the inputs of past findings in
// tests/fuzz/regressions/<harness>/. A harness check that fails names the file. Then
// mutated FENs, made afresh, through the FEN harness.
#include <stdexcept>

#include "fuzz/targets.h"
#include "test_util.h"

// The harness's name in the test list, not its bytes.
void PrintTo(const fuzzTargetStruct& target, std::ostream* out) { *out << target.name; }

namespace {

namespace fs = std::filesystem;

struct fuzzCheckFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void throwFailure(const std::string& what) { throw fuzzCheckFailed(what); }

// Runs one input through a harness; a broken promise fails the test, naming `where`.
void replay(fuzzTargetFn run, const std::string& input, const std::string& where) {
    setFuzzFailureHandler(throwFailure);
    try {
        EXPECT_EQ(run(reinterpret_cast<const uint8_t*>(input.data()), input.size()), 0) << where;
    } catch (const fuzzCheckFailed& e) {
        ADD_FAILURE() << where << ": " << e.what();
    }
    setFuzzFailureHandler(nullptr);
}

class FuzzRegressions : public testing::TestWithParam<fuzzTargetStruct> {};

TEST_P(FuzzRegressions, EveryKeptInputPassesItsHarness) {
    const fuzzTargetStruct target = GetParam();
    int replayed = 0;
    std::error_code ec;  // a harness without regressions has no folder there
    for (const char* kind : {"corpus", "regressions"}) {
        const fs::path dir = fs::path(QUORVANE_SOURCE_DIR) / "tests/fuzz" / kind / target.name;
        for (const fs::directory_entry& f : fs::directory_iterator(dir, ec)) {
            replay(target.run, readTextFile(f.path().string()), f.path().string());
            replayed++;
        }
    }
    EXPECT_GT(replayed, 0) << "no kept inputs for " << target.name;
}

// Mutated FENs, new ones at each seed, through the FEN harness: each is refused with a
// reason or reads as a sound position (under the sanitizers, memory faults stop the test).
TEST(FuzzHarnesses, MutatedFensRefusedOrSound) {
    std::mt19937_64 rng(fuzzSeed());
    testPosition tp;
    int accepted = 0;
    const int rounds = 20000 / TEST_WORK_DIVISOR;
    for (int i = 0; i < rounds && !HasFailure(); i++) {
        const std::string fen = mutatedFen(rng);
        replay(fuzzFen, fen, fen);
        accepted += setPosition(fen, tp.get());
    }
    EXPECT_GT(accepted, rounds / 20) << "the mutations hardly ever produce a readable FEN";
}

INSTANTIATE_TEST_SUITE_P(Harnesses, FuzzRegressions, testing::ValuesIn(FUZZ_TARGETS),
                         [](const testing::TestParamInfo<fuzzTargetStruct>& p) {
                             return std::string(p.param.name);
                         });

}  // namespace
