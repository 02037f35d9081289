#!/usr/bin/env bash
# vexactl's commands follow the tools technicians know: fw_setenv, edid-decode,
# '-' for standard input and output, --json records that keep their types.
. "$(dirname "$0")/../cli/lib.sh"

json() { tr -d '\t\n'; } # cJSON's printout on one line, without its tabs

# env set works as fw_setenv: the words after the name are its value, none
# deletes it, and a name cannot hold '='.
run env set note hello  big world 2>/dev/null
check "env set joins the words" "hello big world" "$(run env get note 2>/dev/null)"
run env set note 2>/dev/null
out=$(run env get note 2>&1)
check "env set NAME deletes NAME" "1 vexactl: ubootenv.var.note is not set" "$? $out"
check "env list leaves it out" "" "$(run env list | awk '$1 == "note"')"
check "the store keeps it empty, which U-Boot drops" "[ubootenv] key: [note], value: []" \
    "$(run env dump | grep 'key: \[note\]')"
out=$(run env set a=b c 2>&1)
check "a name holding '=' is refused" "2 vexactl env: a name cannot hold '=': 'a=b'" "$? $(echo "$out" | head -n1)"
check "and nothing is set" "" "$(run env dump | grep -e 'key: \[a\]' -e 'key: \[a=')"
run env set dash -- -v 2>/dev/null
check "a value after -- may begin with '-'" "-v" "$(run env get dash 2>/dev/null)"
check "env dump --json holds every entry of the dump" "$(run env dump | wc -l)" \
    "$(run --json env dump | grep -c '"key":')"
check "env dump --json keeps a value as text" '{"key":"bootdelay","value":"0"}' \
    "$(run --json env dump | json | grep -o '{"key":"bootdelay","value":"[^"]*"}')"

# edid: '-' for standard output and input, and a JSON record of the EDID.
run edid model 1920 1080 60 -o "$dir/edid.bin" 2>/dev/null
run edid model 1920 1080 60 -o - 2>/dev/null >"$dir/edid.out"
check "edid model -o - writes the 256 bytes to standard output" "$(md5sum <"$dir/edid.bin")" \
    "$(md5sum <"$dir/edid.out")"
check "edid show - reads standard input" "$(run edid show "$dir/edid.bin" 2>/dev/null)" \
    "$(run edid show - <"$dir/edid.bin" 2>/dev/null)"
check "edid show - names the preferred mode" "preferred: 1920x1080 @ 60 Hz" \
    "$(run edid show - <"$dir/edid.bin" 2>/dev/null | tail -n1)"
check "edid model --json holds the bytes as hex" "\"hex\":\"$(od -An -v -tx1 "$dir/edid.bin" | tr -d ' \n')\"" \
    "$(run --json edid model 1920 1080 60 2>/dev/null | json | grep -o '"hex":"[^"]*"')"
check "edid model --json names the mode" '{"width":1920,"height":1080,"refresh_hz":60,"size_bytes":256,' \
    "$(run --json edid model 1920 1080 60 2>/dev/null | json | sed 's/"hex":.*//')"
out=$(head -c 100 "$dir/edid.bin" | run edid show - 2>&1)
check "a short EDID on standard input" "1 vexactl: standard input holds 100 bytes; an EDID block has 128" "$? $out"
if command -v edid-decode >/dev/null; then
    run edid model 1920 1080 60 -o - 2>/dev/null | edid-decode >"$dir/decoded" 2>&1
    check "edid-decode reads the EDID from standard output" 1 "$(grep -c 'DTD 1: *1920x1080 *60.000000 Hz' "$dir/decoded")"
fi

# mcu links --json has the mask, as a number.
mkdir -p "$board/.board" && printf 'links=0x8000000005\n' >"$board/.board/mcu-model"
run --json mcu links 2>/dev/null | json >"$dir/links"
check "mcu links --json: the mask" '{"mask":549755813893,"ports":[{"port":0,"link":true}' \
    "$(grep -o '^{"mask":[0-9]*,"ports":\[{[^}]*}' "$dir/links")"
check "mcu links --json: the last port" '{"port":39,"link":true}]}' "$(grep -o '{"port":39[^}]*}]}$' "$dir/links")"
check "mcu links --json: a port that is down" '{"port":1,"link":false}' "$(grep -o '{"port":1,[^}]*}' "$dir/links")"

# rescue on a new board: no backup yet, said as such.
out=$(run rescue status 2>/dev/null)
check "rescue status on a new board" "0 no backup yet: the reserve partition has no flag file" "$? $out"
check "rescue status --json on a new board" '{"state":null,"meaning":"no backup yet: the reserve partition has no flag file"}' \
    "$(run --json rescue status 2>/dev/null | json)"
run rescue backup >/dev/null 2>&1
check "rescue status after a backup" "0xaa (the last backup completed)" "$(run rescue status 2>/dev/null)"

finish
