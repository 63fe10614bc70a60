#!/usr/bin/env bash
# Coverage-guided fuzzing of the readers of outside input with clang's libFuzzer (the
# harnesses are tests/fuzz/targets.cpp).
#
#   tools/fuzz.sh [run] [HARNESS...]  (make fuzz) builds the harnesses in build-fuzz/ with
#                              ASan and UBSan, then runs each for FUZZ_SECONDS (60) on its
#                              corpus, one at a time on one core, and prints executions,
#                              executions per second and coverage (edges, features) of each
#   tools/fuzz.sh merge [HARNESS...]  minimizes each working corpus (-merge=1, by edges) into
#                              tests/fuzz/corpus/<harness>/ (not for syzygy: its inputs are
#                              tables of several KB, made again from the data folder)
#   tools/fuzz.sh coverage [HARNESS...]  line coverage (llvm-cov) of the code each harness
#                              targets, measured on its working corpus in build-fuzz/coverage/
#
# The working corpus of a harness, build-fuzz/corpus/<harness>/, starts from the seeds of
# tests/fuzz/corpus/ (for Syzygy also the 3- and 4-piece tables of the data folder that are
# small enough) and keeps growing from run to run. An input that fails a harness lands in
# build-fuzz/findings/<harness>/ and fails the run; once fixed, it belongs in
# tests/fuzz/regressions/<harness>/, where "make test" replays it.
#
# clang, libFuzzer (libclang-rt-14-dev) and llvm (llvm-cov) are installed with apt-get when
# this runs as root; otherwise the apt-get line is printed. Environment: FUZZ_SECONDS, JOBS,
# CMAKE_ARGS (extra configure flags), QUORVANE_DATA_DIR, FUZZ_BUILD (default build-fuzz/).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD:-$repo/build-fuzz}
jobs=${JOBS:-$(nproc)}
seconds=${FUZZ_SECONDS:-60}
data=${QUORVANE_DATA_DIR:-$(cd "$repo/.." && pwd)/shared/data}
read -r -a extra <<<"${CMAKE_ARGS:-}"
all=(fen uci syzygy epd perftfile pgn)

# The sources each harness reads input through: what its line coverage is measured on.
declare -A targets=(
    [fen]="src/board/position.cpp"
    [uci]="src/uci/uci.cpp"
    [syzygy]="src/tablebase/tbcore.cpp src/tablebase/tbprobe.cpp"
    [epd]="src/tuning/texel.cpp"
    [perftfile]="src/board/perft.cpp"
    [pgn]="src/tuning/pgn.cpp"
)

# require: tools/lib.sh.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# configure DIR MODE: a clang build of the harnesses (QUORVANE_FUZZ=MODE) in DIR.
configure() {
    require clang:/usr/bin/clang++ libclang-rt-14-dev:/usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.fuzzer-x86_64.a
    cmake -S "$repo" -B "$1" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=clang++ \
        -DQUORVANE_FUZZ="$2" -DQUORVANE_TESTS=OFF -DQUORVANE_BENCH=OFF -DQUORVANE_TUNER=OFF \
        -DQUORVANE_DATA_DIR="$data" "${extra[@]}" >/dev/null
    local names=()
    for h in "${harnesses[@]}"; do names+=("fuzz_$h"); done
    cmake --build "$1" -j"$jobs" --target "${names[@]}"
}

# The Syzygy harness's input: table selector (its place in SYZYGY_FUZZ_TABLES of
# tests/fuzz/targets.cpp, the order below), position seed, the WDL file's length as four
# little-endian bytes, the WDL file, the DTZ file. Tables whose two files together stay
# under 20 KB whole, so that the fuzzer mutates small inputs; the larger ones cut to their
# first 4 KB each, which still reach every header (the two-sided pawn tables among them).
syzygy_seeds() {
    local out=$1 i=0 name w z size zsize cut
    local tables=(KBvK KNvK KPvK KQvK KRvK KBBvK KBNvK KBPvK KBvKB KBvKN KBvKP KNNvK KNPvK
                  KNvKN KNvKP KPPvK KPvKP KQBvK KQNvK KQPvK KQQvK KQRvK KQvKB KQvKN KQvKP
                  KQvKQ KQvKR KRBvK KRNvK KRPvK KRRvK KRvKB KRvKN KRvKP KRvKR)
    if [ ! -d "$data/syzygy" ]; then
        echo "no $data/syzygy: the Syzygy harness starts from the committed seeds alone"
        return
    fi
    mkdir -p "$out"
    for name in "${tables[@]}"; do
        w=$data/syzygy/$name.rtbw
        z=$data/syzygy/$name.rtbz
        if [ -f "$w" ] && [ -f "$z" ]; then
            size=$(stat -c %s "$w")
            zsize=$(stat -c %s "$z")
            cut=
            if [ $((size + zsize)) -ge 20000 ]; then
                cut=-cut
                size=$((size < 4096 ? size : 4096))
                zsize=$((zsize < 4096 ? zsize : 4096))
            fi
            {
                printf "\\x$(printf %02x "$i")\\x00"
                printf "\\x$(printf %02x $((size & 255)))\\x$(printf %02x $((size >> 8 & 255)))"
                printf "\\x$(printf %02x $((size >> 16 & 255)))\\x00"
                head -c "$size" "$w"
                head -c "$zsize" "$z"
            } >"$out/$name$cut"
        fi
        i=$((i + 1))
    done
}

# The last value of libFuzzer's "NAME: N" in a log, or "-".
stat_of() { sed -n "s/^stat::$2: *//p" "$1" | tail -1 | grep . || echo -; }

