#include "eval/evaluate.h"

#include "eval/weights.h"

// Material and piece-square sums blended by phase.
int evaluateN(int, positionStruct* pos) {
    i32 s = pos->material[WHITE] - pos->material[BLACK] + pos->psqScore[WHITE] - pos->psqScore[BLACK];
    int p = pos->phase < 499 ? 499 : pos->phase > 6232 ? 6232 : pos->phase;
    int v = (mgOf(s) * (p - 499) + egOf(s) * (6232 - p)) / 5733;
    return pos->sideToMove == WHITE ? v : -v;
}
