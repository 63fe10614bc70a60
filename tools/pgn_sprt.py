#!/usr/bin/env python3
"""Interim or pooled result of lab matches, read from their PGN files.

    tools/pgn_sprt.py RUN/games.pgn [MORE.pgn ...] [--elo0 0 --elo1 10] [--games N]
    tools/pgn_sprt.py NEW/games.pgn --ptnml 11,67,117,61,5   # plus an earlier run's counts

fastchess reports only every -ratinginterval games and restarts its count with each run.
This pairs the games of each opening (the same Round, both colours), counts the pairs
(pentanomial), and prints the Elo with its 95% error, the normalized Elo and the SPRT LLR
of the normalized model (normal approximation, as fastchess computes it), pooled over all
files and any --ptnml counts (a run whose PGN is gone, kept as its five pair counts). The
engine under test is the one named "new" (tools/sprt.sh's name for it).
"""
import argparse
import math
import re

RESULT = {"1-0": 1.0, "0-1": 0.0, "1/2-1/2": 0.5}
GAME = re.compile(r'\[Round "([^"]+)"\].*?\[White "([^"]+)"\].*?\[Result "([^"]+)"\]', re.S)


def pairs_of(path):
    rounds = {}
    for rnd, white, result in GAME.findall(open(path, encoding="utf-8").read()):
        if result in RESULT:
            points = RESULT[result] if white == "new" else 1 - RESULT[result]
            rounds.setdefault(rnd, []).append(points)
    return [sum(r) / 2 for r in rounds.values() if len(r) == 2]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("pgn", nargs="*")
    ap.add_argument("--ptnml", action="append", default=[],
                    help="five pair counts a,b,c,d,e (pairs scoring 0, 0.5, 1, 1.5, 2) to add")
    ap.add_argument("--elo0", type=float, default=0)
    ap.add_argument("--elo1", type=float, default=10)
    ap.add_argument("--games", type=int, default=0, help="only the first N games of each file")
    a = ap.parse_args()
    pairs = []
    for path in a.pgn:
        p = pairs_of(path)
        pairs += p[: a.games // 2] if a.games else p
    for counts in a.ptnml:
        counts = [int(c) for c in counts.split(",")]
        if len(counts) != 5 or min(counts) < 0:
            raise SystemExit(f"--ptnml needs five counts, not {counts}")
        pairs += [k / 4 for k in range(5) for _ in range(counts[k])]
    n = len(pairs)
    if n < 2:
        raise SystemExit("fewer than two complete pairs")
    ptnml = [sum(1 for x in pairs if x == k / 4) for k in range(5)]
    mu = sum(pairs) / n
    sd = math.sqrt(sum((x - mu) ** 2 for x in pairs) / n)
    if sd == 0 or not 0 < mu < 1:
        raise SystemExit(f"{2 * n} games, ptnml {ptnml}: no spread to measure")
    elo = lambda s: -400 * math.log10(1 / s - 1)
    err = 1.96 * sd / math.sqrt(n)
    scale = 800 / math.log(10)  # normalized Elo per unit of t
    t = (mu - 0.5) / (math.sqrt(2) * sd)
    t0, t1 = a.elo0 / scale, a.elo1 / scale
    llr = n * (t1 - t0) * (2 * t - t0 - t1)
    print(f"games {2 * n} ptnml {ptnml} Elo {elo(mu):+.1f} +- {(elo(mu + err) - elo(mu - err)) / 2:.1f} "
          f"nElo {scale * t:+.1f} LLR {llr:.2f} [{a.elo0:g}, {a.elo1:g}] "
          f"bounds +-{math.log(19):.2f}")


if __name__ == "__main__":
    main()
