"""The build-system plugin publishes the client from a build output folder: version 1 is
published and installed from nginx, version 2 (published with previous= pointing at version 1)
drops files, and the upgrade removes them; the uninstall entry the product brings removes it
all again through --tool action=uninstallbypath. Bad attributes fail and write nothing."""
import os
import shutil
import subprocess

import ksharness
from nginx_server import NginxServer

V1 = {
    "bin/ksclient.exe": b"#!/bin/sh\necho client 1\n",
    "bin/ksweblaunch.exe": b"#!/bin/sh\necho launcher\n",
    "lib/old.dll": b"old library\n",
    "lib/gone/deep.dat": b"only in version 1\n",
    "lib/kept.dll": b"kept library\n",
    "read me.txt": b"version 1\n",
}
V2 = {
    "bin/ksclient.exe": b"#!/bin/sh\necho client 2\n",
    "bin/ksweblaunch.exe": b"#!/bin/sh\necho launcher\n",
    "lib/kept.dll": b"kept library\n",
    "lib/new.dll": b"new library\n",
    "read me.txt": b"version 2\n",
}
UNINSTALL = "HKEY_CURRENT_USER\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall"


class BuildSystemCase(ksharness.KsTestCase):
    def setUp(self):
        super().setUp()
        self.store = self.path("registry.sqlite")
        self.env["KSDEPLOY_REGISTRY"] = self.store
        os.makedirs(self.path("publish"))

    def build(self, files, folder="build"):
        shutil.rmtree(self.path(folder), ignore_errors=True)
        for rel, data in files.items():
            self.write(folder + "/" + rel, data)
            if rel.endswith(".exe"):
                os.chmod(self.path(folder, rel), 0o755)

    def publish(self, version, *extra, folder="build"):
        return self.run_ks("--flags", "quiet=true", "--generate", "type=directory", "path=" + folder,
                           "--plugin", "name=KestraClientBuildSystem",
                           "--generateProductXML", "name=KestraClient", "displayname=Kestra Client",
                           "version=" + version, "file=publish/product.xml", "deployer=" + ksharness.BIN,
                           *extra)

    def sql(self, query):
        r = subprocess.run(["sqlite3", "-readonly", self.store, query], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE)
        self.assertEqual(0, r.returncode, r.stderr)
        return r.stdout.decode()


