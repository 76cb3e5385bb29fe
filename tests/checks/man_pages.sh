#!/usr/bin/env bash
# man_pages.sh MANDOC PAGE...: fails when a manual page has a fault that mandoc knows, does not name
# the system, or cannot be rendered as text and as HTML.
set -euo pipefail

mandoc=$1
shift

# Not faults: the pages that are referred to need not be installed here, the generated page is
# wrapped by sentence, and only the BSDs' own pages leave the system out.
tolerated='STYLE: (referenced manual not found|input text line longer than 80 bytes|operating system)'

failed=0
for page in "$@"; do
    if "$mandoc" -T lint "$page" | grep -vE "$tolerated"; then
        failed=1
    fi
    # Without it groff puts "BSD" at the foot of the page.
    if ! grep -qx '\.Os Linux' "$page"; then
        printf '%s: no ".Os Linux"\n' "$page"
        failed=1
    fi
    text=$("$mandoc" -T utf8 "$page")
    html=$("$mandoc" -T html "$page")
    [[ $html == *'</html>' ]]
    printf '%s: %d lines of text\n' "${page##*/}" "$(wc -l <<< "$text")"
done
exit "$failed"
