"""The client update end to end: the sample client published with the build-system plugin (nginx
serving the publish folder), installed, and updated by its real launcher through ksdeploy. The
launcher's engine hands the update to a copy of itself in a sandbox, which stages the new version
beside the installed one, exchanges the two folders and starts the new client. After every case
the application folder holds one whole version, the old or the new one, byte for byte.

The launcher's engine ends once it has started the update, but the launcher waits for the
sandboxed engine's outcome on a pipe: it exits 0 when the update was installed, 1 when it was not.
The started engine and client inherit the launcher's standard output, so a run whose output is
read to its end has also seen the update and the client end.
"""
import os
import re
import shutil
import sqlite3
import subprocess
import threading
import unittest
from contextlib import closing

import ksharness
from ksharness import wait_for
from ksdesktop import DesktopMixin
from fault_server import FaultServer
from nginx_server import NginxServer
from test_hostile_servers import small_tmpfs

BUILD_DIR = os.environ.get("KSDEPLOY_BUILD_DIR") or os.path.dirname(os.path.dirname(ksharness.BIN))
SAMPLE_DIR = os.path.join(BUILD_DIR, "sample")
UPDATE_FAILED = "Automatic update has failed.\nPlease install manually.\n"
PASSWORD = "S3cret-pw"
GUI_MISSING = [t for t in ("Xvfb", "xdpyinfo", "xdotool") if shutil.which(t) is None]


class UpdateCase(ksharness.KsTestCase):
    """Version 1.0.0.1 installed below home/.local/opt/Kestra/Client from www/client."""

    def recorded_versions(self):
        """The versions the installed product's records name: the uninstall entry's description
        beside the folder and the uninstall entry itself."""
        with open(self.app + ".xml", encoding="utf-8") as f:
            described = re.findall(r'Name="DisplayVersion" Value="([^"]*)"', f.read())
        with closing(sqlite3.connect("file:%s?mode=ro" % self.env["KSDEPLOY_REGISTRY"], uri=True)) as db:
            registered = [row[0] for row in db.execute(
                "SELECT CAST(v.data AS TEXT) FROM registry_value v JOIN registry_key k ON k.id = v.key "
                "WHERE k.name = 'KestraClient' AND v.name = 'DisplayVersion'")]
        return described, registered

    def setUp(self):
        super().setUp()
        self.env["KSDEPLOY_REGISTRY"] = self.path("registry.sqlite")
        self.report = self.path("report.txt")
        self.env["KSCLIENT_REPORT"] = self.report
        self.www = self.path("www", "client")
        os.makedirs(self.www)
        self.publish("1.0.0.1", {"data/kept.dat": b"kept\n" * 1000, "data/old.dat": b"only in 1\n"})
        self.install(self.path("home", ".local", "opt"))
        self.server = NginxServer(self.path("www"))
        self.server.start()
        self.addCleanup(self.server.stop)
        self.url = self.server.url + "/client"

    def install(self, target):
        """Installs what www/client holds below target as Kestra/Client."""
        self.target = target
        self.app = os.path.join(self.target, "Kestra", "Client")
        r = self.run_ks("--flags", "quiet=true", "--load", "file=%s/product.xml" % self.www,
                        "--config", "DIR_TARGET=" + self.target, "DIR_VENDOR=Kestra", "DIR_APPLICATION=Client",
                        "--product", "action=resolve", "confkey=DIR_TARGET", "confkey=DIR_VENDOR",
                        "confkey=DIR_APPLICATION",
                        "--product", "action=install", "url=file://%s/items" % self.www,
                        "--save", "target=" + self.app + ".xml")
        self.assertOk(r)
        self.v1 = ksharness.tree_snapshot(self.app)

    def publish(self, version, files, exit_status=None, extra=()):
        """Publishes a build of the sample client with files added; with exit_status the client
        fails its start with it."""
        build = self.path("build-" + version)
        os.makedirs(build)
        for name in ("ksclient.exe", "ksweblaunch.exe"):
            shutil.copy2(os.path.join(SAMPLE_DIR, name), build)
        self.write("build-%s/ksclient.version" % version, version + "\n")
        if exit_status is not None:
            self.write("build-%s/ksclient.exitstatus" % version, "%d\n" % exit_status)
        for rel, data in files.items():
            self.write("build-%s/%s" % (version, rel), data)
        previous = os.path.join(self.www, "product.xml")
        r = self.run_ks("--flags", "quiet=true", "--generate", "type=directory", "path=" + build,
                        "--plugin", "name=KestraClientBuildSystem",
                        "--generateProductXML", "name=KestraClient", "displayname=Kestra Client",
                        "version=" + version, "file=" + previous, "updateini=true", "optional=false",
                        "deployer=" + ksharness.BIN,
                        *(["previous=" + previous] if os.path.exists(previous) else []), *extra)
        self.assertOk(r)
        r = self.run_ks("--flags", "quiet=true", "--cache", "action=precache", "dir=" + build, "compress=true",
                        "targetdir=" + os.path.join(self.www, "items"))
        self.assertOk(r)
        return build

    def launch(self, env=None):
        launcher = os.path.join(self.app, "ksweblaunch.exe")
        env = dict(env or {})
        env.setdefault("KSCLIENT_STAY_SECONDS", "0")
        password = self.write("password", PASSWORD + "\n")
        return self.run_ks("--url", self.url, "--user", "bob", "--password-file", password, "--", "--project", "P",
                           binary=launcher, env=env)

    def client_report(self):
        if not os.path.exists(self.report):
            return None
        found = {"args": []}
        for line in self.read("report.txt").decode().splitlines():
            key, value = line.split("=", 1)
            if key == "arg":
                found["args"].append(value)
            else:
                found[key] = value
        return found

    def assertUnchanged(self, r, expected):
        """The update failed with expected on standard error, the old version is in place and
        its client was started. The launcher's own engine has ended well before: the failure is
        the sandboxed engine's, on the same output, and the launcher's exit status says it."""
        self.assertFails(r)
        self.assertIn(expected, r.err)
        self.assertIn(UPDATE_FAILED, r.out)
        self.assertEqual(self.v1, ksharness.tree_snapshot(self.app))
        report = self.client_report()
        self.assertIsNotNone(report, repr(r))
        self.assertEqual("1.0.0.1", report["version"])


