"""Product changes that a process does not live to finish: killed (SIGKILL, counted system
calls and times), interrupted (SIGINT, SIGTERM, SIGHUP), or whose rollback fails. After the next
start the machine must be exactly as before the change: files, modes, folders, shortcut and the
registry store (read with sqlite3), with no temporary files left anywhere."""
import hashlib
import os
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import time

import ksharness

# v1 -> v2: changed, added (also in a new folder) and dropped files; one executable each.
V1 = {
    "bin/app": b"#!/bin/sh\necho v1\n",
    "README.txt": b"readme v1\n",
    "lib/same.dat": b"same in both\n" * 40,
    "lib/changed.dat": bytes(range(256)) * 20,
    "lib/dropped.txt": b"only in v1\n",
    "doc/a.txt": b"a v1\n",
    "doc/b.txt": b"b, the same\n",
}
for i in range(8):
    V1["data/item%02d.txt" % i] = (b"v1 item %d\n" % i) * (i + 1)

V2 = dict(V1)
del V2["lib/dropped.txt"]
V2.update({
    "bin/app": b"#!/bin/sh\necho v2\n",
    "lib/changed.dat": bytes(reversed(range(256))) * 30,
    "doc/a.txt": b"a v2\n",
    "lib/added.txt": b"new in v2\n",
    "plugins/one.txt": b"plugin one\n",
    "plugins/deep/two.txt": b"plugin two\n",
})
for i in range(0, 8, 2):
    V2["data/item%02d.txt" % i] = (b"v2 item %d\n" % i) * (i + 2)

# (key below HKEY_CURRENT_USER, value name, type, text) per version.
REG_V1 = [("Software\\Kestra\\App", "Version", "TYPE_SZ", "1.0"),
          ("Software\\Kestra\\App", "Size", "TYPE_DWORD", "10"),
          ("Software\\Kestra\\App", "Window", "TYPE_BINARY", "0A0B")]
REG_V2 = [("Software\\Kestra\\App", "Version", "TYPE_SZ", "2.0"),
          ("Software\\Kestra\\App", "Size", "TYPE_DWORD", "20"),
          ("Software\\Kestra\\App", "Window", "TYPE_BINARY", "0A0B"),
          ("Software\\Kestra\\App", "Added", "TYPE_SZ", "new"),
          ("Software\\Kestra\\App\\Plugins", "Count", "TYPE_DWORD", "2")]


