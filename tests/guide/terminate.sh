#!/bin/sh
# terminate.sh SERVICE: starts a service at a socket of its own, waits until it says that it serves, and ends it by SIGTERM,
# at which it must exit with status 0.
set -eu
work=$(mktemp -d)
service=""
finish() {
    [ -z "$service" ] || kill "$service" 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT

mkfifo "$work/ready"
"$1" "ipc://$work/service.sock" >"$work/ready" &
service=$!
read -r line <"$work/ready"
echo "$line"
kill "$service"
wait "$service"
service=""
