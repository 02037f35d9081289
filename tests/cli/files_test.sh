#!/usr/bin/env bash
# File arguments: paths of this machine, '-' for standard input or output,
# and absolute paths this machine lacks are the board's when the board has
# them. The board is a directory here, so its files are host paths too.
. "$(dirname "$0")/../cli/lib.sh"
mkdir "$dir/cwd" && cd "$dir/cwd" || exit 1
edid() { "$vexactl" --board "$board" edid "$@" 2>/dev/null; }
md5() { md5sum <"$1" | cut -d' ' -f1; }

edid model 1920 1080 60 -o e.bin
check "a relative path is the working directory's" 256 "$(stat -c %s e.bin 2>/dev/null)"
edid model 1280 720 60 -o /sdcard/e.bin
check "an absolute path this machine lacks is the board's" 256 "$(stat -c %s "$board/sdcard/e.bin" 2>/dev/null)"
check "and is read from there" "preferred: 1280x720 @ 60 Hz" "$(edid show /sdcard/e.bin | tail -n1)"
check "the board's file is also a path of this machine" "preferred: 1280x720 @ 60 Hz" \
    "$(edid show "$board/sdcard/e.bin" | tail -n1)"
# A path that both have is this machine's.
mkdir -p "$board$dir/cwd" && cp "$board/sdcard/e.bin" "$board$dir/cwd/e.bin"
check "a path both have is this machine's" "preferred: 1920x1080 @ 60 Hz" "$(edid show "$dir/cwd/e.bin" | tail -n1)"
out=$("$vexactl" --board "$board" edid show /nowhere/e.bin 2>&1)
check "a path neither has" "1 vexactl: cannot read /nowhere/e.bin: No such file or directory" "$? $out"
out=$("$vexactl" --board "$board" edid model 1920 1080 60 -o /nowhere/e.bin 2>&1)
check "a file to write whose directory neither has" "1 vexactl: cannot write /nowhere/e.bin: No such file or directory" \
    "$? $(echo "$out" | grep '^vexactl')"

# logd compress: DIR is the board's; the archive goes where ARCHIVE says.
mkdir -p "$board/data/été" && printf 'a\n' >"$board/data/été/a.log"
logd() { "$vexactl" --board "$board" logd "$@" 2>&1; }
out=$(logd compress /data/été logs.tgz)
check "a directory beyond ASCII, into a file here" "0 wrote logs.tgz (" "$? ${out%%[0-9]*)}"
check "the archive holds it" "data/été/ data/été/a.log" "$(tar tzf logs.tgz | tr '\n' ' ' | sed 's/ $//')"
out=$(logd compress "$board/data/été" /sdcard/logs.tgz)
check "the board's directory by its path here, into the board" "0 wrote /sdcard/logs.tgz (" "$? ${out%%[0-9]*)}"
check "the board's archive is the same" "$(tar tzf logs.tgz)" "$(tar tzf "$board/sdcard/logs.tgz")"
check "no archive was left beside it" "e.bin logs.tgz" "$(ls "$board/sdcard" | tr '\n' ' ' | sed 's/ $//')"
check "standard output" "$(tar tzf logs.tgz)" "$("$vexactl" --board "$board" logd compress /data/été - 2>/dev/null | tar tz)"
out=$(logd compress "$dir/cwd" x.tgz)
check "a directory outside the board is refused" "2 vexactl logd: $dir/cwd is a directory of this machine outside the board; the log daemon works on the board's ($board/syslog/logs, or /syslog/logs)" \
    "$? $(echo "$out" | head -n1)"
check "and nothing was written" "e.bin logs.tgz" "$(ls | tr '\n' ' ' | sed 's/ $//')"

finish
