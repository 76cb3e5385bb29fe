#!/usr/bin/env bash
# release_is_hardened.sh PROGRAM...: fails when a program lacks one of the protections that the
# release is built with.
set -euo pipefail

faults=0

# expect PROGRAM WHAT TEXT PATTERN: the text has a line that matches.
expect() {
    if ! grep --quiet --extended-regexp "$4" <<< "$3"; then
        printf '%s: %s\n' "$1" "$2"
        faults=1
    fi
}

for program in "$@"; do
    header=$(readelf --wide --file-header "$program")
    segments=$(readelf --wide --segments "$program")
    dynamic=$(readelf --wide --dynamic "$program")
    symbols=$(readelf --wide --dyn-syms "$program")

    expect "$program" "no position-independent executable" "$header" 'Type: +DYN'
    expect "$program" "no position-independent executable" "$dynamic" 'FLAGS_1.*PIE'
    expect "$program" "relocations stay writable" "$segments" 'GNU_RELRO'
    expect "$program" "functions are bound late" "$dynamic" 'FLAGS_1.*NOW'
    expect "$program" "the stack can be executed" "$segments" 'GNU_STACK .* RW '
    expect "$program" "no stack protector" "$symbols" '__stack_chk_fail'
    expect "$program" "no checked calls" "$symbols" '__(fprintf|vsnprintf|read|mem(cpy|move))_chk'
    if [[ $header == *X86-64* ]]; then
        # Of main itself: code that the C library brings along may not have them.
        main=$(objdump --disassemble=main --no-show-raw-insn "$program" || true)
        [[ $main == *'<main>'* ]] || main=$(objdump --disassemble --section=.text "$program")
        expect "$program" "branch targets are not marked" "$main" 'endbr64'
    fi
    printf 'looked at %s\n' "$program"
done
exit "$faults"
