"""--link: a directory junction, never overwriting what is there."""
import os

import ksharness


class LinkTest(ksharness.KsTestCase):
    def test_creates_a_link_to_the_directory(self):
        os.makedirs(self.path("real"))
        self.write("real/f.txt", "x")
        r = self.run_ks("--link", "source=" + self.path("alias"), "target=" + self.path("real"))
        self.assertOk(r)
        self.assertTrue(os.path.islink(self.path("alias")))
        self.assertEqual(b"x", self.read("alias/f.txt"))

    def test_never_overwrites_and_needs_a_directory(self):
        os.makedirs(self.path("real"))
        self.write("taken", "keep")
        r = self.run_ks("--link", "source=" + self.path("taken"), "target=" + self.path("real"))
        self.assertFails(r)
        self.assertIn(self.path("taken"), r.err)
        self.assertEqual(b"keep", self.read("taken"))
        r = self.run_ks("--link", "source=" + self.path("alias"), "target=" + self.path("missing"))
        self.assertFails(r)
        self.assertIn(self.path("missing"), r.err)
        self.assertFalse(os.path.lexists(self.path("alias")))
        r = self.run_ks("--link", "source=" + self.path("alias"))
        self.assertFails(r)
        self.assertIn("command '--link' requires the attribute 'target'", r.err)


if __name__ == "__main__":
    ksharness.main()
