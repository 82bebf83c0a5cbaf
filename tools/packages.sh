# The packages that each purpose needs, and their installation; sourced by ./dev.
# shellcheck shell=bash

purposes=(build check bench clang docs)
declare -A packages=(
    [build]="g++ cmake ninja-build ccache libgtest-dev libgmock-dev"
    [check]="python3 clang-format libglib2.0-dev"
    [bench]="libbenchmark-dev libssl-dev libasio-dev libuv1-dev libevent-dev libprotobuf-dev protobuf-compiler
             libmsgpack-cxx-dev libcereal-dev libspdlog-dev pkg-config python3 strace"
    [clang]="clang clang-tidy llvm libclang-rt-14-dev"
    [docs]="doxygen"
)

installed() { [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]; }

# need PURPOSE...: installs what is missing; quiet when nothing is.
need() {
    local purpose package missing=()
    for purpose in "$@"; do
        [ -n "${packages[$purpose]:-}" ] || fail "setup knows no '$purpose', only: ${purposes[*]}"
    done
    if ! command -v dpkg-query >/dev/null; then
        echo "dev: this system has no apt; the Debian packages it would install are: $(wanted "$@")" >&2
        return 0
    fi
    for package in $(wanted "$@"); do
        installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] || install_packages "${missing[@]}"
}

wanted() {
    local purpose
    for purpose in "$@"; do echo "${packages[$purpose]}"; done | xargs
}

install_packages() {
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "neither root nor sudo here; missing packages: $*"
        as_root=(sudo)
    fi
    echo "dev: installing $*"
    local install=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive
        apt-get -y -qq -o Dpkg::Use-Pty=0 install --no-install-recommends "$@")
    "${install[@]}" >/dev/null 2>&1 && return
    # The package lists may be missing or old: fetch them once, then let the errors show.
    "${as_root[@]}" apt-get -qq update
    "${install[@]}" >/dev/null || fail "these packages could not be installed: $*"
}

fail() {
    echo "dev: $*" >&2
    exit 1
}
