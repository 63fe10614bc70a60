// The "texel" measurement: loading, both error passes over the 30 workers against a plain
// one-thread computation. Threaded, so the suite runs under ThreadSanitizer too.
#include <cmath>

#include "eval/evaluate.h"
#include "test_util.h"
#include "tuning/texel.h"

namespace {

std::string writeFile(const std::string& name, const std::string& text) {
    std::string path = testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

TEST(TexelThreads, BothErrorsMatchAOneThreadComputation) {
    const std::pair<const char*, double> sample[] = {
        {"rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq -", 0.5},
        {"r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq -", 1.0},
        {"2brq1k1/1p3p1p/2p3p1/2r2P2/p2bB3/3R2N1/PP1Q2PP/5R1K b - -", 0.0},
        {"8/p2n1ppk/2R4p/4P3/8/2N1P2P/P2r2P1/6K1 w - -", 1.0},
        {"4r1k1/8/8/8/8/3p4/4Q3/4K3 w - -", 0.0},
        {"8/8/1P6/8/8/8/k7/6K1 b - -", 1.0},
    };
    // 100 labelled lines (not a multiple of the worker count) and lines the loader skips.
    std::string text = "no label on this line\n4k3/8/8/8/8/8/8/4X2R w K - c9 \"1-0\";\n\n";
    double sum = 0;
    testPosition tp;
    for (int i = 0; i < 100; i++) {
        auto [fen, result] = sample[i % std::size(sample)];
        text += std::string(fen) + " c9 \""
                + (result == 1.0   ? "1-0"
                   : result == 0.0 ? "0-1"
                                   : "1/2-1/2")
                + "\";\n";
        tp.set(fen);
        int e = tp->sideToMove == WHITE ? evaluateN(0, tp.get()) : -evaluateN(0, tp.get());
        double p = 1.0 / (1.0 + std::pow(10.0, -1.55 * e / 400.0));
        sum += (result - p) * (result - p);
    }
    std::ostringstream out;
    texelResultStruct r = runTexel(writeFile("texel_sample.epd", text), out);
    ASSERT_TRUE(r.ran);
    EXPECT_EQ(texelPositions.size(), 100u);
    EXPECT_EQ(r.startError, r.endError);
    EXPECT_NEAR(r.startError, sum / 100, 1e-12);
    EXPECT_NE(out.str().find("info string 2 lines without a valid FEN"), std::string::npos)
        << out.str();
}

}  // namespace
