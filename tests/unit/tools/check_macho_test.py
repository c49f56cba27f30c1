#!/usr/bin/env python3
"""Tests tools/check-macho: a valid program passes, and each kind of damage is reported by name.

usage: check_macho_test.py VERSION [PROGRAM]     VERSION of the project; PROGRAM is a real macOS binary to test too
"""

import hashlib
import importlib.machinery
import importlib.util
import pathlib
import plistlib
import struct
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
TOOL = ROOT / "tools/check-macho"
INFO_PLIST = (ROOT / "platform/macos/Info.plist").read_bytes()
PROJECT_VERSION = ""
PROGRAM = None


def load_tool():
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader("check_macho", str(TOOL))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("check_macho", loader))
    sys.modules["check_macho"] = module
    loader.exec_module(module)
    return module


tool = load_tool()

PAGE = 4096
FRAMEWORKS = "/System/Library/Frameworks/"
LIBRARIES = ["/usr/lib/libSystem.B.dylib", "/usr/lib/libobjc.A.dylib"] + [
    f"{FRAMEWORKS}{name}.framework/Versions/{letter}/{name}"
    for name, letter in (("AVFAudio", "A"), ("CoreFoundation", "A"), ("Foundation", "C"), ("Speech", "A"))]


def text_command(number, text, head):
    """Returns a load command that ends in a text. `head` is its length without the text."""
    padded = text.encode() + bytes(8 - len(text.encode()) % 8)
    return struct.pack("<3I", number, head + len(padded), head) + bytes(head - 12) + padded


def code_directory(code, *, flags=0x2, bound=bytes(32), hashes=None, limit=None):
    """`bound` is the hash of the property list in the signature, or zeros for none."""
    identifier = b"app.palaver.stthelper\0"
    slots = [bound]  # slot 1, in front of the pages
    pages = [hashlib.sha256(code[at:at + PAGE]).digest() for at in range(0, len(code), PAGE)]
    if hashes is not None: pages = hashes(pages)
    head = 88
    first = head + len(identifier) + 32 * len(slots)
    body = struct.pack(">6I", 0x20400, flags, first, head, len(slots), len(pages))
    body += struct.pack(">I4B", len(code) if limit is None else limit, 32, 2, 0, PAGE.bit_length() - 1)
    body += bytes(24) + struct.pack(">3Q", 0, 2 * PAGE, 1)
    body += identifier + b"".join(slots) + b"".join(pages)
    return struct.pack(">2I", 0xFADE0C02, 8 + len(body)) + body


def make_program(*, processor=0x0100000C, kind=2, oldest=14 << 16, platform=1, libraries=LIBRARIES, search_paths=(),
                 info_plist=INFO_PLIST, behind=b"", signed=True, **signing):
    """Returns a signed program of two pages with everything that the check reads."""
    commands = [struct.pack("<6I", 0x32, 24, platform, oldest, oldest, 0), text_command(0xE, "/usr/lib/dyld", 12),
                struct.pack("<2I2Q", 0x80000028, 24, 0, 0)]
    commands += [text_command(0xC, path, 24) for path in libraries]
    commands += [text_command(0x8000001C, path, 12) for path in search_paths]
    if signed: commands.append(struct.pack("<4I", 0x1D, 16, 2 * PAGE, 0))
    sections = [] if info_plist is None else [
        struct.pack("<16s16s2Q8I", b"__info_plist", b"__TEXT", PAGE, len(info_plist), PAGE, 0, 0, 0, 0, 0, 0, 0)]
    commands.insert(0, struct.pack("<2I16s4Q4I", 0x19, 72 + 80 * len(sections), b"__TEXT", 0, 2 * PAGE, 0, 2 * PAGE,
                                   5, 5, len(sections), 0) + b"".join(sections))

    def code():
        listed = b"".join(commands)
        header = struct.pack("<8I", 0xFEEDFACF, processor, 0, kind, len(commands), len(listed), 0x200085, 0)
        return (header + listed).ljust(PAGE, b"\0") + (info_plist or b"").ljust(PAGE, b"\x5a")

    if not signed: return code() + behind
    directory_size = len(code_directory(code(), **signing))
    commands[-1] = struct.pack("<4I", 0x1D, 16, 2 * PAGE, 20 + directory_size)
    signature = struct.pack(">5I", 0xFADE0CC0, 20 + directory_size, 1, 0, 20) + code_directory(code(), **signing)
    return code() + signature + behind


