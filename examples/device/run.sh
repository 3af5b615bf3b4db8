#!/bin/sh
# run.sh BUILD [--serve]: brings a small device up from the programs of a build, with a run-time directory of its own: a
# router, a relay, three services and a subscriber, each a process. Then a client reaches all of them through the router,
# and finds one service gone and back. Exit status 0 only if every answer was right. With --serve the device stays up, for
# a person to play with.
set -eu
build=$1
serve=${2:-}
apps=$build/apps
examples=$build/examples

device=$(mktemp -d)
run=$device/run
router=ipc://$run/router.sock
sub=ipc://$run/relay/sub.sock
pub=ipc://$run/relay/pub.sock
mkdir -p "$run/status" "$run/settings" "$run/files" "$run/relay" "$device/kept"

processes=""
finish() {
    for process in $processes; do
        kill "$process" 2>/dev/null || true
        wait "$process" 2>/dev/null || true
    done
    rm -rf "$device"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# start NAME COMMAND...: starts a process and waits until it says that it is there. What it logs goes to a file, and
# so does what it prints after that.
start() {
    name=$1
    shift
    rm -f "$device/$name.ready"
    mkfifo "$device/$name.ready"
    "$@" >"$device/$name.ready" 2>>"$device/$name.log" &
    started=$!
    processes="$processes $started"
    exec 3<"$device/$name.ready"
    read -r line <&3 || { cat "$device/$name.log"; exit 1; }
    cat <&3 >>"$device/$name.out" &
    exec 3<&-
    printf '  %-10s %s\n' "$name" "$line"
}

start_settings() {
    start settings "$examples/device/device_settings_service" "$run/settings/zmq.sock" "$device/kept" "$router" "$sub"
    settings=$started
}

# check COMMAND...: runs a client; if it fails, shows what the other processes have logged.
check() {
    "$@" && return 0
    echo "FAILED: $*"
    tail -n 20 "$device"/*.log
    exit 1
}

echo "A device of six processes, in $run"
start router "$apps/tarn_router" "$run" "$router"
start relay "$apps/tarn_relay" "ipc://$run/relay/zmq.sock" "$sub" "$pub"
start status "$examples/machine_status/machine_status_service" "$run/status/zmq.sock"
start_settings
start files "$examples/upload/upload_service" "$run/files/zmq.sock"
start watch "$apps/tarn_watch" "$pub" /settings
watch=$started
# A subscriber hears a change from when it is there: a setting is written until it is heard.
until grep -q interval "$device/watch.out"; do
    check "$apps/tarn_request" "$router" put /settings/interval 60
done

check "$examples/device/device_client" "$router" "$pub" walk

echo
echo "The settings service goes, and comes back; nobody tells the router"
kill "$settings"
wait "$settings" || true
check "$examples/device/device_client" "$router" "$pub" gone
start_settings
check "$examples/device/device_client" "$router" "$pub" back

echo
echo "What the subscriber has printed meanwhile"
until grep -q "delete /settings/location" "$device/watch.out"; do
    kill -0 "$watch"
done
sed 's/^/      /' "$device/watch.out"
check grep -q "put /settings/location greenhouse" "$device/watch.out"

echo
echo "Every answer was right."
[ "$serve" = --serve ] || exit 0

cat <<EOF

The device stays up until you press Ctrl-C. Play with it in another terminal:

  export PATH="$(cd "$apps" && pwd):\$PATH" ROUTER=$router
  tarn_request \$ROUTER get '/status/index?format=text'
  tarn_request \$ROUTER get /status/load/5
  tarn_request -H accept:application/json \$ROUTER get /status/memory
  tarn_request \$ROUTER put /settings/location attic
  tarn_request \$ROUTER put /files/drop/it - <README.md
  tarn_request \$ROUTER get '/relay/stats?format=text'
  tarn_watch $pub          (prints every change of a setting)
EOF
wait "$watch" || true
