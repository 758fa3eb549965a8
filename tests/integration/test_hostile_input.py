"""Hostile and mistaken input: names that try to leave the install root, damaged and
entity-laden descriptions, a forgotten configuration value, and file-system faults that must
be reported with the path and the system's reason. After each case nothing outside the target
has changed and no partial file is left anywhere."""
import hashlib
import os
import resource
import shutil
import subprocess
import uuid

import ksharness


def md5(data):
    return hashlib.md5(data).hexdigest()


def uid():
    return "{%s}" % uuid.uuid4()


def attr(text):
    return (text.replace("&", "&amp;").replace('"', "&quot;").replace("<", "&lt;")
            .replace("\n", "&#10;").replace("\t", "&#9;"))


class Description:
    """A product description written by hand, so that any name can be put in it."""

    def __init__(self, root_name):
        self.lines = []
        self.product = uid()
        self.root = self.folder(root_name, None)
        self.lines.append('<ResourceProduct UUID="%s" Name="App"/>' % self.product)
        self.link(self.product, self.root, "Application")

    def link(self, source, target, name):
        self.lines.append('<Link Source="%s" Target="%s" Name="%s"/>' % (source, target, name))

    def folder(self, name, container):
        u = uid()
        self.lines.append('<ResourceFileDirectory UUID="%s" Name="%s"/>' % (u, attr(name)))
        if container:
            self.link(u, container, "Container")
        return u

    def file(self, name, container, data):
        u = uid()
        self.lines.append('<ResourceFileEntry UUID="%s" MD5="%s" Name="%s"/>' % (u, md5(data), attr(name)))
        self.link(u, container, "Container")
        return u

    def shortcut(self, name, container, target):
        u = uid()
        self.lines.append('<ResourceFileShortcut UUID="%s" Name="%s" Desc="d"/>' % (u, attr(name)))
        self.link(u, container, "Container")
        self.link(u, target, "Target")
        return u

    def key(self, name, container):
        u = uid()
        self.lines.append('<ResourceRegistryKey UUID="%s" Name="%s"/>' % (u, attr(name)))
        if container:
            self.link(u, container, "Container")
        else:
            self.link(self.product, u, "Registry")
        return u

    def value(self, name, container, text):
        u = uid()
        self.lines.append('<ResourceRegistryValue UUID="%s" Type="TYPE_SZ" Name="%s" Value="%s"/>'
                          % (u, attr(name), attr(text)))
        self.link(u, container, "Container")
        return u

    def xml(self):
        return ('<?xml version="1.0" encoding="UTF-8"?>\n<Deploy>\n    '
                + "\n    ".join(self.lines) + "\n</Deploy>\n")


class HostileCase(ksharness.KsTestCase):
    PAYLOAD = b"payload\n"

    def setUp(self):
        super().setUp()
        self.target = self.path("target")
        self.items = self.path("items")
        os.makedirs(self.items)
        self.publish(self.PAYLOAD)
        # A file outside the target that a hostile name would overwrite or delete.
        self.victim = self.write("victim.txt", b"precious\n")
        # The engine makes its maintenance folder on its first run; that is not what is watched.
        self.assertOk(self.run_ks("--config", "X=1"))

    def publish(self, data):
        with open(os.path.join(self.items, md5(data)), "wb") as f:
            f.write(data)

    def snapshot(self, with_cache=True):
        """The whole work folder but the target; with_cache: the maintenance folder too."""
        left_out = [self.target] + ([] if with_cache else [self.path("tmp", "Kestra Imaging")])
        return {p: c for p, c in ksharness.tree_snapshot(self.work).items()
                if not any(p == x or p.startswith(x + os.sep) for x in left_out)}

    def load_and(self, xml, action, *config, url=True):
        self.write("product.xml", xml)
        extra = ["url=file://" + self.items] if url and action == "install" else []
        return self.run_ks("--load", "file=product.xml", "--config", "TARGET=" + self.target, *config,
                           "--product", "action=" + action, "name=App", *extra)

    def assertNothingOutsideChanged(self, before, with_cache=True):
        after = self.snapshot(with_cache)
        for p in sorted(set(before) | set(after)):
            if p.endswith("product.xml"):
                continue
            self.assertEqual(before.get(p, "<absent>"), after.get(p, "<absent>"), p)

    def assertNoPartialFile(self):
        for p in ksharness.tree_snapshot(self.work):
            self.assertFalse(os.path.basename(p).endswith(".part"), p)

    def errors(self, result):
        return [line for line in result.err.splitlines() if line.startswith("error: ")]


