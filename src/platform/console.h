// The protocol's output channel, and whether and how many threads the build has. Natively the text goes
// to standard output, flushed at once, and the threads are limited by nothing but the
// option's range. The WebAssembly build (platform_wasm.cpp) has no console of its own: its
// JavaScript front-end (the page's worker or the node console) takes each piece of text, and
// the search threads come from a pool of web workers made when the module starts.
#pragma once

#include <cstdio>
#include <string>

namespace platform {

#ifdef __EMSCRIPTEN__

// The WebAssembly build for pages without cross-origin isolation has no threads: a search
// runs on the thread that starts it and the command loop waits for its move.
#ifdef __EMSCRIPTEN_PTHREADS__
inline constexpr bool HAS_THREADS = true;
#else
inline constexpr bool HAS_THREADS = false;
#endif

// Hands text to the front-end. From a search thread it is queued, and the module's main
// thread passes it on as soon as it is free: a search thread never waits for the front-end.
void writeOutput(const std::string& text);
// Passes on what the search threads queued. Call on the module's main thread.
void flushOutput();
// The most search threads the worker pool can run (it also holds the helpers that clear
// the transposition table, one per search thread).
int threadLimit();

#else

inline constexpr bool HAS_THREADS = true;

inline void writeOutput(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}
inline void flushOutput() {}
inline int threadLimit() { return 0; }  // none of its own

#endif

}  // namespace platform
