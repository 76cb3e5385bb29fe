# Shared by the scripts beside it; sourced, not run.
# shellcheck shell=bash

project_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What vorn_hls_publish is built with.
# shellcheck disable=SC2034 # for the scripts
publisher_packages=(
    libcli11-dev libcurl4-openssl-dev libfmt-dev libmicrohttpd-dev libsqlite3-dev libsystemd-dev
    libtomlplusplus-dev nlohmann-json3-dev pkgconf prometheus-cpp-dev
)

# One line about what the script is doing, told apart from what the tools print.
say() {
    printf '== %s\n' "$*"
}

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

as_root() {
    if [[ $(id -u) -eq 0 ]]; then
        "$@"
    elif command -v sudo > /dev/null; then
        sudo "$@"
    else
        die "run this as root, or install sudo, so that packages can be installed"
    fi
}

is_installed() {
    [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2> /dev/null) == installed ]]
}

# install_missing PACKAGE...: brings in those Debian packages that are not there yet. When all are,
# nothing is asked of the network.
install_missing() {
    local package
    local missing=()
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    if [[ ${#missing[@]} -eq 0 ]]; then
        return
    fi

    command -v apt-get > /dev/null || die "no apt-get here; install by hand: ${missing[*]}"
    say "installing ${missing[*]}"
    as_root apt-get update --quiet --quiet < /dev/null
    # Through env, because sudo passes no variables on.
    hold_services
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install --quiet --quiet --yes --no-install-recommends "${missing[@]}" \
        < /dev/null > /dev/null || { release_services; return 1; }
    release_services
}

# Debian starts a service as soon as its package is installed, and nginx would take port 80. The
# scripts start what they need by themselves, so nothing may start until it is released.
policy=/usr/sbin/policy-rc.d
policy_is_ours=

hold_services() {
    if [[ ! -e $policy ]]; then
        policy_is_ours=1
        printf '#!/bin/sh\nexit 101\n' | as_root tee "$policy" > /dev/null
        as_root chmod 755 "$policy"
    fi
}

release_services() {
    [[ -z $policy_is_ours ]] || as_root rm --force "$policy"
    policy_is_ours=
}

# install_npm_packages DIRECTORY: brings in what its package-lock.json names, unless it is there.
install_npm_packages() {
    local lock=$1/package-lock.json installed=$1/node_modules/.installed-lock
    if cmp --quiet "$lock" "$installed"; then
        return
    fi
    # A machine may have them from elsewhere, and Debian's npm would not go with that.
    command -v npm > /dev/null || install_missing nodejs npm
    say "installing the npm packages of ${1#"$project_root"/}"
    (cd "$1" && npm ci --omit=dev --no-audit --no-fund --ignore-scripts --loglevel=error \
        < /dev/null > /dev/null)
    cp "$lock" "$installed"
}

# project_version SOURCE: the version of the source in this folder.
project_version() {
    sed -n 's/^    VERSION \([0-9.]*\)$/\1/p' "$1/CMakeLists.txt"
}

# build_preset PRESET [CMAKE-ARGUMENT...]: configures and builds one CMake preset.
build_preset() {
    local preset=$1
    shift
    say "building: $preset"
    cmake -S "$project_root" --preset "$preset" "$@" > /dev/null
    cmake --build "$project_root/build/$preset" -- --quiet
}
