// A small match runner for UCI engines: plays game pairs from an opening file (each
// opening with both colours), keeps the clocks, referees with our own board code and
// adjudicates clear wins and dead draws. Prints every result and the W/D/L total.
//
// quorvane_match --engine1 build/quorvane --engine2 /usr/games/glaurung --games 20
//                --tc 10+0.1 --openings ../shared/data/openings/openings.epd
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "board/bitboards.h"
#include "board/makemove.h"
#include "board/movegen.h"
#include "board/zobrist.h"

namespace {

i64 nowMsMatch() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch()).count();
}

// One engine process with pipes on its standard input and output.
class uciEngine {
public:
    explicit uciEngine(const std::string& path) {
        int in[2], out[2];
        if (pipe(in) || pipe(out))
            throw std::runtime_error("pipe failed");
        pid = fork();
        if (pid == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 2);
            close(in[1]);
            close(out[0]);
            execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        toEngine = in[1];
        fromEngine = out[0];
    }
    ~uciEngine() {
        send("quit");
        close(toEngine);
        for (int i = 0; i < 100 && waitpid(pid, nullptr, WNOHANG) == 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        close(fromEngine);
    }
    void send(const std::string& line) {
        std::string s = line + "\n";
        if (write(toEngine, s.data(), s.size()) < 0) {
        }
    }
    // Next line, or false after timeoutMs without one (or at end of output).
    bool readLine(std::string& line, int timeoutMs) {
        i64 deadline = nowMsMatch() + timeoutMs;
        for (;;) {
            size_t nl = buffer.find('\n');
            if (nl != std::string::npos) {
                line = buffer.substr(0, nl);
                if (!line.empty() && line.back() == '\r')
                    line.pop_back();
                buffer.erase(0, nl + 1);
                return true;
            }
            int left = int(deadline - nowMsMatch());
            if (left <= 0)
                return false;
            pollfd p{fromEngine, POLLIN, 0};
            if (poll(&p, 1, left) <= 0)
                return false;
            char chunk[4096];
            ssize_t n = read(fromEngine, chunk, sizeof chunk);
            if (n <= 0)
                return false;
            buffer.append(chunk, size_t(n));
        }
    }
    bool waitFor(const std::string& word, int timeoutMs) {
        std::string line;
        while (readLine(line, timeoutMs))
            if (line.rfind(word, 0) == 0)
                return true;
        return false;
    }

private:
    pid_t pid = -1;
    int toEngine = -1, fromEngine = -1;
    std::string buffer;
};

struct settingsStruct {
    std::string engine[2];
    int games = 20;
    int baseMs = 10000, incMs = 100;
    int hashMB = 64;
    int concurrency = 1;
    std::string openings = "../shared/data/openings/openings.epd";
};

enum gameResult { WHITE_WINS, BLACK_WINS, DRAW };

struct gameStruct {
    gameResult result;
    std::string reason;
};

// Plays one game; engine e[0] is White.
gameStruct playGame(const settingsStruct& st, const std::string& fen, uciEngine* e[2]) {
    auto pos = std::make_unique<positionStruct>();
    std::vector<moveStruct> buf(MOVE_BUFFER);
    setPosition(fen, pos.get());
    pos->bindMoveBuffer(buf.data());
    std::string moves;
    i64 clock[2] = {st.baseMs, st.baseMs};
    int bigScorePlies = 0, drawScorePlies = 0;

    for (int c = 0; c < 2; c++) {
        e[c]->send("ucinewgame");
        e[c]->send("isready");
        e[c]->waitFor("readyok", 10000);
    }
    for (int ply = 0; ply < 400; ply++) {
        int side = pos->sideToMove;
        uciEngine* eng = e[side];
        eng->send("position fen " + fen + (moves.empty() ? "" : " moves" + moves));
        eng->send("go wtime " + std::to_string(clock[0]) + " btime " + std::to_string(clock[1]) + " winc "
                  + std::to_string(st.incMs) + " binc " + std::to_string(st.incMs));
        i64 start = nowMsMatch();
        std::string line, best;
        int score = 0;
        bool haveScore = false;
        while (eng->readLine(line, int(clock[side] + 5000))) {
            std::istringstream s(line);
            std::string tok;
            s >> tok;
            if (tok == "bestmove") {
                s >> best;
                break;
            }
            while (s >> tok)
                if (tok == "score") {
                    std::string kind;
                    s >> kind >> score;
                    if (kind == "mate")
                        score = score > 0 ? 30000 - score : -30000 - score;
                    haveScore = true;
                }
        }
        clock[side] -= nowMsMatch() - start;
        gameResult loss = side == WHITE ? BLACK_WINS : WHITE_WINS;
        if (best.empty())
            return {loss, "no move (crash or hang)"};
        if (clock[side] < 0)
            return {loss, "time forfeit"};
        clock[side] += st.incMs;

        setInCheck(0, pos.get());
        generateMovesLegal(0, buf.data(), pos.get());
        moveStruct* found = nullptr;
        for (moveStruct* m = buf.data(); m < pos->plyStack[0].moveListEnd; m++)
            if (moveToLA(m, pos->sideToMove) == best)
                found = m;
        if (!found)
            return {loss, "illegal move " + best};
        makeMove(pos.get(), 0, *found);
        pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
        pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
        moves += " " + best;

        // Game end by the rules.
        setInCheck(0, pos.get());
        generateMovesLegal(0, buf.data(), pos.get());
        if (pos->plyStack[0].moveListEnd == buf.data())
            return pos->plyStack[0].inCheck ? gameStruct{side == WHITE ? WHITE_WINS : BLACK_WINS, "checkmate"}
                                            : gameStruct{DRAW, "stalemate"};
        if (pos->halfMoveClock >= 100)
            return {DRAW, "fifty moves"};
        int reps = 0;
        for (int i = pos->gamePly - 1; i >= 0 && i >= pos->gamePly - 1 - pos->halfMoveClock; i--)
            reps += pos->keyHistory[i] == pos->hashKey;
        if (reps >= 3)
            return {DRAW, "threefold repetition"};
        bitboard heavy = pos->bitboards[WPAWN] | pos->bitboards[BPAWN] | pos->bitboards[WROOK]
                       | pos->bitboards[BROOK] | pos->bitboards[WQUEEN] | pos->bitboards[BQUEEN];
        if (!heavy && popCount(pos->occupied()) <= 3)
            return {DRAW, "insufficient material"};

        // Adjudication on the movers' own scores.
        if (haveScore) {
            bigScorePlies = std::abs(score) >= 1000 ? bigScorePlies + 1 : 0;
            drawScorePlies = std::abs(score) <= 10 ? drawScorePlies + 1 : 0;
            int whiteView = side == WHITE ? score : -score;
            if (bigScorePlies >= 8)
                return {whiteView > 0 ? WHITE_WINS : BLACK_WINS, "adjudicated win"};
            if (ply >= 80 && drawScorePlies >= 12)
                return {DRAW, "adjudicated draw"};
        }
    }
    return {DRAW, "move limit"};
}

}  // namespace

