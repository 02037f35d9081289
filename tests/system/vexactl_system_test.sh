#!/usr/bin/env bash
# vexactl sched, logd and usb end to end, on a fresh board in a temporary directory.
. "$(dirname "$0")/../cli/lib.sh"

# Scheduling: the affinity is board state; the governor goes to both clusters.
check "sched bind pins to the main cores" "pid 612: cores 0-3 (mask 0x0f)" "$(run sched bind 612)"
check "the board records it" "612 0xf" "$(grep '^612 ' "$board/.board/affinity")"
check "the cpuset lists the process" "612" "$(cat "$board/dev/cpuset/foreground/tasks")"
check "sched unbind frees every core" "pid 612: cores 0-7 (mask 0xff)" "$(run sched unbind 612)"
check "sched --json bind" '{"pid":613,"mask":15,"cores":"0-3"}' "$(run --json sched bind 0x265 | tr -d ' \t\n')"
run sched bind 999999 2>/dev/null
check "a process the board does not have cannot be pinned" 1 "$(($? != 0))"
check "and nothing is recorded for it" "" "$(grep '^999999 ' "$board/.board/affinity")"
out=$(run sched bind 0)
check "sched bind 0 pins the caller, this vexactl" "pid 0 (this vexactl, pid PID): cores 0-3 (mask 0x0f)" \
    "$(echo "$out" | sed 's/pid [0-9][0-9]*)/pid PID)/')"
caller=$(echo "$out" | sed 's/.*pid \([0-9][0-9]*\)).*/\1/')
check "and the board records it under the caller's pid" "$caller 0xf" "$(grep "^$caller " "$board/.board/affinity")"
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
mkdir "$board/syslog/logs;reboot"
run logd compress "/syslog/logs;reboot" /sdcard/x.tgz 2>"$dir/err"
check "a directory with shell metacharacters is refused" "1 vexactl: compress refused (-1); see 'vexactl log'" \
    "$? $(cat "$dir/err")"
check "and logged" 'E/vexa_system_bi_vexa_logd: bi_vexa_logd_compress: refusing path "/syslog/logs;reboot": it holds shell metacharacters' \
    "$(run log | grep 'refusing path' | sed 's/^[^/]* \([DIWE]\/\)/\1/')"

# A compress that did not happen fails, and leaves no archive: none for a
# missing folder, and an archive of an earlier run is not taken for this one.
printf 'an archive of an earlier run' >"$board/sdcard/none.tgz"
run logd compress /syslog/nothing /sdcard/none.tgz >"$dir/out" 2>"$dir/err"
check "compress of a missing folder fails" \
    "1  vexactl: the board has no folder /syslog/nothing: nothing was compressed" "$? $(cat "$dir/out") $(cat "$dir/err")"
check "and leaves the earlier archive as it was" "an archive of an earlier run" "$(cat "$board/sdcard/none.tgz")"
run logd compress /syslog /nodir/x.tgz >"$dir/out" 2>"$dir/err"
check "a tar that fails fails the compress" \
    "1  vexactl: compressing /syslog into /nodir/x.tgz failed: no archive was written; see 'vexactl log'" \
    "$? $(cat "$dir/out") $(cat "$dir/err")"
check "and the log says why" "E/vexa_system_bi_vexa_logd: bi_vexa_logd_compress: tar of /syslog into /nodir/.x.tgz.vexactl-PID failed (exit 2)" \
    "$(run log --tag vexa_system_bi_vexa_logd --priority E | tail -n1 | sed 's/^[^/]* \([DIWE]\/\)/\1/; s/vexactl-[0-9]*/vexactl-PID/')"
check "nothing was left" "no" "$([ -e "$board/nodir" ] && echo yes || echo no)"
run --json logd compress /syslog /sdcard/none.tgz >"$dir/out"
check "a compress that works takes the archive's name" '{"directory":"/syslog","archive":"/sdcard/none.tgz","size_bytes":'"$(stat -c %s "$board/sdcard/none.tgz")"'}' \
    "$(tr -d ' \t\n' <"$dir/out")"