class TraversalTest(HostileCase):
    """A name below a root is one path component; a root is an absolute path without '..'."""

    def refused_on_load(self, xml, name, cls):
        before = self.snapshot()
        for action in ("install", "uninstall", "verify"):
            r = self.load_and(xml, action)
            self.assertFails(r)
            errs = self.errors(r)
            self.assertTrue(any(e.startswith("error: refused name [%s] of %s {" % (name, cls)) for e in errs), r)
            self.assertIn("load: product.xml refused, nothing of it is kept", r.out)
            self.assertNothingOutsideChanged(before)
            self.assertFalse(os.path.exists(self.target), r)
        self.assertNoPartialFile()

    def test_file_names_that_leave_the_root_are_refused_on_load(self):
        cases = [("../victim.txt", "it holds '/'"),
                 ("sub/../../../victim.txt", "it holds '/'"),
                 (self.victim, "it holds '/'"),
                 ("..", 'it is ".."'),
                 (".", 'it is "."'),
                 ("a\\b", "it holds '\\'"),
                 ("line\nbreak", "control character 0x0a")]
        for name, why in cases:
            with self.subTest(name=name):
                d = Description("${TARGET}")
                d.file(name, d.root, self.PAYLOAD)
                self.refused_on_load(d.xml(), name.replace("\n", "\\x0a"), "ResourceFileEntry")
                r = self.load_and(d.xml(), "install")
                self.assertIn(why, r.err)
                self.assertEqual(b"precious\n", self.read("victim.txt"))

    def test_folder_shortcut_and_registry_names_are_refused_on_load(self):
        d = Description("${TARGET}")
        d.folder("../up", d.root)
        self.refused_on_load(d.xml(), "../up", "ResourceFileDirectory")

        d = Description("${TARGET}")
        f = d.file("tool", d.root, self.PAYLOAD)
        d.shortcut("../../tool.desktop", d.root, f)
        self.refused_on_load(d.xml(), "../../tool.desktop", "ResourceFileShortcut")

        d = Description("${TARGET}")
        d.key("Software\\..\\Other", d.key("HKEY_CURRENT_USER", None))
        self.refused_on_load(d.xml(), "Software\\..\\Other", "ResourceRegistryKey")

        d = Description("${TARGET}")
        d.value("tab\tname", d.key("Software", d.key("HKEY_CURRENT_USER", None)), "v")
        self.refused_on_load(d.xml(), "tab\\x09name", "ResourceRegistryValue")

        d = Description("${TARGET}/../outside")
        self.refused_on_load(d.xml(), "${TARGET}/../outside", "ResourceFileDirectory")

    def test_a_registry_value_name_may_hold_a_backslash(self):
        # Value names are no paths (Windows programs store file paths as value names).
        d = Description("${TARGET}")
        d.value("C:\\lib\\shared.dll", d.key("Software", d.key("HKEY_CURRENT_USER", None)), "1")
        r = self.load_and(d.xml(), "install")
        self.assertOk(r)

    def test_names_that_leave_the_root_through_a_value_are_refused_before_anything_is_touched(self):
        cases = [
            # (root name, file name, configuration, the name refused and what it became)
            ("${TARGET}", "${EVIL}", ["EVIL=../victim.txt"], "${EVIL}", "../victim.txt: is not one path component"),
            ("${TARGET}", "${EVIL}", ["EVIL=.."], "${EVIL}", '..: is not one path component (it is "..")'),
            ("${TARGET}", "${EVIL}", ["EVIL=" + self.victim], "${EVIL}", self.victim + ": is not one path"),
            ("${BASE}", "victim.txt", ["BASE=" + self.target + "/.."], "${BASE}",
             self.target + '/..: holds a ".." component'),
            ("${BASE}", "victim.txt", ["BASE=target"], "${BASE}", "target: is not an absolute path"),
        ]
        for root, name, config, refused, detail in cases:
            with self.subTest(config=config):
                d = Description(root)
                d.file(name, d.root, self.PAYLOAD)
                before = self.snapshot()
                for action in ("install", "uninstall", "verify"):
                    r = self.load_and(d.xml(), action, *config)
                    self.assertFails(r)
                    errs = self.errors(r)
                    self.assertEqual(1, len(errs), r)
                    self.assertTrue(errs[0].startswith("error: refused name [%s] of " % refused), r)
                    lines = r.err.splitlines()
                    self.assertTrue(lines[1].startswith("  " + detail), r)
                    # Plan first: nothing was fetched, no transaction began.
                    self.assertNotIn("Download", r.out)
                    self.assertNotIn("Transaction Begin", r.out)
                    self.assertNothingOutsideChanged(before)
                    self.assertEqual(b"precious\n", self.read("victim.txt"))
                self.assertNoPartialFile()

    def test_shortcut_and_registry_names_through_a_value(self):
        d = Description("${TARGET}")
        d.shortcut("${LINK}", d.root, d.file("tool", d.root, self.PAYLOAD))
        d.value("v", d.key("${KEY}", d.key("HKEY_CURRENT_USER", None)), "1")
        for config, refused, detail in [(["LINK=../tool.desktop", "KEY=Vendor"], "${LINK}", "../tool.desktop: is not"),
                                        (["LINK=tool.desktop", "KEY=Vendor\\..\\Other"], "${KEY}",
                                         "Vendor\\..\\Other: is not one path component (it holds '\\')")]:
            with self.subTest(config=config):
                before = self.snapshot()
                r = self.load_and(d.xml(), "install", *config)
                self.assertFails(r)
                self.assertEqual(1, len(self.errors(r)), r)
                self.assertTrue(self.errors(r)[0].startswith("error: refused name [%s] of " % refused), r)
                self.assertTrue(r.err.splitlines()[1].startswith("  " + detail), r)
                self.assertNothingOutsideChanged(before)
                self.assertFalse(os.path.exists(self.target))
        self.assertOk(self.load_and(d.xml(), "install", "LINK=tool.desktop", "KEY=Vendor"))
        self.assertTrue(os.path.exists(self.path("target/tool.desktop")))

    def test_an_installed_product_is_uninstalled_inside_its_root_only(self):
        d = Description("${TARGET}")
        d.file("victim.txt", d.folder("${SUB}", d.root), self.PAYLOAD)
        self.assertOk(self.load_and(d.xml(), "install", "SUB=sub"))
        self.assertEqual(self.PAYLOAD, self.read("target/sub/victim.txt"))
        before = self.snapshot()
        # The same description, with a value that would lead the uninstall outside the root.
        r = self.load_and(d.xml(), "uninstall", "SUB=..")
        self.assertFails(r)
        self.assertIn('  ..: is not one path component (it is "..")', r.err)
        self.assertNothingOutsideChanged(before)
        self.assertEqual(self.PAYLOAD, self.read("target/sub/victim.txt"))
        self.assertOk(self.load_and(d.xml(), "uninstall", "SUB=sub"))
        self.assertFalse(os.path.exists(self.path("target/sub/victim.txt")))
        self.assertEqual(b"precious\n", self.read("victim.txt"))


