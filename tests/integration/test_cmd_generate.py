"""--generate type=directory: what a description can hold, and what it says about the rest."""
import os

import ksharness


class GenerateDirectoryTest(ksharness.KsTestCase):
    def test_links_hidden_and_special_entries_are_named_and_left_out(self):
        src = self.path("src")
        self.write("src/a.txt", "a")
        self.write("src/.hidden", "h")
        self.write("src/sub/d.txt", "d")
        self.write("src/.git/config", "c")
        self.write("outside/secret.txt", "s")
        os.symlink(self.path("outside/secret.txt"), os.path.join(src, "link.txt"))
        os.symlink(self.path("outside"), os.path.join(src, "linkdir"))
        os.symlink("/nonexistent", os.path.join(src, "broken"))
        os.mkfifo(os.path.join(src, "pipe"))
        r = self.run_ks("--generate", "type=directory", "path=" + src, "--save", "target=out.xml")
        self.assertOk(r)
        self.assertNoErrorOutput(r.err)
        lines = r.out.splitlines()
        scan = lines.index("scan: " + src)
        self.assertEqual(["  skipped .hidden (hidden)", "  found a.txt", "  skipped broken (symbolic link)",
                          "  skipped link.txt (symbolic link)", "  skipped pipe (special file)",
                          "  skipped .git (hidden)", "  skipped linkdir (symbolic link)",
                          "scan: " + os.path.join(src, "sub"), "  found d.txt"], lines[scan + 1:scan + 10])
        saved = self.read("out.xml").decode()
        for name in ("a.txt", "d.txt", "sub"):
            self.assertIn('Name="%s"' % name, saved)
        for name in (".hidden", "link.txt", "linkdir", "broken", "pipe", ".git", "secret.txt", "config"):
            self.assertNotIn('Name="%s"' % name, saved)

    def test_a_missing_folder_fails_with_its_path_and_reason(self):
        for name, reason in (("missing", "No such file or directory"), ("file.txt", "Not a directory")):
            with self.subTest(name=name):
                self.write("file.txt", "x")
                r = self.run_ks("--generate", "type=directory", "path=" + self.path(name), "--save", "target=o.xml")
                self.assertFails(r, 1)
                self.assertIn("error: Internal Error\n  %s: %s\n  cond[dir.exists()]" % (self.path(name), reason),
                              r.err)
                self.assertFalse(os.path.exists(self.path("o.xml")))


if __name__ == "__main__":
    ksharness.main()
