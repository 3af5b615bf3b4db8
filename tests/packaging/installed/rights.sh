#!/bin/sh
# rights.sh: who can do what in /run/tide, as the installed files for systemd make it. As root, in a system that may be
# thrown away. tarnd runs as its unit says, and members of "corvane" and strangers are users that only setpriv knows.
set -eu
cd "$(dirname "$0")/../../.."
work=$(mktemp -d)
chmod 755 "$work"
daemon=""
service=""
end() {
    for process in $service $daemon; do
        kill "$process" 2>/dev/null || true
        wait "$process" || true
    done
    rm -rf "$work"
}
trap end EXIT

fail() {
    echo "FAILED: $*"
    exit 1
}

systemd-sysusers
systemd-tmpfiles --create tarn.conf
group=$(getent group corvane | cut -d: -f3)
[ "$(stat -c '%a %U %G' /run/tide)" = "3775 root corvane" ] || fail "$(stat /run/tide)"
echo "/run/tide belongs to root and the group corvane, with mode 3775"

as() {
    user=$1
    groups=$2
    shift 2
    setpriv --reuid="$user" --regid="$user" --groups="$groups" -- "$@"
}
alice() { as 4711 "$group" "$@"; }
bob() { as 4712 "$group" "$@"; }
stranger() { as 4713 4713 "$@"; }

# wait_for FILE TEXT: until the text is in the file.
wait_for() {
    # shellcheck disable=SC2016  # for the inner shell
    timeout 30 sh -c 'until grep -q -e "$2" "$1"; do sleep 0.1; done' sh "$1" "$2" || fail "$(cat "$1")"
}

# Started as in its unit.
setpriv --reuid=tarnd --regid=corvane --init-groups -- tarnd --run-dir /run/tide >"$work/tarnd.log" 2>&1 &
daemon=$!
wait_for "$work/tarnd.log" "serving in /run/tide"

# shellcheck disable=SC2046  # a list of flags
g++ -std=c++20 examples/machine_status/service.cpp -o "$work/service" $(pkg-config --cflags --libs tarn)
alice mkdir /run/tide/machine
setpriv --reuid=4711 --regid="$group" --groups="$group" -- \
    "$work/service" /run/tide/machine/zmq.sock >"$work/service.log" 2>&1 &
service=$!
wait_for "$work/service.log" .

for member in alice bob; do
    place=$($member tarn get /machine/settings/location) || fail "$member can't ask"
    [ "$place" = workshop ] || fail "$member gets: $place"
done
bob tarn get -e /run/tide/machine/zmq.sock /settings/location >/dev/null || fail "bob can't ask the service itself"
echo "members serve, and ask each other"

status=0
stranger tarn get --run-dir /run/tide /machine/settings/location >"$work/refused" 2>&1 || status=$?
[ "$status" -eq 6 ] || fail "a stranger's status is $status: $(cat "$work/refused")"
grep -q "permission denied" "$work/refused" || fail "a stranger reads: $(cat "$work/refused")"
! stranger mkdir /run/tide/stranger 2>/dev/null || fail "a stranger can make a directory"
echo "strangers can neither ask nor serve: $(cat "$work/refused")"

for name in machine router relay; do
    ! bob mv "/run/tide/$name" /run/tide/mine 2>/dev/null || fail "bob can rename $name"
    ! bob rm -rf "/run/tide/$name" 2>/dev/null || fail "bob can remove $name"
done
! bob mv /run/tide/machine/zmq.sock /run/tide/machine/mine 2>/dev/null || fail "bob can rename alice's socket"
[ "$(bob tarn get /machine/settings/location)" = workshop ] || fail "the service has gone"
echo "no member can rename or remove what belongs to another or to tarnd"

kill "$service"
wait "$service" || true
service=""
alice rm -r /run/tide/machine || fail "alice can't remove her own directory"
kill "$daemon"
wait "$daemon" || fail "tarnd ended with status $?"
daemon=""
echo "their owners can, and tarnd ended when told to"
