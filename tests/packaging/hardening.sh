#!/bin/sh
# hardening.sh LIBRARY|PROGRAM... : what has been linked has the protections that cmake/TarnHarden.cmake asks for. Read
# from the files themselves, as a flag that a later one undoes would leave no trace in the build's commands.
set -eu
export LC_ALL=C
failed=0

complain() {
    echo "$file: $1"
    failed=1
}

# has TEXT PATTERN COMPLAINT
has() {
    printf '%s\n' "$1" | grep -Eq -e "$2" || complain "$3"
}

for file in "$@"; do
    segments=$(readelf -lW "$file")
    dynamic=$(readelf -dW "$file")
    imports=$(readelf -W --dyn-syms "$file" | awk '$7 == "UND" { print $8 }')

    has "$segments" '^ +GNU_RELRO ' "the tables of the loader stay writable: no RELRO"
    has "$dynamic" '\((FLAGS|FLAGS_1)\).*(BIND_NOW|NOW)' "functions are bound late, so their table stays writable"
    has "$segments" '^ +GNU_STACK ' "it doesn't say whether it needs an executable stack"
    if printf '%s\n' "$segments" | grep -Eq '^ +GNU_STACK .* RWE '; then
        complain "its stack is executable"
    fi
    has "$imports" '^__stack_chk_fail@' "compiled without stack protector"
    if readelf -hW "$file" | grep -Eq 'Type: +EXEC'; then
        complain "it runs at a fixed address: no PIE"
    fi
    case $file in
    *.so*)
        has "$imports" '^__(memcpy|memmove|memset|read|recv|snprintf|vsnprintf)_chk@' "no call is fortified"
        has "$imports" 'glibcxx_assert_fail' "no assertions of the standard library"
        ;;
    *) has "$dynamic" '\(FLAGS_1\).* PIE' "the linker doesn't call it PIE" ;;
    esac
    # Debian's start files lack the mark, so that the linker withholds it from whatever it links with them. The code
    # itself has the landing pads.
    case $(readelf -hW "$file") in
    *X86-64*)
        pads=$(objdump -d --no-show-raw-insn "$file" | grep -c endbr64 || true)
        [ "$pads" -gt 10 ] || complain "indirect branches have no landing pads"
        ;;
    esac
done
exit $failed