def findings(data, info_plist=INFO_PLIST):
    lines = []
    differences = tool.check(bytes(data), info_plist, lines.append)
    wrong = {line[7:line.index(":")]: line for line in lines if line.startswith("WRONG")}
    assert differences == len(wrong), lines
    return wrong, lines


class CheckMachO(unittest.TestCase):
    def found(self, data, *subjects, text=""):
        wrong, lines = findings(data)
        self.assertEqual(set(wrong), set(subjects), "\n".join(lines))
        self.assertIn(text, "\n".join(wrong.values()))

    def test_valid_program_passes(self):
        self.found(make_program())
        self.found(make_program(search_paths=["/usr/lib/swift"]))

    def test_changed_page_byte_is_reported_with_page(self):
        for at in (PAGE - 1, 2 * PAGE - 1):
            data = bytearray(make_program())
            data[at] ^= 1
            self.found(data, "page hashes", text=f"wrong: {at // PAGE}")

    def test_changed_hash_is_reported(self):
        data = bytearray(make_program())
        data[-1] ^= 0x80
        self.found(data, "page hashes", text="wrong: 1")

    def test_page_without_hash_is_reported(self):
        self.found(make_program(hashes=lambda pages: pages[:1]), "page hashes", text="1 of 2 pages")

    def test_code_after_signed_bytes_is_reported(self):
        self.found(make_program(hashes=lambda pages: pages[:1], limit=PAGE), "signed bytes")

    def test_bytes_after_signature_are_reported(self):
        self.found(make_program(behind=b"more"), "signature")

    def test_missing_signature_is_reported(self):
        self.found(make_program(signed=False), "signature", text="0 of them")

    def test_neither_ad_hoc_nor_certificate_is_reported(self):
        self.found(make_program(flags=0), "signed")

    def test_bound_property_list_must_match_its_hash(self):
        wrong, lines = findings(make_program(bound=hashlib.sha256(INFO_PLIST).digest()))
        self.assertEqual(wrong, {})
        self.assertIn("ok     also signed: property list", lines)
        self.found(make_program(bound=hashlib.sha256(b"another").digest()), "also signed")

    def test_changed_property_list_byte_is_reported(self):
        changed = INFO_PLIST.replace("会議".encode(), "会话".encode())
        self.found(make_program(info_plist=changed), "property list", "NSSpeechRecognitionUsageDescription",
                   text=f"differ from byte {INFO_PLIST.index('議'.encode()) + 1} on")  # the two begin with the same byte

    def test_wrong_property_list_length_is_reported(self):
        self.found(make_program(info_plist=INFO_PLIST + b"\0"), "property list", "properties")
        self.found(make_program(info_plist=INFO_PLIST + b"\n"), "property list")
        self.found(make_program(info_plist=INFO_PLIST[:-20]), "property list", "properties")

    def test_missing_property_list_is_reported(self):
        self.found(make_program(info_plist=None), "property list", text="0 sections")

    def test_project_property_list_has_required_keys(self):
        without = INFO_PLIST.replace(b"NSSpeechRecognitionUsageDescription", b"NSMicrophoneUsageDescription")
        wrong, _ = findings(make_program(info_plist=without), without)
        self.assertEqual(set(wrong), {"NSSpeechRecognitionUsageDescription"})

    def test_wrong_minimum_system_or_platform_is_reported(self):
        self.found(make_program(oldest=15 << 16), "oldest system", text="macOS 15.0")
        self.found(make_program(oldest=14 << 16 | 2 << 8), "oldest system", text="macOS 14.2")
        self.found(make_program(platform=2), "oldest system", text="platform 2 14.0")

    def test_wrong_processor_or_type_is_reported(self):
        self.found(make_program(processor=0x01000007), "architecture", text="processor 0x1000007")
        self.found(make_program(kind=6), "file type")

    def test_library_outside_system_is_reported(self):
        for path in ("/opt/homebrew/lib/libasio.dylib", "@rpath/libc++.1.dylib", "/usr/lib/../local/lib/x.dylib",
                     "/usr/local/lib/x.dylib"):
            self.found(make_program(libraries=LIBRARIES + [path]), "libraries", text=path)
        for path in ("/opt/homebrew/lib", "@executable_path/../Frameworks", "/usr/lib/../local"):
            self.found(make_program(search_paths=[path]), "libraries", text=path)

    def test_missing_framework_is_reported(self):
        self.found(make_program(libraries=LIBRARIES[:-1]), "needed libraries", text="Speech")

    def test_truncated_file_is_reported_at_any_length(self):
        data = make_program()
        for size in [0, 3, 31, 32, 40, 200, PAGE, 2 * PAGE, 2 * PAGE + 8, len(data) - 1]:
            wrong, lines = findings(data[:size])
            self.assertIn("file", wrong, f"cut to {size}: {lines}")

    def test_damaged_byte_never_crashes_check(self):
        data = make_program()
        for at in list(range(1200)) + list(range(2 * PAGE, len(data))):
            damaged = bytearray(data)
            damaged[at] ^= 0xFF
            wrong, lines = findings(damaged)
            # Not every byte of the signature matters, for example those of its identifier.
            self.assertTrue(wrong or at >= 2 * PAGE, f"byte {at}: {lines}")

    def test_non_program_is_reported(self):
        self.found(b"#!/bin/sh\n" * 10, "file", text="no 64-bit Mach-O")
        self.found(struct.pack(">8I", 0xCAFEBABE, 2, 0, 0, 0, 0, 0, 0), "file", text="universal")

    def test_exit_status_reports_result(self):
        with tempfile.TemporaryDirectory() as directory:
            path = pathlib.Path(directory, "program")

            def run(*arguments):
                return subprocess.run([sys.executable, TOOL, *arguments], capture_output=True, text=True, encoding="utf-8",
                                      env={"PYTHONUTF8": "1"})

            path.write_bytes(make_program())
            self.assertEqual(run(path).returncode, 0)
            path.write_bytes(make_program(oldest=13 << 16))
            result = run(path)
            self.assertEqual(result.returncode, 1)
            self.assertIn("WRONG  oldest system: macOS 13.0", result.stdout)
            self.assertIn("1 of these findings", result.stderr)
            result = run(path.with_name("absent"))
            self.assertEqual(result.returncode, 1)
            self.assertIn("No such file", result.stderr)