class MalformedDescriptionTest(HostileCase):
    def test_a_description_cut_anywhere_never_crashes_nor_writes_outside(self):
        for i in range(60):
            data = b"file %d\n" % i
            self.write("app/d%d/f%d.txt" % (i % 7, i), data)
            self.publish(data)
        self.assertOk(self.run_ks("--generate", "type=directory", "path=" + self.path("app"), "name=${TARGET}",
                                  "product=App", "--save", "target=full.xml"))
        full = self.read("full.xml")
        self.assertGreater(len(full), 5000)
        before = self.snapshot(with_cache=False)
        for cut in range(1000, len(full), 1000):
            self.write("product.xml", full[:cut])
            r = self.run_ks("--load", "file=product.xml", "--config", "TARGET=" + self.target,
                            "--product", "action=install", "name=App", "url=file://" + self.items)
            self.assertIn(r.code, (0, 1), "cut at %d: %r" % (cut, r))
            self.assertIn("XML error", r.out, cut)
            self.assertNotIn("AddressSanitizer", r.err)
            self.assertNothingOutsideChanged(before, with_cache=False)
            self.assertNoPartialFile()
            shutil.rmtree(self.target, ignore_errors=True)

    def test_entities_are_never_expanded(self):
        d = Description("${TARGET}")
        d.file("&e;", d.root, self.PAYLOAD)
        body = d.xml().split("\n", 1)[1].replace("&amp;e;", "&e;")
        laughs = "".join('<!ENTITY l%d "%s">' % (i, "&l%d;" % (i - 1) * 10) for i in range(1, 10))
        documents = {
            "declared": '<?xml version="1.0"?>\n<!DOCTYPE Deploy [<!ENTITY e "../victim.txt">]>\n' + body,
            "laughs": '<?xml version="1.0"?>\n<!DOCTYPE Deploy [<!ENTITY l0 "lol">%s<!ENTITY e "&l9;">]>\n'
                      % laughs + body,
            "external": '<?xml version="1.0"?>\n<!DOCTYPE Deploy [<!ENTITY e SYSTEM "file://%s">]>\n'
                        % self.victim + body,
            "undeclared": '<?xml version="1.0"?>\n' + body,
        }
        before = self.snapshot(with_cache=False)
        for what, xml in documents.items():
            with self.subTest(what):
                r = self.load_and(xml, "install")
                self.assertIn("XML error", r.out)
                if what == "undeclared":
                    # Read up to the reference: the folder and the product, never the file.
                    self.assertIn("desc: Entity 'e' not declared.", r.out)
                    self.assertOk(r)
                    self.assertEqual([], os.listdir(self.target))
                    shutil.rmtree(self.target)
                else:
                    # The declarations end the reading: nothing was read, there is no product.
                    self.assertIn("desc: document type declarations are not read (entities are never expanded)",
                                  r.out)
                    self.assertIn("load: product.xml [res: 0, lnk: 0]", r.out)
                    self.assertFails(r)
                    self.assertIn("cond[resProduct.isNotNull()]", r.err)
                    self.assertFalse(os.path.exists(self.target))
                self.assertNothingOutsideChanged(before, with_cache=False)
        # Any expansion of the laughs would have taken gigabytes.
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 512 * 1024)


