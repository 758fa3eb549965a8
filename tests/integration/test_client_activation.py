"""The client plugin end to end: a sample client published as a product, installed, and started
by its real launcher through ksdeploy (nginx serving the publish folder). Covers what the client
receives, the version question in its three forms (on a console, on a terminal and as boxes on
Xvfb, where the optional offer must not hold the client back), bad input, and that the password
is never shown.

The started client inherits ksdeploy's standard output, so a run whose output is read to its end
has also seen the client end: its report is there, or it was never started.
"""
import os
import pty
import select
import shutil
import subprocess
import unittest

import ksharness
from ksharness import wait_for
from ksdesktop import DesktopMixin
from nginx_server import NginxServer

BUILD_DIR = os.environ.get("KSDEPLOY_BUILD_DIR") or os.path.dirname(os.path.dirname(ksharness.BIN))
SAMPLE_DIR = os.path.join(BUILD_DIR, "sample")
PASSWORD = "Pa55-w0rd=kept:secret"
GUI_TOOLS = ("Xvfb", "xdpyinfo", "xdotool")
GUI_MISSING = [t for t in GUI_TOOLS if shutil.which(t) is None]
UPDATE_FAILED = "Automatic update has failed.\nPlease install manually.\n"


class ClientCase(ksharness.KsTestCase):
    """Version 1.2.3.4 of the sample client published in www/client and installed below
    target/Kestra/Client, with a password file for the launcher."""

    def setUp(self):
        super().setUp()
        app = self.path("app")
        os.makedirs(app)
        for name in ("ksclient.exe", "ksweblaunch.exe"):
            shutil.copy2(os.path.join(SAMPLE_DIR, name), app)
        self.write("app/ksclient.version", "1.2.3.4\n")
        self.publish = self.path("www", "client")
        os.makedirs(self.publish)
        r = self.run_ks("--flags", "quiet=true", "--generate", "type=directory", "path=" + app,
                        "name=${DIR_TARGET}/${DIR_VENDOR}/${DIR_APPLICATION}", "product=KestraClient",
                        "--save", "target=" + os.path.join(self.publish, "product.xml"),
                        "--cache", "action=precache", "dir=" + app, "targetdir=" + os.path.join(self.publish, "items"))
        self.assertOk(r)
        self.app = self.path("target", "Kestra", "Client")
        os.makedirs(os.path.dirname(self.app))
        r = self.run_ks("--flags", "quiet=true", "--load", "file=" + os.path.join(self.publish, "product.xml"),
                        "--config", "DIR_TARGET=" + self.path("target"), "DIR_VENDOR=Kestra", "DIR_APPLICATION=Client",
                        "--product", "action=install", "name=KestraClient",
                        "url=file://" + os.path.join(self.publish, "items"))
        self.assertOk(r)
        self.password_file = self.write("password", PASSWORD + "\n")
        self.report = self.path("report.txt")
        self.env["KSCLIENT_REPORT"] = self.report
        self.server = NginxServer(self.path("www"))
        self.server.start()
        self.addCleanup(self.server.stop)
        self.url = self.server.url + "/client"

    def launcher_args(self, *client_args, url=None):
        return [os.path.join(self.app, "ksweblaunch.exe"), "--url", url or self.url, "--server", "kestra.example",
                "--user", "bob", "--password-file", self.password_file] + (["--"] + list(client_args) if client_args else [])

    def launch(self, *client_args, url=None, stdin=b"", env=None):
        args = self.launcher_args(*client_args, url=url)
        r = self.run_ks(*args[1:], binary=args[0], stdin=stdin, env=env)
        self.assertNotIn(PASSWORD, r.out + r.err_raw)
        return r

    def update_ini(self, text):
        self.write("www/client/update.ini", text)

    def client_report(self):
        """What the started client wrote: its version, arguments and environment; None when no
        client was started."""
        if not os.path.exists(self.report):
            return None
        lines = self.read("report.txt").decode().splitlines()
        found = {"args": [], "env": []}
        for line in lines:
            key, value = line.split("=", 1)
            if key in ("arg", "env"):
                found[key + "s" if key == "arg" else key].append(value)
            else:
                found[key] = value
        return found


