#!/usr/bin/env bash
# vexactl fpga end to end, on a fresh board in a temporary directory. Each
# command is a process of its own: what one leaves on the board, the next
# sees.
. "$(dirname "$0")/../cli/lib.sh"

json() { tr -d ' \t\n'; }

# The default board: a QR5PLUS (family 2) running program 1 from its flash.
check "status --json" '"family":"qr5plus","product_num":2,"last_load":"power-on","last_load_result":0,"done":1,"configured":true,"configuring":false,"program_bytes":50176' \
    "$(run --json fpga status 2>/dev/null | json | grep -o '"family".*"program_bytes":[0-9]*')"
check "status names the program" "program:       50176 bytes, tag 20 24 01 05 09 30 00" \
    "$(run fpga status 2>/dev/null | grep '^program:')"
check "status tells the last load as the board saw it, in any process" "last load:     from its flash at power-on, configured" \
    "$(run fpga status 2>/dev/null | grep '^last load:')"

# An update checks the image first; --force hands any file to the library,
# whose own checks (here the SPI update's) then decide.
head -c 100 /dev/urandom >"$dir/random.bin"
run fpga update --force "$dir/random.bin" >/dev/null 2>"$dir/err"
check "--force hands it to the library, which cannot read its header" "1 vexactl: update failed; see 'vexactl log'" "$? $(cat "$dir/err")"
check "the library's own refusal" "E/vexa_system_bi_fpga: <fpga_update_program_qr3plus_qr5plus> read fail" \
    "$(run log 2>/dev/null | grep -o 'E/vexa_system_bi_fpga: <fpga_update_program_qr3plus_qr5plus> .*' | tail -1)"

# Receiving cards: a write, then a read from another process.
check "card write" "wrote 3 bytes to port 1 at 0x00000100" "$(run fpga card 1 write 0x100 a1b2c3 2>/dev/null)"
check "card read" "a1 b2 c3 00" "$(run fpga card 1 read 0x100 4 2>/dev/null)"
check "card read --json keeps numbers" '"data":[161,178]' \
    "$(run --json fpga card 1 read 0x100 2 2>/dev/null | json | grep -o '"data":\[[^]]*\]')"

# The FPGA's knobs are the board's fpga.KEY knobs, which every process reads.
run fpga knob spi=fail >/dev/null 2>&1
check "the knob is the board's" "fpga.spi ok|fail fail" \
    "$(run --json board fault | json | grep -o '{"name":"fpga.spi","value":"[a-z]*","takes":"[^"]*"' | sed 's/.*"name":"\([^"]*\)","value":"\([^"]*\)","takes":"\([^"]*\)"/\1 \3 \2/')"
check "fpga knob shows it" "spi fail" "$(run fpga knob | awk '$1 == "spi" {print $1, $2}')"
run fpga card 1 read 0x100 4 >/dev/null 2>"$dir/err"
check "a failing SPI device fails the read" "1 vexactl: card read failed (-5); see 'vexactl log'" "$? $(cat "$dir/err")"
run fpga knob spi= >/dev/null 2>&1
check "the knob is cleared" "spi ok" "$(run fpga knob | awk '$1 == "spi" {print $1, $2}')"
run fpga knob spi=maybe >/dev/null 2>"$dir/err"
check "a value the knob does not take is refused" "2 vexactl fpga: spi takes ok|fail, not 'maybe'" "$? $(head -1 "$dir/err")"

# The QRxx t507 load: no update pending, the parameters (no source: no 5 s wait).
run fpga knob source_mode=0x58 >/dev/null 2>&1
check "load" "load: fpgaLoadProcessQRxx_t507 returned 0" "$(run fpga load 2>/dev/null)"

# A pz50pro board (module id 8470): the update rewrites the flash and the
# FPGA boots it.
printf '8470\0\0\0\0' | dd of="$board/.board/product_info" bs=1 seek=64 conv=notrunc status=none
# The W25Q128JV takes 31 s to erase the 13 MiB in real time: 1 ms a block here.
run fpga knob erase_ms=1 >/dev/null 2>&1
cp "$board/vendor/etc/fpga/fpga_fw.bin" "$dir/new.bin"
check "update" "update: bi_fpga_firmware_update returned 0" "$(run fpga update "$dir/new.bin" 2>/dev/null)"
check "the flash holds the file" "$(md5sum <"$dir/new.bin")" "$(head -c "$(stat -c %s "$dir/new.bin")" "$board/dev/mtd0" | md5sum)"
check "and the FPGA runs it" '"family":"pz50pro" "done":1 "tag":"20 24 06 01 12 00 00"' \
    "$(run --json fpga status 2>/dev/null | tr -d '\t\n' | grep -o -e '"family":[^,]*' -e '"done":[^,]*' -e '"tag":[^,]*' | tr '\n' ' ' | sed 's/ $//')"

# A write cut off in the middle leaves the FPGA unconfigured.
run fpga knob mtd_cut=4096 >/dev/null 2>&1
run fpga update "$dir/new.bin" >/dev/null 2>"$dir/err"
check "a cut-off update fails" "1 vexactl: update failed; see 'vexactl log'" "$? $(cat "$dir/err")"
check "done stays low" '"done":0' "$(run --json fpga status 2>/dev/null | json | grep -o '"done":[0-9]')"
run fpga knob mtd_cut= >/dev/null 2>&1
run fpga update - <"$dir/new.bin" >/dev/null 2>&1
check "the next update, from standard input, succeeds" '"done":1' \
    "$(run --json fpga status 2>/dev/null | json | grep -o '"done":[0-9]')"
