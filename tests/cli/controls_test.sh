#!/usr/bin/env bash
# Every lamp, relay and switch that status lists has a command, under the
# name status prints, and it drives and reads that line and no other.
. "$(dirname "$0")/../cli/lib.sh"

run status >"$dir/status" 2>/dev/null
rows=$(awk '/^NAME/ {on = 1; next} on {print $1, $2, $3}' "$dir/status")
check "status lists 30 lines" 30 "$(echo "$rows" | wc -l)"

lines_high() { # the lines status shows at level 1, as "ID ID ..."
    run status 2>/dev/null | awk '/^NAME/ {on = 1; next} on && $4 == 1 {printf "%s ", $3}'
}

while read -r name kind line; do
    case $kind in led) cmd=led ;; relay) cmd=relay ;; *) cmd=switch ;; esac
    case $name in
    led_tri_*) continue ;; # the tri-colour lamp is one command, below
    esac
    if [ "$kind" = input ]; then
        run gpio set "$line" 1
        check "$cmd $name get reads line $line" 1 "$(run $cmd "$name" get 2>/dev/null)"
        run gpio set "$line" 0
        check "$cmd $name get reads line $line low" 0 "$(run $cmd "$name" get 2>/dev/null)"
        run $cmd "$name" on >/dev/null 2>&1
        check "$cmd $name on is refused" 1 $?
        continue
    fi
    run $cmd "$name" on 2>/dev/null
    check "$cmd $name on exits 0" 0 $?
    check "$cmd $name on drives line $line alone" "$line " "$(lines_high)"
    check "$cmd $name get" 1 "$(run $cmd "$name" get 2>/dev/null)"
    run $cmd "$name" off 2>/dev/null
    check "$cmd $name off" "" "$(lines_high)"
done <<<"$rows"

# The short names reach the same lines.
for pair in "led sys 34" "led 4g 36" "led sub-card 87" "relay interior 81" "relay 3 84"; do
    set -- $pair
    run "$1" "$2" on 2>/dev/null
    check "$1 $2 on drives line $3" "$3 " "$(lines_high)"
    run "$1" "$2" off 2>/dev/null
done

# The tri-colour lamp: red is active-low.
run led tri 0 1 0 2>/dev/null
check "led tri 0 1 0" "1 1 0" "$(run gpio get 40) $(run gpio get 41) $(run gpio get 42)"
check "led tri get" 1 "$(run led tri get 2>/dev/null)"
out=$(run led tri 2 0 0 2>&1)
check "a colour of 2 is refused" "2 vexactl led: red is a number from 0 to 1, not '2'" "$? $(echo "$out" | head -n1)"
check "and changes nothing" "1 1 0" "$(run gpio get 40) $(run gpio get 41) $(run gpio get 42)"
run led tri 0 0 0 2>/dev/null

# A name of another kind says which command takes it; bad names and actions
# are refused before the library is called.
run log --clear
out=$(run led pc_ctrl on 2>&1)
check "a switch given to led" "2 vexactl led: pc_ctrl is a switch: vexactl switch pc_ctrl on|off|get" \
    "$? $(echo "$out" | head -n1)"
out=$(run relay 5 on 2>&1)
check "relay 5 is refused" "2 vexactl relay: unknown name '5'; the names are interior_relay (interior), peripheral_relay_1 (1), peripheral_relay_2 (2), peripheral_relay_3 (3), peripheral_relay_4 (4)" \
    "$? $(echo "$out" | head -n1)"
out=$(run led sys 2 2>&1)
check "an action of 2 is refused" "2 vexactl led: the action is one of on, off or get, not '2'" \
    "$? $(echo "$out" | head -n1)"
check "the library was not called" "" "$(run log)"

# The USB selector's lines are switched one at a time.
run switch usb_select_1 on 2>/dev/null && run switch usb_select_0 on 2>/dev/null && run switch usb_select_1 off 2>/dev/null
check "usb_select_1 off keeps usb_select_0" "1 0" "$(run gpio get 92) $(run gpio get 93)"

finish
