"""--config, --flags and --plugin."""
import os

import ksharness


class ConfigTest(ksharness.KsTestCase):
    def _install(self, *config):
        self.write("src/a.txt", "a")
        return self.run_ks("--generate", "type=directory", "path=" + self.path("src"), "name=${T}", "product=P",
                           "--cache", "action=precache", "dir=" + self.path("src"),
                           "--config", *config, "--product", "action=install")

    def test_first_of_a_name_given_twice_wins(self):
        r = self._install("T=" + self.path("first"), "T=" + self.path("second"))
        self.assertOk(r)
        self.assertTrue(os.path.isfile(self.path("first", "a.txt")))
        self.assertFalse(os.path.exists(self.path("second")))

    def test_a_later_config_command_replaces_the_value(self):
        self.write("src/a.txt", "a")
        r = self.run_ks("--config", "T=" + self.path("first"), "--config", "T=" + self.path("second"),
                        "--generate", "type=directory", "path=" + self.path("src"), "name=${T}", "product=P",
                        "--cache", "action=precache", "dir=" + self.path("src"), "--product", "action=install")
        self.assertOk(r)
        self.assertTrue(os.path.isfile(self.path("second", "a.txt")))


class FlagsTest(ksharness.KsTestCase):
    def test_debug_pause_waits_for_enter_without_a_display(self):
        r = self.run_ks("--flags", "debug=true", "--save", "target=out.xml", stdin=b"\n", timeout=30)
        self.assertOk(r)
        self.assertTrue(r.out.startswith("Attach debugger, then press OK to continue.\n"), r.out)
        self.assertTrue(os.path.exists(self.path("out.xml")))

    def test_only_the_exact_text_true_switches_a_flag_on(self):
        for value in ["TRUE", "1", "yes", "false"]:
            r = self.run_ks("--flags", "debug=" + value, "quiet=" + value, stdin=b"", timeout=30)
            self.assertOk(r)
            self.assertNotIn("Attach debugger", r.out)

class PluginTest(ksharness.KsTestCase):
    def test_unknown_plugin_fails_while_parsing(self):
        r = self.run_ks("--save", "target=out.xml", "--plugin", "name=NoSuchPlugin")
        self.assertFails(r, 1)
        self.assertIn("NoSuchPlugin", r.err)
        # Registration happens while parsing, so the earlier save never ran.
        self.assertFalse(os.path.exists(self.path("out.xml")))

if __name__ == "__main__":
    ksharness.main()
