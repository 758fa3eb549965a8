"""kill -9 of the engine that deploys a client update, at chosen steps: before, during and after
the staging, around the folder exchange (the atomic one and the journaled renames of a file
system without it), while the new client is watched and while leftovers are removed.

The whole update runs as a user starts it: the installed launcher, its engine, the copy of the
engine in a sandbox, nginx. Each step is a system call made by the deploying engine on a path
only the update touches; strace (which counts each process's calls on those paths on its own)
kills the process on entering the Nth one, and its log shows that exactly that call was the last.
After each kill the application folder must hold one whole version, the next launch must start a
client, and the update launched after that must complete.

All 20 steps take about a minute (a sanitizer build a minute and a half); KSDEPLOY_KILL_MOMENTS=N
runs every Nth step only, for a quick look while working on the update.
"""
import os
import re
import shutil
import subprocess
import unittest

import ksharness
from test_client_update import UpdateCase

# One file per step of the staging at least, fewer than the 64 resources above which new files
# are written, and the unchanged ones hashed, by worker threads (whose calls are not in a fixed order).
FILES = {"data/f%02d.dat" % i: bytes([i]) * (40000 + 1000 * i) for i in range(12)}
MOMENTS = 20
KILLED = "+++ killed by SIGKILL +++"
CALL = re.compile(r"^(\d+)\s+(\w+)\((.*)$")


def calls_of(log):
    """The calls of a strace log: (tid, name, line) in order, without resumed halves."""
    found = []
    with open(log, encoding="latin-1") as f:
        for line in f:
            m = CALL.match(line)
            if m:
                found.append((int(m.group(1)), m.group(2), line.rstrip("\n")))
    return found


