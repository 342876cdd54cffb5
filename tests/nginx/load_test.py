"""The nginx module under load: 64 clients for 60 seconds on the sample page
(Debian's wrk), no error answers, and the workers' memory flat once warm.

Usage: load_test.py MODULE_SO   (exit 77: cannot run here)
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import nginx_nodes as nodes

MODULE = None
SITE = os.path.join(nodes.SOURCE_DIR, "testdata", "site")
SECONDS = 60
WARM_SECONDS = 15  # memory is compared from here to the end


def rss_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(re.search(r"VmRSS:\s+(\d+)", f.read()).group(1))


class LoadTest(unittest.TestCase):

    def test_sixty_four_clients_for_a_minute(self):
        scratch = tempfile.mkdtemp(prefix="zp-nginx-load-")
        self.addCleanup(shutil.rmtree, scratch, ignore_errors=True)
        origin = nodes.Origin(SITE, nodes.address(0))
        self.addCleanup(origin.remove)
        front = nodes.Front(MODULE, os.path.join(scratch, "cache"), nodes.address(1),
                            upstream=origin.address, workers=2,
                            settings="zelvarpack_thread_pool zelvarpack;",
                            main_extra="thread_pool zelvarpack threads=8;")
        self.addCleanup(front.remove)
        url = front.url("/index.html")
        self.assertEqual(nodes.get(url)[0], 200)  # cold: fills the cache

        workers = front.worker_pids()
        samples = {}

        def sample():
            time.sleep(WARM_SECONDS)
            samples["warm"] = {pid: rss_kib(pid) for pid in workers}
            time.sleep(SECONDS - WARM_SECONDS - 2)
            samples["end"] = {pid: rss_kib(pid) for pid in workers}

        sampler = threading.Thread(target=sample)
        sampler.start()
        run = subprocess.run(["wrk", "-t2", "-c64", "-d%ds" % SECONDS, "--latency", "--timeout", "10s",
                              "-H", "Accept-Encoding: gzip", "-H", "User-Agent: " + nodes.BROWSER,
                              url], capture_output=True, text=True, timeout=SECONDS + 60)
        sampler.join()
        print(run.stdout)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertNotIn("Non-2xx or 3xx responses", run.stdout)
        self.assertNotIn("Socket errors", run.stdout)
        requests = int(re.search(r"(\d+) requests in", run.stdout).group(1))
        self.assertGreater(requests, 64 * 10)

        self.assertEqual(sorted(front.worker_pids()), sorted(workers))  # none died
        for pid in workers:
            warm, end = samples["warm"][pid], samples["end"][pid]
            print("worker %d: %d KiB warm, %d KiB at the end" % (pid, warm, end))
            # Flat: at most 10% or 8 MiB more, whichever is larger.
            self.assertLess(end - warm, max(warm // 10, 8192), (pid, warm, end))
        fields = [line.split() for line in front.access_lines()]
        # wrk drops the requests still in flight when its time is up (499).
        cut = [f for f in fields if f[0] == "499"]
        self.assertLessEqual(len(cut), 64)
        answered = [f for f in fields if f[0] != "499"]
        self.assertTrue(all(f[0] == "200" for f in answered))
        # Overloaded, a page whose job waits too long goes out as it came
        # ("timeout"); most must still be optimised.
        outcomes = {}
        for f in answered:
            outcomes[f[2]] = outcomes.get(f[2], 0) + 1
        print("pages:", outcomes)
        self.assertLessEqual(set(outcomes), {"optimised", "timeout"})
        self.assertGreater(outcomes.get("optimised", 0), len(answered) // 2)
        front.stop()
        self.assertFalse(front.crashes())


def why_wrk_is_missing():
    if shutil.which("wrk"):
        return None
    return "wrk is not installed (scripts/install-deps.sh installs it)"


def main():
    return nodes.run_suite(globals(), why_wrk_is_missing)


if __name__ == "__main__":
    sys.exit(main())
