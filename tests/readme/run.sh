#!/bin/sh
# run.sh SERVICE CLIENT EXPECTED: runs the client while nobody serves, which it must survive, with exit status 1. Then
# starts the service, and runs the client until it prints what is expected, as the routes come a moment after the socket.
set -eu
status=0
"$2" || status=$?
if [ "$status" -ne 1 ]; then
    echo "FAILED: without a service, the client's exit status is $status"
    exit 1
fi

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
