#!/bin/sh
# usage.sh WATCH: what the watcher says when it can't begin, and that it ends at SIGTERM.
set -eu
watch=$1
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

refuse 2 "usage: tarn_watch *" "$watch"
refuse 2 "usage: tarn_watch *" "$watch" nonsense
refuse 2 "usage: tarn_watch *" "$watch" "ipc://$work/a.sock" /a /b
serve "watching ipc://$work/a.sock" "$watch" "ipc://$work/a.sock" /settings
