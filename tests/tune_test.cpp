// The tuner run for real on a few hundred positions: it must agree with evaluateN, and the
// weights file it writes may differ from ours only in the open entries of the four tuned
// tables, with the layout unchanged.
#include <cstdlib>
#include <fstream>
#include <map>

#include "test_util.h"
#include "tuning/weightsfile.h"

namespace {

using pairs = std::vector<std::pair<int, int>>;

// Runs a tool's command line with its output in the file `out`, its errors too unless `err`
// names a file of their own; returns the output. A failed run fails the test.
std::string run(const std::string& command, const std::string& out, const std::string& err = "") {
    const std::string errors = err.empty() ? "&1" : " " + err;
    EXPECT_EQ(std::system((command + " > " + out + " 2>" + errors).c_str()), 0)
        << command << "\n"
        << readTextFile(err.empty() ? out : err);
    return readTextFile(out);
}

// The first `count` lines of the labelled tuning file, in a file of the test's own;
// transform may rewrite line i.
template <typename Transform>
std::string sampleFile(const std::string& name, int count, Transform transform) {
    const std::string path = testing::TempDir() + name;
    std::ifstream in(dataPath("tuning/selfplay-labeled.epd"));
    std::ofstream sample(path);
    std::string line;
    for (int i = 0; i < count && std::getline(in, line); i++)
        sample << transform(i, line) << "\n";
    return path;
}

// The text with every pair's numbers taken out: what must stay as it was.
std::string withoutNumbers(const std::string& text) {
    std::string out;
    size_t last = 0;
    for (const weightPairText& w : weightPairsIn(text)) {
        out += text.substr(last, w.at - last) + "S()";
        last = w.at + w.length;
    }
    return out + text.substr(last);
}

// Every array definition of the weights source ("i32 NAME[..] = {" or "i32 NAME[..][..] =
// {") with its (mg, eg) pairs in order.
std::map<std::string, pairs> tablesOf(const std::string& text) {
    std::map<std::string, pairs> tables;
    for (size_t at = text.find("i32 "); at != std::string::npos; at = text.find("i32 ", at + 4)) {
        size_t i = at + 4, name = i;
        while (i < text.size()
               && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '_'))
            i++;
        const std::string id = text.substr(name, i - name);
        for (int dims = 0; dims < 2 && i < text.size() && text[i] == '['; dims++)
            i = text.find(']', i) + 1;
        if (id.empty() || text[name + id.size()] != '[' || text.compare(i, 4, " = {") != 0)
            continue;
        const size_t from = i + 4, to = text.find("};", from);
        pairs& p = tables[id];
        for (const weightPairText& w : weightPairsIn(text, from, to))
            p.emplace_back(w.mg, w.eg);
    }
    return tables;
}

// The hand-set halves the tables are built around; no tuning run may touch them.
// [0] middlegame, [1] endgame.
bool isGiven(const std::string& table, int i, int half) {
    if (table == "pieceSquareScore") {
        const int piece = i / 64, e = i % 64;
        return (piece == 0 && (e < 8 || e >= 56)) || (piece == 5 && e >= 56)
               || (piece == 1 && e >= 56 && half == 0);
    }
    if (table == "EVALPAWNPASSED")
        return i < 24 || i >= 56;
    if (table == "EVALPAWNSHIELD")
        return half == 1 || i < 16 || i >= 40;
    return false;  // EVALPAWNSTORM is open throughout
}

