// Entry points of the WebAssembly build. Its JavaScript front-ends (the page's worker and
// the node console) start the engine, hand it one command line at a time from their own
// event loop and end it; the engine's text comes back through the platform layer.
#include <string>

#include "platform/console.h"
#include "uci/uci.h"

extern "C" {

// browser: the page's settings (a small Hash); otherwise those of the native engine.
void quorvane_start(int browser) { uciStart(browser != 0); }

// One command line of `length` bytes; 0 after "quit".
int quorvane_command(const char* line, int length) {
    const bool more = executeCommand(std::string(line, size_t(length)));
    platform::flushOutput();  // what the search threads queued meanwhile
    return more ? 1 : 0;
}

void quorvane_finish() { uciFinish(); }

}  // extern "C"
