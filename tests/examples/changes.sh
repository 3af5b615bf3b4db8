#!/bin/sh
# changes.sh TARND PUBLISHER SUBSCRIBER: a relay, a publisher and a subscriber that comes late and lives through a restart
# of the relay. The publisher's ticks are numbered, so what is lost shows: those before the subscriber came, and those
# while the relay was away, and no others.
set -eu
work=$(mktemp -d)
relay=""
publisher=""
subscriber=""
finish() {
    kill $relay $publisher $subscriber 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap finish EXIT

start_relay() {
    rm -f "$work/ready"
    mkfifo "$work/ready"
    "$tarnd" --no-router --run-dir "$work" >"$work/ready" &
    relay=$!
    read -r line <"$work/ready"
    echo "$line"
}

# await COUNT: waits until the subscriber has heard so many ticks.
await() {
    until [ "$(grep -c tick "$work/heard")" -ge "$1" ]; do
        kill -0 "$publisher" "$subscriber"
    done
}

tarnd=$1
start_relay
mkfifo "$work/publishing"
"$2" "ipc://$work/relay/zmq.sock" "ipc://$work/relay/in.sock" 60 >"$work/publishing" &
publisher=$!
read -r line <"$work/publishing"
echo "$line"
# Somebody else has heard four ticks before the subscriber comes.
"$3" "ipc://$work/relay/out.sock" 8 >"$work/first"
: >"$work/heard"
"$3" "ipc://$work/relay/out.sock" 1000000 >"$work/heard" &
subscriber=$!

await 5
kill -9 "$relay"
wait "$relay" || true
before=$(grep -c tick "$work/heard")
start_relay
await $((before + 5))

awk '/tick/ {
         tick = $NF
         if (NR > 2 && tick <= last) { print "heard out of order: " last ", " tick; failed = 1 }
         if (seen && tick > last + 1) { gaps++; print "lost: " last + 1 " to " tick - 1 }
         if (!seen) { first = tick; seen = 1 }
         last = tick
     }
     END {
         print "heard: " first " to " last ", gaps: " gaps + 0
         if (first < 4) { print "heard what was published before it came"; failed = 1 }
         if (gaps > 1) { print "lost more than what was published while the relay was away"; failed = 1 }
         exit failed
     }' "$work/heard"
