# shellcheck shell=bash disable=SC2034
# Functions that the scripts share. Source it from bash with `set -euo pipefail`. Sets $root to the repository's root.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)

# The Debian packages that each task needs.
build_packages=(g++ cmake ninja-build ccache libgtest-dev libgmock-dev)
fuzz_packages=(clang libclang-rt-14-dev)
lint_packages=(git python3 clang-format)
tidy_packages=(clang-tidy)
bench_packages=(libbenchmark-dev)
test_packages=(python3 iproute2 procps openssl util-linux ffmpeg lame dante-server microsocks tinyproxy)

say() { printf '\n== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs the missing ones of the named Debian packages, without questions. Updates apt's lists only if there
# is something to install.
need_packages() {
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        printf 'No apt-get here: the tools of these packages are taken as installed: %s\n' "$*"
        return
    fi
    local package missing=()
    for package in "$@"; do
        if [ "$(dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | head -n 1)" != installed ]; then
            missing+=("$package")
        fi
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${missing[*]}"
    if [ "$(id -u)" != 0 ] && ! command -v sudo >/dev/null; then
        die "these packages are missing, and without root or sudo they can't be installed: ${missing[*]}"
    fi
    as_root env DEBIAN_FRONTEND=noninteractive apt-get update -qq </dev/null
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null >/dev/null
}

# Configures and builds a preset: build_preset NAME [TARGET...]
build_preset() {
    local preset=$1
    shift
    (cd "$root" && cmake --preset "$preset" >"$root/build/$preset-configure.log" 2>&1) ||
        { cat "$root/build/$preset-configure.log"; return 1; }
    cmake --build "$root/build/$preset" -j "$jobs" ${1:+--target "$@"} -- --quiet
}

# The names of the fuzz targets, one per line: fuzz/fuzz_NAME.cpp is NAME.
fuzz_names() {
    local source
    for source in "$root"/fuzz/fuzz_*.cpp; do
        [ -e "$source" ] || continue
        source=${source##*/fuzz_}
        printf '%s\n' "${source%.cpp}"
    done
}