int main(int argc, char** argv) {
    settingsStruct st;
    st.engine[1] = "/usr/games/glaurung";
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string k = argv[i], v = argv[i + 1];
        if (k == "--engine1")
            st.engine[0] = v;
        else if (k == "--engine2")
            st.engine[1] = v;
        else if (k == "--games")
            st.games = std::stoi(v);
        else if (k == "--tc") {
            size_t plus = v.find('+');
            st.baseMs = int(std::stod(v.substr(0, plus)) * 1000);
            st.incMs = plus == std::string::npos ? 0 : int(std::stod(v.substr(plus + 1)) * 1000);
        } else if (k == "--openings")
            st.openings = v;
        else if (k == "--hash")
            st.hashMB = std::stoi(v);
        else if (k == "--concurrency")
            st.concurrency = std::stoi(v);
    }
    if (st.engine[0].empty()) {
        std::cerr << "usage: quorvane_match --engine1 PATH --engine2 PATH [--games N] [--tc 10+0.1]"
                     " [--openings FILE] [--hash MB] [--concurrency N]\n";
        return 2;
    }
    initBitboardConstants();
    initHashCodeTables();
    std::vector<std::string> openings;
    std::ifstream in(st.openings);
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            openings.push_back(line);
    if (openings.empty())
        openings.push_back(fenStartPos);

    std::atomic<int> next{0};
    std::mutex mtx;
    int wins = 0, draws = 0, losses = 0;
    auto runner = [&] {
        for (int g; (g = next++) < st.games;) {
            std::unique_ptr<uciEngine> eng[2];
            for (int c = 0; c < 2; c++) {
                eng[c] = std::make_unique<uciEngine>(st.engine[c]);
                eng[c]->send("uci");
                eng[c]->waitFor("uciok", 10000);
                eng[c]->send("setoption name Hash value " + std::to_string(st.hashMB));
                eng[c]->send("setoption name Threads value 1");
            }
            // Game pairs: the same opening with colours reversed.
            bool firstIsWhite = g % 2 == 0;
            uciEngine* players[2] = {firstIsWhite ? eng[0].get() : eng[1].get(),
                                     firstIsWhite ? eng[1].get() : eng[0].get()};
            const std::string& fen = openings[size_t(g / 2) % openings.size()];
            gameStruct r = playGame(st, fen, players);
            std::lock_guard<std::mutex> lock(mtx);
            const char* text = r.result == DRAW ? "1/2-1/2" : r.result == WHITE_WINS ? "1-0" : "0-1";
            bool firstWon = (r.result == WHITE_WINS) == firstIsWhite && r.result != DRAW;
            if (r.result == DRAW)
                draws++;
            else if (firstWon)
                wins++;
            else
                losses++;
            std::printf("game %d: engine1 %s, %s (%s)  [W %d D %d L %d]\n", g + 1, firstIsWhite ? "white" : "black",
                        text, r.reason.c_str(), wins, draws, losses);
            std::fflush(stdout);
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < std::max(1, st.concurrency); t++)
        threads.emplace_back(runner);
    for (auto& t : threads)
        t.join();
    double n = wins + draws + losses, score = n ? (wins + 0.5 * draws) / n : 0.5;
    double elo = score <= 0 || score >= 1 ? (score <= 0 ? -999 : 999) : -400 * std::log10(1 / score - 1);
    std::printf("engine1 vs engine2: W %d D %d L %d, score %.1f%%, Elo %+.0f\n", wins, draws, losses, 100 * score,
                elo);
    return 0;
}
