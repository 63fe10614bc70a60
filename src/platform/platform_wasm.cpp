// The platform layer of the WebAssembly build (emscripten). Files are those of the
// front-end's file system (the host's under node, an empty one in a browser); a "mapping"
// is a copy in the module's memory, as wasm has no shared file pages. Output goes to the
// JavaScript front-end through Module.onText.
#include <emscripten.h>
#include <emscripten/threading.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>

#include "platform/console.h"
#include "platform/platform.h"
#include "platform/posix_files.h"

// The text goes out by its length, NUL bytes and all (an echoed input line may hold one, and
// UTF8ToString would stop there); slice copies it out of the shared memory of the threaded
// build, which TextDecoder does not read.
// clang-format off
EM_JS(void, quorvaneEmitText, (const char* text, int bytes), {
    Module['onText'](new TextDecoder().decode(HEAPU8.slice(text, text + bytes)));
});
EM_JS(int, quorvaneThreadPool, (), {
    return Module['threadPool'] | 0;
});
// clang-format on

namespace platform {

namespace {

std::mutex pendingMutex;
std::string pendingText;  // written by search threads, not yet handed on

[[maybe_unused]] void flushFromQueue() { flushOutput(); }

}  // namespace

// The main thread never holds pendingMutex while it could block: a blocked main thread
// runs the queued calls, flushFromQueue among them, and that would lock the mutex twice.
// Appending may allocate, and a busy allocator lock blocks, so only search threads append;
// the main thread takes the queue with a swap, which does not allocate.
void writeOutput(const std::string& text) {
    if (emscripten_is_main_runtime_thread()) {
        flushOutput();   // what the search threads said first
        quorvaneEmitText(text.data(), int(text.size()));
        return;
    }
    std::unique_lock<std::mutex> lock(pendingMutex);
    [[maybe_unused]] const bool wasEmpty = pendingText.empty();
    pendingText += text;
    lock.unlock();
#ifdef __EMSCRIPTEN_PTHREADS__
    if (wasEmpty)
        emscripten_async_run_in_main_runtime_thread(EM_FUNC_SIG_V, flushFromQueue);
#endif
}

void flushOutput() {
    std::string text;
    {
        std::lock_guard<std::mutex> lock(pendingMutex);
        text.swap(pendingText);
    }
    if (!text.empty())
        quorvaneEmitText(text.data(), int(text.size()));
}

int threadLimit() {
    int pool = HAS_THREADS ? quorvaneThreadPool() : 0;
    return pool >= 2 ? pool / 2 : 1;
}

mapStatus mapFile(const std::string& file, size_t minSize, fileMapping& out,
                  std::string& systemError) {
    int fd;
    size_t size = 0;
    if (mapStatus status = posix::openTableFile(file, minSize, fd, size, systemError);
        status != mapStatus::MAPPED)
        return status;
    auto* data = static_cast<unsigned char*>(std::malloc(size));
    size_t done = 0;
    while (data && done < size) {
        ssize_t n = ::read(fd, data + done, size - done);
        if (n <= 0)
            break;
        done += size_t(n);
    }
    ::close(fd);
    if (!data || done != size) {
        std::free(data);
        return mapStatus::FAILED;
    }
    out.data = data;
    out.size = size;
    return mapStatus::MAPPED;
}

void unmapFile(fileMapping& mapping) {
    std::free(const_cast<unsigned char*>(mapping.data));
    mapping = fileMapping{};
}

// Memory given back to the allocator is not zero any more: clear it here.
void* allocateLarge(size_t bytes) {
    bytes = (bytes + 63) / 64 * 64;
    void* p = std::aligned_alloc(64, bytes);
    if (p)
        std::memset(p, 0, bytes);
    return p;
}

void freeLarge(void* block, size_t) { std::free(block); }

bool readInputLine(std::string& line) { return bool(std::getline(std::cin, line)); }

// The whole wasm32 address space, 4 GB: the transposition table gets at most half of it.
uint64_t physicalMemory() { return uint64_t(4) << 30; }

}  // namespace platform

// Called by the node console before the engine starts: the host's environment
// (QUORVANE_HASH_LIMIT_MB and the like) as the engine's own.
extern "C" EMSCRIPTEN_KEEPALIVE void quorvane_setenv(const char* name, const char* value) {
    ::setenv(name, value, 1);
}
