#!/usr/bin/env bash
# vexactl's serial, mcu and board commands end to end, on a fresh board in a
# temporary directory.
. "$(dirname "$0")/../cli/lib.sh"

check "mcu version" "V1.0.2.0" "$(run mcu version 2>/dev/null)"
check "mcu version --json" '"version":"V1.0.2.0"' \
    "$(run --json mcu version 2>/dev/null | tr -d ' \t\n' | grep -o '"version":"[^"]*"')"

# Settings kept with the board reach the MCU of every process.
mkdir -p "$board/.board"
printf 'links=0x8000000005\n' >"$board/.board/mcu-model"
check "mcu links: up ports" "0 2 39" "$(run mcu links 2>/dev/null | awk '$2 == "up" {print $1}' | tr '\n' ' ' | sed 's/ $//')"
check "mcu links: the mask" "mask: 0x8000000005" "$(run mcu links 2>/dev/null | head -1)"
check "mcu links --json has 40 ports" 40 "$(run --json mcu links 2>/dev/null | grep -c '"port"')"

# The MCU runs the configured version: nothing to flash. (An outdated MCU
# takes ten 1 s rounds of asking before the flash; the library's tests cover
# that on a fast clock.)
run mcu update >"$dir/update" 2>/dev/null
check "mcu update exits 0" 0 $?
check "mcu update finds nothing to do" \
    "no update: the MCU reports V1.0.2.0, the configured version" "$(cat "$dir/update")"

run mcu watchdog close >"$dir/wdt" 2>/dev/null
check "watchdog close leaves the line high and closed" "91 1 11 no yes" \
    "$(awk 'NR == 2 {print $1, $2, $3, $4, $5}' "$dir/wdt")"

check "serial send" "sent 5 bytes to ttl" "$(run serial ttl send hello 2>/dev/null)"
run serial ttl listen --seconds 0 >/dev/null 2>&1
check "serial listen exits 0" 0 $?
run serial nope send x >/dev/null 2>&1
check "an unknown port is a usage error" 2 $?

run board serve --seconds 0 >"$dir/serve" 2>/dev/null
check "board serve lists the nine lines" 10 "$(wc -l <"$dir/serve")"
check "the MCU line's far end is the model" "/dev/ttyS9 MCU model" \
    "$(awk '$1 == "/dev/ttyS9" {print $1, $3, $4}' "$dir/serve")"

for command in serial mcu board; do
    run "$command" --help >/dev/null 2>&1
    check "$command --help exits 0" 0 $?
done

finish
