// The "texel" measurement: loading, the split over the 30 workers, the two error passes
// against an independent computation, and the report lines. Threaded, so the suite runs
// under ThreadSanitizer too.
#include <cmath>
#include <fstream>
#include <sstream>

#include "engine_process.h"
#include "eval/evaluate.h"
#include "test_util.h"
#include "tuning/texel.h"

namespace {

struct labelled {
    std::string fen;
    const char* result;
};

const labelled SAMPLE[] = {
    {"rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq -", "1/2-1/2"},
    {"r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq -", "1-0"},
    {"2brq1k1/1p3p1p/2p3p1/2r2P2/p2bB3/3R2N1/PP1Q2PP/5R1K b - -", "0-1"},
    {"8/6pk/2N1Bp2/7p/7P/3bnPK1/6P1/8 b - -", "1/2-1/2"},
    {"8/p2n1ppk/2R4p/4P3/8/2N1P2P/P2r2P1/6K1 w - -", "1-0"},
    {"4r1k1/8/8/8/8/3p4/4Q3/4K3 w - -", "0-1"},
    {"8/8/1P6/8/8/8/k7/6K1 b - -", "1-0"},
};

std::string writeFile(const std::string& name, const std::string& text) {
    std::string path = testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

// n labelled lines cycling through the sample, plus lines the loader must skip.
std::string sampleFile(int n) {
    std::string text = "no label on this line\n\n";
    for (int i = 0; i < n; i++) {
        const labelled& l = SAMPLE[i % std::size(SAMPLE)];
        text += l.fen + " c9 \"" + l.result + "\";\n";
    }
    return text;
}

// The error computed the plain way, one position after the other: the mean squared
// difference between result and the sigmoid of the evaluation.
double independentError(int n) {
    testPosition tp;
    double sum = 0;
    for (int i = 0; i < n; i++) {
        const labelled& l = SAMPLE[i % std::size(SAMPLE)];
        tp.set(l.fen);
        int e = evaluateN(0, tp.get());
        if (tp->sideToMove == BLACK)
            e = -e;
        double result = std::string(l.result) == "1-0"   ? 1.0
                        : std::string(l.result) == "0-1" ? 0.0
                                                         : 0.5;
        double p = 1.0 / (1.0 + std::pow(10.0, -1.55 * e / 400.0));
        sum += (result - p) * (result - p);
    }
    return sum / n;
}

std::vector<size_t> shares() {
    std::vector<size_t> s;
    for (auto& w : theTexelWorkForce.workers)
        s.push_back(w->positions.size());
    return s;
}

TEST(TexelThreads, BothErrorsEqualAndMatchAnIndependentComputation) {
    initTables();
    const int n = 100;
    std::ostringstream out;
    texelResultStruct r = runTexel(writeFile("texel_sample.epd", sampleFile(n)), out);
    ASSERT_TRUE(r.ran);
    EXPECT_EQ(r.startError, r.endError);
    EXPECT_NEAR(r.startError, independentError(n), 1e-12);
    EXPECT_EQ(texelPositions.size(), size_t(n));

    std::ostringstream expected;
    expected << "info string 1 lines without a valid FEN and \"c9\" result skipped\n";
    for (int i = 0; i < TEXEL_WORKERS; i++)
        expected << "Lets go\n";
    expected << "Starting texel tuning....\nStarting error " << r.startError
             << "\n\n Improving: 1\n"
             << "Ending error " << r.endError << " Minimum error " << r.startError << "\n";
    EXPECT_EQ(out.str(), expected.str());

    // 100 = 30 x 3 + 10: the remainder goes to the last worker.
    std::vector<size_t> want(TEXEL_WORKERS, 3);
    want.back() = 13;
    EXPECT_EQ(shares(), want);
}

TEST(TexelThreads, FewerPositionsThanWorkersAllGoToTheLast) {
    initTables();
    std::ostringstream out;
    texelResultStruct r = runTexel(writeFile("texel_few.epd", sampleFile(7)), out);
    ASSERT_TRUE(r.ran);
    std::vector<size_t> want(TEXEL_WORKERS, 0);
    want.back() = 7;
    EXPECT_EQ(shares(), want);
    EXPECT_NEAR(r.endError, independentError(7), 1e-12);
    // A second run replaces the first run's workers and positions.
    EXPECT_EQ(theTexelWorkForce.workers.size(), size_t(TEXEL_WORKERS));
    EXPECT_EQ(texelPositions.size(), 7u);
}

TEST(TexelThreads, ResultWordsAndBadLines) {
    initTables();
    std::ostringstream out;
    // Only "1-0" and "1/2" (characters 2 to 4 of the word) are recognised; anything else
    // is a loss for White. A bad FEN and a line without "c9" are skipped.
    std::string text =
        "4k3/8/8/8/8/8/8/4K2R w K - c9 \"1-0\";\n"
        "4k3/8/8/8/8/8/8/4K2R w K - c9 \"1/2-1/2\";\n"
        "4k3/8/8/8/8/8/8/4K2R w K - c9 \"*\";\n"
        "4k3/8/8/8/8/8/8/4K2R w K - c9\n"
        "4k3/8/8/8/8/8/8/4X2R w K - c9 \"1-0\";\n"
        "4k3/8/8/8/8/8/8/4K2R w K -\n";
    ASSERT_TRUE(runTexel(writeFile("texel_words.epd", text), out).ran);
    ASSERT_EQ(texelPositions.size(), 4u);
    EXPECT_EQ(texelPositions[0].result, 1.0);
    EXPECT_EQ(texelPositions[1].result, 0.5);
    EXPECT_EQ(texelPositions[2].result, 0.0);
    EXPECT_EQ(texelPositions[3].result, 0.0);
    EXPECT_EQ(texelPositions[0].fen, "4k3/8/8/8/8/8/8/4K2R w K - ");
    EXPECT_NE(out.str().find("info string 2 lines"), std::string::npos) << out.str();
}

TEST(TexelThreads, MissingFileGivesTheMessage) {
    initTables();
    std::ostringstream out;
    EXPECT_FALSE(runTexel(testing::TempDir() + "no_such_tuning_file.epd", out).ran);
    EXPECT_EQ(out.str(), "There seems to be a problem with the tuning file. tuning not executed\n");
}

TEST(TexelThreads, EmptyFileReportsNotANumber) {
    initTables();
    std::ostringstream out;
    texelResultStruct r = runTexel(writeFile("texel_empty.epd", ""), out);
    ASSERT_TRUE(r.ran);
    EXPECT_TRUE(std::isnan(r.startError));
    EXPECT_TRUE(std::isnan(r.endError));
    EXPECT_NE(out.str().find("no labelled positions"), std::string::npos);
    EXPECT_NE(out.str().find("Ending error nan Minimum error nan\n"), std::string::npos)
        << out.str();
}

TEST(TexelThreads, SharedTuningSetGivesAPlausibleError) {
    REQUIRE_DATA("tuning/selfplay-labeled.epd");
    initTables();
    std::ostringstream out;
    texelResultStruct r = runTexel(dataPath("tuning/selfplay-labeled.epd"), out);
    ASSERT_TRUE(r.ran);
    EXPECT_EQ(texelPositions.size(), 42615u);
    EXPECT_EQ(r.startError, r.endError);
    // A coin toss scores 0.25 on decisive games; an evaluation that knows anything does
    // clearly better.
    EXPECT_GT(r.startError, 0.05);
    EXPECT_LT(r.startError, 0.2);
}

// The command through the real program starts from fresh tables: a search after it finds
// the transposition table as empty as a newly set Hash leaves it, while the histories of
// the earlier searches stay.
TEST(TexelThreads, CommandStartsFromAnEmptyTable) {
    const std::string file = writeFile("texel_cmd.epd", sampleFile(40));
    // The nodes of three searches of depth 10 from the start, `between` sent before the third.
    auto run = [&](const std::string& between) {
        engineProcess e;
        EXPECT_TRUE(e.readUntil("enter 'help' to see the commands"));
        e.ask("setoption name Hash value 16");
        std::vector<std::string> nodes;
        for (int i = 0; i < 3; i++) {
            if (i == 2) {
                auto reply = e.ask(between, 60000 * ENGINE_TIME_SCALE);
                EXPECT_TRUE(reply && !reply->empty()) << e.transcript();
            }
            e.send("go depth 10");
            std::string info;
            for (auto line = e.readLine(60000 * ENGINE_TIME_SCALE); line && line->rfind("bestmove", 0);
                 line = e.readLine(60000 * ENGINE_TIME_SCALE))
                info = *line;
            auto at = info.find(" nodes ");
            nodes.push_back(at == std::string::npos ? info : info.substr(at, info.find(" nps") - at));
        }
        EXPECT_EQ(e.finish(), 0);
        return nodes;
    };
    auto texel = run("texel " + file);
    auto hash = run("setoption name Hash value 16");
    EXPECT_NE(texel[1], texel[0]);   // otherwise the table carries over between searches
    EXPECT_EQ(texel, hash);
}

}  // namespace
