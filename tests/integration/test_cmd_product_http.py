"""--product against real HTTP servers: nginx serving a publish folder, and a server that
misbehaves on purpose. Upgrades fetch only what changed; every fault ends with a clear message,
exit status 1 and the machine as it was."""
import hashlib
import os
import shutil
import subprocess

import ksharness
from fault_server import FaultServer
from nginx_server import NginxServer


def md5(data):
    return hashlib.md5(data).hexdigest()


def md5_of(path):
    with open(path, "rb") as f:
        return md5(f.read())


class HttpProductTest(ksharness.KsTestCase):
    def make_version(self, version, changed):
        """Folder app-<version> of 100 files, the first `changed` of them differing per version;
        its description www/<version>.xml and its items as .lzma copies in www/items."""
        src = self.path("app-%d" % version)
        for i in range(100):
            data = ("file %d\n" % i).encode() * 50
            if i < changed:
                data += ("version %d\n" % version).encode()
            self.write("app-%d/d%d/f%d.txt" % (version, i % 7, i), data)
        os.makedirs(self.path("www", "items"), exist_ok=True)
        r = self.run_ks("--generate", "type=directory", "path=" + src, "name=${TARGET}", "product=App",
                        "--save", "target=" + self.path("www", "%d.xml" % version),
                        "--cache", "action=precache", "dir=" + src, "compress=true",
                        "targetdir=" + self.path("www", "items"))
        self.assertOk(r)
        return src

    def install(self, base, version, *extra, env=None):
        return self.run_ks("--load", "url=%s/%d.xml" % (base, version), "--config", "TARGET=" + self.path("target"),
                           "--product", "action=install", "url=%s/items" % base, *extra, env=env)

    def tree(self, root):
        found = {}
        for dirpath, _, filenames in os.walk(root):
            for name in filenames:
                with open(os.path.join(dirpath, name), "rb") as f:
                    found[os.path.relpath(os.path.join(dirpath, name), root)] = f.read()
        return found

    def test_upgrade_fetches_only_the_changed_items(self):
        v1 = self.make_version(1, 1)
        with NginxServer(self.path("www")) as server:
            self.assertOk(self.install(server.url, 1))
            self.assertEqual(self.tree(v1), self.tree(self.path("target")))
            first = len(server.requests())
            v2 = self.make_version(2, 1)
            self.assertOk(self.install(server.url, 2))
            self.assertEqual(self.tree(v2), self.tree(self.path("target")))
            items = [r["path"] for r in server.requests()[first:] if r["path"].startswith("/items/")]
        changed = md5_of(os.path.join(v2, "d0", "f0.txt"))
        self.assertEqual(["/items/%s.lzma" % changed], items)

    def test_items_published_with_standard_tools_only(self):
        src = self.make_version(1, 0)
        shutil.rmtree(self.path("www", "items"))
        os.makedirs(self.path("www", "items"))
        for dirpath, _, filenames in os.walk(src):
            for name in filenames:
                p = os.path.join(dirpath, name)
                digest = subprocess.run(["md5sum", p], stdout=subprocess.PIPE, check=True).stdout.split()[0]
                shutil.copy(p, self.path("www", "items", digest.decode()))
        with NginxServer(self.path("www")) as server:
            self.assertOk(self.install(server.url, 1))
            asked = [r["path"] for r in server.requests() if r["path"].startswith("/items/")]
        self.assertEqual(self.tree(src), self.tree(self.path("target")))
        # A folder without copies is found out after a few misses, not one miss per item.
        misses = [p for p in asked if p.endswith(".lzma")]
        self.assertEqual(100, len(asked) - len(misses))
        self.assertLessEqual(len(misses), 16, asked)

    def test_items_with_and_without_lzma_copies_side_by_side(self):
        # After a missing copy the plain file is asked for at once beside the next copy; where that
        # copy exists it must win, so plain files of packed items are served wrong here.
        src = self.make_version(1, 0)
        items = self.path("www", "items")
        for dirpath, _, filenames in os.walk(src):
            for name in filenames:
                digest = md5_of(os.path.join(dirpath, name))
                shutil.copy(os.path.join(dirpath, name), os.path.join(items, digest))
                if digest[0] in "01234567":
                    os.remove(os.path.join(items, digest + ".lzma"))
        with FaultServer(self.path("www"), {"/items/[89a-f]" + "?" * 31: "wrong"}) as server:
            self.assertOk(self.install(server.url, 1))
            asked = [p for _, p, _, _ in server.requests]
        self.assertEqual(self.tree(src), self.tree(self.path("target")))
        # Every packed item was asked for its copy, whatever the misses of its neighbours.
        packed = [p for p in asked if p.endswith(".lzma") and p[len("/items/")] in "89abcdef"]
        self.assertEqual(len(set(packed)), len([n for n in os.listdir(items) if n.endswith(".lzma")]), asked)

    def test_a_big_item_is_checked_while_it_arrives(self):
        # Past its first megabyte a download is hashed on a second thread: both verdicts must hold.
        big = os.urandom(3 * 1048576 + 7)
        self.write("app/big.bin", big)
        os.makedirs(self.path("www", "items"))
        shutil.copy(self.path("app", "big.bin"), self.path("www", "items", md5(big)))
        self.assertOk(self.run_ks("--generate", "type=directory", "path=" + self.path("app"), "name=${TARGET}",
                                  "product=App", "--save", "target=" + self.path("www", "1.xml")))
        cache = os.path.join(self.tmp, "Kestra Imaging", "Auto Update", "Cache")
        with FaultServer(self.path("www"), {"*/%s" % md5(big): "wrong"}) as server:
            r = self.install(server.url, 1)
        self.assertFails(r)
        self.assertIn("does not match", r.err)
        self.assertNotIn(md5(big), os.listdir(cache) if os.path.isdir(cache) else [])
        with NginxServer(self.path("www")) as server:
            self.assertOk(self.install(server.url, 1))
        self.assertEqual(big, self.tree(self.path("target"))["big.bin"])

    def test_faults_fail_clearly_and_leave_the_machine_as_it_was(self):
        src = self.make_version(1, 0)
        victim = md5_of(os.path.join(src, "d3", "f3.txt"))
        # A plain copy beside the .lzma one, so that faults of the plain route can be staged.
        shutil.copy(os.path.join(src, "d3", "f3.txt"), self.path("www", "items", victim))
        self.write("target/d3/f3.txt", b"what the user had\n")
        before = self.tree(self.path("target"))
        fast = {"KSDEPLOY_DOWNLOAD_TIMEOUT_MS": "1500"}
        cases = [
            ({"*/%s*" % victim: "status:404"}, "404"),
            ({"*/%s.lzma" % victim: "status:404", "*/%s" % victim: "wrong"}, "does not match"),
            ({"*/%s.lzma" % victim: "status:404", "*/%s" % victim: "truncate"}, victim),
            ({"*/%s*" % victim: "stall"}, victim),
            ({"*/%s.lzma" % victim: "status:500", "*/%s" % victim: "status:500"}, "500"),
        ]
        cache = os.path.join(self.tmp, "Kestra Imaging", "Auto Update", "Cache")
        for rules, expected in cases:
            with self.subTest(rules=rules):
                shutil.rmtree(cache, ignore_errors=True)
                with FaultServer(self.path("www"), rules) as server:
                    r = self.install(server.url, 1, env=fast)
                self.assertFails(r)
                self.assertIn(expected, r.err)
                self.assertIn("...failed", r.out)
                self.assertEqual(before, self.tree(self.path("target")))
                left = os.listdir(cache) if os.path.isdir(cache) else []
                self.assertNotIn(victim, left)
                # Nor any half-way file: every name left is an item's.
                self.assertEqual([], [n for n in left if len(n) != 32])

    def test_a_corrupt_lzma_copy_falls_back_to_the_plain_item(self):
        src = self.make_version(1, 0)
        victim = md5_of(os.path.join(src, "d2", "f2.txt"))
        shutil.copy(os.path.join(src, "d2", "f2.txt"), self.path("www", "items", victim))
        with FaultServer(self.path("www"), {"*/%s.lzma" % victim: "corrupt-lzma"}) as server:
            self.assertOk(self.install(server.url, 1))
        self.assertEqual(self.tree(src), self.tree(self.path("target")))


if __name__ == "__main__":
    ksharness.main()