// One run with --mirror covers the plain run too: the mirror only averages gradients.
TEST(Tuner, RunKeepsTheGivenWeightsAndTheLayout) {
    REQUIRE_DATA("tuning/selfplay-labeled.epd");
    const std::string data =
        sampleFile("tune_sample.epd", 400, [](int, auto& line) { return line; });
    const std::string out = testing::TempDir() + "tune_weights.cpp";
    const std::string original = std::string(QUORVANE_SOURCE_DIR) + "/src/eval/weights.cpp";
    std::remove(out.c_str());
    const std::string report = run(
        std::string(QUORVANE_TUNE_BINARY)
            + " --epochs 2 --last --min-uses 1 --batch 64 --lr 4 --threads 2 --mirror --weights "
            + original + " --out " + out + " " + data,
        testing::TempDir() + "tune_log.txt");
    EXPECT_NE(report.find("epoch   2"), std::string::npos) << report;
    EXPECT_NE(report.find("outpost rule chosen"), std::string::npos) << report;
    EXPECT_EQ(report.find("differs from evaluateN"), std::string::npos) << report;

    const std::string before = readTextFile(original), after = readTextFile(out);
    ASSERT_FALSE(after.empty()) << report;
    EXPECT_EQ(withoutNumbers(before), withoutNumbers(after))
        << "only the numbers of the pairs may change";

    const auto was = tablesOf(before), is = tablesOf(after);
    ASSERT_EQ(was.size(), is.size());
    const std::map<std::string, size_t> tuned = {{"pieceSquareScore", 384},
                                                 {"EVALPAWNPASSED", 64},
                                                 {"EVALPAWNSHIELD", 64},
                                                 {"EVALPAWNSTORM", 256}};
    int moved = 0, twins = 0;
    for (const auto& [name, values] : was) {
        const pairs& now = is.at(name);
        ASSERT_EQ(values.size(), now.size()) << name;
        if (!tuned.count(name)) {
            EXPECT_EQ(values, now) << name << " is not tuned";
            continue;
        }
        ASSERT_EQ(values.size(), tuned.at(name)) << name;
        auto change = [&](size_t i, int h) {
            return h == 0 ? now[i].first - values[i].first : now[i].second - values[i].second;
        };
        for (size_t i = 0; i < values.size(); i++) {
            // The twin on the mirrored file (a <-> h): the file is the storm's middle index.
            const size_t twin = name == "EVALPAWNSTORM" ? i ^ 56 : i ^ 7;
            for (int h = 0; h < 2; h++) {
                if (isGiven(name, int(i), h)) {
                    EXPECT_EQ(change(i, h), 0) << name << "[" << i << "] half " << h;
                    continue;
                }
                moved += change(i, h) != 0;
                // An open value moves as its twin does, unless the twin is fixed or unused.
                if (change(i, h) != 0 && change(twin, h) != 0 && !isGiven(name, int(twin), h)) {
                    EXPECT_EQ(change(i, h), change(twin, h)) << name << "[" << i << "] half " << h;
                    twins++;
                }
            }
        }
    }
    EXPECT_GT(moved, 20) << "the run must have changed open values";
    EXPECT_GT(twins, 20) << "the run must have moved twins";
}

// The targets, measured before any step. Labelled with our own evaluation, every position
// scores its "score" target exactly (error 0); the blend with lambda = 0.25 keeps a quarter
// of each difference, so its error is a sixteenth of the results' error. Unlabelled lines are
// left out.
TEST(Tuner, TargetsBlendResultsAndLabels) {
    REQUIRE_DATA("tuning/selfplay-labeled.epd");
    testPosition tp;
    const std::string data = sampleFile("tune_labelled.epd", 600, [&](int i, auto& line) {
        if (i % 4 == 3)
            return line;
        tp.set(line.substr(0, line.find(" c9")));
        return line + " wcp " + std::to_string(whiteView(tp.get())) + ";";
    });
    // The first training error after K is fitted (against the results), then the one of
    // epoch 0 (against the target).
    auto tune = [&](const std::string& target, double& resultError, double& targetError) {
        const std::string report = run(std::string(QUORVANE_TUNE_BINARY) + " --target " + target
                                           + " --epochs 0 --no-outpost --weights "
                                           + QUORVANE_SOURCE_DIR + "/src/eval/weights.cpp --out "
                                           + testing::TempDir() + "tune_labelled.cpp " + data,
                                       testing::TempDir() + "tune_labelled.txt");
        EXPECT_NE(report.find("450 positions (0 lines skipped, 150 without a \"wcp\" label"),
                  std::string::npos)
            << report;
        const size_t fitted = report.find(data + ": training "), epoch = report.find("epoch   0");
        ASSERT_NE(fitted, std::string::npos) << report;
        ASSERT_NE(epoch, std::string::npos) << report;
        resultError = std::stod(report.substr(fitted + data.size() + 11));
        targetError = std::stod(report.substr(epoch + 20));
    };
    double results = 0, score = 1, blend = 1;
    tune("score", results, score);
    EXPECT_GT(results, 0.01);
    EXPECT_EQ(score, 0.0);
    tune("blend --lambda 0.25", results, blend);
    EXPECT_NEAR(blend, results / 16, 1e-6);
}

