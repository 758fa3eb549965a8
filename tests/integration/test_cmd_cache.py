"""--cache: precache files and folders into a cache directory, and clear it."""
import hashlib
import os
import subprocess

import ksharness


def md5(data):
    return hashlib.md5(data).hexdigest()


class CacheTest(ksharness.KsTestCase):
    def setUp(self):
        super().setUp()
        self.write("src/a.dll", b"alpha")
        self.write("src/b.txt", b"beta")
        self.write("src/sub/c.dll", b"gamma")
        self.write("single.bin", b"\0" * 3000)
        self.cache = self.path("cache")

    def items(self):
        return sorted(os.listdir(self.cache)) if os.path.isdir(self.cache) else []

    def test_precache_files_and_folders_with_filters(self):
        r = self.run_ks("--cache", "action=precache", "targetdir=" + self.cache, "file=" + self.path("single.bin"),
                        "dir=" + self.path("src"), "filter=*.dll")
        self.assertOk(r)
        self.assertEqual(sorted([md5(b"\0" * 3000), md5(b"alpha"), md5(b"gamma")]), self.items())
        with open(os.path.join(self.cache, md5(b"gamma")), "rb") as f:
            self.assertEqual(b"gamma", f.read())

    def test_compressed_copies_are_what_xz_reads(self):
        r = self.run_ks("--cache", "action=precache", "targetdir=" + self.cache, "dir=" + self.path("src"),
                        "compress=true")
        self.assertOk(r)
        copy = os.path.join(self.cache, md5(b"beta") + ".lzma")
        plain = subprocess.run(["xz", "--format=lzma", "-d", "-c", copy], stdout=subprocess.PIPE, check=True)
        self.assertEqual(b"beta", plain.stdout)

    def test_clear_removes_every_item(self):
        self.assertOk(self.run_ks("--cache", "action=precache", "targetdir=" + self.cache, "dir=" + self.path("src")))
        self.assertEqual(3, len(self.items()))
        self.assertOk(self.run_ks("--cache", "action=clear", "targetdir=" + self.cache))
        self.assertEqual([], self.items())

    def test_bad_action_and_missing_input(self):
        r = self.run_ks("--cache", "action=purge", "targetdir=" + self.cache)
        self.assertFails(r)
        self.assertIn("error: invalid action 'purge'\n  cond[false]", r.err)
        r = self.run_ks("--cache", "action=precache", "targetdir=" + self.cache, "file=" + self.path("absent.bin"))
        self.assertFails(r)
        self.assertIn(self.path("absent.bin"), r.err)
        r = self.run_ks("--cache", "targetdir=" + self.cache)
        self.assertFails(r)
        self.assertIn("command '--cache' requires the attribute 'action'", r.err)


if __name__ == "__main__":
    ksharness.main()
