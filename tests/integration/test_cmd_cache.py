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

    def test_compressed_copies_are_what_xz_reads_and_only_where_they_pay(self):
        # Enough files that several are packed at once; the random ones and the tiny one would
        # not shrink by 5% and are published plain instead.
        packed = {"src/text%d.txt" % i: (b"line %d of a text that repeats\n" % i) * 400 for i in range(12)}
        plain = {"src/random%d.bin" % i: os.urandom(70000 + 300000 * i) for i in range(3)}
        plain["src/b.txt"] = b"beta"
        for name, data in list(packed.items()) + list(plain.items()):
            self.write(name, data)
        for _ in range(2):  # the second time finds everything published
            r = self.run_ks("--cache", "action=precache", "targetdir=" + self.cache, "dir=" + self.path("src"),
                            "compress=true")
            self.assertOk(r)
            self.assertEqual("", r.err)
            for data in packed.values():
                copy = os.path.join(self.cache, md5(data) + ".lzma")
                out = subprocess.run(["xz", "--format=lzma", "-d", "-c", copy], stdout=subprocess.PIPE, check=True)
                self.assertEqual(data, out.stdout)
                self.assertFalse(os.path.exists(os.path.join(self.cache, md5(data))))
            for data in plain.values():
                with open(os.path.join(self.cache, md5(data)), "rb") as f:
                    self.assertEqual(data, f.read())
                self.assertFalse(os.path.exists(os.path.join(self.cache, md5(data) + ".lzma")))
            self.assertEqual(2 + len(packed) + len(plain), len(self.items()), self.items())

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


class MaintenanceFolderTest(ksharness.KsTestCase):
    """The default cache lives below the user's temporary directory: $TMPDIR when it exists, else a
    per-user folder in /tmp that nobody else may have prepared. The /tmp cases run in a private
    mount namespace with a fresh tmpfs on /tmp, so the machine's /tmp is never touched."""

    def in_private_tmp(self, setup):
        uid = os.geteuid()
        # The program is opened before the fresh /tmp hides it (a checkout below /tmp) and run
        # through that descriptor.
        script = (
            "exec 7<'%s' || exit 98\n" % ksharness.BIN +
            "mount -t tmpfs -o mode=1777 kstmp /tmp || exit 99\n"
            "mkdir /tmp/home && printf data > /tmp/in.bin || exit 98\n"
            + setup +
            "\ncd / && env HOME=/tmp/home TMPDIR=/tmp/absent /proc/self/fd/7 --cache action=precache file=/tmp/in.bin\n"
            "echo \"rc=$?\"\n"
            "stat -c 'folder=%%a %%u %%F' /tmp/ksdeploy-%d\n"
            "ls '/tmp/ksdeploy-%d/Kestra Imaging/Auto Update/Cache' 2>/dev/null\n" % (uid, uid))
        proc = subprocess.run(["unshare", "-m", "sh", "-c", script], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, env=self.env, cwd="/")
        if proc.returncode in (99, 98) or b"unshare failed" in proc.stderr:
            self.skipTest("no private mount namespace here: %r" % proc.stderr)
        return proc.stdout.decode(), proc.stderr.decode()

    def test_missing_tmpdir_gives_a_private_per_user_folder(self):
        out, err = self.in_private_tmp("")
        uid = os.geteuid()
        self.assertIn("rc=0\n", out, err)
        self.assertIn("folder=700 %d directory\n" % uid, out)
        self.assertIn(md5(b"data"), out)
        self.assertNoErrorOutput(err)
        self.assertFalse(os.path.exists("/Kestra Imaging"))

    def test_a_per_user_folder_someone_else_prepared_is_refused(self):
        uid = os.geteuid()
        folder = "/tmp/ksdeploy-%d" % uid
        message = ("error: Failed to access maintenance directory [%s/Kestra Imaging/Auto Update]\n  %s: "
                   % (folder, folder))
        cases = [
            ("mkdir -m 700 %s && chown 12345 %s" % (folder, folder),
             "owned by uid 12345, not by uid %d (refused)" % uid, "700 12345 directory"),
            ("mkdir -m 755 %s" % folder, "mode 0755, others may enter it; expected 0700 (refused)",
             "755 %d directory" % uid),
            ("mkdir -m 700 /tmp/elsewhere && ln -s /tmp/elsewhere %s" % folder,
             "a symbolic link, not a directory (refused)", "777 %d symbolic link" % uid),
        ]
        for setup, reason, left in cases:
            with self.subTest(reason=reason):
                out, err = self.in_private_tmp(setup)
                self.assertIn("rc=1\n", out, err)
                self.assertIn(message + reason + "\n", err)
                # Left as it was: nothing written into it, its owner and mode unchanged.
                self.assertIn("folder=%s" % left, out)
                self.assertNotIn(md5(b"data"), out)

    def test_an_existing_tmpdir_is_used_as_it_is(self):
        self.write("in.bin", b"data")
        self.assertOk(self.run_ks("--cache", "action=precache", "file=" + self.path("in.bin")))
        self.assertTrue(os.path.exists(os.path.join(self.tmp, "Kestra Imaging", "Auto Update", "Cache", md5(b"data"))))


if __name__ == "__main__":
    ksharness.main()
