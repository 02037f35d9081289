#!/usr/bin/env bash
# vexactl's peripheral, information, network and self-test commands, each
# command a process of its own on one board folder.
. "$(dirname "$0")/../cli/lib.sh"

# What one process sets, the next one reads from the board's models.
run volume 0 set 50
check "volume set exits 0" 0 $?
check "another process reads the codec's register" 20 "$(run volume 0)"
check "volume --json" '{"register":20}' "$(run --json volume 0 | tr -d ' \t\n')"
run fan set 7
check "fan set writes the cooling state" "7" "$(cat "$board/sys/class/thermal/cooling_device0/cur_state")"
check "fan get reads it back" 7 "$(run fan get)"
run fan set 11 2>/dev/null
check "fan level 11 is a usage error" 2 $?
run audio 1 disable
check "codec 1 disabled" disabled "$(run audio 1 get)"
check "chips are healthy" "codec 0 ok|codec 1 ok|rtc ok|clock ok" \
    "$(run chips | awk 'NR > 1 {print $1 ($2 ~ /^[0-9]$/ ? " " $2 : "") " " $NF}' | paste -sd'|')"
check "adc board id" "board id:    3" "$(run adc | head -1)"

run rtc boot 2025-03-01 07:30:00
check "rtc boot alarm is kept" "boot 2025-03-01 07:30:00" "$(run rtc | awk '$1 == "boot" {print $1, $2, $3}')"
run rtc boot 2025-13-01 07:30:00 2>/dev/null
check "a month of 13 is a usage error" 2 $?
run rtc boot 2025-02-30 10:00:00 2>/dev/null
check "a day February does not have fails" 1 "$(($? != 0))"
run rtc boot 2028-02-29 06:30:00
check "a leap day is kept" "boot 2028-02-29 06:30:00" "$(run rtc | awk '$1 == "boot" {print $1, $2, $3}')"
run watchdog open && run watchdog feed && run watchdog close
check "watchdog open, feed, close" 0 $?
check "the watchdog was fed and closed" "feeds=1 open=0" \
    "$(grep -o -e '/dev/watchdog open=[01]' -e '/dev/watchdog feeds=[0-9]*' "$board/.board/watchdog" | sed 's|/dev/watchdog ||' | sort | paste -sd' ')"
run ir send
check "ir send writes the pattern" 224 "$(wc -c < "$board/sys/class/irblaster/irblaster0/send")"
run ir status disable
check "ir wake switch" disable "$(run ir status)"

check "ps finds both players" "612 613" "$(run ps vexa_player | awk 'NR > 1 {print $1}' | paste -sd' ')"
run kill 612
check "kill removes the process" "613" "$(run ps vexa_player | awk 'NR > 1 {print $1}')"
run kill 612 2>/dev/null
check "killing it again fails" 1 $?
check "info shows the disk size" "disk:      8 GB" "$(run info | grep '^disk:')"
check "info --json lists the mounts" '"mount":"/data"' "$(run --json info | tr -d ' \t\n' | grep -o '"mount":"/data"')"

run net isolation on
check "isolation adds the rule" "DROP all 192.168.41.0/24 0.0.0.0/0" "$(cat "$board/.board/iptables")"
check "net shows it" "isolation:     on" "$(run net | grep '^isolation')"
check "net --json keeps the link word as text" '"link_word":"0"' \
    "$(run --json net | tr -d ' \t\n' | grep -o '"link_word":"[0-9]*"')"
run net isolation off
check "isolation off removes it" "" "$(cat "$board/.board/iptables")"

run selftest >"$dir/selftest"
check "selftest passes on a healthy board" 0 $?
check "selftest prints each item" 12 "$(awk 'NR > 1 && NF == 2 && $1 != "verdict:"' "$dir/selftest" | wc -l)"
check "and the verdict" "verdict: PASS" "$(tail -1 "$dir/selftest")"
run board fault i2c.silent=/dev/i2c-3@0x68
run selftest >"$dir/selftest"
check "selftest fails with a silent clock chip" 1 $?
check "the clock chip's line says so" "IClock-Chip Error" "$(grep '^IClock-Chip' "$dir/selftest" | awk '{print $1, $2}')"
check "selftest --json verdict" '"verdict":"fail"' "$(run --json selftest | tr -d ' \t\n' | grep -o '"verdict":"[a-z]*"')"

# The kernel watchdog in real time, with a timeout of 1 s: left unfed it
# resets the board within its timeout and a second; fed and closed, it does not.
sed -i 's/^wdt_timeout = .*/wdt_timeout = 1/' "$board/vendor/etc/product.ini"
: >"$board/.board/reboots"
run watchdog open
sleep 2
check "an unfed watchdog resets the board" "watchdog" "$(cat "$board/.board/reboots")"
for i in 1 2 3 4; do run watchdog feed; sleep 0.5; done
run watchdog close
sleep 1.5
check "fed and closed, it does not" "watchdog" "$(cat "$board/.board/reboots")"

for cmd in fan adc rtc watchdog ir audio volume chips info ps kill net selftest; do
    run $cmd --help >/dev/null 2>&1
    check "vexactl $cmd --help exits 0" 0 $?
done
finish