class CrashSafetyTest(ksharness.KsTestCase):
    # A whole machine state is too long to show; the message of each check says which point failed.
    maxDiff = 2000

    def setUp(self):
        super().setUp()
        if shutil.which("strace") is None:
            self.fail("'strace' is missing (scripts/bootstrap.sh installs it)")
        self.store = self.path("registry.sqlite")
        self.env["KSDEPLOY_REGISTRY"] = self.store
        self.target = self.path("target")
        self.menu = self.path("menu")
        self.maint = os.path.join(self.tmp, "Kestra Imaging", "Auto Update")
        os.makedirs(self.path("publish"))
        self.describe("v1", V1, REG_V1)
        self.describe("v2", V2, REG_V2)

    # ---- the product ------------------------------------------------------------------
    def describe(self, version, files, values):
        tree = self.path("src-" + version)
        for rel, data in files.items():
            self.write(os.path.join("src-" + version, rel), data)
            digest = hashlib.md5(data).hexdigest()
            with open(self.path("publish", digest), "wb") as f:
                f.write(data)
        os.chmod(os.path.join(tree, "bin/app"), 0o755)
        r = self.run_ks("--generate", "type=directory", "path=" + tree, "name=${TARGET}", "product=App",
                        "--save", "target=gen-%s.xml" % version)
        self.assertOk(r)
        d = ksharness.Description(self.path("gen-%s.xml" % version))
        add, links = d.add, d.links
        product = d.found[("ResourceProduct", "App")]
        top = d.found[("ResourceFileDirectory", "${TARGET}")]
        program = d.found[("ResourceFileEntry", "app")]

        menu = add("ResourceFileDirectory", "${MENU}")
        # The shortcut differs between the versions, as the registry value "Version" does: only
        # its old bytes, kept at the change's start, can bring it back.
        link = add("ResourceFileShortcut", "start-app.desktop", menu, Args="--fast --" + version,
                   Desc="Starts App " + version)
        links += [(link, program, "Target"), (link, top, "Directory")]
        keys = {}
        hkcu = add("ResourceRegistryKey", "HKEY_CURRENT_USER\\Software", delete=False)
        links.append((product, hkcu, "Registry"))
        for key, name, vtype, text in values:
            parent = hkcu
            path = "Software"
            for part in key.split("\\")[1:]:
                path += "\\" + part
                if path not in keys:
                    keys[path] = add("ResourceRegistryKey", part, parent)
                parent = keys[path]
            add("ResourceRegistryValue", name, parent, Type=vtype, Value=text)
        d.save(self.path("%s.xml" % version))

    def args(self, version, action="install"):
        extra = ["url=file://" + self.path("publish")] if action == "install" else []
        return ["--load", "file=%s.xml" % version, "--config", "TARGET=" + self.target, "--config",
                "MENU=" + self.menu, "--product", "action=" + action] + extra

    def ks(self, version, action="install"):
        return self.run_ks(*self.args(version, action))

    # ---- the machine's state ----------------------------------------------------------
    def state(self):
        """Every file (bytes and mode), folder and link below target and menu, and every registry
        key and value by path, plus any temporary file anywhere in the work folder."""
        files = {}
        for root in (self.target, self.menu):
            for dirpath, dirnames, filenames in os.walk(root):
                for name in dirnames + filenames:
                    p = os.path.join(dirpath, name)
                    st = os.lstat(p)
                    if os.path.isdir(p):
                        files[p] = ("dir", st.st_mode)
                    else:
                        with open(p, "rb") as f:
                            files[p] = (f.read(), st.st_mode)
        registry = set()
        if os.path.exists(self.store):
            db = sqlite3.connect("file:%s?mode=ro" % self.store, uri=True)
            keys = {row[0]: (row[1], row[2]) for row in db.execute("SELECT id, parent, name FROM registry_key")}

            def full(kid):
                parts = []
                while kid in keys:
                    parent, name = keys[kid]
                    parts.append(name)
                    kid = parent
                return "\\".join(reversed(parts))
            for kid in keys:
                registry.add(("key", full(kid)))
            for key, name, vtype, data in db.execute("SELECT key, name, type, data FROM registry_value"):
                registry.add(("value", full(key), name, vtype, bytes(data)))
            db.close()
        return files, registry

    def temporary_files(self):
        found = []
        for dirpath, _, filenames in os.walk(self.work):
            found += [os.path.join(dirpath, n) for n in filenames if n.endswith(".part") or n.endswith(".new")]
        return found

    def journals(self):
        folder = os.path.join(self.maint, "Journal")
        return sorted(n for n in os.listdir(folder) if n.endswith(".journal")) if os.path.isdir(folder) else []

    def save_machine(self):
        self.saved = self.path("saved")
        shutil.rmtree(self.saved, ignore_errors=True)
        os.makedirs(self.saved)
        for name in ("target", "menu"):
            shutil.copytree(self.path(name), os.path.join(self.saved, name), symlinks=True)
        shutil.copy2(self.store, os.path.join(self.saved, "registry.sqlite"))

    def restore_machine(self):
        for name in ("target", "menu"):
            shutil.rmtree(self.path(name), ignore_errors=True)
            shutil.copytree(os.path.join(self.saved, name), self.path(name), symlinks=True)
        for suffix in ("", "-journal", "-wal", "-shm"):
            if os.path.exists(self.store + suffix):
                os.remove(self.store + suffix)
        shutil.copy2(os.path.join(self.saved, "registry.sqlite"), self.store)
        # Every run takes its snapshot and downloads afresh, so that both can be cut short.
        shutil.rmtree(os.path.join(self.maint, "Cache"), ignore_errors=True)

    def start_v1(self, version="v2", action="install", base="v1"):
        """v1 installed and saved; the state that the change completes to is taken once too."""
        r = self.ks(base)
        self.assertOk(r)
        self.v1 = self.state()
        self.assertIn(("value", "HKEY_CURRENT_USER\\Software\\Kestra\\App", "Version", 1, b"1.0"), self.v1[1])
        self.save_machine()
        r = self.ks(version, action)
        self.assertOk(r)
        self.done = self.state()
        self.assertNotEqual(self.v1, self.done)
        shortcut = os.path.join(self.menu, "start-app.desktop")
        self.assertNotEqual(self.v1[0][shortcut], self.done[0].get(shortcut))
        self.restore_machine()

    def assertBackAtV1(self, what, version="v2", action="install"):
        """The next start (any command) puts the machine back where it was before the change, or,
        when the kill came after its journal was gone (committed), leaves the completed change;
        then the change succeeds."""
        journal = bool(self.journals())
        r = self.run_ks("--config", "X=1")
        self.assertEqual(0, r.code, "%s: recovery run\n%r" % (what, r))
        self.assertEqual([], self.journals(), what)
        self.assertEqual([], self.temporary_files(), what)
        files, registry = self.state()
        # Without a journal the change had either not begun or was committed.
        committed = not journal and (files, registry) != self.v1
        expected = self.done if committed else self.v1
        self.assertEqual(expected[1], registry, what)
        self.assertEqual(sorted(expected[0]), sorted(files), what)
        self.assertEqual(expected[0], files, what)
        self.outcomes["committed" if committed else "rolled back"] += 1
        r = self.ks(version, action)
        self.assertEqual(0, r.code, "%s: %s again\n%r" % (what, action, r))
        self.restore_machine()

    # ---- kills ------------------------------------------------------------------------
    def strace_run(self, inject, args):
        cmd = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=" + inject.split(":")[0], "-e", "inject=" + inject,
               ksharness.BIN] + args
        return subprocess.run(cmd, cwd=self.work, env=self.traced_env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=120)

    def call_counts(self, args, calls):
        """How often a whole run makes each call (counted over all threads, as the injection does)."""
        out = self.path("counts.txt")
        cmd = ["strace", "-f", "-qq", "-c", "-U", "name,calls", "-o", out, "-e", "trace=" + ",".join(calls),
               ksharness.BIN] + args
        subprocess.run(cmd, cwd=self.work, env=self.traced_env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       timeout=120, check=True)
        counts = {}
        with open(out) as f:
            for line in f:
                parts = line.split()
                if len(parts) == 2 and parts[1].isdigit():
                    counts[parts[0]] = int(parts[1])
        return counts

    def file_writes(self, args):
        """The ordinals (among all write calls, as the injection counts them) of the writes into
        files. A sanitizer build also writes into pipes of its own to probe memory; those say
        nothing about where the change is."""
        out = self.path("writes.txt")
        subprocess.run(["strace", "-f", "-qq", "-y", "-o", out, "-e", "trace=write", ksharness.BIN] + args,
                       cwd=self.work, env=self.traced_env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       timeout=120, check=True)
        with open(out, encoding="latin-1") as f:
            calls = [line for line in f if "write(" in line and "resumed>" not in line]
        return [i + 1 for i, line in enumerate(calls) if re.search(r"write\(\d+</", line)]

    def traced(self, args, calls):
        """The calls of a whole run, in order: (name, line), with the paths of descriptors."""
        out = self.path("calls.txt")
        subprocess.run(["strace", "-f", "-qq", "-y", "-o", out, "-e", "trace=" + ",".join(calls), ksharness.BIN] + args,
                       cwd=self.work, env=self.traced_env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       timeout=120, check=True)
        with open(out, encoding="latin-1") as f:
            return [(m.group(1), line) for line in f for m in [re.match(r"\d+\s+(\w+)\(", line)] if m]

    def ordinal(self, args, call, pattern, following=None):
        """The ordinal (as the injection counts) of the one successful call whose line holds
        pattern; with following (other calls), of the first of those calls made after it."""
        lines = self.traced(args, [call] + (following or []))
        found = [i for i, (name, line) in enumerate(lines) if name == call and pattern in line and "= -1" not in line]
        self.assertEqual(1, len(found), "".join(line for _, line in lines))
        at = found[0]
        if following:
            at = next(i for i in range(at + 1, len(lines)) if lines[i][0] in following)
        name = lines[at][0]
        return name, sum(1 for n, _ in lines[:at + 1] if n == name)

    def critical_points(self, args, action):
        """Killed at the journal's removal, the registry is committed and the files are not, the
        one moment when only the journal knows the old registry values. Killed at the first call
        after the shortcut's rename, the new shortcut is in place and only its kept bytes know
        the old one."""
        points = [self.ordinal(args, "unlink", '/App.journal")')]
        self.restore_machine()
        if action == "install":
            points.append(self.ordinal(args, "rename", '/start-app.desktop")', ["write", "rename", "unlink", "fsync"]))
            self.restore_machine()
        return points

    def points(self, counts, total):
        """total injection points, dealt to the calls in turn and spread evenly over each one's
        invocations (from its first to its last)."""
        calls = sorted(c for c in counts if c != "total" and counts[c] > 0)
        share = dict.fromkeys(calls, 0)
        while sum(share.values()) < total and any(share[c] < counts[c] for c in calls):
            for c in calls:
                if share[c] < counts[c] and sum(share.values()) < total:
                    share[c] += 1
        chosen = []
        for c in calls:
            n, k = counts[c], share[c]
            # Distinct, as k <= n: the steps are at least one invocation apart.
            chosen += [(c, 1 + (n - 1) * j // max(1, k - 1)) for j in range(k)]
        return chosen

    def kill_matrix(self, version, action, total, timed):
        """Kills the change at total points, the timed ones first (a run that ends before its
        kill does not count), the rest by counted calls; every one must end exactly as before
        the change (or, killed after its commit, exactly as after it)."""
        self.outcomes = {"committed": 0, "rolled back": 0}
        self.start_v1(version, action)
        passed = 0
        for delay in timed:
            what = "%s %s killed after %.3f s" % (action, version, delay)
            proc = subprocess.Popen([ksharness.BIN] + self.args(version, action), cwd=self.work, env=self.env,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(delay)
            proc.send_signal(signal.SIGKILL)
            proc.wait()
            if proc.returncode == 0:
                self.restore_machine()
                continue
            self.assertBackAtV1(what, version, action)
            passed += 1
        calls = ["rename", "linkat", "unlink", "write", "fsync", "syncfs"]
        counts = self.call_counts(self.args(version, action), calls)
        self.restore_machine()
        self.restore_machine()
        critical = self.critical_points(self.args(version, action), action)
        chosen = [p for p in self.points(counts, total - passed) if p not in critical]
        chosen = chosen[:total - passed - len(critical)] + critical
        self.assertEqual(total - passed, len(chosen), counts)
        for call, n in chosen:
            what = "%s %s killed at %s #%d of %d" % (action, version, call, n, counts[call])
            p = self.strace_run("%s:signal=KILL:when=%d" % (call, n), self.args(version, action))
            self.assertNotEqual(0, p.returncode, what)
            self.assertBackAtV1(what, version, action)
            passed += 1
        sys.stderr.write("\n%s: %d of %d kill points left the machine exactly as before (%d) or as after (%d)\n"
                         % (action, passed, total, self.outcomes["rolled back"], self.outcomes["committed"]))
        return passed

    def test_upgrade_killed_at_60_points(self):
        self.assertEqual(60, self.kill_matrix("v2", "install", 60, [0.05, 0.1, 0.15, 0.2, 0.25, 0.3]))

    def test_uninstall_killed_at_20_points(self):
        self.assertEqual(20, self.kill_matrix("v1", "uninstall", 20, [0.05, 0.1]))

    def test_many_files_written_by_worker_threads(self):
        """A product big enough for the installation's writer threads: killed while they write,
        or interrupted, it comes back exactly too (the threads are drained before the rollback)."""
        big1 = {"many/f%03d.txt" % i: (b"one %d\n" % i) * (i % 7 + 1) for i in range(90)}
        big1["bin/app"] = V1["bin/app"]
        big2 = {k: (v + b"two\n" if i % 2 else v) for i, (k, v) in enumerate(sorted(big1.items()))}
        big2.update({"added/g%02d.txt" % i: b"added %d\n" % i for i in range(20)})
        self.describe("b1", big1, REG_V1)
        self.describe("b2", big2, REG_V2)
        self.outcomes = {"committed": 0, "rolled back": 0}
        self.start_v1("b2", "install", base="b1")
        counts = self.call_counts(self.args("b2"), ["linkat", "write"])
        self.restore_machine()
        # The injection counts each thread's calls: points low enough for any one writer to reach.
        for call, n in self.points({"linkat": max(6, counts["linkat"] // 4)}, 6):
            p = self.strace_run("%s:signal=KILL:when=%d" % (call, n), self.args("b2"))
            self.assertNotEqual(0, p.returncode)
            self.assertBackAtV1("many files killed at %s #%d of %d" % (call, n, counts[call]), "b2", "install")
        rolled_back = 0
        for n in (counts["write"] // 3, counts["write"] // 2, 2 * counts["write"] // 3):
            p = self.strace_run("write:signal=SIGINT:when=%d" % n, self.args("b2"))
            err = p.stderr.decode("latin-1")
            if p.returncode == 130:
                self.assertIn("install interrupted by SIGINT: rolled back", err)
                self.assertTrue(self.v1 == self.state(), "many files, SIGINT at write #%d" % n)
                rolled_back += 1
            else:
                self.assertEqual(-signal.SIGINT, p.returncode, err)
                self.assertTrue(self.done == self.state(), "many files, SIGINT at write #%d" % n)
            self.assertEqual([], self.temporary_files())
            self.restore_machine()
        self.assertGreaterEqual(rolled_back, 2)

    # ---- interrupts -------------------------------------------------------------------
    def test_interrupts_roll_back_and_say_so(self):
        """SIGINT at 10 counted writes (over snapshot, download and installation), then SIGTERM
        and SIGHUP: the change stops at the next resource, is rolled back in the same run, and the
        exit status is 128 + the signal. Every run must be rolled back or complete, never between."""
        self.outcomes = {"committed": 0, "rolled back": 0}
        self.start_v1()
        writes = self.file_writes(self.args("v2"))
        self.restore_machine()
        n = len(writes)
        points = [("SIGINT", writes[(n - 1) * j // 9]) for j in range(10)]
        points += [("SIGTERM", writes[n // 2]), ("SIGHUP", writes[n // 3])]
        rolled_back = 0
        stopped_midway = 0
        total_lines = self.ks("v2").out.count("\ninstall: ")
        self.restore_machine()
        for sig, when in points:
            what = "%s at write #%d of %d" % (sig, when, n)
            p = self.strace_run("write:signal=%s:when=%d" % (sig, when), self.args("v2"))
            err = p.stderr.decode("latin-1")
            files, registry = self.state()
            self.assertEqual([], self.journals(), what)
            self.assertEqual([], self.temporary_files(), what)
            if p.returncode == -getattr(signal, sig):
                # Came before the change began (the run's first lines) or once it was committed:
                # the signal's usual effect, with the machine untouched or done.
                self.assertNotIn("rolled back", err, what)
                self.assertIn((files, registry), (self.v1, self.done), what)
            else:
                code = 128 + getattr(signal, sig)
                self.assertEqual(code, p.returncode, "%s\n%s" % (what, err))
                self.assertIn("install interrupted by %s: rolled back" % sig, err, what)
                self.assertNotIn("error:", err, what)
                self.assertEqual(self.v1, (files, registry), what)
                rolled_back += 1
                # Stopped at the next resource, not at the end of the installation.
                out = p.stdout.decode("latin-1")
                before = out[:out.find("Transaction Rollback")].count("\ninstall: ")
                stopped_midway += 0 < before < total_lines
            self.restore_machine()
        sys.stderr.write("\ninterrupts: %d of %d runs rolled back\n" % (rolled_back, len(points)))
        self.assertGreaterEqual(rolled_back, 10)
        self.assertGreaterEqual(stopped_midway, 2)

    def test_an_interrupt_during_the_snapshot_stops_it(self):
        """SIGINT while the snapshot looks at the installed files, and while it copies them into
        the cache: it stops at the next file (nothing is copied after the look, nothing
        downloaded after the copy), nothing was changed, exit 130 with the message."""
        self.start_v1()
        full = self.ks("v2").out.count("caching: ")
        self.restore_machine()
        lines = self.traced(self.args("v2"), ["openat", "write"])
        self.restore_machine()

        def nth(index):
            name = lines[index][0]
            return name, sum(1 for n, _ in lines[:index + 1] if n == name)
        # The first look at an installed file is the snapshot's; the first write into the cache
        # is its copy of the old contents (all items are fetched afresh, in a later step).
        look = next(i for i, (n, l) in enumerate(lines) if n == "openat" and '"%s/' % self.target in l)
        copy = next(i for i, (n, l) in enumerate(lines) if n == "write" and "/Cache/" in l)
        for (call, when), most in ((nth(look), 0), (nth(copy), 1)):
            what = "SIGINT at %s #%d" % (call, when)
            p = self.strace_run("%s:signal=SIGINT:when=%d" % (call, when), self.args("v2"))
            out, err = p.stdout.decode("latin-1"), p.stderr.decode("latin-1")
            self.assertEqual(130, p.returncode, "%s\n%s" % (what, err))
            self.assertIn("install interrupted by SIGINT: rolled back", err, what)
            self.assertNotIn("error:", err, what)
            self.assertLessEqual(out.count("caching: "), most, what)
            self.assertLess(most, full)
            self.assertNotIn("Download", out, what)
            self.assertEqual(self.v1, self.state(), what)
            self.assertEqual([], self.journals(), what)
            self.assertEqual([], self.temporary_files(), what)
            self.restore_machine()

    def test_a_second_interrupt_during_the_rollback_is_ignored(self):
        self.start_v1()
        # Every unlink from the first on brings a SIGINT: the first stops the change, the rest
        # come while its rollback removes the files the change added.
        p = self.strace_run("unlink:signal=SIGINT:when=1+", self.args("v2"))
        err = p.stderr.decode("latin-1")
        # Once the rollback is done the signals have their usual effect again, and the unlinks
        # of the shutdown bring more of them.
        self.assertIn(p.returncode, (130, -signal.SIGINT), err)
        self.assertIn("interrupt ignored: rolling back", err)
        self.assertIn("install interrupted by SIGINT: rolled back", err)
        self.assertEqual(self.v1, self.state())
        self.assertEqual([], self.journals())

    # ---- a rollback that fails ----------------------------------------------------------
    def test_a_failed_rollback_says_so_keeps_its_journal_and_is_finished_by_the_next_start(self):
        self.start_v1()
        counts = self.call_counts(self.args("v2"), ["rename"])
        self.restore_machine()
        # From some rename on, every one fails as on a full disk: the installation stops and its
        # rollback cannot put the replaced files back. The first such point is searched for.
        for k in range(1, counts["rename"] + 1):
            p = self.strace_run("rename:error=ENOSPC:when=%d+" % k, self.args("v2"))
            err = p.stderr.decode("latin-1")
            if "rollback incomplete" in err and self.state() != self.v1:
                break
            self.restore_machine()
        else:
            self.fail("no rename point made the rollback fail")
        self.assertEqual(1, p.returncode, err)
        lines = [l for l in err.splitlines() if "rollback incomplete" in l]
        self.assertEqual(1, len(lines), err)
        detail = err.splitlines()[err.splitlines().index(lines[0]) + 1]
        self.assertIn(self.work, detail)
        self.assertIn("No space left on device", detail, err)
        # One report, not one per file.
        self.assertLessEqual(err.count("error:"), 3, err)
        self.assertEqual(["App.journal"], self.journals())
        # The fault is gone: the next start finishes the rollback.
        r = self.run_ks("--config", "X=1")
        self.assertOk(r)
        self.assertIn("recovery: product 'App' is back", r.out)
        self.assertTrue(self.v1 == self.state(), "not back at v1")
        self.assertEqual([], self.journals())
        self.assertEqual([], self.temporary_files())

    # ---- temporary files of other processes ---------------------------------------------
    def test_a_start_removes_only_the_temporary_files_of_processes_that_are_gone(self):
        """One engine stops itself while it writes an item into the cache; another one starts
        meanwhile, and its sweep of left-over temporary files keeps the first one's file, however
        old: the first goes on and completes. Killed in the same place, its file is left over and
        the next start removes it."""
        self.start_v1()
        lines = self.traced(self.args("v2"), ["write"])
        self.restore_machine()
        at = next(i for i, (n, l) in enumerate(lines) if re.search(r"write\(\d+<[^>]*/Cache/\.[^>]*\.part>", l))
        inject = "write:signal=SIGSTOP:when=%d" % (at + 1)
        cache = os.path.join(self.maint, "Cache")

        def stopped_writer():
            proc = subprocess.Popen(["strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=write", "-e",
                                     "inject=" + inject, ksharness.BIN] + self.args("v2"),
                                    cwd=self.work, env=self.traced_env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            for _ in range(3000):
                parts = [n for n in os.listdir(cache) if n.endswith(".part")] if os.path.isdir(cache) else []
                if parts:
                    pid = int(parts[0].split(".")[-3])
                    with open("/proc/%d/stat" % pid) as f:
                        if f.read().rsplit(")", 1)[1].split()[0] in ("T", "t"):
                            return proc, pid, os.path.join(cache, parts[0])
                time.sleep(0.01)
            proc.kill()
            self.fail("the writer never stopped")

        first, pid, part = stopped_writer()
        try:
            # Its file is older than this start, as a slow download's is.
            r = self.run_ks("--config", "X=1")
            self.assertOk(r)
            self.assertTrue(os.path.exists(part), "the living writer's file was removed")
        finally:
            os.kill(pid, signal.SIGCONT)
        out, err = first.communicate(timeout=120)
        self.assertEqual(0, first.returncode, err.decode("latin-1"))
        self.assertEqual(self.done, self.state())
        self.restore_machine()

        second, pid, part = stopped_writer()
        os.kill(pid, signal.SIGKILL)
        os.kill(pid, signal.SIGCONT)
        second.communicate(timeout=120)
        self.assertTrue(os.path.exists(part))
        self.outcomes = {"committed": 0, "rolled back": 0}
        self.assertBackAtV1("killed while writing into the cache")
        self.assertFalse(os.path.exists(part))

    # ---- two engines --------------------------------------------------------------------
    def test_a_second_engine_is_refused_and_the_first_completes(self):
        self.start_v1()
        # The first engine stops itself in the middle of its installation (SIGSTOP at a file
        # write), holding the product; it goes on when told to.
        first = subprocess.Popen(["strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=linkat", "-e",
                                  "inject=linkat:signal=SIGSTOP:when=3", ksharness.BIN] + self.args("v2"),
                                 cwd=self.work, env=self.traced_env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        lock = os.path.join(self.maint, "Journal", "App.lock")
        pid = 0
        for _ in range(3000):
            if self.journals() and os.path.exists(lock):
                with open(lock) as f:
                    text = f.read().strip()
                if not text:
                    continue
                with open("/proc/%s/stat" % text) as f:
                    stopped = f.read().split()[2] in ("T", "t")
                if stopped:
                    pid = int(text)
                    break
            time.sleep(0.01)
        self.assertTrue(pid, "the first engine never stopped")
        try:
            second = self.ks("v2")
            self.assertEqual(1, second.code, repr(second))
            self.assertIn("product 'App' is being changed by another process (pid %d)" % pid, second.err)
            # Nor does any start touch the first one's transaction.
            other = self.run_ks("--config", "X=1")
            self.assertOk(other)
            self.assertIn("left alone", other.out)
            self.assertEqual(["App.journal"], self.journals())
        finally:
            os.kill(pid, signal.SIGCONT)
        out, err = first.communicate(timeout=120)
        self.assertEqual(0, first.returncode, err.decode("latin-1"))
        self.assertEqual(self.done, self.state())
        self.assertEqual([], self.journals())


if __name__ == "__main__":
    ksharness.main()
