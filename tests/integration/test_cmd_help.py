"""--help and the command list: every command is listed with its brief, in name order, and each
command's help follows the same layout."""
import ksharness

COMMANDS = ["cache", "commands", "config", "flags", "generate", "help", "link", "load", "plugin",
            "product", "save", "tool"]
FIELDS = ["       attribute   : ", "       occurrence  : ", "       values      : ",
          "       default     : "]


class HelpTest(ksharness.KsTestCase):
    def test_every_command_has_a_brief_and_attribute_blocks_in_one_layout(self):
        for name in COMMANDS:
            with self.subTest(command=name):
                r = self.run_ks("--help", "command=" + name)
                self.assertOk(r)
                head, _, rest = r.out.partition("\n")
                self.assertEqual("--" + name, head)
                brief, _, blocks = rest.partition("\n\n")
                self.assertTrue(brief.strip(), r.out)
                for block in filter(None, blocks.split("\n\n")):
                    for field, line in zip(FIELDS, block.split("\n")):
                        self.assertTrue(line.startswith(field), "%r in\n%s" % (line, block))

    def test_list_without_arguments_and_for_empty_or_unknown_names(self):
        listing = self.run_ks()
        self.assertOk(listing)
        positions = [listing.out.index("\n--%s\n" % name) for name in COMMANDS]
        self.assertEqual(sorted(positions), positions, "commands must be listed in name order")
        for extra in [["--help"], ["--help", "command="]]:
            self.assertEqual(listing.out, self.run_ks(*extra).out)
        r = self.run_ks("--help", "command=nosuch")
        self.assertOk(r)
        self.assertTrue(r.out.startswith("Unknown command 'nosuch'.\n"), r.out)
        self.assertIn(listing.out, r.out)


if __name__ == "__main__":
    ksharness.main()
