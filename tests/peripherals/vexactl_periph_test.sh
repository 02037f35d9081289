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
check "info shows the board's memory, not the machine's" "ram:       3877 MB, 793 MB free" "$(run info | grep '^ram:')"
check "and the board's processes (612 was killed)" "processes: 5" "$(run info | grep '^processes:')"
check "and the board's partitions" "/data 4608" "$(run info | awk '$1 == "/data" {print $1, $4}')"
check "info --json lists the mounts" '"mount":"/data"' "$(run --json info | tr -d ' \t\n' | grep -o '"mount":"/data"')"

run net isolation on
check "isolation adds the rule" "DROP all 192.168.41.0/24 0.0.0.0/0" "$(cat "$board/.board/iptables")"
check "net shows it" "isolation:     on" "$(run net | grep '^isolation')"
run net isolation on
check "net isolation on again changes nothing" "0 DROP all 192.168.41.0/24 0.0.0.0/0" "$? $(cat "$board/.board/iptables")"
echo "vexa.netport_link_status=18446744073709551615" >>"$board/.board/properties"
check "net --json: the link word as a number, every digit" '"link_word":18446744073709551615' \
    "$(run --json net | tr -d ' \t\n' | grep -o '"link_word":[0-9a-z"]*')"
check "net --json: flags are true or false" '"carrier":true "ap":true "station":true "isolation":true' \
    "$(run --json net | tr -d ' \t\n' | grep -o -e '"carrier":[a-z]*' -e '"ap":[a-z]*' -e '"station":[a-z]*' -e '"isolation":[a-z]*' | paste -sd' ')"
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
check "selftest --json verdict" '"passed":false' "$(run --json selftest | tr -d ' \t\n' | grep -o '"passed":[a-z]*')"
check "selftest --json: the failed item" '{"item":"IClock-Chip","ok":false}' \
    "$(run --json selftest | tr -d ' \t\n' | grep -o '{"item":"IClock-Chip"[^}]*}')"
check "selftest --json: the temperature is a number, its unit in its name" '{"item":"ARM-Temperature","ok":true,"temperature_c":45}' \
    "$(run --json selftest | tr -d ' \t\n' | grep -o '{"item":"ARM-Temperature"[^}]*}')"
run chips >"$dir/chips" 2>"$dir/err"
check "chips with a silent clock chip exits 1" "1 vexactl: faulty: clock; see 'vexactl log'" "$? $(cat "$dir/err")"
check "and names it a fault, as every fault" "codec 0 ok|codec 1 ok|rtc ok|clock fault" \
    "$(awk 'NR > 1 {print $1 ($2 ~ /^[0-9]$/ ? " " $2 : "") " " $NF}' "$dir/chips" | paste -sd'|')"
run board fault i2c.silent=
sed -i 's/^\/dev\/i2c-3 0x51 0x02 .*/\/dev\/i2c-3 0x51 0x02 0x80/' "$board/.board/i2c"
run chips >"$dir/chips" 2>"$dir/err"
check "an RTC whose oscillator stopped is a fault too" "1 vexactl: faulty: rtc; see 'vexactl log'" "$? $(cat "$dir/err")"
check "named as every fault" "rtc fault" "$(awk '$1 == "rtc" {print $1, $2}' "$dir/chips")"
sed -i 's/^\/dev\/i2c-3 0x51 0x02 .*/\/dev\/i2c-3 0x51 0x02 0x00/' "$board/.board/i2c"
sed -i 's/^self_test_items = .*/self_test_items = 13-99/' "$board/vendor/etc/product.ini"
run selftest >"$dir/out" 2>"$dir/err"
check "a self-test of no known item fails and says no PASS" \
    "1  vexactl: self_test_items '13-99' names no test item (1 to 12): nothing was tested" \
    "$? $(cat "$dir/out") $(cat "$dir/err")"
sed -i 's/^self_test_items = .*/self_test_items = 1-99/' "$board/vendor/etc/product.ini"
run selftest >"$dir/out" 2>"$dir/err"
check "an unknown id beside a known one is skipped, and said" \
    "0 vexactl: self_test_items names 99, which is no test item: skipped" "$? $(cat "$dir/err")"
check "and the known one is tested" "RTC-Status OK" "$(awk '$1 == "RTC-Status" {print $1, $2}' "$dir/out")"

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
