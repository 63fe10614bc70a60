#include "board/perft.h"

#include <charconv>
#include <chrono>
#include <fstream>
#include <memory>
#include <ostream>
#include <vector>

#include "board/makemove.h"
#include "board/movegen.h"

// Perft walks the tree with the very generators, legality test and make/take-back that the
// search plays with, so a wrong count points at code that matters in games.
u64 perft(u8 ply, int depth, positionStruct* pos) {
    // 1. The check flag picks the generator: evasions in check, else captures then quiets.
    setInCheck(ply, pos);
    plyStruct& ps = pos->plyStack[ply];
    moveStruct* const begin = ps.moveListBegin;
    generateMovesCaptures(ply, begin, pos);
    if (!ps.inCheck)
        generateMovesQuiets(ply, ps.moveListEnd, pos);
    moveStruct* end = ps.moveListEnd;

    // 2. The last ply is counted, not played. Evasions are counted as generated: the evasion
    // generator already leaves out pinned pieces and unsafe king steps, and trusting it here
    // is what makes a fault in it show up in the count.
    if (depth <= 1)
        return ps.inCheck ? u64(end - begin) : countLegal(pos, ply, begin, end);

    // 3. Inner plies: drop the illegal moves, then play each of the rest.
    end = filterLegal(pos, ply, begin, end);
    ps.moveListEnd = end;
    pos->plyStack[ply + 1].moveListBegin = end;
    u64 nodes = 0;
    for (const moveStruct* m = begin; m < end; m++) {
        makeMove(pos, ply, *m);
        nodes += perft(u8(ply + 1), depth - 1, pos);
        takeBack(pos, ply, *m);
    }
    return nodes;
}
namespace {

// A field that is a decimal number and nothing else ("2x", " 2" and "-1" for a count are not).
template <typename T>
bool wholeNumber(const std::string& field, T& value) {
    const char* end = field.data() + field.size();
    auto [stop, error] = std::from_chars(field.data(), end, value);
    return error == std::errc() && stop == end;
}

}  // namespace

bool runPerftFile(const std::string& path, std::ostream& out, int* testsRun) {
    std::ifstream in(path);
    if (!in) {
        out << "There seems to be a problem with the perftFile. check of the move generator not "
               "executed\n"
            << std::flush;
        return false;
    }
    auto pos = std::make_unique<positionStruct>();
    std::vector<moveStruct> buffer(MOVE_BUFFER);
    bool allPassed = true;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line == "full" || line == "extended")
            break;
        if (line.empty())
            continue;
        // FEN;depth;count. A line that does not parse counts as a failed test.
        size_t a = line.find(';'), b = a == std::string::npos ? a : line.find(';', a + 1);
        std::string fen = line.substr(0, a), error;
        int depth = 0;
        u64 expected = 0;
        bool ok = b != std::string::npos && wholeNumber(line.substr(a + 1, b - a - 1), depth)
               && wholeNumber(line.substr(b + 1), expected);
        ok = ok && depth >= 1 && depth <= PERFT_MAX_DEPTH && setPosition(fen, pos.get(), &error);
        if (!ok) {
            out << "0; " << line << "; unreadable test line\n" << std::flush;
            allPassed = false;
            continue;
        }
        pos->bindMoveBuffer(buffer.data());
        auto t0 = std::chrono::steady_clock::now();
        u64 count = perft(0, depth, pos.get());
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::steady_clock::now() - t0)
                      .count();
        bool pass = count == expected;
        allPassed &= pass;
        out << (pass ? 1 : 0) << "; " << fen << "; " << depth << "; " << expected << "; " << count
            << "; " << ns << "\n"
            << std::flush;
        if (testsRun)
            ++*testsRun;
    }
    out << "Results of the perft checks is OK: " << (allPassed ? 1 : 0) << "\n" << std::flush;
    return allPassed;
}
