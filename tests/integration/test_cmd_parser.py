"""The command line itself: what is rejected before anything runs, and how failures stop a run."""
import os

import ksharness


class ParserTest(ksharness.KsTestCase):
    def test_bad_command_lines_are_rejected_before_anything_runs(self):
        cases = [
            (["--save", "target=a.xml", "--nosuch"], "ksdeploy: unknown command '--nosuch'"),
            (["stray", "--save", "target=a.xml"], "ksdeploy: argument 'stray' comes before the first command"),
            (["--save", "target=a.xml", "--config", "A"],
             "ksdeploy: attribute 'A' of command '--config' is not of the form name=value"),
            (["--save", "target=a.xml", "--"], "ksdeploy: unknown command '--'"),
        ]
        for args, message in cases:
            with self.subTest(args=args):
                r = self.run_ks(*args)
                self.assertFails(r, 2)
                self.assertTrue(r.err.startswith(message), r.err)
                self.assertEqual(1, r.err.count("\n"), "one line only: %r" % r.err)
                self.assertFalse(os.path.exists(self.path("a.xml")), "nothing may run")

    def test_values_split_at_the_first_equals_sign_and_may_be_empty(self):
        # The value ends up in a resource name, which save writes out verbatim.
        r = self.run_ks("--config", "X=", "--generate", "type=file", "path=" + self.write("f.txt", "x"),
                        "name=a=b=c", "--save", "target=out.xml")
        self.assertOk(r)
        self.assertIn('Name="a=b=c"', self.read("out.xml").decode())

    def test_a_failing_command_stops_the_run_with_status_1(self):
        r = self.run_ks("--save", "--save", "target=second.xml")
        self.assertFails(r, 1)
        self.assertIn("error: command '--save' requires the attribute 'target'", r.err)
        self.assertIn("...failed", r.out)
        self.assertFalse(os.path.exists(self.path("second.xml")))

    def test_an_attribute_given_twice_is_named(self):
        r = self.run_ks("--save", "target=a.xml", "target=b.xml")
        self.assertFails(r, 1)
        self.assertIn("error: attribute 'target' of command '--save' is given more than once", r.err)


if __name__ == "__main__":
    ksharness.main()
