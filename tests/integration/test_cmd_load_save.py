"""--load and --save: the pool to and from files, compressed copies, Graphviz pictures, URLs."""
import os
import shutil
import subprocess
import sys

import ksharness

sys.path.insert(0, os.path.join(ksharness.SOURCE_DIR, "tests", "servers"))


class LoadSaveTest(ksharness.KsTestCase):
    def _product(self):
        self.write("src/a.txt", "a")
        self.write("src/sub/b.txt", "b")
        r = self.run_ks("--generate", "type=directory", "path=" + self.path("src"), "name=${T}", "product=P",
                        "--save", "target=first.xml")
        self.assertOk(r)
        return self.path("first.xml")

    def test_load_then_save_gives_the_same_bytes(self):
        self._product()
        r = self.run_ks("--load", "file=first.xml", "--save", "target=second.xml")
        self.assertOk(r)
        self.assertEqual(self.read("first.xml"), self.read("second.xml"))
        self.assertIn("save\n  [second.xml]\n  [res: 5, lnk: 4]\n", r.out)

    def test_saved_file_is_well_formed_for_xmllint(self):
        self._product()
        if shutil.which("xmllint") is None:
            self.skipTest("xmllint is not installed (scripts/bootstrap.sh installs libxml2-utils)")
        lint = subprocess.run(["xmllint", "--noout", self.path("first.xml")], stderr=subprocess.PIPE)
        self.assertEqual(0, lint.returncode, lint.stderr)

    def test_gv_only_for_exact_true_and_dot_accepts_it(self):
        self._product()
        r = self.run_ks("--load", "file=first.xml", "--save", "target=upper.xml", "gv=TRUE")
        self.assertOk(r)
        self.assertFalse(os.path.exists(self.path("upper.xml.gv")))
        r = self.run_ks("--load", "file=first.xml", "--save", "target=g.xml", "gv=true")
        self.assertOk(r)
        if shutil.which("dot") is None:
            self.skipTest("graphviz 'dot' is not installed (scripts/bootstrap.sh installs it)")
        dot = subprocess.run(["dot", "-Tsvg", self.path("g.xml.gv"), "-o", self.path("g.svg")],
                             stderr=subprocess.PIPE)
        self.assertEqual(0, dot.returncode, dot.stderr)

    def test_compressed_copy_restores_with_xz(self):
        self._product()
        r = self.run_ks("--load", "file=first.xml", "--save", "target=c.xml", "compress=true")
        self.assertOk(r)
        plain = subprocess.run(["xz", "--format=lzma", "-d", "-c", self.path("c.xml.lzma")],
                               stdout=subprocess.PIPE, check=True).stdout
        self.assertEqual(self.read("c.xml"), plain)
        r = self.run_ks("--load", "file=first.xml", "--save", "target=n.xml", "compress=yes")
        self.assertFalse(os.path.exists(self.path("n.xml.lzma")))

    def test_a_plain_save_removes_the_stale_compressed_copy(self):
        # Clients take the .lzma first; an old one beside a new description would win.
        self._product()
        self.assertOk(self.run_ks("--load", "file=first.xml", "--save", "target=p.xml", "compress=true"))
        self.assertTrue(os.path.exists(self.path("p.xml.lzma")))
        r = self.run_ks("--save", "target=p.xml")
        self.assertOk(r)
        self.assertNoErrorOutput(r.err)
        self.assertFalse(os.path.exists(self.path("p.xml.lzma")))
        # A copy that cannot go away is a failure naming it, not a silent stale file.
        os.makedirs(self.path("q.xml.lzma", "inside"))
        r = self.run_ks("--save", "target=q.xml")
        self.assertFails(r, 1)
        self.assertIn("error: q.xml.lzma\n  q.xml.lzma: Is a directory\n", r.err)

    def test_load_replaces_the_pool_and_empty_load_empties_it(self):
        self._product()
        r = self.run_ks("--load", "file=first.xml", "--load", "file=first.xml", "--save", "target=twice.xml")
        self.assertOk(r)
        self.assertEqual(self.read("first.xml"), self.read("twice.xml"))
        r = self.run_ks("--load", "file=first.xml", "--load", "--save", "target=empty.xml")
        self.assertOk(r)
        self.assertIn("[res: 0, lnk: 0]", r.out)
        self.assertEqual(b'<?xml version="1.0" encoding="UTF-8"?>\n<Deploy/>\n', self.read("empty.xml"))

    def test_missing_file_fails_and_file_wins_over_url(self):
        r = self.run_ks("--load", "file=" + self.path("absent.xml"))
        self.assertFails(r)
        self.assertIn(self.path("absent.xml"), r.err)
        self._product()
        # The url is never tried when a file is given: this one would fail.
        r = self.run_ks("--load", "file=first.xml", "url=http://127.0.0.1:9/none.xml", "--save", "target=s.xml")
        self.assertOk(r)
        self.assertEqual(self.read("first.xml"), self.read("s.xml"))

    def test_load_from_a_url(self):
        from nginx_server import NginxServer
        self._product()
        os.makedirs(self.path("www"))
        shutil.copy(self.path("first.xml"), self.path("www", "product.xml"))
        with NginxServer(self.path("www")) as server:
            r = self.run_ks("--load", "url=%s/product.xml" % server.url, "--save", "target=fetched.xml")
            self.assertOk(r)
            self.assertEqual(self.read("first.xml"), self.read("fetched.xml"))
            r = self.run_ks("--load", "file=first.xml", "--load", "url=%s/missing.xml" % server.url,
                            "--save", "target=after.xml")
            self.assertFails(r)
            self.assertIn("Failed to download %s/missing.xml" % server.url, r.err)
        # No temporary download is left behind.
        self.assertEqual([], [n for n in os.listdir(self.tmp) if n.startswith("qt_temp")])


if __name__ == "__main__":
    ksharness.main()