class UnresolvedConfigurationTest(HostileCase):
    def test_a_forgotten_value_fails_once_before_anything_is_written(self):
        d = Description("${TARGET}")
        sub = d.folder("lib", d.root)
        for i in range(200):
            d.file("f%d" % i, sub, self.PAYLOAD)
        self.write("product.xml", d.xml())
        before = self.snapshot()
        for action in ("install", "uninstall", "verify"):
            with self.subTest(action):
                extra = ["url=file://" + self.items] if action == "install" else []
                r = self.run_ks("--load", "file=product.xml", "--product", "action=" + action, "name=App", *extra)
                self.assertFails(r)
                lines = r.err.splitlines()
                self.assertEqual(["error: Internal Error", "  ${TARGET}: no value for TARGET"], lines[:2], r)
                self.assertTrue(lines[2].startswith("  cond[isResolved(inoutExpression)] at "), r)
                self.assertEqual(1, len(self.errors(r)), r)
                self.assertEqual(1, r.out.count("resolve(): unable to resolve: [${TARGET}]"), r)
                self.assertNotIn("Download", r.out)
                self.assertNothingOutsideChanged(before)
                self.assertFalse(os.path.exists(self.path("${TARGET}")))
        self.assertNoPartialFile()

    def test_a_value_that_refers_to_itself_is_named(self):
        d = Description("${TARGET}")
        d.file("f", d.root, self.PAYLOAD)
        d = Description("${A}")
        d.file("f", d.root, self.PAYLOAD)
        r = self.load_and(d.xml(), "install", "A=${B}", "B=${A}")
        self.assertFails(r)
        self.assertRegex(r.err, r"\n  \$\{A\}: [AB] never settles \(its value leads back to itself\)\n")
        self.assertFalse(os.path.exists(self.target))


