#!/usr/bin/env bash
# container_test.sh STATIC-BUILD RELEASE-BUILD: puts together what the container images hold and runs
# them in a chroot, as the images' user and with their entry points: that of a channel fed through a
# FIFO and over HTTP, and that of the publisher behind it.
set -euo pipefail

build=$1
release=$2
source_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

if [[ $(id -u) -ne 0 ]]; then
    printf 'skipped: chroot needs root\n'
    exit 77
fi

scratch=$(mktemp --directory)
helpers=()
trap 'kill "${helpers[@]}" 2> /dev/null || true; rm -rf "$scratch"' EXIT

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

# instruction NAME [RECIPE]: its value in the recipe of the image.
instruction() {
    sed -n "s/^$1 //p" "$source_root/packaging/container/${2:-Containerfile}"
}

user=$(instruction USER)
directory=$(instruction WORKDIR)
entry_point=$(instruction ENTRYPOINT | tr --delete '[]"')
path=$(instruction ENV | sed 's/ .*//')

root=$scratch/root
"$source_root/packaging/container/assemble_root" "$build" "$root"
for program in "$root"/usr/bin/* "$root/bin/busybox"; do
    readelf --dynamic "$program" | grep NEEDED && fail "$program is not static"
done
[[ ! -e $root/lib && ! -e $root/lib64 ]] || fail "the base is not empty: $(ls "$root")"

# What a container engine adds: the two devices, a name service, and the volumes. Nothing is written
# to /dev/null here, so that a file does.
mkdir "$root"/{dev,etc,input}
touch "$root/dev/null"
printf '127.0.0.1 source\n' > "$root/etc/hosts"
chown "$user" "$root$directory"
touch "$scratch/before"

# in_image [VARIABLE=VALUE...] COMMAND...
in_image() {
    # shellcheck disable=SC2016 # for the other shell
    setpriv --no-new-privs chroot --userspec="$user" --groups= "$root" \
        /bin/busybox sh -c 'cd "$0" && exec "$@"' "$directory" \
        /bin/busybox env -i "$path" "$@"
}

# run INPUT OPTIONS CAPTIONS: one run of the image to its end.
run() {
    local status=0
    in_image INPUT="$1" OPTIONS="$2" CAPTIONS="$3" "$entry_point" 2> "$scratch/messages" ||
        status=$?
    [[ $status -eq 0 && $(tail --lines 2 "$scratch/messages") == *"Stream EOF"* ]] ||
        fail "status $status: $(< "$scratch/messages")"
}

ffmpeg -loglevel error -f lavfi -i testsrc2=size=640x360:rate=25 -t 8 -c:v mpeg2video -b:v 6M \
    -g 26 -f mpegts "$scratch/stream.ts"
printf 'WEBVTT\n\n00:02.000 --> 00:04.000\nHello\n' > "$root/input/captions.vtt"
hls=$root$directory

printf 'through a FIFO, with captions\n'
mkfifo "$root/input/stream"
chown "$user" "$root/input/stream"
cat "$scratch/stream.ts" > "$root/input/stream" &
helpers+=($!)
run "cat /input/stream" "--frag-duration 1" "--captions eng=/input/captions.vtt --pace none"
listed=$(grep --count 'Z\.[0-9]*\.ts$' "$hls/ch1.m3u8.av.m3u8")
[[ $listed -ge 3 ]] || fail "$listed fragments are listed"
grep '\.ts$' "$hls/ch1.m3u8.av.m3u8" | while read -r name; do
    cmp --quiet <(head --bytes 1 "$hls/$name") <(printf G) || fail "$name is no transport stream"
done
grep --quiet Hello "$hls"/*.vtt || fail "the caption is nowhere"
in_image /usr/libexec/vorn_hls/vorn_hls_alive "$directory" || fail "said not to be alive"
first_run=$(find "$hls" -name '*.ts*' | sort)

printf 'over HTTP, as the example for Kubernetes has it, started again\n'
exec 3< <(exec python3 -u -m http.server --bind 127.0.0.1 --directory "$scratch" 0 2> /dev/null)
helpers+=($!)
read -r said <&3
port=$(sed -n 's/.* port \([0-9]*\) .*/\1/p' <<< "$said")
wget=$(sed -n 's/^ *- INPUT=\(wget .*\) http:.*/\1/p' \
    "$source_root/packaging/kubernetes/overlays/ch1/kustomization.yaml")
run "$wget http://source:$port/stream.ts" "--frag-name again" ""
for file in $first_run; do
    [[ ! -e $file ]] || fail "a fragment of the first run stays: $file"
done
[[ -s $hls/again.00000000.ts ]] || fail "no fragment"

# The root can be read-only: only the presentation changes.
changed=$(find "$root" -newer "$scratch/before" ! -path "$hls" ! -path "$hls/*" ! -path "$root/input*")
[[ -z $changed ]] || fail "written to: $changed"
printf '%s listed, nothing else written\n' "$listed"

printf 'published, as the pod has it\n'
root=$scratch/publisher
"$source_root/packaging/container/assemble_publisher_root" "$release" "$root"
cp "$hls"/* "$root$directory"
chown --recursive "$(instruction USER Containerfile.publisher)" "$root$directory"
mkdir --parents "$root/etc/vorn-hls-publish"
sed 's/:9180/:0/' "$source_root/packaging/kubernetes/base/channel.toml" \
    > "$root/etc/vorn-hls-publish/channel.toml"
read -ra arguments < <(instruction CMD Containerfile.publisher | tr --delete '[],"')
setpriv --no-new-privs chroot --userspec="$user" --groups= "$root" \
    "$(instruction ENTRYPOINT Containerfile.publisher | tr --delete '[]"')" "${arguments[@]}" 2> "$scratch/messages" &
publisher=$!
helpers+=("$publisher")
for ((tries = 0; tries < 600; tries++)); do
    [[ ! -s $root$directory/published/index.m3u8 ]] || break
    kill -0 "$publisher" || fail "the publisher ended: $(< "$scratch/messages")"
    sleep 0.1
done
grep --quiet '^#EXTINF' "$root$directory/published/main.m3u8" || fail "nothing is published: $(< "$scratch/messages")"
kill "$publisher"
wait "$publisher" || fail "asked to end, the publisher's status is $?"
