#!/usr/bin/env bash
# Perft speed of one or more builds of our engine beside Debian's stockfish on the same
# positions, in one run. Each engine is started once per measurement with the position and
# the perft command on standard input; its CPU time (user + system) minus that of a run doing
# nothing but start and quit is the perft time. The best of RUNS runs counts, the runs of the
# engines taking turns so that a busy spell of the machine hits them alike. Node counts must
# agree.
#
#   tools/perft_vs_stockfish.sh                       (build/quorvane, built when missing)
#   RUNS=5 tools/perft_vs_stockfish.sh /tmp/old/quorvane build/quorvane
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
if [ $# -eq 0 ]; then
    set -- "${QUORVANE:-$repo/build/quorvane}"
    [ -x "$1" ] || make -C "$repo" build >/dev/null
fi
runs=${RUNS:-3}

if ! command -v stockfish >/dev/null 2>&1 && [ ! -x /usr/games/stockfish ]; then
    apt-get update && apt-get install -y stockfish
fi
sf=$(command -v stockfish 2>/dev/null || echo /usr/games/stockfish)
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

# cpu ENGINE INPUT: user+system seconds of one run; its output is left in $tmp/out.
cpu() {
    /usr/bin/time -f "%U %S" -o "$tmp/time" "$1" <<<"$2" >"$tmp/out" 2>/dev/null
    awk '{printf "%.3f", $1 + $2}' "$tmp/time"
}
min() { awk -v a="$1" -v b="$2" 'BEGIN{print (b == "" || a < b) ? a : b}'; }

engines=("$sf" "$@")
labels=("stockfish" "$@")
# One row per engine and position: start-up time, then the perft runs in turn.
declare -A best nodes
for e in "${!engines[@]}"; do
    for ((r = 0; r < runs; r++)); do
        best[$e,base]=$(min "$(cpu "${engines[$e]}" quit)" "${best[$e,base]:-}")
    done
done
for i in "${!names[@]}"; do
    fen=${fens[$i]} depth=${depths[$i]}
    for ((r = 0; r < runs; r++)); do
        for e in "${!engines[@]}"; do
            if [ "$e" -eq 0 ]; then
                t=$(cpu "$sf" "position fen $fen
go perft $depth
quit")
                n=$(awk '/^Nodes searched:/ {print $3}' "$tmp/out")
            else
                t=$(cpu "${engines[$e]}" "position fen $fen
perft $depth
quit")
                n=$(awk '/^Perft results for depth:/ {print $6}' "$tmp/out")
            fi
            best[$e,$i]=$(min "$t" "${best[$e,$i]:-}")
            nodes[$e,$i]=$n
        done
    done
done

printf '%-40s %-9s %5s %11s %8s %8s\n' engine position depth nodes Mnps ratio
status=0
for i in "${!names[@]}"; do
    for e in "${!engines[@]}"; do
        if [ "${nodes[$e,$i]}" != "${nodes[0,$i]}" ]; then
            echo "node counts differ for ${names[$i]}: ${labels[$e]} ${nodes[$e,$i]}, stockfish ${nodes[0,$i]}"
            status=1
        fi
        awk -v label="${labels[$e]}" -v name="${names[$i]}" -v d="${depths[$i]}" -v n="${nodes[$e,$i]}" \
            -v t="${best[$e,$i]}" -v b="${best[$e,base]}" -v ts="${best[0,$i]}" -v bs="${best[0,base]}" '
            BEGIN { a = n / (t - b) / 1e6; s = n / (ts - bs) / 1e6;
                    printf "%-40s %-9s %5d %11d %8.1f %7.2fx\n", label, name, d, n, a, a / s }'
    done
done
echo "(CPU seconds minus start-up, best of $runs runs each; start-up: $(for e in "${!engines[@]}"; do printf '%s %s s; ' "${labels[$e]##*/}" "${best[$e,base]}"; done))"
exit $status