class ActivationTest(ClientCase):
    def test_launch_starts_the_installed_client_with_its_arguments_environment_and_credentials(self):
        r = self.launch("--start", "old:credentials@elsewhere", "--project", "Big one",
                        env={"KSCLIENT_STAY_SECONDS": "0"})
        self.assertOk(r)
        self.assertNoErrorOutput(r.err)
        report = self.client_report()
        self.assertIsNotNone(report, repr(r))
        self.assertEqual("1.2.3.4", report["version"])
        self.assertEqual(os.path.realpath(self.app), report["cwd"])
        # The launcher's own "--start" pair is replaced by ours, with the credentials last.
        self.assertEqual(["--project", "Big one", "--start", "bob:%s@kestra.example" % PASSWORD], report["args"])
        # The description came from the server, into the cache folder of its own.
        self.assertIn("GET /client/product.xml ", "\n".join(q["request"] for q in self.server.requests()))
        self.assertTrue(os.path.isfile(os.path.join(self.tmp, "Kestra Imaging", "Auto Update", "Cache", "DEPLOY_CACHE",
                                                    "product.xml")))
        # No update.ini on the server: no question.
        self.assertNotIn("Auto-Update", r.out)

    def test_launch_values_are_read_as_given_and_extra_environment_reaches_the_client(self):
        # ksdeploy run directly: argument 1 is missing, so collection stops after 0 (never passed
        # on); the environment entries are added to ours, a later one of a name replacing ours.
        r = self.run_ks("--flags", "quiet=true", "--config", "KSC_DIR_APP=" + self.app, "KSC_URL=" + self.url,
                        "KSC_USER=ann", "KSC_PASS=" + PASSWORD, "KSC_SERVER=srv", "KSC_ARG_0=/x/ksweblaunch.exe",
                        "KSC_ARG_2=--lost", "KSC_ENV_0=KSCLIENT_COLOR=blue", "KSC_ENV_1=KSCLIENT_REPORT=" + self.report,
                        "KSC_ENV_3=KSCLIENT_LOST=1", "--plugin", "name=KestraClient",
                        env={"KSCLIENT_REPORT": self.path("elsewhere.txt")})
        self.assertOk(r)
        self.assertNotIn(PASSWORD, r.out + r.err_raw)
        report = self.client_report()
        self.assertEqual(["--start", "ann:%s@srv" % PASSWORD], report["args"])
        self.assertIn("KSCLIENT_COLOR=blue", report["env"])
        self.assertNotIn("KSCLIENT_LOST=1", report["env"])

    def test_a_run_from_a_sandbox_has_that_sandbox_removed_by_the_next_start(self):
        sandbox = os.path.join(self.tmp, "Kestra Imaging", "Auto Update", "Sandboxes",
                               "{0b5c1c1e-7a2d-4c3e-9f00-1234567890ab}")
        os.makedirs(sandbox)
        shutil.copy2(ksharness.BIN, sandbox)
        r = self.launch(env={"KSDEPLOY": os.path.join(sandbox, "ksdeploy")})
        self.assertOk(r)
        self.assertIsNotNone(self.client_report())
        # The copy was in use: it goes at the next start, not at once.
        self.assertTrue(os.path.isdir(sandbox))
        self.assertOk(self.run_ks("--flags", "quiet=true", "--help", "command=plugin"))
        self.assertFalse(os.path.exists(sandbox))

    def test_a_plugin_name_in_another_case_is_no_plugin(self):
        r = self.run_ks("--flags", "quiet=true", "--plugin", "name=kestraclient")
        self.assertFails(r)
        self.assertIn("error: kestraclient\n  cond[plugin.isNotNull()]", r.err)

    def assertNothingStarted(self, r, expected):
        self.assertFails(r)
        self.assertIn(expected, r.err)
        self.assertNotIn(PASSWORD, r.out + r.err_raw)
        self.assertIsNone(self.client_report(), "a client was started")
        self.assertNotIn("Starting", r.out)

    def test_missing_folders_fail_before_anything_is_fetched(self):
        for app, expected in ((self.path("target", "Kestra", "Gone"),
                               "error: the application folder does not exist\n  %s: No such file or directory\n"
                               "  cond[dir_Application.exists()]" % self.path("target", "Kestra", "Gone")),
                              ("", "error: the application folder does not exist\n  KSC_DIR_APP: no folder given\n")):
            with self.subTest(app=app):
                r = self.run_ks("--flags", "quiet=true", "--config", "KSC_DIR_APP=" + app, "KSC_URL=" + self.url,
                                "KSC_PASS=" + PASSWORD, "--plugin", "name=KestraClient")
                self.assertNothingStarted(r, expected)
        self.assertEqual([], self.server.requests())

    def test_bad_server_answers_fail_with_their_message_and_start_nothing(self):
        description = os.path.join(self.publish, "product.xml")
        with open(description) as f:
            published = f.read()
        installed = ksharness.tree_snapshot(self.app)

        unreachable = "http://127.0.0.1:%d/client" % _free_port()
        r = self.launch(url=unreachable)
        self.assertNothingStarted(r, "error: Failed to download %s/product.xml\n" % unreachable)

        with open(description, "w") as f:
            f.write(published.replace('Name="ksclient.exe"', 'Name="other.exe"'))
        r = self.launch()
        self.assertNothingStarted(r, "error: the product description holds no 'ksclient.exe'\n  %s/product.xml\n"
                                     "  cond[exe.isNotNull()]" % self.url)
        with open(description, "w") as f:
            f.write(published)

        broken = {
            "line without =": ("# fine\nVersionOfClientRecommended=2.0.0.0\nUpdateIsOptional\n",
                               ", line 3: not a Key=Value line: UpdateIsOptional\n  cond[equals > 0]"),
            "unknown key": ("VersionOfClientRecomended=2.0.0.0\n",
                            ", line 1: unknown key 'VersionOfClientRecomended'\n  cond[replyKeyIsKnown(key)]"),
            "word as a flag": ("VersionOfClientRecommended=2.0.0.0\nUpdateIsOptional=yes\n",
                               ", line 2: UpdateIsOptional must be a decimal number, not 'yes'\n"
                               "  cond[!isFlag || sDecimal.match(value).hasMatch()]"),
            "not UTF-8": ("Product=Caf\xe9\n".encode("latin-1"), ": not UTF-8 text\n  cond[!decoder.hasError()]"),
        }
        for name, (text, detail) in broken.items():
            with self.subTest(name):
                self.update_ini(text)
                r = self.launch()
                self.assertNothingStarted(r, "error: the server's update.ini is not valid\n  %s/update.ini%s"
                                          % (self.url, detail))
        self.assertEqual(installed, ksharness.tree_snapshot(self.app))


