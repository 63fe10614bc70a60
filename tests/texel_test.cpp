// The "texel" measurement: loading and the result words, both error passes over the 30
// workers against a plain one-thread computation, and the shared tuning set. Threaded,
// so the suite runs under ThreadSanitizer too.
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
        text += std::string(fen) + " c9 \"" + (result == 1.0 ? "1-0" : result == 0.0 ? "0-1" : "1/2-1/2") + "\";\n";
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
    EXPECT_NE(out.str().find("info string 2 lines without a valid FEN"), std::string::npos) << out.str();
}

TEST(TexelThreads, ResultWordsMissingAndEmptyFiles) {
    initTables();
    // Only "1-0" and "1/2" (characters 2 to 4 of the word) are recognised; anything else
    // is a loss for White.
    std::ostringstream out;
    ASSERT_TRUE(runTexel(writeFile("texel_words.epd", "4k3/8/8/8/8/8/8/4K2R w K - c9 \"1-0\";\n"
                                                      "4k3/8/8/8/8/8/8/4K2R w K - c9 \"1/2-1/2\";\n"
                                                      "4k3/8/8/8/8/8/8/4K2R w K - c9 \"*\";\n"),
                         out)
                    .ran);
    ASSERT_EQ(texelPositions.size(), 3u);
    EXPECT_EQ(texelPositions[0].result, 1.0);
    EXPECT_EQ(texelPositions[1].result, 0.5);
    EXPECT_EQ(texelPositions[2].result, 0.0);
    std::ostringstream missing;
    EXPECT_FALSE(runTexel(testing::TempDir() + "no_such_tuning_file.epd", missing).ran);
    EXPECT_EQ(missing.str(), "There seems to be a problem with the tuning file. tuning not executed\n");
    texelResultStruct empty = runTexel(writeFile("texel_empty.epd", ""), out);
    EXPECT_TRUE(empty.ran && std::isnan(empty.startError) && std::isnan(empty.endError));
}

// A coin toss scores 0.25 on decisive games; an evaluation that knows anything does
// clearly better.
TEST(TexelThreads, SharedTuningSetGivesAPlausibleError) {
    REQUIRE_DATA("tuning/selfplay-labeled.epd");
    initTables();
    std::ostringstream out;
    texelResultStruct r = runTexel(dataPath("tuning/selfplay-labeled.epd"), out);
    ASSERT_TRUE(r.ran);
    EXPECT_EQ(texelPositions.size(), 42615u);
    EXPECT_EQ(r.startError, r.endError);
    EXPECT_GT(r.startError, 0.05);
    EXPECT_LT(r.startError, 0.2);
}

}  // namespace
