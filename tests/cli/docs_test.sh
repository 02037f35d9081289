#!/usr/bin/env bash
# vexactl's man page and bash completion, made from its help when it is
# built: every command and every option of its --help is in both.
#   docs_test.sh VEXACTL MAN_PAGE COMPLETION
. "$(dirname "$0")/../cli/lib.sh"
page=$2
completion=$3

check "the man page formats without a warning" "" "$(groff -man -Tutf8 -ww -z "$page" 2>&1)"
MANWIDTH=400 man -l "$page" 2>/dev/null | sed 's/^ *//' >"$dir/page"
check "the page names the program" "vexactl - drive the Vexa board through libvexasdk" "$(sed -n '/^NAME$/{n;p;q}' "$dir/page")"
paragraph() { tr '\n' ' ' | tr -s ' ' | sed 's/ $//'; } # lines as one, blanks squeezed
check "the page says which paths file arguments take" "$(run --help | sed -n '/^Files:$/,/^$/p' | sed '1d;$d' | paragraph)" \
    "$(sed -n '/^FILES$/,/^[A-Z][A-Z ]*$/p' "$dir/page" | sed '1d;$d' | paragraph)"

# The completion, as bash calls it: the words so far, the reply.
complete_line() {
    bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vexactl
             ((${#COMPREPLY[@]} == 0)) || printf "%s\n" "${COMPREPLY[@]}" | sort | tr "\n" " "' _ "$completion" "$@"
}

commands=$(run --help | awk '/^Commands:/ {on = 1; next} on && /^  [a-z]/ {print $1}')
# An option as a command's help lists it ("  -h, --help" as "-h--help").
options_of() { run "$1" --help | sed -n '/^Options:/,/^$/p' | grep -oE '^  (-[a-zA-Z], )?--[a-z-]+' | tr -d ', '; }
globals=$(options_of status) # status has no options of its own
check "the command list is not empty" yes "$([ -n "$commands" ] && echo yes)"
check "every command completes from nothing" "$(echo $commands) " "$(complete_line vexactl "")"
for cmd in $commands; do
    help=$(run "$cmd" --help)
    usage=$(echo "$help" | head -n1 | sed 's/^usage: vexactl \[--board DIR\] \[--json\] //')
    check "the page has $cmd's section" "$cmd" "$(grep -x -- "$cmd" "$dir/page")"
    check "the page has $cmd's usage" "vexactl $usage" "$(grep -x -F -- "vexactl $usage" "$dir/page")"
    check "$cmd completes from its first letters" yes \
        "$(complete_line vexactl --json "${cmd:0:3}" | grep -qw -- "$cmd" && echo yes)"
    # Every option of the command's help in the completion, and those that
    # are its own (not the global ones) in its section of the page.
    options=$(options_of "$cmd")
    for option in $(echo "$options" | grep -vxF "$globals"); do
        check "the page has $cmd ${option#-[a-zA-Z]}" yes "$(sed -nE "/^$cmd\$/,/^[a-z][a-z-]*\$/p" "$dir/page" |
            grep -qE -- "^(-., )?${option#-[a-zA-Z]}( |\$)" && echo yes)"
    done
    check "$cmd completes its options" "$(echo "$options" | sed 's/^-.--/--/' | sort | tr '\n' ' ')" \
        "$(complete_line vexactl "$cmd" --)"
done

# The first word after a command, from its usage; then bash's own file names.
check "gpio's actions" "get set " "$(complete_line vexactl gpio "")"
check "the tri-colour lamp" "tri " "$(complete_line vexactl led t)"
check "mcu's actions after options" "flash " "$(complete_line vexactl --board "$dir" mcu --force fl)"
check "an option's value is not a command" "config " "$(complete_line vexactl --board=/x conf)"
check "after the first operand, file names (bash's default)" "" "$(complete_line vexactl mcu flash "")"
check "--board takes a directory" "$dir/sub " "$(mkdir "$dir/sub"; complete_line vexactl --board "$dir/s")"
check "after --, operands only" "" "$(complete_line vexactl env set note -- --)"

finish