def _free_port():
    import socket
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class VersionCheckTest(ClientCase):
    OPTIONAL = ("Product=Kestra\nUpdateIsOptional=1\nVersionOfClientRecommended=2.0.0.0\n"
                "UpdateMessage=Faster.\\nSmaller.\n")
    MANDATORY = ("# the server no longer speaks to 1.x\nProduct=Kestra\nUpdateIsOptional=0\n"
                 "VersionOfClientRecommended=2.0.0.0\nVersionsOfClientSupportedByServer=7\nVersionOfProtocolCurrent=6\n")

    def test_without_a_terminal_the_default_answer_is_taken(self):
        self.update_ini(self.OPTIONAL)
        r = self.launch()
        # Optional: the client starts first, then the update (the same files, so it only restarts
        # the client from the exchanged folder).
        self.assertOk(r)
        self.assertIn("Kestra Auto-Update\nA new client version is available.\n\nFaster.\nSmaller.\n\n"
                      "Current client version: 1.2.3.4\nRecommended client version: 2.0.0.0\n\n"
                      "Do you want to update your client to version 2.0.0.0?\n"
                      "Answer: Yes (no terminal to ask, the default answer is taken)\n", r.out)
        self.assertLess(r.out.index("Starting " + os.path.realpath(self.app)), r.out.index("Starting the update"))
        self.assertNotIn(UPDATE_FAILED, r.out)
        self.assertIsNotNone(self.client_report())
        os.remove(self.report)

        # Mandatory: Yes runs the update instead of the old client.
        self.update_ini(self.MANDATORY)
        r = self.launch()
        self.assertOk(r)
        self.assertIn("Kestra Client Version Mismatch\nYour client version is not supported by this server.\n\n"
                      "Current client version: 1.2.3.4\nRecommended client version: 2.0.0.0\n\n"
                      "Protocol version of client: 6\nProtocol version of server: 7\n\n"
                      "Do you want to update your client to version 2.0.0.0?\n", r.out)
        self.assertNotIn(UPDATE_FAILED, r.out)
        self.assertNotIn("Starting " + os.path.realpath(self.app), r.out, "the old client was started")
        self.assertIn("Starting the update", r.out)
        self.assertIsNotNone(self.client_report(), "the updated client was not started")

    def test_boxes_with_only_ok_and_no_question_at_all(self):
        cases = [
            # A mandatory update to the running version is the server's mistake.
            ("UpdateIsOptional=0\nVersionOfClientRecommended=1.2.3.4\n",
             "Configuration error.\nThe recommended client version is not supported by this server.\n"
             "Please contact your system administrator.\n"),
            # Without UpdateIsOptional the update is not optional either.
            ("VersionOfClientRecommended=1.2.3.4\n", "Configuration error.\n"),
            ("Product=K\nUpdateIsImpossible=1\nVersionOfClientRecommended=3.0.0.0\n",
             "K Client Version Mismatch\nYour client version is not supported by this server.\n\n"
             "Current client version: 1.2.3.4\nRecommended client version: 3.0.0.0\n"),
            # The running version is the recommended one and the update optional: nothing to ask.
            ("UpdateIsOptional=1\nVersionOfClientRecommended=1.2.3.4\n", None),
            # No recommended version: how a server says "no update check".
            ("Product=K\n", None),
        ]
        for text, shown in cases:
            with self.subTest(text):
                self.update_ini(text)
                r = self.launch()
                self.assertOk(r)
                self.assertNoErrorOutput(r.err)
                if shown is None:
                    self.assertNotIn("version", r.out.lower().replace("ksclient.version", ""))
                else:
                    self.assertIn(shown, r.out)
                    self.assertNotIn("Do you want", r.out)
                    self.assertNotIn("Answer:", r.out)
                self.assertIsNotNone(self.client_report())
                os.remove(self.report)

    def run_on_terminal(self, answer):
        """The launcher with a terminal on standard input; answer is typed at the question."""
        master, slave = pty.openpty()
        env = dict(self.env)
        proc = subprocess.Popen(self.launcher_args(), stdin=slave, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                env=env, cwd=self.work)
        os.close(slave)
        self.addCleanup(os.close, master)
        wait_for(lambda: select.select([], [master], [], 0)[1], "the terminal")
        os.write(master, answer)
        out, err = proc.communicate(timeout=120)
        out, err = out.decode("latin-1"), err.decode("latin-1")
        self.assertNotIn(PASSWORD, out + err)
        return proc.returncode, out, err

    def test_on_a_terminal_the_user_answers(self):
        self.update_ini(self.MANDATORY)
        # A mandatory update refused: the old client starts.
        code, out, err = self.run_on_terminal(b"no\n")
        self.assertEqual(0, code, out + err)
        self.assertIn("Do you want to update your client to version 2.0.0.0?\n[Y/n] ", out)
        self.assertNotIn(UPDATE_FAILED, out)
        self.assertIsNotNone(self.client_report())
        os.remove(self.report)
        # Something else is asked again; an empty line takes the default, Yes: the update runs
        # and starts the client.
        code, out, err = self.run_on_terminal(b"maybe\n\n")
        self.assertEqual(0, code, out + err)
        self.assertEqual(2, out.count("[Y/n] "), out)
        self.assertNotIn(UPDATE_FAILED, out)
        self.assertIn("Starting the update", out)
        self.assertIsNotNone(self.client_report())


