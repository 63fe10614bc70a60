// The "texel" measurement: both error passes over the 30 workers against a plain one-thread
// computation (threaded, so ThreadSanitizer runs it too).
#include <cmath>

#include "test_util.h"
#include "tuning/texel.h"

TEST(TexelThreads, BothErrorsMatchAOneThreadComputation) {
    const std::pair<const char*, const char*> sample[] = {
        {"r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq -", "1-0"},
        {"2brq1k1/1p3p1p/2p3p1/2r2P2/p2bB3/3R2N1/PP1Q2PP/5R1K b - -", "0-1"},
        {"4r1k1/8/8/8/8/3p4/4Q3/4K3 w - -", "1/2-1/2"}};
    // 100 labelled lines (not a multiple of the worker count) and two lines to skip.
    std::string text = "no label\n4k3/8/8/8/8/8/8/4X2R w K - c9 \"1-0\";\n",
                path = testing::TempDir() + "texel.epd";
    double sum = 0;
    testPosition tp;
    for (int i = 0; i < 100; i++) {
        auto [fen, result] = sample[i % 3];
        text += std::string(fen) + " c9 \"" + result + "\";\n";
        tp.set(fen);
        const int e = whiteView(tp.get());
        double r = result[1] == '-' ? result[0] - '0' : 0.5,
               p = 1.0 / (1.0 + std::pow(10.0, -1.55 * e / 400.0));
        sum += (r - p) * (r - p);
    }
    std::ofstream(path) << text;
    std::ostringstream out;
    texelResultStruct r = runTexel(path, out);
    ASSERT_TRUE(r.ran);
    EXPECT_EQ(texelPositions.size(), 100u);
    EXPECT_EQ(r.startError, r.endError);
    EXPECT_NEAR(r.startError, sum / 100, 1e-12);
    EXPECT_NE(out.str().find("info string 2 lines without a valid FEN"), std::string::npos)
        << out.str();
}
