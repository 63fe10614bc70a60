// Games in PGN (as fastchess writes them) turned into labelled positions for the tuner:
// the reader of quorvane_pgn2epd, kept in the library so that the fuzz harness reads
// games through the very same code.
#pragma once

#include <iosfwd>
#include <string>
#include <unordered_set>
#include <vector>

#include "board/position.h"

struct pgnGameStruct {
    std::string fen = fenStartPos;
    std::string result;
    std::vector<std::string> moves;  // SAN, as written
};

// Reads the next game: its tag pairs and the move text up to the result. Comments in
// braces, variations in parentheses, move numbers and annotation glyphs are dropped.
// False when the input holds no further game.
bool readPgnGame(std::istream& in, pgnGameStruct& g);

// The legal move a SAN token names, or an empty move when it names none or several. The
// position's ply-0 move list must be bound to a buffer.
moveStruct findSan(positionStruct* pos, std::string san);

// The first four FEN fields of the position; the en-passant square only when a pawn can
// take there.
std::string fenFields(const positionStruct* pos);

struct pgnCountsStruct {
    long games = 0, used = 0, written = 0, unreadable = 0;
};

// Writes one line `<4 FEN fields> c9 "<result>";` to out for every position of the games
// in `in` that is not in check, whose played move is neither a capture nor a promotion and
// that has at least `skip` plies of its game before it; positions already in `seen` are
// left out. Games without a result are skipped whole; a bad FEN or an unreadable move is
// reported on `log` (with `name`, the file's name) and ends its game.
void pgnToEpd(std::istream& in, const std::string& name, int skip,
              std::unordered_set<std::string>& seen, std::ostream& out, std::ostream& log,
              pgnCountsStruct& counts);
