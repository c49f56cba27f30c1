"""Starts the macOS helper from the places where hosts keep it, and checks its second process.

Usage: process_test.py HELPER

HELPER disclaims its responsibility: the helper of macOS on a Mac, or DisclaimingHelperOnStandIns on Linux.
"""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HELPER = os.path.abspath(sys.argv[1])
SECONDS_AT_MOST = 60  # for failures only
HOST_PROPERTIES = """<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CFBundleIdentifier</key><string>app.example.host</string>
<key>CFBundleExecutable</key><string>Host</string>
<key>CFBundlePackageType</key><string>APPL</string>
</dict></plist>
"""


class ProcessTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(os.path.realpath(folder.name))

    def start(self, program):
        environment = {name: value for name, value in os.environ.items() if name != "PALAVER_DISCLAIMED"}
        process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   env={**environment, "PALAVER_STT_SYSTEM": "macOS 15"})
        watch = threading.Timer(SECONDS_AT_MOST, process.kill)
        watch.start()
        for end in (process.stdin.close, process.stdout.close, watch.cancel, process.wait, process.kill):
            self.addCleanup(end)  # runs in reverse order
        return process

    def wait_for(self, process, wanted):
        while line := process.stdout.readline():
            event = json.loads(line)
            if event["type"] == wanted:
                return event
        return self.fail(f"the helper ended before a {wanted}")

    def send(self, process, **command):
        process.stdin.write(json.dumps(command).encode() + b"\n")
        process.stdin.flush()

    def children_of(self, process):
        done = subprocess.run(["pgrep", "-P", str(process.pid)], stdout=subprocess.PIPE, text=True, check=False)
        return [int(line) for line in done.stdout.split()]

    def check_program(self, program):
        """The helper answers, in a second process, and ends with its input."""
        process = self.start(program)
        self.send(process, type="ping", sentAt=7)
        self.assertEqual(self.wait_for(process, "pong")["sentAt"], 7)
        children = self.children_of(process)
        self.assertEqual(len(children), 1, "the work is done in a second process")
        shown = subprocess.run(["ps", "-o", "args=", "-p", str(children[0])], stdout=subprocess.PIPE, text=True,
                               check=False, env={**os.environ, "LC_ALL": "C.UTF-8"}).stdout
        self.assertIn(os.path.basename(program), shown)
        process.stdin.close()
        self.assertEqual(process.wait(timeout=SECONDS_AT_MOST), 0)

    def copy_to(self, *parts):
        place = self.folder.joinpath(*parts)
        place.parent.mkdir(parents=True, exist_ok=True)
        return shutil.copy2(HELPER, place)

    def test_path_with_spaces_and_japanese_text(self):
        self.check_program(self.copy_to("会議 の メモ", "a b", "PalaverSTTHelper"))

    def test_link(self):
        program = self.copy_to("real", "PalaverSTTHelper")
        link = self.folder / "linked"
        link.symlink_to(program)
        self.check_program(link)

    def test_relative_path(self):
        program = self.copy_to("PalaverSTTHelper")
        self.check_program(os.path.relpath(program))

    def test_app_bundle(self):
        for place in (("MacOS",), ("Helpers",), ("Resources", "app", "bin")):
            with self.subTest(place):
                contents = self.folder / "-".join(place) / "Host.app" / "Contents"
                program = self.copy_to(contents, *place, "PalaverSTTHelper")
                (contents / "Info.plist").write_text(HOST_PROPERTIES)
                # A start of the host in place of the helper would never answer.
                (contents / "MacOS").mkdir(exist_ok=True)
                host = contents / "MacOS" / "Host"
                host.write_text("#!/bin/sh\nexit 70\n")
                host.chmod(0o755)
                self.check_program(program)

    def test_signal_ends_both_processes(self):
        process = self.start(HELPER)
        self.send(process, type="ping", sentAt=0)
        self.wait_for(process, "pong")
        children = self.children_of(process)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(timeout=SECONDS_AT_MOST), 1)
        deadline = time.monotonic() + SECONDS_AT_MOST
        for child in children:
            while True:
                try:
                    os.kill(child, 0)
                except ProcessLookupError:
                    break
                self.assertLess(time.monotonic(), deadline, "the second process is still there")
                threading.Event().wait(0.001)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
