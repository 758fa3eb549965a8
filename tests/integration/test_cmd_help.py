"""--help and the command list: the help texts are part of the interface, byte for byte."""
import ksharness

COMMANDS = ["cache", "commands", "config", "flags", "generate", "help", "link", "load", "plugin",
            "product", "save", "tool"]

HELP = ("--help\n"
        "Display documentation text for a specific command.\n"
        "\n"
        "       attribute   : command\n"
        "       occurrence  : once (required)\n"
        "       values      : String\n"
        "       default     : \n"
        "           With this attribute one can select the command for which the\n"
        "           documentation gets displayed.\n")

COMMANDS_HELP = ("--commands\n"
                 "Define a stream where additional commands have to be retrieved from.\n"
                 "One can use this feature if the command line would get too long.\n"
                 "In the stream the arguments have to be separated by a new-line.\n"
                 "\n"
                 "       attribute   : file\n"
                 "       occurrence  : once (optional)\n"
                 "       values      : String\n"
                 "       default     : \n"
                 "           This attribute specifies the filepath of a file that has to be.\n"
                 "           parsed for more commands to execute\n")

CONFIG_HELP = ("--config\n"
               "Specification of configuration values.\n"
               "For this command no specific attributes are predetermined. Any attribute\n"
               "can be specified and gets directly incorporated into the configuration.\n")

FLAGS_HELP = ("--flags\n"
              "Provide boolean flags to control the programs behavior.\n"
              "\n"
              "       attribute   : quiet\n"
              "       occurrence  : once (optional)\n"
              "       values      : true | false\n"
              "       default     : false\n"
              "       execution   : right after being parsed\n"
              "           If TRUE, the application runs as a pure console application,\n"
              "           where no user interface is shown and no user interaction is\n"
              "           required. Note that this is only ensured for core commands\n"
              "           but not for plugins e.g. PluginKestraClient.\n"
              "\n"
              "       attribute   : debug\n"
              "       occurrence  : once (optional)\n"
              "       values      : true | false\n"
              "       default     : false\n"
              "       execution   : right after being parsed\n"
              "           If TRUE, a blocking windows message box is displayed during\n"
              "           execution of this command.\n"
              "           This provides opportinity to attach a debugger while the\n"
              "           box is shown.\n")

PLUGIN_HELP = ("--plugin\n"
               "Activate a plugin.\n"
               "\n"
               "       attribute   : name\n"
               "       occurrence  : once (required)\n"
               "       values      : String\n"
               "       default     : \n"
               "       execution   : right after being parsed\n"
               "           This attribute specifies the name of the plugin to be activated.\n")

LOAD_HELP = ("--load\n"
             "Load resources from some source into the resource-pool.\n"
             "\n"
             "       attribute   : file\n"
             "       occurrence  : once (optional)\n"
             "       values      : String\n"
             "       default     : empty\n"
             "           With this attribute one can specify a file where resources get\n"
             "           de-serialized from.\n"
             "\n"
             "       attribute   : url\n"
             "       occurrence  : once (optional)\n"
             "       values      : String\n"
             "       default     : empty\n"
             "           With this attribute one can specify a http-url where resources get\n"
             "           de-serialized from.\n")

SAVE_HELP = ("--save\n"
             "Store the resource-pool into a file.\n"
             "\n"
             "       attribute   : target\n"
             "       occurrence  : once (required)\n"
             "       values      : String\n"
             "       default     : \n"
             "           With this attribute one can specify the file the resources get\n"
             "           serialized into.\n"
             "\n"
             "       attribute   : gv\n"
             "       occurrence  : once (optional)\n"
             "       values      : String ('true' or something else)\n"
             "       default     : 'false'\n"
             "           If this attribute is set to 'true', an additional graphviz file\n"
             "           is generated.\n"
             "\n"
             "       attribute   : compress\n"
             "       occurrence  : once (optional)\n"
             "       values      : true | false\n"
             "       default     : false\n"
             "           If TRUE, a second compressed version of the file is stored under\n"
             "           the same filename but with an '_' appended.\n")

BRIEFS = {
    "cache": " Scan the byte-data of the targeted items, and place them into the buffer cache.\n",
    "generate": "Generate a resource-graph using one of the specialized build-in\ngenerators.\n",
    "link": "Link a file system object to another one.\n",
    "product": "Perform an action for the specified product like installation, uninstallation, "
               "verification, invocation, etc.. .\n",
    "tool": "Unspecific actions.\n",
}

# Every attribute block of the Part-6.1 layout: five fixed field columns, then the description.
FIELDS = ["       attribute   : ", "       occurrence  : ", "       values      : ",
          "       default     : "]


class HelpTest(ksharness.KsTestCase):
    def test_full_texts_of_the_basic_and_pool_commands(self):
        for name, text in [("help", HELP), ("commands", COMMANDS_HELP), ("config", CONFIG_HELP),
                           ("flags", FLAGS_HELP), ("plugin", PLUGIN_HELP), ("load", LOAD_HELP),
                           ("save", SAVE_HELP)]:
            with self.subTest(command=name):
                r = self.run_ks("--help", "command=" + name)
                self.assertOk(r)
                self.assertEqual(text, r.out)

    def test_briefs_and_attribute_layout_of_the_other_commands(self):
        for name, brief in BRIEFS.items():
            with self.subTest(command=name):
                r = self.run_ks("--help", "command=" + name)
                self.assertOk(r)
                self.assertTrue(r.out.startswith("--" + name + "\n" + brief + "\n"), r.out)
                blocks = r.out[len("--" + name + "\n" + brief + "\n"):].split("\n\n")
                self.assertGreater(len(blocks), 0)
                for block in blocks:
                    lines = block.rstrip("\n").split("\n")
                    for field, line in zip(FIELDS, lines):
                        self.assertTrue(line.startswith(field), "%r in\n%s" % (line, block))
                    for line in lines[4:]:
                        self.assertTrue(line.startswith("       execution   : right after being parsed")
                                        or line.startswith("           "), repr(line))

    def test_product_and_tool_name_every_action_with_its_line(self):
        r = self.run_ks("--help", "command=product")
        for line in ["Perform an installation.", "Perform a de-installation.",
                     "Verify an existing installation.",
                     "Start an executable from an existing installation.",
                     "Uptate the attributes of the rules from an existing installation "
                     "(currently the MD5 for files).",
                     "Precache all resouces that the product demands.",
                     "       values      : install, uninstall, verify, invoke, rescan, precache, resolve\n",
                     "       occurrence  : once (required for 'invoke')\n",
                     "       attribute   : confkey\n"]:
            self.assertIn(line, r.out)
        r = self.run_ks("--help", "command=tool")
        self.assertIn("Scan the windows registry for a product installed at this path and un-install it "
                      "using the method registered in the registry", r.out)
        self.assertIn("       values      : uninstallbypath, sandboxremove\n", r.out)

    def test_list_without_arguments_and_for_empty_or_unknown_names(self):
        listing = self.run_ks()
        self.assertOk(listing)
        positions = [listing.out.index("\n--%s\n" % name) for name in COMMANDS]
        self.assertEqual(sorted(positions), positions, "commands must be listed in name order")
        for extra in [["--help"], ["--help", "command="]]:
            r = self.run_ks(*extra)
            self.assertOk(r)
            self.assertEqual(listing.out, r.out)
        r = self.run_ks("--help", "command=nosuch")
        self.assertOk(r)
        self.assertTrue(r.out.startswith("Unknown command 'nosuch'.\n"), r.out)
        self.assertIn(listing.out, r.out)


if __name__ == "__main__":
    ksharness.main()
