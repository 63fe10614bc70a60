#include "uci/uci.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <sstream>
#include <vector>

#include "board/bitboards.h"
#include "board/makemove.h"
#include "board/movegen.h"
#include "board/perft.h"
#include "board/output.h"
#include "board/zobrist.h"
#include "engine/bench.h"
#include "engine/engine.h"
#include "engine/timeman.h"
#include "engine/workforce.h"
#include "eval/evaluate.h"
#include "platform/console.h"
#include "platform/platform.h"
#include "search/searchlimits.h"
#include "search/tt.h"
#include "tablebase/tbprobe.h"
#include "tuning/texel.h"

positionStruct GPSData;
moveStruct GMS[MOVE_BUFFER];

namespace {

std::mutex outputMutex;
int perftDepth = 6;

// The protocol's writer of every line, whichever thread or layer prints it: whole lines
// under a lock, flushed at once so that the GUI sees them without delay.
void writeProtocolText(const std::string& text) {
    std::lock_guard<std::mutex> lock(outputMutex);
    platform::writeOutput(text);
}

// The Hash option. The native engine and the node console offer 1 .. 262144 MB from 256
// (values above 32768 become 262144, and a table too large for memory is cut down with a
// note); the page's engine starts small and refuses what a wasm32 memory cannot hold.
struct hashOptionStruct {
    int defaultMB = 256;
    int maxMB = 262144;
    bool refuseAboveMax = false;
};
hashOptionStruct hashOption;
constexpr int BROWSER_HASH_MB = 32;
constexpr int BROWSER_HASH_MAX_MB = 2048;  // the largest power of two below 4 GB

// Settings that must not change under a running search take effect at the next "go"
// (or at once when no search runs), so the command loop never blocks on a search.
int pendingHashMB = 0;
bool pendingHistoryClear = false;
bool pendingTableClear = false;
int pendingProbeDepth = -1;
bool pendingSyzygyReload = false;   // engine.syzygyPath is loaded at the next "go"

const char* const ENGINE_NAME = "Quorvane 2.3";
const char* const ENGINE_SUFFIX = " NOP";

using tokens = std::istringstream;

// Reads a whole-token integer; false for text that is not a number. Values outside the
// int range are pinned to its ends so that the option clamping still applies.
bool readInt(const std::string& text, int& out) {
    if (text.empty())
        return false;
    size_t i = (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (i == text.size())
        return false;
    long long v = 0;
    for (; i < text.size(); i++) {
        if (text[i] < '0' || text[i] > '9')
            return false;
        if (v < 10000000000LL)
            v = v * 10 + (text[i] - '0');
    }
    if (text[0] == '-')
        v = -v;
    out = int(std::max<long long>(std::min<long long>(v, 2147483647LL), -2147483647LL));
    return true;
}

bool readU64(const std::string& text, u64& out) {
    if (text.empty() || text.size() > 19)
        return false;
    out = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        out = out * 10 + u64(c - '0');
    }
    return true;
}

void setHashSize(int mb) {
    if (theWorkForce.searching())
        pendingHashMB = mb;
    else {
        pendingHashMB = 0;
        setHashSizeNow(mb);
    }
}

void applyPendingSettings() {
    if (pendingHashMB) {
        setHashSizeNow(pendingHashMB);
        pendingHashMB = 0;
    }
    if (pendingHistoryClear) {
        theWorkForce.clearHistories();
        pendingHistoryClear = false;
    }
    if (pendingSyzygyReload) {
        init_tablebases(engine.syzygyPath);
        pendingSyzygyReload = false;
    }
    if (pendingProbeDepth >= 0) {
        engine.syzygyProbeDepth = pendingProbeDepth;
        pendingProbeDepth = -1;
    }
    if (pendingTableClear) {
        clearHashTableMT(engine.nofThreads);
        pendingTableClear = false;
    }
}

// Stops a running search and waits until it has printed its move.
void stopAndWait() {
    if (theWorkForce.searching()) {
        searchSignals.stopSearch = true;
        theWorkForce.waitSearchEnd();
    }
}

// Plays one move given in coordinate text on pos at ply 0, if it is legal there. The
// position's ply-0 move list must be bound to a buffer.
bool playMoveText(positionStruct* pos, const std::string& text) {
    moveStruct* list = pos->plyStack[0].moveListBegin;
    setInCheck(0, pos);
    generateMovesLegal(0, list, pos);
    for (moveStruct* m = list; m < pos->plyStack[0].moveListEnd; m++) {
        if (moveToLA(m, pos->sideToMove) != text)
            continue;
        makeMove(pos, 0, *m);
        pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
        pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
        // Long games: keep only the keys a repetition can still reach.
        if (pos->gamePly > KEY_HISTORY - PLY_STACK - 64) {
            int keep = std::min<int>(pos->halfMoveClock + 1, pos->gamePly);
            keep = std::min(keep, KEY_HISTORY / 2);
            std::copy(pos->keyHistory + pos->gamePly - keep, pos->keyHistory + pos->gamePly, pos->keyHistory);
            pos->gamePly = i16(keep);
        }
        return true;
    }
    return false;
}

void cmdPosition(tokens& in) {
    std::string kind, tok, fen;
    in >> kind;
    bool startpos = kind == "startpos";
    if (startpos) {
        fen = fenStartPos;
        in >> tok;  // expected to be "moves"; whatever it is, it is consumed
    } else if (kind == "fen") {
        while (in >> tok && tok != "moves")
            fen += tok + " ";
    } else {
        printLine("info string position needs 'startpos' or 'fen'");
        return;
    }

    auto scratch = std::make_unique<positionStruct>();
    std::string error;
    if (!setPosition(fen, scratch.get(), &error)) {
        printLine("info string invalid FEN (" + error + "), position unchanged");
        return;
    }
    std::vector<moveStruct> buffer(MOVE_BUFFER);
    scratch->bindMoveBuffer(buffer.data());
    int played = 0;
    while (in >> tok) {
        if (!playMoveText(scratch.get(), tok)) {
            printLine("info string illegal or malformed move " + tok + ", moves after it ignored");
            break;
        }
        played++;
    }
    scratch->hashKey = calcHashKey(0, scratch.get());
    scratch->pawnKey = calcPawnKey(scratch.get());
    scratch->plyStack[0].inCheck = inCheckNow(scratch.get());
    std::memcpy(static_cast<void*>(&GPSData), scratch.get(), sizeof GPSData);
    GPSData.bindMoveBuffer(GMS);

    if (startpos)
        engine.gamePly = played;
    else
        engine.gamePly = GPSData.gamePly < 2 ? 1024 : GPSData.gamePly + played;
}

void cmdGo(tokens& in) {
    // The clock runs from the arrival of the command, whatever waiting comes first.
    const i64 arrival = nowMs();
    stopAndWait();
    applyPendingSettings();
    engine.startTimeMs = arrival;
    engine.timeLeft[0] = engine.timeLeft[1] = 900000;
    engine.increment[0] = engine.increment[1] = 0;
    engine.movesToGo = 30;
    engine.depthLimit = engine.mateLimit = engine.moveTime = 0;
    engine.nodesLimit = 0;
    engine.nodeCheckInterval = 4096;
    engine.infinite = false;
    engine.movesToGoGiven = false;
    bool ponder = false;

    std::string tok, value;
    while (in >> tok) {
        int* field = tok == "wtime" ? &engine.timeLeft[WHITE] : tok == "btime" ? &engine.timeLeft[BLACK]
                   : tok == "winc" ? &engine.increment[WHITE] : tok == "binc" ? &engine.increment[BLACK]
                   : tok == "movestogo" ? &engine.movesToGo : tok == "depth" ? &engine.depthLimit
                   : tok == "mate" ? &engine.mateLimit : tok == "movetime" ? &engine.moveTime : nullptr;
        if (field || tok == "nodes") {
            if (!(in >> value)) {
                printLine("info string go " + tok + " needs a value");
                break;
            }
            int v;
            if (tok == "nodes" ? readU64(value, engine.nodesLimit) : readInt(value, v)) {
                if (field)
                    *field = v;
                if (tok == "movestogo")
                    engine.movesToGoGiven = true;
            } else
                printLine("info string go " + tok + ": '" + value + "' is not a number, ignored");
        } else if (tok == "infinite")
            engine.infinite = true;
        else if (tok == "ponder")
            ponder = true;
    }
    searchSignals.pondering = ponder;
    computeTimeBudget(engine, GPSData.sideToMove);
    theWorkForce.startSearch(GPSData);
}

void cmdSetOption(tokens& in) {
    std::string tok, name, value;
    in >> tok;  // "name"
    while (in >> tok && tok != "value")
        name += (name.empty() ? "" : " ") + tok;
    while (in >> tok)
        value += (value.empty() ? "" : " ") + tok;

    auto numeric = [&](int lo, int hi, int& v) {
        if (!readInt(value, v)) {
            printLine("info string option " + name + ": '" + value + "' is not a number, unchanged");
            return false;
        }
        v = std::max(lo, std::min(hi, v));
        return true;
    };
    int v;
    if (name == "Hash") {
        if (!readInt(value, v)) {
            numeric(1, 1, v);
            return;
        }
        if (hashOption.refuseAboveMax && v > hashOption.maxMB) {
            printLine("info string Hash above " + std::to_string(hashOption.maxMB)
                      + " MB does not fit in WebAssembly memory, unchanged");
            return;
        }
        v = v < 1 ? 1 : v > 32768 ? 262144 : v;
        engine.hashSizeMB = v;
        printLine("info string Size of Hashtable set to : " + std::to_string(v));
        setHashSize(v);
    } else if (name == "Threads") {
        if (numeric(1, 256, v)) {
            stopAndWait();
            // A build with a fixed pool of threads uses what it has and says so.
            const int limit = platform::threadLimit(), run = limit > 0 ? std::min(v, limit) : v;
            engine.nofThreads = run;
            theWorkForce.setNofWorkers(run);
            printLine("info string Number of threads set to : " + std::to_string(v));
            if (run != v)
                printLine("info string this build runs at most " + std::to_string(limit)
                          + " threads, using " + std::to_string(run));
        }
    } else if (name == "MoveOverhead") {
        if (numeric(1, 60000, v)) {
            engine.moveOverhead = v;
            printLine("info string MoveOverhead set to : " + std::to_string(v));
        }
    } else if (name == "Ponder") {
        engine.ponderOption = value == "true";
        printLine(std::string("info string Ponder set to : ") + (engine.ponderOption ? "1" : "0"));
    } else if (name == "SyzygyPath") {
        // Reloading releases the tables a running search probes: it waits for the search
        // to end, and the confirmation comes at once.
        engine.syzygyPath = value;
        pendingSyzygyReload = theWorkForce.searching();
        if (!pendingSyzygyReload)
            init_tablebases(value);
        printLine("info string Syzygy tablebases used from directory : " + value);
    } else if (name == "SyzygyProbeDepth") {
        if (numeric(0, 127, v)) {
            if (theWorkForce.searching())
                pendingProbeDepth = v;  // the searchers read it: it changes at the next "go"
            else
                engine.syzygyProbeDepth = v;
            printLine("info string SyzygyProbeDepth set to: " + std::to_string(v));
        }
    }
}

void cmdPerft(tokens& in) {
    std::string tok;
    if (in >> tok) {
        int d;
        if (!readInt(tok, d)) {
            printLine("info string perft depth '" + tok + "' is not a number");
            return;
        }
        if (d < 1 || d > PERFT_MAX_DEPTH) {
            printLine("info string perft depth must be from 1 to " + std::to_string(PERFT_MAX_DEPTH));
            return;
        }
        perftDepth = d;
    }
    auto copy = std::make_unique<positionStruct>();
    std::memcpy(static_cast<void*>(copy.get()), &GPSData, sizeof GPSData);
    copy->bindMoveBuffer(GMS);
    printText(boardToString(copy.get()));
    auto t0 = std::chrono::steady_clock::now();
    u64 nodes = perft(0, perftDepth, copy.get());
    long long ns = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
    double seconds = double(ns) / 1000000000.0;
    std::ostringstream s;
    s << ns << " ns and " << seconds << " in seconds\n";
    s << "Perft results for depth: " << perftDepth << "  " << nodes << "  Nodes per sec: " << double(nodes) / seconds
      << "\n";
    printText(s.str());
}

// Gives a report writer a stream whose lines reach standard output as each is flushed.
struct consoleBuf : std::stringbuf {
    int sync() override {
        printText(str());
        str("");
        return 0;
    }
};

void cmdRtest(tokens& in) {
    stopAndWait();
    std::string path = "perft.txt";
    in >> path;
    // Each result line goes out as soon as its test ends.
    consoleBuf buf;
    std::ostream stream(&buf);
    int testsRun = 0;
    runPerftFile(path, stream, &testsRun);
    stream.flush();
    // A run that tested anything leaves a table of 2^21 buckets whatever Hash says, so
    // that what follows a self-test does not depend on the options set before it.
    if (testsRun > 0)
        resizeHashTable(0x200000);
}

void cmdTexel(tokens& in) {
    std::string path = "lichess-good.epd";
    in >> path;
    // Every run starts from fresh tables and an empty transposition table of the Hash
    // size; rebuilding them under a running search would race with it, so it ends first.
    stopAndWait();
    initBitboardConstants();
    initHashCodeTables();
    setHashSizeNow(engine.hashSizeMB);
    consoleBuf buf;
    std::ostream stream(&buf);
    runTexel(path, stream);
    stream.flush();
}

void cmdUci() {
    printLine(std::string("id name ") + ENGINE_NAME + ENGINE_SUFFIX);
    printLine("id author Ollivark");
    printLine("option name Hash type spin default " + std::to_string(hashOption.defaultMB)
              + " min 1 max " + std::to_string(hashOption.maxMB));
    printLine("option name Threads type spin default 1 min 1 max 256");
    printLine("option name Ponder type check default false");
    printLine("option name MoveOverhead type spin default 100 min 1 max 60000");
    printLine("option name SyzygyPath type string default <empty>");
    printLine("option name SyzygyProbeDepth type spin default 0 min 0 max 127");
    printLine("uciok");
}

void cmdUciNewGame() {
    if (theWorkForce.searching()) {
        pendingHistoryClear = pendingTableClear = true;
    } else {
        theWorkForce.clearHistories();
        clearHashTableMT(engine.nofThreads);
    }
    engine.gamePly = 0;
    engine.newGame = true;
    std::fill(std::begin(GPSData.keyHistory), std::end(GPSData.keyHistory), 0);
    printLine("readyok");
}

void cmdBench(tokens& in) {
    std::string tok;
    int depth = BENCH_DEPTH;
    if (in >> tok && (!readInt(tok, depth) || depth < 1 || depth > MAX_PLY)) {
        printLine("info string bench depth must be a number from 1 to " + std::to_string(MAX_PLY));
        return;
    }
    stopAndWait();
    applyPendingSettings();
    runBench(depth);
}

void cmdHelp() {
    printLine("supported UCI commands 'uci' 'ucinewgame' 'position' 'go' 'ponderhit' 'stop 'quit' 'setoption' "
              "'isready'");
    printLine("other commands 'perft depth', default depth=6, change board with 'position'; 'showboard' shows "
              "the current board");
}

}  // namespace

