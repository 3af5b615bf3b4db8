#!/bin/sh
# changes.sh RELAY PUBLISHER SUBSCRIBER: a relay, a publisher and two subscribers, one of which comes late; exits 0 if both
# hear what they wait for, the late one after the relay was restarted.
set -eu
work=$(mktemp -d)
relay=""
publisher=""
finish() {
    kill $relay $publisher 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap finish EXIT

start_relay() {
    rm -f "$work/ready"
    mkfifo "$work/ready"
    "$relay_program" "ipc://$work/url.sock" "ipc://$work/sub.sock" "ipc://$work/pub.sock" >"$work/ready" &
    relay=$!
    read -r line <"$work/ready"
    echo "$line"
}

relay_program=$1
start_relay
mkfifo "$work/publishing"
"$2" "ipc://$work/url.sock" "ipc://$work/sub.sock" 60 >"$work/publishing" &
publisher=$!
read -r line <"$work/publishing"
echo "$line"
"$3" "ipc://$work/pub.sock" 4

kill -9 "$relay"
wait "$relay" || true
start_relay
"$3" "ipc://$work/pub.sock" 4
echo "heard before and after the relay's restart"
