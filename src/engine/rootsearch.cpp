// Iterative deepening at the root, the end-of-search decisions and all search output.
#include <algorithm>
#include <chrono>
#include <string>

#include "board/makemove.h"
#include "board/movegen.h"
#include "board/output.h"
#include "engine/engine.h"
#include "engine/timeman.h"
#include "engine/workforce.h"
#include "search/searchparams.h"
#include "search/tt.h"
#include "tablebase/tbprobe.h"

namespace {

constexpr int RELAXED_REPORT_MS = 100;

bool isMateInReach(int s, int d) {
    return (s >= MATE_BAND && MATE - s <= d) || (s <= -MATE_BAND && s + MATE <= d);
}

// Score text: mate scores as "mate m" count moves, rounded alike for both signs.
int mateMoves(int s) { return (s > 0 ? 1 : -1) * ((MATE - std::abs(s)) / 2 + 1); }

void printProgress(positionStruct* pos, int score, int depth) {
    i64 t = std::max<i64>(engine.elapsedMs, 1);
    u64 nodes = theWorkForce.totalNodes();
    printLine("info score cp " + std::to_string(score) + " depth " + std::to_string(depth) + " seldepth "
              + std::to_string(pos->selDepth) + " nodes " + std::to_string(nodes) + " nps "
              + std::to_string(nodes * 1000 / u64(t)) + " time " + std::to_string(t) + " tbhits "
              + std::to_string(theWorkForce.totalTbHits()) + " pv " + PVToString(pos));
}

void printMate(positionStruct* pos, int score, int depth) {
    i64 t = std::max<i64>(engine.elapsedMs, 1);
    u64 nodes = theWorkForce.totalNodes();
    printLine("info score mate " + std::to_string(mateMoves(score)) + " depth " + std::to_string(depth) + " nodes "
              + std::to_string(nodes) + " nps " + std::to_string(nodes * 1000 / u64(t)) + " time "
              + std::to_string(t) + " tbhits " + std::to_string(theWorkForce.totalTbHits()) + " pv "
              + PVToString(pos));
}

// The line to report: the table's line when it starts with the thread's best move,
// otherwise the best move alone.
void rootLine(positionStruct* pos, int depth) {
    getPVFromHashTable(pos, depth);
    moveStruct best = pos->plyStack[0].bestMove;
    if (best.empty())
        return;
    if (!pos->plyStack[0].currentMove.sameAs(best) || pos->pvLength == 0) {
        pos->plyStack[0].currentMove = best;
        pos->pvLength = 0;
    }
}

}  // namespace

void getPVFromHashTable(positionStruct* pos, int depth) {
    pos->pvLength = 0;
    if (depth < 1)
        return;
    int k = 0;
    for (; k < depth && k < MAX_PLY; k++) {
        u64 data = probeHash(pos->hashKey);
        moveStruct m = moveStruct::unpack(hashMove(data));
        if (!data || hashBound(data) != BOUND_EXACT || m.empty() || pos->board[m.from] != m.score)
            break;
        // Only a move of the legal list is played, so the line is always legal.
        plyStruct& ps = pos->plyStack[k];
        setInCheck(u8(k), pos);
        generateMovesLegal(u8(k), ps.moveListBegin, pos);
        moveStruct* found = std::find_if(ps.moveListBegin, ps.moveListEnd,
                                         [&](const moveStruct& x) { return x.sameAs(m); });
        if (found == ps.moveListEnd)
            break;
        m.score = 0;
        ps.currentMove = m;
        pos->pvLength = u8(k);
        makeMove(pos, k, m);
    }
    while (k-- > 0)
        takeBack(pos, k, pos->plyStack[k].currentMove);
}

