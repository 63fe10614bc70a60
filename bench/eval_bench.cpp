// Evaluations per second over a fixed set of positions: without caches, with the pawn
// cache only (what a search mostly sees: pawn skeletons repeat, positions less so), and
// with both caches (every call after the first pass answered by the evaluation cache).
#include <benchmark/benchmark.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "board/bitboards.h"
#include "board/zobrist.h"
#include "eval/evaluate.h"

namespace {

// 1000 opening positions and 1000 positions from the labelled games (all phases), or a
// handful of built-in ones when the shared data is missing.
std::vector<positionStruct>& benchPositions() {
    static std::vector<positionStruct> positions = [] {
        initBitboardConstants();
        initHashCodeTables();
        std::vector<std::string> fens;
        for (const char* file : {"/openings/openings.epd", "/tuning/selfplay-labeled.epd"}) {
            std::ifstream in(std::string(QUORVANE_DATA_DIR) + file);
            int taken = 0;
            for (std::string line; taken < 1000 && std::getline(in, line); taken++)
                fens.push_back(line.substr(0, line.find(" c9")));
        }
        if (fens.empty())
            fens = {"rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
                    "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
                    "8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1",
                    "r1bq1rk1/pp3ppp/2n1pn2/2bp4/2P5/2N1PN2/PPQ1BPPP/R1B2RK1 b - - 0 9"};
        std::vector<positionStruct> out;
        out.reserve(fens.size());
        for (const auto& fen : fens) {
            out.emplace_back();
            if (!setPosition(fen, &out.back()))
                out.pop_back();
        }
        return out;
    }();
    return positions;
}

void runEvaluations(benchmark::State& state, bool evalCache, bool pawnCache) {
    auto& positions = benchPositions();
    auto ec = std::make_unique<evalCacheEntry[]>(EVAL_CACHE_SIZE);
    auto pc = std::make_unique<pawnCacheEntry[]>(PAWN_CACHE_SIZE);
    for (auto& pos : positions) {
        pos.evalCache = evalCache ? ec.get() : nullptr;
        pos.pawnCache = pawnCache ? pc.get() : nullptr;
    }
    for (auto _ : state) {
        int sum = 0;
        for (auto& pos : positions)
            sum += evaluateN(0, &pos);
        benchmark::DoNotOptimize(sum);
    }
    for (auto& pos : positions)
        pos.evalCache = nullptr, pos.pawnCache = nullptr;
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(positions.size()));
}

void BM_EvaluateNoCaches(benchmark::State& state) {
    runEvaluations(state, false, false);
}
void BM_EvaluatePawnCache(benchmark::State& state) {
    runEvaluations(state, false, true);
}
void BM_EvaluateBothCaches(benchmark::State& state) {
    runEvaluations(state, true, true);
}

BENCHMARK(BM_EvaluateNoCaches);
BENCHMARK(BM_EvaluatePawnCache);
BENCHMARK(BM_EvaluateBothCaches);

}  // namespace

