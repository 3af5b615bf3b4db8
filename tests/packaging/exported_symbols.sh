#!/bin/sh
# exported_symbols.sh NM LIBRARY LIST HEADERS...
#
# What a library exports is what LIST says, neither more nor less. LIST has an extended regular expression on each line,
# for the name of a function, a variable or a type without its arguments. And the headers in the folders HEADERS declare
# all of it, so that nothing is exported that nobody can use.
set -eu
export LC_ALL=C
nm=$1 library=$2 list=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

# A name without arguments has no result before it either, as templates do with them.
"$nm" -D --defined-only "$library" | awk '{ print $NF }' | c++filt -p | sed 's/<.*//; s/\[abi:cxx11\]//' |
    sort -u >"$work/names"
grep -v '^#\|^$' "$list" >"$work/patterns"

if grep -Evxf "$work/patterns" "$work/names" >"$work/surplus"; then
    echo "exported, though it is no interface:"
    cat "$work/surplus"
    failed=1
fi

while read -r pattern; do
    grep -Eqx -e "$pattern" "$work/names" || { echo "not exported: $pattern"; failed=1; }
done <"$work/patterns"

# The name behind the namespace is the one that a header has to have.
sed -n -E 's/^(.* for )?(slate|tarn|tarn_internal)::(~?[A-Za-z0-9_]+).*/\3/p' "$work/names" | grep -vx operator |
    sort -u >"$work/exported"
find "$@" -name '*.h' -exec cat {} + | tr -c 'A-Za-z0-9_' '\n' | sort -u >"$work/declared"
comm -23 "$work/exported" "$work/declared" >"$work/undeclared"
if [ -s "$work/undeclared" ]; then
    echo "exported, though no header declares it:"
    cat "$work/undeclared"
    failed=1
fi
exit $failed
