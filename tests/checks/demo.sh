#!/usr/bin/env bash
# demo.sh DEMO: the demo shows a fragment, ends well, and leaves neither files nor processes.
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

said=$(TMPDIR=$scratch "$1" --seconds 12 < /dev/null)
printf '%s\n' "$said"
grep --quiet 'ch1.00000000.ts is being written' <<< "$said"
grep --quiet 'the program ended with status 0' <<< "$said"
rmdir "$scratch"
# Each of its processes worked in a directory there, or had a pipe there open.
! readlink /proc/[0-9]*/cwd /proc/[0-9]*/fd/* 2> /dev/null | grep --fixed-strings "$scratch"
