# Shell functions shared by the build-and-check scripts (release.sh, wasm.sh, fuzz.sh).
# Sourced, never run.

# require PACKAGE:COMMAND... (or PACKAGE:/path/of/a/file): installs the packages whose
# command or file is missing, as root; otherwise says how and fails.
require() {
    local pair what missing=()
    for pair in "$@"; do
        what=${pair#*:}
        if [[ $what == */* ]]; then
            [ -e "$what" ] || missing+=("${pair%%:*}")
        else
            command -v "$what" >/dev/null 2>&1 || missing+=("${pair%%:*}")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing: ${missing[*]}; install with: apt-get install ${missing[*]}" >&2
        exit 1
    fi
    echo "installing ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
}

# result NAME STATUS [DETAIL]: one line per check, counted in $passed and $failed.
passed=0
failed=0
result() {
    if [ "$2" -eq 0 ]; then
        passed=$((passed + 1))
        echo "ok      $1${3:+: $3}"
    else
        failed=$((failed + 1))
        echo "FAILED  $1${3:+: $3}"
    fi
}
