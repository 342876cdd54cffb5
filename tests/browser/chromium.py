"""Headless Chromium for tests, driven through the DevTools protocol.

Python 3 standard library only. Chromium is started with
--remote-debugging-pipe: it reads protocol messages on its fd 3 and writes
them on its fd 4, each message one JSON object followed by a NUL byte. Every
page is opened in a browser context of its own (no shared cache, cookies or
storage), so two loads never influence each other.

    from chromium import Browser

    with Browser() as browser:
        page = browser.load("http://127.1.2.3:8000/index.html", width=1024, height=768)
        page.requests          # [Request(url, status, failed, from_cache)], in order sent
        page.console_errors    # ["console.error: ...", "exception: ...", ...]
        image = page.screenshot()          # Image, the whole page, decoded
        page.evaluate("document.title")    # the value, as JSON gives it
        page.close()

Thread safety: one Browser and its pages are used by one thread at a time
(the reader thread inside is the module's own business).
"""

import base64
import json
import os
import shutil
import struct
import subprocess
import tempfile
import threading
import time
import zlib
from dataclasses import dataclass, field

DEFAULT_CHROMIUM = "/usr/bin/chromium"

# Flags for a quiet, repeatable browser: no background traffic, no GPU, no
# font hinting or LCD text that could differ between two renderings.
BASE_FLAGS = [
    "--headless",
    "--no-sandbox",
    "--disable-gpu",
    "--disable-quic",
    "--no-first-run",
    "--no-default-browser-check",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--disable-extensions",
    "--disable-default-apps",
    "--disable-dev-shm-usage",
    "--disable-features=Translate,MediaRouter,OptimizationHints,AutofillServerCommunication",
    "--disable-lcd-text",
    "--font-render-hinting=none",
    "--force-color-profile=srgb",
    "--hide-scrollbars",
    "--mute-audio",
    "--remote-debugging-pipe",
]


class BrowserError(RuntimeError):
    """The browser could not be started, died, or answered with an error."""


class JavaScriptError(RuntimeError):
    """An evaluated expression threw; the message is the exception's text."""


def find_chromium():
    """The Chromium executable, or None when it is not installed."""
    for candidate in (os.environ.get("ZP_CHROMIUM"), DEFAULT_CHROMIUM, shutil.which("chromium")):
        if candidate and os.access(candidate, os.X_OK):
            return candidate
    return None


# --- PNG decoding -----------------------------------------------------------


@dataclass
class Image:
    """A decoded picture: 8-bit RGBA, rows top to bottom, 4 bytes a pixel."""

    width: int
    height: int
    rgba: bytes

    def pixel(self, x, y):
        offset = (y * self.width + x) * 4
        return tuple(self.rgba[offset : offset + 4])


def _paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


_MASKS = {}  # row length: the 0x7f and 0x80 masks of the Up filter


def _unfilter(data, width, height, bpp):
    """Undoes the per-row PNG filters; returns the raw scanlines joined."""
    stride = width * bpp
    out = bytearray(stride * height)
    prev = bytearray(stride)
    pos = 0
    for y in range(height):
        kind = data[pos]
        row = bytearray(data[pos + 1 : pos + 1 + stride])
        pos += 1 + stride
        if len(row) != stride:
            raise ValueError("PNG data is short")
        if kind == 1:
            for i in range(bpp, stride):
                row[i] = (row[i] + row[i - bpp]) & 0xFF
        elif kind == 2:
            # Bytewise addition modulo 256 on whole rows at once: add the low
            # seven bits of every byte, then put back the top bits by xor.
            if stride not in _MASKS:
                _MASKS[stride] = (int.from_bytes(b"\x7f" * stride, "little"),
                                  int.from_bytes(b"\x80" * stride, "little"))
            low, high = _MASKS[stride]
            a, b = int.from_bytes(row, "little"), int.from_bytes(prev, "little")
            total = ((a & low) + (b & low)) ^ ((a ^ b) & high)
            row = bytearray(total.to_bytes(stride, "little"))
        elif kind == 3:
            for i in range(stride):
                left = row[i - bpp] if i >= bpp else 0
                row[i] = (row[i] + ((left + prev[i]) >> 1)) & 0xFF
        elif kind == 4:
            for i in range(stride):
                left = row[i - bpp] if i >= bpp else 0
                upleft = prev[i - bpp] if i >= bpp else 0
                row[i] = (row[i] + _paeth(left, prev[i], upleft)) & 0xFF
        elif kind != 0:
            raise ValueError("unknown PNG filter %d" % kind)
        out[y * stride : (y + 1) * stride] = row
        prev = row
    return bytes(out)


