"""Downloads from servers that misbehave on purpose: endless bodies, a ".lzma" copy that decodes
to far more than its header says, slow and stalled transfers, a dead first mirror, a copy that
decodes to the wrong bytes. Each case ends with the message a user needs, nothing half-written in
the cache, and a peak memory that does not grow with what the server sends."""
import contextlib
import hashlib
import os
import re
import socket
import subprocess
import tempfile
import unittest

import ksharness
from fault_server import FaultServer

TIME = "/usr/bin/time"


def md5(data):
    return hashlib.md5(data).hexdigest()


@contextlib.contextmanager
def small_tmpfs(test, size):
    """A tmpfs of `size` bytes, or the test is skipped with the reason mount gave."""
    where = tempfile.mkdtemp(prefix="ksdeploy-tmpfs-")
    try:
        proc = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%d" % size, "tmpfs", where],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    except OSError as e:
        os.rmdir(where)
        raise unittest.SkipTest("cannot mount a tmpfs: %s" % e)
    if proc.returncode != 0:
        os.rmdir(where)
        raise unittest.SkipTest("cannot mount a tmpfs: %s" % proc.stdout.decode(errors="replace").strip())
    try:
        yield where
    finally:
        subprocess.run(["umount", where], check=False)
        os.rmdir(where)


