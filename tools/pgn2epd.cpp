// quorvane_pgn2epd: turns finished games (PGN, as fastchess writes them) into labelled
// positions for the tuner, one per line: `<4 FEN fields> c9 "<result>";`.
//
// A position is kept when the side to move is not in check, the move played from it is
// neither a capture nor a promotion, and at least --skip plies of the game lie before it
// (the opening book's choices say little about the result). Positions seen before are left
// out (the first result is kept); games without a result ("*") are left out whole.
//
//   quorvane_pgn2epd [--skip N] games.pgn... > positions.epd
//
// Counts go to stderr: games read, games used, positions written, and the games whose
// moves could not be read (each named with the first move that failed).
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <unordered_set>
#include <vector>

#include "board/bitboards.h"
#include "board/zobrist.h"
#include "tuning/pgn.h"

int main(int argc, char** argv) {
    int skip = 4;
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--skip" && i + 1 < argc)
            skip = std::atoi(argv[++i]);
        else if (a[0] == '-') {
            std::fprintf(stderr, "usage: quorvane_pgn2epd [--skip N] games.pgn... > positions.epd\n");
            return a == "--help" || a == "-h" ? 0 : 2;
        } else
            files.push_back(a);
    }
    initBitboardConstants();
    initHashCodeTables();
    std::unordered_set<std::string> seen;
    pgnCountsStruct counts;
    for (const std::string& file : files) {
        std::ifstream in(file);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        pgnToEpd(in, file, skip, seen, std::cout, std::cerr, counts);
    }
    std::fprintf(stderr, "%ld games read, %ld used, %ld positions written, %ld games with unreadable moves\n",
                 counts.games, counts.used, counts.written, counts.unreadable);
    return 0;
}
