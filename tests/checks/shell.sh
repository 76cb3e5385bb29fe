#!/usr/bin/env bash
# shell.sh SHELLCHECK: runs shellcheck over every shell script of the project, known by its first
# line, by its name or by its folder.
set -euo pipefail

mapfile -t scripts < <(
    find . -path ./build -prune -o -path ./.git -prune -o -path '*/node_modules' -prune -o \
        -type f -print0 |
        xargs --null awk '
            FNR == 1 && (/^#!.*[\/ ](ba)?sh( |$)/ || FILENAME ~ /\.sh$|\/completions\//) { print FILENAME }
            FNR == 1 { nextfile }' |
        sort
)
[[ ${#scripts[@]} -gt 0 ]]
printf 'checking %s\n' "${scripts[@]}"
"$1" --external-sources --source-path=SCRIPTDIR "${scripts[@]}"
