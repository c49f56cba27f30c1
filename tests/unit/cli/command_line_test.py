"""Runs palaver-stt as a user does: commands, help, version and errors."""
import json
import os
import pathlib
import platform
import pty
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import unittest

PROGRAM = sys.argv.pop(1)
VERSION = sys.argv.pop(1)
SIMULATOR = os.environ.get("PALAVER_STT_SIMULATOR")


RECORDING = pathlib.Path("/usr/share/pocketsphinx/test/data/goforward.raw")
WORDS = "go forward ten meters"


def run(*arguments, **options):
    process = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=60, check=False, **options)
    return process.returncode, process.stdout, process.stderr


def wave_stream(samples, channels, repeats):
    """16 kHz mono samples as a WAV stream of unknown length, with each frame repeated and in each channel."""
    frames = b"".join(samples[i:i + 2] * channels * repeats for i in range(0, len(samples), 2))
    rate, block = 16000 * repeats, 2 * channels
    return (b"RIFF" + struct.pack("<I", 0xFFFFFFFF) + b"WAVEfmt " +
            struct.pack("<IHHIIHH", 16, 1, channels, rate, rate * block, block, 16) + b"data" + struct.pack("<I", 0xFFFFFFFF) + frames)


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

    @unittest.skipUnless(SIMULATOR, "there is no simulator")
    def test_recorded_meeting_becomes_a_scenario_with_the_same_finals(self):
        far = RECORDING.parent / "librivox/sense_and_sensibility_01_austen_64kb-0870.wav"
        for name, helper, arguments, source in (("legacy", "", "", "implementation.:.sf-speech-recognizer"),
                                                ("analyzer", f'--helper "{SIMULATOR}"', "analyzer", "implementation.:.speech-analyzer")):
            with self.subTest(name), tempfile.TemporaryDirectory() as folder:
                recording, launcher = pathlib.Path(folder, "meeting.jsonl"), pathlib.Path(folder, "helper")
                launcher.write_text(f'#!/bin/sh\nexec "{PROGRAM}" record {helper} "{recording}" -- {arguments} "$@"\n')
                launcher.chmod(0o700)
                status, output, _ = run("transcribe", "--helper", str(launcher), str(far), "--self", str(RECORDING))
                self.assertEqual(status, 0, output)
                self.assertRegex(recording.read_text().replace("\\", ""), source)
                scenario = pathlib.Path(folder, "meeting.json")
                self.assertEqual(run("replay", str(recording), "--scenario", str(scenario)), (0, f"{scenario}\n", ""))
                self.assertEqual(scenario.stat().st_mode & 0o777, 0o600)
                finals = json.loads(scenario.read_text())["finals"]
                self.assertEqual(finals["self"], [WORDS])
                self.assertGreaterEqual(len(finals["remote"]), 1)
                for text in (*finals["self"], *finals["remote"]):
                    self.assertIn(text.split()[0], output)
                # A seed changes which source's analyzer is the first.
                for seed in (None, 1, 2) if name == "legacy" else (None,):
                    if seed:
                        scenario.write_text(json.dumps({**json.loads(scenario.read_text()), "seed": seed}))
                    played = subprocess.run([SIMULATOR, "run", str(scenario)], capture_output=True, text=True, timeout=60, check=False)
                    self.assertEqual((played.returncode, played.stdout), (0, "passed meeting\n"))
                # Another final is noticed.
                changed = json.loads(scenario.read_text())
                changed["finals"]["self"] = ["go backward"]
                scenario.write_text(json.dumps(changed))
                played = subprocess.run([SIMULATOR, "run", str(scenario)], capture_output=True, text=True, timeout=60, check=False)
                self.assertEqual(played.returncode, 1)
                self.assertIn(f"- go backward\n    + {WORDS}\n", played.stdout)

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

    def test_standard_input_is_transcribed_while_it_flows(self):
        samples = RECORDING.read_bytes() + bytes(2 * 16000 * 3)
        for sound, options in ((samples, []), (wave_stream(samples, 2, 3), []),
                               (wave_stream(samples, 2, 3)[44:], ["-r", "48000", "-c", "2"])):
            with subprocess.Popen([PROGRAM, "transcribe", "-", *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE) as process:
                process.stdin.write(sound)
                process.stdin.flush()
                line = process.stdout.readline().decode()
                while line and not re.match(r"remote  (?!\.\.\. )", line):
                    line = process.stdout.readline().decode()
                output, errors = process.communicate(timeout=60)
            self.assertEqual(line, f"remote  {WORDS}\n", "the first final, while the input is open")
            self.assertEqual((process.returncode, errors), (0, b""))
            self.assertIn("completed", output.decode())

    def test_interrupted_standard_input_still_has_its_finals(self):
        with subprocess.Popen([PROGRAM, "transcribe", "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            process.stdin.write(RECORDING.read_bytes())
            process.stdin.flush()
            while b"remote  ... " not in process.stdout.readline():
                self.assertIsNone(process.poll())
            process.send_signal(signal.SIGINT)
            output = process.stdout.read().decode()
            self.assertEqual(process.wait(timeout=60), 0, output)
        self.assertRegex(output, r"(?m)^remote  1 final, ")
        self.assertIn("completed", output)

    def test_unreadable_standard_input_is_named(self):
        for sound, message in ((b"", "contains no audio"), (b"fLaC" * 10, "is FLAC, and only WAV and raw samples")):
            done = subprocess.run([PROGRAM, "transcribe", "-", "--format", "srt"], input=sound, capture_output=True, timeout=60,
                                  check=False)
            self.assertEqual((done.returncode, done.stdout), (1, b""))
            self.assertIn(f"standard input {message}", done.stderr.decode())
        terminal, end = pty.openpty()
        status, output, errors = run("transcribe", "-", stdin=end)
        os.close(terminal)
        os.close(end)
        self.assertEqual((status, output), (1, ""))
        self.assertIn("standard input is a terminal", errors)

    def test_transcript_has_formats(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "words.srt")
            path.write_text("old " * 100)
            status, output, errors = run("transcribe", str(RECORDING), "--format", "srt", "-o", str(path))
            self.assertEqual((status, output, errors), (0, "", ""))
            self.assertRegex(path.read_text(), rf"\A1\n00:00:00,\d\d\d --> 00:00:0[12],\d\d\d\nremote: {WORDS}\n\n\Z")
            path = pathlib.Path(folder, "words.txt")
            status, output, errors = run("transcribe", str(RECORDING), "--output", str(path))
            self.assertEqual((status, output, errors), (0, "", ""))
            self.assertIn(f"\nremote  {WORDS}\n", path.read_text())
            self.assertNotIn("...", path.read_text())
            self.assertEqual(path.stat().st_mode & 0o777, 0o600)
        status, output, errors = run("transcribe", str(RECORDING), "--format", "json")
        self.assertEqual((status, errors), (0, ""))
        self.assertEqual([(each["source"], each["text"]) for each in json.loads(output)["utterances"]], [("remote", WORDS)])
        status, _, errors = run("transcribe", str(RECORDING), "-o", "/nowhere/words.txt")
        self.assertEqual(status, 1)
        self.assertIn("cannot write /nowhere/words.txt", errors)

    def test_progress_is_on_standard_error_only(self):
        terminal, end = pty.openpty()
        with subprocess.Popen([PROGRAM, "transcribe", str(RECORDING)], stdout=subprocess.PIPE, stderr=end, text=True) as process:
            os.close(end)
            progress = b""
            try:
                while piece := os.read(terminal, 65536):
                    progress += piece
            except OSError:  # the program has ended
                pass
            output = process.stdout.read()
        os.close(terminal)
        self.assertEqual(process.returncode, 0)
        self.assertIn(b" of 2.", progress)
        self.assertIn(f"remote  {WORDS}\n", output)
        self.assertNotIn("\x1b", output)
        self.assertNotIn(" of 2.", output)

    @unittest.skipUnless(platform.system() == "Linux", "the library is found in another way")
    def test_only_other_containers_need_libsndfile(self):
        with tempfile.TemporaryDirectory() as folder:
            # A file that is no library takes the place of the system's.
            pathlib.Path(folder, "libsndfile.so.1").write_text("no library")
            environment = {**os.environ, "LD_LIBRARY_PATH": folder}
            sound, other = pathlib.Path(folder, "sound.wav"), pathlib.Path(folder, "sound.flac")
            sound.write_bytes(wave_stream(RECORDING.read_bytes(), 1, 1))
            other.write_bytes(b"fLaC" + bytes(100))
            status, output, _ = run("doctor", "--json", str(sound), env=environment)
            self.assertEqual((status, json.loads(output)["code"]), (0, "ready"))
            status, output, errors = run("doctor", str(other), env=environment)
            self.assertEqual((status, output), (1, ""))
            self.assertEqual(errors, f"palaver-stt: cannot read {other}: FLAC needs libsndfile: apt-get install libsndfile1, "
                                     "on a Mac brew install libsndfile\n")

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
