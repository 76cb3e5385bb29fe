#!/usr/bin/env bash
# service_test.sh BUILD-FOLDER: installs the service into a scratch folder, lets systemd judge it,
# and runs its command line as systemd would, with the variables of a configuration file.
set -euo pipefail

build=$1

scratch=$(mktemp --directory)
trap 'rm -rf "$scratch"' EXIT

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
DESTDIR=$scratch cmake --install "$build" --component program > "$scratch/log"
unit=$(find "$scratch" -name 'vorn-hls@.service')
[[ -s $unit ]] || fail "the service is not installed"

# The paths of the unit as they are in the scratch folder.
mkdir "$scratch/units"
sed "s#=$prefix/#=$scratch$prefix/#" "$unit" > "$scratch/units/vorn-hls@.service"
cp "$scratch/units/vorn-hls@.service" "$scratch/units/vorn-hls@one.service"
cd "$scratch/units"
SYSTEMD_UNIT_PATH=$scratch/units: systemd-analyze verify --man=no ./vorn-hls@one.service 2> verdict ||
    fail "systemd-analyze verify: $(< verdict)"
# Other units of the machine are looked at too; only lines about this one count.
grep vorn-hls verdict && fail "systemd-analyze verify has something to say"

# In tenths: 50 and above is worse than "OK".
systemd-analyze security --offline=true --threshold=49 --no-pager ./vorn-hls@one.service \
    > exposure || fail "exposed too much: $(tail --lines 1 exposure)"
tail --lines 1 exposure

start_command=$(sed -n 's/^ExecStart=//p' vorn-hls@.service)
mkdir "$scratch/channel"
cd "$scratch/channel"

# run INPUT OPTIONS CAPTIONS: leaves the exit status in `status`, the messages in a file.
run() {
    status=0
    env --ignore-environment PATH="$scratch$prefix/bin:/usr/bin:/bin" HOME=/ LANG=C.UTF-8 \
        INPUT="$1" OPTIONS="$2" CAPTIONS="$3" "$start_command" 2> "$scratch/messages" || status=$?
}

# expect STATUS LINE: how the run ended, and a line among its messages.
expect() {
    if [[ $status -ne $1 ]] || ! grep --quiet --line-regexp --fixed-strings "$2" "$scratch/messages"
    then
        fail "status $status: $(< "$scratch/messages")"
    fi
}

ffmpeg -loglevel error -f lavfi -i testsrc2=size=640x360:rate=25 -t 8 -c:v mpeg2video -b:v 6M \
    -g 25 -f mpegts "$scratch/stream.ts"
printf 'WEBVTT\n\n00:02.000 --> 00:04.000\nHello\n' > "$scratch/captions.vtt"

run "cat $scratch/stream.ts" "--frag-duration 2 --frag-backlog 5" ""
expect 0 "Stream EOF"
[[ -s ch1.m3u8 && -s ch1.m3u8.av.m3u8 ]] || fail "no presentation: $(ls)"
compgen -G '2*T*Z.00000000.ts' > /dev/null || fail "no fragment with a name of its own: $(ls)"

touch x.00000099.ts
run "cat $scratch/stream.ts" "--m3u8-name x.m3u8 --frag-name x" \
    "--captions eng=$scratch/captions.vtt --pace none"
expect 0 "Stream EOF"
[[ -s x.00000000.ts && -s x.m3u8.av.m3u8.eng.vtt.m3u8 ]] || fail "no subtitles: $(ls)"
[[ ! -e x.00000099.ts ]] || fail "an earlier run's fragment stays"
compgen -G '2*T*Z.*' && fail "an earlier run's fragments with a name of their own stay"
[[ ! -e .input ]] || fail "the way of the input stays"

# Alive is what lists a fragment and was rewritten lately.
alive=$(dirname "$start_command")/vorn_hls_alive
status=0
"$alive" 2> "$scratch/messages" || status=$?
[[ $status -eq 2 && $(< "$scratch/messages") == usage:* ]] ||
    fail "asked about no directory, the status is $status and not the usage's"
"$alive" . || fail "said not to be alive"
touch --date "100 seconds ago" ./*.m3u8
"$alive" . 600 || fail "said not to be alive, with a longer time"
"$alive" . 2> "$scratch/messages" && fail "said to be alive after 100 seconds"
sed -i '/^#EXTINF/d' ./*.m3u8
"$alive" . 600 2> "$scratch/messages" && fail "said to be alive without a fragment"

# The program's status is the service's, also while the input is silent.
run "head --bytes 1000 $scratch/stream.ts" "" ""
expect 1 "Failed to refill until"
run "timeout 5 yes Go; sleep 5" "" ""
expect 1 "Failed to sync to MPEG TS"

run "" "" ""
expect 78 "INPUT is not set: a command that writes the transport stream"
run "cat" "--frag-duration 40" ""
expect 78 "OPTIONS are not accepted, or old output cannot be removed: --frag-duration 40"

# The example sets the three of them, each on one line, as systemd reads them.
conf=$(find "$scratch" -name channel.conf)
for line in "^INPUT='socat .*'$" "^OPTIONS='--frag-duration .*'$" "^CAPTIONS=''$"; do
    grep --quiet "$line" "$conf" || fail "channel.conf lacks a line like $line"
done