class KillMatrixTest(UpdateCase):
    def setUp(self):
        super().setUp()
        if shutil.which("strace") is None:
            self.fail("'strace' is missing (scripts/bootstrap.sh installs it)")
        build = self.publish("1.0.0.2", dict(FILES, **{"data/kept.dat": b"kept\n" * 1000}))
        self.v2 = {p.replace(build, self.app, 1): v for p, v in ksharness.tree_snapshot(build).items()}
        self.vendor = os.path.dirname(self.app)
        # A staging folder an earlier update left behind: freeResources has something to remove.
        self.leftover = self.app + ".staging-1"
        self.write(os.path.join(self.leftover, "part.dat"), b"half\n")
        self.saved = self.path("saved")
        for name in ("home", "tmp"):
            shutil.copytree(self.path(name), os.path.join(self.saved, name), symlinks=True)
        shutil.copy2(self.env["KSDEPLOY_REGISTRY"], self.saved)

    def restore(self):
        """Everything an update may change, as before the first one: the same calls every run."""
        for name in ("home", "tmp"):
            shutil.rmtree(self.path(name))
            shutil.copytree(os.path.join(self.saved, name), self.path(name), symlinks=True)
        shutil.copy2(os.path.join(self.saved, "registry.sqlite"), self.env["KSDEPLOY_REGISTRY"])
        # A write-ahead log of a later run would be read into the restored registry.
        for suffix in ("-wal", "-shm"):
            if os.path.exists(self.env["KSDEPLOY_REGISTRY"] + suffix):
                os.remove(self.env["KSDEPLOY_REGISTRY"] + suffix)
        if os.path.exists(self.report):
            os.remove(self.report)

    def watched_paths(self):
        """The paths strace looks at: the folders of the update and every file of both versions,
        in the application folder and in the staging folder."""
        rels = set()
        for snapshot, root in ((self.v1, self.app), (self.v2, self.app)):
            rels.update(os.path.relpath(p, root) for p in snapshot)
        paths = {self.vendor, self.app, self.app + ".staging", self.app + ".staging.replaced", self.app + ".previous",
                 self.app + ".xml",
                 self.leftover, os.path.join(self.leftover, "part.dat")}
        journal = self.app + ".exchange"
        paths.update((journal, journal + ".tmp", self.app + ".exchange-aside"))
        for rel in rels:
            paths.add(os.path.join(self.app, rel))
            paths.add(os.path.join(self.app + ".staging", rel))
        return sorted(paths)

    def strace_update(self, log, options, stay=0):
        """The launcher's update under strace; returns when every process of it has ended."""
        launcher = os.path.join(self.app, "ksweblaunch.exe")
        password = self.write("password", "S3cret-pw\n")
        cmd = ["strace", "-f", "-q", "-y", "-o", log] + options + [
            launcher, "--url", self.url, "--user", "bob", "--password-file", password, "--", "--project", "P"]
        env = dict(self.traced_env, KSCLIENT_STAY_SECONDS=str(stay))
        return subprocess.run(cmd, cwd=self.work, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=120)

    def path_options(self):
        options = []
        for p in self.watched_paths():
            options += ["-P", p]
        return options

    def record(self, options):
        """One update without a kill: the calls on the watched paths, and the deploying engine's
        thread (the one that makes the staging folder)."""
        log = self.path("record.txt")
        self.strace_update(log, options)
        self.assertTrue(self.v2 == ksharness.tree_snapshot(self.app), "the recorded update did not complete")
        calls = calls_of(log)
        staging = '"%s.staging"' % self.app
        deployer = [tid for tid, name, line in calls if name == "mkdir" and staging in line]
        self.assertEqual(1, len(deployer), "\n".join(line for _, _, line in calls))
        self.restore()
        return calls, deployer[0]

    def moment(self, calls, deployer, what, name, pattern, after=None, before=None):
        """The step: the deploying engine's first call name whose line holds pattern, after the
        line that holds after (or each pattern of after in turn); name None: the call right after
        that line. Returned as (what, name, ordinal among that thread's calls of the name, the
        line). The ordinal must be beyond every other process's count of such calls, so that only
        the deploying engine is killed."""
        mine = [(n, line) for tid, n, line in calls if tid == deployer]
        start = 0
        for mark in [after] if isinstance(after, str) else after or []:
            start = next(i for i in range(start, len(mine)) if mark in mine[i][1]) + 1
        if name is None:
            name = mine[start][0]
        # With before: the last such call ahead of the first line that holds before.
        end = next(i for i in range(start, len(mine)) if before in mine[i][1]) if before else len(mine)
        found = [i for i in range(start, end) if mine[i][0] == name and pattern in mine[i][1]]
        self.assertTrue(found, "%s: no %s call on %s" % (what, name, pattern))
        at = found[-1] if before else found[0]
        ordinal = sum(1 for n, _ in mine[:at + 1] if n == name)
        others = {}
        for tid, n, _ in calls:
            if tid != deployer and n == name:
                others[tid] = others.get(tid, 0) + 1
        self.assertLess(max(others.values(), default=0), ordinal,
                        "%s: another process makes as many %s calls" % (what, name))
        return what, name, ordinal, mine[at][1]

    def choose(self):
        """The steps, each as (what, strace options, call, ordinal, expected line)."""
        base = self.path_options()
        calls, deployer = self.record(base)
        app, staging = self.app, self.app + ".staging"
        files = sorted(FILES)
        middle, last = files[len(files) // 2], files[-1]
        q = lambda p: '"%s"' % p  # noqa: E731 - a path as strace quotes it
        fd = lambda p: "<%s>" % p  # noqa: E731 - a descriptor of the path
        data = lambda rel: q(os.path.join(staging, rel))  # noqa: E731 - a staged file
        chosen = [self.moment(calls, deployer, *m) for m in (
            ("before the staging: an unchanged file is linked into the cache", "link",
             q(os.path.join(app, "data", "kept.dat"))),
            ("the staging folder is made", "mkdir", q(staging)),
            ("staging: the first new file is begun", "openat", q(staging)),
            ("staging: a file is written, before it gets its name", "linkat", data(middle)),
            ("staging: a late file gets its name", "linkat", data(last)),
            ("staging: the staged files are flushed", "syncfs", fd(staging)),
            ("after the staging: the last file is verified", "statx", data("ksclient.exe"), None, "syncfs("),
            ("the folders are exchanged", "renameat2", q(app), "syncfs("),
            ("right after the exchange", None, "", ("syncfs(", "renameat2(")),
            ("after the new client was watched", "statx", q(app + ".previous")),
            ("the old version is kept as the previous one", "renameat2", q(staging + ".replaced"),
             ("syncfs(", "renameat2(")),
            ("freeResources: a leftover staging folder's file", "unlink", q(os.path.join(self.leftover, "part.dat"))),
            ("after the update: the installed product is checked", "statx", q(os.path.join(app, "ksclient.exe")),
             "rmdir("),
            ("the uninstall entry's description is written", "linkat", q(app + ".xml")))]
        moments = [(what, base + ["-e", "inject=%s:signal=KILL:when=%d" % (name, n)], name, n, line, 0)
                   for what, name, n, line in chosen]

        # While the new client is watched the engine only polls for its end. The launcher's shell
        # waits for its children too: the first poll beyond its count, with a client that stays
        # long enough for many polls.
        waits = ["-e", "trace=wait4,mkdir"]
        log = self.path("record.txt")
        self.strace_update(log, waits, stay=3)
        self.restore()
        calls = calls_of(log)
        deployer = [tid for tid, name, line in calls if name == "mkdir" and '"%s"' % staging in line]
        self.assertEqual(1, len(deployer))
        polls = [line for tid, name, line in calls if tid == deployer[0] and name == "wait4" and "WNOHANG" in line]
        others = [tid for tid, name, _ in calls if tid != deployer[0] and name == "wait4"]
        n = 1 + max((others.count(tid) for tid in others), default=0)
        self.assertLess(n + 10, len(polls), "too few polls to choose from")
        moments.append(("the new client is watched", waits + ["-e", "inject=wait4:signal=KILL:when=%d" % n],
                        "wait4", n, polls[n - 1], 3))

        # A file system without the atomic exchange: the exchange call fails, the journaled renames
        # follow. The renameat2 calls of the deploying engine are counted to fail only its exchange.
        _, _, exchange, _ = chosen[7]
        refused = base + ["-e", "inject=renameat2:error=EINVAL:when=%d" % exchange]
        calls, deployer = self.record(refused)
        journal = app + ".exchange"
        for m in (("the journal is written", "write", fd(journal + ".tmp")),
                  ("the journal is put in place", "rename", q(journal + ".tmp")),
                  ("before the first rename of the exchange", "rename", q(app)),
                  ("the journaled exchange's last rename", "rename", q(app + ".exchange-aside")),
                  ("the journal is removed", "unlink", q(journal))):
            what, name, n, line = self.moment(calls, deployer, *m)
            moments.append(("journaled: " + what, refused + ["-e", "inject=%s:signal=KILL:when=%d" % (name, n)],
                            name, n, line, 0))
        self.assertEqual(MOMENTS, len(moments))
        return moments

    @staticmethod
    def signature(line):
        """What identifies a call across runs: its name, the paths it names and the paths of its
        descriptors (not the working folder, which is the sandbox's random name)."""
        m = CALL.match(line)
        rest = re.sub(r"AT_FDCWD<[^>]*>", "AT_FDCWD", m.group(3))
        # A file made without a name shows as its inode number, which differs from run to run.
        rest = re.sub(r"/#\d+>", "/#>", rest)
        rest = re.sub(r"\)\s+= .*$", ")", rest)
        return m.group(2), re.findall(r'"[^"]*"', rest), re.findall(r"<(/[^>]*)>", rest)

    def assertKilledAt(self, log, what, expected):
        """Exactly one process was killed, and on entering the expected call."""
        with open(log, encoding="latin-1") as f:
            lines = f.read().splitlines()
        killed = [int(line.split()[0]) for line in lines if line.endswith(KILLED)]
        self.assertEqual(1, len(killed), "%s: not one kill\n%s" % (what, "\n".join(lines[-40:])))
        mine = [line for line in lines if line.split()[0] == str(killed[0]) and CALL.match(line)]
        self.assertEqual(self.signature(expected), self.signature(mine[-1]), what)
        # Not the launcher (the first process of the log), and a poll that was the deploying
        # engine's: the one that made the staging folder.
        self.assertNotEqual(lines[0].split()[0], str(killed[0]), what)
        if self.signature(expected)[0] == "wait4":
            self.assertTrue(any('mkdir("%s.staging"' % self.app in line for line in mine), what)

    def mix(self, snapshot):
        """The paths in which snapshot differs from each version (the contents left out)."""
        return "; ".join("%s: %s" % (name, sorted(os.path.relpath(p, self.app) for p in set(snapshot) | set(v)
                                                  if snapshot.get(p, 0) != v.get(p, 0)) or "-")
                         for name, v in (("from 1.0.0.1", self.v1), ("from 1.0.0.2", self.v2)))

    def killed_update(self, what, options, expected, stay):
        """One kill; true when the folder held one version and both launches after it worked."""
        log = self.path("kill.txt")
        killed = self.strace_update(log, options, stay)
        self.assertKilledAt(log, what, expected)
        # The launcher waited for the update's outcome, which never came.
        self.assertEqual(1, killed.returncode, "%s: the launcher's exit status" % what)
        # The application folder holds one version; the next launch (no update offered) starts
        # its client.
        snapshot = ksharness.tree_snapshot(self.app)
        self.assertTrue(snapshot in (self.v1, self.v2), "%s: not one version: %s" % (what, self.mix(snapshot)))
        version = "1.0.0.1" if snapshot == self.v1 else "1.0.0.2"
        ini = os.path.join(self.www, "update.ini")
        offered = self.read(ini)
        os.remove(ini)
        try:
            r = self.launch()
        finally:
            self.write(ini, offered)
        self.assertOk(r)
        self.assertEqual(version, (self.client_report() or {}).get("version"), "%s\n%r" % (what, r))
        self.assertTrue(snapshot == ksharness.tree_snapshot(self.app), what)
        # The records follow the folder: a kill after the exchange is finished by that launch.
        self.assertEqual(([version], [version]), self.recorded_versions(), what)
        self.assertFalse(os.path.exists(self.app + ".unfinished.xml"), what)
        # The following update completes. One that had to run leaves nothing but the previous
        # version; a kill after the exchange may leave the old version under a staging name
        # (and a staging folder of before) until the next update clears them away.
        os.remove(self.report)
        r = self.launch()
        self.assertOk(r)
        self.assertEqual("1.0.0.2", (self.client_report() or {}).get("version"), "%s\n%r" % (what, r))
        after = ksharness.tree_snapshot(self.app)
        self.assertTrue(after == self.v2, "%s: the following update: %s" % (what, self.mix(after)))
        kept = {"Client", "Client.previous", "Client.xml"}
        if version == "1.0.0.2":
            kept |= {"Client.staging", "Client.staging.replaced", os.path.basename(self.leftover)}
        self.assertLessEqual(set(os.listdir(self.vendor)), kept, what)
        return True

    def test_kill_matrix(self):
        moments = self.choose()
        step = int(os.environ.get("KSDEPLOY_KILL_MOMENTS", "1") or 1)
        moments = moments[::max(1, step)]
        whole = 0
        for what, options, _, _, expected, stay in moments:
            with self.subTest(what):
                try:
                    whole += self.killed_update(what, options, expected, stay)
                finally:
                    self.restore()
        print("\nkill -9 matrix: %d of %d left one whole version" % (whole, len(moments)))
        self.assertEqual(len(moments), whole)


if __name__ == "__main__":
    ksharness.main()
