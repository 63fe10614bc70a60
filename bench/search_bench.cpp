// Speed of the tree search: fixed-depth, single-threaded searches from cleared tables.
// One benchmark per position gives the time to depth; "SearchSuite" runs them all and
// its counters give the total node count (the search's signature at that depth) and the
// nodes per second. QUORVANE_SEARCH_BENCH_DEPTH overrides the depth (default 12).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "board/bitboards.h"
#include "board/zobrist.h"
#include "search/search.h"
#include "search/tt.h"

namespace {

// Openings, middlegames with tactics, and endgames of several kinds.
// clang-format off
const char* const positions[] = {
    // Start and the standard move-generator positions.
    "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
    "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
    "r3k2r/Pppp1ppp/1b3nbN/nP6/BBP1P3/q4N2/Pp1P2PP/R2Q1RK1 w kq - 0 1",
    "rnbq1k1r/pp1Pbppp/2p5/8/2B5/8/PPP1NnPP/RNBQK2R w KQ - 1 8",
    "r4rk1/1pp1qppp/p1np1n2/2b1p1B1/2B1P1b1/P1NP1N2/1PP1QPPP/R4RK1 w - - 0 10",
    // Book openings after eight moves each.
    "r1bq1rk1/pp2ppb1/2np1npp/2p3N1/4P3/2NP2P1/PPP2PBP/R1BQ1RK1 w - - 0 9",
    "r2qk2r/pp1bnppp/2n1p3/2ppP3/3P4/P1P2N2/2P1BPPP/R1BQK2R w KQkq - 5 9",
    "r1bqk2r/ppp3bp/2np1np1/5p2/1PP1p3/2N2NP1/P2PPPBP/1RBQ1RK1 w kq - 0 9",
    "rn1qkb1r/pp3ppp/1n1pp3/5b2/2PP4/5N1P/PP1N1PP1/R1BQKB1R w KQkq - 1 9",
    "r2qk2r/ppp1bppp/n3pn2/3p1b2/3P4/2P2NP1/PP2PPBP/RNBQ1RK1 w kq - 3 9",
    "r1bq1rk1/pp2ppbp/2n2np1/3p4/2Pp4/2N1PN1P/PP2BPP1/R1BQ1RK1 w - - 0 9",
    "r1bq1rk1/ppp2ppp/2nbpn2/8/Q1pP4/5NP1/PP1BPPBP/RN3RK1 w - - 8 9",
    "r1bqk2r/1p1nppb1/p2p1np1/2p4p/2PPP2P/2N3N1/PP2BPP1/R1BQK2R w KQkq - 0 9",
    "r1bqk2r/p3bppp/2pp1n2/4p1B1/2B1P3/2N5/PPP2PPP/R2QK2R w KQkq - 4 9",
    "r2qkbnr/pp3ppp/2n1p3/4Pb2/2pp4/4BN2/PP2BPPP/RN1Q1RK1 w kq - 0 9",
    "rnbq1rk1/pp1pnpb1/6p1/2p1p1B1/4P1pP/2NP4/PPP2PB1/R2QK1NR w KQ - 0 9",
    // Tactical middlegames.
    "2rr3k/pp3pp1/1nnqbN1p/3pN3/2pP4/2P3Q1/PPB4P/R4RK1 w - - 0 1",
    "2br2k1/2q3rn/p2NppQ1/2p1P3/Pp5R/4P3/1P3PPP/3R2K1 w - - 0 1",
    "k4r2/1R4pb/1pQp1n1p/3P4/5p1P/3P2P1/r1q1R2K/8 w - - 0 1",
    "r3r1k1/5p2/pQ1b2pB/1p6/4p3/6P1/Pq2BP1P/2R3K1 b - - 0 1",
    "2rqrn1k/pb4pp/1p2pp2/n2P4/2P3N1/P2B2Q1/1B3PPP/2R1R1K1 w - - 0 1",
    "1b5k/7P/p1p2np1/2P2p2/PP3P2/4RQ1R/q2r3P/6K1 w - - 0 1",
    // Endgames: rooks, minor pieces, pawns, a queen.
    "8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1",
    "2r3k1/5ppp/p7/1p6/1P1R4/P4P2/5KPP/8 w - - 0 30",
    "8/5pk1/6p1/7p/7P/6P1/5PK1/8 w - - 0 40",
    "8/k1b5/P4p2/1Pp2p1p/K1P2P1P/8/3B4/8 w - - 0 1",
    "8/8/1p1r1k2/p1pPN1p1/P3KnP1/1P6/8/3R4 b - - 0 1",
    "6k1/6p1/6Pp/ppp5/3pn2P/1P3K2/1PP2P2/3N4 b - - 0 1",
    "8/6k1/5pp1/Q6p/5P2/6PK/P4q1P/8 b - - 0 1",
    "1R6/4k3/8/4K3/4P3/8/8/5r2 w - - 0 1",
};
// clang-format on

int benchDepth() {
    const char* env = std::getenv("QUORVANE_SEARCH_BENCH_DEPTH");
    int d = env ? std::atoi(env) : 12;
    return d >= 1 && d <= MAX_PLY ? d : 12;
}

// One searcher with its own tables; the tables are set up once, outside the timing.
struct searcher {
    std::unique_ptr<positionStruct> pos = std::make_unique<positionStruct>();
    std::unique_ptr<searchTablesStruct> tables = std::make_unique<searchTablesStruct>();

    searcher() {
        initBitboardConstants();
        initHashCodeTables();
        if (!hashTable)
            resizeHashTable(hashBucketsForMB(16), 1);
    }
    // Searches fen to depth from cleared tables; returns the nodes.
    u64 run(const char* fen, int depth) {
        setPosition(fen, pos.get());
        tables->clearAll();
        clearHashTableMT(1);
        tables->bind(pos.get());
        return searchFixedDepth(pos.get(), depth).nodes;
    }
};

searcher& theSearcher() {
    static searcher s;
    return s;
}

void searchOne(benchmark::State& state, const char* fen) {
    searcher& s = theSearcher();
    const int depth = benchDepth();
    u64 nodes = 0;
    for (auto _ : state)
        nodes = s.run(fen, depth);
    state.counters["depth"] = depth;
    state.counters["nodes"] = double(nodes);
    state.counters["nps"] = benchmark::Counter(double(nodes) * double(state.iterations()),
                                               benchmark::Counter::kIsRate);
}

void searchSuite(benchmark::State& state) {
    searcher& s = theSearcher();
    const int depth = benchDepth();
    u64 nodes = 0;
    for (auto _ : state) {
        nodes = 0;
        for (const char* fen : positions)
            nodes += s.run(fen, depth);
    }
    state.counters["depth"] = depth;
    state.counters["positions"] = double(std::size(positions));
    state.counters["nodes"] = double(nodes);
    state.counters["nps"] = benchmark::Counter(double(nodes) * double(state.iterations()),
                                               benchmark::Counter::kIsRate);
}

const bool registered = [] {
    benchmark::RegisterBenchmark("SearchSuite", searchSuite)->Unit(benchmark::kMillisecond)->Iterations(1);
    for (size_t i = 0; i < std::size(positions); i++)
        benchmark::RegisterBenchmark(("SearchDepth/" + std::to_string(i)).c_str(), searchOne, positions[i])
            ->Unit(benchmark::kMillisecond)
            ->Iterations(1);
    return true;
}();

}  // namespace
