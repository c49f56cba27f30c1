"""Tests that tools/explore-faults can put each fault of tools/faults.json into the sources as they are."""
import json
import pathlib
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
FAULTS = json.loads((ROOT / "tools/faults.json").read_text())["faults"]


class FaultsTest(unittest.TestCase):
    def test_each_fault_replaces_text_that_its_file_holds_once(self):
        self.assertGreater(len(FAULTS), 0)
        for fault in FAULTS:
            with self.subTest(fault["name"]):
                self.assertEqual((ROOT / fault["file"]).read_text().count(fault["from"]), 1)
                self.assertNotEqual(fault["from"], fault["to"])


unittest.main()
