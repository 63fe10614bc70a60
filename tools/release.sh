#!/usr/bin/env bash
# Release binaries for every platform we ship, and the checks of each on its platform.
#
#   tools/release.sh [build]   (make release) six statically linked binaries in dist/ and
#                              their SHA-256 sums in dist/SHA256SUMS
#   tools/release.sh speed     bench nodes/s of every binary of dist/ and of build/quorvane
#                              (native CPU flags), best of RUNS (3) interleaved runs, with
#                              the level / native and Windows / Linux ratios
#   tools/release.sh check     (make release-check) every binary of dist/ natively, under
#                              wine or under qemu-aarch64: the bench signature, the perft
#                              reference files, the protocol tests driving the binary, the
#                              tablebase root searches against the Linux x86-64 binary's, and
#                              the unit tests cross-built for Windows and aarch64
#
# Cross compilers and emulators that are missing are installed with apt-get when this runs
# as root; otherwise the apt-get line is printed. Environment: JOBS, CMAKE_ARGS (extra
# configure flags), QUORVANE_DATA_DIR, DIST (default dist/), RELEASE_BUILD (default
# build-release/).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
dist=${DIST:-$repo/dist}
builds=${RELEASE_BUILD:-$repo/build-release}
jobs=${JOBS:-$(nproc)}
data=${QUORVANE_DATA_DIR:-$(cd "$repo/.." && pwd)/shared/data}
read -r -a extra <<<"${CMAKE_ARGS:-}"
export WINEDEBUG=-all
# A wine prefix of our own (made on first use, some 15 s): nothing of the user's is needed.
export WINEPREFIX=${WINEPREFIX:-$builds/wine}

# name, toolchain file in cmake/toolchains (- for the build machine's compiler), -march
targets=(
    "quorvane-linux-x86-64          -                   x86-64"
    "quorvane-linux-x86-64-v2       -                   x86-64-v2"
    "quorvane-linux-x86-64-v3       -                   x86-64-v3"
    "quorvane-linux-aarch64         aarch64-linux-gnu   armv8-a"
    "quorvane-windows-x86-64.exe    x86_64-w64-mingw32  x86-64"
    "quorvane-windows-x86-64-v3.exe x86_64-w64-mingw32  x86-64-v3"
)

# require and result: tools/lib.sh.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

toolchains() {
    require g++-mingw-w64-x86-64-posix:x86_64-w64-mingw32-g++-posix \
        g++-aarch64-linux-gnu:aarch64-linux-gnu-g++
}

# configure DIR TOOLCHAIN ARGS...: a Release build folder for the toolchain.
configure() {
    local dir=$1 toolchain=$2
    shift 2
    local args=(-DCMAKE_BUILD_TYPE=Release -DQUORVANE_BENCH=OFF -DQUORVANE_TUNER=OFF "$@")
    [ "$toolchain" = - ] || args+=(-DCMAKE_TOOLCHAIN_FILE="$repo/cmake/toolchains/$toolchain.cmake")
    cmake -S "$repo" -B "$dir" "${args[@]}" "${extra[@]}" >/dev/null
}

build() {
    toolchains
    mkdir -p "$dist"
    local t name toolchain arch exe
    for t in "${targets[@]}"; do
        read -r name toolchain arch <<<"$t"
        echo "=== $name"
        configure "$builds/$name" "$toolchain" -DQUORVANE_TESTS=OFF -DQUORVANE_ARCH="$arch" \
            -DQUORVANE_STATIC=ON -DCMAKE_EXE_LINKER_FLAGS=-s
        cmake --build "$builds/$name" -j"$jobs" --target quorvane
        exe=quorvane
        [[ $name == *.exe ]] && exe=quorvane.exe
        cp "$builds/$name/$exe" "$dist/$name"
    done
    (cd "$dist" && sha256sum quorvane-* >SHA256SUMS)
    echo "=== $dist"
    ls -l "$dist"
}

# ------------------------------------------------------------------------------------------
# Checks

# runner NAME: the emulator a binary needs on this machine, as words before its path.
runner() {
    case $1 in
    *.exe) echo "wine" ;;
    *aarch64*) echo "qemu-aarch64" ;;
    esac
}

# Positions of three to five pieces: the first ones are answered from the tables at the
# root, the five-piece ones are searched with the tables probed in the tree.
tb_positions=(
    "8/8/8/4k3/8/8/8/4K2R w - - 0 1"
    "8/8/4k3/8/8/4KP2/8/8 w - - 0 1"
    "8/2k5/8/8/3q4/8/8/4K1R1 b - - 0 1"
    "8/4k3/8/4P3/4K3/8/r7/7R w - - 0 1"
    "8/8/4k3/8/8/2NB4/1p6/4K3 w - - 0 1"
    "8/8/3k4/3rp3/8/8/3QK3/8 w - - 0 1"
)

