#!/usr/bin/env bash
# Strength lab: plays the working tree's engine against a base commit with fastchess and
# prints the Elo with its error bar, the LLR (under SPRT) and the pentanomial counts.
#
#   tools/sprt.sh                          evaluation change: depth 9, SPRT elo0=0 elo1=5
#   tools/sprt.sh --tc 2+0.02              search change: 2 s + 20 ms a move
#   tools/sprt.sh --elo0 0 --elo1 10       other SPRT bounds
#   tools/sprt.sh --games 2000             a fixed number of games instead of an SPRT
#   tools/sprt.sh --base v1 --new /tmp/x/quorvane --opponent /usr/games/ethereal-chess
#
# Options (each takes one value):
#   --base REF       commit the working tree is measured against (default: main)
#   --new PATH       engine binary to test (default: build/quorvane, built from the tree)
#   --opponent PATH  a foreign engine instead of the base build (--base is then ignored)
#   --depth N        fixed depth per move (default 9 unless --tc or --st is given)
#   --tc T           clock, seconds+increment, e.g. 2+0.02 or 10+0.1
#   --st S           fixed time per move in seconds
#   --elo0, --elo1   SPRT bounds in normalized Elo (default 0 and 5)
#   --games N        play N games (N/2 openings, both colours) and no SPRT
#   --concurrency N  games at once (default 2; use 1 for clock games against other engines)
#   --hash MB        hash per engine (default 16)
#   --seed N         opening order seed (default: time of day)
#   --out DIR        where the PGN and log go (default: /tmp/quorvane-lab/<date>-<pid>)
#
# Environment: FASTCHESS (default ../shared/tools/fastchess beside the repository),
# QUORVANE_DATA_DIR (default ../shared/data). fastchess writes config.json in its working
# folder, so it runs in the output folder.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
shared=$(cd "$repo/.." && pwd)/shared
fastchess=${FASTCHESS:-$shared/tools/fastchess}
data=${QUORVANE_DATA_DIR:-$shared/data}

base=main new="" opponent="" depth="" tc="" st="" elo0=0 elo1=5 games="" conc=2 hash=16
seed=$(date +%s) out=""
while [ $# -gt 0 ]; do
    case $1 in
        --base) base=$2 ;;
        --new) new=$2 ;;
        --opponent) opponent=$2 ;;
        --depth) depth=$2 ;;
        --tc) tc=$2 ;;
        --st) st=$2 ;;
        --elo0) elo0=$2 ;;
        --elo1) elo1=$2 ;;
        --games) games=$2 ;;
        --concurrency) conc=$2 ;;
        --hash) hash=$2 ;;
        --seed) seed=$2 ;;
        --out) out=$2 ;;
        -h|--help) sed -n '2,27p' "$0"; exit 0 ;;
        *) echo "unknown option $1 (try --help)" >&2; exit 2 ;;
    esac
    shift 2
done
[ -n "$tc$st$depth" ] || depth=9
[ -x "$fastchess" ] || { echo "fastchess not found at $fastchess (set FASTCHESS)" >&2; exit 2; }
book=$data/openings/openings.epd
[ -f "$book" ] || { echo "opening book not found at $book (set QUORVANE_DATA_DIR)" >&2; exit 2; }

# The engine under test: the working tree's build unless a binary is named.
if [ -z "$new" ]; then
    make -C "$repo" build >/dev/null
    new=$repo/build/quorvane
fi

# The reference: a foreign engine, or the base commit built once per commit in a scratch
# worktree (kept under /tmp so the next run against the same commit starts at once).
if [ -n "$opponent" ]; then
    ref=$opponent
    refname=$(basename "$opponent")
else
    sha=$(git -C "$repo" rev-parse --short "$base^{commit}")
    tree=/tmp/quorvane-base-$sha
    if [ ! -x "$tree/build/quorvane" ]; then
        [ -d "$tree" ] || git -C "$repo" worktree add --detach "$tree" "$sha" >/dev/null
        cmake -S "$tree" -B "$tree/build" -DCMAKE_BUILD_TYPE=Release -DQUORVANE_TESTS=OFF \
            -DQUORVANE_BENCH=OFF >/dev/null
        cmake --build "$tree/build" --target quorvane -j2 >/dev/null
    fi
    ref=$tree/build/quorvane
    refname=base-$sha
fi

out=${out:-/tmp/quorvane-lab/$(date +%Y%m%d-%H%M%S)-$$}
mkdir -p "$out"

limit=()
[ -n "$depth" ] && limit+=("depth=$depth")
[ -n "$tc" ] && limit+=("tc=$tc")
[ -n "$st" ] && limit+=("st=$st")
if [ -n "$games" ]; then
    rounds=$(((games + 1) / 2))
    test=()
else
    rounds=20000
    test=(-sprt "elo0=$elo0" "elo1=$elo1" alpha=0.05 beta=0.05 model=normalized)
fi

echo "new: $new"
echo "ref: $ref ($refname)"
echo "limit: ${limit[*]}, concurrency $conc, hash $hash MB, seed $seed, output $out"
cd "$out"
"$fastchess" \
    -engine cmd="$new" name=new -engine cmd="$ref" name="$refname" \
    -each "${limit[@]}" option.Hash="$hash" option.Threads=1 proto=uci \
    -openings file="$book" format=epd order=random -srand "$seed" \
    -rounds "$rounds" -games 2 -repeat -concurrency "$conc" -recover \
    "${test[@]}" \
    -resign movecount=3 score=1000 twosided=true -draw movenumber=40 movecount=8 score=10 \
    -ratinginterval 100 -pgnout file="$out/games.pgn" -log file="$out/fastchess.log" level=warn \
    > "$out/fastchess.out" 2>&1 &
pid=$!
trap 'kill $pid 2>/dev/null; exit 130' INT TERM
tail -n +1 -f "$out/fastchess.out" --pid=$pid | grep --line-buffered -E 'Elo:|LLR|Games:|Ptnml|SPRT|finished|rror' || true
wait $pid || true

# The final result block: Elo with its error bar, LLR under SPRT, the pentanomial counts.
echo "=== result ($out)"
awk '/Results of/ {block = ""} /Results of/,/Ptnml/ {block = block $0 "\n"} END {printf "%s", block}' \
    "$out/fastchess.out"
