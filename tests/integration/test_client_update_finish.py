"""An update killed after its folder exchange: the folder holds the new version while the
start-menu and uninstall entries and "<application>.xml" still name the old one. The next launch
finishes it from "<application>.unfinished.xml" before its version check, without downloading; when
the folder holds the old version after all, the file only goes.
"""
import os
import shutil

import ksharness
from test_client_update import UpdateCase


class UnfinishedUpdateTest(UpdateCase):
    def registry_copy(self, source, target):
        for suffix in ("-wal", "-shm"):
            if os.path.exists(target + suffix):
                os.remove(target + suffix)
        shutil.copy2(source, target)

    def launch_without_offer(self):
        """A launch while the server offers no update: only the finish can change anything."""
        os.remove(os.path.join(self.www, "update.ini"))
        return self.launch()

    def test_new_files_with_the_old_records_are_finished_without_a_download(self):
        self.publish("1.0.0.2", {"data/kept.dat": b"kept\n" * 1000, "data/new.dat": b"only in 2\n"})
        old_records = self.path("old")
        os.makedirs(old_records)
        shutil.copy2(self.app + ".xml", old_records)
        self.registry_copy(self.env["KSDEPLOY_REGISTRY"], os.path.join(old_records, "registry.sqlite"))
        self.assertOk(self.launch())
        v2 = ksharness.tree_snapshot(self.app)
        self.assertEqual((["1.0.0.2"], ["1.0.0.2"]), self.recorded_versions())

        # What a kill between the exchange and the records leaves.
        shutil.copy2(os.path.join(old_records, "Client.xml"), self.app + ".xml")
        self.registry_copy(os.path.join(old_records, "registry.sqlite"), self.env["KSDEPLOY_REGISTRY"])
        shutil.copy2(os.path.join(self.www, "product.xml"), self.app + ".unfinished.xml")
        self.assertEqual((["1.0.0.1"], ["1.0.0.1"]), self.recorded_versions())
        asked = len(self.server.requests())

        r = self.launch_without_offer()
        self.assertOk(r)
        self.assertNoErrorOutput(r.err)
        self.assertEqual((["1.0.0.2"], ["1.0.0.2"]), self.recorded_versions())
        self.assertFalse(os.path.exists(self.app + ".unfinished.xml"))
        self.assertEqual(v2, ksharness.tree_snapshot(self.app))
        self.assertEqual("1.0.0.2", self.client_report()["version"])
        items = [q["path"] for q in self.server.requests()[asked:] if "/items/" in q["path"]]
        self.assertEqual([], items)
        # The uninstall the entry runs now knows the new version's files.
        self.assertIn('"new.dat"', self.read(self.app + ".xml").decode())

    def test_a_note_of_an_update_that_was_undone_only_goes(self):
        self.publish("1.0.0.2", {"data/kept.dat": b"changed\n"})
        shutil.copy2(os.path.join(self.www, "product.xml"), self.app + ".unfinished.xml")
        described = self.read(self.app + ".xml")
        r = self.launch_without_offer()
        self.assertOk(r)
        self.assertNoErrorOutput(r.err)
        self.assertFalse(os.path.exists(self.app + ".unfinished.xml"))
        self.assertEqual(self.v1, ksharness.tree_snapshot(self.app))
        self.assertEqual(described, self.read(self.app + ".xml"))
        self.assertEqual((["1.0.0.1"], ["1.0.0.1"]), self.recorded_versions())
        self.assertEqual("1.0.0.1", self.client_report()["version"])


if __name__ == "__main__":
    ksharness.main()
