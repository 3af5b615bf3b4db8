#!/bin/sh
# request.sh REQUEST STATUS_SERVICE UPLOAD_SERVICE: what tarn_request prints and how it exits, against real services.
set -eu
request=$1
work=$(mktemp -d)
services=""
finish() {
    kill $services 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap finish EXIT

start() {
    mkfifo "$work/ready.$2"
    "$1" "$work/$2.sock" >"$work/ready.$2" &
    services="$services $!"
    read -r line <"$work/ready.$2"
}
start "$2" status
start "$3" upload
status=ipc://$work/status.sock
upload=ipc://$work/upload.sock

# expect STATUS OUTPUT ERRORS ARGUMENT...: runs tarn_request; OUTPUT and ERRORS are patterns of the shell.
expect() {
    wanted=$1 output=$2 errors=$3
    shift 3
    got=0
    "$request" "$@" >"$work/out" 2>"$work/err" </dev/null || got=$?
    matches "$(cat "$work/out")" "$output" && matches "$(cat "$work/err")" "$errors" && [ "$got" -eq "$wanted" ] && return 0
    echo "FAILED: tarn_request $*: exit status $got instead of $wanted, output and errors:"
    cat "$work/out" "$work/err"
    exit 1
}
matches() {
    # shellcheck disable=SC2254  # a pattern is meant
    case $1 in $2) return 0 ;; esac
    return 1
}

expect 0 workshop "" "$status" get /settings/location
expect 0 "" "" "$status" put /settings/location attic
expect 0 attic "" "$status" get /settings/location
expect 0 "*Content-Length: 5*" "" "$status" head /settings/location
expect 0 "" "" "$status" delete /settings/location
expect 0 workshop "" "$status" get /settings/location
expect 0 '{"total":*' "" -H accept:application/json "$status" get /memory
expect 1 "" "tarn_request: 404 NotFound" "$status" get /nowhere
expect 1 "" "tarn_request: 405 MethodNotAllowed: route ?uptime? doesn't support PUT" "$status" put /uptime 0
expect 1 "" "tarn_request: 408 RequestTimeout: no answer from ipc://$work/nobody.sock within 0 ms: no such file" -t 0 "ipc://$work/nobody.sock" get /uptime
expect 0 "3 bytes, MD5 *" "" "$upload" put /drop/x abc
expect 0 "3 bytes, MD5 *" "" "$upload" post /drop/x abc
expect 0 "1 bytes, MD5 *" "" "$upload" put /drop/x "x"

expect 2 "" "*usage: *" "$status" get
expect 2 "" "*usage: *" "$status" put /x y z
expect 2 "" "*not an endpoint: nonsense" nonsense get /
expect 2 "" "*not a verb: fetch" "$status" fetch /
expect 2 "" "*not a number of seconds: soon" -t soon "$status" get /
expect 2 "" "*not a number of seconds: -1" -t -1 "$status" get /
expect 2 "" "*not a header of the form KEY:VALUE: accept" -H accept "$status" get /
expect 2 "" "*tarn_request: usage: *" -x "$status" get /
expect 2 "" "*tarn_request: usage: *" -H

head -c 3000000 /dev/urandom >"$work/body"
reply=$("$request" "$upload" put /drop/x - <"$work/body")
matches "$reply" "3000000 bytes, MD5 *"
[ "$("$request" "$upload" post /drop/x - <"$work/body")" = "$reply" ]
