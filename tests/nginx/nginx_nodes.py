"""Throw-away nginx servers on loopback for the module's tests.

Every server lives in a temporary folder of its own, listens on a loopback
address made from the test process's id (so parallel tests never collide),
runs as a real master with workers, and is stopped by the test.

    origin = Origin(site_dir)              # plain nginx on ADDRESS:80
    front = Front(module, cache, upstream=origin.address)
    front.url("/index.html")               # http://ADDRESS2:8080/index.html

The optimiser fetches a page's resources on port 80 (the engine's downloads
take the scheme's port), so an origin always listens on port 80; a front
takes port 8080 of its own address and names the origin with
zelvarpack_server_address.
"""

import gzip
import http.client
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "browser"))
import chromium  # noqa: E402  (loopback_address, the browser)

SKIP = 77


def why_cannot_run(module):
    if not shutil.which("nginx"):
        return "nginx is not installed"
    if not os.path.exists(module):
        return "the module is not built: %s" % module
    if os.geteuid() != 0:
        return "an origin must listen on port 80, which needs root"
    return None


def address(kind):
    return chromium.loopback_address(kind)


TEMPS = """client_body_temp_path {d}/temp/body; proxy_temp_path {d}/temp/proxy;
  fastcgi_temp_path {d}/temp/fastcgi; uwsgi_temp_path {d}/temp/uwsgi;
  scgi_temp_path {d}/temp/scgi;"""


class Server:
    """One nginx master with its workers, from a configuration body."""

    def __init__(self, name, http_body, main_extra="", workers=1, keep=None):
        self.dir = tempfile.mkdtemp(prefix="zp-nginx-%s-" % name, dir=keep)
        for sub in ("logs", "temp", "www"):
            os.makedirs(os.path.join(self.dir, sub), exist_ok=True)
        self.conf = os.path.join(self.dir, "nginx.conf")
        self.error_log = os.path.join(self.dir, "logs", "error.log")
        self.access_log = os.path.join(self.dir, "logs", "access.log")
        self.workers = workers
        self.main_extra = main_extra
        self.write(http_body)
        self.proc = subprocess.Popen(["nginx", "-p", self.dir, "-c", self.conf,
                                      "-e", self.error_log])
        self._wait_started()

    def write(self, http_body):
        user = "user root root;" if os.geteuid() == 0 else ""
        text = """{main_extra}
{user}
daemon off;
worker_processes {workers};
pid {d}/nginx.pid;
error_log {d}/logs/error.log info;
events {{ worker_connections 1024; }}
http {{
  include /etc/nginx/mime.types;
  log_format zp '$status $bytes_sent $zelvarpack_result $zelvarpack_bytes_before '
                '$zelvarpack_bytes_after $zelvarpack_requests_before '
                '$zelvarpack_requests_after "$request"';
  access_log {d}/logs/access.log zp;
  {temps}
  {body}
}}
""".format(main_extra=self.main_extra, user=user, workers=self.workers, d=self.dir,
           temps=TEMPS.format(d=self.dir), body=http_body)
        # The variables exist only where the module is loaded.
        if "load_module" not in self.main_extra:
            text = re.sub(r"log_format zp .*?;\n", "log_format zp '$status $bytes_sent "
                          "\"$request\"';\n", text, flags=re.S)
        with open(self.conf, "w") as f:
            f.write(text)

    def _wait_started(self):
        deadline = time.time() + 10
        pid_file = os.path.join(self.dir, "nginx.pid")
        while time.time() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("nginx ended at start:\n" + self.errors())
            if os.path.exists(pid_file) and len(self.worker_pids()) >= self.workers:
                return
            time.sleep(0.05)
        raise RuntimeError("nginx did not start:\n" + self.errors())

    def worker_pids(self):
        out = subprocess.run(["ps", "-o", "pid=", "--ppid", str(self.proc.pid)],
                             capture_output=True, text=True).stdout
        return [int(p) for p in out.split()]

    def reload(self):
        self.proc.send_signal(signal.SIGHUP)

    def errors(self):
        try:
            with open(self.error_log, errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def crashes(self):
        """Error-log lines that tell of a worker that died or of memory
        trouble."""
        return [line for line in self.errors().splitlines()
                if re.search(r"exited on signal|\[alert\]|\[emerg\]|core dumped", line)]

    def access_lines(self):
        try:
            with open(self.access_log) as f:
                return [line.rstrip("\n") for line in f]
        except OSError:
            return []

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGQUIT)
            try:
                self.proc.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()

    def remove(self):
        self.stop()
        shutil.rmtree(self.dir, ignore_errors=True)