class UpdateTest(UpdateCase):
    def test_update_to_the_new_version_and_the_client_restarted(self):
        build = self.publish("1.0.0.2", {"data/kept.dat": b"kept\n" * 1000, "data/new.dat": b"only in 2\n"})
        r = self.launch()
        self.assertOk(r)
        self.assertNoErrorOutput(r.err)
        report = self.client_report()
        self.assertIsNotNone(report, repr(r))
        self.assertEqual("1.0.0.2", report["version"])
        self.assertEqual(["--project", "P", "--start", "bob:%s@" % PASSWORD], report["args"])
        # The launch values handed to the sandboxed engine are not left on disk.
        for dirpath, _, filenames in os.walk(self.tmp):
            for name in filenames:
                with open(os.path.join(dirpath, name), "rb") as f:
                    self.assertNotIn(PASSWORD.encode(), f.read(), os.path.join(dirpath, name))
        self.assertEqual(ksharness.tree_snapshot(build),
                         {p.replace(self.app, build, 1): v for p, v in ksharness.tree_snapshot(self.app).items()})
        self.assertEqual(self.v1, {p.replace(self.app + ".previous", self.app, 1): v
                                   for p, v in ksharness.tree_snapshot(self.app + ".previous").items()})
        # The unchanged file is shared with the previous version; the new one is a file of its own.
        kept_now, kept_before = (os.stat(os.path.join(d, "data", "kept.dat"))
                                 for d in (self.app, self.app + ".previous"))
        self.assertEqual((kept_before.st_dev, kept_before.st_ino), (kept_now.st_dev, kept_now.st_ino))
        self.assertEqual(1, os.stat(os.path.join(self.app, "data", "new.dat")).st_nlink)
        # The unchanged file came from the old folder, not from the server.
        requests = "\n".join(q["request"] for q in self.server.requests())
        kept = subprocess.run(["md5sum", os.path.join(build, "data", "kept.dat")], stdout=subprocess.PIPE,
                              check=True).stdout.decode().split()[0]
        self.assertNotIn(kept, requests)
        # The uninstall entry's description follows the update.
        with open(self.app + ".xml") as f:
            self.assertIn("1.0.0.2", f.read())

    def test_a_new_client_that_fails_its_start_is_rolled_back(self):
        self.publish("1.0.0.2", {"data/kept.dat": b"changed\n"}, exit_status=3)
        r = self.launch()
        self.assertUnchanged(r, "error: the new client failed to start: '%s/ksclient.exe' ended with status 3"
                             % self.app)
        self.assertFalse(os.path.exists(self.app + ".staging"))
        # The old client runs again: no cache item may share a file with its folder.
        self.assertEqual([], self.cache_items_shared_with(self.app))

    def deploy_cache(self):
        return os.path.join(self.tmp, "Kestra Imaging", "Auto Update", "Cache", "DEPLOY_CACHE")

    def cache_items_shared_with(self, folder):
        inodes = {(st.st_dev, st.st_ino) for st in (os.stat(p) for p, v in ksharness.tree_snapshot(folder).items()
                                                    if isinstance(v, bytes))}
        cache = self.deploy_cache()
        return [name for name in (os.listdir(cache) if os.path.isdir(cache) else [])
                if (os.stat(os.path.join(cache, name)).st_dev, os.stat(os.path.join(cache, name)).st_ino) in inodes]

    def test_installed_files_that_changed_are_fetched_not_taken(self):
        kept = os.path.join(self.app, "data", "kept.dat")
        # An installed file changed in place, and an item a killed update left behind as a link
        # to another installed file that changed afterwards: neither may end up in the new version.
        with open(kept, "r+b") as f:
            f.write(b"KEPT")
        build = self.publish("1.0.0.2", {"data/kept.dat": b"kept\n" * 1000, "data/old.dat": b"only in 1\n",
                                         "data/new.dat": b"only in 2\n"})
        old = os.path.join(self.app, "data", "old.dat")
        digest = subprocess.run(["md5sum", old], stdout=subprocess.PIPE, check=True).stdout.decode().split()[0]
        os.makedirs(self.deploy_cache())
        os.link(old, os.path.join(self.deploy_cache(), digest))
        with open(old, "r+b") as f:
            f.write(b"ONLY")
        r = self.launch()
        self.assertOk(r)
        self.assertEqual("1.0.0.2", self.client_report()["version"])
        self.assertEqual(ksharness.tree_snapshot(build),
                         {p.replace(self.app, build, 1): v for p, v in ksharness.tree_snapshot(self.app).items()})
        requests = "\n".join(q["request"] for q in self.server.requests())
        self.assertIn(digest, requests)

    def test_a_program_using_the_folder_stops_the_update_without_a_display(self):
        self.publish("1.0.0.2", {"data/kept.dat": b"changed\n"})
        env = dict(self.env, KSCLIENT_STAY_SECONDS="60", KSCLIENT_REPORT=self.path("holder.txt"))
        holder = subprocess.Popen([os.path.join(self.app, "ksclient.exe")], cwd=self.work, env=env)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        r = self.launch()
        self.assertUnchanged(r, "error: the application folder '%s' is in use\n  ksclient.exe (pid %d)"
                             % (self.app, holder.pid))

    def test_a_full_disk_while_staging_changes_nothing(self):
        with small_tmpfs(self, 1024 * 1024) as where:
            self.install(where)
            self.publish("1.0.0.2", {"data/big.dat": os.urandom(2 * 1024 * 1024)})
            r = self.launch()
            self.assertUnchanged(r, "error: the new version could not be staged in '%s.staging'" % self.app)
            self.assertIn("No space left on device", r.err)
            self.assertEqual(["Kestra"], os.listdir(where))
            self.assertEqual(["Client", "Client.xml"], sorted(os.listdir(os.path.join(where, "Kestra"))))

    def test_a_server_lying_about_an_item_changes_nothing(self):
        build = self.publish("1.0.0.2", {"data/kept.dat": b"kept\n" * 1000, "data/new.dat": b"only in 2\n"})
        digest = subprocess.run(["md5sum", os.path.join(build, "data", "new.dat")], stdout=subprocess.PIPE,
                                check=True).stdout.decode().split()[0]
        items = os.path.join(self.www, "items")
        for name in os.listdir(items):
            if name.startswith(digest):
                os.remove(os.path.join(items, name))
        self.write(os.path.join(items, digest), b"other bytes\n")
        r = self.launch()
        self.assertUnchanged(r, "error: ")
        self.assertIn(digest, r.err)

    def test_an_older_description_is_refused_unless_the_server_wants_the_downgrade(self):
        self.publish("1.0.0.0", {"data/kept.dat": b"kept\n" * 1000})
        r = self.launch()
        self.assertUnchanged(r, "error: the published client is older than the installed one\n"
                                "  %s/product.xml: version 1.0.0.0, installed 1.0.0.1" % self.url)
        os.remove(self.report)
        with open(os.path.join(self.www, "update.ini"), "a") as f:
            f.write("DowngradeIsWanted=1\n")
        r = self.launch()
        self.assertOk(r)
        self.assertEqual("1.0.0.0", self.client_report()["version"])


