#!/usr/bin/env python3
"""Time to depth of a UCI engine with 1 and more threads over a set of positions.

    tools/time_to_depth.py --engine build/quorvane --depth 18 --threads 1 2 \
        --positions ../shared/data/openings/openings.epd --count 10

Each position is searched with "go depth D" after "ucinewgame"; the wall time until
"bestmove" is measured. Prints the per-position times, the totals and the speed-up of
every thread count against the first one.
"""
import argparse
import subprocess
import time


def run(engine, threads, depth, fens, hash_mb):
    p = subprocess.Popen([engine], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)

    def send(line):
        p.stdin.write(line + "\n")
        p.stdin.flush()

    def wait(prefix):
        while True:
            line = p.stdout.readline()
            if not line:
                raise RuntimeError("engine ended")
            if line.startswith(prefix):
                return line

    send("uci")
    wait("uciok")
    send(f"setoption name Hash value {hash_mb}")
    send(f"setoption name Threads value {threads}")
    times = []
    for fen in fens:
        send("ucinewgame")
        wait("readyok")
        send(f"position fen {fen}")
        t0 = time.monotonic()
        send(f"go depth {depth}")
        wait("bestmove")
        times.append(time.monotonic() - t0)
    send("quit")
    p.wait()
    return times


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--engine", default="build/quorvane")
    ap.add_argument("--depth", type=int, default=18)
    ap.add_argument("--threads", type=int, nargs="+", default=[1, 2])
    ap.add_argument("--positions", default="../shared/data/openings/openings.epd")
    ap.add_argument("--count", type=int, default=10)
    ap.add_argument("--hash", type=int, default=64)
    args = ap.parse_args()
    with open(args.positions) as f:
        fens = [line.strip() for line in f if line.strip()][: args.count]
    totals = {}
    for t in args.threads:
        times = run(args.engine, t, args.depth, fens, args.hash)
        totals[t] = sum(times)
        print(f"threads {t}: " + " ".join(f"{x:.2f}" for x in times) + f"  total {totals[t]:.2f} s")
    base = totals[args.threads[0]]
    for t in args.threads[1:]:
        print(f"speed-up {t} threads vs {args.threads[0]}: {base / totals[t]:.2f}x")


if __name__ == "__main__":
    main()
