// The time budget: the worked clock situations, the once-per-game usage factor, the
// safety of the hard limit over a grid of clocks, and the iteration factor.
#include <gtest/gtest.h>

#include "engine/timeman.h"

namespace {

// A fresh record as "go" leaves it for White: defaults of the command loop.
engineStruct clock(int timeLeft, int inc, int gamePly, bool newGame) {
    engineStruct e;
    e.timeLeft[WHITE] = timeLeft;
    e.increment[WHITE] = inc;
    e.timeLeft[BLACK] = 1;       // the other side's clock must not matter
    e.increment[BLACK] = 99999;
    e.gamePly = gamePly;
    e.newGame = newGame;
    e.movesToGo = 30;
    return e;
}

TEST(TimeBudget, GoAloneAtTheStartOfAGame) {
    engineStruct e = clock(900000, 0, 0, true);
    computeTimeBudget(e, WHITE);
    EXPECT_FLOAT_EQ(e.usageFactor, 1.75f);
    EXPECT_FALSE(e.newGame);
    EXPECT_EQ(e.movesToGo, 40);
    EXPECT_EQ(e.targetTime, 14850);
    EXPECT_EQ(e.maxTime, 74250);
    EXPECT_EQ(e.timeScale, 1.0f);
}

TEST(TimeBudget, ShortClockWithIncrementHalvesTheBudget) {
    engineStruct e = clock(1000, 1000, 30, true);
    computeTimeBudget(e, WHITE);
    EXPECT_FLOAT_EQ(e.usageFactor, 1.37f);
    EXPECT_EQ(e.movesToGo, 22);
    EXPECT_EQ(e.timeScale, 5.0f);
    EXPECT_EQ(e.targetTime, 449);
    EXPECT_EQ(e.maxTime, 450);
}

TEST(TimeBudget, LaterMoveKeepsTheFactorOfTheFirst) {
    engineStruct e = clock(900000, 0, 0, true);
    computeTimeBudget(e, WHITE);
    // Later in the same game: 60 s, no increment, at ply 30.
    e.timeLeft[WHITE] = 60000;
    e.gamePly = 30;
    computeTimeBudget(e, WHITE);
    EXPECT_FLOAT_EQ(e.usageFactor, 1.75f);
    EXPECT_EQ(e.targetTime, 1799);
    EXPECT_EQ(e.maxTime, 8995);

    // A big increment later in the game does not change the factor either.
    e.increment[WHITE] = 50000;
    computeTimeBudget(e, WHITE);
    EXPECT_FLOAT_EQ(e.usageFactor, 1.75f);
}

TEST(TimeBudget, MoveTimeOverridesBoth) {
    engineStruct e = clock(900000, 0, 0, true);
    e.moveTime = 500;
    computeTimeBudget(e, WHITE);
    EXPECT_EQ(e.targetTime, 5000);
    EXPECT_EQ(e.maxTime, 500);
}

TEST(TimeBudget, LastMoveBeforeTheTimeControl) {
    engineStruct e = clock(10000, 0, 30, false);
    e.movesToGo = 1;
    e.movesToGoGiven = true;
    computeTimeBudget(e, WHITE);
    EXPECT_EQ(e.targetTime, 8030);
    EXPECT_EQ(e.maxTime, 9900);
    EXPECT_EQ(e.movesToGo, 1);
}

TEST(TimeBudget, FourMovesToGoNeverCapsBelowForty) {
    for (int t = 120; t <= 400; t += 7) {
        engineStruct e = clock(t, 0, 60, false);
        e.movesToGo = 4;
        e.movesToGoGiven = true;
        computeTimeBudget(e, WHITE);
        int usable = t - e.moveOverhead;
        EXPECT_GE(e.maxTime, std::min(40, usable)) << t;
    }
    // Exactly four: three moves to go gets no such floor.
    engineStruct e = clock(150, 0, 60, false);
    e.movesToGo = 3;
    e.movesToGoGiven = true;
    computeTimeBudget(e, WHITE);
    EXPECT_LT(e.maxTime, 40);
}

TEST(TimeBudget, UnknownGamePlyAssumesThirtyMovesAndMoreShare) {
    engineStruct known = clock(100000, 0, 60, false), unknown = clock(100000, 0, 1024, false);
    known.usageFactor = unknown.usageFactor = 1.5f;
    computeTimeBudget(known, WHITE);
    computeTimeBudget(unknown, WHITE);
    EXPECT_EQ(unknown.movesToGo, 30);
    // 0.66 * 1.4 of 100000 / 30 against 0.66 of 100000 / 25.
    EXPECT_EQ(unknown.targetTime, 3079);
    EXPECT_EQ(known.targetTime, 2640);
}

TEST(TimeBudget, UsesTheClockOfTheSideToMove) {
    engineStruct e = clock(900000, 0, 0, true);
    e.timeLeft[BLACK] = 60000;
    e.increment[BLACK] = 0;
    computeTimeBudget(e, BLACK);
    EXPECT_LT(e.maxTime, 60000 - e.moveOverhead);
    EXPECT_LT(e.targetTime, 2000);
}

// Over a grid of clocks, increments, horizons and plies the hard limit stays within the
// time left less the overhead (at least 1 ms), and the target is positive.
TEST(TimeBudget, HardLimitNeverExceedsTheClock) {
    const int times[] = {150, 500, 1000, 3000, 10000, 60000, 300000, 5400000};
    const int incs[] = {0, 10, 100, 1000, 5000, 30000};
    const int plies[] = {0, 17, 18, 50, 51, 80, 81, 200, 201, 400, 1024};
    const int togo[] = {0, 1, 2, 4, 10, 40};
    for (int t : times)
        for (int inc : incs)
            for (int ply : plies)
                for (int mtg : togo)
                    for (int threads : {1, 8}) {
                        engineStruct e = clock(t, inc, ply, true);
                        e.nofThreads = threads;
                        e.ponderOption = threads > 1;
                        if (mtg) {
                            e.movesToGo = mtg;
                            e.movesToGoGiven = true;
                        }
                        computeTimeBudget(e, WHITE);
                        const i64 usable = t - e.moveOverhead;
                        EXPECT_LE(e.maxTime, std::max<i64>(usable, 1))
                            << t << " " << inc << " " << ply << " " << mtg << " " << threads;
                        EXPECT_GE(e.maxTime, 1);
                        EXPECT_GE(e.targetTime, 0);
                        EXPECT_TRUE(e.timeScale == 1.0f || e.timeScale == 5.0f);
                    }
}

TEST(TimeBudget, NonsenseMovesToGoDoesNotDivideByZero) {
    engineStruct e = clock(10000, 0, 30, false);
    e.movesToGo = 0;
    e.movesToGoGiven = true;
    computeTimeBudget(e, WHITE);
    EXPECT_GE(e.maxTime, 1);
    EXPECT_LE(e.maxTime, 9900);
}

TEST(StopRules, IterationFactor) {
    EXPECT_FLOAT_EQ(nextIterationFactor(5, 10, 1.7f), 1.0f);   // below depth 6
    EXPECT_FLOAT_EQ(nextIterationFactor(6, 3, 1.0f), 1.6f);    // previous forgotten at >= 1
    EXPECT_FLOAT_EQ(nextIterationFactor(6, 3, 1.5f), 1.6f);
    EXPECT_FLOAT_EQ(nextIterationFactor(6, 2, 0.9f), 0.4f + 0.72f);
    EXPECT_FLOAT_EQ(nextIterationFactor(6, 1, 1.0f), 0.9f);
    EXPECT_FLOAT_EQ(nextIterationFactor(9, 0, 0.6f), 0.6f);     // clamped below
    EXPECT_FLOAT_EQ(nextIterationFactor(9, 12, 1.0f), 2.0f);    // clamped above
}

TEST(StopRules, HardLimitIsSuspendedByPonderAndInfinite) {
    engineStruct e;
    e.startTimeMs = nowMs() - 1000;
    e.maxTime = 500;
    EXPECT_TRUE(hardTimeUp(e, false));
    EXPECT_FALSE(hardTimeUp(e, true));
    e.infinite = true;
    EXPECT_FALSE(hardTimeUp(e, false));
    e.infinite = false;
    e.maxTime = 100000;
    EXPECT_FALSE(hardTimeUp(e, false));
}

}  // namespace
