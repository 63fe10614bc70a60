#!/usr/bin/env bash
# The WebAssembly build of the engine and its checks.
#
#   tools/wasm.sh [build]   (make wasm) the engine compiled with Debian's emscripten into
#                           dist/web/: the page (index.html, app.js bundled from web/ and
#                           its npm packages, assets/), its engine (quorvane-web.*, and
#                           quorvane-web-st.* without threads for pages that are not
#                           cross-origin isolated) and the worker that runs it
#                           (quorvane-worker.js), the node console
#                           (quorvane-cli.mjs and quorvane-node.*), and SHA256SUMS
#   tools/wasm.sh check     (make wasm-check) the node console: the bench signature, and the
#                           test suite's protocol tests driving it in place of the native
#                           binary (the native test binary of BUILD, default build/); then
#                           the page in Debian's Chromium (web/tests, installs chromium)
#   tools/wasm.sh speed     bench nodes/s of the node console against the native engine of
#                           BUILD, best of RUNS (3) interleaved runs, and the same with 2
#                           threads on searches of a fixed time; the size of each file
#
# emscripten, npm and chromium are installed with apt-get when this runs as root; otherwise
# the apt-get line is printed. Debian's emscripten finds its acorn only through
# NODE_PATH=/usr/share/nodejs.
# Environment: JOBS (default 1: emscripten compiles are heavy), CMAKE_ARGS, BUILD,
# WASM_BUILD (default build-wasm/), DIST (default dist/web/), QUORVANE_WASM_THREADS (the
# console's most search threads; the checks use 4).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
dist=${DIST:-$repo/dist/web}
wasm_build=${WASM_BUILD:-$repo/build-wasm}
native_build=$repo/${BUILD:-build}
jobs=${JOBS:-1}
read -r -a extra <<<"${CMAKE_ARGS:-}"
export NODE_PATH=${NODE_PATH:-/usr/share/nodejs}

# require and result: tools/lib.sh.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

build() {
    require emscripten:emcc nodejs:node npm:npm
    emcmake cmake -S "$repo" -B "$wasm_build" -DCMAKE_BUILD_TYPE=Release -DQUORVANE_ARCH= \
        -DQUORVANE_TESTS=OFF -DQUORVANE_BENCH=OFF -DQUORVANE_TUNER=OFF "${extra[@]}" >/dev/null
    cmake --build "$wasm_build" -j"$jobs" --target quorvane_web quorvane_web_st quorvane_node
    rm -rf "$dist"
    mkdir -p "$dist"
    local name ext
    for name in quorvane-web quorvane-node; do
        for ext in js wasm worker.js; do
            cp "$wasm_build/$name.$ext" "$dist/"
        done
    done
    cp "$wasm_build/quorvane-web-st.js" "$wasm_build/quorvane-web-st.wasm" "$dist/"
    cp "$repo/web/quorvane-cli.mjs" "$repo/web/quorvane-worker.js" "$dist/"
    # The page: its npm packages as the lockfile has them, bundled by esbuild.
    [ "$repo/web/node_modules/.package-lock.json" -nt "$repo/web/package-lock.json" ] ||
        (cd "$repo/web" && npm ci --no-audit --no-fund --loglevel=error)
    node "$repo/web/build.mjs" "$dist"
    (cd "$dist" && find . -type f ! -name SHA256SUMS | sed 's|^\./||' | sort |
        xargs sha256sum >SHA256SUMS)
    echo "=== $dist"
    ls -l "$dist"
}

# ------------------------------------------------------------------------------------------
# Checks

console=(node "$dist/quorvane-cli.mjs")

