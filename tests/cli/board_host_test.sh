#!/usr/bin/env bash
# One board for every process: vexactl board serve hosts the board's models;
# outside programs on the ptys it lists, vexactl in other processes and a
# plain shell writing the board's files all reach the same lines and MCU.
# Then a symbolic link to another pty is used as a host node.
. "$(dirname "$0")/lib.sh"
export VEXA_BOARD_HOST_IDLE=10

# Waits up to 10 s for a file to hold at least $2 lines.
wait_lines() {
    for _ in $(seq 100); do
        [ -f "$1" ] && [ "$(wc -l <"$1")" -ge "$2" ] && return 0
        sleep 0.1
    done
    return 1
}

"$vexactl" --board "$board" board serve --seconds 120 >"$dir/serve" 2>"$dir/serve.err" &
serve=$!
trap 'kill $serve 2>/dev/null; wait $serve 2>/dev/null; rm -rf "$dir"' EXIT
wait_lines "$dir/serve" 10
check "serve lists the lines" 10 "$(wc -l <"$dir/serve")"
ttl=$(awk '$1 == "/dev/ttyS7" {print $2}' "$dir/serve")
mcu=$(awk '$1 == "/dev/ttyS9" {print $2}' "$dir/serve")
check "the board path leads to the board side" "$(awk '$1 == "/dev/ttyS7" {print $2}' "$board/.board/lines")" \
    "$(readlink "$board/dev/ttyS7")"

# An outside program at the ttl line's far end.
exec 3<>"$ttl"
check "serial send" "sent 5 bytes to ttl" "$(run serial ttl send hello 2>/dev/null)"
got=""
read -r -t 5 -N 5 got <&3
check "the outside program receives what vexactl sent" hello "$got"
"$vexactl" --board "$board" serial ttl listen --seconds 3 >"$dir/listen" 2>/dev/null &
listen=$!
sleep 1
printf 'world' >&3
wait $listen
check "vexactl listen prints what the outside program wrote" world "$(cat "$dir/listen")"
exec 3>&-

# The MCU's control lines from a plain shell, then stm32flash in the SoC's seat.
gpio="$board/sys/class/vexagpios"
mkdir -p "$gpio/MCU_BOOT0" "$gpio/MCU_NRST"
echo 1 >"$gpio/MCU_BOOT0/value"
sleep 0.1
echo 0 >"$gpio/MCU_NRST/value"
sleep 0.1
echo 1 >"$gpio/MCU_NRST/value"
sleep 0.1
{
    head -c 512 /dev/zero
    printf 'MCUVER=V7.7.7.7\0'
    head -c 2000 /dev/urandom
} >"$dir/image.bin"
if command -v stm32flash >/dev/null; then
    timeout 60 stm32flash -b 115200 -m 8n1 -w "$dir/image.bin" -v "$mcu" >"$dir/flash" 2>&1
    check "stm32flash writes and verifies the image" 0 $?
    check "the MCU's flash holds it" "$(md5sum <"$dir/image.bin")" \
        "$(head -c "$(stat -c %s "$dir/image.bin")" "$board/.board/mcu-flash.bin" | md5sum)"
else
    echo "stm32flash is not installed: its checks are skipped"
fi
echo 0 >"$gpio/MCU_BOOT0/value"
sleep 0.1
echo 0 >"$gpio/MCU_NRST/value"
sleep 0.1
echo 1 >"$gpio/MCU_NRST/value"
sleep 0.1
if command -v stm32flash >/dev/null; then
    check "the application answers with the flashed version" V7.7.7.7 "$(run mcu version 2>/dev/null)"
fi

# The watchdog pulses of another process reach the host's model.
run mcu watchdog close >/dev/null 2>&1
check "the host's model saw the close" "yes" "$(run mcu watchdog status 2>/dev/null | awk 'NR == 2 {print $5}')"

kill $serve
wait $serve
check "serve takes its links away" "" "$(readlink "$board/dev/ttyS7")"

# A symbolic link the host did not make: another board's far end stands for
# a real device on ttl. No model sits behind it; the bytes reach that pty.
other="$dir/other"
run_other() { "$vexactl" --board "$other" "$@"; }
run_other serial ttl listen --seconds 0 >/dev/null 2>&1
far=$(awk '$1 == "/dev/ttyS7" {print $3}' "$other/.board/lines")
ln -s "$far" "$board/dev/ttyS7"
"$vexactl" --board "$other" serial ttl listen --seconds 3 >"$dir/other-listen" 2>/dev/null &
listen=$!
sleep 1
run serial ttl send node >/dev/null 2>&1
wait $listen
check "the host node is used as it is" node "$(cat "$dir/other-listen")"
check "and stays the user's link" "$far" "$(readlink "$board/dev/ttyS7")"

# A host that dies: the next command gets a new one, whose links replace the
# dead host's.
run serial ttl send x >/dev/null 2>&1
host=$(for p in /proc/[0-9]*; do
    case "$(tr '\0' ' ' 2>/dev/null <"$p/cmdline")" in
    *vexaboard-host\ *\ "$board"\ ) echo "${p#/proc/}" ;;
    esac
done 2>/dev/null)
check "a detached host serves the board" 1 "$(echo "$host" | grep -c .)"
kill -9 $host
check "after its host died, the next command works" V7.7.7.7 "$(timeout 30 "$vexactl" --board "$board" mcu version 2>&1)"
far=$(awk '$1 == "/dev/ttyS8" {print $3}' "$board/.board/lines")
exec 3<>"$far"
run serial ttl_2 send again >/dev/null 2>&1
got=""
read -r -t 5 -N 5 got <&3
exec 3>&-
check "and the new host's lines carry bytes" again "$got"

# A folder too deep for a socket's address.
deep="$dir/$(printf 'a%.0s' $(seq 60))/$(printf 'b%.0s' $(seq 60))/board"
check "a deep board folder has a host too" V1.0.2.0 \
    "$(timeout 30 "$vexactl" --board "$deep" mcu version 2>&1 | grep -v ': laying out a new board there$')"

finish
