// The fuzz harnesses: one plain function per reader of outside input. Each takes the
// fuzzer's bytes, feeds them to the reader and checks what it promises, not just that it
// survives. They are built twice: into the libFuzzer binaries (fuzz_main.cpp, with
// ASan and UBSan) and into the GoogleTest suite, which replays the kept inputs of
// tests/fuzz/corpus/ and tests/fuzz/regressions/ with any compiler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

using fuzzTargetFn = int (*)(const uint8_t* data, size_t size);

// A broken promise: by default the message goes to standard error and the process aborts,
// so that libFuzzer keeps the input; the replay test installs a handler that throws.
using fuzzFailureFn = void (*)(const std::string& what);
void setFuzzFailureHandler(fuzzFailureFn handler);

// Text of a FEN: refused with a reason, or a consistent position that prints, makes and
// takes back every move, and reads back from the FEN written from it.
int fuzzFen(const uint8_t* data, size_t size);
// Lines for the command loop, run in-process with bounded searches and no "quit": the
// command position stays consistent and every refusal is one "info string" line.
int fuzzUci(const uint8_t* data, size_t size);
// A table selector byte (SYZYGY_FUZZ_TABLES in targets.cpp), a position seed byte, the
// WDL file's length (4 bytes, little-endian), the WDL file, then the DTZ file: both files
// are loaded and probed on positions of that material.
int fuzzSyzygy(const uint8_t* data, size_t size);
// A file of labelled positions for the "texel" command and the tuner.
int fuzzEpd(const uint8_t* data, size_t size);
// A perft reference file for "rtest" (depths above 2 lowered to 2).
int fuzzPerftFile(const uint8_t* data, size_t size);
// Games in PGN for quorvane_pgn2epd.
int fuzzPgn(const uint8_t* data, size_t size);

// A command line as the command-loop harness sends it: searches, tables and perft kept small,
// and "" for the lines it leaves out ("quit", and the commands that run long or read files).
std::string boundedLine(const std::string& line);

struct fuzzTargetStruct {
    const char* name;  // the folder name under tests/fuzz/corpus/ and regressions/
    fuzzTargetFn run;
};
inline constexpr fuzzTargetStruct FUZZ_TARGETS[] = {
    {"fen", fuzzFen}, {"uci", fuzzUci},           {"syzygy", fuzzSyzygy},
    {"epd", fuzzEpd}, {"perftfile", fuzzPerftFile}, {"pgn", fuzzPgn},
};