class FileSystemFaultTest(HostileCase):
    def product(self, root="${TARGET}"):
        d = Description(root)
        lib = d.folder("lib", d.root)
        d.file("a.txt", d.root, self.PAYLOAD)
        d.file("b.txt", lib, self.PAYLOAD)
        return d.xml()

    def second_line_after(self, result, message):
        lines = result.err.splitlines()
        self.assertIn(message, lines, result)
        return lines[lines.index(message) + 1]

    def mount_tmpfs(self, where, options):
        os.makedirs(where, exist_ok=True)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", where],
                          stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("mounting a file system needs privileges")
        self.addCleanup(subprocess.run, ["umount", where])

    def test_a_read_only_file_system(self):
        ro = self.path("ro")
        self.mount_tmpfs(ro, "ro,size=1m")
        self.target = os.path.join(ro, "target")
        before = self.snapshot(with_cache=False)
        r = self.load_and(self.product(), "install")
        self.assertFails(r)
        self.assertEqual("  %s: Read-only file system" % self.target, self.second_line_after(r, "error: Internal Error"))
        self.assertIn("  cond[qDir.mkpath(fullPath)] at ", r.err)
        self.assertNothingOutsideChanged(before, with_cache=False)
        self.assertNoPartialFile()

    def run_refused(self, path, calls, action, *extra):
        """Runs an action whose calls of the kind given on that one path fail with EACCES."""
        proc = subprocess.run(["strace", "-f", "-qq", "-o", "/dev/null", "-P", path, "-e",
                               "inject=%s:error=EACCES" % calls, ksharness.BIN, "--load", "file=product.xml",
                               "--config", "TARGET=" + self.target, "--product", "action=" + action, "name=App",
                               *extra], cwd=self.work, env=self.traced_env, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=300)
        return ksharness.Result(proc)

    def test_a_file_that_may_not_be_removed(self):
        if not shutil.which("strace"):
            self.skipTest("strace is missing")
        self.assertOk(self.load_and(self.product(), "install"))
        a = os.path.join(self.target, "a.txt")
        r = self.run_refused(a, "unlink,unlinkat", "uninstall")
        self.assertFails(r)
        self.assertEqual("  %s: Permission denied" % a, self.second_line_after(r, "error: failed to remove file '%s'" % a))
        self.assertEqual(self.PAYLOAD, self.read("target/a.txt"))
        self.assertEqual(self.PAYLOAD, self.read("target/lib/b.txt"))
        self.assertNoPartialFile()

    def test_permission_denied(self):
        if not shutil.which("strace"):
            self.skipTest("strace is missing")
        before = self.snapshot(with_cache=False)
        self.write("product.xml", self.product())
        lib = os.path.join(self.target, "lib")
        os.makedirs(self.target)
        # Only the creation of that one folder is refused, the way a folder without write
        # permission refuses it (root would not be refused by the mode).
        r = self.run_refused(lib, "mkdir", "install", "url=file://" + self.items)
        self.assertFails(r)
        self.assertEqual("  %s: Permission denied" % lib, self.second_line_after(r, "error: Internal Error"))
        self.assertNothingOutsideChanged(before, with_cache=False)
        self.assertEqual([], os.listdir(self.target))
        self.assertNoPartialFile()

    def test_a_file_where_a_folder_should_be(self):
        os.makedirs(self.target)
        self.write("target/lib", b"in the way\n")
        before = self.snapshot(with_cache=False)
        r = self.load_and(self.product(), "install")
        self.assertFails(r)
        self.assertEqual("  %s/lib: Not a directory" % self.target, self.second_line_after(r, "error: Internal Error"))
        self.assertEqual(b"in the way\n", self.read("target/lib"))
        self.assertNothingOutsideChanged(before, with_cache=False)
        self.assertNoPartialFile()

    def test_a_symbolic_link_as_install_root(self):
        os.makedirs(self.path("elsewhere"))
        os.symlink(self.path("elsewhere"), self.target)
        before = self.snapshot(with_cache=False)
        for action in ("install", "uninstall", "verify"):
            r = self.load_and(self.product(), action)
            self.assertFails(r)
            self.assertEqual(1, len(self.errors(r)), r)
            self.assertEqual("  %s: a symbolic link to %s; links are never followed" % (self.target, self.path("elsewhere")),
                             self.second_line_after(r, "error: refused to use a symbolic link as a folder"))
            self.assertNotIn("Download", r.out)
            self.assertEqual([], os.listdir(self.path("elsewhere")))
            self.assertNothingOutsideChanged(before, with_cache=False)

    def test_an_uninstall_refused_by_foreign_files_names_them(self):
        self.assertOk(self.load_and(self.product(), "install"))
        for name in ("g1", "g2", "g3", "g4", "g5", "g6", "g7"):
            self.write("target/lib/" + name, b"foreign\n")
        r = self.load_and(self.product(), "uninstall")
        self.assertFails(r)
        lib = os.path.join(self.target, "lib")
        self.assertEqual("  %s: Directory not empty, still holds g1, g2, g3, g4, g5, and 2 more" % lib,
                         self.second_line_after(r, "error: failed to remove dir '%s'" % lib))
        self.assertIn("uninstall:" + lib + "\n", r.out)
        # The failed uninstall was rolled back: the product is whole again.
        self.assertEqual(self.PAYLOAD, self.read("target/lib/b.txt"))
        self.assertNoPartialFile()

    def test_a_damaged_file_fails_verification_with_both_digests(self):
        self.assertOk(self.load_and(self.product(), "install"))
        self.write("target/a.txt", b"damaged\n")
        os.remove(self.path("target/lib/b.txt"))
        r = self.load_and(self.product(), "verify")
        self.assertFails(r)
        lines = r.err.splitlines()
        self.assertIn("  %s/a.txt: content differs (MD5 %s, expected %s)"
                      % (self.target, md5(b"damaged\n"), md5(self.PAYLOAD)), lines)
        self.assertIn("  cond[md5Scanned==bufferId().md5()]", "\n".join(lines))
        self.assertIn("  %s/lib/b.txt: No such file or directory" % self.target, lines)


if __name__ == "__main__":
    ksharness.main()
