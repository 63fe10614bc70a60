// The command interface: the UCI loop, the options and the developer commands.
#pragma once

#include <string>

#include "board/position.h"

extern positionStruct GPSData;     // the position of the command interface
extern moveStruct GMS[MOVE_BUFFER];  // its move buffer

// Writes one line to standard output and flushes it; safe from any thread.
void printLine(const std::string& line);
// Same, without the newline being added (text already ends with its own).
void printText(const std::string& text);

// Monotonic clock in milliseconds.
i64 nowMs();

// Replaces the transposition table by one for `mb` MB (never more than half the memory;
// a smaller table is reported on one "info string" line).
void setHashSizeNow(int mb);

// Executes one command line; returns false when the line was "quit".
bool executeCommand(const std::string& line);

// Program entry: banner, start-up, then the loop (or one command from the arguments).
int uciMain(int argc, char** argv);