class PropertyList(unittest.TestCase):
    def test_property_list_names_project_version(self):
        properties = plistlib.loads(INFO_PLIST)
        self.assertEqual(properties["CFBundleShortVersionString"], PROJECT_VERSION)
        self.assertEqual(properties["CFBundleVersion"], PROJECT_VERSION)


class RealProgram(unittest.TestCase):
    """Tests the same damage on a linked program."""

    def setUp(self):
        if not PROGRAM: self.skipTest("no program was given")
        self.data = pathlib.Path(PROGRAM).read_bytes()

    def damaged(self, old, new, *subjects):
        self.assertEqual(len(old), len(new))
        self.assertIn(old, self.data)
        wrong, lines = findings(self.data.replace(old, new, 1))
        self.assertEqual(set(wrong), set(subjects), "\n".join(lines))

    def test_linked_program_passes(self):
        self.assertEqual(findings(self.data)[0], {})

    def test_changed_byte_is_reported_anywhere(self):
        for at in range(9000, len(self.data) * 9 // 10, 16384):
            data = bytearray(self.data)
            data[at] ^= 1
            self.assertIn("page hashes", findings(data)[0], f"byte {at}")

    def test_each_kind_of_damage_is_reported(self):
        self.damaged("リアルタイム".encode(), "リアルタイマ".encode(), "page hashes", "property list",
                     "NSSpeechRecognitionUsageDescription")
        size = next(size for size in (24, 32, 40) if struct.pack("<3I", 0x32, size, 1) in self.data)
        self.damaged(struct.pack("<4I", 0x32, size, 1, 14 << 16), struct.pack("<4I", 0x32, size, 1, 15 << 16),
                     "page hashes", "oldest system")
        self.damaged(b"/usr/lib/libobjc.A.dylib", b"/opt/lib/libobjc.A.dylib", "page hashes", "libraries",
                     "needed libraries")
        wrong, _ = findings(self.data[:-5000])
        self.assertIn("file", wrong)


if __name__ == "__main__":
    PROJECT_VERSION = sys.argv[1]
    PROGRAM = sys.argv[2] if len(sys.argv) > 2 else None
    unittest.main(argv=sys.argv[:1])