class BrokenDownloadTest(UpdateCase):
    """The server stops sending a changed item half way: it holds the connection without a byte,
    or it goes away. The update fails after the stall limit, the installed client is as it was
    and starts, and nothing is left but what the next update clears away."""

    STALL_MS = 1500

    def setUp(self):
        super().setUp()
        build = self.publish("1.0.0.2", {"data/kept.dat": b"kept\n" * 1000, "data/big.dat": os.urandom(300000)})
        self.digest = subprocess.run(["md5sum", os.path.join(build, "data", "big.dat")], stdout=subprocess.PIPE,
                                     check=True).stdout.decode().split()[0]
        self.fault = FaultServer(self.path("www"))
        self.fault.start()
        self.addCleanup(self.fault.stop)
        self.url = self.fault.url + "/client"

    def launch_in_background(self):
        """The launch in a thread (its output is read to the end of the update and the client);
        returns the thread and the list that gets the result."""
        result = []
        env = {"KSDEPLOY_STALL_TIMEOUT_MS": str(self.STALL_MS)}
        thread = threading.Thread(target=lambda: result.append(self.launch(env)))
        thread.start()
        self.addCleanup(thread.join)
        # Run first: a held answer is let go, so a hanging update ends with the test.
        self.addCleanup(self.fault.stop)
        return thread, result

    def finished(self, thread, result):
        thread.join(60)
        self.assertFalse(thread.is_alive(), "the update still waits for the server")
        return result[0]

    def item_asked(self):
        return any(path.startswith("/client/items/" + self.digest) for _, path, _, _ in self.fault.requests)

    def assertNothingLeft(self, r):
        """The update failed on the item; the old version is in place and started; beside it only
        the uninstall entry's description, and no partial download anywhere."""
        self.assertUnchanged(r, "error: the new version could not be staged in '%s.staging'" % self.app)
        self.assertIn("item %s could not be fetched: " % self.digest, r.err)
        self.assertEqual(["Client", "Client.xml"], sorted(os.listdir(os.path.dirname(self.app))))
        partial = [os.path.join(d, f) for d, _, files in os.walk(self.tmp) for f in files if f.endswith(".part")]
        self.assertEqual([], partial)

    def test_a_server_that_stalls_mid_download_fails_the_update_after_the_stall_limit(self):
        self.fault.rule("/client/items/%s*" % self.digest, "stall:65536")
        r = self.finished(*self.launch_in_background())
        self.assertNothingLeft(r)
        self.assertIn("...timeout (", r.out)
        self.assertIn("Operation too slow", r.err)

    def test_a_server_that_goes_away_mid_download_fails_the_update(self):
        with self.subTest("the connection is closed after part of the body"):
            self.fault.rule("/client/items/%s*" % self.digest, "truncate:65536")
            self.assertNothingLeft(self.finished(*self.launch_in_background()))
            os.remove(self.report)
        with self.subTest("the server ends while it sends the body"):
            self.fault.rule("/client/items/%s*" % self.digest, "stall:65536")
            del self.fault.requests[:]
            thread, result = self.launch_in_background()
            wait_for(self.item_asked, "the changed item's download")
            self.fault.stop()
            r = self.finished(thread, result)
            self.assertNothingLeft(r)
            self.assertIn("Failed to connect to 127.0.0.1", r.err)


