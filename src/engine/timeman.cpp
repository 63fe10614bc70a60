#include "engine/timeman.h"

#include <algorithm>

namespace {

// Base share of the per-move time, by whether more than three threads search: the
// extra threads reach a given depth sooner, so each move may use a little more.
constexpr double BASE_NO_MOVES_TO_GO[2] = {0.66, 0.72};
constexpr double BASE_MOVES_TO_GO[2] = {0.73, 0.8};
constexpr double UNKNOWN_PLY_BONUS = 1.4;     // position given by FEN: no game history
constexpr double OPENING_MOVES_TO_GO = 0.9;   // gamePly < 18 with "movestogo"
constexpr double MIDGAME_MOVES_TO_GO = 1.1;   // 18 <= gamePly < 51 with "movestogo"
constexpr double PONDER_BONUS = 1.1;          // pondering recovers time on the opponent's clock
constexpr int UNKNOWN_GAME_PLY = 1024;
constexpr int SHORT_CLOCK_RATIO = 3;          // usable / target at or below this: hurry
constexpr float SHORT_CLOCK_SCALE = 5.0f;
constexpr int LAST_MOVES_FLOOR = 40;          // cap floor with exactly four moves to go

// Moves the budget assumes are left when the GUI does not say, by game ply.
int assumedMovesToGo(int gamePly) {
    return gamePly == UNKNOWN_GAME_PLY ? 30
         : gamePly < 18                ? 40
         : gamePly < 51                ? 22
         : gamePly < 81                ? 25
         : gamePly < 201               ? 20
                                       : 15;
}

}  // namespace

void computeTimeBudget(engineStruct& e, int side) {
    const bool threadsBonus = e.nofThreads > 3;
    const i64 timeLeft = e.timeLeft[side];
    const i64 inc = e.increment[side];
    double b;
    double capShare = 0.5;
    int n;

    if (!e.movesToGoGiven) {
        b = BASE_NO_MOVES_TO_GO[threadsBonus];
        n = assumedMovesToGo(e.gamePly);
        if (e.gamePly == UNKNOWN_GAME_PLY)
            b *= UNKNOWN_PLY_BONUS;
        e.movesToGo = n;
    } else {
        // A count below 1 cannot be meant; the last move before the time control it is.
        n = std::max(e.movesToGo, 1);
        b = BASE_MOVES_TO_GO[threadsBonus];
        if (e.gamePly < 18)
            b *= OPENING_MOVES_TO_GO;
        else if (e.gamePly < 51)
            b *= MIDGAME_MOVES_TO_GO;
        if (n == 1)
            capShare = 0.9;
    }

    // Once per game: how much of the increment-free horizon we dare to spend. A game
    // with a large increment relative to the clock can afford fewer assumed moves.
    if (e.newGame) {
        i64 r = std::clamp<i64>(timeLeft / std::max<i64>(inc, 1), 100, 360);
        float slope = float(r - 100) * 0.0014615385f;
        e.usageFactor = float(double(slope) + 1.37);
        e.newGame = false;
    }
    if (e.ponderOption)
        b *= PONDER_BONUS;
    e.timeScale = 1.0f;

    float m = float(n);
    if (!e.movesToGoGiven)
        m *= e.usageFactor;
    const i64 k = i64(m);
    const i64 total = (k - 1) * inc + timeLeft;
    const i64 usable = timeLeft - e.moveOverhead;

    i64 target = i64(std::max(1.0, b * double(total / n)));
    i64 cap = n == 1 ? total - e.moveOverhead
                     : i64(std::min(capShare * double(usable), 5.0 * double(target)));

    if (!e.movesToGoGiven) {
        if (usable / target <= SHORT_CLOCK_RATIO) {
            e.timeScale = SHORT_CLOCK_SCALE;
            target /= 2;
            cap /= 2;
        }
    } else if (n == 4 && cap < LAST_MOVES_FLOOR) {
        cap = LAST_MOVES_FLOOR;  // deliberately only for exactly four moves to go
    }

    if (e.moveTime > 0) {
        // The overhead is deliberately not subtracted, and the soft tests cannot fire first.
        e.targetTime = 10 * i64(e.moveTime);
        e.maxTime = e.moveTime;
        return;
    }
    e.targetTime = target;
    e.maxTime = std::max(target + 1, std::min(cap, usable));
    // The formula alone can exceed the clock when the increment dwarfs the time left;
    // never plan past the remaining time less the overhead.
    e.maxTime = std::min(e.maxTime, std::max<i64>(usable, 1));
}

float nextIterationFactor(int depth, int instability, float previous) {
    if (depth < 6)
        return 1.0f;
    float f;
    if (instability > 1)  // deliberately forgets a previous factor of 1 or more
        f = 0.2f * float(instability) + (previous >= 1.0f ? 1.0f : 0.8f * previous);
    else
        f = 0.9f * previous;
    return std::clamp(f, 0.6f, 2.0f);
}