bool executeCommand(const std::string& line) {
    tokens in(line);
    std::string cmd;
    in >> cmd;
    if (cmd == "quit") {
        searchSignals.stopSearch = true;
        return false;
    }
    if (cmd == "stop")
        searchSignals.stopSearch = true;
    else if (cmd == "ponderhit") {
        if (theWorkForce.searchFinished)
            searchSignals.stopSearch = true;
        else
            searchSignals.pondering = false;
    } else if (cmd == "position")
        cmdPosition(in);
    else if (cmd == "go")
        cmdGo(in);
    else if (cmd == "ucinewgame")
        cmdUciNewGame();
    else if (cmd == "uci")
        cmdUci();
    else if (cmd == "setoption")
        cmdSetOption(in);
    else if (cmd == "isready")
        printLine("readyok");
    else if (cmd == "rtest")
        cmdRtest(in);
    else if (cmd == "perft")
        cmdPerft(in);
    else if (cmd == "texel")
        cmdTexel(in);
    else if (cmd == "showboard")
        printText(boardToString(&GPSData));
    else if (cmd == "evil")
        evaluateN(0, &GPSData);
    else if (cmd == "eval")
        printText(evalTraceText(&GPSData));
    else if (cmd == "help")
        cmdHelp();
    else if (cmd == "bench")
        cmdBench(in);
    else
        printLine("Unknown command");
    return true;
}

