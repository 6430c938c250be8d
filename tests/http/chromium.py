"""A headless Chromium, driven through its debugging pipe with nothing but the standard library."""
import base64
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time

FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync", "--hide-scrollbars",
         "--remote-debugging-pipe"]


class Browser:
    """One browser with a profile of its own and one tab. Messages on the pipe are JSON texts ended by a zero byte."""

    def __init__(self, program):
        self.profile = tempfile.mkdtemp(prefix="zol-chromium-")
        to_browser, self.out = os.pipe()
        self.into, from_browser = os.pipe()

        def use_pipes():  # the browser reads descriptor 3 and writes descriptor 4
            reading, writing = os.dup(to_browser), os.dup(from_browser)
            os.dup2(reading, 3)
            os.dup2(writing, 4)

        self.process = subprocess.Popen([program, *FLAGS, "--user-data-dir=" + self.profile, "about:blank"],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, close_fds=False, preexec_fn=use_pipes,
                                        start_new_session=True)
        os.close(to_browser)
        os.close(from_browser)
        self.buffer = b""
        self.number = 0
        self.messages = []  # what the page wrote to its console, and its errors
        self.session = None
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(domain + ".enable")

    def close(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)  # the group that we started, its helpers included
        except ProcessLookupError:
            pass
        self.process.wait()
        os.close(self.out)
        os.close(self.into)
        shutil.rmtree(self.profile, ignore_errors=True)

    def receive(self, deadline):
        while b"\0" not in self.buffer:
            ready, _, _ = select.select([self.into], [], [], max(0, deadline - time.monotonic()))
            if not ready:
                raise TimeoutError("the browser does not answer")
            data = os.read(self.into, 1 << 20)
            if not data:
                raise EOFError("the browser has gone")
            self.buffer += data
        text, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(text)

    def call(self, method, **params):
        self.number += 1
        message = {"id": self.number, "method": method, "params": params}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.out, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + 60
        while True:
            answer = self.receive(deadline)
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]
            if answer.get("method") in ("Runtime.exceptionThrown", "Runtime.consoleAPICalled", "Log.entryAdded"):
                self.messages.append(json.dumps(answer["params"]))

    def run(self, script):
        """The value of a JavaScript expression."""
        result = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(json.dumps(result["exceptionDetails"]))
        return result["result"].get("value")

    def wait(self, script, limit=60):
        """Waits until the expression is true."""
        end = time.monotonic() + limit
        while time.monotonic() < end:
            if self.run(script):
                return
            time.sleep(0.05)
        raise AssertionError("still not: " + script)

    def open(self, url, width=1680, height=1000, dark=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setEmulatedMedia",
                  features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        self.leave()  # a change of the fragment alone would not load it anew
        self.call("Page.navigate", url=url)

    def leave(self):
        self.call("Page.navigate", url="about:blank")
        self.wait("location.href == 'about:blank'")

    def screenshot(self, path, whole=False):
        data = self.call("Page.captureScreenshot", format="png", captureBeyondViewport=whole)["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))
