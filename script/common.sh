# SPDX-License-Identifier: MIT
# shellcheck shell=sh
# Sourced by the scripts beside it, from the repository's root: installing what is missing, and building.

# Installs the Debian packages that are not there yet; asks nothing.
install_missing() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    as_root=
    [ "$(id -u)" -eq 0 ] || as_root=sudo
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq update
    # shellcheck disable=SC2086 # one word a package
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install $missing >/dev/null
}

# Configures and builds a preset of CMakePresets.json in build/PRESET; further arguments go to the build. Prints what the
# build says only when it fails.
build() {
    preset=$1
    shift
    mkdir -p build
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" "$@"; } >"build/$preset.log" 2>&1; then
        cat "build/$preset.log" >&2
        return 1
    fi
}

# Runs the tests of a preset, several at a time; further arguments say which, as ctest takes them.
run_tests() {
    preset=$1
    shift
    ctest --test-dir "build/$preset" --output-on-failure --no-label-summary -j "$(nproc)" "$@"
}

# Prints what a public header declares, a name a line.
public_names() {
    sed -n '/^typedef/d; /static_assert/d; s/^[a-z][a-z0-9_ ]*[ *]\{1,\}\([a-z0-9_]*\)[[(].*/\1/p' "inc/$1.h" | sort -u
}

# Links of the pages in a folder that lead to no file.
dead_links() {
    find "$1" -name '*.md' | while read -r page; do
        grep -o ']([^)]*)' "$page" | sed 's/](\(.*\))/\1/; s/#.*//; /:/d; /^$/d' | while read -r link; do
            [ -e "$(dirname "$page")/$link" ] || echo "$page: $link"
        done
    done
}
