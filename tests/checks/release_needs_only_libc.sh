#!/usr/bin/env bash
# release_needs_only_libc.sh PROGRAM: a release runs on any Debian 12 without a package of its own,
# so it may load nothing but the C library.
set -euo pipefail

needed=$(readelf --dynamic "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
printf 'loads %s\n' "${needed//$'\n'/ }"
[[ -n $needed ]]
# The program has no use for more; the dynamic loader and the C maths library belong to it.
! grep -vE '^(libc\.so\.6|libm\.so\.6|ld-linux-x86-64\.so\.2|ld-linux-aarch64\.so\.1)$' <<< "$needed"
