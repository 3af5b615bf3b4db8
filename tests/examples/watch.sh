#!/bin/sh
# watch.sh TARND PUBLISHER WATCH: without a path, the watcher prints what is published anywhere; with one, only what is
# published below it.
set -eu
work=$(mktemp -d)
processes=""
finish() {
    kill $processes 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap finish EXIT

mkfifo "$work/ready"
"$1" --run-dir "$work" >"$work/ready" &
processes=$!
read -r line <"$work/ready"
: >"$work/all"
: >"$work/below"
: >"$work/elsewhere"
"$3" "ipc://$work/relay/out.sock" >"$work/all" &
processes="$processes $!"
"$3" "ipc://$work/relay/out.sock" /machine >"$work/below" &
processes="$processes $!"
"$3" "ipc://$work/relay/out.sock" /elsewhere >"$work/elsewhere" &
processes="$processes $!"
"$2" "ipc://$work/relay/zmq.sock" "ipc://$work/relay/in.sock" 60 >/dev/null &
processes="$processes $!"

until grep -q "put /machine/load" "$work/all" && grep -q "put /machine/load" "$work/below"; do
    kill -0 $processes
done
if grep "put " "$work/elsewhere"; then
    echo "heard what is published elsewhere"
    exit 1
fi
