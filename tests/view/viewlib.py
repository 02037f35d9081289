"""Starts 'vexactl board view' on a fresh board for the view's tests."""
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.error
import urllib.request


class View:
    """A fresh board in a temporary folder and its view, stopped on exit."""

    def __init__(self, vexactl, extra_args=()):
        self.vexactl = vexactl
        self.tmp = tempfile.mkdtemp(prefix="vexa-view-")
        self.board = os.path.join(self.tmp, "board")
        self.ctl("status")  # lays the board out
        self.proc = subprocess.Popen(
            [vexactl, "--board", self.board, "board", "view", *extra_args],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.url = self._first_line(20)
        self.base = self.url.split("/?")[0]
        self.token = self.url.split("token=")[1][:32]

    def _first_line(self, seconds):
        deadline = time.monotonic() + seconds
        line = b""
        while not line.endswith(b"\n"):
            left = deadline - time.monotonic()
            ready, _, _ = select.select([self.proc.stdout], [], [], max(left, 0))
            if not ready:
                raise AssertionError("the view printed no address within %d s" % seconds)
            byte = os.read(self.proc.stdout.fileno(), 1)
            if not byte:
                raise AssertionError("the view ended: " + self.proc.stderr.read().decode())
            line += byte
        return line.decode().strip()

    def ctl(self, *args, check=True):
        done = subprocess.run([self.vexactl, "--board", self.board, *args], capture_output=True, text=True,
                              timeout=60)
        if check and done.returncode != 0:
            raise AssertionError("vexactl %s: %s" % (" ".join(args), done.stderr))
        return done

    def request(self, method, path, body=None, headers=None, token=True):
        data = body if isinstance(body, (bytes, type(None))) else json.dumps(body).encode()
        all_headers = {"Content-Type": "application/json"}
        if token:
            all_headers["X-Vexa-Token"] = self.token
        all_headers.update(headers or {})
        req = urllib.request.Request(self.base + path, data=data, method=method, headers=all_headers)
        try:
            with urllib.request.urlopen(req, timeout=10) as reply:
                return reply.status, reply.read().decode(errors="replace"), reply.headers
        except urllib.error.HTTPError as error:
            return error.code, error.read().decode(errors="replace"), error.headers

    def state(self):
        status, text, _ = self.request("GET", "/state")
        assert status == 200, (status, text)
        return json.loads(text)

    def wait_for(self, what, condition, seconds=10):
        """Waits for condition() to be true, up to its deadline."""
        deadline = time.monotonic() + seconds
        while True:
            value = condition()
            if value:
                return value
            if time.monotonic() > deadline:
                raise AssertionError("timed out waiting for " + what)
            time.sleep(0.02)

    def close(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc.stdout.close()
        self.proc.stderr.close()
        # The board's host leaves when its folder goes.
        shutil.rmtree(self.tmp, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
