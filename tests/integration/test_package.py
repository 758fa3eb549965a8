"""The Debian package: built with cpack, unpacked with dpkg-deb -x, its program, man page and
bash completion used from there, and checked by lintian."""
import gzip
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import ksharness

BUILD_DIR = os.environ.get("KSDEPLOY_BUILD_DIR") or os.path.join(ksharness.SOURCE_DIR, "build")


def cache_value(name):
    try:
        with open(os.path.join(BUILD_DIR, "CMakeCache.txt")) as f:
            for line in f:
                if line.startswith(name + ":"):
                    return line.split("=", 1)[1].strip()
    except OSError:
        pass
    return None


@unittest.skipIf(cache_value("KSDEPLOY_SANITIZE") == "ON", "no package from a sanitizer build")
class PackageTest(ksharness.KsTestCase):
    @classmethod
    def setUpClass(cls):
        # One package for the whole suite: cpack is the slow part.
        cls.shared = tempfile.mkdtemp(prefix="ksdeploy-package-")
        out = os.path.join(cls.shared, "pkg")
        proc = subprocess.run(["cpack", "-G", "DEB", "--config", os.path.join(BUILD_DIR, "CPackConfig.cmake"),
                               "-B", out], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600)
        if proc.returncode != 0:
            raise AssertionError("cpack failed (%s kept):\n%s" % (cls.shared, proc.stdout.decode("latin-1")))
        cls.deb = os.path.join(out, "ksdeploy_%s_amd64.deb" % cache_value("CMAKE_PROJECT_VERSION"))
        if not os.path.isfile(cls.deb):
            raise AssertionError("no %s among %s" % (cls.deb, os.listdir(out)))
        cls.root = os.path.join(cls.shared, "root")
        subprocess.run(["dpkg-deb", "-x", cls.deb, cls.root], check=True)
        cls.bin = os.path.join(cls.root, "usr", "bin", "ksdeploy")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.shared, ignore_errors=True)

    def commands(self):
        """The command names as the unpacked program lists them."""
        r = self.run_ks(binary=self.bin)
        self.assertOk(r)
        return re.findall(r"^--(\S+)$", r.out, re.M)

    def test_the_unpacked_program_runs_and_its_dependencies_are_computed(self):
        self.assertIn("load", self.commands())
        r = self.run_ks("--help", "command=save", binary=self.bin)
        self.assertOk(r)
        self.assertIn("attribute   : target", r.out)
        self.write("app/a.txt", "a\n")
        r = self.run_ks("--generate", "type=directory", "path=" + self.path("app"), "name=${T}", "product=App",
                        "--save", "target=one.xml", binary=self.bin)
        self.assertOk(r)
        self.assertOk(self.run_ks("--load", "file=one.xml", "--save", "target=two.xml", binary=self.bin))
        self.assertEqual(self.read("one.xml"), self.read("two.xml"))

        depends = subprocess.run(["dpkg-deb", "-f", self.deb, "Depends"], check=True, stdout=subprocess.PIPE,
                                 text=True).stdout
        for lib in ("libqt6core6", "liblzma5", "libcurl4", "libsqlite3-0"):
            self.assertIn(lib, depends)

    def test_man_page_renders_every_command_and_attribute(self):
        page = os.path.join(self.root, "usr", "share", "man", "man1", "ksdeploy.1.gz")
        with gzip.open(page) as f:
            source = f.read()
        groff = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z"], input=source, stderr=subprocess.PIPE)
        self.assertEqual((0, b""), (groff.returncode, groff.stderr))
        env = dict(self.env, MANWIDTH="200", MAN_KEEP_FORMATTING="0")
        text = subprocess.run(["man", "-P", "cat", "-l", page], env=env, check=True, stdout=subprocess.PIPE,
                              text=True).stdout
        text = re.sub(".\b", "", text)  # overstrike bold
        commands = self.commands()
        self.assertGreater(len(commands), 5)
        for name in commands:
            help_text = self.run_ks("--help", "command=" + name, binary=self.bin).out
            self.assertIn("--" + name + "\n", text)
            brief = help_text.splitlines()[1].strip()
            self.assertIn(brief, " ".join(text.split()), name)
            for attribute in re.findall(r"^\s+attribute\s*: (\S+)", help_text, re.M):
                self.assertRegex(text, r"(?m)^\s+%s=" % re.escape(attribute), name)

    def complete(self, line):
        """What the packaged completion offers for the line typed so far (cursor at its end)."""
        script = os.path.join(self.root, "usr", "share", "bash-completion", "completions", "ksdeploy")
        # bash splits the words at blanks and at "=" as COMP_WORDBREAKS says.
        words = [w for w in re.split(r"(\s+|=)", line) if w and not w.isspace()]
        if line.endswith(" "):
            words.append("")
        program = ('source "$1"; COMP_LINE="$2"; COMP_POINT=${#COMP_LINE}; shift 2; COMP_WORDS=("$@"); '
                   'COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _ksdeploy; printf "%s\\n" "${COMPREPLY[@]}"')
        proc = subprocess.run(["bash", "-c", program, "bash", script, line] + words, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, check=True)
        return sorted(w for w in proc.stdout.splitlines() if w)

    def test_bash_completion_offers_commands_attributes_and_values(self):
        self.assertEqual(sorted("--" + c for c in self.commands()), self.complete("ksdeploy "))
        self.assertEqual(["--load"], self.complete("ksdeploy --lo"))
        self.assertEqual(["compress=", "gv=", "target="], self.complete("ksdeploy --load file=a.xml --save "))
        self.assertEqual(["false", "true"], self.complete("ksdeploy --save compress="))
        self.assertEqual(["product"], self.complete("ksdeploy --help command=pro"))
        self.assertEqual(["commands", "config"], self.complete("ksdeploy --help command=co"))
        self.assertIn("install", self.complete("ksdeploy --product action="))

    def test_the_translations_are_in_the_package(self):
        folder = os.path.join(self.root, "usr", "share", "ksdeploy", "translations")
        names = sorted(os.listdir(folder))
        for name in ("kestra.qm", "kestra_de.qm"):
            self.assertIn(name, names)
        for name in names:
            with open(os.path.join(folder, name), "rb") as f:
                with open(os.path.join(BUILD_DIR, "bin", "share", "translations", name), "rb") as built:
                    self.assertEqual(built.read(), f.read(), name)

    def test_lintian_finds_no_errors(self):
        proc = subprocess.run(["lintian", "--fail-on", "error", self.deb], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=600)
        self.assertEqual(0, proc.returncode, proc.stdout)
        self.assertNotRegex(proc.stdout, r"(?m)^E: ")


if __name__ == "__main__":
    ksharness.main()