def decode_png(png):
    """Decodes a non-interlaced 8-bit PNG (grey, grey+alpha, RGB, RGBA or
    palette) into an Image. Raises ValueError for anything else."""
    if png[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("not a PNG")
    pos = 8
    header = None
    palette = b""
    idat = []
    while pos + 8 <= len(png):
        length, kind = struct.unpack(">I4s", png[pos : pos + 8])
        body = png[pos + 8 : pos + 8 + length]
        pos += 12 + length
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"PLTE":
            palette = body
        elif kind == b"IDAT":
            idat.append(body)
        elif kind == b"IEND":
            break
    if header is None:
        raise ValueError("PNG without IHDR")
    width, height, depth, color, _, _, interlace = header
    channels = {0: 1, 2: 3, 3: 1, 4: 2, 6: 4}.get(color)
    if depth != 8 or interlace != 0 or channels is None:
        raise ValueError("unsupported PNG (depth %d, colour type %d, interlace %d)"
                         % (depth, color, interlace))
    raw = _unfilter(zlib.decompress(b"".join(idat)), width, height, channels)
    if color == 6:
        rgba = raw
    elif color == 2:
        out = bytearray(width * height * 4)
        out[0::4], out[1::4], out[2::4] = raw[0::3], raw[1::3], raw[2::3]
        out[3::4] = b"\xff" * (width * height)
        rgba = bytes(out)
    elif color == 0:
        out = bytearray(width * height * 4)
        out[0::4] = out[1::4] = out[2::4] = raw
        out[3::4] = b"\xff" * (width * height)
        rgba = bytes(out)
    elif color == 4:
        out = bytearray(width * height * 4)
        out[0::4] = out[1::4] = out[2::4] = raw[0::2]
        out[3::4] = raw[1::2]
        rgba = bytes(out)
    else:
        table = [palette[i * 3 : i * 3 + 3] + b"\xff" for i in range(len(palette) // 3)]
        rgba = b"".join(table[i] if i < len(table) else b"\0\0\0\xff" for i in raw)
    return Image(width, height, rgba)


def encode_png(image):
    """An Image as an RGBA PNG (no filtering: for pictures kept beside a
    report, not for size)."""
    def chunk(kind, body):
        return (struct.pack(">I", len(body)) + kind + body +
                struct.pack(">I", zlib.crc32(kind + body) & 0xFFFFFFFF))

    stride = image.width * 4
    raw = b"".join(b"\0" + image.rgba[y * stride:(y + 1) * stride] for y in range(image.height))
    return (b"\x89PNG\r\n\x1a\n" +
            chunk(b"IHDR", struct.pack(">IIBBBBB", image.width, image.height, 8, 6, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(raw, 6)) + chunk(b"IEND", b""))


# --- the protocol connection --------------------------------------------------


class _Connection:
    """One pipe pair to the browser: numbered commands and their answers,
    events kept per session until someone takes them."""

    def __init__(self, read_fd, write_fd):
        self._read_fd = read_fd
        self._write_fd = write_fd
        self._next_id = 0
        self._lock = threading.Condition()
        self._answers = {}        # guarded by _lock
        self._events = []         # guarded by _lock: (sessionId, method, params)
        self._closed = False      # guarded by _lock
        self._reader = threading.Thread(target=self._read_loop, daemon=True)
        self._reader.start()

    def _read_loop(self):
        pending = b""
        while True:
            try:
                chunk = os.read(self._read_fd, 1 << 16)
            except OSError:
                chunk = b""
            if not chunk:
                break
            pending += chunk
            while b"\0" in pending:
                raw, pending = pending.split(b"\0", 1)
                try:
                    message = json.loads(raw)
                except ValueError:
                    continue
                with self._lock:
                    if "id" in message:
                        self._answers[message["id"]] = message
                    else:
                        self._events.append((message.get("sessionId"), message.get("method"),
                                             message.get("params", {})))
                    self._lock.notify_all()
        with self._lock:
            self._closed = True
            self._lock.notify_all()

    def send(self, method, params=None, session=None, timeout=30.0):
        with self._lock:
            self._next_id += 1
            number = self._next_id
        message = {"id": number, "method": method, "params": params or {}}
        if session:
            message["sessionId"] = session
        data = json.dumps(message).encode() + b"\0"
        try:
            while data:
                data = data[os.write(self._write_fd, data):]
        except OSError as error:
            raise BrowserError("browser pipe closed: %s" % error) from None
        deadline = time.monotonic() + timeout
        with self._lock:
            while number not in self._answers:
                left = deadline - time.monotonic()
                if self._closed or left <= 0:
                    raise BrowserError("no answer to %s (%s)" % (
                        method, "browser gone" if self._closed else "time-out"))
                self._lock.wait(left)
            answer = self._answers.pop(number)
        if "error" in answer:
            raise BrowserError("%s: %s" % (method, answer["error"].get("message")))
        return answer.get("result", {})

    def take_events(self, session):
        """Removes and returns the events of `session` received so far."""
        with self._lock:
            mine = [e for e in self._events if e[0] == session]
            self._events = [e for e in self._events if e[0] != session]
        return [(method, params) for _, method, params in mine]

    def wait_for_event(self, timeout):
        """Waits until any event arrives or `timeout` seconds pass."""
        with self._lock:
            if not self._events and not self._closed:
                self._lock.wait(timeout)

    def close(self):
        for fd in (self._write_fd, self._read_fd):
            try:
                os.close(fd)
            except OSError:
                pass


# --- pages ------------------------------------------------------------------------


@dataclass
class Request:
    """One network request the page made, in the order sent."""

    url: str
    status: int = 0          # HTTP status, 0 when no response came
    failed: str = ""         # the network error text for a failed request
    from_cache: bool = False
    resource_type: str = ""  # Document, Stylesheet, Script, Image, ...
    finished: bool = False


@dataclass
class Page:
    """One loaded page in a browser context of its own."""

    browser: "Browser"
    session: str
    context: str
    target: str
    url: str
    width: int
    height: int
    requests: list = field(default_factory=list)
    console_errors: list = field(default_factory=list)
    load_seconds: float = 0.0
    _by_id: dict = field(default_factory=dict)

    def send(self, method, params=None, timeout=30.0):
        return self.browser._connection.send(method, params, self.session, timeout)

    def _absorb(self, events):
        """Records requests and errors from protocol events; returns whether
        the load event was among them."""
        loaded = False
        for method, params in events:
            if method == "Page.loadEventFired":
                loaded = True
            elif method == "Network.requestWillBeSent":
                request_id = params["requestId"]
                url = params["request"]["url"]
                if request_id in self._by_id:
                    # A redirect: the same id goes on to a new URL.
                    self._by_id[request_id].status = params.get("redirectResponse", {}).get(
                        "status", 0)
                record = Request(url, resource_type=params.get("type", ""))
                self._by_id[request_id] = record
                if not url.startswith("data:"):
                    self.requests.append(record)
            elif method == "Network.responseReceived":
                record = self._by_id.get(params["requestId"])
                if record:
                    response = params["response"]
                    record.status = response.get("status", 0)
                    record.from_cache = bool(response.get("fromDiskCache"))
            elif method == "Network.requestServedFromCache":
                record = self._by_id.get(params["requestId"])
                if record:
                    record.from_cache = True
            elif method == "Network.loadingFinished":
                record = self._by_id.get(params["requestId"])
                if record:
                    record.finished = True
            elif method == "Network.loadingFailed":
                record = self._by_id.get(params["requestId"])
                if record:
                    record.failed = params.get("errorText", "failed")
                    record.finished = True
            elif method == "Runtime.consoleAPICalled" and params.get("type") in ("error",
                                                                                "assert"):
                texts = []
                for arg in params.get("args", []):
                    texts.append(str(arg.get("value", arg.get("description", arg.get("type")))))
                self.console_errors.append("console.%s: %s" % (params["type"], " ".join(texts)))
            elif method == "Runtime.exceptionThrown":
                details = params.get("exceptionDetails", {})
                exception = details.get("exception", {})
                self.console_errors.append("exception: %s" % exception.get(
                    "description", details.get("text", "")))
            elif method == "Log.entryAdded":
                entry = params.get("entry", {})
                if entry.get("level") == "error":
                    text = "%s: %s" % (entry.get("source", "log"), entry.get("text", ""))
                    if entry.get("url"):
                        text += " (%s)" % entry["url"]
                    self.console_errors.append(text)
        return loaded

    def _in_flight(self):
        return [r for r in self._by_id.values() if not r.finished]

    def _navigate(self, url, timeout, idle_seconds):
        started = time.monotonic()
        deadline = started + timeout
        answer = self.send("Page.navigate", {"url": url}, timeout=timeout)
        if answer.get("errorText"):
            raise BrowserError("cannot load %s: %s" % (url, answer["errorText"]))
        loaded = False
        quiet_since = None
        while True:
            now = time.monotonic()
            if now > deadline:
                raise BrowserError("%s: no load and network idle within %gs (in flight: %s)" % (
                    url, timeout, [r.url for r in self._in_flight()]))
            if self._absorb(self.browser._connection.take_events(self.session)):
                loaded = True
            if loaded and not self._in_flight():
                quiet_since = quiet_since or now
                if now - quiet_since >= idle_seconds:
                    break
            else:
                quiet_since = None
            self.browser._connection.wait_for_event(0.05)
        # Web fonts and image decoding can still be pending after the network
        # is quiet; let the page settle as far as it says it has.
        self.evaluate("document.fonts ? document.fonts.ready.then(() => true) : true")
        self.load_seconds = time.monotonic() - started

    def evaluate(self, expression, timeout=30.0):
        """Runs `expression` in the page; awaits a promise; returns the value
        as JSON would carry it. Raises JavaScriptError when it throws."""
        answer = self.send("Runtime.evaluate", {
            "expression": expression, "returnByValue": True, "awaitPromise": True,
            "userGesture": False}, timeout=timeout)
        if "exceptionDetails" in answer:
            details = answer["exceptionDetails"]
            raise JavaScriptError(details.get("exception", {}).get(
                "description", details.get("text", "exception")))
        self._absorb(self.browser._connection.take_events(self.session))
        return answer.get("result", {}).get("value")

    def screenshot_png(self, full_page=True):
        """The rendered page as PNG bytes: the whole document when
        `full_page`, else the viewport."""
        params = {"format": "png", "fromSurface": True}
        if full_page:
            metrics = self.send("Page.getLayoutMetrics")
            size = metrics.get("cssContentSize") or metrics["contentSize"]
            params["clip"] = {"x": 0, "y": 0, "width": max(self.width, int(size["width"] + 0.5)),
                              "height": max(self.height, int(size["height"] + 0.5)), "scale": 1}
            params["captureBeyondViewport"] = True
        return base64.b64decode(self.send("Page.captureScreenshot", params, timeout=60.0)["data"])

    def screenshot(self, full_page=True):
        """The same picture as screenshot_png(), decoded."""
        return decode_png(self.screenshot_png(full_page))

    def close(self):
        connection = self.browser._connection
        try:
            connection.send("Target.closeTarget", {"targetId": self.target})
            connection.send("Target.disposeBrowserContext", {"browserContextId": self.context})
        except BrowserError:
            pass
        connection.take_events(self.session)


class Browser:
    """A headless Chromium process with a fresh profile folder, removed again
    by close()."""

    def __init__(self, executable=None, extra_flags=(), start_timeout=30.0):
        executable = executable or find_chromium()
        if not executable:
            raise BrowserError("chromium is not installed (apt-get install chromium)")
        self._profile = tempfile.mkdtemp(prefix="zp-chromium-")
        to_browser_r, to_browser_w = os.pipe()
        from_browser_r, from_browser_w = os.pipe()
        child_in, child_out = to_browser_r, from_browser_w

        def give_fds():
            # Runs in the child between fork and exec: its fd 3 reads the
            # commands, its fd 4 writes the answers. Both are moved above 4
            # first so that neither overwrites the other.
            high_in = os.dup2(child_in, 100)
            high_out = os.dup2(child_out, 101)
            os.dup2(high_in, 3)
            os.dup2(high_out, 4)

        command = [executable] + BASE_FLAGS + list(extra_flags) + [
            "--user-data-dir=" + self._profile, "about:blank"]
        self._log = open(os.path.join(self._profile, "chromium.log"), "wb")
        try:
            self._process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log,
                preexec_fn=give_fds, pass_fds=(3, 4))
        finally:
            os.close(to_browser_r)
            os.close(from_browser_w)
        self._connection = _Connection(from_browser_r, to_browser_w)
        try:
            self.version = self._connection.send("Browser.getVersion", timeout=start_timeout)
        except BrowserError:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def load(self, url, width=1280, height=800, timeout=30.0, idle_seconds=0.5,
             user_agent=None):
        """Opens `url` in a new browser context with a fixed viewport of
        width x height CSS pixels (device scale 1), waits for the load event
        and then until no request has been in flight for `idle_seconds`.
        Returns the Page; raises BrowserError on a failed navigation or when
        that does not happen within `timeout` seconds."""
        connection = self._connection
        context = connection.send("Target.createBrowserContext", {"disposeOnDetach": True})[
            "browserContextId"]
        target = connection.send("Target.createTarget", {
            "url": "about:blank", "browserContextId": context, "width": width,
            "height": height})["targetId"]
        session = connection.send("Target.attachToTarget", {"targetId": target,
                                                            "flatten": True})["sessionId"]
        page = Page(self, session, context, target, url, width, height)
        page.send("Page.enable")
        page.send("Network.enable")
        page.send("Runtime.enable")
        page.send("Log.enable")
        page.send("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        if user_agent:
            page.send("Network.setUserAgentOverride", {"userAgent": user_agent})
        connection.take_events(session)  # about:blank's
        try:
            page._navigate(url, timeout, idle_seconds)
        except BaseException:
            page.close()
            raise
        return page

    def close(self):
        process = getattr(self, "_process", None)
        if process and process.poll() is None:
            try:
                self._connection.send("Browser.close", timeout=5.0)
            except BrowserError:
                pass
            try:
                process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        if getattr(self, "_connection", None):
            self._connection.close()
        if getattr(self, "_log", None):
            self._log.close()
        shutil.rmtree(self._profile, ignore_errors=True)


def why_sites_cannot_run():
    """Why a test that serves a site on port 80 of a loopback address (the
    engine's downloads always use the scheme's default port) and loads it in
    Chromium cannot run here, or None when it can."""
    if not find_chromium():
        return "chromium is not installed (scripts/install-deps.sh installs it)"
    if os.geteuid() != 0:
        return "the site must be served on port 80, which needs root"
    return None


def loopback_address(kind):
    """A loopback address for this process, as the C++ tests make theirs:
    127.(kind<<6 | pid>>16 & 63).(pid>>8 & 255).(pid & 255). `kind` (0 to 3)
    tells apart the servers of one process; processes never share one."""
    pid = os.getpid()
    return "127.%d.%d.%d" % (((kind & 3) << 6) | ((pid >> 16) & 0x3F), (pid >> 8) & 0xFF,
                             pid & 0xFF)
