#!/bin/sh
# usage.sh ROUTER RELAY: what the programs say that run until they are told to end, when they can't begin, and that
# they end at SIGTERM.
set -eu
router=$1
relay=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# refuse STATUS ERRORS COMMAND...: the command exits with that status and says something like ERRORS.
refuse() {
    wanted=$1 errors=$2
    shift 2
    got=0
    "$@" >"$work/out" 2>"$work/err" || got=$?
    # shellcheck disable=SC2254  # a pattern is meant
    case $(cat "$work/err") in $errors) [ "$got" -eq "$wanted" ] && return 0 ;; esac
    echo "FAILED: $*: exit status $got instead of $wanted, errors:"
    cat "$work/err"
    exit 1
}

# serve WORDS COMMAND...: the command says WORDS when it is there, and ends well at SIGTERM.
serve() {
    words=$1
    shift
    rm -f "$work/ready"
    mkfifo "$work/ready"
    "$@" >"$work/ready" 2>"$work/err" &
    read -r line <"$work/ready"
    [ "$line" = "$words" ] || { echo "FAILED: $*: said: $line"; exit 1; }
    kill "$!"
    wait "$!"
}

refuse 2 "usage: tarn_router *" "$router" "$work"
refuse 2 "tarn_router: not an endpoint: nonsense" "$router" "$work" nonsense
refuse 1 "*tarn_router: cannot answer at ipc://$work/missing/x.sock" "$router" "$work" "ipc://$work/missing/x.sock"
serve "routing to the services below $work" "$router" "$work" "ipc://$work/a.sock" "ipc://$work/b.sock"

refuse 2 "usage: tarn_relay *" "$relay" "ipc://$work/a.sock"
refuse 2 "tarn_relay: not an endpoint: nonsense" "$relay" "ipc://$work/a.sock" nonsense "ipc://$work/c.sock"
refuse 1 "*tarn_relay: *" "$relay" "ipc://$work/a.sock" "ipc://$work/missing/b.sock" "ipc://$work/c.sock"
serve "relaying from ipc://$work/b.sock to ipc://$work/c.sock" \
    "$relay" "ipc://$work/a.sock" "ipc://$work/b.sock" "ipc://$work/c.sock"

# A program leaves those alone who serve already, and names them.
mkfifo "$work/first"
"$relay" "ipc://$work/a.sock" "ipc://$work/b.sock" "ipc://$work/c.sock" >"$work/first" 2>/dev/null &
first=$!
read -r line <"$work/first"
for taken in a b c; do
    refuse 1 "tarn_router: ipc://$work/$taken.sock is served already, by process $first" \
        "$router" "$work" "ipc://$work/new.sock" "ipc://$work/$taken.sock"
done
refuse 1 "tarn_relay: ipc://$work/b.sock is served already, by process $first" \
    "$relay" "ipc://$work/d.sock" "ipc://$work/b.sock" "ipc://$work/e.sock"
limit=$(awk '/Max open files/ { print $4, $5 }' "/proc/$first/limits")
# shellcheck disable=SC2086  # two words
set -- $limit
[ "$1" = "$2" ] || { echo "FAILED: file descriptors are limited to $1 instead of $2"; exit 1; }
kill "$first"
wait "$first"
