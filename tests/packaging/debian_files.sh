#!/bin/sh
# debian_files.sh CMAKE BUILD LIBDIR VERSION: each file that `cmake --install` puts in place is taken by one package of
# debian/ or is named as one that none takes, and no list there names a file that isn't installed. And debian/changelog and
# the recipes of other systems have the project's version.
set -eu
export LC_ALL=C
cmake=$1
build=$2
libdir=$3
version=$4
cd "$(dirname "$0")/../.."
debian=$PWD/debian
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

complain() {
    echo "$*"
    failed=1
}

DESTDIR="$work/root" "$cmake" --install "$build" --prefix /usr >"$work/log" 2>&1 || {
    cat "$work/log"
    exit 1
}
(cd "$work/root" && find . ! -type d | sed 's|^\./||' | sort) >"$work/files"

# Without comments and the place where a file goes in the package; Debian's folder of libraries is this build's here.
for list in "$debian"/*.install "$debian/not-installed"; do
    name=$(basename "$list" .install)
    grep -v '^#\|^$' "$list" | awk '{ print $1 }' | sed "s|^usr/lib/\*/|usr/$libdir/|" >"$work/patterns"
    while read -r pattern; do
        found=0
        while read -r file; do
            # A folder in a list stands for all that is in it.
            # shellcheck disable=SC2254  # they are patterns
            case $file in
            $pattern | $pattern/*)
                found=1
                echo "$file $name"
                ;;
            esac
        done <"$work/files" >>"$work/taken"
        [ "$found" = 1 ] || complain "$name takes $pattern, which isn't installed"
    done <"$work/patterns"
done

sort "$work/taken" -o "$work/taken"
cut -d' ' -f1 "$work/taken" | uniq >"$work/names"
comm -23 "$work/files" "$work/names" >"$work/left"
[ ! -s "$work/left" ] || complain "no package takes: $(cat "$work/left")"
cut -d' ' -f1 "$work/taken" | uniq -d >"$work/twice"
[ ! -s "$work/twice" ] || complain "several packages take: $(cat "$work/twice")"
[ "$(wc -l <"$work/files")" -gt 100 ] || complain "hardly anything is installed: $(cat "$work/files")"

head -n 1 "$debian/changelog" | grep -q "^tarn ($version) " || complain "debian/changelog has another version than $version"
ls packaging/yocto/meta-tarn/recipes-*/tarn/tarn_"$version".bb >/dev/null || complain "no recipe for Yocto has $version"
grep -qx "TARN_VERSION = $version" packaging/buildroot/tarn/tarn.mk || complain "the recipe for Buildroot hasn't $version"
exit $failed
