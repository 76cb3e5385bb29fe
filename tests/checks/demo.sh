#!/usr/bin/env bash
# demo.sh DEMO: the demo shows fragments and segments of a file, with and without the publisher, ends
# well, and leaves neither files nor processes. Its test pictures are for a test with a browser.
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Pictures so large that the tables, between them, come too late for the program alone.
ffmpeg -nostdin -loglevel error -f lavfi -i testsrc2=size=1280x720:rate=25,noise=alls=60:allf=t -t 6 \
    -c:v libx264 -preset ultrafast -g 50 -b:v 15M -maxrate 15M -bufsize 15M -muxrate 20M \
    -f mpegts "$scratch/file.ts"

said=$(TMPDIR=$scratch "$1" --plain "$scratch/file.ts" < /dev/null)
printf '%s\n' "$said"
grep --quiet 'open http://127.0.0.1:' <<< "$said"
grep --quiet 'ch1.00000000.ts is being written' <<< "$said"
grep --quiet 'ch1.00000000.ts is listed' <<< "$said"
grep --quiet 'the program ended with status 0' <<< "$said"

said=$(TMPDIR=$scratch "$1" --no-page "$scratch/file.ts" < /dev/null)
printf '%s\n' "$said"
grep --quiet 'run1.00000000.ts is being written' <<< "$said"
grep --quiet 'main.[0-9]*.ts is listed' <<< "$said"
grep --quiet 'the program ended with status 0' <<< "$said"

rm "$scratch/file.ts"
rmdir "$scratch"
# Each of its processes worked in a directory there, or had a pipe there open.
! readlink /proc/[0-9]*/cwd /proc/[0-9]*/fd/* 2> /dev/null | grep --fixed-strings "$scratch"