run() {
    configure "$build" libfuzzer
    local failed=0 h log corpus status
    rm -f "$build/reports.txt"
    printf '%-10s %12s %8s %8s %8s %s\n' harness executions exec/s edges features result >"$build/summary.txt"
    for h in "${harnesses[@]}"; do
        corpus=$build/corpus/$h
        log=$build/logs/$h.log
        mkdir -p "$corpus" "$build/findings/$h" "$build/logs"
        cp -n "$repo/tests/fuzz/corpus/$h/"* "$corpus/" 2>/dev/null || true
        [ "$h" = syzygy ] && syzygy_seeds "$corpus"
        local dict=()
        [ -f "$repo/tests/fuzz/dict/$h.dict" ] && dict=(-dict="$repo/tests/fuzz/dict/$h.dict")
        echo "=== fuzz $h: ${seconds} s"
        status=0
        # One worker on one core; the harness's own output is closed (-close_fd_mask=3),
        # libFuzzer's and the sanitizers' reports stay.
        UBSAN_OPTIONS=print_stacktrace=1 "$build/fuzz_$h" "$corpus" "${dict[@]}" -max_total_time="$seconds" -timeout=30 \
            -max_len=32768 -rss_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1 \
            -artifact_prefix="$build/findings/$h/" >"$log" 2>&1 || status=$?
        grep DONE "$log" | tail -1 || true
        local cov ft
        cov=$(grep -oE 'cov: [0-9]+' "$log" | tail -1 | cut -d' ' -f2 || true)
        ft=$(grep -oE 'ft: [0-9]+' "$log" | tail -1 | cut -d' ' -f2 || true)
        printf '%-10s %12s %8s %8s %8s %s\n' "$h" "$(stat_of "$log" number_of_executed_units)" \
            "$(stat_of "$log" average_exec_per_sec)" "${cov:--}" "${ft:--}" \
            "$([ $status -eq 0 ] && echo ok || echo "FAILED: see $log")" >>"$build/summary.txt"
        if [ $status -ne 0 ]; then
            failed=$((failed + 1))
            # The report, and whether the input that raised it does so again on its own (a
            # finding that does not is a race or the machine, not the input).
            local unit again=""
            unit=$(grep -oE 'Test unit written to [^ ]+' "$log" | tail -1 | cut -d' ' -f5 || true)
            if [ -n "$unit" ] && [ -f "$unit" ]; then
                "$build/fuzz_$h" -runs=3 -close_fd_mask=3 "$unit" >"$log.replay" 2>&1 \
                    && again="replayed 3 times: no failure" || again="replayed: fails again"
            fi
            {
                echo "--- $h: $log"
                grep -E -A12 'ERROR|fuzz check failed' "$log" | head -30 || true
                grep -E 'SUMMARY|Test unit written' "$log" | head -3 || true
                echo "${again:-no input written}"
            } >>"$build/reports.txt"
        fi
    done
    echo "=== fuzz summary ($seconds s each; edges and features are libFuzzer's coverage counts)"
    cat "$build/summary.txt"
    if [ -f "$build/reports.txt" ]; then cat "$build/reports.txt"; fi
    echo "fuzz: $((${#harnesses[@]} - failed)) passed, $failed failed"
    [ $failed -eq 0 ]
}

merge() {
    configure "$build" libfuzzer
    for h in "${harnesses[@]}"; do
        local kept=$repo/tests/fuzz/corpus/$h fresh
        fresh=$(mktemp -d)
        # Edges only (no hit counts): a few hundred inputs at most, small enough to keep.
        "$build/fuzz_$h" -merge=1 -use_counters=0 -close_fd_mask=3 -max_len=32768 "$fresh" "$kept" \
            "$build/corpus/$h"
        rm -f "$kept"/*
        cp "$fresh"/* "$kept/"
        rm -rf "$fresh"
        echo "$h: $(ls "$kept" | wc -l) inputs, $(du -sk "$kept" | cut -f1) KB"
    done
}

coverage() {
    require llvm-14:/usr/bin/llvm-cov
    local dir=$build/coverage
    configure "$dir" coverage
    printf '%-10s %8s %8s %s\n' harness lines covered files
    for h in "${harnesses[@]}"; do
        local files=() f
        for f in ${targets[$h]}; do files+=("$repo/$f"); done
        rm -f "$dir/$h.profraw"
        LLVM_PROFILE_FILE="$dir/$h.profraw" "$dir/fuzz_$h" -runs=0 -close_fd_mask=3 \
            "$build/corpus/$h" "$repo/tests/fuzz/corpus/$h" >"$dir/$h.log" 2>&1
        llvm-profdata merge -sparse "$dir/$h.profraw" -o "$dir/$h.profdata"
        llvm-cov report "$dir/fuzz_$h" -instr-profile="$dir/$h.profdata" "${files[@]}" \
            >"$dir/$h.txt"
        # TOTAL line: regions, missed, cover, functions, missed, cover, lines, missed, cover
        read -r -a total < <(grep '^TOTAL' "$dir/$h.txt")
        printf '%-10s %8s %8s %s\n' "$h" "${total[7]}" "${total[9]}" "${targets[$h]}"
    done
    echo "per file: $dir/<harness>.txt; lines not reached: llvm-cov show $dir/fuzz_<harness> -instr-profile=$dir/<harness>.profdata FILE"
}

mode=run
case "${1:-}" in
run | merge | coverage) mode=$1; shift ;;
esac
harnesses=("$@")
[ ${#harnesses[@]} -gt 0 ] || harnesses=("${all[@]}")
"$mode"
