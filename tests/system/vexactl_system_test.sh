#!/usr/bin/env bash
# vexactl sched, logd and usb end to end, on a fresh board in a temporary directory.
. "$(dirname "$0")/../cli/lib.sh"

# Scheduling: the affinity is board state; the governor goes to both clusters.
check "sched bind pins to the main cores" "pid 612: cores 0-3 (mask 0x0f)" "$(run sched bind 612)"
check "the board records it" "612 0xf" "$(grep '^612 ' "$board/.board/affinity")"
check "the cpuset lists the process" "612" "$(cat "$board/dev/cpuset/foreground/tasks")"
check "sched unbind frees every core" "pid 612: cores 0-7 (mask 0xff)" "$(run sched unbind 612)"
check "sched --json bind" '{"pid":613,"mask":"0x0f","cores":"0-3"}' "$(run --json sched bind 0x265 | tr -d ' \t\n')"
run sched bind 999999 2>/dev/null
check "a process the board does not have cannot be pinned" 1 "$(($? != 0))"
check "and nothing is recorded for it" "" "$(grep '^999999 ' "$board/.board/affinity")"
run sched governor powersave >/dev/null
check "the governor is set on both policies" "powersave powersave" \
    "$(cat "$board"/sys/devices/system/cpu/cpufreq/policy{0,4}/scaling_governor | tr '\n' ' ' | sed 's/ $//')"
check "sched governor lists the policies" "policy4 powersave" "$(run sched governor | awk '$1 == "policy4" {print $1, $2}')"
run sched governor perf >/dev/null 2>"$dir/err"
check "a governor the kernel refuses fails" "1 vexactl: policy0 refused 'perf' and keeps powersave; see 'vexactl log'" \
    "$? $(cat "$dir/err")"
run sched bind twelve 2>/dev/null
check "a process id is a number" 2 $?

# The log daemon: its configuration, a real archive, a clear around the current file.
check "logd shows the configuration" "level:      info" "$(run logd | head -1)"
run logd set level=debug mode=net >/dev/null
check "logd set writes the properties" "debug net" \
    "$(run --json logd | tr -d '\t\n' | sed 's/.*"level":"\([^"]*\)".*"mode":"\([^"]*\)".*/\1 \2/')"
run logd set level=verbose-all 2>/dev/null
check "a value longer than its field is refused" 2 $?
mkdir -p "$board/sdcard"
run logd compress /syslog/logs /sdcard/logs.tgz >"$dir/out"
check "logd compress reports the archive" "wrote /sdcard/logs.tgz" "$(cut -d' ' -f1,2 "$dir/out")"
check "tar lists the archive" "syslog/logs/main_0003.log" "$(tar -tzf "$board/sdcard/logs.tgz" | grep main_0003)"
check "the archive is readable by all" 666 "$(stat -c %a "$board/sdcard/logs.tgz")"
check "logd compress - writes the archive to standard output" "syslog/logs/kernel/kmsg_0001.log" \
    "$(run logd compress /syslog - | tar -tzf - | grep kmsg)"
run logd compress "/syslog/logs;reboot" /sdcard/x.tgz 2>"$dir/err"
check "a directory with shell metacharacters is refused" "1 vexactl: compress refused (-1); see 'vexactl log'" \
    "$? $(cat "$dir/err")"
check "and logged" 'E/vexa_system_bi_vexa_logd: bi_vexa_logd_compress: refusing path "/syslog/logs;reboot": it holds shell metacharacters' \
    "$(run log | grep 'refusing path' | sed 's/^[^/]* \([DIWE]\/\)/\1/')"
run logd clear /syslog/logs >/dev/null
check "logd clear keeps the current file" "main_0003.log" "$(ls "$board/syslog/logs")"

# USB: the ports, the OTG role, and libusb on the board's bus.
run usb port 2 off >/dev/null
check "usb port 2 off writes its file" 0 "$(cat "$board/sys/class/vexagpios/USB2_EN/value")"
check "usb ports lists it" "2 off" "$(run usb ports | awk '$1 == 2 {print $1, $2}')"
check "usb otg reads the role" host "$(run usb otg)"
check "usb otg peripheral sets it" peripheral "$(run usb otg peripheral)"
run usb port 5 on 2>/dev/null
check "there are four ports" 2 $?
check "usb devices lists the bulk device" "1 2 1209:0001 0 0xff" "$(run usb devices | awk 'NR == 2 {print $1, $2, $3, $4, $5}')"
check "usb echo hello comes back through libusb" hello "$(run usb echo hello)"
check "usb echo -- takes text that starts with -" "-n" "$(run usb echo -- -n)"
run usb echo hello --vendor 0xdead >/dev/null 2>"$dir/err"
check "no device with those ids" "1 vexactl: opening dead:0001 failed (-1); see 'vexactl log'" "$? $(cat "$dir/err")"

for cmd in sched logd usb; do
    run $cmd --help >/dev/null 2>&1
    check "vexactl $cmd --help exits 0" 0 $?
done
finish