@unittest.skipIf(GUI_MISSING, "missing tools: %s (run scripts/bootstrap.sh)" % ", ".join(GUI_MISSING))
class InUseBoxTest(DesktopMixin, UpdateCase):
    def setUp(self):
        super().setUp()
        from test_progress_dialog import XServer
        self.x = XServer()
        self.addCleanup(self.x.stop)

    def launch_while_held(self):
        """Version 1.0.0.2 offered while a client of 1.0.0.1 keeps running from the folder; the
        launcher started on the X server and its update accepted. Returns (holder, launcher);
        the launcher's output goes to out.txt."""
        self.publish("1.0.0.2", {"data/kept.dat": b"changed\n"})
        env = dict(self.env, KSCLIENT_STAY_SECONDS="60", KSCLIENT_REPORT=self.path("holder.txt"))
        holder = subprocess.Popen([os.path.join(self.app, "ksclient.exe")], cwd=self.work, env=env)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        with open(self.path("out.txt"), "wb") as out:
            launcher = os.path.join(self.app, "ksweblaunch.exe")
            proc = subprocess.Popen([launcher, "--url", self.url], cwd=self.work, stdout=out, stderr=out,
                                    env=dict(self.env, KSCLIENT_STAY_SECONDS="0", DISPLAY=self.x.display))
        self.addCleanup(proc.wait)
        self.press("^Kestra Client Client Version Mismatch$", "Return")
        return holder, proc

    def test_abort_in_the_box_listing_the_programs_in_use_changes_nothing(self):
        holder, proc = self.launch_while_held()
        self.press("^Programs in use$", "Escape")
        self.press("^ksdeploy$", "Return")
        self.press("^Kestra Imaging$", "Escape")
        # The output ends with the engine that deployed and the client it started.
        wait_for(lambda: os.path.exists(self.report), "the old client's start")
        wait_for(lambda: not self.updates_running(), "the update's end")
        self.assertEqual(1, proc.wait(timeout=60))
        self.assertEqual(self.v1, ksharness.tree_snapshot(self.app))
        self.assertEqual("1.0.0.1", self.client_report()["version"])
        self.assertIn("error: the update was cancelled: the application folder '%s' is in use\n"
                      "  ksclient.exe (pid %d)\n" % (self.app, holder.pid), self.read("out.txt").decode())

    def test_retry_after_the_program_ended_updates(self):
        holder, proc = self.launch_while_held()
        wait_for(lambda: self.box("^Programs in use$"), "the box of programs in use")
        holder.kill()
        holder.wait()
        self.press("^Programs in use$", "Return")
        wait_for(lambda: os.path.exists(self.report), "the new client's start")
        wait_for(lambda: not self.updates_running(), "the update's end")
        self.assertEqual(0, proc.wait(timeout=60))
        self.assertEqual("1.0.0.2", self.client_report()["version"])
        self.assertEqual(self.v1, {p.replace(self.app + ".previous", self.app, 1): v
                                   for p, v in ksharness.tree_snapshot(self.app + ".previous").items()})
        self.assertNotIn("error", self.read("out.txt").decode())


