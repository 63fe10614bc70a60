// The text channel of the lower layers: search reports, tablebase notes and bench lines
// reach the user through it without knowing the protocol. The protocol layer installs its
// writer at start-up; until then (tests, tools) text goes straight to standard output.
#pragma once

#include <string>

using textSinkFn = void (*)(const std::string& text);

// Replaces the writer; nullptr restores the default one.
void setTextSink(textSinkFn sink);

// Writes text that already ends with its own newline.
void printText(const std::string& text);

// Writes one line and its newline.
inline void printLine(const std::string& line) { printText(line + "\n"); }
