"""Runs palaver-stt as a user does: commands, help, version and errors."""
import json
import os
import pathlib
import platform
import shutil
import subprocess
import sys
import tempfile
import unittest

PROGRAM = sys.argv.pop(1)
VERSION = sys.argv.pop(1)


def run(*arguments):
    process = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=60, check=False)
    return process.returncode, process.stdout, process.stderr


class CommandLineTest(unittest.TestCase):
    def test_help_goes_to_standard_output(self):
        for arguments in (["--help"], ["-h"], ["help"]):
            status, output, errors = run(*arguments)
            self.assertEqual((status, errors), (0, ""))
            self.assertTrue(output.startswith("usage: palaver-stt COMMAND"))

    def test_command_has_its_own_help(self):
        status, output, errors = run("transcribe", "--help")
        self.assertEqual((status, errors), (0, ""))
        self.assertTrue(output.startswith("usage: palaver-stt transcribe"))

    def test_version_is_printed(self):
        self.assertEqual(run("--version"), (0, f"palaver-stt {VERSION}\n", ""))

    def test_invalid_usage_is_explained_on_standard_error(self):
        for arguments, message in (([], "a command is required"), (["listen"], "there is no command 'listen'"),
                                   (["transcribe", "--speed"], "--speed needs a value")):
            status, output, errors = run(*arguments)
            self.assertEqual((status, output), (2, ""))
            self.assertIn(f"palaver-stt: {message}\n", errors)

    def test_doctor_gives_one_step(self):
        for arguments, code in ((["--helper", "/nowhere/helper"], "helper-missing"), (["--helper", __file__], "helper-not-executable"),
                                (["--helper", "/bin/true"], "helper-ended"), (["--locale", "xx-XX"], "model-missing"),
                                ([], "ready")):
            status, output, errors = run("doctor", *arguments)
            self.assertEqual((status, errors), (0 if code == "ready" else 1, ""))
            self.assertEqual(output.count("Next step: "), 1, output)
            self.assertTrue(output.splitlines()[-2].startswith(f"{code}: "), output)
            status, output, errors = run("doctor", "--json", *arguments)
            self.assertEqual(json.loads(output)["code"], code)

    def test_helper_beside_program_precedes_that_of_build(self):
        with tempfile.TemporaryDirectory() as folder:
            program = shutil.copy(PROGRAM, folder)
            beside = shutil.copy("/bin/true", pathlib.Path(folder, "PalaverSTTHelper"))
            done = subprocess.run([program, "doctor", "--json"], capture_output=True, text=True, timeout=60, check=False)
            report = json.loads(done.stdout)
            self.assertEqual((report["code"], done.stderr), ("helper-ended", ""))
            self.assertIn(str(beside), done.stdout)

    def test_doctor_hears_whether_a_recording_has_voice(self):
        with tempfile.TemporaryDirectory() as folder:
            for amplitude, code in ((0, "audio-silent"), (50, "audio-quiet"), (5000, "ready")):
                path = pathlib.Path(folder, f"{amplitude}.raw")
                path.write_bytes(b"".join((amplitude * (-1) ** i).to_bytes(2, "little", signed=True) for i in range(16000)))
                status, output, _ = run("doctor", "--json", str(path))
                self.assertEqual((status, json.loads(output)["code"]), (0 if code == "ready" else 1, code))
        status, _, errors = run("doctor", "/nowhere/sound.wav")
        self.assertEqual(status, 1)
        self.assertIn("cannot read /nowhere/sound.wav", errors)

    def test_recorded_meeting_is_replayed_with_the_same_finals(self):
        with tempfile.TemporaryDirectory() as folder:
            recording, launcher = pathlib.Path(folder, "meeting.jsonl"), pathlib.Path(folder, "helper")
            launcher.write_text(f'#!/bin/sh\nexec "{PROGRAM}" record "{recording}" -- "$@"\n')
            launcher.chmod(0o700)
            status, output, _ = run("transcribe", "--helper", str(launcher), "/usr/share/pocketsphinx/test/data/goforward.raw")
            self.assertEqual(status, 0, output)
            self.assertIn("go forward ten meters", output)
            status, output, errors = run("replay", str(recording))
            self.assertEqual((status, errors), (0, ""))
            self.assertEqual(output, "  remote: go forward ten meters\n1 finals recorded, 1 replayed: the same\n")
            status, _, errors = run("record", str(recording))
            self.assertEqual(status, 1)
            self.assertIn("File exists", errors)

    def test_report_of_a_meeting_is_a_page_and_subtitles(self):
        with tempfile.TemporaryDirectory() as folder:
            recording = pathlib.Path(folder, "meeting.jsonl")
            commands = b'{"type":"ping","sentAt":1}\n{"type":"shutdown"}\n'
            subprocess.run([PROGRAM, "record", str(recording)], input=commands, capture_output=True, timeout=60, check=True)
            status, output, errors = run("report", str(recording))
            self.assertEqual((status, errors), (0, ""))
            self.assertEqual(output.split(), [f"{recording}.{kind}" for kind in ("html", "srt", "vtt")])
            for name in output.split():
                self.assertEqual(pathlib.Path(name).stat().st_mode & 0o777, 0o600)
            self.assertIn("exit status 0", pathlib.Path(output.split()[0]).read_text())
        self.assertEqual(run("report", "/nowhere")[0], 1)

    def test_record_passes_bytes_and_status_on(self):
        with tempfile.TemporaryDirectory() as folder:
            for number, (script, status) in enumerate((("cat; exit 3", 3), ("cat; kill -9 $$", 1))):
                helper = pathlib.Path(folder, f"helper{number}")
                helper.write_text(f"#!/bin/sh\n{script}\n")
                helper.chmod(0o700)
                bytes_sent = bytes(range(256)) * 5000
                done = subprocess.run([PROGRAM, "record", str(helper) + ".jsonl", "--helper", str(helper)],
                                      input=bytes_sent, capture_output=True, timeout=60, check=False)
                self.assertEqual((done.returncode, done.stdout), (status, bytes_sent))

    def test_unreadable_file_is_failure(self):
        status, output, errors = run("transcribe", "missing.wav")
        self.assertEqual((status, output), (1, ""))
        self.assertIn("palaver-stt: cannot read missing.wav: there is no such file", errors)


