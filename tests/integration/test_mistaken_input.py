"""Mistaken command lines: a misspelt attribute is refused with one line naming it, exit 2, and
nothing of the command line runs."""
import os

import ksharness


class MistakenCommandLineTest(ksharness.KsTestCase):
    def assertRefused(self, result, message):
        self.assertFails(result, 2)
        self.assertTrue(result.err.startswith("ksdeploy: " + message), result.err)
        self.assertEqual(1, result.err.count("\n"), "one line only: %r" % result.err)
        self.assertEqual("", result.out)

    def test_an_attribute_a_command_does_not_take_is_named_with_its_command(self):
        self.write("x.xml", "<ResourceGraph/>")
        cases = [
            (["--load", "fle=x.xml", "--save", "target=a.xml"], "unknown attribute 'fle' of command '--load'"),
            (["--save", "target=a.xml", "--product", "action=install", "name=P", "ulr=http://127.0.0.1:9/"],
             "unknown attribute 'ulr' of command '--product'"),
            # Names compare exactly, as the commands look them up.
            (["--save", "Target=a.xml"], "unknown attribute 'Target' of command '--save'"),
            # The empty name is no attribute either.
            (["--save", "target=a.xml", "--flags", "=true"], "unknown attribute '' of command '--flags'"),
        ]
        for args, message in cases:
            with self.subTest(args=args):
                self.assertRefused(self.run_ks(*args), message)
                self.assertFalse(os.path.exists(self.path("a.xml")), "nothing may run")

    def test_config_takes_any_name_and_declared_attributes_pass(self):
        r = self.run_ks("--config", "ulr=1", "fle=2", "--flags", "quiet=true", "--save", "target=a.xml",
                        "gv=false", "compress=false")
        self.assertOk(r)
        self.assertTrue(os.path.exists(self.path("a.xml")))

    def test_a_stream_is_checked_when_read_and_names_its_file_and_line(self):
        stream = self.write("stream.txt", "--config\nA=1\n\n  --load\n  fle=x.xml  \n--save\ntarget=b.xml\n")
        r = self.run_ks("--save", "target=a.xml", "--commands", "file=" + stream)
        self.assertRefused(r, "unknown attribute 'fle' of command '--load' (%s, line 5)" % stream)
        # Checked before any command of the line executes: the first --save did not write.
        self.assertFalse(os.path.exists(self.path("a.xml")))
        self.assertFalse(os.path.exists(self.path("b.xml")))

    def test_a_stream_argument_before_its_first_command_names_the_line(self):
        stream = self.write("stream.txt", "\n\ntarget=b.xml\n")
        r = self.run_ks("--save", "target=a.xml", "--commands", "file=" + stream)
        self.assertRefused(r, "argument 'target=b.xml' of a command stream comes before its first command "
                              "(%s, line 3)" % stream)
        self.assertFalse(os.path.exists(self.path("a.xml")))


if __name__ == "__main__":
    ksharness.main()
