#!/bin/sh
# units.sh [PROGRAM UNIT USER_UNIT SYSUSERS TMPFILES]: systemd finds nothing wrong with what is installed for it, and makes
# of it what tarnd needs. Without arguments, with what the packages have installed. 77, which skips the test, without
# systemd's tools. They work on a folder; nothing runs.
set -eu
program=${1:-/usr/bin/tarnd}
unit=${2:-/usr/lib/systemd/system/tarnd.service}
user_unit=${3:-/usr/lib/systemd/user/tarnd.service}
sysusers=${4:-/usr/lib/sysusers.d/tarn.conf}
tmpfiles=${5:-/usr/lib/tmpfiles.d/tarn.conf}
for tool in systemd-analyze systemd-sysusers systemd-tmpfiles; do
    command -v "$tool" >/dev/null || exit 77
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAILED: $*"
    exit 1
}

# The program as it was built, instead of where it will be installed.
for file in "$unit" "$user_unit"; do
    name=tarnd-$(basename "$(dirname "$file")").service
    sed "s|^ExecStart=[^ ]*|ExecStart=$program|" "$file" >"$work/$name"
    grep -q "^ExecStart=$program --" "$work/$name" || fail "$file doesn't start the program"
    systemd-analyze verify --man=no "$work/$name" >"$work/findings" 2>&1 || fail "verify: $(cat "$work/findings")"
    [ ! -s "$work/findings" ] || fail "verify: $(cat "$work/findings")"
    # The options are those that the program has.
    options=$(sed -n 's/^ExecStart=[^ ]* //p' "$work/$name")
    # shellcheck disable=SC2086  # a list of words
    "$program" $options --version >/dev/null || fail "the program doesn't know: $options"
done

# The exposure, of which 0 is the least and 10 the most; the last line says it.
cp "$unit" "$work/tarnd.service"
systemd-analyze security --offline=true --threshold=25 --no-pager "$work/tarnd.service" >"$work/security" ||
    fail "$(tail -n 1 "$work/security")"
tail -n 1 "$work/security"

mkdir -p "$work/root/etc" "$work/root/run"
systemd-sysusers --root="$work/root" "$sysusers" >"$work/findings" 2>&1 || fail "sysusers: $(cat "$work/findings")"
grep -q '^corvane:x:[0-9]*:tarnd$' "$work/root/etc/group" || fail "$(cat "$work/root/etc/group")"
grep -q '^tarnd:x:.*:/usr/sbin/nologin$' "$work/root/etc/passwd" || fail "$(cat "$work/root/etc/passwd")"
[ "$(id -u)" -eq 0 ] || exit 0 # only root can give a directory away
systemd-tmpfiles --root="$work/root" --create "$tmpfiles"
group=$(awk -F: '$1 == "corvane" { print $3 }' "$work/root/etc/group")
[ "$(stat -c '%a %u %g' "$work/root/run/tide")" = "3775 0 $group" ] || fail "$(stat "$work/root/run/tide")"
