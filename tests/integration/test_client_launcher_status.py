"""The launcher's exit status comes from the engine that ran the update, read on a pipe that no
client inherits: the launcher returns when that engine has ended, while the client it started
runs on. (The failure cases, which give 1, are in test_client_update.py.)
"""
import os
import signal
import subprocess

import ksharness
from test_client_update import UpdateCase, PASSWORD


class LauncherStatusTest(UpdateCase):
    def clients_running(self):
        """The ids of the processes running the installed client."""
        program = os.path.join(self.app, "ksclient.exe")
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.readlink("/proc/%s/exe" % pid) == program:
                    found.append(int(pid))
            except OSError:
                pass
        return found

    def launch_staying(self):
        """A launch whose client stays up long after it started; returns the launcher's status."""
        launcher = os.path.join(self.app, "ksweblaunch.exe")
        password = self.write("password", PASSWORD + "\n")
        env = dict(self.env, KSCLIENT_STAY_SECONDS="600")
        with open(self.path("out.txt"), "wb") as out:
            proc = subprocess.Popen([launcher, "--url", self.url, "--password-file", password], cwd=self.work,
                                    stdout=out, stderr=out, env=env)
            try:
                # Far beyond an update of this size; a client holding the pipe keeps it 600 s.
                status = proc.wait(timeout=120)
            finally:
                if proc.poll() is None:
                    proc.kill()
                    proc.wait()
                for pid in self.clients_running():
                    self.addCleanup(os.kill, pid, signal.SIGKILL)
        return status

    def test_the_launcher_returns_with_the_update_while_the_new_client_runs(self):
        self.publish("1.0.0.2", {"data/kept.dat": b"kept\n" * 1000})
        self.assertEqual(0, self.launch_staying(), self.read("out.txt"))
        self.assertEqual(1, len(self.clients_running()))
        # The client writes its report once started: the launcher may return before that.
        report = ksharness.wait_for(self.client_report, "the client's report")
        self.assertEqual("1.0.0.2", report["version"])

    def test_a_launch_without_an_update_returns_while_its_client_runs(self):
        os.remove(os.path.join(self.www, "update.ini"))
        self.assertEqual(0, self.launch_staying(), self.read("out.txt"))
        self.assertEqual(1, len(self.clients_running()))
        report = ksharness.wait_for(self.client_report, "the client's report")
        self.assertEqual("1.0.0.1", report["version"])


if __name__ == "__main__":
    ksharness.main()
