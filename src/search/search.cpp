#include "search/search.h"

#include <cstring>

#include "board/movegen.h"
#include "search/searchlimits.h"

searchLimitsStruct searchLimits;
searchSignalsStruct searchSignals;

void searchTablesStruct::bind(positionStruct* pos) {
    pos->mainHistory = mainHistory;
    pos->counterMoves = counterMoves;
    pos->contHist[0] = contHist[0];
    pos->contHist[1] = contHist[1];
    pos->evalCache = evalCache;
    pos->pawnCache = pawnCache;
    pos->bindMoveBuffer(moveBuffer);
}

void searchTablesStruct::clearHistories() { std::memset(contHist, 0, sizeof contHist); }

void searchTablesStruct::clearAll() {
    clearHistories();
    std::memset(mainHistory, 0, sizeof mainHistory);
    std::memset(counterMoves, 0, sizeof counterMoves);
    std::memset(static_cast<void*>(evalCache), 0, sizeof evalCache);
    std::memset(static_cast<void*>(pawnCache), 0, sizeof pawnCache);
}

searchResultStruct searchFixedDepth(positionStruct* pos, int depth) {
    const bool wasInfinite = searchLimits.infinite;
    searchLimits.infinite = true;   // no clock
    searchSignals.stopSearch.store(false, std::memory_order_relaxed);

    pos->nodes = pos->qNodes = pos->tbHits = 0;
    pos->selDepth = 0;
    pos->nodeCheckCountdown = searchLimits.nodeCheckInterval;
    pos->rootScore = -INF_SCORE;
    pos->rootDepth = 0;
    pos->rootDepthComplete = 1;
    for (plyStruct& ps : pos->plyStack) {
        ps.killer1 = ps.killer2 = ps.bestMove = ps.currentMove = EMPTYMOVE;
        ps.nullMoveDisable = 0;
    }
    setInCheck(0, pos);

    searchResultStruct result;
    for (int d = 1; d <= depth; d++) {
        pos->bestMoveChanges = 0;
        pos->searchDepth = u64(d);
        const int score = alfabeta(0, d, -INF_SCORE, INF_SCORE, pos);
        if (searchSignals.stopSearch.load(std::memory_order_relaxed))
            break;
        result.score = score;
        result.depth = d;
        pos->rootScore = i16(score);
        pos->rootDepth = u16(d);
        pos->rootDepthComplete = 1;
    }
    result.bestMove = pos->plyStack[0].bestMove;
    result.nodes = pos->nodes + pos->qNodes;
    searchLimits.infinite = wasInfinite;
    return result;
}
