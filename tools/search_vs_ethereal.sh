#!/usr/bin/env bash
# Search speed of our engine beside Debian's ethereal-chess, in one run: our SearchSuite
# benchmark (30 positions, fixed depth, one thread, cleared tables per position) against
# Ethereal's own "bench" (its positions, depth 13, one thread, 16 MB table). Nodes per
# second are taken over CPU time (user + system) so that other load on the machine
# matters less; Ethereal's start-up cost (a run that only quits) is subtracted. The best
# of RUNS runs counts. The wall-clock figures each program prints are shown as well.
#
#   tools/search_vs_ethereal.sh            (builds build/quorvane_bench first when missing)
#   RUNS=5 DEPTH=13 BENCH=/path/to/quorvane_bench tools/search_vs_ethereal.sh
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
ours=${BENCH:-$repo/build/quorvane_bench}
runs=${RUNS:-3}
export QUORVANE_SEARCH_BENCH_DEPTH=${DEPTH:-12}

eth=/usr/games/ethereal-chess
if [ ! -x "$eth" ]; then
    apt-get update && apt-get install -y ethereal-chess
fi
[ -x "$ours" ] || make -C "$repo" build >/dev/null
command -v /usr/bin/time >/dev/null 2>&1 || { echo "needs /usr/bin/time (package time)"; exit 1; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# cpu CMD...: user + system seconds of one run; its output is left in $tmp/out.
cpu() {
    /usr/bin/time -f "%U %S" -o "$tmp/time" "$@" >"$tmp/out" 2>/dev/null </dev/null
    awk '{printf "%.3f", $1 + $2}' "$tmp/time"
}
json() { awk -F': ' -v k="\"$1\"" '$1 ~ k {gsub(/[ ,]/, "", $2); print $2; exit}' "$tmp/out"; }
less() { awk -v a="$1" -v b="$2" 'BEGIN{exit !(b == "" || a < b)}'; }

best_ours="" best_eth=""
for ((r = 0; r < runs; r++)); do
    cpu "$ours" --benchmark_filter='^SearchSuite' --benchmark_format=json >/dev/null
    n_ours=$(json nodes)
    t=$(json cpu_time)           # milliseconds of the timed loop only
    wall_ours=$(json real_time)
    if less "$t" "$best_ours"; then best_ours=$t; fi

    base=$(echo quit | /usr/bin/time -f "%U %S" "$eth" 2>&1 >/dev/null | awk '{printf "%.3f", $1 + $2}')
    t=$(cpu "$eth" bench)
    t=$(awk -v a="$t" -v b="$base" 'BEGIN{printf "%.3f", (a - b) * 1000}')
    n_eth=$(awk '/^Nodes/ {print $3}' "$tmp/out")
    nps_eth_wall=$(awk '/^NPS/ {print $3}' "$tmp/out")
    if less "$t" "$best_eth"; then best_eth=$t; fi
done

awk -v no="$n_ours" -v to="$best_ours" -v wo="$wall_ours" -v ne="$n_eth" -v te="$best_eth" \
    -v we="$nps_eth_wall" -v d="$QUORVANE_SEARCH_BENCH_DEPTH" 'BEGIN {
    a = no / to * 1000; b = ne / te * 1000;
    printf "%-10s %12s %10s %12s %16s\n", "engine", "nodes", "cpu ms", "nps (cpu)", "nps (wall, own)";
    printf "%-10s %12d %10.0f %12.0f %16.0f   depth %d, 30 positions\n", "quorvane", no, to, a, no / wo * 1000, d;
    printf "%-10s %12d %10.0f %12.0f %16.0f   depth 13, its bench set\n", "ethereal", ne, te, b, we;
    printf "ratio quorvane / ethereal (nps over cpu time): %.2f\n", a / b }'
echo "(best of $runs runs)"
