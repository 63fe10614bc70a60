// "bench": a fixed set of positions searched to a fixed depth with one thread and a
// cleared 16 MB table per position. Its node count is the engine's signature.
#include "engine/bench.h"

#include <memory>
#include <string>

#include "board/output.h"
#include "engine/engine.h"
#include "engine/workforce.h"
#include "search/tt.h"

namespace {

// clang-format off
const char* const benchPositions[] = {
    "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
    "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
    "8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1",
    "r3k2r/Pppp1ppp/1b3nbN/nP6/BBP1P3/q4N2/Pp1P2PP/R2Q1RK1 w kq - 0 1",
    "rnbq1k1r/pp1Pbppp/2p5/8/2B5/8/PPP1NnPP/RNBQK2R w KQ - 1 8",
    "r4rk1/1pp1qppp/p1np1n2/2b1p1B1/2B1P1b1/P1NP1N2/1PP1QPPP/R4RK1 w - - 0 10",
    "r1bqkb1r/pppp1ppp/2n2n2/4p3/2B1P3/5N2/PPPP1PPP/RNBQK2R w KQkq - 4 4",
    "r1bqk2r/2ppbppp/p1n2n2/1p2p3/4P3/1B3N2/PPPP1PPP/RNBQR1K1 b kq - 1 7",
    "rnbqkb1r/1p2pppp/p2p1n2/8/3NP3/2N5/PPP2PPP/R1BQKB1R w KQkq - 0 6",
    "rnbqk2r/ppp1ppbp/3p1np1/8/2PPP3/2N5/PP3PPP/R1BQKBNR w KQkq - 0 5",
    "rnbqkb1r/ppp2ppp/4pn2/3p2B1/2PP4/2N5/PP2PPPP/R2QKBNR b KQkq - 3 4",
    "r1bq1rk1/pp2bppp/2n1pn2/2pp4/3P4/2PBPN2/PP1N1PPP/R1BQ1RK1 w - - 2 8",
    "r2q1rk1/pb1nbppp/1p2pn2/2pp4/2PP4/1PN1PN2/PB2BPPP/R2Q1RK1 w - - 4 10",
    "2rq1rk1/pp1bppbp/3p1np1/4n3/3NP3/1BN1BP2/PPPQ2PP/2KR3R w - - 7 13",
    "r1b2rk1/2q1bppp/p2p1n2/np2p3/3PP3/5N1P/PPB2PP1/RNBQR1K1 w - - 1 13",
    "r2qr1k1/1b1nbppp/p2p1n2/1p2p3/3PP3/1BN2N1P/PP3PP1/R1BQR1K1 w - - 4 13",
    "r1bq1rk1/ppp1npbp/3p1np1/3Pp3/2P1P3/2N2N2/PP2BPPP/R1BQ1RK1 w - - 1 9",
    "2kr3r/pppq1ppp/2np1n2/2b1p1B1/2B1P1b1/2NP1N2/PPPQ1PPP/2KR3R w - - 6 9",
    "r4rk1/pp1n1ppp/2pbpn2/q7/2PP4/2N1PN2/PPQ2PPP/R1B2RK1 w - - 2 11",
    "3r1rk1/p4ppp/1pn1pn2/q1p5/2PP4/P1B1PN2/4QPPP/1R3RK1 w - - 0 17",
    "r1bqr1k1/pp1n1pbp/2pp1np1/4p3/2PPP3/2N1BP2/PP1QN1PP/R3KB1R w KQ - 2 9",
    "6k1/5ppp/p7/1p6/1P1r4/P4P2/5KPP/2R5 w - - 0 30",
    "8/5pk1/6p1/7p/7P/6P1/5PK1/8 w - - 0 40",
    "8/8/4k3/3p4/3P4/4K3/8/8 w - - 0 1",
    "8/8/8/4k3/8/8/3PK3/8 w - - 0 1",
    "1R6/4k3/8/4K3/4P3/8/8/5r2 w - - 0 1",
    "3k4/8/3K4/3P4/8/8/8/7r w - - 0 1",
    "8/3k4/8/2KB4/8/3N4/8/8 w - - 0 1",
    "6k1/6p1/6Pp/ppp5/3pn2P/1P3K2/1PP2P2/3N4 b - - 0 1",
    "3b4/5kp1/1p1p1p1p/pP1PpP1P/P1P1P3/3KN3/8/8 w - - 0 1",
    "8/8/1p1r1k2/p1pPN1p1/P3KnP1/1P6/8/3R4 b - - 0 1",
    "r1b1k2r/ppppnppp/2n2q2/2b5/3NP3/2P1B3/PP3PPP/RN1QKB1R w KQkq - 0 7",
    "r2qk2r/pp1nbppp/2p1pn2/5b2/2BP4/2N1PN2/PP3PPP/R1BQ1RK1 w kq - 2 9",
    "2r3k1/1q1nbppp/r3p3/3pP3/pPpP4/P1Q2N2/2RN1PPP/2R4K b - - 0 23",
    "r1bbk1nr/pp3p1p/2n5/1N4p1/2Np1B2/8/PPP2PPP/2KR1B1R w kq - 0 13",
    "4rrk1/pp1n3p/3q2pQ/2p1pb2/2PP4/2P3N1/P2B2PP/4RRK1 b - - 7 19",
    "r3r1k1/2p2ppp/p1p1bn2/8/1q2P3/2NPQN2/PPP3PP/R4RK1 b - - 2 15",
    "1r4k1/3R1ppp/8/8/8/8/5PPP/6K1 w - - 0 1",
    "6k1/5p2/6pp/8/8/1Q6/5PPP/6K1 b - - 0 1",
    "r3kb1r/3n1pp1/p6p/2pPp2q/Pp2N3/3B2PP/1PQ2P2/R3K2R w KQkq - 0 1",
};
// clang-format on

}  // namespace

