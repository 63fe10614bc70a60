#!/usr/bin/env python3
"""Labels EPD positions with a stronger engine's score for the tuner's --target option.

Every line holding a result ("<FEN> c9 "1-0";") gets " wcp N;" appended: the engine's score
in centipawns from White's point of view at a fixed depth (or node count), mate scores as
+-3000. Lines already labelled, and lines without a result, are copied unchanged.

    tools/label_epd.py --depth 8 --jobs 2 IN.epd OUT.epd
    tools/label_epd.py --engine /usr/games/stockfish --nodes 5000 IN.epd OUT.epd

Each job runs its own engine process (one thread, 16 MB table, cleared before every
position) on a contiguous share of the lines, so the labels do not depend on --jobs.
The output keeps the input's order.
"""
import argparse
import subprocess
import sys
import threading

MATE_CP = 3000


class Engine:
    def __init__(self, command):
        self.proc = subprocess.Popen([command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     text=True, bufsize=1)
        self.send("uci")
        self.wait("uciok")
        self.send("setoption name Threads value 1")
        self.send("setoption name Hash value 16")

    def send(self, line):
        self.proc.stdin.write(line + "\n")

    def wait(self, prefix):
        for line in self.proc.stdout:
            if line.startswith(prefix):
                return line
        raise RuntimeError("the engine ended before '%s'" % prefix)

    def score(self, fen, limit):
        """The side to move's score of the last search line: centipawns or +-MATE_CP."""
        self.send("ucinewgame")
        self.send("isready")
        self.wait("readyok")
        self.send("position fen " + fen)
        self.send("go " + limit)
        score = 0
        for line in self.proc.stdout:
            words = line.split()
            if words and words[0] == "bestmove":
                return score
            # Exact scores of the main line only: no bounds, no second lines.
            if words[:1] != ["info"] or "score" not in words or "lowerbound" in words \
                    or "upperbound" in words:
                continue
            if "multipv" in words and words[words.index("multipv") + 1] != "1":
                continue
            i = words.index("score")
            kind, value = words[i + 1], int(words[i + 2])
            score = value if kind == "cp" else (MATE_CP if value > 0 else -MATE_CP)
        raise RuntimeError("the engine ended during a search")

    def close(self):
        self.send("quit")
        self.proc.stdin.close()
        self.proc.wait()


def fen_of(line):
    """The FEN words before "c9", or None for a line without a result."""
    words = line.split()
    return " ".join(words[:words.index("c9")]) if "c9" in words else None


def label(lines, out, command, limit, progress):
    engine = Engine(command)
    for i, line in enumerate(lines):
        fen = fen_of(line)
        if fen is None or " wcp " in line:
            out[i] = line
            continue
        cp = engine.score(fen, limit)
        white = cp if fen.split()[1] == "w" else -cp
        out[i] = "%s wcp %d;" % (line.rstrip(), white)
        progress()
    engine.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("input")
    parser.add_argument("output")
    parser.add_argument("--engine", default="/usr/games/stockfish")
    parser.add_argument("--depth", type=int, default=8)
    parser.add_argument("--nodes", type=int, default=0, help="a node count instead of a depth")
    parser.add_argument("--jobs", type=int, default=2)
    args = parser.parse_args()

    with open(args.input) as f:
        lines = f.read().splitlines()
    limit = "nodes %d" % args.nodes if args.nodes else "depth %d" % args.depth
    jobs = max(1, min(args.jobs, len(lines)))
    share = (len(lines) + jobs - 1) // jobs if lines else 0
    results = [None] * len(lines)
    done = [0]
    lock = threading.Lock()

    def progress():
        with lock:
            done[0] += 1
            if done[0] % 10000 == 0:
                print("%d positions labelled" % done[0], file=sys.stderr, flush=True)

    threads = []
    for j in range(jobs):
        begin, end = j * share, min(len(lines), (j + 1) * share)
        part = [None] * (end - begin)

        def work(b=begin, p=part):
            label(lines[b:b + len(p)], p, args.engine, limit, progress)
            results[b:b + len(p)] = p

        t = threading.Thread(target=work)
        t.start()
        threads.append(t)
    for t in threads:
        t.join()
    with open(args.output, "w") as f:
        for line in results:
            f.write(line + "\n")
    print("%d positions labelled, %d lines in all" % (done[0], len(lines)), file=sys.stderr)


if __name__ == "__main__":
    main()
