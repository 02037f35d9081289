#!/usr/bin/env bash
# vexactl fpga end to end, on a fresh board in a temporary directory. Each
# command is a process of its own: what one leaves on the board, the next
# sees.
. "$(dirname "$0")/../cli/lib.sh"

json() { tr -d ' \t\n'; }

# The default board: a QR5PLUS (family 2) running program 1 from its flash.
check "status --json" '"family":"qr5plus","product_num":2,"loader_status":0,"done":1,"configured":true,"program_bytes":50176' \
    "$(run --json fpga status 2>/dev/null | json | grep -o '"family".*"program_bytes":[0-9]*')"
check "status names the program" "program:       50176 bytes, tag 20 24 01 05 09 30 00" \
    "$(run fpga status 2>/dev/null | grep '^program:')"

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

# Help and usage errors.
run fpga --help >/dev/null 2>&1
check "fpga --help exits 0" 0 $?
for bad in "fpga" "fpga frob" "fpga update" "fpga status extra" "fpga card x read 0 1" "fpga card 1 read 0 2000" \
    "fpga card 1 write 0 abc" "fpga knob nope=1" "fpga status --family nope"; do
    run $bad >/dev/null 2>&1
    check "'$bad' is a usage error" 2 $?
done

finish
