#!/usr/bin/env bash
# install_test.sh BUILD-FOLDER C++-COMPILER: installs into a scratch folder, and uses what is there:
# the manual pages are found, and a sender is built from its example and gives a caption to the
# installed program.
set -euo pipefail

build=$1
compiler=$2

scratch=$(mktemp --directory)
trap 'rm -rf "$scratch"' EXIT

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

cmake --install "$build" --prefix "$scratch/first" > "$scratch/log"
mv "$scratch/first" "$scratch/usr" # an installed tree may be moved
cd "$scratch/usr"
find . -type f | sort

for file in bin/vorn_mpegts_to_hls bin/vorn_caption_feed bin/vorn_ts_prepare \
    share/man/man1/vorn_mpegts_to_hls.1 share/man/man1/vorn_ts_prepare.1 \
    share/man/man1/vorn_caption_feed.1 share/man/man5/vorn_mpegts_to_hls.5 \
    share/man/man7/vorn_control_socket.7 share/man/man7/vorn_mpegts_to_hls.7 \
    share/man/man8/vorn_hls_channel.8 \
    share/bash-completion/completions/vorn_{mpegts_to_hls,caption_feed}; do
    [[ -s $file ]] || fail "$file is not installed"
done
if [[ -x $build/bin/vorn_hls_publish ]]; then # its libraries may be missing
    for file in bin/vorn_hls_publish share/man/man1/vorn_hls_publish.1 share/man/man5/vorn_hls_publish.5 \
        bin/vorn_hls_record share/man/man1/vorn_hls_record.1 share/bash-completion/completions/vorn_hls_record \
        share/bash-completion/completions/vorn_hls_publish share/vorn-hls-publish/channel.toml \
        share/vorn-hls-publish/prometheus/vorn_hls_publish_rules.yml; do
        [[ -s $file ]] || fail "$file is not installed"
    done
    bin/vorn_hls_publish --config share/vorn-hls-publish/channel.toml --check
fi

# Every link of the installed documents leads to an installed file or to the web.
documents=$(dirname "$(find . -name operations.md)")
for page in "$documents"/*.md; do
    while read -r target; do
        [[ -e $documents/$target ]] || fail "${page##*/} points to $target, which is not there"
    done < <(grep -o '](\([^)#:]*\)[)#]' "$page" | sed 's/^](//; s/[)#]$//; /^$/d')
done
grep --quiet '](operations.md)' "$documents/README.md" || fail "README.md has lost its links"

# Nothing of what is installed knows the place where it was built.
grep -rlI "$scratch/first\|$build" . && fail "these files contain the build's paths"

PKG_CONFIG_PATH=$(dirname "$(find . -name vorn_control_socket.pc)")
export PKG_CONFIG_PATH
pkg-config --validate vorn_control_socket
read -ra flags < <(pkg-config --cflags --libs vorn_control_socket)
read -ra sanitizers <<< "${3:-}"
"$compiler" -std=c++20 -Wall -Wextra -Werror "${sanitizers[@]}" \
    share/vorn_control_socket/examples/send_cue.cpp "${flags[@]}" -o "$scratch/send_cue"

# In place of the program, to see the packet: what a receiver reads from the socket.
mkdir "$scratch/work" "$scratch/bin"
cat > "$scratch/bin/vorn_mpegts_to_hls" << 'END'
#!/usr/bin/env bash
[[ $1 == --anon-sock ]] || exit 3
head --bytes 163 <&"$2" > packet
printf '%s' "${*:3}" > arguments
exit 7
END
chmod +x "$scratch/bin/vorn_mpegts_to_hls"
cd "$scratch/work"
status=0
PATH=$scratch/bin:$PATH "$scratch/send_cue" --frag-duration 3 || status=$?
[[ $status -eq 7 ]] || fail "status $status instead of the program's"
[[ $(< arguments) == "--frag-duration 3" ]] || fail "the arguments were not passed on"
[[ $(head --bytes 4 packet) == VORN && $(tail --bytes 5 packet) == Hello ]] ||
    fail "the packet is not the caption"

# And the real one, which ends for want of a stream.
status=0
PATH=$scratch/usr/bin:$PATH "$scratch/send_cue" < /dev/null 2> messages || status=$?
[[ $status -eq 1 && $(< messages) == "Failed to refill until" ]] ||
    fail "the installed program: status $status, $(< messages)"
