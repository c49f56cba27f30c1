"""Tests what CMake decides for a build on a Mac, with a stand-in for xcrun.

usage: macos_configuration_test.py CMAKE
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
CMAKE = sys.argv.pop(1)


class MacOSConfigurationTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_cmake(self, *arguments, sdk="26.1"):
        """The exit status and the output, on a machine with this SDK, or without one."""
        programs = self.folder / "bin"
        programs.mkdir(exist_ok=True)
        answer = "exit 1" if sdk is None else f"""case "$*" in
          *--show-sdk-version) echo {sdk} ;;
          *--show-sdk-path) echo /sdk ;;
          *) echo /xcode/usr/bin/swiftc ;;
        esac"""
        xcrun = programs / "xcrun"
        xcrun.write_text(f"#!/bin/sh\n{answer}\n")
        xcrun.chmod(0o755)
        run = subprocess.run([CMAKE, *arguments], capture_output=True, text=True, check=False, cwd=self.folder,
                             env={**os.environ, "PATH": f"{programs}:{os.environ['PATH']}"})
        return run.returncode, " ".join((run.stdout + run.stderr).split())

    def decide(self, *options, sdk):
        return self.run_cmake("-DCMAKE_HOST_APPLE=ON", *options, "-P", ROOT / "cmake/SpeechAnalyzer.cmake", sdk=sdk)

    def test_new_sdk_includes_analyzer(self):
        for options in ((), ("-DCMAKE_BUILD_TYPE=Release",)):
            status, output = self.decide(*options, sdk="26.1")
            self.assertEqual((status, output), (0, "-- With SpeechAnalyzer: the macOS SDK is 26.1"))

    def test_old_or_missing_sdk_is_named_in_development(self):
        for sdk, name in (("15.5", "15.5"), (None, "none")):
            status, output = self.decide("-DCMAKE_BUILD_TYPE=RelWithDebInfo", sdk=sdk)
            self.assertEqual(status, 0, output)
            self.assertTrue(output.startswith("-- WITHOUT SpeechAnalyzer"), output)
            self.assertIn(f"the macOS SDK is {name}", output)

    def test_old_sdk_is_an_error_in_a_release(self):
        for options in (("-DCMAKE_BUILD_TYPE=Release",), ("-DPALAVER_REQUIRE_ANALYZER=ON",)):
            status, output = self.decide(*options, sdk="15.5")
            self.assertNotEqual(status, 0, output)
            self.assertIn("SpeechAnalyzer needs the SDK of macOS 26 (Xcode 26), but the macOS SDK is 15.5", output)

    def test_release_without_analyzer_can_be_asked_for(self):
        status, output = self.decide("-DCMAKE_BUILD_TYPE=Release", "-DPALAVER_REQUIRE_ANALYZER=OFF", sdk="15.5")
        self.assertEqual(status, 0, output)
        self.assertIn("WITHOUT SpeechAnalyzer", output)

    def test_other_systems_and_cross_builds_have_no_say(self):
        release = "-DCMAKE_BUILD_TYPE=Release"
        self.assertEqual(self.run_cmake(release, "-P", ROOT / "cmake/SpeechAnalyzer.cmake", sdk=None), (0, ""))
        self.assertEqual(self.decide(release, "-DCMAKE_TOOLCHAIN_FILE=x", sdk=None), (0, ""))

    def codesign_options(self, identity):
        script = self.folder / "options.cmake"
        script.write_text(f"""include({ROOT}/cmake/CodeSigning.cmake)
            palaver_codesign_options(options "{identity}")
            message(STATUS "options: ${{options}}")""")
        return self.run_cmake("-P", script)

    def test_only_ad_hoc_signature_lacks_hardened_runtime(self):
        self.assertEqual(self.codesign_options("-"), (0, "-- options:"))
        self.assertEqual(self.codesign_options("Developer ID Application: X"),
                         (0, "-- options: --options;runtime;--timestamp"))

    def swift_compiler(self, deployment_target):
        (self.folder / "CMakeLists.txt").write_text(f"""cmake_minimum_required(VERSION 3.25)
            project(swift NONE)
            set(APPLE ON)
            set(CMAKE_OSX_DEPLOYMENT_TARGET "{deployment_target}")
            include({ROOT}/cmake/SwiftObject.cmake)
            message(STATUS "compiler: ${{PALAVER_SWIFTC}}")""")
        return self.run_cmake("-S", self.folder, "-B", self.folder / "build")

    def test_swift_target_has_a_version(self):
        status, output = self.swift_compiler("14.0")
        self.assertEqual(status, 0, output)
        self.assertIn("-target;arm64-apple-macos14.0;", output)
        status, output = self.swift_compiler("")
        self.assertNotEqual(status, 0, output)
        self.assertIn("Swift needs CMAKE_OSX_DEPLOYMENT_TARGET", output)


if __name__ == "__main__":
    unittest.main()
