// The search threads and the flags through which the command loop steers them.
//
// A fixed pool of long-lived threads, one `worker` each, parked on their own mutex and
// condition variable between searches. Element 0 is the `boss`: "go" wakes it, it wakes
// the others, decides when the search ends, picks whose result is reported and prints
// "bestmove". The threads share only the transposition table and these flags.
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

    // Relaxed atomics: a stale read only delays a reaction by one poll. The stop and
    // ponder flags live with the tree search (searchSignals).
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
