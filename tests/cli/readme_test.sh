#!/usr/bin/env bash
# The README's vexactl examples run as written, one after another, on a fresh
# default board in a new home, with vexactl on the PATH.
#   readme_test.sh VEXACTL README
. "$(dirname "$0")/../cli/lib.sh"
readme=$2
mkdir -p "$dir/home" "$dir/cwd" "$dir/bin" && cd "$dir/cwd" || exit 1
ln -s "$vexactl" "$dir/bin/vexactl"
export HOME="$dir/home" PATH="$dir/bin:$PATH"
unset VEXA_BOARD XDG_STATE_HOME

# The tour's lines, then the commands written inline (`vexactl ...`) that
# name no placeholder.
{
    sed -n '/^## A tour of vexactl/,/^## /p' "$readme" | sed -n '/^```sh$/,/^```$/p' | grep '^vexactl '
    grep -o '`vexactl [^`]*`' "$readme" | tr -d '`' | grep -v '[A-Z][A-Z]'
} >"$dir/examples"
check "the README has examples" yes "$([ "$(wc -l <"$dir/examples")" -ge 30 ] && echo yes)"

# A command that runs until interrupted is interrupted once it has printed.
until_printed() {
    "$@" >"$dir/out" 2>&1 &
    local pid=$! i
    for i in $(seq 300); do [ -s "$dir/out" ] && break; sleep 0.05; done
    kill -INT "$pid"
    wait "$pid"
}
while IFS= read -r example; do
    case $example in
    *" -f "* | *"board serve"* | *"board view"*) eval "until_printed $example" ;;
    *) timeout 120 bash -c "$example" >"$dir/out" 2>&1 </dev/null ;;
    esac
    status=$?
    check "$example" 0 "$status"
    [ "$status" = 0 ] || sed 's/^/    /' "$dir/out" | tail -n 5
done <"$dir/examples"

finish