class PublishInstallUpgradeTest(BuildSystemCase):
    def setUp(self):
        super().setUp()
        self.target = self.path("home", ".local", "opt")
        self.app = os.path.join(self.target, "Kestra", "Client")
        self.record = self.app + ".xml"
        self.menu_entry = self.path("home", ".local", "share", "applications", "KestraClient.desktop")

    def precache(self):
        self.assertOk(self.run_ks("--flags", "quiet=true", "--cache", "action=precache", "dir=build",
                                  "compress=true", "targetdir=publish/items"))

    def install(self, url):
        """What the client side runs: the folders' references resolved, installed, and the
        resolved description kept for the uninstall entry's command."""
        return self.run_ks("--flags", "quiet=true", "--load", "url=%s/product.xml" % url,
                           "--config", "DIR_TARGET=" + self.target, "DIR_VENDOR=Kestra", "DIR_APPLICATION=Client",
                           "--product", "action=resolve", "confkey=DIR_TARGET", "confkey=DIR_VENDOR",
                           "confkey=DIR_APPLICATION",
                           "--product", "action=install", "url=%s/items" % url,
                           "--save", "target=" + self.record)

    def verify(self):
        return self.run_ks("--flags", "quiet=true", "--load", "file=" + self.record, "--product", "action=verify")

    def installed(self):
        found = {}
        for dirpath, _, filenames in os.walk(self.app):
            for name in filenames:
                p = os.path.join(dirpath, name)
                with open(p, "rb") as f:
                    found[os.path.relpath(p, self.app)] = f.read()
        return found

    def test_publish_install_upgrade_verify_and_uninstall_by_path(self):
        self.build(V1)
        r = self.publish("1.0.0.1", "compress=true", "updateini=true")
        self.assertOk(r)
        self.assertEqual(b"VersionOfClientRecommended=1.0.0.1\nProduct=Kestra Client\nUpdateIsOptional=1\n",
                         self.read("publish/update.ini"))
        self.assertTrue(os.path.isfile(self.path("publish/product.xml.lzma")))
        self.precache()

        with NginxServer(self.path("publish")) as server:
            self.assertOk(self.install(server.url))
            self.assertEqual(V1, self.installed())
            self.assertTrue(os.access(os.path.join(self.app, "bin/ksclient.exe"), os.X_OK))
            with open(self.menu_entry) as f:
                entry = f.read()
            self.assertIn("Exec=%s/bin/ksweblaunch.exe\n" % self.app, entry)
            self.assertIn("Comment=Kestra Client\n", entry)
            rows = self.sql("SELECT v.name, CAST(v.data AS TEXT) FROM registry_value v JOIN registry_key k "
                            "ON k.id = v.key WHERE k.name = 'KestraClient' ORDER BY v.name")
            self.assertIn("DisplayName|Kestra Client\nDisplayVersion|1.0.0.1\nInstallLocation|%s\n" % self.app, rows)
            self.assertOk(self.verify())

            # Version 2 drops a file and a whole folder; the previous description is read from the
            # server before the new one replaces it at the same place.
            self.build(V2)
            r = self.publish("1.0.0.2", "previous=%s/product.xml" % server.url, "updateini=true",
                             "optional=false", "message=Please update.\\nThanks.")
            self.assertOk(r)
            self.assertEqual(b"VersionOfClientRecommended=1.0.0.2\nProduct=Kestra Client\nUpdateIsOptional=0\n"
                             b"UpdateMessage=Please update.\\nThanks.\n", self.read("publish/update.ini"))
            # No compressed copy of version 1 may stay beside the description of version 2.
            self.assertFalse(os.path.exists(self.path("publish/product.xml.lzma")))
            self.precache()
            self.assertOk(self.install(server.url))

        self.assertEqual(V2, self.installed())
        self.assertEqual("DisplayVersion|1.0.0.2\n", self.sql(
            "SELECT v.name, CAST(v.data AS TEXT) FROM registry_value v JOIN registry_key k ON k.id = v.key "
            "WHERE k.name = 'KestraClient' AND v.name = 'DisplayVersion'"))
        self.assertOk(self.verify())
        # A dropped file that comes back is noticed.
        self.write(os.path.join(self.app, "lib/old.dll"), b"old library\n")
        r = self.verify()
        self.assertFails(r)
        self.assertIn(os.path.join(self.app, "lib/old.dll") + ": present, where nothing may be", r.err)
        os.remove(os.path.join(self.app, "lib/old.dll"))

        r = self.run_ks("--flags", "quiet=true", "--tool", "action=uninstallbypath", "path=" + self.app)
        self.assertOk(r)
        self.assertFalse(os.path.exists(self.app))
        self.assertFalse(os.path.exists(self.menu_entry))
        self.assertEqual("", self.sql("SELECT name FROM registry_key WHERE name = 'KestraClient'"))
        self.assertEqual("0\n", self.sql("SELECT count(*) FROM registry_value"))
        self.assertEqual("Uninstall\n", self.sql("SELECT name FROM registry_key WHERE name = 'Uninstall'"))

    def test_previous_absences_are_carried_on(self):
        """A client that skips version 2 still loses what version 2 dropped."""
        self.build(V1)
        self.assertOk(self.publish("1.0.0.1"))
        shutil.copy(self.path("publish/product.xml"), self.path("v1.xml"))
        self.build(V2)
        self.assertOk(self.publish("1.0.0.2", "previous=v1.xml"))
        shutil.copy(self.path("publish/product.xml"), self.path("v2.xml"))
        v3 = dict(V2)
        del v3["lib/new.dll"]
        self.build(v3)
        self.assertOk(self.publish("1.0.0.3", "previous=v2.xml"))
        d = ksharness.Description(self.path("publish/product.xml"))
        absent = sorted(el.get("Name") for el in d.root if el.tag == "ResourceFileEntry" and el.get("Absence") == "true")
        self.assertEqual(["deep.dat", "new.dll", "old.dll"], absent)
        for el in d.root:
            if el.tag in ("ResourceFileEntry", "ResourceFileDirectory") and el.get("Name") != "${WIN_PROGRAMS}":
                self.assertEqual("true", el.get("DeleteOnUninstall"), el.get("Name"))