check "it is the new archive" "syslog/logs/main_0003.log" "$(tar -tzf "$board/sdcard/none.tgz" | grep main_0003)"
check "and no file of the run is left beside it" ".keep logs.tgz none.tgz" "$(ls -A "$board/sdcard" | paste -sd' ')"

# clear says "cleared" only when nothing but the current file stays.
touch "$board/syslog/logs/old.log" "$board/syslog/logs/a\$b.log"
run logd clear /syslog/logs >"$dir/out" 2>"$dir/err"
check "an entry the library will not pass to rm fails the clear" \
    "1  vexactl: /syslog/logs is not cleared: 1 entry stays ('a\$b.log'); see 'vexactl log'" \
    "$? $(cat "$dir/out") $(cat "$dir/err")"
check "the others are gone" 'a$b.log main_0003.log' "$(ls "$board/syslog/logs" | paste -sd' ')"
rm "$board/syslog/logs/a\$b.log"
touch "$board/syslog/logs/old.log"
check "logd clear --json" '{"directory":"/syslog/logs","removed":1,"kept":"main_0003.log"}' \
    "$(run --json logd clear /syslog/logs | tr -d ' \t\n')"
check "logd clear keeps the current file" "main_0003.log" "$(ls "$board/syslog/logs")"
check "and says so" "cleared /syslog/logs: 0 entries removed, kept the current file main_0003.log" \
    "$(run logd clear /syslog/logs)"

# USB: the ports, the OTG role, and libusb on the board's bus.
run usb port 2 off >/dev/null
check "usb port 2 off writes its file" 0 "$(cat "$board/sys/class/vexagpios/USB2_EN/value")"
check "usb ports lists it" "2 off" "$(run usb ports | awk '$1 == 2 {print $1, $2}')"
check "usb ports --json: the power is a flag" '{"port":2,"power":false,' \
    "$(run --json usb ports | tr -d ' \t\n' | grep -o '{"port":2,"power":[a-z]*,')"
check "usb otg reads the role" host "$(run usb otg)"
check "usb otg peripheral sets it" peripheral "$(run usb otg peripheral)"
run usb port 5 on 2>/dev/null
check "there are four ports" 2 $?
check "usb devices lists the bulk device" "1 2 1209:0001 0 0xff" "$(run usb devices | awk 'NR == 2 {print $1, $2, $3, $4, $5}')"
check "usb echo hello comes back through libusb" hello "$(run usb echo hello)"
check "usb echo -- takes text that starts with -" "-n" "$(run usb echo -- -n)"
run usb echo hello --vendor 0xdead >/dev/null 2>"$dir/err"
check "no device with those ids" "1 vexactl: opening dead:0001 failed (-1); see 'vexactl log'" "$? $(cat "$dir/err")"
# The knob usb.device pulls the device's cable, for every process.
run board fault usb.device=unplugged >/dev/null
check "the knob is listed as set" '"name":"usb.device","value":"unplugged"' \
    "$(run --json board fault | tr -d ' \t\n' | grep -o '"name":"usb.device","value":"[a-z]*"')"
check "unplugged, the device is not on the bus" "" "$(run usb devices | awk 'NR > 1')"
run usb echo hello >/dev/null 2>"$dir/err"
check "and echo finds none" "1 vexactl: opening 1209:0001 failed (-1); see 'vexactl log'" "$? $(cat "$dir/err")"
run board fault usb.device= >/dev/null
check "plugged again it is at the next address" "1 3 1209:0001" "$(run usb devices | awk 'NR == 2 {print $1, $2, $3}')"
check "and echoes" hello "$(run usb echo hello)"

for cmd in sched logd usb; do
    run $cmd --help >/dev/null 2>&1
    check "vexactl $cmd --help exits 0" 0 $?
done
finish
