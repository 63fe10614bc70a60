// The "texel" command: the mean squared error between game results and a logistic
// function of the static evaluation over a file of labelled positions, spread over a
// pool of threads. It measures the current weights; it changes nothing.
#pragma once

#include <condition_variable>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "board/position.h"

struct texelPosStruct {
    std::string fen;
    double result;  // White's point of view: 1, 0.5 or 0
    i16 unused;
};

constexpr int TEXEL_WORKERS = 30;
// Logistic scale: 400 / TEXEL_SCALE centipawns per factor of ten in the odds.
constexpr double TEXEL_SCALE = 1.55;

// The label of an EPD line: "wcp N;" after the result, a stronger engine's score in
// centipawns from White's point of view.
constexpr const char* LABEL_OPCODE = "wcp";

// Reads "<FEN words> c9 "<result>";" lines into `into`. Lines without "c9" or with a FEN
// the board layer rejects are skipped and counted; a result other than 1-0 or 1/2 counts
// as 0-1. With `labels`, each kept line also adds its label there, NaN when it has none.
// False when the file cannot be opened.
bool loadTexelPositions(const std::string& path, std::vector<texelPosStruct>& into, int& skipped,
                        std::vector<float>* labels = nullptr);

extern std::vector<texelPosStruct> texelPositions;

// One tuning thread with its share of the positions. It parks on its condition variable
// while busy is false; busy is guarded by its mutex in both directions.
class texelWorker {
public:
    texelWorker(int index, std::ostream& out);
    virtual ~texelWorker();
    // Evaluates the own share and stores the sum of squared errors in errorSum.
    virtual void calcTexelPosSubset();

    int index;
    std::vector<texelPosStruct> positions;
    std::mutex mutex;
    std::condition_variable wakeUp;
    std::thread thread;
    bool stop = false;
    bool busy = true;
    double errorSum = 0;
    positionStruct position;
    positionStruct* pos = &position;

private:
    void atTheOffice();
    std::ostream* out;
};

class texelWorkForce {
public:
    virtual ~texelWorkForce();
    // Starts the workers one after the other, each after the previous one has reported.
    virtual void hire(int count, std::ostream& out);
    // Stops and joins every worker.
    virtual void dismiss();
    // Mean squared error over all of texelPositions; NaN when there are none.
    virtual double calcTexelError();

    std::vector<std::unique_ptr<texelWorker>> workers;
};

extern texelWorkForce theTexelWorkForce;

struct texelResultStruct {
    bool ran;  // false when the file could not be opened
    double startError;
    double endError;
};

// The command: loads `path`, hands the positions to TEXEL_WORKERS workers (the remainder
// of the split to the last one), measures the error twice and reports on out. The board
// and key tables must be filled.
texelResultStruct runTexel(const std::string& path, std::ostream& out);
