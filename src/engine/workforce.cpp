#include "engine/workforce.h"

#include <cstring>

#include "engine/engine.h"
#include "platform/console.h"
#include "search/tt.h"
#include "tablebase/tbprobe.h"

workForce theWorkForce;

worker::worker(int idx) : index(idx) {
    tables.clearAll();
    tables.bind(&pos);
    if constexpr (!platform::HAS_THREADS) {
        busy = false;  // no thread: wake() searches on the caller's
        return;
    }
    thread = std::thread(&worker::atTheOffice, this);
    // Wait until the new thread has parked.
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [this] { return !busy; });
}

worker::~worker() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        quit = true;
        busy = true;
    }
    cv.notify_one();
    if constexpr (platform::HAS_THREADS)
        thread.join();
}

void worker::atTheOffice() {
    for (;;) {
        std::unique_lock<std::mutex> lock(mutex);
        busy = false;
        cv.notify_one();
        cv.wait(lock, [this] { return busy; });
        if (quit)
            return;
        lock.unlock();
        searchRoot();
    }
}

void worker::wake() {
    if constexpr (!platform::HAS_THREADS) {
        busy = true;
        searchRoot();
        busy = false;
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        busy = true;
    }
    cv.notify_one();
}

void worker::waitIdle() {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [this] { return !busy; });
}

bool worker::isBusy() {
    std::lock_guard<std::mutex> lock(mutex);
    return busy;
}

void workForce::setNofWorkers(int n) {
    if (!workers.empty()) {
        workers[0]->waitIdle();
        while (!workers.empty())
            workers.pop_back();
    }
    if (n < 1)
        return;
    workers.push_back(std::make_unique<boss>(0));
    for (int i = 1; i < n; i++)
        workers.push_back(std::make_unique<worker>(i));
    clearHistories();
}

void workForce::waitSearchEnd() {
    if (!workers.empty())
        workers[0]->waitIdle();
}

bool workForce::searching() { return !workers.empty() && workers[0]->isBusy(); }

// Only while the threads are parked.
void workForce::clearHistories() {
    for (auto& w : workers)
        w->tables.clearHistories();
}

void workForce::startSearch(const positionStruct& root) {
    waitSearchEnd();
    searchLimits = engine;   // the tree search's part of the record
    searchSignals.stopSearch = false;
    searchFinished = false;
    deepestReported = 0;
    advanceHashAge();
    for (auto& w : workers) {
        std::memcpy(static_cast<void*>(&w->pos), &root, sizeof root);
        w->tables.bind(&w->pos);
        w->pos.threadIndex = w->index;
        w->pos.qNodes = w->pos.nodes = w->pos.tbHits = 0;
        w->pos.selDepth = 0;
        w->pos.pvLength = 0;
        w->currentDepth = 0;
    }
    workers[0]->wake();
}

u64 workForce::totalNodes() {
    u64 n = 0;
    for (auto& w : workers)
        n += readCounter(w->pos.qNodes) + readCounter(w->pos.nodes);
    return n;
}

u64 workForce::totalTbHits() {
    u64 n = 0;
    for (auto& w : workers)
        n += readCounter(w->pos.tbHits);
    return n;
}
