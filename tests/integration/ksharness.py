"""Shared pieces of the integration suites: run the real binary in a temporary folder.

Each test gets a fresh folder with its own HOME and TMPDIR, so the maintenance directory,
the default cache and the registry store never touch the real user's files. The folder is
kept when the test fails (its path is printed) and removed when it passes.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import uuid
import xml.etree.ElementTree as ET

BIN = os.path.abspath(os.environ.get("KSDEPLOY_BIN") or os.path.join(
    os.path.dirname(__file__), "..", "..", "build", "bin", "ksdeploy"))
SOURCE_DIR = os.environ.get("KSDEPLOY_SOURCE_DIR") or os.path.abspath(
    os.path.join(os.path.dirname(__file__), "..", ".."))
# The test servers (nginx_server, fault_server) are importable by every suite.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "servers"))


# A run without quiet=true and without a display says once that progress goes to the console.
NO_DISPLAY_NOTICE = "ksdeploy: no display available, progress is shown on the console\n"



def wait_for(predicate, what, limit=60.0):
    """Polls until predicate() is true; the limit only keeps a broken run from hanging."""
    end = time.monotonic() + limit
    while time.monotonic() < end:
        value = predicate()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError("gave up waiting for " + what)

class Result:
    def __init__(self, proc):
        self.code = proc.returncode
        self.out = proc.stdout.decode("latin-1")
        # err_raw is all of standard error; err leaves out the headless notice, so suites can
        # read the lines of a failure by position.
        self.err_raw = proc.stderr.decode("latin-1")
        self.err = self.err_raw.replace(NO_DISPLAY_NOTICE, "", 1)

    def __repr__(self):
        return "exit %d\n--- stdout\n%s--- stderr\n%s" % (self.code, self.out, self.err_raw)


class KsTestCase(unittest.TestCase):
    """A test case with a private work folder and a runner for the ksdeploy binary."""

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="ksdeploy-it-")
        self.home = os.path.join(self.work, "home")
        self.tmp = os.path.join(self.work, "tmp")
        os.makedirs(self.home)
        os.makedirs(self.tmp)
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("XDG_")}
        self.env.update({"HOME": self.home, "TMPDIR": self.tmp, "LC_ALL": "C.UTF-8"})
        self.env.pop("DISPLAY", None)
        self.env.pop("http_proxy", None)
        self.env.pop("HTTP_PROXY", None)

    def tearDown(self):
        if self._failed_so_far():
            sys.stderr.write("\nkept work folder: %s\n" % self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)

    def _failed_so_far(self):
        """True when this test (or one of its subTest blocks) has already failed.

        From Python 3.11 on, unittest reports a failure to the result as soon as it happens:
        the test itself for a plain failure, a _SubTest whose test_case is this test for a
        failure inside subTest. Older versions collect them in _Outcome.errors until the end.
        """
        outcome = getattr(self, "_outcome", None)
        if outcome is None:
            return False
        result = getattr(outcome, "result", None)
        reported = list(getattr(result, "errors", [])) + list(getattr(result, "failures", []))
        if any(test is self or getattr(test, "test_case", None) is self for test, _ in reported):
            return True
        return any(exc for _, exc in getattr(outcome, "errors", []))  # Python < 3.11

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def start_logged(self, argv, env):
        """Starts argv in the background with its output in stdout.txt and stderr.txt of the
        work folder (kept when the test fails); it is killed at the test's end if still running."""
        self.out = open(self.path("stdout.txt"), "wb")
        self.err = open(self.path("stderr.txt"), "wb")
        proc = subprocess.Popen(argv, cwd=self.work, env=env, stdout=self.out, stderr=self.err)

        def stop():
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            self.out.close()
            self.err.close()
        self.addCleanup(stop)
        return proc

    def run_ks(self, *args, stdin=None, env=None, timeout=300, cwd=None, binary=None):
        full_env = dict(self.env)
        if env:
            full_env.update(env)
        proc = subprocess.run([binary or BIN] + list(args), input=stdin, cwd=cwd or self.work, env=full_env,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout)
        return Result(proc)

    def assertOk(self, result):
        self.assertEqual(0, result.code, repr(result))

    @property
    def traced_env(self):
        """The environment for a run under strace: the leak checker of a sanitizer build stops the
        world with ptrace, which a traced process cannot do, so it is off there."""
        env = dict(self.env)
        options = env.get("ASAN_OPTIONS", "")
        if options:
            env["ASAN_OPTIONS"] = options.replace("detect_leaks=1", "detect_leaks=0")
        return env

    def assertNoErrorOutput(self, err):
        """Standard error holds nothing but the headless notice of a run without quiet=true."""
        self.assertEqual("", err.replace(NO_DISPLAY_NOTICE, "", 1))

    def assertFails(self, result, code=1):
        self.assertEqual(code, result.code, repr(result))

    def write(self, rel, data):
        p = self.path(rel)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        mode = "wb" if isinstance(data, bytes) else "w"
        with open(p, mode) as f:
            f.write(data)
        return p

    def read(self, rel):
        with open(self.path(rel), "rb") as f:
            return f.read()


def tree_snapshot(root):
    """Every path below root with its content (None for a folder, "-> target" for a link)."""
    found = {}
    for dirpath, dirnames, filenames in os.walk(root):
        for name in dirnames + filenames:
            p = os.path.join(dirpath, name)
            if os.path.islink(p):
                found[p] = "-> " + os.readlink(p)
            elif os.path.isdir(p):
                found[p] = None
            else:
                with open(p, "rb") as f:
                    found[p] = f.read()
    return found


class Description:
    """A generated description opened to add resources by hand: `found` maps (tag, Name) to the
    UUID of what the generator wrote, `add` appends a resource (linked to its container), and
    `save` writes it with every link added."""

    def __init__(self, path):
        self.tree = ET.parse(path)
        self.root = self.tree.getroot()
        self.found = {(el.tag, el.get("Name")): el.get("UUID") for el in self.root if el.tag != "Link"}
        self.links = []

    def add(self, tag, name, container=None, delete=True, **props):
        el = ET.SubElement(self.root, tag, {"UUID": "{%s}" % uuid.uuid4(), "Absence": "false",
                                            "DeleteOnUninstall": "true" if delete else "false", "Name": name})
        for k, v in props.items():
            el.set(k, v)
        if container:
            self.links.append((el.get("UUID"), container, "Container"))
        return el.get("UUID")

    def save(self, path):
        for source, target, name in self.links:
            ET.SubElement(self.root, "Link", {"Source": source, "Target": target, "Name": name})
        self.tree.write(path, encoding="UTF-8", xml_declaration=True)


def main():
    unittest.main(verbosity=2)
