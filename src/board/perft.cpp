#include "board/perft.h"

#include <chrono>
#include <fstream>
#include <memory>
#include <ostream>
#include <vector>

#include "board/makemove.h"
#include "board/movegen.h"

u64 perft(u8 ply, int depth, positionStruct* pos) {
    plyStruct& ps = pos->plyStack[ply];
    setInCheck(ply, pos);
    generateMovesCaptures(ply, ps.moveListBegin, pos);
    if (!ps.inCheck)
        generateMovesQuiets(ply, ps.moveListEnd, pos);
    moveStruct *begin = ps.moveListBegin, *end = ps.moveListEnd;

    if (depth <= 1) {
        // Bulk counting; the evasion generator's moves are trusted as they stand.
        if (ps.inCheck)
            return u64(end - begin);
        // Only king moves, en passant and moves of pinned pieces can be illegal here;
        // without pins and en passant only the king's moves need a look.
        const int ksq = pos->kingSquare(pos->sideToMove);
        u64 n = u64(end - begin);
        if (ps.notPinned == ~0ULL && !ps.enPassantSquare) {
            for (moveStruct* m = begin; m < end; m++)
                if (m->from == ksq && !isLegal(pos, ply, *m))
                    n--;
            return n;
        }
        const bitboard careful = ~ps.notPinned | bb(ksq);
        for (moveStruct* m = begin; m < end; m++)
            if (((bb(m->from) & careful) || m->type == MT_ENPASSANT) && !isLegal(pos, ply, *m))
                n--;
        return n;
    }
    end = filterLegal(pos, ply, begin, end);
    ps.moveListEnd = end;
    pos->plyStack[ply + 1].moveListBegin = end;
    u64 nodes = 0;
    for (moveStruct* m = begin; m < end; m++) {
        makeMove(pos, ply, *m);
        nodes += perft(u8(ply + 1), depth - 1, pos);
        takeBack(pos, ply, *m);
    }
    return nodes;
}

bool runPerftFile(const std::string& path, std::ostream& out, int* testsRun) {
    std::ifstream in(path);
    if (!in) {
        out << "There seems to be a problem with the perftFile. check of the move generator not executed\n"
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
        unsigned long long expected = 0;
        bool ok = b != std::string::npos;
        if (ok) {
            try {
                size_t used;
                depth = std::stoi(line.substr(a + 1, b - a - 1), &used);
                expected = std::stoull(line.substr(b + 1), &used);
            } catch (const std::exception&) {
                ok = false;
            }
        }
        ok = ok && depth >= 1 && depth <= PERFT_MAX_DEPTH && setPosition(fen, pos.get(), &error);
        if (!ok) {
            out << "0; " << line << "; unreadable test line\n" << std::flush;
            allPassed = false;
            continue;
        }
        pos->bindMoveBuffer(buffer.data());
        auto t0 = std::chrono::steady_clock::now();
        u64 count = perft(0, depth, pos.get());
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
        bool pass = count == expected;
        allPassed &= pass;
        out << (pass ? 1 : 0) << "; " << fen << "; " << depth << "; " << expected << "; " << count << "; " << ns
            << "\n" << std::flush;
        if (testsRun)
            ++*testsRun;
    }
    out << "Results of the perft checks is OK: " << (allPassed ? 1 : 0) << "\n" << std::flush;
    return allPassed;
}