check() {
    require nodejs:node
    [ -f "$dist/quorvane-cli.mjs" ] || { echo "no $dist/quorvane-cli.mjs (make wasm)" >&2; exit 1; }
    export QUORVANE_WASM_THREADS=${QUORVANE_WASM_THREADS:-4}
    local out nodes nps expected tests log rc

    rc=0
    (cd "$dist" && sha256sum --quiet -c SHA256SUMS) || rc=1
    result "SHA256SUMS" $rc

    expected=$(cat "$repo/tools/bench_signature.txt")
    out=$("${console[@]}" bench 2>&1) || true
    nodes=$(sed -n 's/^Nodes searched: //p' <<<"$out")
    nps=$(sed -n 's/^Nodes\/second: //p' <<<"$out")
    rc=0
    [ "$nodes" = "$expected" ] || rc=1
    result "bench signature" $rc "$nodes nodes, $nps nodes/s"

    # The suites of the native tests that drive the engine binary, driving the console.
    [ -x "$native_build/quorvane_tests" ] ||
        make -C "$repo" build BUILD="${BUILD:-build}" CMAKE_ARGS="${CMAKE_ARGS:-}" >/dev/null
    tests="UciTranscript.*:UciFuzz.*:EngineSearch.*:SearchThreads.*:EngineClock.*:EngineTablebases.*"
    log=$(mktemp "${TMPDIR:-/tmp}/quorvane-wasm-check.XXXXXX")
    rc=0
    QUORVANE_ENGINE="${console[*]}" "$native_build/quorvane_tests" --gtest_filter="$tests" \
        --gtest_brief=1 >"$log" 2>&1 || rc=1
    result "protocol tests ($tests)" $rc "$(grep -E '^\[  (PASSED|FAILED) ' "$log" | head -1)"
    grep -E '^\[  FAILED  \]|Failure' "$log" | head -20 || true

    # The page in Debian's Chromium, driven by puppeteer-core (web/tests).
    require chromium:chromium npm:npm
    [ -d "$repo/web/node_modules" ] || (cd "$repo/web" && npm ci --no-audit --no-fund --loglevel=error)
    rc=0
    (cd "$repo/web" && DIST="$dist" node --test tests/) >"$log" 2>&1 || rc=1
    result "Chromium suite (web/tests)" $rc \
        "$(sed -n 's/^# \(pass\|fail\) \([0-9]*\)$/\2 \1/p' "$log" | paste -sd ' ')"
    sed -n 's/^# \\# //p; /^not ok/p' "$log"
    rm -f "$log"

    echo "wasm-check: $passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}

# bench_nps COMMAND...: the nodes/s of one bench run.
bench_nps() { "$@" bench 2>&1 | sed -n 's/^Nodes\/second: //p'; }

# threaded_nps COMMAND...: nodes/s of 2 threads over three 5-second searches (nodes and
# time of each search's last info line, added up).
threaded_nps() {
    local fen line nodes=0 ms=0 n t
    coproc ENGINE { "$@" 2>&1; }
    printf 'setoption name Threads value 2\nsetoption name Hash value 64\n' >&"${ENGINE[1]}"
    for fen in "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1" \
        "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1" \
        "r1bq1rk1/pp2bppp/2n1pn2/2pp4/3P4/2PBPN2/PP1N1PPP/R1BQ1RK1 w - - 2 8"; do
        printf 'ucinewgame\nposition fen %s\ngo movetime 5000\n' "$fen" >&"${ENGINE[1]}"
        n=0 t=0
        while IFS= read -r -t 60 line <&"${ENGINE[0]}"; do
            [[ $line == bestmove* ]] && break
            [[ $line == *" nodes "*" time "* ]] || continue
            n=$(sed -E 's/.* nodes ([0-9]+).*/\1/' <<<"$line")
            t=$(sed -E 's/.* time ([0-9]+).*/\1/' <<<"$line")
        done
        nodes=$((nodes + n)) ms=$((ms + t))
    done
    echo quit >&"${ENGINE[1]}"
    wait "$ENGINE_PID" 2>/dev/null || true
    echo $((ms > 0 ? nodes * 1000 / ms : 0))
}

speed() {
    require nodejs:node
    local runs=${RUNS:-3} r nps native=$native_build/quorvane
    local -A best=()
    [ -x "$native" ] || make -C "$repo" build BUILD="${BUILD:-build}" >/dev/null
    local kind measure
    for kind in 1:bench_nps 2:threaded_nps; do
        measure=${kind#*:} kind=${kind%%:*}
        for ((r = 0; r < runs; r++)); do
            nps=$($measure "$native")
            [ "${best[native$kind]:-0}" -ge "$nps" ] || best[native$kind]=$nps
            nps=$($measure "${console[@]}")
            [ "${best[wasm$kind]:-0}" -ge "$nps" ] || best[wasm$kind]=$nps
        done
    done
    printf '%-44s %12s %12s %s\n' "" native wasm "wasm / native"
    for kind in "1:bench, 1 thread (nodes/s)" "2:3 x go movetime 5000, 2 threads (nodes/s)"; do
        awk -v t="${kind#*:}" -v n="${best[native${kind%%:*}]}" -v w="${best[wasm${kind%%:*}]}" \
            'BEGIN{printf "%-44s %12d %12d %.3f\n", t, n, w, w / n}'
    done
    echo "(best of $runs interleaved runs; native: $native)"
    echo "=== $dist"
    (cd "$dist" && find . -type f | sed 's|^\./||' | sort | xargs stat -c '%8s  %n')
}

case ${1:-build} in
build) build ;;
check) check ;;
speed) speed ;;
*) echo "usage: $0 [build|check|speed]" >&2; exit 2 ;;
esac
