# SPDX-License-Identifier: MIT
"""A headless Chromium, driven over its remote debugging pipe."""

import base64
import contextlib
import json
import os
import pathlib
import select
import shutil
import signal
import subprocess
import time

from waiting import wait_until

PROGRAM = shutil.which("chromium")

# Starting Chromium, or a page in it, takes seconds on a busy machine.
BROWSER_SECONDS = 60

# Chromium's own sandbox needs a user other than root. The others keep it off the network and off what else a new
# profile would ask for.
OPTIONS = ["--headless=new", "--remote-debugging-pipe", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
           "--disable-background-networking", "--disable-component-update", "--disable-sync", "--mute-audio",
           "--hide-scrollbars", "--force-color-profile=srgb", "--disable-lcd-text", "--lang=en-GB"]

KEYS = {"Tab": ("Tab", 9, ""), " ": ("Space", 32, " "), "Enter": ("Enter", 13, "\r"), "p": ("KeyP", 80, "p")}


class Browser:
    """A browser with its own profile in a folder."""

    def __init__(self, folder):
        pathlib.Path(folder).mkdir(exist_ok=True)
        theirs_in, self.out = os.pipe()
        self.inp, theirs_out = os.pipe()
        options = OPTIONS + (["--no-sandbox"] if os.geteuid() == 0 else [])
        with open(pathlib.Path(folder, "chromium.log"), "wb") as log:
            self.process = subprocess.Popen(
                ["bash", "-c", f'exec "$@" 3<&{theirs_in} 4>&{theirs_out}', "bash", PROGRAM, *options,
                 f"--user-data-dir={folder}", "about:blank"],
                pass_fds=(theirs_in, theirs_out), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                start_new_session=True, env=os.environ | {"HOME": str(folder), "TZ": "UTC"})
        os.close(theirs_in)
        os.close(theirs_out)
        self.data = b""
        self.number = 0
        self.events = []

    def close(self):
        with contextlib.suppress(OSError, AssertionError):
            self.call("Browser.close")
        os.close(self.out)
        os.close(self.inp)
        try:
            self.process.wait(BROWSER_SECONDS)
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait(BROWSER_SECONDS)

    def call(self, method, session=None, **parameters):
        """Calls a method of the protocol and returns its result."""
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if session is not None:
            message["sessionId"] = session
        os.write(self.out, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + BROWSER_SECONDS
        while True:
            reply = self.read(deadline - time.monotonic())
            assert reply is not None, f"no reply to {method} in time"
            if reply.get("id") == self.number:
                assert "error" not in reply, f"{method}: {reply['error']}"
                return reply["result"]

    def read(self, seconds):
        """Reads one message, None at the time limit; keeps it if it is an event."""
        deadline = time.monotonic() + seconds
        while b"\0" not in self.data:
            ready, _, _ = select.select([self.inp], [], [], max(deadline - time.monotonic(), 0))
            if not ready:
                return None
            chunk = os.read(self.inp, 1 << 20)
            assert chunk, "Chromium has ended"
            self.data += chunk
        text, _, self.data = self.data.partition(b"\0")
        message = json.loads(text)
        if "method" in message:
            self.events.append(message)
        return message

    def open(self, url, width=1280, height=800, dark=False, reduced_motion=False):
        """Opens a page in a window of its own."""
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        page = Page(self, session, target)
        for domain in ("Page", "Runtime", "Log"):
            page.call(f"{domain}.enable")
        page.resize(width, height)
        page.call("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
            {"name": "prefers-reduced-motion", "value": "reduce" if reduced_motion else "no-preference"}])
        page.call("Page.navigate", url=url)
        page.wait_for("document.readyState === 'complete' && location.href !== 'about:blank'")
        return page


class Page:
    """One page."""

    def __init__(self, browser, session, target):
        self.browser = browser
        self.session = session
        self.target = target

    def call(self, method, **parameters):
        return self.browser.call(method, self.session, **parameters)

    def resize(self, width, height):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def evaluate(self, expression):
        """The value of an expression of the page's language, which can be a promise."""
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        assert "exceptionDetails" not in result, result["exceptionDetails"]
        return result["result"].get("value")

    def wait_for(self, expression, seconds=BROWSER_SECONDS):
        """Waits until an expression is true."""
        wait_until(lambda: self.evaluate(f"Boolean({expression})"), expression, seconds)

    def close(self):
        self.browser.call("Target.closeTarget", targetId=self.target)

    def leave(self):
        """Ends the page's connections."""
        self.call("Page.navigate", url="about:blank")

    def text(self, selector):
        return self.evaluate(f"document.querySelector({json.dumps(selector)}).innerText")

    def press(self, key):
        """Presses a key and releases it."""
        code, number, text = KEYS[key]
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, code=code, windowsVirtualKeyCode=number,
                      **({"text": text} if text and kind == "keyDown" else {}))

    def complaints(self):
        """What the browser or the page has complained about since the page was opened."""
        found = []
        for event in self.browser.events:
            details = event["params"]
            if event.get("sessionId") != self.session:
                continue
            if event["method"] == "Runtime.exceptionThrown":
                found.append(str(details["exceptionDetails"]))
            elif event["method"] == "Log.entryAdded" and details["entry"]["level"] in ("error", "warning"):
                found.append(details["entry"]["text"])
            elif event["method"] == "Runtime.consoleAPICalled" and details["type"] in ("error", "warning", "assert"):
                found.append(str(details["args"]))
        return found

    def screenshot(self, path, whole=False):
        """Writes the window, or the whole page, as PNG."""
        result = self.call("Page.captureScreenshot", format="png", captureBeyondViewport=whole)
        pathlib.Path(path).write_bytes(base64.b64decode(result["data"]))
