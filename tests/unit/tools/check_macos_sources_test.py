"""Runs tools/check-macos-sources with a stand-in for Zig that reports what it is asked to compile."""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
CHECK = ROOT / "tools" / "check-macos-sources"

# Logs its arguments, refuses a source with the word "bad", and names the header that it includes.
COMPILER = """#!/usr/bin/env python3
import sys
arguments = sys.argv[1:]
source = next(argument for argument in arguments if argument.endswith(".cpp"))
with open({log!r}, "a") as log:
    log.write("\\n".join(arguments) + "\\n\\n")
rule = arguments[arguments.index("-MF") + 1]
header = source.replace("A.cpp", "A.h").replace("B.cpp", "A.h")
open(rule, "w").write("x.o: " + source + " \\\\\\n  " + header + "\\n")
if "bad" in open(source).read() + open(header).read():
    print(source + ":1: error: bad")
    sys.exit(1)
"""


class CheckMacOSSourcesTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.log = self.folder / "log"
        self.zig = self.make_zig("zig", 180100, "any-macos-any")
        for name in ("A.cpp", "B.cpp", "A.h"):
            (self.folder / name).write_text("good\n")
        self.write_commands("A.cpp", "B.cpp", "C.S")

    def make_zig(self, name, version, darwin):
        place = self.folder / name
        (place / "lib/libcxx/include").mkdir(parents=True)
        (place / "lib/libcxx/include/__config").write_text(f"#  define _LIBCPP_VERSION {version}\n")
        (place / "lib/libc/include" / darwin).mkdir(parents=True)
        zig = place / "zig"
        zig.write_text(COMPILER.format(log=str(self.log)))
        zig.chmod(0o755)
        return zig

    def write_commands(self, *names):
        self.commands = self.folder / "compile_commands.json"
        self.commands.write_text(json.dumps([
            {"directory": str(self.folder), "file": str(self.folder / name),
             "command": "ccache '/the zig' c++ --target=aarch64-macos.14.0 -DASIO=1 -isystem /usr/include/opus -I/src"
                        " -D_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS=0 -O3 -Wshadow -Werror -fobjc-arc -std=c++20"
                        f" -o x.o -c {name}"} for name in names]))

    def check(self, *zigs):
        run = subprocess.run([sys.executable, CHECK, self.commands, *(zigs or (self.zig,))], capture_output=True,
                             text=True, check=False)
        return run.returncode, run.stdout + run.stderr

    def compilations(self):
        """The arguments of each compilation since the last call."""
        text = self.log.read_text() if self.log.exists() else ""
        self.log.unlink(missing_ok=True)
        return [entry.split("\n") for entry in text.split("\n\n") if entry]

    def test_sources_that_compile_pass(self):
        status, output = self.check()
        self.assertEqual((status, output), (0, "2 of 2 sources compile for arm64-apple-macos14.0 with libc++ 18.1\n"))
        self.assertEqual(len(self.compilations()), 2)

    def test_failing_source_is_named_with_the_reason(self):
        (self.folder / "B.cpp").write_text("bad\n")
        status, output = self.check()
        self.assertEqual(status, 1)
        self.assertIn("B.cpp:1: error: bad", output)
        self.assertNotIn("A.cpp:1", output)
        self.assertIn("1 of 2 sources compile", output)

    def test_every_zig_is_used(self):
        newer = self.make_zig("newer", 220108, "any-darwin-any")
        status, output = self.check(self.zig, newer)
        self.assertEqual(status, 0, output)
        self.assertIn("libc++ 18.1\n", output)
        self.assertIn("libc++ 22.1\n", output)
        compilations = self.compilations()
        self.assertEqual(len(compilations), 4)
        annotated = [c for c in compilations if "-D_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS=1" in c]
        self.assertEqual(len(annotated), 2, "only newer versions define this macro with a value")
        for compilation in compilations:
            self.assertNotIn("-D_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS=0", compilation)

    def test_options_of_the_build_are_kept_and_host_headers_are_not(self):
        self.check()
        compilation = self.compilations()[0]
        for option in ("-DASIO=1", "-I/src", "-Wshadow", "-Werror", "-fobjc-arc", "-std=c++20", "-fsyntax-only",
                       "arm64-apple-macos14.0"):
            self.assertIn(option, compilation)
        for option in ("-O3", "-o", "x.o", "-c", "/usr/include/opus", "--target=aarch64-macos.14.0"):
            self.assertNotIn(option, compilation)
        self.assertIn(str((self.folder / "test-libraries").resolve()), compilation)

    def test_unchanged_source_is_not_checked_again(self):
        self.check()
        self.compilations()
        self.assertEqual(self.check()[0], 0)
        self.assertEqual(self.compilations(), [])
        (self.folder / "A.cpp").write_text("changed\n")
        self.assertEqual(self.check()[0], 0)
        self.assertEqual(len(self.compilations()), 1)

    def test_changed_header_is_checked_again(self):
        self.check()
        (self.folder / "A.h").write_text("bad\n")
        self.assertEqual(self.check()[0], 1)

    def test_failing_source_is_checked_again(self):
        (self.folder / "B.cpp").write_text("bad\n")
        self.assertEqual(self.check()[0], 1)
        self.assertEqual(self.check()[0], 1)

    def test_nothing_to_check_is_an_error(self):
        self.write_commands("C.S")
        status, output = self.check()
        self.assertEqual(status, 2)
        self.assertIn("names no source", output)

    def test_zig_without_darwin_headers_is_an_error(self):
        status, output = self.check(self.make_zig("other", 180100, "any-linux-any"))
        self.assertEqual(status, 2)
        self.assertIn("has no headers of Darwin", output)


if __name__ == "__main__":
    unittest.main()
