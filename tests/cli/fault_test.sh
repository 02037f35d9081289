#!/usr/bin/env bash
# vexactl board fault: one table of every model's knobs, set by one process
# and seen by the next.
. "$(dirname "$0")/lib.sh"
json() { tr -d ' \t\n'; }

models=$(run --json board fault | json | grep -o '"name":"[a-z0-9_]*\.' | sed 's/"name":"//; s/\.$//' | sort -u | paste -sd' ')
for model in fpga i2c mcu; do
    case " $models " in *" $model "*) ;; *) check "board fault lists a knob of $model" "$model" "$models" ;; esac
done
check "a row has its name, value, what it takes and what it does" \
    '{"name":"mcu.reply","value":"ok","takes":"ok|silent|nack","help":"silent:theMCUanswersnothing;nack:itrefuseseveryframeandbootloadercommand"}' \
    "$(run --json board fault | json | grep -o '{"name":"mcu.reply"[^}]*}')"

run board fault mcu.reply=banana 2>"$dir/err"
check "a value the knob does not take is refused" "2 vexactl board: mcu.reply takes ok|silent|nack, not 'banana'" \
    "$? $(head -1 "$dir/err")"
run board fault mcu.reply=silent no.such=1 2>"$dir/err"
check "a knob the board does not have is refused" \
    "2 vexactl board: no knob 'no.such' on this board; 'vexactl board fault' lists them" "$? $(head -1 "$dir/err")"
check "and nothing of the command was set" "faults:    none" "$(run status | grep '^faults:')"

# A silent MCU: the version request fails in the time the library waits,
# and answers again once the knob is cleared.
run board fault mcu.reply=silent i2c.silent=/dev/i2c-3@0x68
check "setting knobs prints nothing and succeeds" 0 $?
check "status shows the knobs set" "faults:    i2c.silent=/dev/i2c-3@0x68 mcu.reply=silent" "$(run status | grep '^faults:')"
check "status --json lists them" '"faults":[{"name":"i2c.silent","value":"/dev/i2c-3@0x68"},{"name":"mcu.reply","value":"silent"}]' \
    "$(run --json status | json | grep -o '"faults":\[[^]]*\]')"
start=$(date +%s%N)
run mcu version >/dev/null 2>"$dir/err"
rc=$?
elapsed=$((($(date +%s%N) - start) / 1000000))
check "a silent MCU fails the version request" "1 vexactl: the MCU did not answer the version request" "$rc $(cat "$dir/err")"
[ "$elapsed" -lt 15000 ] || check "and within 15 s" "< 15000 ms" "$elapsed ms"
run board fault mcu.reply=
check "cleared, the MCU answers again" "V1.0.2.0 0" "$(run mcu version) $?"
check "the other knob stays" '"name":"i2c.silent","value":"/dev/i2c-3@0x68"' \
    "$(run --json board fault | json | grep -o '"name":"i2c.silent","value":"[^"]*"')"
finish
