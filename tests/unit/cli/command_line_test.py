"""Runs palaver-stt as a user does: commands, help, version and errors."""
import subprocess
import sys
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

    def test_unreadable_file_is_failure(self):
        status, output, errors = run("transcribe", "missing.wav")
        self.assertEqual((status, output), (1, ""))
        self.assertIn("palaver-stt: cannot read missing.wav: there is no such file", errors)


if __name__ == "__main__":
    unittest.main()