void worker::searchRoot() {
    positionStruct* p = posPtr;
    const bool isBoss = index == 0;
    workForce& wf = theWorkForce;
    p->nodeCheckCountdown = engine.nodeCheckInterval;
    const i64 reportAfter = engine.targetTime < 1600 ? RELAXED_REPORT_MS : engine.targetTime / 16;
    const i16* asp = aspMatrix[index % 32];
    wf.searchFinished = false;

    plyStruct& root = p->plyStack[0];
    setInCheck(0, p);
    generateMovesLegal(0, root.moveListBegin, p);
    const int legalMoves = int(root.moveListEnd - root.moveListBegin);
    root.bestMove = legalMoves ? root.moveListBegin[0] : EMPTYMOVE;
    root.bestMove.score = root.bestMove.empty() ? 0 : p->board[root.bestMove.from];
    root.currentMove = root.bestMove;
    p->rootDepthComplete = 1;
    p->rootDepth = 0;
    p->rootScore = -INF_SCORE;
    i64 elapsed = 0;

    if (isBoss) {
        if (root.inCheck && legalMoves == 0) {
            searchSignals.stopSearch = true;
            printLine("info score mate 0");
            root.currentMove = root.bestMove = EMPTYMOVE;
            p->pvLength = 0;
            engine.elapsedMs = 1;
            return;
        }
        if (TB_LARGEST > 0 && root.castlingRights == 0 && popCount(p->occupied()) <= TB_LARGEST) {
            moveStruct m = syzygyProbeDTZ(0, p);
            if (!m.empty()) {
                searchSignals.stopSearch = true;
                m.score = p->board[m.from];
                root.currentMove = root.bestMove = m;
                p->pvLength = 0;
                engine.elapsedMs = 1;
                p->rootDepthComplete = 1;
                p->rootDepth = MAX_PLY;
                return;
            }
        }
    }

    const int depthCap = legalMoves == 1 ? 3 : engine.depthLimit;
    const int crowd = engine.nofThreads / 2 + (engine.nofThreads >= 4 ? 1 : 0);
    float factor = 1.0f;
    int alpha = -INF_SCORE, beta = INF_SCORE;
    int prevScore = -INF_SCORE, s = -INF_SCORE;
    bool keepGoing = true;
    int d = 0;

    for (;;) {
        d++;
        // Helpers skip depths so that the threads spread over several of them.
        if (!isBoss) {
            int i = index % 16;
            bool crowdTest = true;
            if ((i + d) % skipSize[i] == 0) {
                d += skipPhase[i];
                if (d > 126)
                    d = MAX_PLY;
            }
            if (d < 10 && d <= 126)
                crowdTest = false;
            if (crowdTest) {
                int busyOthers = 0;
                for (auto& w : wf.workers)
                    if (w.get() != this && w->currentDepth.load(std::memory_order_relaxed) >= d
                        && ++busyOthers >= crowd)
                        break;
                if (busyOthers >= crowd) {
                    if (!keepGoing || d > 126 || searchStopped())
                        break;
                    continue;
                }
            }
        }

        currentDepth = d;
        if (d >= 6) {
            alpha = std::max(prevScore - asp[0], -INF_SCORE);
            beta = std::min(prevScore + asp[0], INF_SCORE);
        }
        p->bestMoveChanges = 0;
        int failLows = 0, failHighs = 0, reduction = 0;
        bool completed = false;
        s = prevScore;
        while (!searchStopped()) {
            p->searchDepth = u64(std::max(1, d - reduction));
            int v = alfabeta(0, int(p->searchDepth), i16(alpha), i16(beta), p);
            if (searchStopped())
                break;
            if (v <= alpha) {
                failLows++;
                beta = (alpha + beta) / 2;
                alpha = failLows <= 4 ? v - asp[failLows] : -MATE;
                reduction = 0;
            } else if (v < beta) {
                s = v;
                completed = true;
                break;
            } else {
                failHighs++;
                reduction++;   // the re-search is one ply shallower per fail high
                beta = failHighs <= 4 ? v + asp[failHighs] : MATE;
            }
            if (isBoss && depthCap == 0 && failLows == 0 && !engine.infinite
                && !searchSignals.pondering.load(std::memory_order_relaxed)) {
                engine.elapsedMs = nowMs() - engine.startTimeMs;
                if (double(engine.elapsedMs) > double(engine.targetTime) * factor) {
                    searchSignals.stopSearch = true;
                    break;
                }
            }
        }

        if (completed) {
            p->rootScore = i16(s);
            if (isBoss && d >= 10)
                storeHash(p->hashKey, root.bestMove.packed(), scoreToHash(s, 0), d, BOUND_EXACT);
            p->rootDepthComplete = 1;
            p->rootDepth = u16(d);
        } else
            s = prevScore;

        int instability = p->bestMoveChanges
                        + ((failLows > 1 || failHighs >= 2) ? std::max(failLows - 1, failHighs - 1) : 0);
        elapsed = nowMs() - engine.startTimeMs;
        if (isBoss)
            engine.elapsedMs = elapsed;

        if (isBoss) {
            if (d >= 10) {
                rootLine(p, d);
                if (!searchStopped() && p->pvLength > 0) {
                    static_cast<boss*>(this)->ponderPair[0] = p->plyStack[0].currentMove;
                    static_cast<boss*>(this)->ponderPair[1] = p->plyStack[1].currentMove;
                }
                printProgress(p, s, d);
            }
            if (!searchStopped() && isMateInReach(s, d)) {
                if (d < 10) {
                    p->plyStack[0].currentMove = root.bestMove;  // the line is the move alone
                    p->pvLength = 0;
                }
                printMate(p, s, d);
                if (!searchSignals.pondering.load(std::memory_order_relaxed) && !engine.infinite)
                    break;
            }
        }

        // End-of-iteration decision; the first thread to finish a depth may end the search.
        bool firstAtDepth = false;
        int deepest = wf.deepestReported.load(std::memory_order_relaxed);
        if (elapsed > reportAfter && deepest < d
            && wf.deepestReported.compare_exchange_strong(deepest, d, std::memory_order_relaxed))
            firstAtDepth = true;
        factor = nextIterationFactor(d, instability, factor);
        if (isBoss || firstAtDepth) {
            if (depthCap == 0) {
                if (float(elapsed) * engine.timeScale > float(engine.targetTime) * factor)
                    wf.searchFinished = true;
                keepGoing = searchSignals.pondering.load(std::memory_order_relaxed) || !wf.searchFinished;
            } else if (d >= depthCap)
                keepGoing = false;
            if (engine.infinite)
                keepGoing = true;
        }
        if (!keepGoing || d > 126 || searchStopped())
            break;
        prevScore = s;
    }

    if (isBoss)
        engine.elapsedMs = nowMs() - engine.startTimeMs;
    if (!keepGoing)
        searchSignals.stopSearch = true;
}

