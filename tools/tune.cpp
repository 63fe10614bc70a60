// quorvane_tune: fits the open evaluation tables (piece-square values, the lower passed-pawn
// rows, the middle shield rows and the pawn storm) to game results, to a stronger engine's
// scores or to a blend of the two by gradient descent on the Texel loss, and writes them
// back into src/eval/weights.cpp.
//
// It is built from the engine's own sources with QUORVANE_TUNING_BUILD, which makes the
// tuned tables and the outpost rule writable. The coefficients come from the traced
// evaluation (every use of a tuned entry, the score before the initiative, the shield
// halving), so the model below reproduces evaluateN to the centipawn; every epoch the
// rounded values are written into the tables and the real evaluateN is run over all
// positions, which gives the reported errors and checks the model against it.
//
// Steps:
//  1. Load the labelled files; every tenth block of up to 256 positions is validation data.
//  2. Leave out the positions that are not quiet: those whose quiescence score differs
//     from their static evaluation.
//  3. Fit K on the untouched evaluation, then hold it. With labels, the target becomes
//     lambda * result + (1 - lambda) * sigmoid(K, label): a game result is a weak verdict on
//     one position, a stronger engine's score judges the position itself.
//  4. Measure each outpost rule with the real evaluation and keep the best.
//  5. Trace every position, then run Adam over mini-batches; report per epoch.
//  6. Write the tables with the best validation error.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "board/bitboards.h"
#include "board/movegen.h"
#include "board/zobrist.h"
#include "eval/evaluate.h"
#include "eval/weights.h"
#include "search/search.h"
#include "search/tt.h"
#include "tuning/texel.h"
#include "tuning/weightsfile.h"

namespace {

// The tuned entries in one index space: piece-square, passed, shield, storm.
constexpr int PSQ_BASE = 0, PASSED_BASE = 384, SHIELD_BASE = 448, STORM_BASE = 512;
constexpr int ENTRIES = 768;
constexpr int PHASE_RANGE = EVALPHASEMAX - EVALPHASEMIN;

struct tableRef {
    const char* name;
    i32* values;
    int base, size;
};
const tableRef TABLES[] = {
    {"pieceSquareScore", pieceSquareScore, PSQ_BASE, 384},
    {"EVALPAWNPASSED", EVALPAWNPASSED, PASSED_BASE, 64},
    {"EVALPAWNSHIELD", EVALPAWNSHIELD, SHIELD_BASE, 64},
    {"EVALPAWNSTORM", EVALPAWNSTORM, STORM_BASE, 256},
};

int entryOf(const tunedUseStruct& u) {
    const int base[] = {PSQ_BASE, PASSED_BASE, SHIELD_BASE, STORM_BASE};
    return base[u.table] + u.entry;
}

// Which halves (0 = mg, 1 = eg) of each entry are open. The others are fixed weights.
bool isOpen(int e, int half) {
    if (e < PASSED_BASE) {
        const int piece = e / 64, i = e % 64;
        switch (piece) {
            case 0:
                return i >= 8 && i < 56;  // pawns: never on the 1st or 8th rank
            case 1:
                return i < 56 || half == 1;  // knight back rank: middlegame fixed
            case 5:
                return i < 56;  // king back rank fixed
            default:
                return true;
        }
    }
    if (e < SHIELD_BASE)
        return e - PASSED_BASE >= 24 && e - PASSED_BASE < 56;  // ranks 2..5
    if (e < STORM_BASE)
        return half == 0 && e - SHIELD_BASE >= 16 && e - SHIELD_BASE < 40;  // ranks 4..6, mg
    return true;
}

struct options {
    std::vector<std::string> data;
    std::string weights = "src/eval/weights.cpp";
    std::string out;
    std::string from;    // start from the tables of this weights source
    int startRule = -1;  // outpost rule to start from, -1 = OUTPOST_RULE
    int epochs = 10;
    int threads = 2;
    int batch = 8192;
    double lr = 1.0;
    double decay = 0.8;  // step size factor per epoch
    double l2 = 0;       // pull of each value toward its starting value, per centipawn squared
    int minUses = 30;    // entries used by fewer training positions stay as they are
    int limit = 0;       // positions per file, 0 = all
    bool outpostSearch = true;
    bool keepLast = false;  // write the last epoch's values, not the best on validation
    bool mirror = false;    // an entry and its twin on the mirrored file move together
    double k = 0;           // 0 = fit it
    bool kPerFile = true;   // each file its own K: the players of its games set the scale
    bool balance = true;    // each file weighs the same in the loss
    double lambda = 1;      // weight of the game result in the target; the label has the rest
};

struct sample {
    std::string fen;
    double result;  // the target: the game result, or its blend with the label
    float label;   // White's centipawns from the label, when the target uses it
    u8 file;
    bool validation;
    bool quiet = true;
    // Filled by the trace.
    i32 fixedMg = 0, fixedEg = 0;  // the score before initiative without the tuned entries
    i16 complexity = 0;
    i16 phase = 0;  // clamped, minus EVALPHASEMIN
    i8 tempo = 0;   // +1 White to move, -1 Black
    u8 halved = 0;  // bit c: colour c's shield sum is halved
    u32 firstUse = 0;
    u8 useCount = 0;
};

struct use {
    u16 entry;
    i8 sign;  // +1 White, -1 Black
};

// Runs f(begin, end, thread) over [0, n) on the given number of threads.
void parallelFor(size_t n, int threads, const std::function<void(size_t, size_t, int)>& f) {
    std::vector<std::thread> pool;
    const size_t chunk = (n + size_t(threads) - 1) / size_t(threads);
    for (int t = 0; t < threads; t++) {
        const size_t b = std::min(n, size_t(t) * chunk), e = std::min(n, b + chunk);
        pool.emplace_back(f, b, e, t);
    }
    for (auto& th : pool)
        th.join();
}

double sigmoid(double k, double v) { return 1.0 / (1.0 + std::pow(10.0, -k * v / 400.0)); }

class tuner {
public:
    explicit tuner(const options& o) : opt(o) {
        for (int t = 0; t < opt.threads; t++) {
            positions.push_back(std::make_unique<positionStruct>());
            tables.push_back(std::make_unique<searchTablesStruct>());
        }
        for (const tableRef& t : TABLES)
            for (int i = 0; i < t.size; i++) {
                start[t.base + i][0] = mgOf(t.values[i]);
                start[t.base + i][1] = egOf(t.values[i]);
            }
        std::copy(&start[0][0], &start[0][0] + 2 * ENTRIES, &param[0][0]);
    }