class BadInputTest(BuildSystemCase):
    def setUp(self):
        super().setUp()
        self.build(V1)
        self.assertOk(self.publish("1.0.0.1"))
        shutil.copy(self.path("publish/product.xml"), self.path("v1.xml"))
        # What an earlier publication left: a failed one must not touch it.
        self.write("publish/product.xml", b"earlier\n")
        self.write("publish/update.ini", b"VersionOfClientRecommended=1.0.0.0\n")

    def assertNothingWritten(self):
        self.assertEqual(b"earlier\n", self.read("publish/product.xml"))
        self.assertEqual(b"VersionOfClientRecommended=1.0.0.0\n", self.read("publish/update.ini"))
        self.assertFalse(os.path.exists(self.path("publish/product.xml.lzma")))

    def test_bad_attributes_fail_clearly_and_write_nothing(self):
        v1 = self.read("v1.xml")
        self.write("broken.xml", v1[:v1.index(b"<ResourceRegistryKey")])
        self.write("empty.xml", b"<?xml version='1.0'?>\n<Deploy/>\n")
        os.makedirs(self.path("adir"))
        cases = [
            (["version=1.2.3"], "invalid version '1.2.3'"),
            (["version=1.2.3.4.5"], "invalid version"),
            (["version=1.02.3.4"], "invalid version"),
            (["version=1.2.3.65536"], "invalid version"),
            (["version=1.2.3.x"], "invalid version"),
            (["version="], "invalid version ''"),
            (["version=1.2.3.4", "previous=missing.xml"], "previous description 'missing.xml' cannot be read"),
            (["version=1.2.3.4", "previous=adir"], "previous description 'adir' cannot be read"),
            # Cut off after the product and its application folder: still refused whole.
            (["version=1.2.3.4", "previous=broken.xml"], "previous description 'broken.xml' is not a whole XML"),
            (["version=1.2.3.4", "previous=build/read me.txt"], "'build/read me.txt' is not a whole XML document"),
            (["version=1.2.3.4", "previous=empty.xml"], "'empty.xml' holds no product 'KestraClient'"),
            (["version=1.2.3.4", "optional=yes"], "invalid value 'yes' of attribute 'optional'"),
            (["version=1.2.3.4", "message=two\nlines"], "invalid message"),
            (["version=1.2.3.4", "name=a/b"], "invalid product name 'a/b'"),
        ]
        for extra, message in cases:
            with self.subTest(extra=extra):
                args = ["--flags", "quiet=true", "--generate", "type=directory", "path=build",
                        "--plugin", "name=KestraClientBuildSystem", "--generateProductXML",
                        "file=publish/product.xml", "compress=true", "updateini=true", "deployer=ksdeploy"]
                if not any(a.startswith("name=") for a in extra):
                    args.append("name=KestraClient")
                r = self.run_ks(*(args + extra))
                self.assertFails(r)
                self.assertIn(message, r.err)
                self.assertNothingWritten()

    def test_a_previous_description_that_cannot_be_fetched_fails(self):
        os.makedirs(self.path("www"))
        with NginxServer(self.path("www")) as server:
            r = self.publish("1.0.0.2", "previous=%s/product.xml" % server.url, "updateini=true")
        self.assertFails(r)
        self.assertIn("product.xml", r.err)
        self.assertNothingWritten()

    def test_the_tree_must_be_a_client_build(self):
        v1 = dict(V1)
        del v1["bin/ksclient.exe"]
        self.build(v1, folder="noclient")
        r = self.publish("1.0.0.2", "updateini=true", folder="noclient")
        self.assertFails(r)
        self.assertIn("the folder tree holds no file 'ksclient.exe'", r.err)
        # A tree generated as a product of its own already.
        r = self.run_ks("--flags", "quiet=true", "--generate", "type=directory", "path=build", "product=Other",
                        "--plugin", "name=KestraClientBuildSystem", "--generateProductXML", "name=KestraClient",
                        "version=1.0.0.2", "file=publish/product.xml")
        self.assertFails(r)
        self.assertIn("already holds the product 'Other'", r.err)
        # No tree at all.
        r = self.run_ks("--flags", "quiet=true", "--plugin", "name=KestraClientBuildSystem",
                        "--generateProductXML", "name=KestraClient", "version=1.0.0.2", "file=publish/product.xml")
        self.assertFails(r)
        self.assertIn("holds no folder tree", r.err)
        self.assertNothingWritten()

    def test_command_line_checks(self):
        # The command exists only once its plugin is registered; its attributes are checked then.
        r = self.run_ks("--generateProductXML", "name=KestraClient", "version=1.0.0.2")
        self.assertFails(r, 2)
        self.assertIn("unknown command '--generateProductXML'", r.err)
        r = self.run_ks("--plugin", "name=KestraClientBuildSystem", "--generateProductXML", "name=KestraClient",
                        "version=1.0.0.2", "colour=red")
        self.assertFails(r, 2)
        self.assertIn("unknown attribute 'colour' of command '--generateProductXML'", r.err)
        r = self.run_ks("--plugin", "name=KestraClientBuildSystem", "--help", "command=generateProductXML")
        self.assertOk(r)
        self.assertTrue(r.out.startswith(
            "--generateProductXML\nGenerate the Resource Graph that describes the installation of the KestraCS\n"
            ".desktop client product.The command expects a Resource Graph to be loaded that reflects the "
            "content of\n"), r.out)
        self.assertIn("'--save'.\n\n       attribute   : name\n       occurrence  : once (required)\n", r.out)
        self.assertNothingWritten()


if __name__ == "__main__":
    ksharness.main()
