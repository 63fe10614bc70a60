#!/usr/bin/env bash
# Plants one-line faults in the engine, one at a time, and checks that "make test" catches
# each: every mutant is an exact, unique line of a source file replaced by a faulty one
# (the script stops loudly when a line is no longer found, so the list cannot rot), built
# in its own folder (build-mutants, never build/), tested with the whole ctest suite (quick
# tests first, stopping at the first failure), and the file restored (also on Ctrl-C). Prints a table: mutant, file, caught or
# NOT CAUGHT, and the failing test. A mutant of the move generator must also be caught by
# the shipped engine itself: its "rtest" over tests/perft.txt must not pass (the last
# column). Exit status 0 only when every mutant was caught.
#
#   tools/mutants.sh                 all mutants
#   tools/mutants.sh tempo dtz-off   only those named
#   JOBS=4 QUORVANE_DATA_DIR=/data tools/mutants.sh
set -uo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build="$repo/build-mutants"
jobs=${JOBS:-2}
data=${QUORVANE_DATA_DIR:-$(cd "$repo/.." && pwd)/shared/data}

# name <TAB> file <TAB> exact original line <TAB> faulty line
read -r -d '' MUTANTS <<'EOF'
double-push-from	src/board/movegen.cpp	        m = emit(m, to - 2 * up, to, MT_DOUBLE, 0);	        m = emit(m, to - up, to, MT_DOUBLE, 0);
evasion-pawn-take	src/board/movegen.cpp	        for (bitboard p = attackByPawnTable[Us][checker] & pawns; p;) {	        for (bitboard p = attackByPawnTable[Them][checker] & pawns; p;) {
castle-passing	src/board/movegen.cpp	                && !squareAttacked(pos, base + 3, Us ^ 1, occ))	                && !squareAttacked(pos, base + 2, Us ^ 1, occ))
castling-right	src/board/makemove.h	         : sq == 7 ? u8(~WK_CASTLE) : sq == 0 ? u8(~WQ_CASTLE)	         : sq == 6 ? u8(~WK_CASTLE) : sq == 0 ? u8(~WQ_CASTLE)
takeback-phase	src/board/makemove.h	    pos->phase = nxt.savedPhase;	    (void)nxt.savedPhase;
takeback-rook	src/board/makemove.h	        movePiece(pos, WROOK + us, to + 1, from - 4);	        movePiece(pos, WROOK + us, to + 1, from - 3);
psq-mirror	src/board/makemove.h	    return pieceSquareScore[idx * 64 + (colour == WHITE ? sq ^ 56 : sq)];	    return pieceSquareScore[idx * 64 + (colour == WHITE ? sq ^ 7 : sq)];
isolated-sign	src/eval/pawns.cpp	            score += EVALPAWNISOLATED[f];	            score -= EVALPAWNISOLATED[f];
tempo	src/eval/evaluate.cpp	    const i32 tempo = pos->sideToMove == WHITE ? EVALTEMPO : -EVALTEMPO;	    const i32 tempo = pos->sideToMove == WHITE ? EVALTEMPO : EVALTEMPO;
mate-to-table	src/search/tt.h	    return score >= MATE_BAND ? score + ply : score <= -MATE_BAND ? score - ply : score;	    return score >= MATE_BAND ? score + ply : score <= -MATE_BAND ? score + ply : score;
mated-score	src/search/alphabeta.cpp	        return short(excluding ? alpha : inCheck ? ply - MATE : 0);	        return short(excluding ? alpha : inCheck ? ply + 1 - MATE : 0);
repetition	src/search/alphabeta.cpp	        if (isRepetition(pos, ply))	        if (false && isRepetition(pos, ply))
fifty-moves	src/search/alphabeta.cpp	    if (pos->halfMoveClock > 99)	    if (pos->halfMoveClock > 100)
tb-score-in-tree	src/search/alphabeta.cpp	                    const int score = ply - TB_WIN;	                    const int score = ply + 1 - TB_WIN;
moves-to-go	src/engine/timeman.cpp	         : gamePly < 51                ? 22	         : gamePly < 51                ? 25
unknown-ply	src/engine/timeman.cpp	constexpr double UNKNOWN_PLY_BONUS = 1.4;     // position given by FEN: no game history	constexpr double UNKNOWN_PLY_BONUS = 1.5;     // position given by FEN: no game history
infinite-clock	src/search/searchlimits.h	    return !pondering && !l.infinite && nowMs() - l.startTimeMs >= l.maxTime;	    return !pondering && nowMs() - l.startTimeMs >= l.maxTime;
dtz-off-by-one	src/tablebase/tbprobe.cpp	    int dtz = 1 + probe_dtz_table(p, wdl, success);	    int dtz = probe_dtz_table(p, wdl, success);
dtz-doubling	src/tablebase/tbprobe.cpp	    if (!(d.flags & pa_flags[wdl + 2]) || (wdl & 1))	    if ((d.flags & pa_flags[wdl + 2]) || (wdl & 1))
wdl-table	src/tablebase/tbprobe.cpp	const int wdl_to_dtz[5] = {-1, -101, 0, 101, 1};	const int wdl_to_dtz[5] = {-1, -101, 0, 1, 101};
hash-clamp	src/uci/uci.cpp	        v = v < 1 ? 1 : v > 32768 ? 262144 : v;	        v = v < 1 ? 1 : v > 32767 ? 262144 : v;
threads-clamp	src/uci/uci.cpp	        if (numeric(1, 256, v)) {	        if (numeric(1, 255, v)) {
ponder-echo	src/uci/uci.cpp	        printLine(std::string("info string Ponder set to : ") + (engine.ponderOption ? "1" : "0"));	        printLine(std::string("info string Ponder set to : ") + (engine.ponderOption ? "0" : "1"));
ponder-move-side	src/engine/rootsearch.cpp	        line += " ponder " + moveToLA(&reply, p->sideToMove ^ 1);	        line += " ponder " + moveToLA(&best, p->sideToMove ^ 1);
EOF

# Every file a mutant touches is saved first and put back on any exit.
backup=$(mktemp -d "${TMPDIR:-/tmp}/quorvane-mutants.XXXXXX")
current=""
restore() {
    if [ -n "$current" ]; then
        cp "$backup/current" "$repo/$current"
        current=""
    fi
}
trap 'restore; rm -rf "$backup"' EXIT
trap 'echo; echo "interrupted: $current restored"; exit 130' INT TERM

# apply FILE ORIGINAL FAULTY: replaces the one line equal to ORIGINAL; fails when there is
# not exactly one.
apply() {
    python3 - "$repo/$1" "$2" "$3" <<'PY'
import sys
path, old, new = sys.argv[1:]
lines = open(path).read().split("\n")
hits = [i for i, l in enumerate(lines) if l == old]
if len(hits) != 1:
    sys.exit(f"{path}: the line is found {len(hits)} times, not once: {old!r}")
lines[hits[0]] = new
open(path, "w").write("\n".join(lines))
PY
}

cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=Release -DQUORVANE_BENCH=OFF \
    -DQUORVANE_DATA_DIR="$data" > /dev/null || exit 1
echo "building the unchanged tree in $build"
cmake --build "$build" -j"$jobs" > "$build/mutants-build.log" 2>&1 || {
    echo "the unchanged tree does not build (see $build/mutants-build.log)"; exit 1; }

results=()
missed=0
while IFS=$'\t' read -r name file original faulty; do
    [ -z "$name" ] && continue
    if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx -- "$name"; then
        continue
    fi
    cp "$repo/$file" "$backup/current"
    current=$file
    if ! apply "$file" "$original" "$faulty"; then
        echo "mutant $name no longer applies: update tools/mutants.sh"
        exit 2
    fi
    t0=$(date +%s)
    if ! cmake --build "$build" -j"$jobs" > "$build/mutants-build.log" 2>&1; then
        restore
        echo "mutant $name does not compile (see $build/mutants-build.log): update tools/mutants.sh"
        exit 2
    fi
    log="$build/mutant-$name.log"
    # The whole suite, the quick tests first so that most faults show within seconds.
    slow='Perft|BenchSignature|EngineClock'
    ctest --test-dir "$build" -j"$jobs" -E "$slow" --stop-on-failure --output-on-failure \
        --timeout 300 > "$log" 2>&1
    rc=$?
    if [ "$rc" -eq 0 ]; then
        ctest --test-dir "$build" -j"$jobs" -R "$slow" --stop-on-failure --output-on-failure \
            --timeout 300 >> "$log" 2>&1
        rc=$?
    fi
    # The engine's own count: the mutated binary's "rtest" on the repository's lines.
    by_rtest=""
    if [[ $file == src/board/movegen.cpp ]]; then
        # A wrong count, or a crash before the summary: anything but a pass.
        if ! "$build/quorvane" rtest "$repo/tests/perft.txt" 2>&1 |
            grep -qx "Results of the perft checks is OK: 1"; then
            by_rtest="rtest: caught"
        else
            by_rtest="rtest: NOT CAUGHT"
            rc=0  # counted as missed below, whatever the unit tests said
        fi
    fi
    restore
    caught=$(sed -n 's/^ *[0-9]*\/[0-9]* Test *#[0-9]*: \([^ ]*\) .*\*\*\*.*/\1/p' "$log" | head -3 | paste -sd, -)
    if [ "$rc" -ne 0 ]; then
        status="caught"
        [ -z "$caught" ] && caught="(ctest failed, see $log)"
    else
        status="NOT CAUGHT"
        caught="-"
        missed=$((missed + 1))
    fi
    line=$(printf '%-18s %-26s %-10s %s %s' "$name" "$file" "$status" "$caught" "$by_rtest")
    echo "$line   ($(($(date +%s) - t0)) s)"
    results+=("$line")
done <<< "$MUTANTS"

# Leave the build folder matching the unchanged tree.
cmake --build "$build" -j"$jobs" > "$build/mutants-build.log" 2>&1

echo
printf '%-18s %-26s %-10s %s\n' "mutant" "file" "result" "caught by"
printf '%s\n' "${results[@]}"
echo "${#results[@]} mutants, $missed not caught"
[ "$missed" -eq 0 ]
