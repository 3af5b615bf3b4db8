#!/bin/sh
# run.sh SERVICE CLIENT EXPECTED: starts the service, and asks it until the client prints what is expected, as the
# routes come a moment after the socket.
set -eu
"$1" &
service=$!
trap 'kill $service 2>/dev/null || true' EXIT
attempt=0
while [ "$attempt" -lt 50 ]; do
    output=$("$2" 2>&1) || output="failed: $output"
    case $output in "$3"*) echo "$output"; exit 0 ;; esac
    attempt=$((attempt + 1))
done
echo "$output"
exit 1
