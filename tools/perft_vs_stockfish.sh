#!/usr/bin/env bash
# Perft speed of our engine beside Debian's stockfish on the same positions, in one run.
# Each engine is started once per measurement with the position and the perft command on
# standard input; its CPU time (user + system) minus that of a run doing nothing but start
# and quit is the perft time. The best of RUNS runs counts. Node counts must agree.
#
#   tools/perft_vs_stockfish.sh            (builds build/quorvane first when missing)
#   RUNS=5 QUORVANE=/path/to/quorvane tools/perft_vs_stockfish.sh
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
ours=${QUORVANE:-$repo/build/quorvane}
runs=${RUNS:-3}

if ! command -v stockfish >/dev/null 2>&1 && [ ! -x /usr/games/stockfish ]; then
    apt-get update && apt-get install -y stockfish
fi
sf=$(command -v stockfish 2>/dev/null || echo /usr/games/stockfish)
[ -x "$ours" ] || make -C "$repo" build >/dev/null
command -v /usr/bin/time >/dev/null 2>&1 || { echo "needs /usr/bin/time (package time)"; exit 1; }

names=(startpos kiwipete)
fens=("rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1"
      "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1")
depths=(6 5)

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# Our start-up clears the 256 MB table; how long that takes depends on the huge pages the
# kernel has at hand. A 1 MB ceiling keeps the start-up cost small and steady.
export QUORVANE_HASH_LIMIT_MB=1

# best_cpu ENGINE INPUT: prints the least user+system seconds of $runs runs; the output of
# the last run is left in $tmp/out.
best_cpu() {
    local best="" t
    for ((r = 0; r < runs; r++)); do
        /usr/bin/time -f "%U %S" -o "$tmp/time" "$1" <<<"$2" >"$tmp/out" 2>/dev/null
        t=$(awk '{printf "%.3f", $1 + $2}' "$tmp/time")
        if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN{exit !(a < b)}'; then best=$t; fi
    done
    echo "$best"
}

base_ours=$(best_cpu "$ours" "quit")
base_sf=$(best_cpu "$sf" "quit")

printf '%-9s %5s %11s %15s %15s %8s\n' position depth nodes "quorvane Mnps" "stockfish Mnps" ratio
status=0
for i in "${!names[@]}"; do
    fen=${fens[$i]} depth=${depths[$i]}
    t_ours=$(best_cpu "$ours" "position fen $fen
perft $depth
quit")
    n_ours=$(awk '/^Perft results for depth:/ {print $6}' "$tmp/out")
    t_sf=$(best_cpu "$sf" "position fen $fen
go perft $depth
quit")
    n_sf=$(awk '/^Nodes searched:/ {print $3}' "$tmp/out")
    if [ "$n_ours" != "$n_sf" ]; then
        echo "node counts differ for ${names[$i]}: ours $n_ours, stockfish $n_sf"
        status=1
    fi
    awk -v name="${names[$i]}" -v d="$depth" -v n="$n_ours" -v to="$t_ours" -v bo="$base_ours" \
        -v ts="$t_sf" -v bs="$base_sf" 'BEGIN {
            a = n / (to - bo) / 1e6; b = n / (ts - bs) / 1e6;
            printf "%-9s %5d %11d %15.1f %15.1f %7.2fx\n", name, d, n, a, b, a / b }'
done
echo "(CPU seconds minus start-up: quorvane $base_ours s, stockfish $base_sf s; best of $runs runs)"
exit $status