void uciStart(bool browser) {
    if (browser) {
        hashOption = {BROWSER_HASH_MB, BROWSER_HASH_MAX_MB, true};
        engine.hashSizeMB = BROWSER_HASH_MB;
    }
    setTextSink(writeProtocolText);
    printLine(std::string(ENGINE_NAME) + ENGINE_SUFFIX);
    printLine("by Ollivark");
    printLine("");
    printLine("enter 'help' to see the commands");

    initBitboardConstants();
    initHashCodeTables();
    setHashSize(engine.hashSizeMB);
    GPSData.bindMoveBuffer(GMS);
    setPosition(fenStartPos, &GPSData);
    theWorkForce.setNofWorkers(engine.nofThreads);
}

void uciFinish() {
    // Any search still running ends by itself (after "quit" it has been told to stop).
    theWorkForce.setNofWorkers(0);
    freeHashTable();
    platform::flushOutput();
}

int uciMain(int argc, char** argv) {
    uciStart(false);
    std::string argLine;
    for (int i = 1; i < argc; i++)
        argLine += std::string(argv[i]) + " ";

    if (argc > 1)
        executeCommand(argLine);
    else
        for (std::string line;;) {
            if (!platform::readInputLine(line))
                line = "quit";
            if (!executeCommand(line))
                break;
        }
    uciFinish();
    return 0;
}
