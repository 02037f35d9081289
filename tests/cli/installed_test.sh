#!/usr/bin/env bash
# The installed vexactl runs from any prefix, without LD_LIBRARY_PATH.
#   installed_test.sh BUILD_DIR [EMULATOR...]
# EMULATOR runs the build's programs when they are for another processor.
set -u
build=$1
emulator=("${@:2}")
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
check() { # description, expected, actual
    if [ "$2" != "$3" ]; then
        echo "FAIL: $1"
        echo "  expected: $2"
        echo "  actual:   $3"
        failures=$((failures + 1))
    fi
}

cmake --install "$build" --prefix "$dir/prefix" >/dev/null || { echo "install failed"; exit 1; }
mv "$dir/prefix" "$dir/elsewhere" # a prefix the build never named
vexactl="$dir/elsewhere/bin/vexactl"
out=$(env -u LD_LIBRARY_PATH "${emulator[@]}" "$vexactl" --version 2>&1)
check "vexactl --version runs" "0 vexactl (vexasdk)" "$? $(echo "$out" | cut -d' ' -f1-2)"
out=$(env -u LD_LIBRARY_PATH "${emulator[@]}" "$vexactl" --board "$dir/board" status 2>&1)
check "vexactl status runs on a new board" "0 product:   QR5PLUS" "$? $(echo "$out" | grep '^product:')"
# vexactl carries the library and the board; the board's host it starts is
# the prefix's own (libexec), and that one loads the prefix's libraries.
loader=$(readelf -l "$vexactl" | sed -n 's/.*program interpreter: \(.*\)]$/\1/p')
check "vexactl loads none of the project's libraries" "" \
    "$(env -u LD_LIBRARY_PATH "${emulator[@]}" "$loader" --list "$vexactl" | grep -o 'libvexa[a-z]*' | sort -u)"
host="$dir/elsewhere/libexec/vexaboard-host"
check "with the installed libraries" "$dir/elsewhere/lib" \
    "$(env -u LD_LIBRARY_PATH "${emulator[@]}" "$loader" --list "$host" | awk '/libvexaboard/ {print $3}' | xargs dirname | xargs realpath)"

# The man page and the completion, found from the program's own prefix.
check "man finds the page from the program's place" "$dir/elsewhere/share/man/man1/vexactl.1" \
    "$(env -u MANPATH PATH="$dir/elsewhere/bin:/usr/bin:/bin" man -w vexactl 2>&1)"
check "man vexactl shows it" "vexactl - drive the Vexa board through libvexasdk" \
    "$(env -u MANPATH PATH="$dir/elsewhere/bin:/usr/bin:/bin" MANWIDTH=200 man vexactl 2>/dev/null |
        sed -n '/^NAME$/{n;s/^ *//;p;q}')"
check "bash completes vexactl from the installed script" "status " \
    "$(bash -c '. "$1"; COMP_WORDS=(vexactl stat); COMP_CWORD=1; _vexactl; echo "${COMPREPLY[*]} "' _ \
        "$dir/elsewhere/share/bash-completion/completions/vexactl")"

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all checks passed"
