#!/usr/bin/env bash
# The default board is a product on which every command works.
. "$(dirname "$0")/../cli/lib.sh"

run resolution set 1920 1080 --fps 50 --save >"$dir/out" 2>"$dir/err"
check "resolution set --fps is accepted" "0 1920 1080 50 accepted (1)" "$? $(tail -n1 "$dir/out" | tr -s ' ')"
check "and read back" "1920 1080 50" "$(run resolution get 2>/dev/null | awk 'NR == 2 {print $1, $2, $3}')"

finish