def dead_port():
    """A port on 127.0.0.1 where nothing listens."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class HostileServerTest(ksharness.KsTestCase):
    # Peak memory a run may add over a good install of the same product. The bodies below are
    # larger than this, so a reader that holds a body in memory cannot stay under it.
    MEMORY_SLACK_KB = 40 * 1024

    def setUp(self):
        super().setUp()
        if not os.access(TIME, os.X_OK):
            self.skipTest("%s is missing (package time)" % TIME)
        self.files = {
            "a.txt": b"first file\n" * 100,
            "b.txt": b"second file\n" * 200,
            "big.bin": os.urandom(256 * 1024),
        }
        for name, data in self.files.items():
            self.write("app/" + name, data)
        items = self.publish("app", "www")
        # Plain copies beside the packed ones, so that fallbacks have something to find.
        for data in self.files.values():
            with open(os.path.join(items, md5(data)), "wb") as f:
                f.write(data)
        self.big = md5(self.files["big.bin"])

    def publish(self, app, www):
        """Describes folder `app` as www/1.xml and publishes its items with .lzma copies in
        www/items, which it returns."""
        items = self.path(www, "items")
        os.makedirs(items)
        r = self.run_ks("--generate", "type=directory", "path=" + self.path(app), "name=${TARGET}",
                        "product=App", "--save", "target=" + self.path(www, "1.xml"),
                        "--cache", "action=precache", "dir=" + self.path(app), "compress=true",
                        "targetdir=" + items)
        self.assertOk(r)
        return items

    def install(self, *bases, tmp=None, env=None):
        """Runs an install under /usr/bin/time with a fresh cache (in `tmp`, else a new folder) and
        a fresh target; returns the result and the peak RSS in KiB. self.cache is that cache."""
        report = self.path("time.txt")
        # A fresh target each time: what an earlier run installed would be cached from there.
        self.runs = getattr(self, "runs", 0) + 1
        self.target = self.path("target-%d" % self.runs)
        args = [TIME, "-v", "-o", report, ksharness.BIN, "--load", "file=" + self.path("www", "1.xml"),
                "--config", "TARGET=" + self.target, "--product", "action=install"]
        args += ["url=%s/items" % b for b in bases]
        tmp = tmp or self.path("tmp-%d" % self.runs)
        os.makedirs(tmp, exist_ok=True)
        self.cache = os.path.join(tmp, "Kestra Imaging", "Auto Update", "Cache")
        full_env = dict(self.env)
        full_env["TMPDIR"] = tmp
        full_env.update(env or {})
        proc = subprocess.run(args, cwd=self.work, env=full_env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=300)
        with open(report) as f:
            peak = int(re.search(r"Maximum resident set size \(kbytes\): (\d+)", f.read()).group(1))
        return ksharness.Result(proc), peak

    def baseline(self):
        """Peak memory of a good install from a well-behaved server (into a throw-away cache)."""
        with FaultServer(self.path("www")) as server:
            r, peak = self.install(server.url)
        self.assertOk(r)
        return peak

    def assertCacheClean(self):
        """Only whole items: every file's name is the digest of its content."""
        cache = self.cache
        for name in os.listdir(cache) if os.path.isdir(cache) else []:
            with open(os.path.join(cache, name), "rb") as f:
                self.assertEqual(name, md5(f.read()), "a partial file stayed in the cache")

    def assertFailsOn(self, r, *texts):
        self.assertFails(r)
        self.assertIn("error: Internal Error\n  item %s could not be fetched: " % self.big, r.err)
        self.assertIn("  cond[itemIsCached(inBufferId)]", r.err)
        for t in texts:
            self.assertIn(t, r.err)
        self.assertIn("...failed", r.out)

    def assertInstalled(self, r):
        self.assertOk(r)
        self.assertNotIn("error:", r.err)
        for name, data in self.files.items():
            with open(os.path.join(self.target, name), "rb") as f:
                self.assertEqual(data, f.read(), name)

    def test_endless_bodies_stop_at_the_disk_reserve(self):
        # The reserve is 1 GiB on a file system this small, so 64 MiB may be written.
        base = self.baseline()
        with small_tmpfs(self, (1 << 30) + (64 << 20)) as cache:
            cases = [
                ("plain", {"/items/%s.lzma" % self.big: "status:404", "/items/%s" % self.big: "endless"}),
                ("lzma of unknown size", {"/items/%s.lzma" % self.big: "endless-lzma",
                                          "/items/%s" % self.big: "status:404"}),
            ]
            for label, rules in cases:
                with self.subTest(label):
                    with FaultServer(self.path("www"), rules) as server:
                        r, peak = self.install(server.url, tmp=cache)
                    self.assertFailsOn(r, "No space left on device (", "MiB must stay free)")
                    self.assertCacheClean()
                    self.assertLess(peak, base + self.MEMORY_SLACK_KB)

    def test_bodies_larger_than_they_can_be(self):
        base = self.baseline()
        with self.subTest("lzma whose header states its size, then bytes without end"):
            rules = {"/items/%s.lzma" % self.big: "endless-lzma:%d" % (1 << 20), "/items/%s" % self.big: "status:404"}
            with FaultServer(self.path("www"), rules) as server:
                r, peak = self.install(server.url)
            limit = (1 << 20) + (1 << 17) + 65536 + 13
            self.assertFailsOn(r, "the body is larger than the %d bytes it can be" % limit)
            self.assertCacheClean()
            self.assertLess(peak, base + self.MEMORY_SLACK_KB)
        with self.subTest("lzma bomb: 64 MiB of zeros behind a header that says 1000 bytes"):
            rules = {"/items/%s.lzma" % self.big: "lzma-bomb:1000", "/items/%s" % self.big: "status:404"}
            with FaultServer(self.path("www"), rules) as server:
                r, peak = self.install(server.url)
            self.assertFailsOn(r, "lzma decompression: corrupt data")
            self.assertCacheClean()
            self.assertLess(peak, base + self.MEMORY_SLACK_KB)
        with self.subTest("a broken 64 MiB copy is read piece by piece, not whole"):
            rules = {"/items/%s.lzma" % self.big: "long-lzma:64", "/items/%s" % self.big: "status:404"}
            with FaultServer(self.path("www"), rules) as server:
                r, peak = self.install(server.url)
            self.assertFailsOn(r, "lzma decompression: corrupt data")
            self.assertCacheClean()
            self.assertLess(peak, base + self.MEMORY_SLACK_KB)
        with self.subTest("the bomb beside a good plain copy: the plain copy serves"):
            with FaultServer(self.path("www"), {"/items/%s.lzma" % self.big: "lzma-bomb"}) as server:
                r, peak = self.install(server.url)
            self.assertInstalled(r)
            self.assertLess(peak, base + self.MEMORY_SLACK_KB)
        with self.subTest("a body that runs on past its Content-Length is cut there"):
            rules = {"/items/*.lzma": "status:404", "/items/%s" % self.big: "overlong"}
            with FaultServer(self.path("www"), rules) as server:
                r, _ = self.install(server.url)
            self.assertInstalled(r)
            self.assertCacheClean()

    def test_slow_but_steady_succeeds_and_a_stall_fails(self):
        # 256 KiB in 16 KiB pieces every 200 ms: about three seconds, never two without a byte.
        slow = {"/items/%s.lzma" % self.big: "status:404", "/items/%s" % self.big: "slow:200"}
        with FaultServer(self.path("www"), slow) as server:
            r, _ = self.install(server.url, env={"KSDEPLOY_STALL_TIMEOUT_MS": "2000"})
        self.assertInstalled(r)
        # The optional limit on a whole transfer still ends it.
        with FaultServer(self.path("www"), slow) as server:
            r, _ = self.install(server.url,
                                env={"KSDEPLOY_STALL_TIMEOUT_MS": "2000", "KSDEPLOY_DOWNLOAD_TIMEOUT_MS": "1000"})
        self.assertFailsOn(r, "the content does not match its digest (")
        self.assertIn("...timeout (", r.out)
        self.assertCacheClean()
        # Half the body, then nothing: ends after the stall limit, not after minutes.
        stall = {"/items/%s.lzma" % self.big: "status:404", "/items/%s" % self.big: "stall"}
        with FaultServer(self.path("www"), stall) as server:
            r, _ = self.install(server.url, env={"KSDEPLOY_STALL_TIMEOUT_MS": "1000"})
        self.assertFailsOn(r, "the content does not match its digest (")
        self.assertIn("...timeout (", r.out)
        self.assertCacheClean()

    def test_a_dead_first_mirror_is_asked_once(self):
        items = len(self.files)
        with self.subTest("nothing listens"):
            dead = "http://127.0.0.1:%d" % dead_port()
            with FaultServer(self.path("www")) as good:
                r, _ = self.install(dead, good.url)
            self.assertInstalled(r)
            self.assertEqual(1, r.out.count("download: %s/" % dead), r.out)
            self.assertEqual(1, r.out.count("%s/items did not answer and is skipped from now on" % dead), r.out)
        with self.subTest("connected, but no answer ever comes"):
            with socket.socket() as silent:
                silent.bind(("127.0.0.1", 0))
                silent.listen(8)
                mute = "http://127.0.0.1:%d" % silent.getsockname()[1]
                with FaultServer(self.path("www")) as good:
                    r, _ = self.install(mute, good.url,
                                        env={"KSDEPLOY_STALL_TIMEOUT_MS": "1000"})
                    asked_good = len(good.requests)
            self.assertInstalled(r)
            self.assertEqual(1, r.out.count("download: %s/" % mute), r.out)
            self.assertEqual(1, r.out.count("%s/items did not answer and is skipped from now on" % mute), r.out)
            self.assertGreaterEqual(asked_good, items)
        with self.subTest("answers, then stalls"):
            with FaultServer(self.path("www"), {"*": "stall:0"}) as stalled, FaultServer(self.path("www")) as good:
                r, _ = self.install(stalled.url, good.url,
                                    env={"KSDEPLOY_STALL_TIMEOUT_MS": "1000"})
                asked = list(stalled.requests)
            self.assertInstalled(r)
            self.assertEqual(1, len(asked), asked)

    def test_lzma_copy_of_wrong_bytes_falls_back_to_the_plain_copy_on_the_same_server(self):
        with FaultServer(self.path("www"), {"/items/%s.lzma" % self.big: "lzma-of-wrong"}) as server, \
                FaultServer(self.path("www"), {"*": "status:500"}) as second:
            r, _ = self.install(server.url, second.url)
            paths = [p for _, p, _, _ in server.requests]
            second_asked = list(second.requests)
        self.assertInstalled(r)
        self.assertIn("/items/%s" % self.big, paths)
        self.assertEqual([], second_asked)
        self.assertCacheClean()

    def test_a_packed_copy_larger_than_memory_holds_is_decoded_from_its_file(self):
        # Half noise, half zeros: the ".lzma" copy is worth publishing and still over 1 MiB, so its
        # body outgrows memory while it arrives and goes on in a file. No plain copy to fall back on.
        data = os.urandom(1536 * 1024) + bytes(1536 * 1024)
        self.write("large/large.bin", data)
        items = self.publish("large", "www-large")
        self.assertEqual([md5(data) + ".lzma"], os.listdir(items))
        self.assertGreater(os.path.getsize(os.path.join(items, md5(data) + ".lzma")), 1 << 20)
        target = self.path("target-large")
        with FaultServer(self.path("www-large")) as server:
            r = self.run_ks("--load", "file=" + self.path("www-large", "1.xml"), "--config", "TARGET=" + target,
                            "--product", "action=install", "url=%s/items" % server.url)
            asked = [p for _, p, _, _ in server.requests]
        self.assertOk(r)
        self.assertEqual(["/items/%s.lzma" % md5(data)], [p for p in asked if p.startswith("/items/")])
        with open(os.path.join(target, "large.bin"), "rb") as f:
            self.assertEqual(data, f.read())
        self.cache = os.path.join(self.env["TMPDIR"], "Kestra Imaging", "Auto Update", "Cache")
        self.assertEqual([md5(data)], os.listdir(self.cache))
        self.assertCacheClean()


if __name__ == "__main__":
    ksharness.main()