    bool readStart();
    bool load();
    void filterQuiet();
    void fitK();
    // Replaces each result by the target blended from it and the label.
    void setTarget();
    void chooseOutpostRule();
    void trace();
    void train();
    bool write() const;

private:
    // Real evaluateN on the current tables, White's view, for every sample.
    std::vector<int> realEvals(bool all);
    // Texel error over a subset of real evaluations with scale k.
    // scale > 0 replaces each file's K and weighs every position alike.
    double errorOf(const std::vector<int>& evals, int file, int validation, bool quietOnly,
                   double scale = 0) const;
    void setTables(const double (*p)[2]) const;
    void report(int epoch, double seconds, bool final);
    void mirrorGradients(std::vector<std::vector<double>>& grads) const;
    // Per file: the errors on its quiet training and validation positions with its own K
    // and with the texel command's, and on every position as that command measures it.
    void printFileErrors(const std::vector<int>& evals) const;

    options opt;
    std::vector<sample> samples;
    std::vector<use> uses;
    std::vector<size_t> train_, valid_;
    std::vector<std::unique_ptr<positionStruct>> positions;
    std::vector<std::unique_ptr<searchTablesStruct>> tables;
    std::vector<double> k;       // logistic scale per file
    std::vector<double> weight;  // loss weight of one position, per file
    double start[ENTRIES][2];
    double param[ENTRIES][2];
    double best[ENTRIES][2];
    double bestValid = 1e9;
    bool open[ENTRIES][2];
};

// Reads each file's positions (with their labels when the target uses them) into samples;
// every tenth block of neighbouring positions goes to validation.
bool tuner::load() {
    for (size_t f = 0; f < opt.data.size(); f++) {
        std::vector<texelPosStruct> loaded;
        std::vector<float> labels;
        int skipped = 0;
        if (!loadTexelPositions(opt.data[f], loaded, skipped, opt.lambda < 1 ? &labels : nullptr)) {
            std::fprintf(stderr, "cannot read %s\n", opt.data[f].c_str());
            return false;
        }
        if (opt.limit && loaded.size() > size_t(opt.limit))
            loaded.resize(size_t(opt.limit));
        // Blocks of neighbouring positions, mostly from one game, stay together.
        const size_t block = std::clamp<size_t>(loaded.size() / 100, 1, 256);
        size_t unlabelled = 0;
        for (size_t i = 0; i < loaded.size(); i++) {
            const float label = opt.lambda < 1 ? labels[i] : 0;
            if (std::isnan(label)) {
                unlabelled++;
                continue;
            }
            samples.push_back({loaded[i].fen, loaded[i].result, label, u8(f),
                               (i / block) % 10 == 9});
        }
        std::printf("%s: %zu positions (%d lines skipped", opt.data[f].c_str(),
                    loaded.size() - unlabelled, skipped);
        if (opt.lambda < 1)
            std::printf(", %zu without a \"%s\" label left out", unlabelled, LABEL_OPCODE);
        std::printf(")\n");
    }
    return !samples.empty();
}

void tuner::setTarget() {
    if (opt.lambda >= 1)
        return;
    std::vector<double> agreement(opt.data.size(), 0), count(opt.data.size(), 0);
    for (sample& s : samples) {
        const double expected = sigmoid(k[s.file], s.label);
        agreement[s.file] += (s.result - expected) * (s.result - expected);
        count[s.file]++;
        s.result = opt.lambda * s.result + (1 - opt.lambda) * expected;
    }
    std::printf("target: %.2f * result + %.2f * sigmoid(K, label)\n", opt.lambda, 1 - opt.lambda);
    for (size_t f = 0; f < opt.data.size(); f++)
        std::printf("texel error of the labels against the results of %s: %.6f\n",
                    opt.data[f].c_str(), count[f] ? agreement[f] / count[f] : 0);
    printFileErrors(realEvals(true));
}

void tuner::filterQuiet() {
    resizeHashTable(hashBucketsForMB(1));
    parallelFor(samples.size(), opt.threads, [&](size_t b, size_t e, int t) {
        positionStruct* pos = positions[size_t(t)].get();
        for (size_t i = b; i < e; i++) {
            setPosition(samples[i].fen, pos);
            tables[size_t(t)]->bind(pos);
            setInCheck(0, pos);
            const int q = quiescence(0, 0, -INF_SCORE, INF_SCORE, pos);
            samples[i].quiet = !pos->plyStack[0].inCheck && q == evaluateN(0, pos);
        }
    });
    size_t noisy = 0;
    for (size_t i = 0; i < samples.size(); i++) {
        if (!samples[i].quiet) {
            noisy++;
            continue;
        }
        (samples[i].validation ? valid_ : train_).push_back(i);
    }
    std::printf(
        "left out %zu positions that are not quiet; %zu for training, %zu for "
        "validation\n",
        noisy, train_.size(), valid_.size());
}

std::vector<int> tuner::realEvals(bool all) {
    std::vector<int> evals(samples.size(), 0);
    parallelFor(samples.size(), opt.threads, [&](size_t b, size_t e, int t) {
        positionStruct* pos = positions[size_t(t)].get();
        for (size_t i = b; i < e; i++) {
            if (!all && !samples[i].quiet)
                continue;
            setPosition(samples[i].fen, pos);
            pos->evalCache = nullptr;
            pos->pawnCache = nullptr;
            const int v = evaluateN(0, pos);
            evals[i] = i16(pos->sideToMove == WHITE ? v : -v);
        }
    });
    return evals;
}

// file < 0: all files; validation < 0: both parts.
double tuner::errorOf(const std::vector<int>& evals, int file, int validation, bool quietOnly,
                      double scale) const {
    double sum = 0, n = 0;
    for (size_t i = 0; i < samples.size(); i++) {
        const sample& s = samples[i];
        if ((file >= 0 && s.file != file) || (validation >= 0 && s.validation != bool(validation))
            || (quietOnly && !s.quiet))
            continue;
        const double d = s.result - sigmoid(scale > 0 ? scale : k[s.file], evals[i]);
        const double w = scale > 0 ? 1.0 : weight[s.file];
        sum += w * d * d;
        n += w;
    }
    return n ? sum / n : 0;
}

// Minimum of f over [a, b] by golden-section search.
double goldenSection(const std::function<double(double)>& f, double a, double b) {
    const double g = (std::sqrt(5.0) - 1) / 2;
    double c = b - g * (b - a), d = a + g * (b - a), fc = f(c), fd = f(d);
    while (b - a > 1e-4) {
        if (fc < fd)
            b = d, d = c, fd = fc, c = b - g * (b - a), fc = f(c);
        else
            a = c, c = d, fc = fd, d = a + g * (b - a), fd = f(d);
    }
    return (a + b) / 2;
}

void tuner::fitK() {
    const std::vector<int> evals = realEvals(true);
    const size_t files = opt.data.size();
    for (size_t f = 0; f < files; f++)
        std::printf("texel error (K = %.2f, every position, as the texel command) of %s: %.6f\n",
                    TEXEL_SCALE, opt.data[f].c_str(),
                    errorOf(evals, int(f), -1, false, TEXEL_SCALE));
    std::vector<double> count(files, 0);
    for (size_t i : train_)
        count[samples[i].file]++;
    weight.assign(files, 1.0);
    if (opt.balance)
        for (size_t f = 0; f < files; f++)
            weight[f] = count[f] > 0 ? double(train_.size()) / (double(files) * count[f]) : 0;
    k.assign(files, opt.k);
    if (opt.k > 0) {
        // given
    } else if (opt.kPerFile) {
        for (size_t f = 0; f < files; f++)
            k[f] = goldenSection(
                [&](double x) {
                    k[f] = x;
                    return errorOf(evals, int(f), 0, true);
                },
                0.3, 4.0);
    } else {
        const double x = goldenSection(
            [&](double y) {
                k.assign(files, y);
                return errorOf(evals, -1, 0, true);
            },
            0.3, 4.0);
        k.assign(files, x);
    }
    for (size_t f = 0; f < files; f++)
        std::printf("K = %.4f, weight %.3f for %s\n", k[f], weight[f], opt.data[f].c_str());
    printFileErrors(evals);
}

void tuner::printFileErrors(const std::vector<int>& evals) const {
    for (size_t f = 0; f < opt.data.size(); f++) {
        const int i = int(f);
        std::printf(
            "%s: training %.6f, validation %.6f; with K = %.2f: training %.6f, "
            "validation %.6f, every position %.6f\n",
            opt.data[f].c_str(), errorOf(evals, i, 0, true), errorOf(evals, i, 1, true),
            TEXEL_SCALE, errorOf(evals, i, 0, true, TEXEL_SCALE),
            errorOf(evals, i, 1, true, TEXEL_SCALE), errorOf(evals, i, -1, false, TEXEL_SCALE));
    }
}

void tuner::chooseOutpostRule() {
    if (!opt.outpostSearch)
        return;
    static const char* const names[OUTPOST_RULE_COUNT] = {
        "defended by an own pawn", "defended, no enemy knight or same-coloured bishop",
        "on the relative 5th or 6th rank", "defended and on the relative 5th or 6th rank",
        "defended and on files c-f"};
    int bestRule = outpostRule;
    double bestError = 1e9;
    for (int rule = 0; rule < OUTPOST_RULE_COUNT; rule++) {
        outpostRule = rule;
        const std::vector<int> evals = realEvals(false);
        const double e = errorOf(evals, -1, 0, true);
        std::printf("outpost rule %d (%s): training error %.7f, validation error %.7f\n", rule,
                    names[rule], e, errorOf(evals, -1, 1, true));
        if (e < bestError)
            bestError = e, bestRule = rule;
    }
    outpostRule = bestRule;
    std::printf("outpost rule chosen: %d (%s)%s\n", bestRule, names[bestRule],
                bestRule == OUTPOST_RULE ? "" : " -- set OUTPOST_RULE in src/eval/weights.h");
}

void tuner::trace() {
    std::vector<std::vector<use>> perSample(samples.size());
    parallelFor(samples.size(), opt.threads, [&](size_t b, size_t e, int t) {
        positionStruct* pos = positions[size_t(t)].get();
        auto tr = std::make_unique<evalTraceStruct>();
        for (size_t i = b; i < e; i++) {
            sample& s = samples[i];
            if (!s.quiet)
                continue;
            setPosition(s.fen, pos);
            evaluateTraced(pos, tr.get());
            s.complexity = i16(tr->complexity);
            s.phase = i16(std::clamp<int>(tr->phase, EVALPHASEMIN, EVALPHASEMAX) - EVALPHASEMIN);
            s.tempo = pos->sideToMove == WHITE ? 1 : -1;
            s.halved = u8(tr->shieldHalved[WHITE] | tr->shieldHalved[BLACK] << 1);
            int shield[2] = {0, 0}, mg = 0, eg = 0;
            for (int u = 0; u < tr->useCount; u++) {
                const int entry = entryOf(tr->uses[u]);
                const int c = tr->uses[u].colour, sign = c == WHITE ? 1 : -1;
                perSample[i].push_back({u16(entry), i8(sign)});
                const i32 v = S(int(start[entry][0]), int(start[entry][1]));
                if (tr->uses[u].table == TUNED_SHIELD)
                    shield[c] += mgOf(v);
                else
                    mg += sign * mgOf(v), eg += sign * egOf(v);
            }
            for (int c = WHITE; c <= BLACK; c++)
                mg += (c == WHITE ? 1 : -1) * ((s.halved >> c & 1) ? shield[c] / 2 : shield[c]);
            s.fixedMg = mgOf(tr->beforeInitiative) - mg;
            s.fixedEg = egOf(tr->beforeInitiative) - eg;
        }
    });
    int count[ENTRIES] = {};
    for (size_t i = 0; i < samples.size(); i++) {
        samples[i].firstUse = u32(uses.size());
        samples[i].useCount = u8(perSample[i].size());
        for (const use& u : perSample[i])
            uses.push_back(u);
        if (!samples[i].validation)
            for (const use& u : perSample[i])
                count[u.entry]++;
    }
    int openCount = 0;
    for (int e = 0; e < ENTRIES; e++)
        for (int h = 0; h < 2; h++) {
            open[e][h] = isOpen(e, h) && count[e] >= opt.minUses;
            openCount += open[e][h];
        }
    std::printf("%d values open (entries used by fewer than %d training positions stay)\n",
                openCount, opt.minUses);
}

void tuner::setTables(const double (*p)[2]) const {
    for (const tableRef& t : TABLES)
        for (int i = 0; i < t.size; i++)
            t.values[i] = S(int(std::lround(p[t.base + i][0])), int(std::lround(p[t.base + i][1])));
}

struct modelOut {
    double v;    // White's view
    double dmg;  // dv / d(mg sum)
    double deg;  // dv / d(eg sum)
};

// The evaluation of s with the values p, as evaluateN computes it. Integer values with
// exact = true reproduce evaluateN's result; otherwise it is the smooth version with the
// derivatives of the result by the middlegame and endgame sums.
modelOut evalModel(const sample& s, const use* u, const double (*p)[2], bool exact) {
    double mg = s.fixedMg, eg = s.fixedEg, shield[2] = {0, 0};
    for (int i = 0; i < s.useCount; i++) {
        const int e = u[i].entry;
        if (e >= SHIELD_BASE && e < STORM_BASE) {
            shield[u[i].sign > 0 ? 0 : 1] += p[e][0];
        } else {
            mg += u[i].sign * p[e][0];
            eg += u[i].sign * p[e][1];
        }
    }
    for (int c = 0; c < 2; c++) {
        double sh = shield[c];
        if (s.halved >> c & 1)
            sh = exact ? double(int(sh) / 2) : sh / 2;
        mg += c == 0 ? sh : -sh;
    }
    const int sign = (eg > 0) - (eg < 0);
    const bool grows = s.complexity > -std::abs(eg);
    eg += sign * (grows ? s.complexity : -std::abs(eg));
    mg += s.tempo * mgOf(EVALTEMPO);
    eg += s.tempo * egOf(EVALTEMPO);
    modelOut o;
    if (exact) {
        const int v = int((int(mg) * s.phase + int(eg) * (PHASE_RANGE - s.phase)) / PHASE_RANGE);
        o.v = i16(v);
    } else {
        o.v = (mg * s.phase + eg * (PHASE_RANGE - s.phase)) / PHASE_RANGE;
    }
    o.dmg = double(s.phase) / PHASE_RANGE;
    o.deg = (grows || sign == 0) ? double(PHASE_RANGE - s.phase) / PHASE_RANGE : 0;
    return o;
}

void tuner::report(int epoch, double seconds, bool final) {
    double rounded[ENTRIES][2];
    for (int e = 0; e < ENTRIES; e++)
        for (int h = 0; h < 2; h++)
            rounded[e][h] = double(std::lround(param[e][h]));
    setTables(rounded);
    const std::vector<int> evals = realEvals(final);
    size_t mismatches = 0;
    for (size_t i = 0; i < samples.size(); i++)
        if (samples[i].quiet
            && int(evalModel(samples[i], &uses[samples[i].firstUse], rounded, true).v) != evals[i])
            mismatches++;
    const double tr = errorOf(evals, -1, 0, true), va = errorOf(evals, -1, 1, true);
    if (final)
        std::printf("kept     training %.6f  validation %.6f\n", tr, va);
    else
        std::printf("epoch %3d  training %.6f  validation %.6f  (%.0f s)\n", epoch, tr, va,
                    seconds);
    if (mismatches)
        std::printf("  the model differs from evaluateN on %zu positions\n", mismatches);
    if (opt.keepLast || valid_.empty() || va < bestValid) {
        bestValid = va;
        std::copy(&rounded[0][0], &rounded[0][0] + 2 * ENTRIES, &best[0][0]);
    }
    if (final)
        printFileErrors(evals);
    std::fflush(stdout);
}

// The entry on the mirrored file (a <-> h): square ^ 7 in the 64-square tables, the file
// index flipped in the storm's [kind][file][distance] layout.
int mirrorEntry(int e) { return e < STORM_BASE ? e ^ 7 : STORM_BASE + ((e - STORM_BASE) ^ 56); }

// --mirror: an open value and its open twin get the mean of their two gradients, so Adam
// moves them alike and the tables keep the asymmetry they started with, and add none.
void tuner::mirrorGradients(std::vector<std::vector<double>>& grads) const {
    for (int e = 0; e < ENTRIES; e++) {
        const int t = mirrorEntry(e);
        if (t <= e)
            continue;
        for (int h = 0; h < 2; h++) {
            if (!open[e][h] || !open[t][h])
                continue;
            for (auto& g : grads) {
                const double mean = (g[size_t(2 * e + h)] + g[size_t(2 * t + h)]) / 2;
                g[size_t(2 * e + h)] = g[size_t(2 * t + h)] = mean;
            }
        }
    }
}

void tuner::train() {
    const auto t0 = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    };
    report(0, 0, false);
    std::vector<double> m(2 * ENTRIES, 0), v(2 * ENTRIES, 0);
    const double b1 = 0.9, b2 = 0.999, eps = 1e-8;
    std::mt19937_64 rng(20240601);
    std::vector<size_t> order = train_;
    std::vector<std::vector<double>> grads(size_t(opt.threads), std::vector<double>(2 * ENTRIES));
    long step = 0;
    double lr = opt.lr;
    for (int epoch = 1; epoch <= opt.epochs; epoch++, lr *= opt.decay) {
        std::shuffle(order.begin(), order.end(), rng);
        for (size_t b = 0; b < order.size(); b += size_t(opt.batch)) {
            const size_t n = std::min(order.size() - b, size_t(opt.batch));
            parallelFor(n, opt.threads, [&](size_t lo, size_t hi, int t) {
                std::vector<double>& g = grads[size_t(t)];
                std::fill(g.begin(), g.end(), 0.0);
                for (size_t j = lo; j < hi; j++) {
                    const sample& s = samples[order[b + j]];
                    const use* u = &uses[s.firstUse];
                    const modelOut o = evalModel(s, u, param, false);
                    const double scale = k[s.file] * std::log(10.0) / 400.0;
                    const double p = 1.0 / (1.0 + std::exp(-scale * o.v));
                    const double dv = -2.0 * weight[s.file] * (s.result - p) * p * (1 - p) * scale;
                    const double dmg = dv * o.dmg, deg = dv * o.deg;
                    for (int i = 0; i < s.useCount; i++) {
                        const int e = u[i].entry;
                        if (e >= SHIELD_BASE && e < STORM_BASE) {
                            const bool half = s.halved >> (u[i].sign > 0 ? 0 : 1) & 1;
                            g[2 * e] += u[i].sign * dmg * (half ? 0.5 : 1.0);
                        } else {
                            g[2 * e] += u[i].sign * dmg;
                            g[2 * e + 1] += u[i].sign * deg;
                        }
                    }
                }
            });
            if (opt.mirror)
                mirrorGradients(grads);
            step++;
            const double c1 = 1 - std::pow(b1, double(step)), c2 = 1 - std::pow(b2, double(step));
            for (int i = 0; i < 2 * ENTRIES; i++) {
                if (!open[i / 2][i % 2])
                    continue;
                double g = 0;
                for (auto& gt : grads)
                    g += gt[size_t(i)];
                g = g / double(n) + 2 * opt.l2 * (param[i / 2][i % 2] - start[i / 2][i % 2]);
                m[size_t(i)] = b1 * m[size_t(i)] + (1 - b1) * g;
                v[size_t(i)] = b2 * v[size_t(i)] + (1 - b2) * g * g;
                param[i / 2][i % 2] -=
                    lr * (m[size_t(i)] / c1) / (std::sqrt(v[size_t(i)] / c2) + eps);
            }
        }
        report(epoch, elapsed(), false);
    }
    std::copy(&best[0][0], &best[0][0] + 2 * ENTRIES, &param[0][0]);
    if (!opt.keepLast)
        std::printf("best validation error %.6f\n", bestValid);
    report(opt.epochs, elapsed(), true);
}

