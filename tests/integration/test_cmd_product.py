"""--product end to end: publish with standard tools, install from file:// URLs, verify, repair,
rescan, uninstall, and every failure rolled back file by file."""
import hashlib
import os
import stat
import subprocess

import ksharness


def md5(data):
    return hashlib.md5(data).hexdigest()


FILES = {
    "README.txt": b"readme\n",
    "bin/tool": b"#!/bin/sh\necho tool-ran \"$@\" > \"$(dirname \"$0\")/../ran.txt\"\n",
    "lib/data.bin": bytes(range(256)) * 400,
    "lib/deep/more.txt": b"more\n",
}


class ProductTest(ksharness.KsTestCase):
    def setUp(self):
        super().setUp()
        for rel, data in FILES.items():
            self.write("app/" + rel, data)
        os.chmod(self.path("app/bin/tool"), 0o755)
        self.target = self.path("target")
        self.items = self.path("publish")
        os.makedirs(self.items)
        r = self.run_ks("--generate", "type=directory", "path=" + self.path("app"), "name=${TARGET}",
                        "product=App", "--save", "target=product.xml")
        self.assertOk(r)

    def publish_with_standard_tools(self, compress):
        """Names from md5sum, copies from xz: nothing of ours on the publishing side."""
        out = subprocess.run(["md5sum"] + [self.path("app", rel) for rel in FILES], stdout=subprocess.PIPE,
                             check=True).stdout.decode()
        for line in out.splitlines():
            digest, path = line.split("  ", 1)
            dest = os.path.join(self.items, digest)
            if compress:
                with open(dest + ".lzma", "wb") as f:
                    subprocess.run(["xz", "--format=lzma", "-c", path], stdout=f, check=True)
            else:
                with open(path, "rb") as src, open(dest, "wb") as f:
                    f.write(src.read())

    def use_own_cache(self, name):
        """Runs from now on get an empty default cache of their own; returns its path."""
        tmp = self.path("tmp-" + name)
        os.makedirs(tmp)
        self.env["TMPDIR"] = tmp
        return os.path.join(tmp, "Kestra Imaging", "Auto Update", "Cache")

    def product(self, action, *extra):
        return self.run_ks("--load", "file=product.xml", "--config", "TARGET=" + self.target,
                           "--product", "action=" + action, *extra)

    def install(self, *extra):
        return self.product("install", "url=file://" + self.items, *extra)

    def assertInstalled(self):
        for rel, data in FILES.items():
            self.assertEqual(data, self.read("target/" + rel), rel)
        self.assertTrue(os.stat(self.path("target/bin/tool")).st_mode & stat.S_IXUSR)

    def test_install_verify_repair_rescan_uninstall_from_plain_and_lzma_copies(self):
        for compress in (False, True):
            with self.subTest(compress=compress):
                for n in os.listdir(self.items):
                    os.remove(os.path.join(self.items, n))
                self.publish_with_standard_tools(compress)
                # A cache of its own: with the plain round's items still cached, the .lzma
                # round would download (and decode) nothing.
                cache = self.use_own_cache("lzma" if compress else "plain")
                self.assertOk(self.install())
                self.assertInstalled()
                self.assertEqual(sorted(md5(data) for data in FILES.values()), sorted(os.listdir(cache)))
                self.assertOk(self.product("verify"))

                self.write("target/lib/data.bin", b"damaged")
                r = self.product("verify")
                self.assertFails(r)
                self.assertIn("error: Internal Error\n  %s: content differs (MD5 %s, expected %s)\n"
                              % (self.path("target/lib/data.bin"), md5(b"damaged"), md5(FILES["lib/data.bin"])), r.err)
                self.assertOk(self.install())
                self.assertInstalled()

                r = self.product("uninstall")
                self.assertOk(r)
                self.assertFalse(os.path.exists(self.target), ksharness.tree_snapshot(self.path()))

    def test_rescan_takes_over_the_installed_contents(self):
        self.publish_with_standard_tools(False)
        self.assertOk(self.install())
        self.write("target/README.txt", b"edited on the machine\n")
        r = self.run_ks("--load", "file=product.xml", "--config", "TARGET=" + self.target,
                        "--product", "action=rescan", "--save", "target=rescanned.xml")
        self.assertOk(r)
        self.assertIn(md5(b"edited on the machine\n"), self.read("rescanned.xml").decode())
        r = self.run_ks("--load", "file=rescanned.xml", "--config", "TARGET=" + self.target,
                        "--product", "action=verify")
        self.assertOk(r)

    def test_precache_into_a_publish_folder_and_install_from_it(self):
        r = self.run_ks("--load", "file=product.xml", "--config", "TARGET=" + self.path("app"),
                        "--product", "action=precache", "targetdir=" + self.path("mirror"), "compress=true")
        self.assertOk(r)
        mirror = os.listdir(self.path("mirror"))
        self.assertIn(md5(FILES["lib/data.bin"]) + ".lzma", mirror)
        # Too small for a copy to pay: published plain.
        self.assertIn(md5(FILES["README.txt"]), mirror)
        self.assertNotIn(md5(FILES["README.txt"]) + ".lzma", mirror)
        self.assertOk(self.product("install", "url=file://" + self.path("mirror")))
        self.assertInstalled()

    def test_urls_are_tried_in_order(self):
        self.publish_with_standard_tools(False)
        r = self.install_from("file://" + self.path("nowhere"), "file://" + self.items)
        self.assertOk(r)
        self.assertInstalled()
        self.assertLess(r.out.index(self.path("nowhere")), r.out.index(self.items + "/"))

    def install_from(self, *urls):
        return self.product("install", *["url=" + u for u in urls])

    def test_failed_install_puts_every_file_back(self):
        self.publish_with_standard_tools(False)
        # What was there before: an older README, a file of the user's, and no lib folder.
        self.write("target/README.txt", b"old readme\n")
        self.write("target/mine.txt", b"the user's own\n")
        before = ksharness.tree_snapshot(self.target)
        faults = {
            "missing item": lambda: os.remove(os.path.join(self.items, md5(FILES["lib/deep/more.txt"]))),
            "wrong bytes": lambda: self.write(os.path.join(self.items, md5(FILES["lib/deep/more.txt"])), b"x"),
        }
        for name, fault in faults.items():
            with self.subTest(fault=name):
                for n in os.listdir(self.items):
                    os.remove(os.path.join(self.items, n))
                self.publish_with_standard_tools(False)
                fault()
                r = self.install()
                self.assertFails(r)
                self.assertIn(md5(FILES["lib/deep/more.txt"]), r.err)
                self.assertIn("...failed", r.out)
                self.assertEqual(before, ksharness.tree_snapshot(self.target))

    def test_a_directory_or_link_where_a_file_must_go(self):
        self.publish_with_standard_tools(False)
        # Stops the install half way: what it wrote before goes, what it replaced comes back.
        self.write("target/mine.txt", b"the user's own\n")
        os.makedirs(self.path("target/README.txt"))
        before = ksharness.tree_snapshot(self.target)
        r = self.install()
        self.assertFails(r)
        self.assertEqual(before, ksharness.tree_snapshot(self.target))
        self.assertTrue(os.path.isdir(self.path("target/README.txt")))
        self.assertFalse(os.path.exists(self.path("target/lib")))
        os.rmdir(self.path("target/README.txt"))
        self.write("elsewhere.txt", b"not to be touched")
        for link_to in (self.path("elsewhere.txt"), self.path("nowhere.txt")):
            with self.subTest(link_to=link_to):
                if os.path.lexists(self.path("target/README.txt")):
                    os.remove(self.path("target/README.txt"))
                os.symlink(link_to, self.path("target/README.txt"))
                r = self.install()
                self.assertFails(r)
                self.assertEqual(b"not to be touched", self.read("elsewhere.txt"))
                self.assertFalse(os.path.lexists(self.path("nowhere.txt")))
                self.assertTrue(os.path.islink(self.path("target/README.txt")))

    def test_product_identification(self):
        r = self.run_ks("--load", "file=product.xml", "--product", "action=verify", "name=Other")
        self.assertFails(r)
        self.assertIn("error: no resources for product 'Other'\n  cond[resProduct.isNotNull()]", r.err)
        r = self.run_ks("--load", "file=product.xml", "--generate", "type=file",
                        "path=" + self.path("app/README.txt"), "product=Second", "--product", "action=verify")
        self.assertFails(r)
        self.assertIn("error: unable to identify product\n  cond[prods.size()==1]", r.err)
        r = self.product("explode")
        self.assertFails(r)
        self.assertIn("error: invalid action 'explode'\n  cond[false]", r.err)

    def test_invoke_starts_the_installed_program_with_its_arguments(self):
        self.publish_with_standard_tools(False)
        self.assertOk(self.install())
        r = self.product("invoke", "exename=tool", "exeargs=one 'two words'")
        self.assertOk(r)
        import time
        for _ in range(100):
            if os.path.exists(self.path("target/ran.txt")):
                break
            time.sleep(0.05)
        self.assertEqual(b"tool-ran one two words\n", self.read("target/ran.txt"))
        r = self.product("invoke", "exename=absent")
        self.assertFails(r)
        self.assertIn("absent", r.err)

class ToolTest(ksharness.KsTestCase):
    def test_sandboxremove_of_an_unknown_name_and_bad_action(self):
        r = self.run_ks("--tool", "action=sandboxremove", "name=nosuch")
        self.assertFails(r)
        r = self.run_ks("--tool", "action=polish")
        self.assertFails(r)
        self.assertIn("error: invalid action 'polish'\n  cond[false]", r.err)


if __name__ == "__main__":
    ksharness.main()
