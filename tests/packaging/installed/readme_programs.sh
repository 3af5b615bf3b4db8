#!/bin/sh
# readme_programs.sh: builds the programs of README.md against the installed package, with CMake and with pkg-config, and
# runs them.
set -eu
cd "$(dirname "$0")/../../.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Runs a command; what it says is in $work/log, and shown only if it fails.
quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log"
        echo "FAILED: $*"
        exit 1
    }
}

# try WAY SERVICE CLIENT
try() {
    quietly tests/readme/run.sh "$2" "$3" "Hello, world!"
    echo "built $1: $(tail -n 1 "$work/log")"
}

quietly cmake -S tests/packaging/readme_programs -B "$work" -DREADME="$PWD/README.md"
quietly cmake --build "$work"
try "by CMake" "$work/service" "$work/client"

for program in service client; do
    # shellcheck disable=SC2046  # a list of flags
    quietly g++ -std=c++20 "$work/$program.cpp" -o "$work/$program-2" $(pkg-config --cflags --libs tarn)
done
try "with pkg-config" "$work/service-2" "$work/client-2"
