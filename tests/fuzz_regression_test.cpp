// Every kept fuzz input, replayed through its harness without libFuzzer: the seed corpus
// of tests/fuzz/corpus/<harness>/ and the inputs of past findings in
// tests/fuzz/regressions/<harness>/. A harness check that fails names the file.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "fuzz/targets.h"

// The harness's name in the test list, not its bytes.
void PrintTo(const fuzzTargetStruct& target, std::ostream* out) { *out << target.name; }

namespace {

namespace fs = std::filesystem;

struct fuzzCheckFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void throwFailure(const std::string& what) { throw fuzzCheckFailed(what); }

class FuzzRegressions : public testing::TestWithParam<fuzzTargetStruct> {};

TEST_P(FuzzRegressions, EveryKeptInputPassesItsHarness) {
    const fuzzTargetStruct target = GetParam();
    setFuzzFailureHandler(throwFailure);
    int replayed = 0;
    for (const char* kind : {"corpus", "regressions"}) {
        const fs::path dir = fs::path(QUORVANE_SOURCE_DIR) / "tests/fuzz" / kind / target.name;
        if (!fs::is_directory(dir))
            continue;
        for (const fs::directory_entry& f : fs::directory_iterator(dir)) {
            std::ifstream in(f.path(), std::ios::binary);
            std::stringstream bytes;
            bytes << in.rdbuf();
            const std::string input = bytes.str();
            try {
                EXPECT_EQ(target.run(reinterpret_cast<const uint8_t*>(input.data()), input.size()), 0)
                    << f.path();
            } catch (const fuzzCheckFailed& e) {
                ADD_FAILURE() << f.path() << ": " << e.what();
            }
            replayed++;
        }
    }
    setFuzzFailureHandler(nullptr);
    EXPECT_GT(replayed, 0) << "no kept inputs for " << target.name;
}

INSTANTIATE_TEST_SUITE_P(Harnesses, FuzzRegressions, testing::ValuesIn(FUZZ_TARGETS),
                         [](const testing::TestParamInfo<fuzzTargetStruct>& p) {
                             return std::string(p.param.name);
                         });

}  // namespace
