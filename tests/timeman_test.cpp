// The time budget: worked clock situations, the hard limit over a grid of clocks, the
// iteration factor and the hard-limit test.
#include <gtest/gtest.h>

#include "engine/timeman.h"

namespace {

TEST(TimeBudget, WorkedClockSituations) {
    const struct {
        int timeLeft, inc, gamePly, movesToGo, moveTime;  // movesToGo 0: not given
        i64 target, max;
    } cases[] = {
        {900000, 0, 0, 0, 0, 14850, 74250},  // bare "go" on move one, no increment
        {1000, 1000, 30, 0, 0, 449, 450},    // short clock: budget halved
        {900000, 0, 0, 0, 500, 5000, 500},   // movetime overrides both
        {10000, 0, 30, 1, 0, 8030, 9900},    // last move before the time control
        {150, 0, 60, 4, 0, 27, 40},          // exactly four to go: a floor of 40 ms
        {150, 0, 60, 3, 0, 36, 37},
        {100000, 0, 1024, 0, 0, 3079, 15395},  // unknown game ply: 30 moves, a bigger share
        {100000, 0, 60, 0, 0, 2640, 13200},
    };
    for (const auto& c : cases) {
        engineStruct e;
        e.timeLeft[WHITE] = c.timeLeft;
        e.increment[WHITE] = c.inc;
        e.timeLeft[BLACK] = 1;  // the other side's clock must not matter
        e.increment[BLACK] = 99999;
        e.gamePly = c.gamePly;
        e.movesToGo = c.movesToGo;
        e.movesToGoGiven = c.movesToGo > 0;
        e.moveTime = c.moveTime;
        computeTimeBudget(e, WHITE);
        EXPECT_EQ(e.targetTime, c.target)
            << c.timeLeft << " " << c.inc << " " << c.gamePly << " " << c.movesToGo;
        EXPECT_EQ(e.maxTime, c.max)
            << c.timeLeft << " " << c.inc << " " << c.gamePly << " " << c.movesToGo;
    }
}

// Over a grid of clocks the hard limit stays within the time left less the overhead (at
// least 1 ms), and the target is not negative.
TEST(TimeBudget, HardLimitNeverExceedsTheClock) {
    for (int t : {150, 500, 1000, 3000, 10000, 60000, 300000, 5400000})
        for (int inc : {0, 10, 100, 1000, 5000, 30000})
            for (int ply : {0, 17, 18, 50, 51, 80, 81, 200, 201, 400, 1024})
                for (int mtg : {-1, 0, 1, 2, 4, 10, 40})
                    for (int threads : {1, 8}) {
                        engineStruct e;
                        e.timeLeft[WHITE] = t;
                        e.increment[WHITE] = inc;
                        e.gamePly = ply;
                        e.nofThreads = threads;
                        e.ponderOption = threads > 1;
                        e.movesToGo = mtg;
                        e.movesToGoGiven = mtg >= 0;
                        computeTimeBudget(e, WHITE);
                        EXPECT_LE(e.maxTime, std::max<i64>(t - e.moveOverhead, 1))
                            << t << " " << inc << " " << ply << " " << mtg;
                        EXPECT_GE(e.maxTime, 1);
                        EXPECT_GE(e.targetTime, 0);
                    }
}

TEST(StopRules, IterationFactorAndHardLimit) {
    const std::tuple<int, int, float, float> cases[] = {
        {5, 10, 1.7f, 1.0f},  // below depth 6
        {6, 3, 1.0f, 1.6f},   // a previous factor of 1 or more is forgotten
        {6, 3, 1.5f, 1.6f},  {6, 2, 0.9f, 1.12f},
        {6, 1, 1.0f, 0.9f},  {9, 0, 0.6f, 0.6f},  // clamped below
        {9, 12, 1.0f, 2.0f},                      // clamped above
    };
    for (auto [depth, instability, previous, expected] : cases)
        EXPECT_FLOAT_EQ(nextIterationFactor(depth, instability, previous), expected)
            << depth << " " << instability;
    engineStruct e;
    e.startTimeMs = nowMs() - 1000;
    e.maxTime = 500;
    EXPECT_TRUE(hardTimeUp(e, false));
    EXPECT_FALSE(hardTimeUp(e, true));  // pondering
    e.infinite = true;
    EXPECT_FALSE(hardTimeUp(e, false));
    e.infinite = false;
    e.maxTime = 100000;
    EXPECT_FALSE(hardTimeUp(e, false));
}

}  // namespace
