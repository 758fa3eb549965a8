"""Window helpers for suites that answer the program's boxes on a private X server: find a
visible window by title and press keys in it until it goes. Mix into a KsTestCase whose setUp
starts `self.x` (test_progress_dialog.XServer)."""
import os
import re
import subprocess

from ksharness import wait_for


class DesktopMixin:
    def xtool(self, *args):
        return subprocess.run(list(args), env=dict(self.env, DISPLAY=self.x.display), stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, timeout=60).stdout.decode()

    def box(self, title):
        """The visible window whose title (as the window manager reads it) matches."""
        for window in self.xtool("xdotool", "search", "--onlyvisible", "--name", "").split():
            if re.search(title, self.xtool("xdotool", "getwindowname", window).rstrip("\n")):
                return window
        return None

    def press(self, title, key, proc=None):
        """Presses key in the window of that title until it is gone (it takes the keyboard once
        it shows); a process `proc` that ends meanwhile ends the wait too."""
        ended = (lambda: proc is not None and proc.poll() is not None)
        window = wait_for(lambda: self.box(title) or ended(), "the window " + title)
        for _ in range(40):
            if ended() or not self.box(title):
                return
            self.xtool("xdotool", "windowfocus", "--sync", window)
            self.xtool("xdotool", "key", key)
            try:
                wait_for(lambda: not self.box(title) or ended(), "the window to go", limit=3)
                return
            except AssertionError:
                pass
        self.fail("the window %s did not take %s" % (title, key))

    def updates_running(self):
        """Whether an engine started from a sandbox of this test still runs."""
        sandboxes = os.path.join(self.tmp, "Kestra Imaging", "Auto Update", "Sandboxes") + "/"
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.readlink("/proc/%s/exe" % pid).startswith(sandboxes):
                    return True
            except OSError:
                pass
        return False