benchResultStruct runBench(int depth, bool quiet) {
    // The signature needs one thread, fresh tables and a 16 MB transposition table.
    const int savedThreads = engine.nofThreads;
    if (theWorkForce.workers.size() != 1) {
        engine.nofThreads = 1;
        theWorkForce.setNofWorkers(1);
    }
    theWorkForce.waitSearchEnd();
    theWorkForce.workers[0]->tables.clearAll();
    resizeHashTable(hashBucketsForMB(16), 1);
    const engineStruct saved = engine;

    benchResultStruct result;
    i64 start = nowMs();
    auto pos = std::make_unique<positionStruct>();
    for (const char* fen : benchPositions) {
        setPosition(fen, pos.get());
        clearHashTableMT(1);
        engine.nofThreads = 1;
        engine.depthLimit = depth;
        engine.infinite = false;
        engine.moveTime = 0;
        engine.startTimeMs = nowMs();
        engine.targetTime = engine.maxTime = i64(1) << 40;
        engine.nodeCheckInterval = 4096;
        searchSignals.pondering = false;
        theWorkForce.startSearch(*pos);
        theWorkForce.waitSearchEnd();
        result.nodes += theWorkForce.totalNodes();
    }
    result.ms = std::max<i64>(nowMs() - start, 1);

    engine = saved;
    engine.nofThreads = savedThreads;
    if (savedThreads != 1)
        theWorkForce.setNofWorkers(savedThreads);
    setHashSizeNow(engine.hashSizeMB);
    if (!quiet) {
        const std::string nodes = std::to_string(result.nodes);
        const std::string nps = std::to_string(result.nodes * 1000 / u64(result.ms));
        printLine("Nodes searched: " + nodes);
        printLine("Nodes/second: " + nps);
        // Both again on one line in the form testing frameworks (OpenBench) look for.
        printLine(nodes + " nodes " + nps + " nps");
    }
    return result;
}
