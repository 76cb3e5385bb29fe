#!/usr/bin/env bash
# inputs_test.sh BUILD-FOLDER: runs the inputs of channel.conf with the script of the service. Two
# multicast groups on one port come to two channels, on the loopback, and each channel gets its own
# group alone, one of them in RTP, and ends when that falls silent. An SRT caller comes to a third.
set -euo pipefail

build=$(realpath "$1")
source_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
channel=$source_root/packaging/channel/vorn_hls_channel
conf=$source_root/packaging/channel/channel.conf
export PATH=$build/bin:$PATH

scratch=$(mktemp --directory)
channels=() senders=()
trap 'kill "${channels[@]}" "${senders[@]}" 2> /dev/null || true; rm -rf "$scratch"' EXIT

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

# input WORD: the command of that INPUT line of channel.conf which begins with WORD.
input() {
    local command
    command=$(sed -n "s/^#\?INPUT='\($1 .*\)'$/\1/p" "$conf")
    [[ -n $command ]] || fail "channel.conf has no INPUT of $1"
    printf '%s' "$command"
}

# Of this process alone: two groups, and a port below those that the system gives away.
groups=("239.255.$(($$ / 250 % 250 + 1)).1" "239.255.$(($$ / 250 % 250 + 1)).2")
port=$(($$ % 10000 + 20000))

# stream PID: 8 s of video with this PID.
stream() {
    ffmpeg -nostdin -loglevel error -f lavfi -i testsrc2=size=640x360:rate=25 -t 8 \
        -c:v mpeg2video -b:v 6M -minrate 6M -maxrate 6M -bufsize 1M -g 25 \
        -streamid "0:$1" -f mpegts "$scratch/$1.ts"
}

# feed PID: the stream, four times as fast as it plays.
feed() {
    ffmpeg -nostdin -loglevel error -readrate 4 -i "$scratch/$1.ts" -c copy -streamid "0:$1" \
        -f mpegts pipe:1
}

# rtp: standard input in RTP datagrams of seven packets, RFC 3550 5.1 and RFC 3551 table 5.
rtp() {
    python3 -c '
import struct, sys
for number in range(1 << 16):
    payload = sys.stdin.buffer.read(7 * 188)
    if not payload:
        break
    sys.stdout.buffer.write(struct.pack(">BBHII", 2 << 6, 33, number, 90 * number, 7) + payload)
'
}

# run_channel NAME INPUT: in the background, in a directory of that name.
run_channel() {
    mkdir "$scratch/$1"
    (cd "$scratch/$1" && INPUT=$2 OPTIONS='--frag-duration 1' CAPTIONS='' exec "$channel") \
        > "$scratch/$1.messages" 2>&1 &
    channels+=($!)
}

# await SECONDS COMMAND...: until the command succeeds.
await() {
    local end=$((SECONDS + $1))
    until "${@:2}"; do
        [[ $SECONDS -lt $end ]] || fail "waited $1 s in vain: ${*:2}"
        sleep 0.1
    done
}

# sockets TABLE PORT: how many sockets are bound to the port.
sockets() {
    grep --count "$(printf '^ *[0-9]*: [0-9A-F]*:%04X ' "$2")" "$1" || true
}

receives() {
    [[ $(sockets /proc/net/udp "$2") -eq $1 ]]
}

# only PID NAME: the channel ended with its input and has fragments with no video but this one.
only() {
    grep --quiet --line-regexp "Stream EOF" "$scratch/$2.messages" ||
        fail "$2: $(grep --invert-match 'FIX THIS BUG' "$scratch/$2.messages")"
    local pids
    pids=$(python3 - "$scratch/$2"/*.ts << 'END'
import sys
pids = set()
for name in sys.argv[1:]:
    data = open(name, "rb").read()
    pids |= {int.from_bytes(data[at + 1:at + 3], "big") & 0x1FFF for at in range(0, len(data), 188)}
print(*sorted(pids))
END
    )
    # Tables and what ffmpeg calls itself have PIDs of their own.
    pids=$(tr ' ' '\n' <<< "$pids" | grep -vx '0\|17\|4096' | tr '\n' ' ')
    [[ $pids == "$1 " ]] || fail "$2: PIDs $pids instead of $1"
    grep --quiet '^#EXTINF' "$scratch/$2"/*.m3u8 || fail "$2 lists nothing"
    printf '%s: PID %s alone\n' "$2" "$1"
}

# to_group NUMBER: standard input, as datagrams that do not leave the machine.
to_group() {
    socat -u STDIN "UDP4-SENDTO:${groups[$1]}:$port,ip-multicast-if=127.0.0.1,ip-multicast-ttl=0"
}

# on_loopback NUMBER: the line of channel.conf with a group of this test on this machine, and with
# less patience.
on_loopback() {
    input socat | sed -e "s/239\.1\.1\.1/${groups[$1]}/g" -e 's/:eth0/:lo/' -e "s/:5000/:$port/" \
        -e 's/-T 10/-T 5/'
}

stream 301
stream 302

# A machine without multicast on its loopback has nothing to show here.
timeout 20 sh -c "$(on_loopback 0 | sed 's/-T 5/-T 1/')" > "$scratch/probe" 2> "$scratch/probe.messages" &
await 20 receives 1 "$port"
printf 'heard\n' | to_group 0 2>> "$scratch/probe.messages" || true
wait $! || true
if [[ $(< "$scratch/probe") != heard ]]; then
    printf 'skipped: no multicast on the loopback: %s\n' "$(< "$scratch/probe.messages")"
    exit 77
fi

run_channel first "$(on_loopback 0)"
run_channel second "$(on_loopback 1)"
await 20 receives 2 "$port"
feed 301 | to_group 0 &
senders+=($!)
feed 302 | rtp | to_group 1 &
senders+=($!)
wait "${senders[@]}" "${channels[@]}"
only 301 first
only 302 second
grep --quiet --line-regexp "vorn_ts_prepare: the input is RTP" "$scratch/second.messages" ||
    fail "the second channel did not get RTP"

# The caller stays when it has nothing more to send, so it is ended here.
lists_a_fragment() {
    grep --quiet --no-messages '^#EXTINF' "$scratch/$1/ch1.m3u8.av.m3u8"
}
run_channel srt "$(input srt-live-transmit | sed "s/:9000/:$port/")"
await 20 receives 1 "$port"
srt-live-transmit -q -a:no -chunk:1316 file://con "srt://127.0.0.1:$port" < <(feed 301) &
senders+=($!)
await 60 lists_a_fragment srt
kill "${senders[-1]}"
wait "${channels[-1]}"
only 301 srt
