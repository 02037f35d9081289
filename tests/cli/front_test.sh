#!/usr/bin/env bash
# The command line's front: a mistyped command, a board directory that does
# not exist yet, standard output that cannot be written, and RTC dates.
. "$(dirname "$0")/../cli/lib.sh"

# A mistyped command: the nearest command, or those equally near, or none;
# two lines and nothing laid out.
while IFS='|' read -r word said; do
    out=$(run "$word" on 2>&1)
    check "unknown command '$word'" "2 vexactl: unknown command '$word'$said
'vexactl --help' lists the commands." "$? $out"
done <<'TABLE'
stauts|; did you mean 'status'?
fpag|; did you mean 'fpga'?
wacthdog|; did you mean 'watchdog'?
fact|; did you mean 'factory-reset'?
lgo|; did you mean 'log'?
leg|; did you mean 'led' or 'log'?
frobnicate|
TABLE
check "no board is laid out for a mistyped command" no "$([ -e "$board" ] && echo yes || echo no)"

# A board directory that does not exist is laid out, with one line saying so;
# an empty directory too; an existing board says nothing.
out=$(run gpio set 5 1 2>&1)
check "a new board directory" "0 vexactl: $board does not exist: laying out a new board there" "$? $out"
out=$(run gpio set 5 1 2>&1)
check "an existing board" "0 " "$? $out"
mkdir "$dir/empty"
out=$("$vexactl" --board "$dir/empty" gpio set 5 1 2>&1)
check "an empty directory" "0 vexactl: $dir/empty is empty: laying out a new board there" "$? $out"
out=$("$vexactl" -q --board "$dir/quiet" gpio set 5 1 2>&1)
check "-q lays out a board without a word" "0 " "$? $out"
out=$(cd "$dir" && env -u VEXA_BOARD -u XDG_STATE_HOME HOME="$dir/home" "$vexactl" gpio set 5 1 2>&1)
check "the default board, on first use" \
    "0 vexactl: $dir/home/.local/state/vexasdk/board does not exist: laying out a new board there" "$? $out"

# Output that cannot be written fails the command, and goes nowhere else.
out=$(run status 2>&1 >&-)
check "standard output closed" "1 vexactl: cannot write standard output: Bad file descriptor" "$? $out"
out=$(run status 2>&1 >/dev/full)
check "standard output full" "1 vexactl: cannot write standard output: No space left on device" "$? $out"
out=$(run --version 2>&1 >&-)
check "--version with standard output closed" "1 vexactl: cannot write standard output: Bad file descriptor" \
    "$? $out"
out=$(run gpio set 5 0 2>&1 >&-)
check "a command that prints nothing needs no standard output" "0 " "$? $out"
check "and did its job" 0 "$(run gpio get 5)"

# The RTC takes real dates only; a refused one leaves the alarm as it was.
run rtc boot 2024-02-29 07:30:00
check "a leap day is a date" "0 boot 2024-02-29 07:30:00" "$? $(run rtc | awk '$1 == "boot" {print $1, $2, $3}')"
run rtc wake 2000-02-29 1:2:3
check "so is 2000's, and one-digit fields are taken" "0 wake 2000-02-29 01:02:03" "$? $(run rtc | awk '$1 == "wake" {print $1, $2, $3}')"
alarms=$(run rtc)
usage_rtc="usage: vexactl [--board DIR] [--json] rtc [boot|wake on|off | boot|wake YYYY-MM-DD HH:MM:SS]"
while IFS='|' read -r date clock said; do
    out=$(run rtc boot "$date" "$clock" 2>&1)
    check "rtc boot $date $clock" "2 vexactl rtc: $said
$usage_rtc" "$? $out"
done <<'TABLE'
2023-02-29|07:30:00|2023-02-29: February 2023 has days 1 to 28
2100-02-29|07:30:00|2100-02-29: February 2100 has days 1 to 28
2024-04-31|07:30:00|2024-04-31: April 2024 has days 1 to 30
2024-01-00|07:30:00|2024-01-00: January 2024 has days 1 to 31
2024-12-32|07:30:00|2024-12-32: December 2024 has days 1 to 31
2024-13-01|07:30:00|2024-13-01: the month is 1 to 12
2024-00-01|07:30:00|2024-00-01: the month is 1 to 12
1969-12-31|23:59:59|1969-12-31: the RTC counts from 1970
2024-06-01|24:00:00|24:00:00: the hour is 0 to 23, minutes and seconds 0 to 59
2024-06-01|12:60:00|12:60:00: the hour is 0 to 23, minutes and seconds 0 to 59
2024-06-01|12:00:60|12:00:60: the hour is 0 to 23, minutes and seconds 0 to 59
24-06-01|12:00:00|a time is YYYY-MM-DD HH:MM:SS, not '24-06-01 12:00:00'
2024/06/01|12:00:00|a time is YYYY-MM-DD HH:MM:SS, not '2024/06/01 12:00:00'
2024-06-01|12:00|a time is YYYY-MM-DD HH:MM:SS, not '2024-06-01 12:00'
2024-06-01|12:00:0x|a time is YYYY-MM-DD HH:MM:SS, not '2024-06-01 12:00:0x'
TABLE
check "the refused dates left the alarms as they were" "$alarms" "$(run rtc)"

finish
