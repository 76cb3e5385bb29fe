#!/usr/bin/env bash
# service_test.sh BUILD-FOLDER: installs the services into a scratch folder, lets systemd judge them,
# and runs their command lines as systemd would, with what their configuration files have.
set -euo pipefail

build=$1

scratch=$(mktemp --directory)
trap 'rm -rf "$scratch"' EXIT

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
services=(vorn-hls)
DESTDIR=$scratch cmake --install "$build" --component program > "$scratch/log"
if [[ -x $build/bin/vorn_hls_publish ]]; then # its libraries may be missing
    DESTDIR=$scratch cmake --install "$build" --component publisher >> "$scratch/log"
    services+=(vorn-hls-publish)
fi

mkdir "$scratch/units"
cd "$scratch/units"
for service in "${services[@]}"; do
    unit=$(find "$scratch$prefix" -name "$service@.service")
    [[ -s $unit ]] || fail "$service is not installed"
    # The paths of the unit as they are in the scratch folder.
    sed "s#\([= ]\)$prefix/#\1$scratch$prefix/#g" "$unit" > "$service@.service"
    cp "$service@.service" "$service@one.service"
    SYSTEMD_UNIT_PATH=$scratch/units: systemd-analyze verify --man=no "./$service@one.service" 2> verdict ||
        fail "systemd-analyze verify: $(< verdict)"
    # Other units of the machine are looked at too; only lines about this one count.
    grep "$service" verdict && fail "systemd-analyze verify has something to say"

    # In tenths: 50 and above is worse than "OK".
    systemd-analyze security --offline=true --threshold=49 --no-pager "./$service@one.service" \
        > exposure || fail "exposed too much: $(tail --lines 1 exposure)"
    tail --lines 1 exposure
done

# What belongs to both is the same: nobody may link to another user's files.
setting() {
    sed -n "s/^$2=//p" "$1@.service"
}
user=$(setting vorn-hls User)
grep --quiet "^u $user " "$(find "$scratch$prefix" -name vorn-hls.conf)" || fail "nobody makes the user $user"

start_command=$(sed -n 's/^ExecStart=//p' vorn-hls@.service)
stop_command=$(sed -n 's/^ExecStopPost=//p' vorn-hls@.service)
watch=$(sed -n 's/^Environment=WATCH=//p' vorn-hls@.service)
mkdir "$scratch/channel"
cd "$scratch/channel"

# run INPUT OPTIONS CAPTIONS [WATCH]: leaves the exit status in `status`, the messages in a file. It is
# over when every process of the channel is gone, since each has its end of the pipe.
prepare= # options of vorn_ts_prepare, or "off"
run() {
    status=0
    # shellcheck disable=SC2016 # for the other shell
    env --ignore-environment PATH="$scratch$prefix/bin:/usr/bin:/bin" HOME=/ LANG=C.UTF-8 \
        INPUT="$1" OPTIONS="$2" CAPTIONS="$3" WATCH="${4:-$watch}" PREPARE="$prepare" \
        sh -c 'echo $$ > "$0"; exec "$1"' "$scratch/process" "$start_command" 2>&1 |
        cat > "$scratch/messages" || status=$?
    explanation=$(EXIT_CODE=exited EXIT_STATUS=$status "$stop_command" 2>&1)
}