bool readFile(const std::string& path, std::string& text) {
    std::ifstream in(path);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    text = ss.str();
    return true;
}

// The text of table t in a weights source, from its name to its closing brace.
bool findTable(const std::string& text, const tableRef& t, const std::string& path, size_t& from,
               size_t& to) {
    from = text.find(std::string("i32 ") + t.name + "[");
    to = from == std::string::npos ? from : text.find("};", from);
    if (to == std::string::npos)
        std::fprintf(stderr, "%s not found in %s\n", t.name, path.c_str());
    return to != std::string::npos;
}

// Starts from the tables of another weights source (--from) instead of the built-in ones.
bool tuner::readStart() {
    if (opt.from.empty())
        return true;
    std::string text;
    if (!readFile(opt.from, text))
        return false;
    for (const tableRef& t : TABLES) {
        size_t from, to;
        if (!findTable(text, t, opt.from, from, to))
            return false;
        const auto pairs = weightPairsIn(text, from, to);
        int i = 0;
        for (; i < t.size && i < int(pairs.size()); i++) {
            start[t.base + i][0] = pairs[size_t(i)].mg;
            start[t.base + i][1] = pairs[size_t(i)].eg;
        }
        if (i != t.size) {
            std::fprintf(stderr, "%s: too few pairs in %s\n", t.name, opt.from.c_str());
            return false;
        }
    }
    std::copy(&start[0][0], &start[0][0] + 2 * ENTRIES, &param[0][0]);
    setTables(param);
    std::printf("starting from the tables of %s\n", opt.from.c_str());
    return true;
}

