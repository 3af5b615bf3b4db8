#!/bin/sh
# run.sh BUILD [--serve]: starts a small device from the programs of a build, in a run-time directory of its own: a
# router, a relay, three services and a subscriber, each a process. A client then asks all services through the router,
# also while one of them is down and after it is back. Exit status 0 only if every answer was right. With --serve the
# device stays up for you to try it.
set -eu
build=$1
serve=${2:-}
programs=$build/bin
examples=$build/examples

device=$(mktemp -d)
run=$device/run
router=ipc://$run/router/zmq.sock
relay_in=ipc://$run/relay/in.sock
relay_out=ipc://$run/relay/out.sock
mkdir -p "$run/status" "$run/settings" "$run/files" "$device/kept"

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

# start NAME COMMAND...: starts a process and waits for its first line of output, which reports that it is ready. Its
# log, and what it prints after that line, go to files.
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
    start settings "$examples/device/device_settings_service" "$run/settings/zmq.sock" "$device/kept" "$router" "$relay_in"
    settings=$started
}

# check COMMAND...: runs a client; if it fails, shows the logs of the other processes.
check() {
    "$@" && return 0
    echo "FAILED: $*"
    tail -n 20 "$device"/*.log
    exit 1
}

echo "A device of five processes, in $run"
start tarnd "$programs/tarnd" --run-dir "$run"
start status "$examples/machine_status/machine_status_service" "$run/status/zmq.sock"
start_settings
start files "$examples/upload/upload_service" "$run/files/zmq.sock"
"$programs/tarn" watch -e "$relay_out" /settings >"$device/watch.out" 2>"$device/watch.log" &
watch=$!
processes="$processes $watch"
printf '  %-10s %s\n' watch "watching $relay_out"
# A subscriber receives nothing until its subscription has reached the relay, so this writes a setting until the change
# arrives.
until grep -q interval "$device/watch.out"; do
    check "$programs/tarn" put -e "$router" /settings/interval 60
done

check "$examples/device/device_client" "$router" "$relay_out" walk

echo
echo "The settings service stops and starts again; nobody tells the router"
kill "$settings"
wait "$settings" || true
check "$examples/device/device_client" "$router" "$relay_out" gone
start_settings
check "$examples/device/device_client" "$router" "$relay_out" back

echo
echo "The subscriber has printed meanwhile"
until grep -q "del  /settings/location" "$device/watch.out"; do
    kill -0 "$watch"
done
sed 's/^/      /' "$device/watch.out"
check grep -q "put  /settings/location .*greenhouse" "$device/watch.out"

echo
echo "Every answer was right."
[ "$serve" = --serve ] || exit 0

cat <<EOF

The device stays up until you press Ctrl-C. Try it in another terminal:

  export PATH="$(cd "$programs" && pwd):\$PATH" ROUTER=$router
  tarn get -e \$ROUTER /status/index
  tarn get -e \$ROUTER /status/load/5
  tarn get -e \$ROUTER -H 'Accept: application/json' /status/memory
  tarn put -e \$ROUTER /settings/location attic
  tarn put -e \$ROUTER /files/drop/it @README.md
  tarn get -e \$ROUTER '/relay/stats?format=text'
  tarn services --run-dir $run
  tarn watch -e $relay_out          (prints every change of a setting)
EOF
wait "$watch" || true
