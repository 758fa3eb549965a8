"""The translation sources in translations/: complete (no entry unfinished or empty), the German
catalog covering exactly what the source-language one holds with the same placeholders, and every
text the program asks to have translated present in them."""
import glob
import os
import re
import unittest
import xml.etree.ElementTree as ET

import ksharness

TRANSLATIONS = os.path.join(ksharness.SOURCE_DIR, "translations")
SOURCES = os.path.join(ksharness.SOURCE_DIR, "src")
# The client plugin's texts are written from its dialog's description; its code may word a box
# as one text or as its lines, so both stand in the catalogs and not every entry need be used.
ENTRIES_MAY_BE_UNUSED = {"KsDeploy::PluginKestraClient"}

LITERALS = r'(?:\s*"(?:[^"\\]|\\.)*")+'


def read_ts(path):
    """{(context, source): (translation text, translation element's attributes)}."""
    entries = {}
    root = ET.parse(path).getroot()
    for context in root.iter("context"):
        name = context.findtext("name")
        for message in context.iter("message"):
            key = (name, message.findtext("source"))
            if key in entries:
                raise AssertionError("%s: '%s' stands twice in %s" % (path, key[1], name))
            translation = message.find("translation")
            entries[key] = (translation.text or "", dict(translation.attrib))
    return entries


def c_literals(text):
    """The value of adjacent C string literals."""
    out = ""
    for body in re.findall(r'"((?:[^"\\]|\\.)*)"', text):
        out += re.sub(r'\\(.)', lambda m: {"n": "\n", "t": "\t"}.get(m.group(1), m.group(1)), body)
    return out


def translated_in_sources():
    """{(context, text): "file"} for every text the sources hand to the translation system."""
    found = {}
    for path in glob.glob(os.path.join(SOURCES, "**", "*.cpp"), recursive=True):
        with open(path, encoding="utf-8") as f:
            code = f.read()
        rel = os.path.relpath(path, ksharness.SOURCE_DIR)
        for ctx, lit in re.findall(r'QCoreApplication::translate\(\s*"([^"]+)",(%s)\s*[,)]' % LITERALS, code):
            found[(ctx, c_literals(lit))] = rel
        # Wrappers such as tr(const char* inText) { return QCoreApplication::translate("Ctx", inText); }
        wrappers = dict(re.findall(r'QString\s+(\w+)\(const char\*\s*\w+\)\s*\{\s*return\s+'
                                   r'QCoreApplication::translate\("([^"]+)",', code))
        if "tr" not in wrappers and re.search(r'\btr\(\s*"', code):
            # tr() of a Qt class: the class's context.
            base = os.path.splitext(os.path.basename(path))[0]
            wrappers["tr"] = ("KsDeploy::" + base) if "ksdeploycore" in path else base
        for name, ctx in wrappers.items():
            for lit in re.findall(r'(?<![\w:])%s\((%s)\s*[,)]' % (name, LITERALS), code):
                found[(ctx, c_literals(lit))] = rel
    return found


class TranslationSourcesTest(unittest.TestCase):
    def setUp(self):
        self.source = read_ts(os.path.join(TRANSLATIONS, "kestra.ts"))
        self.catalogs = {os.path.basename(p): read_ts(p) for p in glob.glob(os.path.join(TRANSLATIONS, "*.ts"))}

    def test_every_entry_is_translated_with_its_placeholders(self):
        self.assertIn("kestra_de.ts", self.catalogs)
        for name, entries in self.catalogs.items():
            for (ctx, text), (translation, attributes) in entries.items():
                with self.subTest(catalog=name, context=ctx, text=text):
                    self.assertEqual({}, attributes, "marked %s" % attributes)
                    self.assertNotEqual("", translation.strip())
                    self.assertEqual(sorted(re.findall(r"%\d", text)), sorted(re.findall(r"%\d", translation)))
                    self.assertEqual(text.count("\n"), translation.count("\n"))
                    if name == "kestra.ts":
                        self.assertEqual(text, translation)

    def test_the_catalogs_hold_the_same_texts(self):
        for name, entries in self.catalogs.items():
            with self.subTest(catalog=name):
                self.assertEqual(sorted(self.source), sorted(entries))

    def test_every_text_the_program_translates_is_in_the_catalog(self):
        used = translated_in_sources()
        # The scan must see the texts we know of, or it proves nothing.
        self.assertIn(("KsDeploy::Engine", "Verification"), used)
        self.assertIn(("WidgetProgress", "Automatic update has failed.\nPlease install manually."), used)
        self.assertIn(("QxDialog", "Separator"), used)
        missing = sorted("%s: %r (%s)" % (ctx, text, where) for (ctx, text), where in used.items()
                         if (ctx, text) not in self.source)
        self.assertEqual([], missing)
        unused = sorted("%s: %r" % key for key in self.source
                        if key not in used and key[0] not in ENTRIES_MAY_BE_UNUSED)
        self.assertEqual([], unused)


if __name__ == "__main__":
    ksharness.main()
