// The command interface: the UCI loop, the options and the developer commands.
#pragma once

#include <string>

#include "board/position.h"

extern positionStruct GPSData;     // the position of the command interface
extern moveStruct GMS[MOVE_BUFFER];  // its move buffer

// Executes one command line; returns false when the line was "quit".
bool executeCommand(const std::string& line);

// Banner and start-up: tables, the transposition table, the start position, the threads.
// The browser's engine starts with a smaller Hash and refuses sizes wasm32 cannot hold.
void uciStart(bool browser);
// Ends any search, joins the threads and frees the table.
void uciFinish();

// Program entry: banner, start-up, then the loop (or one command from the arguments).
int uciMain(int argc, char** argv);
