// Perft speed: move generation, the legality filter and make/take-back together. The
// counters report nodes per second; tools/perft_vs_stockfish.sh sets them beside another
// engine's perft on the same machine.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "board/bitboards.h"
#include "board/perft.h"
#include "board/zobrist.h"

namespace {

void perftBench(benchmark::State& state, const char* fen, int depth) {
    initBitboardConstants();
    initHashCodeTables();
    auto pos = std::make_unique<positionStruct>();
    std::vector<moveStruct> buffer(MOVE_BUFFER);
    if (!setPosition(fen, pos.get())) {
        state.SkipWithError("unreadable FEN");
        return;
    }
    pos->bindMoveBuffer(buffer.data());
    u64 nodes = 0;
    for (auto _ : state) {
        nodes = perft(0, depth, pos.get());
        benchmark::DoNotOptimize(nodes);
    }
    state.counters["nodes"] = double(nodes);
    state.counters["nps"] =
        benchmark::Counter(double(nodes) * double(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK_CAPTURE(perftBench, startpos_d6,
                  "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1", 6)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(perftBench, kiwipete_d5,
                  "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1", 5)
    ->Unit(benchmark::kMillisecond);

}  // namespace