@unittest.skipUnless(platform.system() == "Linux", "models are managed on Linux only")
class ModelsTest(unittest.TestCase):
    TONES = pathlib.Path(__file__).resolve().parents[3] / "tests/models/tones"

    def setUp(self):
        self.data = tempfile.TemporaryDirectory()
        self.addCleanup(self.data.cleanup)

    def models(self, *arguments):
        process = subprocess.run([PROGRAM, "models", *arguments], capture_output=True, text=True, timeout=60, check=False,
                                 env={**os.environ, "XDG_DATA_HOME": self.data.name})
        return process.returncode, process.stdout, process.stderr

    def test_added_model_is_listed_and_removed(self):
        status, output, errors = self.models("add", str(self.TONES), "--locale", "ja-JP")
        self.assertEqual((status, errors), (0, ""))
        self.assertIn("ja-JP: streaming transducer, 3 kB, copied to ", output)
        self.assertIn("streaming transducer", self.models("list")[1])
        self.assertEqual(self.models("remove", "ja-JP")[0], 0)
        self.assertNotIn("ja-JP", self.models("list")[1])

    def test_unusable_folder_is_one_sentence(self):
        with tempfile.TemporaryDirectory() as empty:
            status, output, errors = self.models("add", empty, "--locale", "ja-JP")
        self.assertEqual((status, output), (1, ""))
        self.assertIn("holds no model (*.onnx or *.ort).", errors)
        self.assertEqual(len(errors.splitlines()), 1)

    def test_invalid_usage_is_explained(self):
        for arguments, message in (([], "models needs one of list, add, check and remove"),
                                   (["add", "x"], "models add needs --locale"), (["list", "x"], "models list takes nothing else"),
                                   (["show"], "there is no command 'models show'"), (["remove"], "models remove takes one locale")):
            status, _, errors = self.models(*arguments)
            self.assertEqual(status, 2, arguments)
            self.assertIn(message, errors)


if __name__ == "__main__":
    unittest.main()
