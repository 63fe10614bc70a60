// The search threads.
//
// setNofWorkers() starts them at start-up and again whenever "Threads" is set; they live
// until then, so a "go" only wakes threads and never pays for starting them. An idle
// thread sleeps in atTheOffice() on a mutex and condition variable of its own: waking
// one disturbs no other. Thread 0 is the `boss`, the only one "go" wakes. It wakes the
// helpers, searches like them, raises the stop flag when its own search ends, waits for
// them, and prints "bestmove" from the thread with the deepest iteration (the higher
// score breaks ties, and a better mate wins at any depth). Positions, histories and
// caches are per thread; what they share is the transposition table, the flags below and
// searchSignals (search/searchlimits.h).
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "board/position.h"
#include "search/search.h"
#include "search/searchlimits.h"

class worker {
public:
    explicit worker(int index);
    virtual ~worker();
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;

    // The thread's whole search of one "go": iterative deepening over its own copy of
    // the root position.
    virtual void searchRoot();

    void atTheOffice();
    void wake();
    void waitIdle();
    bool isBusy();

    searchTablesStruct tables;          // move buffer, histories and evaluation caches
    std::mutex mutex;
    std::condition_variable cv;
    int index;
    std::atomic<int> currentDepth{0};   // read by the other threads' crowd test
    bool quit = false;
    bool busy = true;
    positionStruct pos;
    positionStruct* posPtr = &pos;
    std::thread thread;                 // started last, once everything else exists
};

class boss : public worker {
public:
    explicit boss(int idx) : worker(idx) {}
    void searchRoot() override;

    moveStruct ponderPair[2];           // expected best move and reply from our iterations
};

struct workForce {
    std::vector<std::unique_ptr<worker>> workers;

    // Relaxed atomics: nothing else is handed over through them, and the threads look at
    // them again at the end of each iteration, so an old value postpones a decision by an
    // iteration at most. The stop and ponder flags live with the tree search (searchSignals).
    std::atomic<bool> searchFinished{false};
    std::atomic<int> deepestReported{0};
    std::atomic<unsigned long long> tbHitsTotal{0};

    // Rebuilds the pool with n threads (none when n < 1), after any search has ended.
    void setNofWorkers(int n);
    // Hands the limits of `engine` to the tree search, copies the position into every
    // worker and wakes the boss.
    void startSearch(const positionStruct& root);
    void waitSearchEnd();
    bool searching();
    void clearHistories();
    u64 totalNodes();
    u64 totalTbHits();
};

extern workForce theWorkForce;

// Rebuilds the principal variation from the table into plyStack[k].currentMove and
// pvLength; the position is left as found.
void getPVFromHashTable(positionStruct* pos, int depth);
