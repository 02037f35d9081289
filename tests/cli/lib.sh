# Shared by the vexactl scripts: a fresh board in a temporary directory and
# a check that compares whole outputs.  Usage, from a script given the path
# of vexactl as $1:   . "$(dirname "$0")/../cli/lib.sh"
set -u
vexactl=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
board="$dir/board"
failures=0

check() { # description, expected, actual
    if [ "$2" != "$3" ]; then
        echo "FAIL: $1"
        echo "  expected: $2"
        echo "  actual:   $3"
        failures=$((failures + 1))
    fi
}

run() { "$vexactl" --board "$board" "$@"; }

finish() {
    if [ "$failures" -ne 0 ]; then
        echo "$failures check(s) failed"
        exit 1
    fi
    echo "all checks passed"
    exit 0
}
