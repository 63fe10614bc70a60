// WDL probes per second on the positions of the probe oracle: cold (tables registered
// afresh, so every file is mapped and set up again) and warm (everything loaded).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "board/bitboards.h"
#include "board/zobrist.h"
#include "tablebase/tbprobe.h"

namespace {

const std::string TABLES = std::string(QUORVANE_DATA_DIR) + "/syzygy";

std::vector<tb_pos> loadPositions() {
    initBitboardConstants();
    initHashCodeTables();
    std::vector<tb_pos> positions;
    std::ifstream in(std::string(QUORVANE_DATA_DIR) + "/syzygy_cases.tsv");
    auto pos = std::make_unique<positionStruct>();
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        tb_pos p;
        std::string fen = line.substr(0, line.find('\t'));
        if (setPosition(fen, pos.get()) && tb_pos_from_position(pos.get(), &p))
            positions.push_back(p);
    }
    return positions;
}

const std::vector<tb_pos>& positions() {
    static const std::vector<tb_pos> all = loadPositions();
    return all;
}

// Registration prints one line per call; keep the benchmark output readable.
void initSilently(const std::string& path) {
    std::fflush(stdout);
    int saved = ::dup(1), devNull = ::open("/dev/null", O_WRONLY);
    ::dup2(devNull, 1);
    init_tablebases(path);
    std::fflush(stdout);
    ::dup2(saved, 1);
    ::close(devNull);
    ::close(saved);
}

int probeAll() {
    int sum = 0, ok;
    for (const tb_pos& p : positions())
        sum += probe_wdl(p, &ok) + 3 * ok;
    return sum;
}

void BM_WdlProbeCold(benchmark::State& state) {
    if (positions().empty()) {
        state.SkipWithError("test data missing");
        return;
    }
    for (auto _ : state) {
        state.PauseTiming();
        initSilently(TABLES);
        state.ResumeTiming();
        benchmark::DoNotOptimize(probeAll());
    }
    state.SetItemsProcessed(state.iterations() * i64(positions().size()));
}
BENCHMARK(BM_WdlProbeCold)->Unit(benchmark::kMillisecond);

void BM_WdlProbeWarm(benchmark::State& state) {
    if (positions().empty()) {
        state.SkipWithError("test data missing");
        return;
    }
    initSilently(TABLES);
    probeAll();
    for (auto _ : state)
        benchmark::DoNotOptimize(probeAll());
    state.SetItemsProcessed(state.iterations() * i64(positions().size()));
}
BENCHMARK(BM_WdlProbeWarm)->Unit(benchmark::kMillisecond);

}  // namespace

