#!/usr/bin/python3
"""The view's server without a browser: its token, its refusals, its pushes.

Usage: http_test.py VEXACTL
"""
import http.client
import json
import socket
import sys
import threading

from viewlib import View


def raw(view, head, body=b""):
    """Sends a request exactly as given; the reply's status and body."""
    host, port = view.base[len("http://"):].split(":")
    with socket.create_connection((host, int(port)), timeout=10) as s:
        s.sendall(head.replace("\n", "\r\n").encode() + body)
        reply = b""
        while True:
            chunk = s.recv(65536)
            if not chunk:
                break
            reply += chunk
    status = int(reply.split(b" ", 2)[1])
    return status, reply.split(b"\r\n\r\n", 1)[1].decode(errors="replace")


def level(view, name):
    return [l for l in view.state()["sections"]["lines"] if l["name"] == name][0]["level"]


class Events:
    """A page following the board: the events of /events, read as they come."""

    def __init__(self, view):
        host, port = view.base[len("http://"):].split(":")
        self.conn = http.client.HTTPConnection(host, int(port), timeout=10)
        self.conn.request("GET", "/events?token=" + view.token)
        self.reply = self.conn.getresponse()
        assert self.reply.status == 200, self.reply.status
        assert self.reply.getheader("Content-Type").startswith("text/event-stream")

    def until(self, wanted):
        """Reads events until wanted(event, data) holds; returns the data."""
        event = None
        while True:
            line = self.reply.fp.readline().decode()
            assert line, "the stream ended"
            line = line.rstrip("\r\n")
            if line.startswith("event: "):
                event = line[len("event: "):]
            elif line.startswith("data: "):
                data = json.loads(line[len("data: "):])
                if wanted(event, data):
                    return data

    def close(self):
        self.conn.close()


def lamp_event(name, value):
    return lambda event, data: (event == "section" and data["name"] == "lines" and
                                any(l["name"] == name and l["level"] == value for l in data["value"]))


def check_token_and_headers(view):
    assert view.request("GET", "/state", token=False)[0] == 403
    assert view.request("GET", "/state?token=" + "0" * 32, token=False)[0] == 403
    status, page, headers = view.request("GET", "/?token=" + view.token, token=False)
    assert status == 200 and view.token in page
    csp = headers["Content-Security-Policy"]
    assert "default-src 'none'" in csp and "script-src 'self'" in csp, csp
    assert headers["Referrer-Policy"] == "no-referrer"
    # The page's script and style carry no secret and need no token.
    assert view.request("GET", "/view.js", token=False)[0] == 200
    assert view.request("GET", "/", token=False)[0] == 403


def knobs(view):
    """The board's knobs and their values, as 'vexactl board fault' lists them."""
    return {k["name"]: k["value"] for k in json.loads(view.ctl("--json", "board", "fault").stdout)}


def check_refusals_change_nothing(view):
    knobs_before = knobs(view)
    assert knobs_before["fpga.done"] == "normal" and knobs_before["mcu.reply"] == "ok", knobs_before
    on = {"name": "lora_check", "level": 1}
    port = view.base.rsplit(":", 1)[1]
    body = json.dumps(on).encode()
    cases = [
        # (what, status, the request)
        ("no token", 403, lambda: view.request("POST", "/api/line", on, token=False)),
        ("token in the address only", 403,
         lambda: view.request("POST", "/api/line?token=" + view.token, on, token=False)),
        ("another site's page", 403, lambda: view.request("POST", "/api/line", on, {"Origin": "http://evil.example"})),
        ("another name for this address", 403, lambda: raw(view,
            "POST /api/line HTTP/1.1\nHost: evil.example:%s\nX-Vexa-Token: %s\nContent-Type: application/json\n"
            "Content-Length: %d\nConnection: close\n\n" % (port, view.token, len(body)), body)),
        ("a form's body", 415, lambda: view.request("POST", "/api/line", b"name=lora_check&level=1",
                                                   {"Content-Type": "application/x-www-form-urlencoded"})),
        ("not JSON", 400, lambda: view.request("POST", "/api/line", b"{name: lora_check")),
        ("a level of 2", 400, lambda: view.request("POST", "/api/line", {"name": "lora_check", "level": 2})),
        ("a level as text", 400, lambda: view.request("POST", "/api/line", {"name": "lora_check", "level": "1"})),
        ("a name with a line feed", 400, lambda: view.request("POST", "/api/line", {"name": "lora\ncheck", "level": 1})),
        ("an unknown line", 404, lambda: view.request("POST", "/api/line", {"name": "lora_chek", "level": 1})),
        ("an output", 409, lambda: view.request("POST", "/api/line", {"name": "led_sys", "level": 1})),
        ("too long a body", 413, lambda: view.request("POST", "/api/line", b"{" + b" " * 20000 + b"}")),
        ("a path outside the board", 404,
         lambda: view.request("POST", "/api/serial", {"path": "/../../../dev/null", "text": "x"})),
        ("the MCU's line", 404, lambda: view.request("POST", "/api/serial", {"path": "/dev/ttyS9", "text": "x"})),
        ("a sender nobody is", 400,
         lambda: view.request("POST", "/api/serial", {"path": "/dev/ttyS7", "text": "x", "from": "mcu"})),
        ("an unknown knob", 404, lambda: view.request("POST", "/api/knob", {"name": "fpga.nothing", "value": "1"})),
        ("a value the knob does not take", 400,
         lambda: view.request("POST", "/api/knob", {"name": "fpga.done", "value": "sometimes"})),
        ("a knob value with a line feed", 400,
         lambda: view.request("POST", "/api/knob", {"name": "fpga.cards", "value": "1\nspi=fail"})),
        ("an unknown request", 404, lambda: view.request("POST", "/api/reboot", {"name": "x"})),
    ]
    for what, status, send in cases:
        got = send()
        assert got[0] == status, "%s: %s, not %s" % (what, got, status)
    # None of them changed the board.
    assert view.ctl("gpio", "get", "94").stdout.strip() == "0"
    assert view.ctl("gpio", "get", "34").stdout.strip() == "0"
    assert knobs(view) == knobs_before, knobs(view)
    for path in ("/../../etc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "/view.js/../../../etc/passwd",
                 "/state/../../etc/passwd"):
        status, text, _ = view.request("GET", path + "?token=" + view.token, token=False)
        assert status in (400, 404) and "root:" not in text, (path, status)


