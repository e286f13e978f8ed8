# SPDX-License-Identifier: MIT
# shellcheck shell=sh
# Sourced by script/fuzz and script/fuzz-check behind script/common.sh, from the repository's root.

seeds=build/fuzz/fuzz/seeds
findings=build/fuzz-findings

# Builds the targets and their seeds. llvm puts names and lines into the stack of a finding.
build_targets() {
    install_missing clang cmake libclang-rt-14-dev llvm ninja-build
    build fuzz
    mkdir -p "$findings"
}

# The names of the targets, a line each.
targets() {
    ls "$seeds"
}

# fuzz_target NAME CORPUS OPTION... - runs a target from its seeds and regressions; what it finds worth keeping goes to
# the folder CORPUS, its output to a log. For a finding prints the end of the log.
fuzz_target() {
    name=$1 corpus=$2
    shift 2
    set -- "$@" -max_len=20480 -timeout=20 -artifact_prefix="$findings/$name-" "$corpus" "$seeds/$name"
    [ ! -d "fuzz/regressions/$name" ] || set -- "$@" "fuzz/regressions/$name"
    mkdir -p "$corpus"
    if ! UBSAN_OPTIONS=print_stacktrace=1 "build/fuzz/fuzz/fuzz_$name" "$@" >"$findings/$name.log" 2>&1; then
        tail -n 60 "$findings/$name.log" >&2
        printf 'fuzz_%s: a finding; its input is named above, the log is %s\n' "$name" "$findings/$name.log" >&2
        return 1
    fi
}
