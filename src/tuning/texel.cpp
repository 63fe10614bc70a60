#include "tuning/texel.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <ostream>
#include <sstream>

#include "eval/evaluate.h"

std::vector<texelPosStruct> texelPositions;
texelWorkForce theTexelWorkForce;

bool loadTexelPositions(const std::string& path, std::vector<texelPosStruct>& into, int& skipped,
                        std::vector<float>* labels) {
    std::ifstream in(path);
    if (!in)
        return false;
    auto scratch = std::make_unique<positionStruct>();
    skipped = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string fen, word;
        bool labelled = false;
        while (words >> word) {
            if (word == "c9") {
                labelled = true;
                break;
            }
            fen += word + " ";
        }
        if (!labelled || !setPosition(fen, scratch.get())) {
            skipped += !line.empty();
            continue;
        }
        std::string result;
        words >> result;
        const std::string code = result.size() >= 4 ? result.substr(1, 3) : "";
        into.push_back({fen, code == "1-0" ? 1.0 : code == "1/2" ? 0.5 : 0.0, 0});
        if (labels) {
            float label = std::numeric_limits<float>::quiet_NaN();
            while (words >> word)
                if (word == LABEL_OPCODE && words >> word) {
                    label = std::strtof(word.c_str(), nullptr);
                    break;
                }
            labels->push_back(label);
        }
    }
    return true;
}

texelWorker::texelWorker(int idx, std::ostream& stream) : index(idx), out(&stream) {
    thread = std::thread(&texelWorker::atTheOffice, this);
}

texelWorker::~texelWorker() {
    if (thread.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stop = true;
            busy = true;
        }
        wakeUp.notify_all();
        thread.join();
    }
}

// The thread's body: reports once, then parks until the work force sets busy, works and
// clears busy again; woken with stop set, it ends.
void texelWorker::atTheOffice() {
    *out << "Lets go\n" << std::flush;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        busy = false;
        wakeUp.notify_all();
        wakeUp.wait(lock, [this] { return busy; });
        if (stop)
            return;
        lock.unlock();
        calcTexelPosSubset();
        lock.lock();
    }
}

void texelWorker::calcTexelPosSubset() {
    double sum = 0;
    for (const texelPosStruct& tp : positions) {
        setPosition(tp.fen, pos);
        int e = evaluateN(0, pos);
        e = i16(pos->sideToMove == WHITE ? e : -e);
        const double p = 1.0 / (1.0 + std::pow(10.0, e * TEXEL_SCALE / -400.0));
        sum += (tp.result - p) * (tp.result - p);
    }
    errorSum = sum;
}

texelWorkForce::~texelWorkForce() {
    dismiss();
}

void texelWorkForce::hire(int count, std::ostream& out) {
    for (int i = 0; i < count; i++) {
        auto worker = std::make_unique<texelWorker>(i, out);
        {
            std::unique_lock<std::mutex> lock(worker->mutex);
            worker->wakeUp.wait(lock, [&] { return !worker->busy; });
        }
        workers.push_back(std::move(worker));
    }
}

void texelWorkForce::dismiss() {
    workers.clear();
}

double texelWorkForce::calcTexelError() {
    for (auto& w : workers) {
        {
            std::lock_guard<std::mutex> lock(w->mutex);
            w->busy = true;
        }
        w->wakeUp.notify_all();
    }
    double sum = 0;
    for (auto& w : workers) {
        std::unique_lock<std::mutex> lock(w->mutex);
        w->wakeUp.wait(lock, [&] { return !w->busy; });
        sum += w->errorSum;
    }
    if (texelPositions.empty())
        return std::numeric_limits<double>::quiet_NaN();
    return sum / double(texelPositions.size());
}

texelResultStruct runTexel(const std::string& path, std::ostream& out) {
    std::vector<texelPosStruct> loaded;
    int skipped = 0;
    if (!loadTexelPositions(path, loaded, skipped)) {
        out << "There seems to be a problem with the tuning file. tuning not executed\n"
            << std::flush;
        return {false, 0, 0};
    }
    if (skipped)
        out << "info string " << skipped
            << " lines without a valid FEN and \"c9\" result skipped\n";
    if (loaded.empty())
        out << "info string the tuning file holds no labelled positions, the errors are not "
               "numbers\n";
    out << std::flush;

    // A second run starts from scratch rather than piling up workers and positions.
    theTexelWorkForce.dismiss();
    texelPositions = std::move(loaded);
    theTexelWorkForce.hire(TEXEL_WORKERS, out);

    const size_t share = texelPositions.size() / TEXEL_WORKERS;
    for (int i = 0; i < TEXEL_WORKERS; i++) {
        auto first = texelPositions.begin() + std::ptrdiff_t(i * share);
        auto last = i == TEXEL_WORKERS - 1 ? texelPositions.end() : first + std::ptrdiff_t(share);
        theTexelWorkForce.workers[i]->positions.assign(first, last);
    }

    out << "Starting texel tuning....\n" << std::flush;
    const double startError = theTexelWorkForce.calcTexelError();
    out << "Starting error " << startError << "\n\n Improving: " << 1 << "\n" << std::flush;
    const double endError = theTexelWorkForce.calcTexelError();
    out << "Ending error " << endError << " Minimum error " << startError << "\n" << std::flush;
    return {true, startError, endError};
}