run fpga update "$dir/none.bin" >/dev/null 2>"$dir/err"
check "a missing file fails" "1" "$?"

# An update checks the image before it erases anything.
flash_before=$(md5sum <"$board/dev/mtd0")
run fpga update "$dir/random.bin" >"$dir/out" 2>"$dir/err"
check "100 random bytes are refused" "1 vexactl: $dir/random.bin is not an FPGA program for this board: it is 100 bytes, shorter than the 1024-byte header; nothing was erased or written (--force updates with it all the same)" \
    "$? $(cat "$dir/err")"
check "and nothing is printed" "" "$(cat "$dir/out")"
{ head -c 1024 "$dir/new.bin"; head -c 49152 /dev/zero; } >"$dir/zeros.bin"
run fpga update "$dir/zeros.bin" >/dev/null 2>"$dir/err"
rc=$?
sum=$(grep -a -o 'checksum=0x[0-9a-f]*' "$dir/new.bin" | cut -d= -f2)
check "a payload that does not match its header is refused" "1 vexactl: $dir/zeros.bin is not an FPGA program for this board: its payload sums to 0x0000, the header says $sum; nothing was erased or written (--force updates with it all the same)" \
    "$rc $(cat "$dir/err")"
head -c 14000000 /dev/zero >"$dir/big.bin"
dd if="$dir/new.bin" of="$dir/big.bin" conv=notrunc status=none
run fpga update "$dir/big.bin" >/dev/null 2>"$dir/err"
check "a program too big for the flash update is refused" "1 vexactl: $dir/big.bin is not an FPGA program for this board: it is 14000000 bytes, more than the 13 MiB the pz50pro flash update erases; nothing was erased or written (--force updates with it all the same)" \
    "$? $(cat "$dir/err")"
check "the flash is untouched" "$flash_before" "$(md5sum <"$board/dev/mtd0")"
check "and the FPGA stays configured" '"done":1' "$(run --json fpga status 2>/dev/null | json | grep -o '"done":[0-9]')"

# The pz50pro parameters and the SGMII link.
check "params" "params: fpgaLoadScreenParamsBySpi returned 0" "$(run fpga params 2>/dev/null)"
check "phy" "link up after 1 attempt" "$(run fpga phy 2>/dev/null)"
check "the PHY reports the link" "0x907" "$(cat "$board/sys/class/ethernet/vexaphyreg")"
check "the command journal has the bring-up" "ifconfig eth1 240.10.10.10 netmask 255.255.255.0 up" \
    "$(grep '^ifconfig eth1 240' "$board/.board/commands" | tail -1)"
check "cards answer on families 2 and 3 only" \
    "vexactl: the receiving cards answer on the qr5plus and qr-card families; this board is pz50pro (see --family)" \
    "$(run fpga card 1 read 0 4 2>&1)"
check "--family chooses another" "a1 b2" "$(run fpga card 1 read 0x100 2 --family qr-card 2>/dev/null)"

# The board's card ports, and cards that are not there to answer.
run fpga card 9 read 0x100 4 --family qr-card >"$dir/out" 2>"$dir/err"
check "a port the board lacks" "1 vexactl: the FPGA has receiving-card ports 0-3; there is no port 9" "$? $(cat "$dir/err")"
check "prints no bytes" "" "$(cat "$dir/out")"
run fpga knob cards=2,0,2,2 >/dev/null 2>&1
check "status shows the cards" "cards:         2, 0, 2, 2 on ports 0-3" "$(run fpga status 2>/dev/null | grep '^cards:')"
run fpga card 1 read 0x100 2 --family qr-card >"$dir/out" 2>"$dir/err"
check "no card to answer a read" "1 vexactl: no card answered on port 1: the reply was not ready after 10 polls; the bytes read are not a card's" \
    "$? $(cat "$dir/err")$(cat "$dir/out")"
run fpga card 1 write 0x100 a1 --family qr-card >"$dir/out" 2>"$dir/err"
check "nor a write" "1 vexactl: no card acknowledged the write on port 1 within 200 ms" "$? $(cat "$dir/err")$(cat "$dir/out")"
run fpga knob cards= silent_ports=2 >/dev/null 2>&1
run fpga card 2 read 0x100 2 --family qr-card >/dev/null 2>"$dir/err"
check "a silent port" "1 vexactl: no card answered on port 2: the reply was not ready after 10 polls; the bytes read are not a card's" \
    "$? $(cat "$dir/err")"
run fpga knob silent_ports= >/dev/null 2>&1
run fpga card 0 read 0x100 0 --family qr-card >/dev/null 2>"$dir/err"
check "reading no bytes is a usage error" "2 vexactl fpga: LEN is a number from 1 to 1024, not '0'" "$? $(head -1 "$dir/err")"

# Help and usage errors.
run fpga --help >/dev/null 2>&1
check "fpga --help exits 0" 0 $?
for bad in "fpga" "fpga frob" "fpga update" "fpga status extra" "fpga card x read 0 1" "fpga card 1 read 0 2000" \
    "fpga card 1 write 0 abc" "fpga knob nope=1" "fpga status --family nope" "fpga status --force"; do
    run $bad >/dev/null 2>&1
    check "'$bad' is a usage error" 2 $?
done

finish