class Origin(Server):
    """A plain nginx serving `site` (copied) on ADDRESS:80."""

    def __init__(self, site, addr, extra_locations="", keep=None):
        self.address = addr
        self._site = site
        self._extra = extra_locations
        super().__init__("origin", "", keep=keep)

    def write(self, http_body):
        if self._site:
            shutil.copytree(self._site, os.path.join(self.dir, "www"), dirs_exist_ok=True)
        body = """server {{
    listen {a}:80;
    root {d}/www;
    {extra}
  }}""".format(a=self.address, d=self.dir, extra=self._extra)
        super().write(body)


class Front(Server):
    """nginx with the module, on ADDRESS:8080, in front of `upstream` (an
    address whose port 80 serves the site) or of its own static root."""

    def __init__(self, module, cache, addr, upstream=None, root=None, settings="",
                 location_extra="", workers=1, keep=None, main_extra=""):
        self.address = addr
        self.cache = cache
        body = """zelvarpack_cache {cache};
  server {{
    listen {a}:8080;
    location / {{
      zelvarpack on;
      {settings}
      {content}
      {location_extra}
    }}
    location ~ /[CJI]S\\.zp$ {{
      zelvarpack_handlers;
    }}
  }}""".format(cache=cache, a=addr, settings=settings, location_extra=location_extra,
               content=("zelvarpack_server_address %s;\n      proxy_pass http://%s:80;"
                        % (upstream, upstream)) if upstream else "root %s;" % root)
        super().__init__("front", body, main_extra="load_module %s;\n%s" % (module, main_extra),
                         workers=workers, keep=keep)

    def url(self, path):
        return "http://%s:8080%s" % (self.address, path)


# The optimiser makes sprites only for browsers that can show them.
BROWSER = "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0"


def get(url, headers=None, method="GET", timeout=30):
    """(status, headers as a dict with lower-case names, body as sent); a
    browser's User-Agent unless `headers` name one."""
    headers = dict(headers or {})
    headers.setdefault("User-Agent", BROWSER)
    match = re.match(r"http://([^/:]+)(?::(\d+))?(/.*)", url)
    host, port, path = match.group(1), int(match.group(2) or 80), match.group(3)
    connection = http.client.HTTPConnection(host, port, timeout=timeout)
    try:
        connection.request(method, path, headers=headers)
        response = connection.getresponse()
        body = response.read()
        return response.status, {k.lower(): v for k, v in response.getheaders()}, body
    finally:
        connection.close()


def page_of(headers, body):
    """The page's bytes, decoded when the response was gzipped."""
    if headers.get("content-encoding") == "gzip":
        return gzip.decompress(body)
    return body


def handler_urls(page):
    return sorted(set(re.findall(rb"[CJI]S\.zp\?\{[0-9A-F-]{36}\}", page)))


def run_suite(suite_globals, *more_checks):
    """Runs the calling test file's unittest classes with the module path
    that CTest passes first, stored as the file's MODULE; 77 (skipped) when
    this machine cannot run them, with the reason."""
    import unittest
    module = sys.argv.pop(1)
    suite_globals["MODULE"] = module
    reason = why_cannot_run(module)
    for check in more_checks:
        reason = reason or check()
    if reason:
        print("skipped:", reason)
        return SKIP
    result = unittest.main(module=suite_globals["__name__"], exit=False, verbosity=2).result
    return 0 if result.wasSuccessful() else 1