void boss::searchRoot() {
    workForce& wf = theWorkForce;
    ponderPair[0] = ponderPair[1] = EMPTYMOVE;
    for (size_t i = 1; i < wf.workers.size(); i++)
        wf.workers[i]->wake();
    worker::searchRoot();
    wf.searchFinished = true;
    // A search that ended by itself while pondering or analysing holds its answer.
    while (!searchStopped() && (engine.infinite || searchSignals.pondering.load(std::memory_order_relaxed)))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    searchSignals.stopSearch = true;
    for (size_t i = 1; i < wf.workers.size(); i++)
        wf.workers[i]->waitIdle();

    // Choose the reported thread: deeper (completed before partial) wins, mates by score.
    worker* chosen = this;
    if (engine.nofThreads > 1 && engine.depthLimit == 0) {
        int bestKey = 2 * pos.rootDepth + pos.rootDepthComplete;
        for (auto& w : wf.workers) {
            const positionStruct& q = w->pos;
            int key = 2 * q.rootDepth + q.rootDepthComplete;
            if (key == bestKey || q.rootScore >= MATE_BAND) {
                if (q.rootScore > chosen->pos.rootScore) {
                    chosen = w.get();
                    bestKey = key;
                }
            } else if (key > bestKey) {
                chosen = w.get();
                bestKey = key;
            }
        }
    }

    positionStruct* p = chosen->posPtr;
    if (chosen != this) {
        rootLine(p, p->rootDepth);
        printProgress(p, p->rootScore, p->rootDepth);
    }

    moveStruct best = p->plyStack[0].currentMove;
    if (!p->plyStack[0].bestMove.empty() && !best.sameAs(p->plyStack[0].bestMove)) {
        best = p->plyStack[0].bestMove;
        p->pvLength = 0;
    }
    moveStruct reply = EMPTYMOVE;
    if (p->pvLength > 0)
        reply = p->plyStack[1].currentMove;
    else if (ponderPair[0].sameAs(best))
        reply = ponderPair[1];
    std::string line = "bestmove " + moveToLA(&best, p->sideToMove);
    if (!reply.empty())
        line += " ponder " + moveToLA(&reply, p->sideToMove ^ 1);
    printLine(line);
}