class SignedUpdateTest(UpdateCase):
    """Version 1.0.0.1 carries the publisher's public key: descriptions must be signed."""

    def setUp(self):
        self.keys = {}
        super().setUp()

    def key(self, name):
        if name not in self.keys:
            private = self.path(name + ".pem")
            subprocess.run(["openssl", "genpkey", "-algorithm", "ed25519", "-out", private], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            public = self.path(name + ".pub.pem")
            subprocess.run(["openssl", "pkey", "-in", private, "-pubout", "-out", public], check=True)
            self.keys[name] = (private, public)
        return self.keys[name]

    def publish(self, version, files, exit_status=None, extra=()):
        public = self.key("publisher")[1]
        build = super().publish(version, files, exit_status, tuple(extra) + ("updatekey=" + public,))
        self.assertOk(self.run_ks("--flags", "quiet=true", "--cache", "action=precache", "file=" + public,
                                  "compress=true", "targetdir=" + os.path.join(self.www, "items")))
        self.sign("publisher")
        return build

    def test_the_key_is_installed_and_a_private_key_is_never_shipped(self):
        with open(self.key("publisher")[1], "rb") as f:
            self.assertEqual(f.read(), self.v1[os.path.join(self.app, "share", "ksdeploy", "update-key.pem")])
        for key, expected in ((self.key("publisher")[0], "holds a private key"),
                              (self.write("not-a-key.pem", "hello\n"), "error: cannot use the signing key")):
            r = self.run_ks("--flags", "quiet=true", "--generate", "type=directory", "path=build-1.0.0.1",
                            "--plugin", "name=KestraClientBuildSystem", "--generateProductXML", "name=KestraClient",
                            "version=1.0.0.2", "file=other.xml", "updatekey=" + key)
            self.assertFails(r)
            self.assertIn(expected, r.err)
            self.assertFalse(os.path.exists(self.path("other.xml")))

    def sign(self, name):
        description = os.path.join(self.www, "product.xml")
        subprocess.run(["openssl", "pkeyutl", "-sign", "-rawin", "-inkey", self.key(name)[0], "-in", description,
                        "-out", description + ".sig"], check=True)

    def test_a_description_without_a_valid_signature_is_refused(self):
        self.publish("1.0.0.2", {"data/kept.dat": b"changed\n"})
        signature = os.path.join(self.www, "product.xml.sig")
        signed = self.read(signature)
        os.remove(signature)
        cases = (("missing", None, "error: the product description is not signed\n  %s/product.xml.sig: "
                  % self.url),
                 ("wrong", b"\0" * 64, "error: the product description's signature is not valid\n"),
                 ("other key", "other", "error: the product description's signature is not valid\n"))
        for case, content, expected in cases:
            with self.subTest(case):
                if content == "other":
                    self.sign("other")
                elif content is not None:
                    self.write(signature, content)
                r = self.launch()
                self.assertFails(r)
                self.assertIn(expected, r.err)
                self.assertEqual(self.v1, ksharness.tree_snapshot(self.app))
        self.write(signature, signed)
        r = self.launch()
        self.assertOk(r)
        self.assertEqual("1.0.0.2", self.client_report()["version"])



SHOT_TOOLS = ("Xvfb", "xdpyinfo", "xdotool", "xclip", "xwd", "xwdtopnm", "pamdepth", "pnmtopng")
SHOT_MISSING = [t for t in SHOT_TOOLS if shutil.which(t) is None]


@unittest.skipIf(SHOT_MISSING, "missing tools: %s (run scripts/bootstrap.sh)" % ", ".join(SHOT_MISSING))
class UpdateDialogsTest(DesktopMixin, UpdateCase):
    """The windows of an update on a private X server, each taken as a screenshot into the
    "screens" folder of the work folder (kept when a test fails). A box's text is read the way a
    user copies it: Ctrl+C in the box puts its title, text and buttons on the clipboard."""

    def setUp(self):
        super().setUp()
        from test_progress_dialog import XServer
        self.x = XServer()
        self.addCleanup(self.x.stop)
        self.shots = 0

    def start_launcher(self, **env):
        out = open(self.path("out.txt"), "wb")
        self.addCleanup(out.close)
        launcher = os.path.join(self.app, "ksweblaunch.exe")
        proc = subprocess.Popen([launcher, "--url", self.url], cwd=self.work, stdout=out, stderr=out,
                                env=dict(self.env, DISPLAY=self.x.display, **env))

        def stop():
            if proc.poll() is None:
                proc.kill()
            proc.wait()
        self.addCleanup(stop)
        return proc

    def deploying_window(self, title):
        """The visible window whose title matches that belongs to the engine started from a
        sandbox (the one that runs the update)."""
        sandboxes = os.path.join(self.tmp, "Kestra Imaging", "Auto Update", "Sandboxes") + "/"
        for window in self.xtool("xdotool", "search", "--onlyvisible", "--name", "").split():
            if not re.search(title, self.xtool("xdotool", "getwindowname", window).rstrip("\n")):
                continue
            pid = self.xtool("xdotool", "getwindowpid", window).strip()
            try:
                if pid and os.readlink("/proc/%s/exe" % pid).startswith(sandboxes):
                    return window
            except OSError:
                pass
        return None

    def screenshot(self, window, name):
        """A PNG of the window in screens/; checked to be an image of the window's size that
        shows more than one colour."""
        from test_progress_dialog import Image
        xwd = subprocess.run(["xwd", "-silent", "-id", window], env=dict(self.env, DISPLAY=self.x.display),
                             stdout=subprocess.PIPE, check=True, timeout=60).stdout
        ppm = subprocess.run("xwdtopnm 2>/dev/null | pamdepth 255", shell=True, input=xwd, stdout=subprocess.PIPE,
                             check=True, timeout=60).stdout
        self.shots += 1
        os.makedirs(self.path("screens"), exist_ok=True)
        png = self.path("screens", "%02d-%s.png" % (self.shots, name))
        with open(png, "wb") as f:
            f.write(subprocess.run(["pnmtopng"], input=ppm, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   check=True).stdout)
        with open(png, "rb") as f:
            self.assertEqual(b"\x89PNG\r\n\x1a\n", f.read(8), png)
        image = Image(ppm)
        geometry = self.xtool("xdotool", "getwindowgeometry", "--shell", window)
        size = dict(line.split("=", 1) for line in geometry.split() if "=" in line)
        self.assertEqual((int(size["WIDTH"]), int(size["HEIGHT"])), (image.width, image.height), png)
        colours = {image.pixels[i:i + 3] for i in range(0, len(image.pixels), 3 * 97)}
        self.assertGreater(len(colours), 1, "%s is all one colour" % png)
        return image

    def box_text(self, window):
        """What Ctrl+C in the box copies, as its title, its text and its buttons."""
        self.xtool("xdotool", "windowfocus", "--sync", window)
        self.xtool("xdotool", "key", "ctrl+c")
        copied = wait_for(lambda: self.xtool("xclip", "-o", "-selection", "clipboard", "-t", "UTF8_STRING"),
                          "the box's text on the clipboard")
        parts = copied.split("-" * 27 + "\n")
        self.assertEqual(5, len(parts), copied)
        return parts[1].rstrip("\n"), parts[2].rstrip("\n"), parts[3].split()

    @staticmethod
    def close_enabled(image):
        """Whether the dialog's Close button (bottom right, in a frame) has a dark label: a
        disabled one is drawn grey."""
        drawn = (lambda x, y: max(image.at(x, y)) < 200)
        dark = (lambda x, y: max(image.at(x, y)) < 100)
        w, h = image.width, image.height
        rows = [y for y in range(h - 60, h) if sum(drawn(x, y) for x in range(w - 120, w)) > 50]
        if len(rows) < 2:
            return False
        top, bottom = rows[-2], rows[-1]
        frame = [x for x in range(w - 120, w) if drawn(x, top)]
        left, right = min(frame), max(frame)
        return sum(dark(x, y) for y in range(top + 2, bottom - 1) for x in range(left + 2, right - 1)) > 5

    def test_the_update_shows_its_progress_and_the_failure_box_of_a_rolled_back_client(self):
        self.publish("1.0.0.2", {"data/kept.dat": b"changed\n"}, exit_status=3)
        self.start_launcher(KSCLIENT_STAY_SECONDS="0")
        self.press("^Kestra Client Client Version Mismatch$", "Return")
        # The new client fails its start: the folders are exchanged back and the box tells the user,
        # over the progress dialog of the engine that ran the update.
        box = wait_for(lambda: self.deploying_window("^ksdeploy$"), "the failure box")
        dialog = self.deploying_window("^Kestra Imaging$")
        self.assertIsNotNone(dialog, "the engine that updates shows its progress")
        self.assertFalse(self.close_enabled(self.screenshot(dialog, "progress-during-the-update")),
                         "Close is disabled while the update runs")
        self.screenshot(box, "update-failed")
        self.assertEqual(("", "Automatic update has failed.\nPlease install manually.", ["OK"]), self.box_text(box))
        self.press("^ksdeploy$", "Return")
        # After the box the dialog stays, and may be closed.
        self.assertEqual(dialog, self.deploying_window("^Kestra Imaging$"), "the dialog stays after the box")
        wait_for(lambda: self.close_enabled(self.screenshot(dialog, "progress-after-the-failure")),
                 "Close to be enabled", limit=30)
        self.press("^Kestra Imaging$", "Escape")
        wait_for(lambda: not self.updates_running(), "the update's end")
        wait_for(lambda: os.path.exists(self.report), "the old client's start")
        self.assertEqual(self.v1, ksharness.tree_snapshot(self.app))
        self.assertEqual("1.0.0.1", self.client_report()["version"])
        self.assertIn("error: the new client failed to start: '%s/ksclient.exe' ended with status 3" % self.app,
                      self.read("out.txt").decode())

    def test_the_box_of_programs_in_use_lists_them_by_name_and_process_id(self):
        self.publish("1.0.0.2", {"data/kept.dat": b"changed\n"})
        env = dict(self.env, KSCLIENT_STAY_SECONDS="60", KSCLIENT_REPORT=self.path("holder.txt"))
        holder = subprocess.Popen([os.path.join(self.app, "ksclient.exe")], cwd=self.work, env=env)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        self.start_launcher(KSCLIENT_STAY_SECONDS="0")
        self.press("^Kestra Client Client Version Mismatch$", "Return")
        box = wait_for(lambda: self.deploying_window("^Programs in use$"), "the box of programs in use")
        dialog = self.deploying_window("^Kestra Imaging$")
        self.assertIsNotNone(dialog, "the engine that updates shows its progress")
        self.screenshot(dialog, "progress-while-programs-are-in-use")
        self.screenshot(box, "programs-in-use")
        title, text, buttons = self.box_text(box)
        self.assertEqual("Programs in use", title)
        self.assertEqual("ksclient.exe (pid %d)" % holder.pid, text.split("\n")[-1], text)
        self.assertEqual(["Retry", "Abort"], buttons)
        # Nothing is staged while the box waits for the answer.
        self.assertFalse(os.path.exists(self.app + ".staging"))
        self.assertEqual(self.v1, ksharness.tree_snapshot(self.app))
        holder.kill()
        holder.wait()
        self.press("^Programs in use$", "Return")
        wait_for(lambda: os.path.exists(self.report), "the new client's start")
        wait_for(lambda: not self.updates_running(), "the update's end")
        self.assertEqual("1.0.0.2", self.client_report()["version"])

if __name__ == "__main__":
    ksharness.main()
