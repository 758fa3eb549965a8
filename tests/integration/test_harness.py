"""The harness itself: a failing test keeps its work folder as evidence, a passing one does not."""
import io
import os
import shutil
import sys
import unittest

import ksharness


class _Probe(ksharness.KsTestCase):
    """Runs only inside HarnessTest; records where its work folder was."""
    folders = {}

    def _remember(self):
        with open(self.path("evidence"), "w") as f:
            f.write("kept")
        _Probe.folders[self._testMethodName] = self.work

    def probe_passes(self):
        self._remember()

    def probe_fails(self):
        self._remember()
        self.fail("on purpose")

    def probe_fails_in_a_subtest(self):
        self._remember()
        for n in (1, 2):
            with self.subTest(n=n):
                self.assertEqual(1, n)


class HarnessTest(unittest.TestCase):
    def run_probe(self, name):
        result = unittest.TextTestResult(io.StringIO(), False, 0)
        saved = sys.stderr
        sys.stderr = io.StringIO()  # the "kept work folder" line of the probe
        try:
            _Probe(name).run(result)
        finally:
            sys.stderr = saved
        return result, _Probe.folders[name]

    def test_work_folder_is_kept_exactly_when_the_test_fails(self):
        for name, fails in (("probe_passes", False), ("probe_fails", True), ("probe_fails_in_a_subtest", True)):
            with self.subTest(probe=name):
                result, folder = self.run_probe(name)
                try:
                    self.assertEqual(fails, not result.wasSuccessful())
                    self.assertEqual(fails, os.path.isfile(os.path.join(folder, "evidence")))
                finally:
                    shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    ksharness.main()