def check_requests_act(view):
    assert view.request("POST", "/api/knob", {"name": "mcu.reply", "value": "silent"})[0] == 200
    assert knobs(view)["mcu.reply"] == "silent"
    assert view.request("POST", "/api/knob", {"name": "mcu.reply", "value": ""})[0] == 200
    assert knobs(view)["mcu.reply"] == "ok"
    assert view.request("POST", "/api/line", {"name": "ops_detect", "level": 1})[0] == 200
    assert view.ctl("gpio", "get", "74").stdout.strip() == "1"


def check_page_limit(view):
    # Past the most pages at once, a page is told to close one.
    held = [Events(view) for _ in range(8)]
    try:
        assert view.request("GET", "/events")[0] == 503
    finally:
        for page in held:
            page.close()


def check_pages_follow(view):
    # Two pages at once: each gets the whole state, then the change another
    # process makes.
    pages = [Events(view), Events(view)]
    try:
        for page in pages:
            page.until(lamp_event("led_network", 0))
        view.ctl("led", "network", "on")
        for page in pages:
            page.until(lamp_event("led_network", 1))
        # The log's new records and the lines' output come as increments.
        view.ctl("serial", "ttl_2", "send", "abc")
        for page in pages:
            data = page.until(lambda e, d: e == "output" and d["path"] == "/dev/ttyS8" and "616263" in d["hex"])
            assert not data["reset"]
    finally:
        for page in pages:
            page.close()
    # The view's own reads of the board leave nothing in the board's log.
    records = json.loads(view.ctl("--json", "log").stdout)
    assert records, "the board's log is empty"
    assert not [r for r in records if r["pid"] == view.proc.pid], "the view logged its reads"


def main():
    vexactl = sys.argv[1]
    with View(vexactl) as view:
        assert view.url.startswith("http://127.0.0.1:"), view.url
        check_token_and_headers(view)
        # A port another server holds is a clear failure, not a hang.
        port = view.base.rsplit(":", 1)[1]
        taken = view.ctl("board", "view", "--port", port, check=False)
        assert taken.returncode == 1 and taken.stdout == "", taken
        assert taken.stderr == "vexactl: cannot listen on 127.0.0.1 port %s: Address already in use\n" % port, \
            taken.stderr
        check_refusals_change_nothing(view)
        check_requests_act(view)
        check_page_limit(view)
    with View(vexactl) as view:
        check_pages_follow(view)
    with View(vexactl, ["--json"]) as view:
        first = json.loads(view.url)
        assert first["url"].startswith("http://127.0.0.1:%d/?token=" % first["port"]), first
        assert len(first["token"]) == 32 and first["url"].endswith(first["token"]), first
    with View(vexactl, ["--listen", "0.0.0.0"]) as view:
        assert view.url.startswith("http://127.0.0.1:"), view.url
        assert view.request("GET", "/state")[0] == 200
        view.proc.send_signal(2)
        view.proc.wait(10)
        warning = view.proc.stderr.read().decode()
        assert "warning: the view listens on 0.0.0.0" in warning, warning
    print("1 passed, 0 failed")


if __name__ == "__main__":
    main()