// Replaces the S(mg, eg) pairs of the four tables in the weights source, in order, and
// leaves every other character as it is.
bool tuner::write() const {
    std::string text;
    if (!readFile(opt.weights, text))
        return false;
    for (const tableRef& t : TABLES) {
        size_t from, to;
        if (!findTable(text, t, opt.weights, from, to))
            return false;
        const auto pairs = weightPairsIn(text, from, to);
        const int i = int(pairs.size());
        if (i > t.size)
            return false;
        std::string out;
        size_t last = from;
        for (int j = 0; j < i; j++) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "S(%3ld,%3ld)", std::lround(param[t.base + j][0]),
                          std::lround(param[t.base + j][1]));
            out += text.substr(last, pairs[size_t(j)].at - last) + buf;
            last = pairs[size_t(j)].at + pairs[size_t(j)].length;
        }
        if (i != t.size) {
            std::fprintf(stderr, "%s: %d pairs in %s, expected %d\n", t.name, i,
                         opt.weights.c_str(), t.size);
            return false;
        }
        out += text.substr(last, to - last);
        text.replace(from, to - from, out);
    }
    const std::string path = opt.out.empty() ? opt.weights : opt.out;
    std::ofstream(path) << text;
    std::printf("tables written to %s\n", path.c_str());
    return true;
}