# run_in DIRECTORY ...: the same in a new directory, as a service has it.
run_in() {
    mkdir "$scratch/$1"
    cd "$scratch/$1"
    run "${@:2}"
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
[[ -z $explanation ]] || fail "a good end is explained: $explanation"

# What the program says at every cut and means nothing is left out, and nothing else.
mkdir "$scratch/bare"
(cd "$scratch/bare" && "$scratch$prefix/bin/vorn_mpegts_to_hls" < "$scratch/stream.ts" 2> ../bare.messages)
noise='^M3U8 warning: .* (FIX THIS BUG)$'
grep --quiet "$noise" "$scratch/bare.messages" || fail "the program has no such messages any more"
diff <(grep -v "$noise" "$scratch/bare.messages") <(grep -v '^Removing old: ' "$scratch/messages") ||
    fail "other messages than the program's"

# The publisher's service: systemd is told that it is ready, that it lives, and that it ends.
if [[ -e $scratch/units/vorn-hls-publish@.service ]]; then
    cd "$scratch/units"
    [[ $(setting vorn-hls-publish User) == "$user" ]] || fail "the publisher is another user"
    [[ $(setting vorn-hls-publish Type) == notify ]] || fail "nobody waits until the publisher is ready"
    mkdir --parents "$scratch$prefix/etc/vorn-hls-publish"
    sed -e "s#/run/vorn-hls/ch1#$scratch/channel#; s#/run/vorn-hls/published#$scratch#; s#:9180#:0#" \
        "$(find "$scratch$prefix/share" -name channel.toml)" > "$scratch$prefix/etc/vorn-hls-publish/one.toml"
    cd "$scratch/channel"
    start=$(setting "$scratch/units/vorn-hls-publish" ExecStart | sed 's/%i/one/g')
    reload=$(setting "$scratch/units/vorn-hls-publish" ExecReload)
    python3 - "$start" "$reload" "$(setting "$scratch/units/vorn-hls-publish" WatchdogSec)" \
        "$scratch/ch1/index.m3u8" << 'END' || fail "the publisher's service"
import os, shlex, socket, subprocess, sys

start, reload, watchdog = sys.argv[1:4]
heard = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
heard.settimeout(60)
heard.bind("notify")
assert int(watchdog) >= 10, "a slow disk is no reason to end it"
environment = {"NOTIFY_SOCKET": os.path.abspath("notify"), "WATCHDOG_USEC": "1000000"}
process = subprocess.Popen(shlex.split(start), env=environment, stderr=subprocess.PIPE, text=True)
try:
    assert heard.recv(100) == b"READY=1"
    for _ in range(100):
        assert heard.recv(100) == b"WATCHDOG=1"
        if os.path.exists(sys.argv[4]):
            break
    assert os.path.getsize(sys.argv[4]) > 0
    subprocess.run(reload.replace("$MAINPID", str(process.pid)), shell=True, check=True)
    assert any("the configuration has been read again" in line for line in process.stderr)
finally:
    process.terminate()
while heard.recv(100) != b"STOPPING=1":
    pass
assert process.wait() == 0
END
    rm notify
fi

# The last run's fragments stay until there is one of the next run; those of runs before it do not.
# It began long ago: two runs that begin in one second would have one name.
for file in 2*T*Z.*; do
    mv "$file" "20200101T000000Z.${file#*.}"
done
touch x.00000099.ts 20010101T000000Z.00000007.ts
last=20200101T000000Z.00000000.ts
run "ls > $scratch/at_start; cat $scratch/stream.ts" "--m3u8-name x.m3u8 --frag-name x" \
    "--captions eng=$scratch/captions.vtt --pace none"
expect 0 "Stream EOF"
[[ -s x.00000000.ts && -s x.m3u8.av.m3u8.eng.vtt.m3u8 ]] || fail "no subtitles: $(ls)"
[[ ! -e x.00000099.ts ]] || fail "an earlier run's fragment stays"
grep --quiet --line-regexp "$last" "$scratch/at_start" || fail "the last run's fragments went at once"
grep --quiet 20010101 "$scratch/at_start" && fail "fragments of a run before the last one stay"
compgen -G '2*T*Z.*' && fail "an earlier run's fragments with a name of their own stay"
[[ ! -e .input ]] || fail "the way of the input stays"

# The server that comes along serves it, once its paths are those of this test.
mkdir "$scratch/nginx"
ln --symbolic "$PWD" "$scratch/nginx/ch1"
chmod --recursive a+rX "$scratch"
mkdir --parents "$scratch/nginx/published/ch1"
tee "$scratch/nginx/published/ch1/"{index.m3u8,main.1.ts,.index.m3u8.sqlite3} < "$scratch/log" > "$scratch/none"
server=$(find "$scratch" -name vorn_hls_server.conf)
{
    printf 'daemon off; error_log stderr notice; pid %s/pid;\nevents {}\n' "$scratch/nginx"
    printf 'http { access_log off;\n'
    for kind in client_body proxy fastcgi uwsgi scgi; do
        printf '%s_temp_path %s/%s;\n' "$kind" "$scratch/nginx" "$kind"
    done
    sed -e "s#include $prefix/#include $scratch$prefix/#" -e "s#root /run/vorn-hls;#root $scratch/nginx;#" \
        -e '/listen \[::\]/d' -e "s#listen .*;#listen unix:$scratch/nginx/socket;#" "$server"
    printf '}\n'
} > "$scratch/nginx/conf"
PATH=$PATH:/usr/sbin nginx -e stderr -c "$scratch/nginx/conf" 2> "$scratch/nginx/said" &
nginx=$!
trap 'kill "$nginx" 2> /dev/null || true; rm -rf "$scratch"' EXIT
python3 - "$scratch/nginx/socket" << 'END' || fail "nginx: $(< "$scratch/nginx/said")"
import http.client, socket, sys, time

for path, wanted in (("/ch1/x.m3u8", (200, "no-store")),
                     ("/ch1/x.00000000.ts", (200, "public, max-age=86400, immutable")),
                     ("/ch1/.tmp", (403, None)),
                     ("/published/ch1/index.m3u8", (200, "public, max-age=3")),
                     ("/published/ch1/main.1.ts", (200, "public, max-age=31536000, immutable")),
                     ("/published/ch1/.index.m3u8.sqlite3", (403, None))):
    for _ in range(300):
        connection = http.client.HTTPConnection("localhost")
        connection.sock = socket.socket(socket.AF_UNIX)
        try:
            connection.sock.connect(sys.argv[1])
            break
        except OSError:  # nginx is not up yet
            time.sleep(0.1)
    connection.request("GET", path, headers={"Accept-Encoding": "gzip"})
    answer = connection.getresponse()
    got = answer.status, answer.getheader("Cache-Control")
    assert got == wanted, (path, got)
    packed = answer.getheader("Content-Encoding") == "gzip"
    assert packed == (path == "/published/ch1/index.m3u8"), path
END
kill "$nginx"
wait "$nginx" || true
trap 'rm -rf "$scratch"' EXIT

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
prepare=off
run "head --bytes 1000 $scratch/stream.ts" "" ""
expect 1 "Failed to refill until"
run "timeout 5 yes Go; sleep 5" "" ""
expect 1 "Failed to sync to MPEG TS"

# Ended by a signal that nothing can catch, at once or at work, it takes its input along.
prepare=
kill_channel="touch killed; kill -KILL \$(cat $scratch/process); exec sleep 1000"
run_in killed "(sleep 1000 && cat) & $kill_channel" "" ""
[[ $status -eq 137 && -e killed ]] || fail "killed, the status is $status"
run_in killed_at_work "cat $scratch/stream.ts; while ! [ -e ch1.m3u8.av.m3u8 ]; do :; done; $kill_channel" "" ""
[[ $status -eq 137 && -e killed && -s ch1.m3u8.av.m3u8 ]] || fail "killed, the status is $status"

# Playlists that stand still end it.
run_in still "cat $scratch/stream.ts; exec sleep 1000" "--frag-duration 1" "" 2
expect 143 "no playlist in . that lists a fragment is younger than 2 s: ending the channel"
grep --quiet '^#EXTINF' ch1.m3u8.av.m3u8 || fail "it was ended before there was a fragment"
run_in never "exec sleep 1000" "" "" 1
expect 143 "no playlist in . that lists a fragment is younger than 1 s: ending the channel"

# With a PAT in a megabyte, the tables come too late, and the program ends without a word.
python3 - "$scratch/stream.ts" > "$scratch/rare_pat.ts" << 'END'
import sys
stream = open(sys.argv[1], "rb").read()
next_pat = 0
for at in range(0, len(stream), 188):
    packet = stream[at:at + 188]
    if packet[1] & 0x1F or packet[2] or at >= next_pat:
        sys.stdout.buffer.write(packet)
        next_pat = next_pat if packet[1] & 0x1F or packet[2] else at + 1000000
END
prepare=off
run_in tables "cat $scratch/rare_pat.ts" "" ""
[[ $status -eq 2 && $explanation == "Status 2 before the first fragment: "*"no PAT or PMT came in time."* ]] ||
    fail "no explanation of status $status: $explanation"

# Unless it is prepared, as it is when nothing else is said. The padding does not reach the fragments.
prepare=
run_in prepared "cat $scratch/rare_pat.ts" "--frag-duration 2" ""
expect 0 "Stream EOF"
[[ $(cat ./*.ts | wc --bytes) -lt $(wc --bytes < "$scratch/stream.ts") ]] || fail "fragments are padded"
grep --quiet '^#EXTINF' ch1.m3u8.av.m3u8 || fail "a prepared stream gives no fragment"

# What starting again would not mend is not started again, and is said.
not_again=" $(sed -n 's/^RestartPreventExitStatus=//p' "$scratch/units/vorn-hls@.service") "
# expect_end STATUS LINE
expect_end() {
    expect "$@"
    [[ $not_again == *" $1 "* ]] || fail "status $1 is started again"
    [[ $explanation == "Status $1: "* ]] || fail "status $1 is not explained: $explanation"
}
run "" "" ""
expect_end 78 "INPUT is not set: a command that writes the transport stream"
run "cat" "" "" soon
expect_end 78 "WATCH is no number of seconds: soon"
for prepare in "--pad-to 3" --describe; do
    run "cat" "" ""
    expect_end 78 "PREPARE is not accepted, see vorn_ts_prepare(1): $prepare"
done
prepare=
see="is not accepted, see vorn_mpegts_to_hls(1)"
for refused in "--frag-duration 40" "-frag-name ../x" "--sapp" "4"; do
    run "cat" "--sap --frag-backlog 5 $refused --no-padding" ""
    expect_end 78 "OPTIONS: $refused $see"
done
run "cat" "--sap --frag-backlog" ""
expect_end 78 "OPTIONS: --frag-backlog lacks its value"
run "cat" "--sap --anon-sock 3" ""
expect_end 78 "OPTIONS: --anon-sock is not for a channel, see CAPTIONS"
run "cat" "-clear-old-only" ""
expect_end 78 "OPTIONS: -clear-old-only is not for a channel, it would end at once"
run "cat" "" "--captions eng=$scratch/captions.vtt --pace slow"
[[ $status -eq 125 ]] || fail "status $status: $(< "$scratch/messages")"
expect_end 125 "$(head --lines 1 "$scratch/messages")"
mv "$scratch$prefix/bin" "$scratch/away"
run "cat" "" ""
mv "$scratch/away" "$scratch$prefix/bin"
expect_end 127 "vorn_ts_prepare is not installed"

# The example sets all of them, each on one line, as systemd reads them.
conf=$(find "$scratch" -name channel.conf)
for line in "^INPUT='socat .*'$" "^PREPARE=''$" "^OPTIONS='--frag-duration .*'$" "^CAPTIONS=''$"; do
    grep --quiet "$line" "$conf" || fail "channel.conf lacks a line like $line"
done
