"""Measurement, not a suite (timing decides where each kill lands): the sandboxed engine of an
update from 1.0.0.1 to 1.0.0.2 (40 files of 200 KB) is killed with SIGKILL at 20 moments, 0 to
228 ms after it appeared, before, during and after the staging and around the exchange. After each
kill the application folder must hold one whole version, the next launch must start a client,
and the following update must complete. Prints "OK N of 20".

    cd tests/integration && KSDEPLOY_BIN=$PWD/../../build/bin/ksdeploy python3 measure_update_kill.py
"""
import os
import shutil
import signal
import subprocess
import time
import unittest

import ksharness
from test_client_update import UpdateCase



def sandboxed(tmp):
    """The process id of an engine running from a sandbox below tmp, or None."""
    sb = os.path.join(tmp, "Kestra Imaging", "Auto Update", "Sandboxes") + "/"
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink("/proc/%s/exe" % pid).startswith(sb):
                return int(pid)
        except OSError:
            pass
    return None

RESULTS = []


class KillTest(UpdateCase):
    def test_kill(self):
        big = {"data/f%03d.dat" % i: os.urandom(200000) for i in range(40)}
        build = self.publish("1.0.0.2", dict(big))
        shutil.copytree(self.app, self.path("v1copy"), symlinks=True)
        v2 = {p.replace(build, self.app, 1): v for p, v in ksharness.tree_snapshot(build).items()}
        for moment in range(20):
            delay = moment * 0.012
            launcher = os.path.join(self.app, "ksweblaunch.exe")
            env = dict(self.env, KSCLIENT_STAY_SECONDS="0")
            proc = subprocess.Popen([launcher, "--url", self.url], cwd=self.work, env=env,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            pid = None
            end = time.monotonic() + 30
            while pid is None and time.monotonic() < end:
                pid = sandboxed(self.tmp)
            time.sleep(delay)
            try:
                os.kill(pid, signal.SIGKILL)
            except (OSError, TypeError):
                pass
            proc.wait()
            while sandboxed(self.tmp):
                time.sleep(0.01)
            # The next launch (no update.ini: only start) starts a working client.
            ini = os.path.join(self.www, "update.ini")
            with open(ini) as f:
                saved = f.read()
            os.remove(ini)
            if os.path.exists(self.report):
                os.remove(self.report)
            r = self.launch()
            snap = ksharness.tree_snapshot(self.app)
            whole = snap == self.v1 or snap == v2
            started = self.client_report() is not None and r.code == 0
            with open(ini, "w") as f:
                f.write(saved)
            # The following update completes.
            os.remove(self.report)
            r2 = self.launch()
            rep = self.client_report()
            done = rep is not None and rep["version"] == "1.0.0.2" and ksharness.tree_snapshot(self.app) == v2
            RESULTS.append((moment, whole, started, done, "v1" if snap == self.v1 else "v2" if snap == v2 else "MIX"))
            print(RESULTS[-1], flush=True)
            if not done:
                print(r2.out[-3000:], r2.err[-2000:])
            # Version 1 again for the next moment.
            shutil.rmtree(self.app)
            shutil.rmtree(self.app + ".previous", ignore_errors=True)
            shutil.copytree(self.path("v1copy"), self.app, symlinks=True)
            self.assertEqual(self.v1, ksharness.tree_snapshot(self.app))
        ok = sum(1 for r in RESULTS if r[1] and r[2] and r[3])
        print("OK %d of %d" % (ok, len(RESULTS)))
        self.assertEqual(len(RESULTS), ok)


if __name__ == "__main__":
    unittest.main(argv=["measure_update_kill", "-v"])
