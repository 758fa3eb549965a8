"""The progress dialog on a real X server (Xvfb) with a private session bus: what the window
shows, how it ends after success and after failure, the task-bar signal, and what a run does
without a display or when the display goes away.

Screenshots are written to the test's work folder ("screens/"), which is kept when a test fails.
"""
import hashlib
import os
import random
import re
import shutil
import signal
import subprocess
import time
import unittest

import ksharness
from ksharness import wait_for
from fault_server import FaultServer

TITLE = "Kestra Imaging"
TOOLS = ("Xvfb", "xdpyinfo", "xdotool", "xwd", "xwdtopnm", "pamdepth", "pnmtopng", "dbus-daemon", "dbus-monitor")
MISSING = [t for t in TOOLS if shutil.which(t) is None]


def md5(data):
    return hashlib.md5(data).hexdigest()


class XServer:
    """Xvfb on a display number of its own, answered by xdpyinfo before it is used.

    Numbers are drawn from a high range and skipped when a lock or socket exists; a server that
    cannot listen (the number is taken where we cannot see it) ends at once, and the next is tried.
    """

    def __init__(self):
        rng = random.Random()
        for _ in range(50):
            number = rng.randint(100, 4000)
            if os.path.exists("/tmp/.X%d-lock" % number) or os.path.exists("/tmp/.X11-unix/X%d" % number):
                continue
            self.display = ":%d" % number
            # -noreset: by default the server resets when its last client (the xdpyinfo probe)
            # leaves, and a program connecting during that reset is refused.
            self.proc = subprocess.Popen(["Xvfb", self.display, "-screen", "0", "1280x1024x24", "-nolisten", "tcp",
                                          "-noreset"],
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            try:
                if wait_for(self.answers, "Xvfb on " + self.display, limit=30.0) == "up":
                    return
            except AssertionError:
                self.stop()
        raise RuntimeError("no free display for Xvfb")

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(timeout=30)

    def answers(self):
        if self.proc.poll() is not None:
            return "gone"
        probe = subprocess.run(["xdpyinfo", "-display", self.display], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
        return "up" if probe.returncode == 0 else None

class SessionBus:
    def __init__(self):
        self.proc = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address=1"],
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.address = self.proc.stdout.readline().decode().strip()
        if not self.address:
            self.proc.kill()
            raise RuntimeError("dbus-daemon did not start")

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=30)
        self.proc.stdout.close()


class Image:
    """An RGB screenshot (binary PPM, 8 bits) of one window or of the whole screen."""

    def __init__(self, ppm):
        magic, size, maxval, pixels = ppm.split(b"\n", 3)
        assert magic == b"P6" and maxval == b"255", (magic, maxval)
        self.width, self.height = map(int, size.split())
        self.pixels = pixels
        self.ppm = ppm

    def at(self, x, y):
        i = (y * self.width + x) * 3
        return tuple(self.pixels[i:i + 3])


@unittest.skipIf(MISSING, "missing tools: %s (run scripts/bootstrap.sh)" % ", ".join(MISSING))
class ProgressDialogTest(ksharness.KsTestCase):
    def setUp(self):
        super().setUp()
        self.x = XServer()
        self.addCleanup(self.x.stop)
        self.bus = SessionBus()
        self.addCleanup(self.bus.stop)
        runtime = self.path("runtime")
        os.makedirs(runtime, mode=0o700)
        self.gui_env = {"DISPLAY": self.x.display, "DBUS_SESSION_BUS_ADDRESS": self.bus.address,
                        "XDG_RUNTIME_DIR": runtime}
        self.shots = 0
        # A product of a few folders of small files, published as plain items.
        self.files = {}
        for d in range(4):
            for i in range(40):
                self.files["app/d%d/f%03d.txt" % (d, i)] = ("file %d/%d\n" % (d, i)).encode() * (i + 1)
        for rel, data in self.files.items():
            self.write(rel, data)
        os.makedirs(self.path("publish"))
        for data in self.files.values():
            with open(self.path("publish", md5(data)), "wb") as f:
                f.write(data)
        r = self.run_ks("--flags", "quiet=true", "--generate", "type=directory", "path=" + self.path("app"),
                        "name=${TARGET}", "product=App", "--save", "target=product.xml")
        self.assertOk(r)

    def install_args(self, url=None):
        return ["--load", "file=product.xml", "--config", "TARGET=" + self.path("target"),
                "--product", "action=install", "url=" + (url or "file://" + self.path("publish"))]

    def start(self, args, env):
        return self.start_logged([ksharness.BIN] + args, dict(self.env, **env))

    def stderr_text(self):
        with open(self.path("stderr.txt"), "rb") as f:
            return f.read().decode("latin-1")

    def xtool(self, *args, check=True):
        env = dict(self.env, DISPLAY=self.x.display)
        return subprocess.run(list(args), env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              check=check, timeout=60).stdout.decode()

    def window(self):
        found = self.xtool("xdotool", "search", "--onlyvisible", "--name", TITLE, check=False).split()
        return found[0] if found else None

    def screenshot(self, window=None):
        """Takes the window (or the screen) and keeps a PNG of it in the work folder."""
        target = ["-id", window] if window else ["-root"]
        env = dict(self.env, DISPLAY=self.x.display)
        xwd = subprocess.run(["xwd", "-silent"] + target, env=env, stdout=subprocess.PIPE, check=True,
                             timeout=60).stdout
        ppm = subprocess.run("xwdtopnm 2>/dev/null | pamdepth 255", shell=True, input=xwd,
                             stdout=subprocess.PIPE, check=True, timeout=60).stdout
        self.shots += 1
        os.makedirs(self.path("screens"), exist_ok=True)
        with open(self.path("screens", "shot%02d.png" % self.shots), "wb") as f:
            f.write(subprocess.run(["pnmtopng"], input=ppm, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   check=True).stdout)
        return Image(ppm)

    def monitor(self):
        """dbus-monitor on the task-bar signal, started and listening before the run."""
        log = open(self.path("dbus-monitor.txt"), "wb")
        env = dict(self.env, DBUS_SESSION_BUS_ADDRESS=self.bus.address)
        proc = subprocess.Popen(["dbus-monitor", "--session", "type='signal',interface='com.canonical.Unity.LauncherEntry'"],
                                env=env, stdout=log, stderr=subprocess.DEVNULL)

        def stop():
            proc.terminate()
            proc.wait()
            log.close()
        self.addCleanup(stop)
        # It announces itself on the bus first; after that our signals are seen.
        wait_for(lambda: b"NameAcquired" in self.read("dbus-monitor.txt"), "dbus-monitor")
        return lambda: self.read("dbus-monitor.txt").decode("latin-1")

    def assertInstalled(self):
        for rel, data in self.files.items():
            self.assertEqual(data, self.read("target/" + rel[len("app/"):]), rel)

    def test_success_closes_by_itself_exits_0_and_shows_progress_on_the_task_bar(self):
        monitored = self.monitor()
        proc = self.start(self.install_args(), self.gui_env)
        self.assertEqual(0, proc.wait(timeout=300), self.stderr_text())
        self.assertInstalled()
        self.assertNotIn("error", self.stderr_text())
        self.assertNotIn("no display", self.stderr_text())
        with open(self.path("stdout.txt"), "rb") as f:
            self.assertEqual(b"", f.read(), "the dialog takes the progress lines, not the console")
        # The task bar saw the bar run up to (nearly) full and then disappear.
        text = wait_for(lambda: "boolean false" in monitored() and monitored(), "the last task-bar signal")
        updates = [u for u in text.split("signal ")[1:] if "member=Update" in u]
        self.assertTrue(updates, "no task-bar signal")
        for update in updates:
            self.assertIn("path=/com/ksdeploy/ksdeploy;", update)
            self.assertIn('string "application://ksdeploy.desktop"', update)
        values = [float(v) for v in re.findall(r'string "progress"\s+variant\s+double (\S+)', text)]
        self.assertEqual(len(updates), len(values))
        self.assertTrue(all(0.0 <= v <= 1.0 for v in values), values[:20])
        self.assertGreaterEqual(max(values), 0.9)
        self.assertIn("boolean true", updates[0])
        self.assertRegex(updates[-1], r'string "progress-visible"\s+variant\s+boolean false')

    def test_failure_keeps_the_dialog_open_until_close_is_clicked_then_exits_1(self):
        # The item of one late file is missing: the install fails near the end and is rolled back.
        os.remove(self.path("publish", md5(self.files["app/d3/f039.txt"])))
        proc = self.start(self.install_args(), self.gui_env)
        wait_for(lambda: "error:" in self.stderr_text() and self.window(), "the failure and the window")

        # The run has ended when nothing changes on screen any more (the dialog waits for the user).
        previous = None
        for _ in range(600):
            shot = self.screenshot(self.window())
            if previous is not None and shot.ppm == previous.ppm:
                break
            previous = shot
            time.sleep(0.1)
        self.assertIsNone(proc.poll(), "the host must wait for the user after a failure")

        # The frame: white at the top, the pale blue at the bottom, on every column of the edge rows.
        for x in (2, shot.width // 2, shot.width - 3):
            self.assertEqual((255, 255, 255), shot.at(x, 0), "top row at %d" % x)
            bottom = shot.at(x, shot.height - 1)
            for got, want in zip(bottom, (217, 227, 238)):
                self.assertLessEqual(abs(got - want), 2, "bottom row at %d: %r" % (x, bottom))
        # The bar: a run of the highlight colour, far from white or the gradient.
        bar_left, bar_right, bar_bottom = self.find_bar(shot)
        self.assertGreater(bar_right - bar_left, shot.width // 2, "the bar is less than half full")

        # "Show Details" sits under the bar's left end: the log folds out and the window grows.
        window = self.window()
        self.xtool("xdotool", "mousemove", "--window", window, str(bar_left + 7), str(bar_bottom + 20), "click", "1")
        wait_for(lambda: self.window_height(window) > shot.height + 300, "the log pane")
        shot = self.screenshot(window)
        bar_left, bar_right, bar_bottom = self.find_bar(shot)

        # Close sits right under the bar's right end.
        self.xtool("xdotool", "mousemove", "--window", window, str(bar_right - 30), str(bar_bottom + 20),
                   "click", "1")
        self.assertEqual(1, proc.wait(timeout=60), self.stderr_text())
        self.assertFalse(os.path.exists(self.path("target", "d0", "f000.txt")), "the install was not rolled back")

    def window_height(self, window):
        geometry = self.xtool("xdotool", "getwindowgeometry", "--shell", window, check=False)
        found = re.search(r"HEIGHT=(\d+)", geometry)
        return int(found.group(1)) if found else 0

    def find_bar(self, shot):
        """Left end, right end of the fill and bottom row of the progress bar."""
        rows = []
        for y in range(shot.height):
            fill = [x for x in range(shot.width) if self.is_bar_fill(shot.at(x, y))]
            if len(fill) > shot.width // 3:
                rows.append((y, min(fill), max(fill)))
        self.assertGreater(len(rows), 5, "no filled bar in the screenshot")
        return min(r[1] for r in rows), max(r[2] for r in rows), rows[-1][0]

    @staticmethod
    def is_bar_fill(rgb):
        r, g, b = rgb
        return b > 150 and r < 120 and b - r > 80

    def test_without_a_display_the_console_takes_over_and_exit_status_is_unchanged(self):
        r = self.run_ks(*self.install_args())
        self.assertOk(r)
        self.assertIn("...ok", r.out)
        self.assertEqual(1, r.err_raw.count("no display available"), r.err_raw)
        self.assertInstalled()
        # A fresh cache, so the missing item is really fetched.
        shutil.rmtree(self.path("target"))
        shutil.rmtree(self.tmp)
        os.makedirs(self.tmp)
        os.remove(self.path("publish", md5(self.files["app/d1/f005.txt"])))
        r = self.run_ks(*self.install_args())
        self.assertFails(r)
        self.assertIn("...failed", r.out)
        self.assertEqual(1, r.err_raw.count("no display available"), r.err_raw)
        # Quiet stays silent about it.
        r = self.run_ks("--flags", "quiet=true", "--help", "command=flags")
        self.assertOk(r)
        self.assertNotIn("no display", r.err)

    def test_the_command_line_is_not_taken_by_the_toolkit_on_a_desktop(self):
        # "--plugin" and "-style" are also the toolkit's own options; on a desktop they must still
        # reach our command line.
        r = self.run_ks("--flags", "quiet=true", "--plugin", "name=KestraClientBuildSystem", "--help",
                        "command=generateProductXML", env=self.gui_env)
        self.assertOk(r)
        self.assertTrue(r.out.startswith("--generateProductXML\n"), r.out)
        self.assertNotIn("No such plugin", r.err_raw)
        r = self.run_ks("-style", "fusion", env=self.gui_env)
        self.assertEqual(2, r.code, repr(r))

    def test_debug_flag_waits_in_a_message_box_until_ok(self):
        proc = self.start(["--flags", "debug=true", "--help", "command=flags"], self.gui_env)
        wait_for(lambda: self.xtool("xdotool", "search", "--onlyvisible", "--name", "^Debug$", check=False).split(),
                 "the debug box")
        self.screenshot()
        self.assertIsNone(proc.poll(), "the run went on before OK")
        # Return presses OK once the box has the keyboard focus, which it takes right after it shows.
        for _ in range(20):
            self.xtool("xdotool", "key", "Return")
            try:
                proc.wait(timeout=3)
                break
            except subprocess.TimeoutExpired:
                pass
        self.assertEqual(0, proc.wait(timeout=60), self.stderr_text())
        with open(self.path("stdout.txt"), "rb") as f:
            self.assertIn(b"attribute   : debug", f.read())

    def test_a_display_that_goes_away_ends_the_run_with_a_message_and_a_failure_status(self):
        # One item stalls mid-transfer, so the run is surely still busy when the display dies.
        stalled = "/" + md5(self.files["app/d2/f010.txt"])
        with FaultServer(self.path("publish"), {stalled: "stall", "*.lzma": "status:404"}) as server:
            proc = self.start(self.install_args(server.url), self.gui_env)
            wait_for(lambda: self.window() or proc.poll() is not None, "the window")
            wait_for(lambda: any(p == stalled for _, p, _, _ in server.requests), "the stalled request")
            self.x.proc.send_signal(signal.SIGKILL)
            self.x.proc.wait()
            # A killed server leaves its lock and socket behind; they are ours to remove.
            number = self.x.display[1:]
            for stale in ("/tmp/.X%s-lock" % number, "/tmp/.X11-unix/X%s" % number):
                if os.path.exists(stale):
                    os.remove(stale)
        code = proc.wait(timeout=120)
        err = self.stderr_text()
        self.assertNotEqual(0, code, err)
        self.assertIn("ksdeploy: the display went away", err)


if __name__ == "__main__":
    ksharness.main()
