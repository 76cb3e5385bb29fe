#!/usr/bin/env bash
# format.sh CLANG-FORMAT: fails, naming the lines, when a C or C++ file is not as .clang-format
# would have it.
set -euo pipefail

find . -path ./build -prune -o -path '*/node_modules' -prune -o \
    -type f '(' -name '*.[ch]' -o -name '*.cpp' -o -name '*.hpp' ')' -print0 |
    xargs --null --no-run-if-empty "$1" --dry-run -Werror --style=file
