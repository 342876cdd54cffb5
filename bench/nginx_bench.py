"""Side-by-side benchmark of the nginx module, driven by bench/run-nginx-bench.sh.

One nginx serves, from the same root, the sample page plain (/plain/, nginx's
own gzip at level 1 when the client takes gzip) and through the module (/),
plus a static copy of a combined stylesheet next to its handler URL. wrk
measures each pair back to back in one run:

  latency     1 connection, 1 thread: p50 and p99 of the page warm (the
              module's added latency is the difference from plain), with
              the page memo (/) and without it (/no-memo/);
  throughput  16 connections, gzip accepted: pages per second;
  handlers    16 connections: CS.zp?ID against the same bytes as a file.

Usage: nginx_bench.py MODULE_SO [SECONDS]
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "tests", "nginx"))
import nginx_nodes as nodes  # noqa: E402

SITE = os.path.join(nodes.SOURCE_DIR, "testdata", "site")


def wrk(url, connections, seconds, gzip=True):
    args = ["wrk", "-t%d" % min(2, connections), "-c%d" % connections, "-d%ds" % seconds,
            "--latency", "--timeout", "10s", "-H", "User-Agent: " + nodes.BROWSER]
    if gzip:
        args += ["-H", "Accept-Encoding: gzip"]
    out = subprocess.run(args + [url], capture_output=True, text=True, check=True).stdout
    if "Non-2xx" in out or "Socket errors" in out:
        raise SystemExit("errors while measuring %s:\n%s" % (url, out))

    def ms(label):
        m = re.search(r"%s%%\s+([\d.]+)(us|ms|s)\b" % label, out)
        value = float(m.group(1))
        return value / 1000 if m.group(2) == "us" else value * 1000 if m.group(2) == "s" else value

    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))
    return {"p50": ms("50"), "p99": ms("99"), "rate": rate}


def main():
    module = sys.argv[1]
    seconds = int(sys.argv[2]) if len(sys.argv) > 2 else 10
    reason = nodes.why_cannot_run(module)
    if reason:
        raise SystemExit("cannot run: " + reason)
    scratch = tempfile.mkdtemp(prefix="zp-nginx-bench-")
    origin = front = None
    try:
        origin = nodes.Origin(SITE, nodes.address(0))
        www = os.path.join(origin.dir, "www")
        front = nodes.Front(
            module, os.path.join(scratch, "cache"), nodes.address(1), root=www, workers=2,
            settings="zelvarpack_server_address %s; zelvarpack_page_memo 10s;" % origin.address,
            location_extra="} location /plain/ { alias %s/; gzip on; gzip_min_length 0; "
                           "} location /no-memo/ { alias %s/; zelvarpack on; "
                           "zelvarpack_server_address %s; "
                           "} location /static/ { alias %s/;"
                           % (www, www, origin.address, scratch))
        page = front.url("/index.html")
        status, headers, body = nodes.get(page)  # cold: fills the cache
        css = [u for u in nodes.handler_urls(body) if u.startswith(b"CS.zp")]
        largest, size = None, -1
        for url in css:
            got = nodes.get(front.url("/" + url.decode()))[2]
            if len(got) > size:
                largest, size = url.decode(), len(got)
        with open(os.path.join(scratch, "same.css"), "wb") as f:
            f.write(nodes.get(front.url("/" + largest))[2])

        no_memo = front.url("/no-memo/index.html")
        nodes.get(no_memo)
        rows = []
        lat_plain = wrk(front.url("/plain/index.html"), 1, seconds)
        lat_module = wrk(page, 1, seconds)
        lat_no_memo = wrk(no_memo, 1, seconds)
        rows.append(("warm page, 1 connection: p50 ms", lat_plain["p50"], lat_module["p50"],
                     lat_no_memo["p50"]))
        rows.append(("warm page, 1 connection: p99 ms", lat_plain["p99"], lat_module["p99"],
                     lat_no_memo["p99"]))
        thr_plain = wrk(front.url("/plain/index.html"), 16, seconds)
        thr_module = wrk(page, 16, seconds)
        thr_no_memo = wrk(no_memo, 16, seconds)
        rows.append(("warm page, 16 connections, gzip: pages/s", thr_plain["rate"],
                     thr_module["rate"], thr_no_memo["rate"]))
        static = wrk(front.url("/static/same.css"), 16, seconds, gzip=False)
        handler = wrk(front.url("/" + largest), 16, seconds, gzip=False)
        rows.append(("%d-byte stylesheet, 16 connections: p50 ms" % size, static["p50"],
                     handler["p50"], None))
        rows.append(("%d-byte stylesheet, 16 connections: requests/s" % size, static["rate"],
                     handler["rate"], None))

        print("| measure | nginx plain (static file for the stylesheet) "
              "| module, page memo 10s (CS.zp for the stylesheet) | module, no page memo |")
        print("|---|---|---|---|")
        for name, a, b, c in rows:
            print("| %s | %.2f | %.2f | %s |" % (name, a, b, "-" if c is None else "%.2f" % c))
        print()
        for label, lat, thr in (("page memo", lat_module, thr_module),
                                ("no page memo", lat_no_memo, thr_no_memo)):
            print("%s: added latency p50 %.2f ms (goal <= 10), p99 %.2f ms (goal <= 30); "
                  "throughput module / plain gzip = %.3f (goal >= 0.5)"
                  % (label, lat["p50"] - lat_plain["p50"], lat["p99"] - lat_plain["p99"],
                     thr["rate"] / thr_plain["rate"]))
        print("handler / static file time per request = %.2f (goal <= 1.5)"
              % (static["rate"] / handler["rate"]))
        if front.crashes():
            raise SystemExit("nginx reported: %s" % front.crashes())
    finally:
        for server in (front, origin):
            if server:
                server.remove()
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    main()