# tb_searches COMMAND...: "go depth 12" on each position with the tables, every output line
# without its nps and time fields.
tb_searches() {
    local line fen
    coproc ENGINE { "$@" 2>&1; }
    {
        echo "setoption name Hash value 16"
        echo "setoption name SyzygyPath value $data/syzygy"
    } >&"${ENGINE[1]}"
    for fen in "${tb_positions[@]}"; do
        printf 'ucinewgame\nposition fen %s\ngo depth 12\n' "$fen" >&"${ENGINE[1]}"
        while IFS= read -r -t 600 line <&"${ENGINE[0]}"; do
            line=${line%$'\r'}
            echo "$line" | sed -E 's/ (nps|time) [0-9]+//g'
            [[ $line == bestmove* ]] && break
        done
    done
    echo quit >&"${ENGINE[1]}"
    wait "$ENGINE_PID" 2>/dev/null || true
}

check_binary() {
    local name=$1 bin="$dist/$1" run out expected nodes nps ok tests rc
    read -r -a run <<<"$(runner "$name")"
    echo "=== $name${run[*]:+ under ${run[*]}}"
    [ -x "$bin" ] || { result "$name: present" 1 "no $bin (make release)"; return; }

    expected=$(cat "$repo/tools/bench_signature.txt")
    out=$("${run[@]}" "$bin" bench 2>&1 | tr -d '\r')
    nodes=$(sed -n 's/^Nodes searched: //p' <<<"$out")
    nps=$(sed -n 's/^Nodes\/second: //p' <<<"$out")
    [ "$nodes" = "$expected" ] && rc=0 || rc=$?
    result "$name: bench signature" $rc "$nodes nodes, $nps nodes/s"
    figures+=("$(printf '%-32s %10s %12s %s' "$name" "$(stat -c %s "$bin")" "$nps" "${run[*]:-native}")")

    for file in "$repo/tests/perft.txt" "$data/perft.txt"; do
        [ -f "$file" ] || { echo "skipped: $file missing"; continue; }
        out=$(cd "$(dirname "$file")" && "${run[@]}" "$bin" rtest "$(basename "$file")" 2>&1 | tr -d '\r')
        ok=$(grep -c '^1;' <<<"$out" || true)
        grep -q '^Results of the perft checks is OK: 1$' <<<"$out" && rc=0 || rc=$?
        result "$name: perft $file" $rc "$ok lines"
    done

    # The suites of the build machine's tests that drive the engine binary, driving this
    # one; the clock games only where it runs at full speed.
    tests="UciTranscript.*:UciFuzz.*:EngineSearch.*:EngineTablebases.*:SearchThreads.*"
    [ "${run[*]}" = qemu-aarch64 ] || tests+=":EngineClock.*"
    QUORVANE_ENGINE="${run[*]} $bin" QUORVANE_TIME_SCALE=${run:+4} \
        "$repo/build/quorvane_tests" --gtest_filter="$tests" --gtest_brief=1 >"$builds/$name.protocol.log" 2>&1 && rc=0 || rc=$?
    result "$name: protocol tests ($tests)" $rc "$(grep -E '^\[  (PASSED|FAILED) ' "$builds/$name.protocol.log" | head -1)"

    if [ -d "$data/syzygy" ]; then
        tb_searches "${run[@]}" "$bin" >"$builds/$name.tb.txt"
        cmp -s "$builds/$name.tb.txt" "$builds/reference.tb.txt" && rc=0 || rc=$?
        result "$name: tablebase root searches" $rc "$(grep -c '^bestmove' "$builds/$name.tb.txt") searches"
    fi
}

# The unit tests cross-built for a toolchain, run by ctest under the toolchain's emulator.
check_unit_tests() {
    local toolchain=$1 dir="$builds/tests-$1" rc
    shift
    echo "=== unit tests, $toolchain"
    configure "$dir" "$toolchain" -DQUORVANE_DATA_DIR="$data" "$@"
    cmake --build "$dir" -j"$jobs" >"$dir.build.log" 2>&1 || { result "unit tests $toolchain: build" 1; return; }
    ctest --test-dir "$dir" -j"$jobs" --output-on-failure >"$dir.log" 2>&1 && rc=0 || rc=$?
    result "unit tests $toolchain" $rc \
        "$(sed -n 's/.* tests passed, \([0-9]*\) tests failed out of \([0-9]*\)/\2 tests, \1 failed/p' "$dir.log")"
}

