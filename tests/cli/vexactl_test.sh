#!/usr/bin/env bash
# vexactl end to end, on a fresh board in a temporary directory.
. "$(dirname "$0")/../cli/lib.sh"

# A new board is laid out on first use, as an ordinary folder.
run status >"$dir/status" 2>"$dir/err"
check "status exits 0" 0 $?
check "the product INI is a plain file" yes "$([ -f "$board/vendor/etc/product.ini" ] && echo yes)"
check "status names the product" "product:   QR5PLUS" "$(grep '^product:' "$dir/status")"
check "status shows led_sys on line 34" "led_sys led 34 0" \
    "$(awk '$1 == "led_sys" {print $1, $2, $3, $4}' "$dir/status")"
check "status --json names the product and the lines" '"product": "QR5PLUS" "name": "led_sys"' \
    "$(run --json status | tr -d '\t\n' | grep -o -e '"product":"QR5PLUS"' -e '"name":"led_sys"' | sed 's/:/: /' | tr '\n' ' ' | sed 's/ $//')"

# Driving a lamp through the library moves the board's line.
sed -i 's/^led_sys = .*/led_sys = 34/' "$board/vendor/etc/product.ini"
run led sys on 2>/dev/null
check "led sys on exits 0" 0 $?
check "line 34 is high" 1 "$(run gpio get 34)"
check "led sys get reads it back" 1 "$(run led sys get 2>/dev/null)"
run led tri 0 1 0 2>/dev/null
check "tri-colour red line is inverted" "1 1 0" "$(run gpio get 40) $(run gpio get 41) $(run gpio get 42)"
check "led tri get" 1 "$(run led tri get 2>/dev/null)"
run relay 2 on 2>/dev/null
check "relay 2 drives line 83" 1 "$(run gpio get 83)"
run gpio set 94 1
check "lora input follows the line" 1 "$(run gpio get 94)"

# Without led_sys in the INI the command fails and the log says why.
sed -i '/^led_sys = /d' "$board/vendor/etc/product.ini"
run log --clear
run led sys on 2>"$dir/err"
status=$?
check "led sys on fails without led_sys" 1 "$status"
check "the failure is explained" "vexactl: led sys on failed (-1); see 'vexactl log'" "$(cat "$dir/err")"
check "the library's error line is in the log" \
    "E/vexa_system_bi_led: bi_sysled_set_state:bi_product is NULL or invaild led_sys.gpio_id is -1, need to check ini file." \
    "$(run log --priority E | sed 's/^[^/]* \([DIWE]\/\)/\1/')"
check "log records show time, process and thread as logcat does" 1 \
    "$(run log --tag vexa_system_bi_led | grep -cE '^[0-9]{2}-[0-9]{2} [0-9:]{8}\.[0-9]{3} +[0-9]+ +[0-9]+ E/vexa_system_bi_led: ')"

# A folder of other files is never taken for a board.
mkdir "$dir/other" && touch "$dir/other/file"
"$vexactl" --board "$dir/other" status >/dev/null 2>"$dir/err"
check "a non-empty folder is refused" "1 vexactl: $dir/other is not a virtual board (it has no .board) and is not empty" \
    "$? $(cat "$dir/err")"
check "and left as it was" "file" "$(ls "$dir/other")"

# Help everywhere; usage errors are non-zero.
for cmd in "" status led relay gpio config log; do
    run $cmd --help >/dev/null 2>&1
    check "vexactl $cmd --help exits 0" 0 $?
done
run gpio set 1 2 2>/dev/null
check "a level of 2 is a usage error" 2 $?
run frobnicate 2>/dev/null
check "an unknown command is a usage error" 2 $?
check "config shows the record" "-1" "$(run config 2>/dev/null | awk '$1 == "led_sys" {print $2}')"

finish
