"""A product with files, a shell link, a desktop entry and its own uninstall entry, end to end:
published with standard tools, installed, checked by lnkinfo, desktop-file-validate and sqlite3,
verified, and removed again through --tool action=uninstallbypath, which runs the uninstall
command its entry names and returns once the entry has gone."""
import hashlib
import os
import shutil
import subprocess

import ksharness

FILES = {
    "bin/app": b"#!/bin/sh\necho app \"$@\"\n",
    "README.txt": b"read me\n",
}
UNINSTALL = "HKEY_CURRENT_USER\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall"


class RegistryProductTest(ksharness.KsTestCase):
    def setUp(self):
        super().setUp()
        for tool in ("lnkinfo", "desktop-file-validate", "sqlite3", "xz", "md5sum"):
            if shutil.which(tool) is None:
                self.fail("'%s' is missing (scripts/bootstrap.sh installs it)" % tool)
        self.store = self.path("registry.sqlite")
        self.env["KSDEPLOY_REGISTRY"] = self.store
        self.target = self.path("target")
        self.menu = self.path("menu")
        self.bin = os.path.abspath(ksharness.BIN)
        for rel, data in FILES.items():
            self.write("app/" + rel, data)
        os.chmod(self.path("app/bin/app"), 0o755)
        self.publish()
        self.describe()

    def publish(self):
        """Items named by md5sum and compressed by xz: nothing of ours on the publishing side."""
        os.makedirs(self.path("publish"))
        for rel in FILES:
            src = self.path("app", rel)
            with open(src, "rb") as f:
                digest = hashlib.md5(f.read()).hexdigest()
            with open(self.path("publish", digest + ".lzma"), "wb") as out:
                subprocess.run(["xz", "--format=lzma", "-c", src], stdout=out, check=True)

    def sql(self, query):
        r = subprocess.run(["sqlite3", "-readonly", self.store, query], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE)
        self.assertEqual(0, r.returncode, r.stderr)
        return r.stdout.decode()

    def uninstall_command(self):
        return "'%s' --load 'file=%s' --config 'TARGET=%s' --config 'MENU=%s' --product action=uninstall name=App" % (
            self.bin, self.path("product.xml"), self.target, self.menu)

    def describe(self):
        """The generated file graph plus shortcuts and registry resources, written into product.xml."""
        r = self.run_ks("--generate", "type=directory", "path=" + self.path("app"), "name=${TARGET}",
                        "product=App", "--save", "target=generated.xml")
        self.assertOk(r)
        d = ksharness.Description(self.path("generated.xml"))
        add, links = d.add, d.links
        product = d.found[("ResourceProduct", "App")]
        top = d.found[("ResourceFileDirectory", "${TARGET}")]
        program = d.found[("ResourceFileEntry", "app")]

        menu = add("ResourceFileDirectory", "${MENU}")
        for name in ("Start App.lnk", "start-app.desktop"):
            s = add("ResourceFileShortcut", name, menu, Args="--fast \"two words\"", Desc="Starts App")
            links.append((s, program, "Target"))
            links.append((s, top, "Directory"))

        def value(key, name, vtype, text):
            add("ResourceRegistryValue", name, key, Type=vtype, Value=text)

        uninstall = add("ResourceRegistryKey", UNINSTALL, delete=False)
        entry = add("ResourceRegistryKey", "KestraApp", uninstall)
        value(entry, "DisplayName", "TYPE_SZ", "Kestra App")
        value(entry, "InstallLocation", "TYPE_SZ", self.target)
        value(entry, "UninstallString", "TYPE_SZ", self.uninstall_command())
        value(entry, "EstimatedSize", "TYPE_DWORD", "42")
        software = add("ResourceRegistryKey", "HKEY_CURRENT_USER\\Software", delete=False)
        vendor = add("ResourceRegistryKey", "Kestra", software)
        settings = add("ResourceRegistryKey", "App", vendor)
        value(settings, "Window", "TYPE_BINARY", "0A0B0C0D")
        value(settings, "Paths", "TYPE_MULTI_SZ", "a\\0b")
        for key in (uninstall, software):
            links.append((product, key, "Registry"))
        d.save(self.path("product.xml"))

    def product(self, action, *extra):
        return self.run_ks("--load", "file=product.xml", "--config", "TARGET=" + self.target,
                           "--config", "MENU=" + self.menu, "--product", "action=" + action, *extra)

    def test_install_check_with_peers_verify_and_uninstall_by_path(self):
        r = self.product("install", "name=App", "url=file://" + self.path("publish"))
        self.assertOk(r)
        for rel, data in FILES.items():
            self.assertEqual(data, self.read("target/" + rel), rel)

        info = subprocess.run(["lnkinfo", os.path.join(self.menu, "Start App.lnk")], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
        out = info.stdout.decode("latin-1")
        self.assertEqual(0, info.returncode, out)
        for expected in ("Description\t\t\t: Starts App", "Local path\t\t\t: " + os.path.join(self.target, "bin/app"),
                         "Working directory\t\t: " + self.target,
                         "Command line arguments\t\t: --fast \"two words\""):
            self.assertIn(expected, out)
        check = subprocess.run(["desktop-file-validate", os.path.join(self.menu, "start-app.desktop")],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(0, check.returncode, check.stdout)
        self.assertEqual(b"", check.stdout.strip())

        rows = self.sql("SELECT k.name, v.name, v.type, hex(v.data) FROM registry_value v "
                        "JOIN registry_key k ON k.id = v.key ORDER BY k.name, v.name")
        self.assertIn("App|Paths|7|%s\n" % b"ab".hex().upper(), rows)
        self.assertIn("App|Window|3|0A0B0C0D\n", rows)
        self.assertIn("KestraApp|EstimatedSize|4|2A000000\n", rows)
        self.assertIn("KestraApp|InstallLocation|1|%s\n" % self.target.encode().hex().upper(), rows)

        self.assertOk(self.product("verify", "name=App"))

        r = self.run_ks("--tool", "action=uninstallbypath", "path=" + self.target + "/")
        self.assertOk(r)
        # The uninstaller has run, and the entry is gone: nothing of the product remains.
        self.assertFalse(os.path.exists(self.target))
        self.assertFalse(os.path.exists(self.menu))
        self.assertEqual("", self.sql("SELECT name FROM registry_key WHERE name IN ('KestraApp', 'Kestra', 'App')"))
        self.assertEqual("0\n", self.sql("SELECT count(*) FROM registry_value"))
        # Shared keys stay.
        self.assertEqual("Uninstall\n", self.sql("SELECT name FROM registry_key WHERE name = 'Uninstall'"))

        # Nothing names the folder any more: a clear failure, not a wait.
        r = self.run_ks("--tool", "action=uninstallbypath", "path=" + self.target)
        self.assertFails(r)
        self.assertIn("cond[listOfProductKeyPath.size()==1]", r.err)

    def test_failed_install_leaves_neither_files_nor_registry_entries(self):
        # One item is missing from the publish folder: the install fails and is rolled back.
        digest = hashlib.md5(FILES["README.txt"]).hexdigest()
        os.remove(self.path("publish", digest + ".lzma"))
        r = self.product("install", "name=App", "url=file://" + self.path("publish"))
        self.assertFails(r)
        self.assertFalse(os.path.exists(os.path.join(self.menu, "Start App.lnk")))
        if os.path.exists(self.store):
            self.assertEqual("", self.sql("SELECT name FROM registry_key WHERE name IN ('KestraApp', 'Kestra')"))


if __name__ == "__main__":
    ksharness.main()
