#!/usr/bin/env bash
# The habits of the field: gpio as gpioget and gpioset, env as fw_printenv,
# log as logcat, each with its --json.
. "$(dirname "$0")/../cli/lib.sh"
json() { tr -d '\t\n' | sed 's/}, {/},{/g'; } # cJSON's printout on one line, without its layout

# gpio: several lines, by number or by the name status gives.
run gpio set led_sys=1 35=1 4g_power=1 2>/dev/null
check "gpio get prints the levels asked for, in order" "0 1 1 1 0" "$(out=$(run gpio get led_sys 35 90 36); echo "$? $out")"
check "a name is the line the INI names" "led_sys 34 1" "$(run status | awk '$1 == "led_sys" {print $1, $3, $4}')"
check "gpio get --json" '[{"line":34,"name":"led_sys","level":1},{"line":36,"name":null,"level":0}]' \
    "$(run --json gpio get led_sys 36 | json)"
run gpio set 94 1
check "gpio set LINE LEVEL" 1 "$(run gpio get lora_check)"
out=$(run gpio set 36=1 37=2 2>&1)
check "a bad pair is refused" "2 vexactl gpio: the level is a number from 0 to 1, not '2'" "$? $(echo "$out" | head -n1)"
check "before any line moves" "0 0" "$(run gpio get 36 37)"
out=$(run gpio get led_sys sys 2>&1)
check "a name status does not give" "2 vexactl gpio: a line is a number from 0 to 999 or a name status gives" \
    "$? $(echo "$out" | head -n1 | cut -d'(' -f1 | sed 's/ $//')"
sed -i '/^led_cloud = /d' "$board/vendor/etc/product.ini"
out=$(run gpio get led_sys led_cloud 2>&1)
check "a name without a line" "1 vexactl: led_cloud has no line: its key is not in the product INI" "$? $out"

# env: fw_printenv's NAME=VALUE lines, by name; the value alone with -n.
if command -v fw_printenv >/dev/null; then
    echo "$board/dev/block/by-name/env 0x0 0x10000" >"$dir/fw_env.config"
    check "env print lists the variables as fw_printenv does" "$(fw_printenv -c "$dir/fw_env.config")" \
        "$(run env print 2>/dev/null)"
fi
run env set note hello world 2>/dev/null
check "env print NAME..." "0 note=hello world soc=rockchip" "$(out=$(run env print note soc 2>/dev/null); echo "$? $out" | tr '\n' ' ' | sed 's/ $//')"
check "env print -n NAME" "hello world" "$(run env print -n note 2>/dev/null)"
check "env get NAME: the value alone" "hello world" "$(run env get note 2>/dev/null)"
check "env get NAME NAME: NAME=VALUE lines" "bootdelay=0 note=hello world" \
    "$(run env get bootdelay note 2>/dev/null | tr '\n' ' ' | sed 's/ $//')"
run env get bootdelay nothere note >"$dir/out" 2>"$dir/err"
check "a name not set fails the command" 1 $?
check "after the others are printed" "bootdelay=0 note=hello world" "$(tr '\n' ' ' <"$dir/out" | sed 's/ $//')"
check "and is said on standard error" "vexactl: ubootenv.var.nothere is not set" "$(grep -v '^\[' "$dir/err")"
out=$(run --json env get bootdelay nothere 2>/dev/null)
check "env get --json: null for a name not set" '1 {"bootdelay":"0","nothere":null}' "$? $(echo "$out" | json)"
out=$(run env print -n note soc 2>&1)
check "-n takes one name" "2 vexactl env: -n takes print and one NAME" "$? $(echo "$out" | head -n1)"

# log: logcat's TAG:P specs, -s, -d; --json an array, with -f JSON lines.
run log --clear
run led sys on 2>/dev/null              # I/vexa_system_bi_common ..., E/vexa_system_bi_led (led_sys removed)
sed -i '/^led_sys = /d' "$board/vendor/etc/product.ini"
run led sys on 2>/dev/null
run logd get >/dev/null 2>&1           # D/vexa_system_bi_vexa_logd
records() { run log "$@" | sed 's/^[^/]* \([DIWE]\/\)/\1/'; }
led_error="E/vexa_system_bi_led: bi_sysled_set_state:bi_product is NULL or invaild led_sys.gpio_id is -1, need to check ini file."
check "-s TAG:E: that tag's errors only" "$led_error" "$(records -s vexa_system_bi_led:E)"
check "*:E: every error" "$led_error" "$(records '*:E')"
check "-s TAG: every record of the tag" "D/vexa_system_bi_vexa_logd: bi_vexa_logd_get_configure is called" \
    "$(records -d -s vexa_system_bi_vexa_logd)"
check "TAG:I above the tag's records" "" "$(records -s vexa_system_bi_vexa_logd:I)"
check "a tag's spec beats the default" "D I" \
    "$(records vexa_system_bi_vexa_logd:D vexa_system_bi_common:I '*:S' | cut -c1 | sort -u | tr '\n' ' ' | sed 's/ $//')"
out=$(run log 'vexa_system_bi_led:X' 2>&1)
check "a bad spec" "2 vexactl log: 'vexa_system_bi_led:X' is not a filter spec TAG:P (P one of V, D, I, W, E, F, S)" \
    "$? $(echo "$out" | head -n1)"
out=$(run log -d -f 2>&1)
check "-d and -f" "2 vexactl log: -d prints the log and leaves; -f follows it" "$? $(echo "$out" | head -n1)"
out=$(run --json log -s vexa_system_bi_led | json | sed -E 's/"time_s":[0-9]+\.?[0-9]*,"pid":[0-9]+,"tid":[0-9]+/T/g')
check "log --json" "[{T,\"priority\":\"E\",\"tag\":\"vexa_system_bi_led\",\"text\":\"${led_error#E/vexa_system_bi_led: }\"}]" "$out"

# log -f --json: one record a line, the old ones first, then each new one.
"$vexactl" --board "$board" --json log -f -s vexa_system_bi_led >"$dir/follow" 2>/dev/null &
follower=$!
lines() { for _ in $(seq 200); do [ "$(wc -l <"$dir/follow")" -ge "$1" ] && return; sleep 0.05; done; }
lines 1
run led sys on 2>/dev/null
lines 2
kill -INT "$follower"
wait "$follower"
check "log -f ends on an interrupt" 0 $?
check "log -f --json: JSON lines" "2 2" "$(wc -l <"$dir/follow") $(grep -c '^{"time_s":[0-9.]*,"pid":[0-9]*,"tid":[0-9]*,"priority":"E","tag":"vexa_system_bi_led","text":"bi_sysled_set_state:[^"]*"}$' "$dir/follow")"

finish
