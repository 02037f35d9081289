#!/usr/bin/env python3
"""Every vexactl command that prints gives, with --json, one JSON document
on standard output and nothing else there, with one set of types: numbers
as numbers, true/false for flags, null for a missing value, units in the
field's name and never in a value, reals rounded.

Usage: json_test.py VEXACTL"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

vexactl = sys.argv[1]
failures = 0


def check(what, expected, actual):
    global failures
    if expected != actual:
        print(f"FAIL: {what}\n  expected: {expected!r}\n  actual:   {actual!r}")
        failures += 1


top = tempfile.mkdtemp()
board = os.path.join(top, "board")
edid = os.path.join(top, "edid.bin")


def run(*args):
    p = subprocess.run([vexactl, "--board", board, *args], capture_output=True, timeout=120)
    return p.returncode, p.stdout.decode("utf-8", "replace"), p.stderr.decode("utf-8", "replace")


# A value that carries its unit, or a flag or a missing value written as text.
WITH_UNIT = re.compile(r"^-?[0-9]+(\.[0-9]+)?\s*(°C|C|%|G|GB|MB|KB|kB|V|s|ms|Hz|kHz|bytes)$")
FLAG_WORDS = {"yes", "no", "true", "false", "on", "off", "up", "down", "ok", "fault", "pass", "fail", "-", ""}


def types_of(command, value, path, exempt):
    """Checks one value and everything in it; exempt: keys whose texts are
    the board's own (environment values, log texts, file contents)."""
    if isinstance(value, dict):
        for key, item in value.items():
            check(f"{command}: the key {path}.{key} is a plain name", True, re.fullmatch(r"[a-z0-9_]+", key) is not None)
            types_of(command, item, f"{path}.{key}", exempt or key in EXEMPT_KEYS)
    elif isinstance(value, list):
        for i, item in enumerate(value):
            types_of(command, item, f"{path}[{i}]", exempt)
    elif isinstance(value, str) and not exempt:
        check(f"{command}: {path} holds no number with a unit", None, WITH_UNIT.match(value) and value)
        check(f"{command}: {path} is not a flag or a missing value as text", None,
              value if value.strip().lower() in FLAG_WORDS else None)
    elif isinstance(value, float):
        check(f"{command}: {path} is rounded", round(value, 3), value)


# Texts that are what the board holds, whatever they read like.
EXEMPT_KEYS = {"value", "text", "contents", "version", "configured", "received", "sent", "hex"}

try:
    # The board, and what some commands need first.
    code, _, err = run("status")
    check("the board is laid out, and said so", (0, f"vexactl: {board} does not exist: laying out a new board there\n"),
          (code, err))
    run("edid", "model", "1920", "1080", "60", "-o", edid)
    run("rescue", "backup")

    commands = [
        ["status"], ["config"], ["info"], ["adc"], ["chips"], ["rtc"], ["fan", "get"], ["fan", "prm"], ["net"],
        ["usb", "ports"], ["usb", "otg"], ["usb", "devices"], ["usb", "echo", "hello"],
        ["mcu", "version"], ["mcu", "links"], ["mcu", "watchdog", "status"],
        ["mcu", "watchdog", "feed", "--seconds", "0"],
        ["rescue", "status"], ["rescue", "time"], ["rescue", "recover-tab"], ["rescue", "backup"],
        ["rescue", "restore"],
        ["logd"], ["logd", "set", "level=info"], ["logd", "compress", "/syslog", "/sdcard/x.tgz"],
        ["logd", "clear", "/syslog/logs"],
        ["sched", "bind", "612"], ["sched", "unbind", "612"], ["sched", "bind", "0"], ["sched", "governor"],
        ["selftest"], ["ps", "vexa_player"], ["upgrade", "downgrade-flag"], ["ir", "status"],
        ["audio", "0", "get"], ["volume", "0"],
        ["resolution", "get"], ["resolution", "list"], ["resolution", "set", "1920", "1080"],
        ["timing", "1920", "1080"], ["edid", "model", "1920", "1080", "60"], ["edid", "show", edid],
        ["factory-reset"], ["serial", "ttl", "send", "hi"], ["serial", "ttl", "listen", "--seconds", "0"],
        ["env", "list"], ["log"], ["gpio", "get", "34"], ["led", "sys", "get"], ["relay", "2", "get"],
        ["switch", "4g_power", "get"], ["fpga", "status"], ["--version"],
    ]
    for command in commands:
        name = " ".join(command)
        code, out, err = run("--json", *command)
        check(f"{name}: exits 0", (0, ""), (code, "" if code == 0 else err))
        try:
            document = json.loads(out)  # one document: anything after it is an error
        except ValueError as e:
            check(f"{name}: standard output is one JSON document", "", f"{e}: {out[:200]!r}")
            continue
        types_of(name, document, "", command[0] in ("env", "log"))

    # The module id is a number wherever it is shown.
    module_ids = [json.loads(run("--json", "info")[1])["module_id"],
                  json.loads(run("--json", "status")[1])["module_id"],
                  [r["value"] for r in json.loads(run("--json", "config")[1]) if r["field"] == "mod_id"][0]]
    check("the module id is the number 38432 in info, status and config", [38432] * 3, module_ids)
    adc = json.loads(run("--json", "adc")[1])
    check("adc: readings rounded, units in the names", {"board_id": 3, "voltage_v": 12, "temperature_c": 24.9}, adc)
    fresh = os.path.join(top, "fresh")
    p = subprocess.run([vexactl, "--board", fresh, "--json", "rescue", "status"], capture_output=True, timeout=120)
    check("rescue status on a new board: null, not a made-up state",
          {"state": None, "meaning": "no backup yet: the reserve partition has no flag file"}, json.loads(p.stdout))
finally:
    shutil.rmtree(top, ignore_errors=True)

if failures:
    print(f"{failures} check(s) failed")
    sys.exit(1)
print("all checks passed")