void usage() {
    std::puts(
        "usage: quorvane_tune [options] FILE.epd...\n"
        "  --epochs N       passes over the training positions (10)\n"
        "  --threads N      worker threads (2)\n"
        "  --batch N        positions per Adam step (8192)\n"
        "  --lr X           Adam step size in centipawns (1.0)\n"
        "  --decay X        step size factor per epoch (0.8)\n"
        "  --l2 X           pull toward the starting values, per centipawn squared (0)\n"
        "  --min-uses N     entries used by fewer training positions stay fixed (30)\n"
        "  --limit N        read at most N positions per file\n"
        "  --k X            logistic scale instead of fitting it\n"
        "  --one-k          fit one K for all files, not one per file\n"
        "  --unbalanced     weigh every position alike, not every file alike\n"
        "  --last           write the last epoch's values, not the best on validation\n"
        "  --mirror         an entry and its twin on the mirrored file move together\n"
        "  --no-outpost     keep the outpost rule in use without measuring the others\n"
        "  --weights PATH   weights source to rewrite (src/eval/weights.cpp)\n"
        "  --from PATH      start from the tables of this weights source\n"
        "  --outpost-rule N start from this outpost rule, not the one in use\n"
        "  --out PATH       write there instead of over the weights source\n"
        "  --target T       fit to: result (the game's), score (the sigmoid of the \"wcp\" label\n"
        "                   with the fitted K) or blend (--lambda * result + the rest * score)\n"
        "  --lambda X       weight of the result in the blend (0.5)");
}

}  // namespace

