#!/usr/bin/env python3
"""vexactl fpga update's progress: on standard error when that is a terminal,
counting this job's work (the flash's blocks and pages as the board's FPGA
shows them), nothing of it on standard output or in a pipe.

Usage: vexactl_fpga_progress_test.py VEXACTL"""
import os
import pty
import re
import shutil
import subprocess
import sys
import tempfile
import threading

vexactl = sys.argv[1]
failures = 0


def check(what, expected, actual):
    global failures
    if expected != actual:
        print(f"FAIL: {what}\n  expected: {expected!r}\n  actual:   {actual!r}")
        failures += 1


def run(board, *args, terminal=False):
    """(exit code, standard output, standard error); standard error a
    terminal when asked, read while the command runs."""
    command = [vexactl, "--board", board, *args]
    if not terminal:
        p = subprocess.run(command, capture_output=True, timeout=120)
        return p.returncode, p.stdout.decode("latin-1"), p.stderr.decode("latin-1")
    main, side = pty.openpty()
    p = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=side)
    os.close(side)
    chunks = []

    def read_terminal():
        while True:
            try:
                chunk = os.read(main, 65536)
            except OSError:
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
    return code, out.decode("latin-1"), b"".join(chunks).decode("latin-1").replace("\r\n", "\n")


top = tempfile.mkdtemp()
try:
    board = os.path.join(top, "board")
    run(board, "fpga", "status")
    # A pz50pro board (module id 8470 at byte 64 of the product information).
    with open(os.path.join(board, ".board", "product_info"), "r+b") as f:
        f.seek(64)
        f.write(b"8470\0\0\0\0")
    # The erase (208 blocks) and the write (196 pages) take 2 s and 0.6 s.
    code, _, err = run(board, "fpga", "knob", "erase_ms=10", "page_program_ms=3")
    check("the knobs are taken", (0, ""), (code, err))

    image = os.path.join(board, "vendor", "etc", "fpga", "fpga_fw.bin")
    code, out, err = run(board, "fpga", "update", image, terminal=True)
    check("the update succeeds", 0, code)
    check("standard output holds the result only", "update: bi_fpga_firmware_update returned 0\n", out)
    # Each phase ends its own line: the erase counted in blocks of this job,
    # then the write in pages.
    lines = [line.split("\r")[-1] for line in err.split("\n") if line.strip()]
    erase = [line for line in lines if line.startswith("erase ")]
    write = [line for line in lines if line.startswith("write ")]
    check("an erase line", 1, len(erase))
    check("a write line", 1, len(write))
    if erase:
        check("the erase counts the job's 208 blocks", True, bool(re.search(r"  \d+/208 blocks  ", erase[0])))
    if write:
        check("the write counts the job's 196 pages", True, bool(re.search(r"  \d+/196 pages  ", write[0])))
    check("the phases come in order", True, bool(erase and write and lines.index(erase[0]) < lines.index(write[0])))

    # In a pipe the same job draws nothing.
    code, out, err = run(board, "fpga", "update", image)
    check("in a pipe: no bar", (0, "update: bi_fpga_firmware_update returned 0\n", ""), (code, out, err))
finally:
    # The board's host leaves when its folder goes.
    shutil.rmtree(top, ignore_errors=True)

if failures:
    print(f"{failures} check(s) failed")
    sys.exit(1)
print("all checks passed")
