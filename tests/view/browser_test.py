#!/usr/bin/python3
"""The board's live page in Debian's headless Chromium, driven by selenium.

Usage: browser_test.py VEXACTL SCREENSHOT.png

A missing browser, driver or selenium fails the test: it never skips.
"""
import json
import os
import subprocess
import sys
import tempfile
import time

from viewlib import View

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import Select
except ImportError as error:
    sys.exit("FAIL: python3-selenium is missing (scripts/setup installs it): %s" % error)

CHROMIUM = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"


def browser(profile):
    for path in (CHROMIUM, DRIVER):
        if not os.access(path, os.X_OK):
            sys.exit("FAIL: %s is missing (scripts/setup installs chromium and chromium-driver)" % path)
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--disable-dev-shm-usage", "--window-size=1400,2200", "--user-data-dir=" + profile):
        options.add_argument(flag)
    return webdriver.Chrome(service=Service(DRIVER), options=options)


def attribute(driver, selector, name):
    """The attribute of the element the selector finds now (None when none)."""
    return driver.execute_script(
        "const e = document.querySelector(arguments[0]); return e ? e.getAttribute(arguments[1]) : null;",
        selector, name)


def read_pty(view, path, want, seconds=5):
    """Bytes that arrive on a pty (opened as an outside program opens it)."""
    fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_NOCTTY)
    try:
        got = b""
        def arrived():
            nonlocal got
            try:
                got += os.read(fd, 4096)
            except BlockingIOError:
                pass
            return want in got
        view.wait_for("%r on %s (got %r)" % (want, path, got), arrived, seconds)
        return got
    finally:
        os.close(fd)


def main():
    vexactl, screenshot = sys.argv[1], sys.argv[2]
    with View(vexactl) as view, tempfile.TemporaryDirectory(prefix="vexa-chromium-") as profile:
        # The board's EDID, laid into its partition as a person would.
        edid = subprocess.run([vexactl, "--board", view.board, "edid", "model", "1920", "1080", "60", "-o", "-"],
                              capture_output=True, check=True, timeout=60).stdout
        with open(os.path.join(view.board, "dev/block/by-name/defined"), "r+b") as partition:
            partition.write(edid)
        driver = browser(profile)
        try:
            driver.get(view.url)
            lamp = '[data-line="led_sys"]'
            view.wait_for("the led_sys lamp", lambda: attribute(driver, lamp, "data-level") == "0")
            assert "data-line" in driver.page_source
            assert driver.title.startswith(view.state()["sections"]["product"]["name"]), driver.title
            driver.execute_script("window.vexaNoReload = 1;")

            # A lamp lit by another process shows lit within 2 s, without a reload.
            view.ctl("led", "sys", "on")
            lit_at = time.monotonic()
            view.wait_for("led_sys lit", lambda: attribute(driver, lamp, "data-level") == "1", 2)
            print("led_sys lit on the page %.0f ms after 'vexactl led sys on'" % (1000 * (time.monotonic() - lit_at)))
            assert driver.execute_script("return window.vexaNoReload;") == 1, "the page reloaded"

            # A click on an input drives its line from outside.
            assert view.ctl("gpio", "get", "94").stdout.strip() == "0"
            driver.find_element(By.CSS_SELECTOR, '[data-line="lora_check"]').click()
            view.wait_for("line 94 high", lambda: view.ctl("gpio", "get", "94").stdout.strip() == "1")
            view.wait_for("lora_check shown high", lambda: attribute(driver, '[data-line="lora_check"]', "data-level") == "1")

            # The ttl console: typed bytes reach the line, and what the board
            # writes shows in the console.
            ttl = "/dev/ttyS7"
            line = [l for l in view.state()["sections"]["serial"] if l["path"] == ttl][0]
            box = driver.find_element(By.CSS_SELECTOR, '[data-send="%s"]' % ttl)
            box.send_keys("ping from the peer\n")
            read_pty(view, os.path.join(view.board, ttl.lstrip("/")), b"ping from the peer\n")
            Select(driver.find_element(By.CSS_SELECTOR, '[data-from="%s"]' % ttl)).select_by_value("board")
            driver.find_element(By.CSS_SELECTOR, '[data-send="%s"]' % ttl).send_keys("hello far end\n")
            read_pty(view, line["outside_pty"], b"hello far end\n")
            view.ctl("serial", "ttl", "send", "status: ok")
            console = '[data-console="%s"]' % ttl
            view.wait_for("the board's bytes in the console",
                          lambda: "status: ok" in (driver.execute_script(
                              "return document.querySelector(arguments[0]).textContent;", console) or ""))

            # A knob set on the page is set on the board; one set elsewhere shows.
            Select(driver.find_element(By.CSS_SELECTOR, '[data-knob-control="mcu.reply"]')).select_by_value("nack")
            knob = lambda name: [k["value"] for k in json.loads(view.ctl("--json", "board", "fault").stdout)
                                 if k["name"] == name][0]
            view.wait_for("mcu.reply=nack on the board", lambda: knob("mcu.reply") == "nack")
            view.ctl("board", "fault", "fpga.spi=fail")
            view.wait_for("fpga.spi shown as fail",
                          lambda: attribute(driver, '[data-knob="fpga.spi"]', "data-value") == "fail")

            # The display: the saved mode drawn to scale, and the EDID's maker.
            assert attribute(driver, "[data-timing]", "data-timing") == "1920x1080"
            view.wait_for("the EDID's identity", lambda: "VXA" in driver.find_element(By.ID, "display-facts").text)

            # Nothing on the page came from anywhere but the view itself.
            urls = driver.execute_script(
                "return performance.getEntriesByType('resource').map(e => e.name).concat([location.href]);")
            outside = [u for u in urls if not u.startswith(view.base + "/")]
            assert not outside, outside

            # The whole page, as a person scrolls through it.
            height = driver.execute_script("return document.documentElement.scrollHeight;")
            driver.set_window_size(1400, min(height + 40, 6000))
            driver.execute_script("window.scrollTo(0, 0);")
            driver.save_screenshot(screenshot)
            print("screenshot:", screenshot)
        finally:
            driver.quit()
    print("1 passed, 0 failed")


if __name__ == "__main__":
    main()
