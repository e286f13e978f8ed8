# SPDX-License-Identifier: MIT
# shellcheck shell=sh
# Sourced by the scripts beside it, from the repository's root: installing what is missing, and building.

# Runs a command of apt's while no other script here does.
alone() {
    mkdir -p build
    flock build/install.lock "$@"
}

# Installs the Debian packages that are not there yet; asks nothing.
install_missing() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    as_root=
    [ "$(id -u)" -eq 0 ] || as_root=sudo
    alone $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq update
    # shellcheck disable=SC2086 # one word a package
    alone $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install $missing >/dev/null
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

# Runs the tests of a preset, one more at a time than there are processors, since many of them wait; further arguments say which,
# as ctest takes them.
run_tests() {
    preset=$1
    shift
    ctest --test-dir "build/$preset" --output-on-failure --no-label-summary -j "$(($(nproc) + 1))" "$@"
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

# make_root NAME PACKAGE... [-- PACKAGE...]: a Debian with packages, for tests/machines.py, kept in build/roots/NAME; those behind "--"
# are at hand for apt. Takes a minute the first time, and when it is asked for something else. Ends the script with 0 where there
# can be none.
make_root() {
    root=build/roots/$1
    shift
    [ "$(cat "$root.made" 2>/dev/null)" != "$*" ] || return 0
    [ "$(id -u)" -eq 0 ] || { echo "${0##*/}: skipped, it takes root to boot a machine" && exit 0; }
    wanted="$*"
    # shellcheck disable=SC2016 # the shell of mmdebstrap does it
    set -- mmdebstrap --quiet --variant=minbase "--include=systemd systemd-sysv dbus procps ${wanted%% --*}" \
        --customize-hook='echo force-unsafe-io >"$1/etc/dpkg/dpkg.cfg.d/room"'
    case $wanted in # where there are packages at hand, the lists of apt stay too
        *\ --\ *) set -- "$@" --skip=cleanup/apt \
            --customize-hook="chroot \"\$1\" apt-get -qq -y --download-only --install-recommends install ${wanted##*-- }" ;;
    esac
    rm -rf "$root" "$root.made"
    mkdir -p build/roots
    "$@" bookworm "$root" http://deb.debian.org/debian >"$root.log" 2>&1 || {
        echo "${0##*/}: skipped, no Debian to be had: $(tail -n 1 "$root.log")"
        exit 0
    }
    echo "$wanted" >"$root.made"
}

# That of all machines which the packages are tried on.
make_system_root() {
    install_missing mmdebstrap systemd-container iproute2 procps python3
    make_root system openssl python3 ca-certificates -- postgresql postgresql-client rsyslog rsyslog-relp rsyslog-pgsql dbconfig-no-thanks
}
