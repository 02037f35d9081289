#!/usr/bin/env bash
# vexactl's one option parser: the same conventions on every command.
. "$(dirname "$0")/../cli/lib.sh"

run status >/dev/null 2>&1 # lay the board out

# Options stand anywhere before "--", in either spelling.
expected=$(run timing --engine float --fps 30 1280 720 2>&1)
check "--fps 30 changes the timing" yes "$([ "$expected" != "$(run timing --engine float 1280 720 2>&1)" ] && echo yes)"
check "options after the operands" "$expected" "$(run timing 1280 720 --engine float --fps 30 2>&1)"
check "options between the operands, with =" "$expected" "$(run timing 1280 --fps=30 720 --engine=float 2>&1)"
check "options before the command's name" "$expected" "$(run --fps 30 --engine float timing 1280 720 2>&1)"
check "global options after the operands" "$expected" "$("$vexactl" timing 1280 720 --engine float --fps 30 --board "$board" 2>&1)"

# "--" ends the options: what follows is an operand, even "--help".
run env set note -- --help 2>"$dir/err"
check "env set note -- --help exits 0" "0 " "$? $(cat "$dir/err")"
check "and sets the text --help" "--help" "$(run env get note 2>&1)"
run env set other --help >"$dir/out" 2>&1
check "env set other --help prints the help" "0 usage: vexactl [--board DIR] [--json] env" \
    "$? $(head -n1 "$dir/out" | cut -d' ' -f1-6)"
run env get other >/dev/null 2>&1
check "and sets nothing" 1 $?

# Numbers are decimal unless written 0x.
run gpio set 10 1 && run gpio set 8 0
check "010 is line ten" 1 "$(run gpio get 010)"
check "0xa is line ten" 1 "$(run gpio get 0xa)"
check "08 is line eight" 0 "$(run gpio get 08)"

# Bad values are refused with the reason and the usage, and nothing happens.
usage_gpio="usage: vexactl [--board DIR] [--json] gpio get LINE... | set LINE=LEVEL... | set LINE LEVEL"
out=$(run gpio get 99999 2>&1)
check "a line out of range" "2 vexactl gpio: the line is a number from 0 to 999, not '99999' $usage_gpio" \
    "$? $(echo $out)"
out=$(run gpio set 10 2 2>&1)
check "a level of 2" "2 vexactl gpio: the level is a number from 0 to 1, not '2' $usage_gpio" "$? $(echo $out)"
check "leaves the line as it was" 1 "$(run gpio get 10)"
out=$(run gpio get 1x 2>&1)
check "a word that is not a number" "2 vexactl gpio: the line is a number from 0 to 999, not '1x' $usage_gpio" \
    "$? $(echo $out)"
usage_timing="usage: vexactl [--board DIR] [--json] timing W H [--fps F] [--engine cvt-rb|cvt-rb2|vdc260|float]"
out=$(run timing 1280 720 --fps 0x100 2>&1)
check "an option's number out of range" "2 vexactl timing: --fps takes a number from 1 to 240, not '0x100' $usage_timing" \
    "$? $(echo $out)"
out=$(run timing 1280 720 --fps 2>&1)
check "an option without its value" "2 vexactl timing: --fps needs a value (F) $usage_timing" "$? $(echo $out)"
out=$(run timing 1280 720 --frobnicate 2>&1)
check "an unknown option" "2 vexactl timing: unknown option '--frobnicate' $usage_timing" "$? $(echo $out)"
out=$(run timing 1280 720 -z 2>&1)
check "an unknown short option" "2 vexactl timing: unknown option '-z' $usage_timing" "$? $(echo $out)"
out=$(run timing 1280 720 --json=yes 2>&1)
check "a value for a flag" "2 vexactl timing: --json takes no value $usage_timing" "$? $(echo $out)"
out=$(run log --fps 30 2>&1)
check "another command's option" "2 vexactl log: unknown option '--fps'" "$? $(echo "$out" | head -n1)"
out=$(run frobnicate 2>&1)
check "an unknown command" "2 vexactl: unknown command 'frobnicate'" "$? $(echo "$out" | head -n1)"

# --version, and --help on every command the list names.
check "--version" "0 vexactl (vexasdk) " "$(out=$(run --version); echo "$? ${out%[0-9].[0-9]*.[0-9]*}")"
check "--version after a command runs nothing" "vexactl (vexasdk)" "$(run env set x 1 --version | cut -d' ' -f1-2)"
run env get x >/dev/null 2>&1
check "and sets nothing" 1 $?
commands=$(run --help | awk '/^Commands:/ {on = 1; next} on && /^  [a-z]/ {print $1}')
check "the command list is not empty" yes "$([ -n "$commands" ] && echo yes)"
for cmd in $commands; do
    check "vexactl $cmd --help" "0 usage: vexactl [--board DIR] [--json] $cmd" \
        "$(out=$(run "$cmd" --help); echo "$? $(echo "$out" | head -n1 | cut -d' ' -f1-6)")"
done
run >/dev/null 2>&1
check "no command is a usage error" 2 $?

# --json keeps types: text stays text, numbers are numbers.
run env set perm 0777
check "a value that reads like a number stays text" '"value":"0777"' \
    "$(run --json env list | tr -d ' \t\n' | grep -o '{"name":"perm","value":"[^"]*"}' | grep -o '"value":"[^"]*"')"
check "a line id is a number" '"line":34' \
    "$(run status --json | tr -d ' \t\n' | grep -o '"name":"led_sys","kind":"led","line":[^,]*' | grep -o '"line":.*')"

finish
