// The tuner run for real on a few hundred positions: it must agree with evaluateN, and the
// weights file it writes may differ from ours only in the open entries of the four tuned
// tables, with the layout unchanged.
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "test_util.h"

namespace {

using pairs = std::vector<std::pair<int, int>>;

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

const std::regex PAIR(R"(S\(\s*(-?\d+),\s*(-?\d+)\))");

// Every array definition of the weights source with its (mg, eg) pairs in order.
std::map<std::string, pairs> tablesOf(const std::string& text) {
    std::map<std::string, pairs> tables;
    const std::regex head(R"(i32 (\w+)\[[^\]]*\](\[[^\]]*\])? = \{)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), head);
         it != std::sregex_iterator(); ++it) {
        const size_t from = size_t(it->position() + it->length());
        const std::string body = text.substr(from, text.find("};", from) - from);
        pairs& p = tables[(*it)[1]];
        for (auto q = std::sregex_iterator(body.begin(), body.end(), PAIR);
             q != std::sregex_iterator(); ++q)
            p.emplace_back(std::stoi((*q)[1]), std::stoi((*q)[2]));
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

TEST(Tuner, RunKeepsTheGivenWeightsAndTheLayout) {
    REQUIRE_DATA("tuning/selfplay-labeled.epd");
    const std::string dir = testing::TempDir();
    const std::string data = dir + "tune_sample.epd", out = dir + "tune_weights.cpp",
                      log = dir + "tune_log.txt";
    {
        std::ifstream in(dataPath("tuning/selfplay-labeled.epd"));
        std::ofstream sample(data);
        std::string line;
        for (int i = 0; i < 400 && std::getline(in, line); i++)
            sample << line << "\n";
    }
    const std::string original = std::string(QUORVANE_SOURCE_DIR) + "/src/eval/weights.cpp";
    const std::string command = std::string(QUORVANE_TUNE_BINARY)
                                + " --epochs 2 --last --min-uses 1 --batch 64 --lr 4 --threads 2"
                                + " --weights " + original + " --out " + out + " " + data + " > "
                                + log + " 2>&1";
    std::remove(out.c_str());
    ASSERT_EQ(std::system(command.c_str()), 0) << readFile(log);

    const std::string report = readFile(log);
    EXPECT_NE(report.find("epoch   2"), std::string::npos) << report;
    EXPECT_NE(report.find("outpost rule chosen"), std::string::npos) << report;
    EXPECT_EQ(report.find("differs from evaluateN"), std::string::npos) << report;

    const std::string before = readFile(original), after = readFile(out);
    ASSERT_FALSE(after.empty()) << report;
    EXPECT_EQ(std::regex_replace(before, PAIR, "S()"), std::regex_replace(after, PAIR, "S()"))
        << "only the numbers of the pairs may change";

    const auto was = tablesOf(before), is = tablesOf(after);
    ASSERT_EQ(was.size(), is.size());
    const std::map<std::string, size_t> tuned = {{"pieceSquareScore", 384},
                                                 {"EVALPAWNPASSED", 64},
                                                 {"EVALPAWNSHIELD", 64},
                                                 {"EVALPAWNSTORM", 256}};
    int moved = 0;
    for (const auto& [name, values] : was) {
        const pairs& now = is.at(name);
        ASSERT_EQ(values.size(), now.size()) << name;
        if (!tuned.count(name)) {
            EXPECT_EQ(values, now) << name << " is not tuned";
            continue;
        }
        ASSERT_EQ(values.size(), tuned.at(name)) << name;
        for (size_t i = 0; i < values.size(); i++) {
            const int halves[2][2] = {{values[i].first, now[i].first},
                                      {values[i].second, now[i].second}};
            for (int h = 0; h < 2; h++) {
                if (isGiven(name, int(i), h))
                    EXPECT_EQ(halves[h][0], halves[h][1]) << name << "[" << i << "] half " << h;
                else
                    moved += halves[h][0] != halves[h][1];
            }
        }
    }
    EXPECT_GT(moved, 20) << "the run must have changed open values";
}

}  // namespace
