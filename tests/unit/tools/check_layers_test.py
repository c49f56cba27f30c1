"""Runs tools/check-layers on small trees, each with one breach, and on this tree, which has none."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
CHECK = ROOT / "tools" / "check-layers"


def check(root):
    run = subprocess.run([sys.executable, CHECK, root], capture_output=True, text=True, check=False)
    return run.returncode, run.stdout


class CheckLayersTest(unittest.TestCase):
    def check_file(self, path, text):
        """The outcome for a tree with one file."""
        with tempfile.TemporaryDirectory() as root:
            file = pathlib.Path(root, path)
            file.parent.mkdir(parents=True)
            file.write_text(text)
            return check(root)

    def assert_breach(self, path, text, reason):
        status, output = self.check_file(path, text)
        self.assertEqual(status, 1, output)
        self.assertIn(f"{path}:1: {reason}", output)

    def assert_allowed(self, path, text):
        self.assertEqual(self.check_file(path, text), (0, ""))

    def test_this_tree_has_no_breach(self):
        self.assertEqual(check(ROOT), (0, ""))

    def test_upward_include_is_a_breach(self):
        self.assert_breach("core/A.cpp", '#include "modes/B.h"\n', "core/ may not include modes/")
        self.assert_breach("legacy/A.h", '#include "app/B.h"\n', "legacy/ may not include app/")
        self.assert_breach("platform/A.h", '#include "core/B.h"\n', "platform/ may not include core/")
        self.assert_breach("app/A.cpp", '#include "simulator/B.h"\n', "app/ may not include simulator/")

    def test_sideways_include_is_a_breach(self):
        self.assert_breach("legacy/A.cpp", '#include "analyzer/B.h"\n', "legacy/ may not include analyzer/")
        self.assert_breach("cli/A.cpp", '#include "simulator/B.h"\n', "cli/ may not include simulator/")
        self.assert_breach("platform/linux/A.cpp", '#import "platform/macos/B.h"\n',
                           "platform/linux/ may not include platform/macos/")

    def test_platform_implementation_above_contracts_is_a_breach(self):
        self.assert_breach("core/A.cpp", '#include "platform/posix/B.h"\n', "core/ may not include platform/posix/")

    def test_product_including_tests_is_a_breach(self):
        self.assert_breach("simulator/A.cpp", '#include "tests/support/B.h"\n', "simulator/ may not include tests/")
        self.assert_breach("tests/unit/A.cpp", '#include "bench/B.h"\n', "tests/ may not include bench/")

    def test_second_choice_of_platform_is_a_breach(self):
        self.assert_breach("app/Helper.cpp", '#include "platform/makePlatform.h"\n', "only app/main.cpp chooses")
        self.assert_allowed("app/main.cpp", '#include "platform/makePlatform.h"\n')

    def test_framework_header_above_contracts_is_a_breach(self):
        self.assert_breach("core/A.cpp", "#include <dispatch/dispatch.h>\n", "includes a header of the system's frameworks")
        self.assert_breach("platform/A.h", "#import <Speech/Speech.h>\n", "includes a header of the system's frameworks")
        self.assert_allowed("platform/macos/A.mm", "#import <Speech/Speech.h>\n")

    def test_question_for_system_above_contracts_is_a_breach(self):
        self.assert_breach("modes/A.cpp", "#ifdef __APPLE__\n", "asks for the system")
        self.assert_allowed("platform/posix/A.cpp", "#ifdef __APPLE__\n")

    def test_downward_include_is_allowed(self):
        self.assert_allowed("modes/A.cpp", '#include "legacy/B.h"\n#include "platform/C.h"\n#include <vector>\n')

    def test_empty_tree_is_an_error(self):
        with tempfile.TemporaryDirectory() as root:
            self.assertEqual(check(root)[0], 1)


if __name__ == "__main__":
    unittest.main()
