#!/usr/bin/env bash
# vexactl mcu flash: the image is checked against the MCU before the erase,
# read back after the write, and the command never says done for a flash
# that did not take.
. "$(dirname "$0")/../cli/lib.sh"

flash_file="$board/.board/mcu-flash.bin"
run status >/dev/null 2>&1 # lay the board out
model() { printf '%s\n' "$@" >"$board/.board/mcu-model"; }
image() { head -c "$1" /dev/urandom >"$dir/image.bin"; } # SIZE

image 4096
run mcu flash "$dir/image.bin" >"$dir/out" 2>"$dir/err"
check "a flash that takes exits 0" 0 $?
check "and says it was read back" "flashed $dir/image.bin (4096 bytes) to the MCU_GD32F303, read back equal" \
    "$(cat "$dir/out")"
check "the flash holds the image" "$(md5sum <"$dir/image.bin")" "$(head -c 4096 "$flash_file" | md5sum)"
check "nothing on standard error" "" "$(cat "$dir/err")"

check "an absolute path of the board names the board's file" \
    "flashed /vendor/etc/mcu/mcu_fw.bin (4096 bytes) to the MCU_GD32F303, read back equal" \
    "$(run mcu flash /vendor/etc/mcu/mcu_fw.bin 2>/dev/null)"
check "and flashes it" "$(md5sum <"$board/vendor/etc/mcu/mcu_fw.bin")" "$(head -c 4096 "$flash_file" | md5sum)"

image 2048
check "'-' reads the image from standard input" \
    "flashed the image from standard input (2048 bytes) to the MCU_GD32F303, read back equal" \
    "$(run mcu flash - <"$dir/image.bin" 2>/dev/null)"
check "and flashes it" "$(md5sum <"$dir/image.bin")" "$(head -c 2048 "$flash_file" | md5sum)"
check "--json" '{"image":"-","size_bytes":2048,"type":"MCU_GD32F303","blocks":8,"verified":true,"erase_covers_image":true}' \
    "$(run --json mcu flash - <"$dir/image.bin" 2>/dev/null | tr -d '\t\n')"

# Images the erase cannot cover are refused, with the reason and what the
# image would need, and the flash is left as it was.
refused() { # TYPE SIZE WHY NEED
    model "type=$1"
    image "$2"
    before=$(md5sum <"$flash_file")
    run mcu flash "$dir/image.bin" >/dev/null 2>"$dir/err"
    check "type $1, $2 bytes: refused" 1 $?
    check "type $1, $2 bytes: why" "vexactl: $dir/image.bin ($2 bytes) does not fit the erase of the $3" \
        "$(head -n1 "$dir/err")"
    check "type $1, $2 bytes: what it would need" "vexactl: $4; --force flashes it as it is" "$(tail -n1 "$dir/err")"
    check "type $1, $2 bytes: the flash is untouched" "$before" "$(md5sum <"$flash_file")"
}
refused 1 1000 "MCU_GD32F303: the erase covers 1000 / 2048 = 0 pages and sends a page count of 0, which the bootloader takes as a mass erase of the whole flash" \
    "the image would need at least one whole page of 2 KiB: pad it with 0xff to 2048 bytes"
refused 1 4097 "MCU_GD32F303: the erase covers 2 whole pages of 2 KiB (4096 bytes; the page count is rounded down), so the last 1 bytes would be written over unerased flash" \
    "the image would need a whole number of pages: pad it with 0xff to 6144 bytes"
refused 1 260096 "MCU_GD32F303: the erase needs 127 pages, but the flasher sends the page list with an 8-bit byte count, which holds at most 126 pages: the erase command would be cut short" \
    "the image would need at most 258048 bytes (126 whole pages of 2 KiB)"
refused 4 262145 "MCU_STM32H750: the erase always covers two sectors of 128 KiB (262144 bytes), so the last 1 bytes would be written over unerased flash" \
    "the image would need at most 262144 bytes"
refused 2 4096 "MCU_UNKNOWN: the MCU type is not known, so the erase sends a page count of 0, which the bootloader takes as a mass erase of the whole flash" \
    "no image fits: only the MCU types the flasher detects (GD32F303, GD32F470, STM32H750) get a page erase"
model "type=1"

# --force flashes it; the read-back then finds the byte the erase left.
head -c 6144 /dev/zero >"$dir/zero.bin"
run mcu flash "$dir/zero.bin" >/dev/null 2>&1
(head -c 4096 /dev/urandom; printf '\377') >"$dir/image.bin"
run mcu flash --force "$dir/image.bin" >"$dir/out" 2>"$dir/err"
check "a flash the read-back finds wrong fails" 1 $?
check "with the first differing address" \
    "vexactl: the flash does not hold the image: the first difference is at 0x08001000 (flash 0x00, image 0xff)" \
    "$(cat "$dir/err")"
check "and says nothing on standard output" "" "$(cat "$dir/out")"
run mcu flash "$dir/image.bin" --force --no-verify >"$dir/out" 2>/dev/null
check "--no-verify skips the read-back" \
    "0 flashed $dir/image.bin (4097 bytes) to the MCU_GD32F303, not read back (--no-verify)" "$? $(cat "$dir/out")"

out=$(run mcu flash /dev/null 2>&1)
check "an empty image" "1 vexactl: /dev/null is empty: there is nothing to flash" "$? $out"
out=$(run mcu flash /no/such/image 2>&1)
check "a missing image" "1 vexactl: cannot read /no/such/image: No such file or directory" "$? $out"

finish