int main(int argc, char** argv) {
    options opt;
    std::string target = "result";
    double lambda = 0.5;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--epochs")
            opt.epochs = std::stoi(next());
        else if (a == "--threads")
            opt.threads = std::max(1, std::stoi(next()));
        else if (a == "--batch")
            opt.batch = std::max(1, std::stoi(next()));
        else if (a == "--lr")
            opt.lr = std::stod(next());
        else if (a == "--decay")
            opt.decay = std::stod(next());
        else if (a == "--l2")
            opt.l2 = std::stod(next());
        else if (a == "--min-uses")
            opt.minUses = std::stoi(next());
        else if (a == "--limit")
            opt.limit = std::stoi(next());
        else if (a == "--k")
            opt.k = std::stod(next());
        else if (a == "--one-k")
            opt.kPerFile = false;
        else if (a == "--unbalanced")
            opt.balance = false;
        else if (a == "--last")
            opt.keepLast = true;
        else if (a == "--mirror")
            opt.mirror = true;
        else if (a == "--no-outpost")
            opt.outpostSearch = false;
        else if (a == "--weights")
            opt.weights = next();
        else if (a == "--outpost-rule")
            opt.startRule = std::clamp(std::stoi(next()), 0, OUTPOST_RULE_COUNT - 1);
        else if (a == "--from")
            opt.from = next();
        else if (a == "--out")
            opt.out = next();
        else if (a == "--target")
            target = next();
        else if (a == "--lambda")
            lambda = std::clamp(std::stod(next()), 0.0, 1.0);
        else if (a == "--help" || a == "-h" || a[0] == '-') {
            usage();
            return a[0] == '-' && a != "--help" && a != "-h" ? 2 : 0;
        } else
            opt.data.push_back(a);
    }
    if (opt.data.empty() || (target != "result" && target != "score" && target != "blend")) {
        usage();
        return 2;
    }
    opt.lambda = target == "result" ? 1.0 : target == "score" ? 0.0 : lambda;
    initBitboardConstants();
    initHashCodeTables();
    if (opt.startRule >= 0)
        outpostRule = opt.startRule;
    tuner t(opt);
    if (!t.readStart() || !t.load())
        return 1;
    t.filterQuiet();
    t.fitK();
    t.setTarget();
    t.chooseOutpostRule();
    t.trace();
    t.train();
    return t.write() ? 0 : 1;
}
