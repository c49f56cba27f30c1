"""Checks that the man page and the completions know every command and option that palaver-stt describes."""
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

PROGRAM = sys.argv.pop(1)
PACKAGING = pathlib.Path(__file__).resolve().parents[3] / "packaging"
BASH = PACKAGING / "completions/palaver-stt.bash"


def help_of(*command):
    return subprocess.run([PROGRAM, *command, "--help"], capture_output=True, text=True, timeout=60, check=True).stdout


def commands():
    return re.findall(r"^  ([a-z]+) ", help_of(), re.M)


def options(command):
    """The options of the usage lines and of the list below them."""
    lines = [line for line in help_of(command).splitlines() if re.match(r"usage: | +palaver-stt | +--", line)]
    return sorted({option for line in lines for option in re.findall(r"^ +(--[a-z-]+)|(?<=[ \[])(--[a-z-]+)", line) for option in option if option}
                  | {"--help"})


def completed(*words):
    """The completions that bash offers for the last word."""
    script = f'''source "{BASH}"; compopt() {{ :; }}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _palaver_stt
      printf '%s\\n' "${{COMPREPLY[@]}}"'''
    done = subprocess.run(["bash", "-c", script, "bash", "palaver-stt", *words], capture_output=True, text=True, check=True)
    return sorted(done.stdout.split())


class DocumentationTest(unittest.TestCase):
    def test_help_names_commands(self):
        self.assertIn("transcribe", commands())
        self.assertIn("--speed", options("transcribe"))

    def test_man_page_describes_every_command_and_option(self):
        page = (PACKAGING / "man/palaver-stt.1").read_text()
        for command in commands():
            section = re.search(rf"^\.Ss {command}\n(.*?)(?=^\.S[sh] )", page, re.M | re.S)
            self.assertIsNotNone(section, command)
            for option in options(command):
                if option != "--help":
                    self.assertIn(f"Fl {option[1:]}", section[1], command)

    @unittest.skipUnless(shutil.which("bash"), "there is no bash")
    def test_bash_offers_every_command_and_option(self):
        self.assertEqual(completed(""), sorted([*commands(), "--help", "--version"]))
        self.assertEqual(completed("tr"), ["transcribe"])
        for command in commands():
            before = [command, "add"] if command == "models" else [command]
            self.assertEqual(completed(*before, "--"), options(command))
        self.assertIn("ja-JP", completed("transcribe", "--locale", "j"))

    def test_zsh_offers_every_command_and_option(self):
        text = (PACKAGING / "completions/_palaver-stt").read_text()
        for command in commands():
            self.assertIn(f"'{command}:", text)
            for option in options(command):
                self.assertRegex(text, rf"'\*?{option}[=\[]")


if __name__ == "__main__":
    unittest.main()
