# SPDX-License-Identifier: Apache-2.0
# Sourced by the other scripts.

# shellcheck disable=SC2034  # used by the scripts that source this file
repository=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# shellcheck disable=SC2034
build_packages=(
    g++ cmake ninja-build pkg-config libjsoncpp-dev android-liblog-dev android-libbase-dev
    libcli11-dev libfmt-dev libedit-dev nlohmann-json3-dev)

# shellcheck disable=SC2034
packaging_packages=(debhelper dpkg-dev help2man file)

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# run_logged LOG COMMAND...: shows the output of COMMAND only if it fails.
run_logged() {
    local log=$1
    shift
    "$@" >"$log" 2>&1 && return
    cat "$log" >&2
    return 1
}

# Makes the directory, unless somebody else has made it.
require_writable() {
    local directory=$1 obstacle
    mkdir -p "$directory" 2>/dev/null || fail "you may not make $directory"
    obstacle=$(find "$directory" ! -type l ! -writable -print -quit)
    [[ -z $obstacle ]] || fail "you may not write $obstacle, which another user has made:" \
        "remove $directory as that user, or work in a copy of the tree"
}