// Games to labelled positions: SAN with en passant, promotion, disambiguation and
// castling; positions before captures, promotions and repeated positions left out; the
// en-passant field only where a pawn can take; games without a result skipped.
TEST(Tuner, GamesBecomeLabelledPositions) {
    const std::string pgn = testing::TempDir() + "pgn2epd.pgn",
                      log = testing::TempDir() + "pgn2epd.txt";
    std::ofstream(pgn)
        << "[Event \"a\"]\n[Result \"1-0\"]\n\n"
           "1. e4 {+0.30/10 0.1s} d5 2. e5 f5 3. exf6 Nc6 4. fxg7 Nf6\n5. gxh8=Q+ 1-0\n\n"
           "[Event \"b\"]\n[Result \"0-1\"]\n\n"
           "1. e4 d5 2. e5 f5 3. Nf3 Nf6 4. Be2 Nbd7 5. O-O 0-1\n\n"
           "[Event \"c\"]\n[Result \"*\"]\n\n1. d4 *\n\n"
           "[Event \"d\"]\n[Result \"1-0\"]\n\n1. c4 Qh4 1-0\n";
    const std::string epd = run(std::string(QUORVANE_PGN2EPD_BINARY) + " --skip 0 " + pgn,
                                testing::TempDir() + "pgn2epd.epd", log);
    const char* const expected =
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - c9 \"1-0\";\n"
        "rnbqkbnr/pppppppp/8/8/4P3/8/PPPP1PPP/RNBQKBNR b KQkq - c9 \"1-0\";\n"
        "rnbqkbnr/ppp1pppp/8/3p4/4P3/8/PPPP1PPP/RNBQKBNR w KQkq - c9 \"1-0\";\n"
        "rnbqkbnr/ppp1pppp/8/3pP3/8/8/PPPP1PPP/RNBQKBNR b KQkq - c9 \"1-0\";\n"
        "rnbqkbnr/ppp1p1pp/5P2/3p4/8/8/PPPP1PPP/RNBQKBNR b KQkq - c9 \"1-0\";\n"
        "r1bqkbnr/ppp1p1Pp/2n5/3p4/8/8/PPPP1PPP/RNBQKBNR b KQkq - c9 \"1-0\";\n"
        "rnbqkbnr/ppp1p1pp/8/3pPp2/8/8/PPPP1PPP/RNBQKBNR w KQkq f6 c9 \"0-1\";\n"
        "rnbqkbnr/ppp1p1pp/8/3pPp2/8/5N2/PPPP1PPP/RNBQKB1R b KQkq - c9 \"0-1\";\n"
        "rnbqkb1r/ppp1p1pp/5n2/3pPp2/8/5N2/PPPP1PPP/RNBQKB1R w KQkq - c9 \"0-1\";\n"
        "rnbqkb1r/ppp1p1pp/5n2/3pPp2/8/5N2/PPPPBPPP/RNBQK2R b KQkq - c9 \"0-1\";\n"
        "r1bqkb1r/pppnp1pp/5n2/3pPp2/8/5N2/PPPPBPPP/RNBQK2R w KQkq - c9 \"0-1\";\n";
    EXPECT_EQ(epd, expected);
    const std::string report = readTextFile(log);
    EXPECT_NE(report.find("cannot read move Qh4"), std::string::npos) << report;
    EXPECT_NE(
        report.find("4 games read, 3 used, 11 positions written, 1 games with unreadable moves"),
        std::string::npos)
        << report;
}

}  // namespace