# The engine built the way OpenBench workers build it (make EXE=... CXX=...), with each
# compiler at hand: the bench signature.
check_openbench() {
    local cxx exe out rc
    for cxx in g++ clang++; do
        command -v "$cxx" >/dev/null 2>&1 || { echo "skipped: no $cxx"; continue; }
        exe="$builds/openbench-$cxx"
        make -C "$repo" EXE="$exe" CXX="$cxx" EXE_BUILD="$builds/openbench-$cxx.build" \
            CMAKE_ARGS="${CMAKE_ARGS:-}" >"$exe.log" 2>&1 || { result "make EXE CXX=$cxx" 1; continue; }
        out=$("$exe" bench 2>&1 | tail -1)
        [ "${out%% *}" = "$(cat "$repo/tools/bench_signature.txt")" ] && rc=0 || rc=$?
        result "make EXE CXX=$cxx" $rc "$out"
    done
}

check() {
    toolchains
    require wine64:wine qemu-user:qemu-aarch64
    [ -x "$repo/build/quorvane_tests" ] || make -C "$repo" build CMAKE_ARGS="${CMAKE_ARGS:-}" >/dev/null
    mkdir -p "$builds"
    figures=()
    local t name
    [ -d "$data/syzygy" ] && tb_searches "$dist/quorvane-linux-x86-64" >"$builds/reference.tb.txt"
    for t in "${targets[@]}"; do
        read -r name _ <<<"$t"
        check_binary "$name"
    done
    check_openbench
    check_unit_tests aarch64-linux-gnu -DQUORVANE_ARCH=armv8-a
    check_unit_tests x86_64-w64-mingw32 -DQUORVANE_ARCH=x86-64 -DQUORVANE_STATIC=ON

    echo "=== bench figures (one run each)"
    printf '%-32s %10s %12s %s\n' binary bytes "nodes/s" "run"
    printf '%s\n' "${figures[@]}"
    echo "release-check: $passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}

# bench_nps COMMAND...: the nodes/s that one bench run prints.
bench_nps() { "$@" bench 2>&1 | tr -d '\r' | sed -n 's/^Nodes\/second: //p'; }

speed() {
    mkdir -p "$builds"
    local runs=${RUNS:-3} r t name nps
    local -A best=()
    local names=(native)
    [ -x "$repo/build/quorvane" ] || make -C "$repo" build CMAKE_ARGS="${CMAKE_ARGS:-}" >/dev/null
    for t in "${targets[@]}"; do
        read -r name _ <<<"$t"
        names+=("$name")
    done
    for ((r = 0; r < runs; r++)); do
        for name in "${names[@]}"; do
            if [ "$name" = native ]; then
                nps=$(bench_nps "$repo/build/quorvane")
            else
                local run
                read -r -a run <<<"$(runner "$name")"
                nps=$(bench_nps "${run[@]}" "$dist/$name")
            fi
            [ "${best[$name]:-0}" -ge "$nps" ] || best[$name]=$nps
        done
    done
    printf '%-32s %10s %12s %s\n' binary bytes "nodes/s" run
    for name in "${names[@]}"; do
        if [ "$name" = native ]; then
            printf '%-32s %10s %12s %s\n' "build/quorvane (-march=native)" \
                "$(stat -c %s "$repo/build/quorvane")" "${best[$name]}" native
        else
            printf '%-32s %10s %12s %s\n' "$name" "$(stat -c %s "$dist/$name")" "${best[$name]}" \
                "$(runner "$name" | grep . || echo native)"
        fi
    done
    ratio() { awk -v a="${best[$2]}" -v b="${best[$3]}" -v l="$1" 'BEGIN{printf "%-40s %.3f\n", l, a / b}'; }
    ratio "linux x86-64 / native" quorvane-linux-x86-64 native
    ratio "linux x86-64-v2 / native" quorvane-linux-x86-64-v2 native
    ratio "linux x86-64-v3 / native" quorvane-linux-x86-64-v3 native
    ratio "windows x86-64 (wine) / linux x86-64" quorvane-windows-x86-64.exe quorvane-linux-x86-64
    ratio "windows x86-64-v3 (wine) / linux x86-64-v3" quorvane-windows-x86-64-v3.exe \
        quorvane-linux-x86-64-v3
    ratio "linux aarch64 (qemu) / linux x86-64" quorvane-linux-aarch64 quorvane-linux-x86-64
    echo "(best of $runs interleaved runs)"
}

case ${1:-build} in
build) build ;;
check) check ;;
speed) speed ;;
*) echo "usage: $0 [build|check|speed]" >&2; exit 2 ;;
esac
