# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# What the scripts of tools/ and .ci/ do alike. Sourced first: it ends them at the first failure and goes to the top of
# the tree, so that they can be called from anywhere.
# shellcheck shell=sh
set -eu
script=$(realpath "$0")
cd "$(dirname "$script")/.."

say() {
    echo "${script##*/}: $*"
}

die() {
    say "$@" >&2
    exit 1
}

# Shows the comment at the script's head, which says how it is called.
usage() {
    sed -n '2,/^[^#]/{/SPDX-/!s/^#\( \|$\)//p;}' "$script" >&2
    exit 2
}

# The library's version.
version() {
    sed -n 's/^project(frwk VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt
}

# build_alone TREE CMAKE-OPTION...: the library without tests and programs.
build_alone() {
    cmake -B "$@" -D FRWK_BUILD_TESTS=OFF -D FRWK_BUILD_DEVICE=OFF -D FRWK_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build "$1" -- -j"$(nproc)" >/dev/null
}

# When the version was released, in seconds: what is built bears this date, and not the day's.
release_time() {
    date -d "$(sed -n 's/^ -- .*>  //p' packaging/debian/changelog.in)" +%s
}
