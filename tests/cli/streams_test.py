#!/usr/bin/env python3
"""vexactl's streams: standard output holds the command's output only, the
progress bar is drawn on standard error when that is a terminal, the
library's printed text shows only with -v, and -q leaves nothing but errors.

Usage: streams_test.py VEXACTL SOURCE_DIR"""
import glob
import hashlib
import os
import pty
import shutil
import subprocess
import sys
import tempfile
import threading

vexactl = sys.argv[1]
source = sys.argv[2]
failures = 0


def check(what, expected, actual):
    global failures
    if expected != actual:
        print(f"FAIL: {what}\n  expected: {expected!r}\n  actual:   {actual!r}")
        failures += 1


def run(board, *args, stdin=None, terminal=False):
    """Runs vexactl on the board: (exit code, standard output, standard
    error), standard error being a terminal when asked."""
    command = [vexactl, "--board", board, *args]
    if not terminal:
        p = subprocess.run(command, input=stdin, capture_output=True, timeout=120)
        return p.returncode, p.stdout.decode("latin-1"), p.stderr.decode("latin-1")
    main, side = pty.openpty()
    p = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=side)
    os.close(side)
    # The terminal is read while the command runs: a full terminal buffer
    # would stop the bar, and the command with it.
    chunks = []

    def read_terminal():
        while True:
            try:
                chunk = os.read(main, 65536)
            except OSError:  # the terminal's far end is gone
                return
            if not chunk:
                return
            chunks.append(chunk)

    reader = threading.Thread(target=read_terminal)
    reader.start()
    out = p.stdout.read()
    code = p.wait(timeout=120)
    reader.join(timeout=120)
    os.close(main)
    err = b"".join(chunks)
    # The terminal turns each newline into a carriage return and a newline.
    return code, out.decode("latin-1"), err.decode("latin-1").replace("\r\n", "\n")


# The process's stderr carries the library's text, dropped without -v: a
# message vexactl writes there would be lost. Its own go to errors().
for path in sorted(glob.glob(os.path.join(source, "tools", "vexactl", "*.cpp"))):
    if os.path.basename(path) in ("main.cpp", "streams.cpp"):  # where the streams are taken
        continue
    for number, line in enumerate(open(path, encoding="utf-8"), 1):
        code_part = line.split("//")[0]
        if "stderr" in code_part.replace("errors()", ""):
            check(f"{os.path.basename(path)}:{number} writes to errors(), not stderr", "", line.strip())

top = tempfile.mkdtemp()
try:
    board = os.path.join(top, "board")
    image = os.path.join(top, "image.bin")
    with open(image, "wb") as f:
        f.write(os.urandom(65536))
    digest = hashlib.md5(open(image, "rb").read()).hexdigest()
    flash = os.path.join(board, ".board", "mcu-flash.bin")
    flashed = f"flashed {image} (65536 bytes) to the MCU_GD32F303, read back equal\n"

    # A new board is laid out first (with a line on standard error).
    run(board, "gpio", "get", "1")

    # A flash takes more than a second: on a terminal the bar shows each
    # phase, the last state of each on a line of its own.
    code, out, err = run(board, "mcu", "flash", image, terminal=True)
    check("a flash on a terminal exits 0", 0, code)
    check("standard output holds the report only", flashed, out)
    lines = err.split("\n")
    check("the bar ends its last line", "", lines[-1])
    finals = [line.split("\r")[-1] for line in lines[:-1]]
    check("each phase ends on its last state, in order",
          ["write    [##############################] 100%  256/256 blocks",
           "verify   [##############################] 100%  256/256 blocks"],
          [line[: line.rindex("  ")] for line in finals if not line.startswith("connect")])
    first = err.split("\r")[1]
    check("the bar is first drawn once the job has run a second", True,
          float(first[first.rindex("  ") + 2:].split(" ")[0]) >= 1.0)
    check("the flash holds the image", digest,
          hashlib.md5(open(flash, "rb").read()[:65536]).hexdigest())

    # Standard error on a pipe or a file: no bar.
    code, out, err = run(board, "mcu", "flash", image)
    check("a flash on a pipe: output, and nothing on standard error", (0, flashed, ""), (code, out, err))

    # -q: nothing but errors, bar or report; the job is done all the same.
    with open(flash, "r+b") as f:
        f.write(b"\0" * 65536)
    code, out, err = run(board, "-q", "mcu", "flash", image, terminal=True)
    check("-q on a terminal: no bar, no report", (0, "", ""), (code, out, err))
    check("and the flash holds the image", digest,
          hashlib.md5(open(flash, "rb").read()[:65536]).hexdigest())
    code, out, err = run(board, "mcu", "flash", "/no/such/image", "-q")
    check("-q keeps errors", (1, "", "vexactl: cannot read /no/such/image: No such file or directory\n"),
          (code, out, err))
    code, out, err = run(board, "-q", "edid", "model", "1920", "1080", "60", "-o", "-")
    check("-q keeps a file written to '-'", (0, 256, ""), (code, len(out), err))
    code, out, err = run(board, "-q", "-v", "status")
    check("-q and -v together are refused", (2, "", "vexactl status: --quiet and --verbose do not go together"),
          (code, out, err.split("\n")[0]))

    # Standard output closed: what a command prints cannot go anywhere else.
    p = subprocess.run([vexactl, "--board", board, "status"], stdout=subprocess.DEVNULL, capture_output=False,
                       stderr=subprocess.PIPE, timeout=120, preexec_fn=lambda: os.close(1))
    check("status with standard output closed fails",
          (1, "vexactl: cannot write standard output: Bad file descriptor\n"),
          (p.returncode, p.stderr.decode()))

    # The library's printed text: off the terminal, on standard error with -v.
    fresh = os.path.join(top, "fresh")
    nothing = "no backup yet: the reserve partition has no flag file\n"
    check("rescue status on a new board prints its answer only (and that the board is new)",
          (0, nothing, f"vexactl: {fresh} does not exist: laying out a new board there\n"),
          run(fresh, "rescue", "status"))
    check("-v adds the library's text on standard error",
          (0, nothing, "open file error!: No such file or directory\n"), run(fresh, "-v", "rescue", "status"))
    check("led sys on prints nothing", (0, "", ""), run(fresh, "led", "sys", "on"))
    check("-v shows what the library printed", (0, "", "bi_sysled_set_state:gpio_id=34,state=1\n"),
          run(fresh, "led", "sys", "on", "--verbose"))
    code, out, err = run(fresh, "edid", "model", "1920", "1080", "60", "--json")
    check("edid model --json: the document alone", (0, "{", ""), (code, out[:1], err))
    check("led sys get -q prints nothing", (0, "", ""), run(fresh, "-q", "led", "sys", "get"))
    run(fresh, "log", "--clear")
    run(fresh, "rescue", "status")
    logged = [line.split(None, 4)[-1].strip() for line in run(fresh, "log")[1].splitlines()]
    check("what the library logs still reaches the board's log", True,
          "E/vexa_system_bi_rescue: bi_rescue_get_data_status, error!" in logged)
finally:
    shutil.rmtree(top, ignore_errors=True)

if failures:
    print(f"{failures} check(s) failed")
    sys.exit(1)
print("all checks passed")
