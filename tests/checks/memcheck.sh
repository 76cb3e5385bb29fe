#!/usr/bin/env bash
# memcheck.sh VALGRIND E2E-TESTS FILTER: runs those end-to-end tests that GoogleTest's filter names,
# and the program in them, under valgrind. A memory error or a leak gives the run a status that its
# test does not expect; what valgrind said of it is shown.
set -euo pipefail

logs=$(mktemp --directory)
trap 'rm -rf "$logs"' EXIT

status=0
"$1" --quiet --trace-children=yes --log-file="$logs/%p" --error-exitcode=99 \
    --leak-check=full --errors-for-leak-kinds=definite \
    "$2" --gtest_filter="$3" || status=$?

# There is a log for each process, empty as long as there is nothing to say. One alone is that of
# the tests: then they ran without the program, or the filter names none.
runs=$(find "$logs" -type f | wc -l)
printf '%d processes looked at\n' "$runs"
if [[ $runs -lt 2 || -n $(find "$logs" -type f -size +0) ]]; then
    find "$logs" -type f -size +0 -exec cat {} +
    status=1
fi
exit "$status"
