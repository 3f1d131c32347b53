# SPDX-License-Identifier: LGPL-3.0-or-later
"""A real browser for tests, driven over its debugging protocol."""
import asyncio
import base64
import json
import pathlib
import re
import subprocess
import tempfile
import time
import urllib.request

import websockets

KEYS = {"ArrowDown": 40, "ArrowUp": 38, "ArrowRight": 39, "ArrowLeft": 37, "Enter": 13, "Home": 36, "End": 35, "Tab": 9, "Escape": 27, "PageDown": 34}


class Browser:
    """Runs until stop(); each page is a tab of its own, with a store of its own."""

    def __init__(self):
        self.home = tempfile.TemporaryDirectory()
        self.log = open(self.home.name + "/log", "w+")
        self.process = subprocess.Popen(
            ["chromium-headless-shell", "--no-sandbox", "--disable-dev-shm-usage", "--remote-debugging-port=0",
             "--user-data-dir=" + self.home.name + "/data", "--window-size=1280,900", "--hide-scrollbars",
             "--force-device-scale-factor=1", "--font-render-hinting=none", "about:blank"],
            stdout=subprocess.DEVNULL, stderr=self.log)
        end = time.time() + 30
        while not (found := re.search(r"ws://([^/]+)(/\S+)", pathlib.Path(self.log.name).read_text())):
            if time.time() > end:
                raise TimeoutError("the browser does not start")
            time.sleep(.05)
        self.address = found[1]

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.log.close()
        self.home.cleanup()

    async def page(self, url, before=""):
        """Opens a tab. `before` is a script that runs ahead of those of the page."""
        request = urllib.request.Request(f"http://{self.address}/json/new?about:blank", method="PUT")
        target = json.load(urllib.request.urlopen(request))
        socket = await websockets.connect(target["webSocketDebuggerUrl"], max_size=None)
        page = Page(socket)
        for domain in ("Runtime", "Page", "Log"):
            await page.call(domain + ".enable")
        await page.call("Emulation.setDeviceMetricsOverride", width=1280, height=900, deviceScaleFactor=1, mobile=False)
        await page.call("Emulation.setFocusEmulationEnabled", enabled=True)
        if before:
            await page.call("Page.addScriptToEvaluateOnNewDocument", source=before)
        await page.call("Page.navigate", url=url)
        return page


class Page:
    def __init__(self, socket):
        self.socket = socket
        self.number = 0
        self.waiting = {}
        self.exceptions = []
        self.reader = asyncio.create_task(self.read())

    async def read(self):
        async for text in self.socket:
            message = json.loads(text)
            if message.get("method") == "Runtime.exceptionThrown":
                detail = message["params"]["exceptionDetails"]
                self.exceptions.append(detail.get("exception", {}).get("description", detail["text"]))
            elif message.get("method") == "Runtime.consoleAPICalled" and message["params"]["type"] == "error":
                self.exceptions.append(str([a.get("value", a.get("description")) for a in message["params"]["args"]]))
            if (answer := self.waiting.pop(message.get("id"), None)) and not answer.done():
                answer.set_result(message)

    async def call(self, method, **params):
        self.number += 1
        answer = self.waiting[self.number] = asyncio.get_running_loop().create_future()
        await self.socket.send(json.dumps({"id": self.number, "method": method, "params": params}))
        message = await asyncio.wait_for(answer, 60)
        if "error" in message:
            raise RuntimeError(message["error"]["message"])
        return message["result"]

    async def js(self, code):
        result = await self.call("Runtime.evaluate", expression=code, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in result:
            raise RuntimeError(result["exceptionDetails"].get("exception", {}).get("description"))
        return result["result"].get("value")

    async def until(self, code, seconds=30):
        end = time.time() + seconds
        # An element cannot leave the page, but that it is there can.
        look = f"(v => typeof v === 'object' && v !== null ? true : v)({code})"
        while not (value := await self.js(look)):
            if time.time() > end:
                raise TimeoutError(code + "\n" + str(await self.js("document.body.innerText")))
            await asyncio.sleep(.02)
        return value

    async def text(self, selector="body"):
        return await self.js(f"document.querySelector({json.dumps(selector)})?.innerText ?? ''")

    async def until_text(self, part, selector="body"):
        await self.until(f"(document.querySelector({json.dumps(selector)})?.innerText ?? '').includes({json.dumps(part)})")

    async def click(self, code):
        """Clicks with the mouse at the element that the expression gives."""
        await self.until(f"!!({code})")
        place = await self.js(f"(() => {{ const e = {code}; e.scrollIntoView({{block: 'nearest'}}); "
                              "const r = e.getBoundingClientRect(); return [r.x + r.width / 2, r.y + r.height / 2]; })()")
        for kind in ("mousePressed", "mouseReleased"):
            await self.call("Input.dispatchMouseEvent", type=kind, x=place[0], y=place[1], button="left", clickCount=1)

    async def click_text(self, text, selector="button, a"):
        await self.click(f"[...document.querySelectorAll({json.dumps(selector)})].find(e => e.innerText.trim() === {json.dumps(text)})")

    async def fill(self, label, text):
        """Types into the box with that label, in place of what it has, and presses Enter."""
        box = f"[...document.querySelectorAll('label')].find(e => e.innerText.trim() === {json.dumps(label)})?.htmlFor"
        await self.until(f"!!({box})")
        await self.js(f"(() => {{ const e = document.getElementById({box}); e.focus(); e.select(); }})()")
        if text:
            await self.call("Input.insertText", text=text)
        else:
            await self.press("Delete")
        await self.press("Enter")

    async def choose(self, label, value):
        box = f"document.getElementById([...document.querySelectorAll('label')].find(e => e.innerText.trim() === {json.dumps(label)}).htmlFor)"
        await self.js(f"(() => {{ const e = {box}; e.value = {json.dumps(value)}; e.dispatchEvent(new Event('change', {{bubbles: true}})); }})()")

    async def press(self, key):
        code = {"Delete": 46}.get(key) or KEYS[key]
        text = {"text": "\r"} if key == "Enter" else {}
        await self.call("Input.dispatchKeyEvent", type="keyDown", key=key, code=key, windowsVirtualKeyCode=code, **text)
        await self.call("Input.dispatchKeyEvent", type="keyUp", key=key, code=key, windowsVirtualKeyCode=code)

    async def dark(self):
        await self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark"}])
        await self.until("document.documentElement.classList.contains('pf-v6-theme-dark')")
        await self.until("document.getAnimations().every(each => !(each instanceof CSSTransition))")  # colours fade over

    async def violations(self, axe):
        await self.js(pathlib.Path(axe).read_text() + ";1")
        return await self.js("axe.run().then(r => r.violations.map(v => [v.impact, v.id, v.nodes.map(n => n.html + n.failureSummary)]))")

    async def picture(self, path):
        await self.js("document.fonts.ready.then(() => 1)")
        data = await self.call("Page.captureScreenshot", format="png")
        with open(path, "wb") as file:
            file.write(base64.b64decode(data["data"]))

    async def close(self):
        self.reader.cancel()
        await self.call_quietly("Page.close")
        await self.socket.close()

    async def call_quietly(self, method):
        self.number += 1
        await self.socket.send(json.dumps({"id": self.number, "method": method, "params": {}}))
