"""--commands: a stream file whose lines are read as if they followed it on the command line."""
import os

import ksharness


class CommandsTest(ksharness.KsTestCase):
    def test_blank_and_padded_lines(self):
        self.write("src/a.txt", "a")
        self.write("stream.txt", "--generate\n  type=directory  \n\n\tpath=%s\r\n\n--save\n target=out.xml\n"
                   % self.path("src"))
        r = self.run_ks("--commands", "file=stream.txt")
        self.assertOk(r)
        self.assertIn('Name="a.txt"', self.read("out.xml").decode())

    def test_stream_runs_where_it_stands_between_other_commands(self):
        # The generated product only resolves when the --config before the stream has run.
        self.write("src/a.txt", "a")
        self.write("stream.txt", "--generate\ntype=directory\npath=%s\nname=${T}\nproduct=P\n" % self.path("src"))
        r = self.run_ks("--config", "T=" + self.path("src"), "--commands", "file=stream.txt",
                        "--product", "action=precache", "targetdir=" + self.path("cache"))
        self.assertOk(r)
        self.assertTrue(os.path.exists(self.path("cache", "0cc175b9c0f1b6a831c399e269772661")))

    def test_missing_stream_file_fails_with_its_path(self):
        r = self.run_ks("--commands", "file=" + self.path("absent.txt"))
        self.assertFails(r, 1)
        self.assertIn("error: %s\n  cond[file.open( QIODevice::ReadOnly )]" % self.path("absent.txt"), r.err)

    def test_bad_stream_contents_are_a_command_line_error(self):
        self.write("bad.txt", "--save\ntarget=x.xml\n--nosuch\n")
        r = self.run_ks("--commands", "file=bad.txt")
        self.assertFails(r, 2)
        self.assertIn("unknown command '--nosuch'", r.err)
        self.assertFalse(os.path.exists(self.path("x.xml")))
        self.write("self.txt", "--commands\nfile=self.txt\n")
        r = self.run_ks("--commands", "file=self.txt")
        self.assertFails(r, 2)
        self.assertIn("does a stream name itself?", r.err)


if __name__ == "__main__":
    ksharness.main()