@unittest.skipIf(GUI_MISSING, "missing tools: %s (run scripts/bootstrap.sh)" % ", ".join(GUI_MISSING))
class VersionBoxTest(DesktopMixin, ClientCase):
    def setUp(self):
        super().setUp()
        from test_progress_dialog import XServer
        self.x = XServer()
        self.addCleanup(self.x.stop)
        self.env["DISPLAY"] = self.x.display

    def start(self):
        return self.start_logged(self.launcher_args(), self.env)

    def output(self):
        with open(self.path("stdout.txt"), "rb") as f:
            out = f.read().decode("latin-1")
        with open(self.path("stderr.txt"), "rb") as f:
            err = f.read().decode("latin-1")
        self.assertNotIn(PASSWORD, out + err)
        return out + err

    def test_the_optional_offer_does_not_hold_the_client_back(self):
        self.update_ini(VersionCheckTest.OPTIONAL)
        self.env["KSCLIENT_STAY_SECONDS"] = "0"
        proc = self.start()
        wait_for(lambda: self.box("^Kestra Auto-Update$"), "the offer")
        # The client is up while the offer waits for its answer.
        wait_for(lambda: os.path.exists(self.report), "the client's report")
        self.assertEqual("1.2.3.4", self.client_report()["version"])
        self.assertIsNone(proc.poll(), "the offer was not kept up")
        # No (Escape) closes it; nothing is updated.
        self.press("^Kestra Auto-Update$", "Escape", proc)
        self.assertEqual(0, proc.wait(timeout=60), self.output())
        self.assertNotIn("error", self.output())

    def test_yes_to_the_optional_offer_updates_after_the_client_started(self):
        self.update_ini(VersionCheckTest.OPTIONAL)
        proc = self.start()
        wait_for(lambda: os.path.exists(self.report), "the client's report")
        os.remove(self.report)
        self.press("^Kestra Auto-Update$", "Return", proc)
        # The update came after the start and runs on in an engine of its own, which starts the
        # client again; the run itself succeeded.
        self.assertEqual(0, proc.wait(timeout=60), self.output())
        wait_for(lambda: os.path.exists(self.report), "the updated client's report")
        wait_for(lambda: not self.updates_running(), "the update's end")
        self.assertNotIn("error", self.output())

    def test_a_mandatory_update_answered_yes_replaces_the_client_start(self):
        self.update_ini(VersionCheckTest.MANDATORY)
        proc = self.start()
        wait_for(lambda: self.box("^Kestra Client Version Mismatch$"), "the question")
        self.assertIsNone(self.client_report(), "the client started before the answer")
        self.press("^Kestra Client Version Mismatch$", "Return", proc)
        # The update runs instead of the old client and starts the client once it is done.
        self.assertEqual(0, proc.wait(timeout=60), self.output())
        wait_for(lambda: os.path.exists(self.report), "the updated client's report")
        wait_for(lambda: not self.updates_running(), "the update's end")
        self.assertNotIn("Starting " + os.path.realpath(self.app), self.output(), "the old client was started")
        self.assertNotIn("error", self.output())

if __name__ == "__main__":
    ksharness.main()
