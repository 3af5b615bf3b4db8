#!/bin/sh
# service_and_client.sh SERVICE CLIENT [ARGUMENT...]: starts the service at a socket of its own, waits until it says that
# it serves, and runs the client against it, with further arguments; exits as the client does.
set -eu
work=$(mktemp -d)
service=""
finish() {
    [ -z "$service" ] || { kill "$service" 2>/dev/null || true; wait "$service" 2>/dev/null || true; }
    rm -rf "$work"
}
trap finish EXIT

mkfifo "$work/ready"
"$1" "$work/service.sock" >"$work/ready" &
service=$!
read -r line <"$work/ready"
echo "$line"
client=$2
shift 2
"$client" "$work/service.sock" "$@"
