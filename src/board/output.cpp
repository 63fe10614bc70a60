#include "board/output.h"

#include <atomic>
#include <cstdio>

namespace {

void writeStdout(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

std::atomic<textSinkFn> currentSink{writeStdout};

}  // namespace

void setTextSink(textSinkFn sink) { currentSink.store(sink ? sink : writeStdout); }

void printText(const std::string& text) { currentSink.load()(text); }
