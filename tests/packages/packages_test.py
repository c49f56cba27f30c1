"""Installs each package in a clean folder, as its user does, and transcribes a recording with what is installed.

usage: packages_test.py FOLDER

FOLDER holds the packages that `./dev package` made. Nothing is taken from the source tree or the build tree: the environment is
empty but for the system's PATH, and no installed file may name the tree.
"""
import hashlib
import json
import os
import pathlib
import re
import shutil
import stat
import subprocess
import sys
import tarfile
import tempfile
import unittest

FOLDER = pathlib.Path(sys.argv.pop(1)).resolve()
TREE = pathlib.Path(__file__).resolve().parents[2]
RECORDING = "/usr/share/pocketsphinx/test/data/goforward.raw"
WORDS = "go forward ten meters"
VERSION = re.search(r"^project\(\S+ VERSION (\S+)", (TREE / "CMakeLists.txt").read_text(), re.M)[1]

NODE_HOST = f"""
import {{PalaverHelper, findHelper}} from 'palaver-stt';
import {{readFile}} from 'node:fs/promises';
import {{paced}} from 'palaver-stt/recording';
console.log(findHelper());
const bytes = await readFile('{RECORDING}');
const recording = new Int16Array(bytes.buffer, bytes.byteOffset, bytes.length / 2);
const helper = await PalaverHelper.start();
const session = await helper.openSession({{locale: 'en-US', sources: ['remote']}});
const printing = (async () => {{
  for await (const {{state, text}} of session.utterances) if (state === 'final') console.log(text);
}})();
for await (const chunk of paced(recording)) session.send('remote', chunk);
await session.stop();
await printing;
await helper.close();
"""

PYTHON_HOST = f"""
import asyncio
from palaver_stt import Helper, find_helper

async def main():
    print(find_helper())
    async with Helper.start() as helper, helper.session("en-US") as session:
        with open("{RECORDING}", "rb") as file:
            while chunk := file.read(3200):
                session.send("remote", chunk)
                await asyncio.sleep(0.1)
        await session.stop()
        async for utterance in session.utterances(finals_only=True):
            print(utterance.text)

asyncio.run(main())
"""


def package(pattern):
    found = sorted(FOLDER.glob(pattern))
    if len(found) != 1:
        raise AssertionError(f"{FOLDER} holds {len(found)} files {pattern}")
    return found[0]


class PackagesTest(unittest.TestCase):
    def setUp(self):
        self.place = pathlib.Path(tempfile.mkdtemp(prefix="palaver package "))
        self.addCleanup(shutil.rmtree, self.place)
        os.chmod(self.place, 0o755)
        self.home = self.place / "home"
        self.home.mkdir()

    def run_clean(self, *command, check=True, **options):
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": str(self.home), "LC_ALL": "C.UTF-8"}
        done = subprocess.run([str(word) for word in command], cwd=self.place, env=environment, capture_output=True, text=True,
                              timeout=240, check=False, **options)
        if check:
            self.assertEqual(done.returncode, 0, f"{command}\n{done.stdout}{done.stderr}")
        return done

    def assert_free_of_tree(self, folder):
        for path in folder.rglob("*"):
            if path.is_file():
                self.assertNotIn(os.fsencode(TREE), path.read_bytes(), path)

    def assert_installation_transcribes(self, prefix):
        """Uses an installation in the places that CMake gives it."""
        tool = prefix / "bin/palaver-stt"
        self.assertEqual(self.run_clean(tool, "--version").stdout, f"palaver-stt {VERSION}\n")
        self.assertIn(f"@(#)PalaverSTTHelper {VERSION}".encode(), (prefix / "bin/PalaverSTTHelper").read_bytes())
        report = self.run_clean(tool, "doctor", "--json").stdout
        self.assertEqual(json.loads(report)["code"], "ready")
        self.assertIn(str(prefix / "bin/PalaverSTTHelper"), report)
        self.assertIn(WORDS, self.run_clean(tool, "transcribe", RECORDING).stdout)

    def test_archive_transcribes_where_it_is_unpacked(self):
        with tarfile.open(package("palaver-stt-*-linux-*.tar.gz")) as archive:
            names = archive.getnames()
            self.assertEqual(names, sorted(names, key=lambda name: name.split("/")))
            archive.extractall(self.place)
        prefix = next(self.place.glob("palaver-stt-*"))
        self.assert_free_of_tree(prefix)
        for file in ("LICENSE", "THIRD-PARTY-NOTICES"):
            self.assertTrue((prefix / "share/doc/palaver-stt" / file).stat().st_size > 500)
        self.assert_installation_transcribes(prefix)
        # Both programs in one folder, as an application may keep them.
        for program in ("bin/PalaverSTTHelper", "libexec/palaver-stt/PalaverSpeechWorker"):
            shutil.copy(prefix / program, self.home)
        output = self.run_clean(prefix / "bin/palaver-stt", "transcribe", "--helper", self.home / "PalaverSTTHelper", RECORDING).stdout
        self.assertIn(WORDS, output)

    def test_archive_without_worker_names_what_is_missing(self):
        with tarfile.open(package("palaver-stt-*-linux-*.tar.gz")) as archive:
            archive.extractall(self.place)
        prefix = next(self.place.glob("palaver-stt-*"))
        (prefix / "libexec/palaver-stt/PalaverSpeechWorker").unlink()
        done = self.run_clean(prefix / "bin/palaver-stt", "transcribe", RECORDING, check=False)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("PalaverSpeechWorker", done.stdout + done.stderr)

    def test_debian_package_installs_transcribes_and_is_removed(self):
        root = self.place / "root"
        for folder in ("info", "updates", "triggers"):
            (root / "var/lib/dpkg" / folder).mkdir(parents=True)
        for file in ("status", "available"):
            (root / "var/lib/dpkg" / file).touch()
        # The dependencies are those of the machine, which the clean root does not know.
        dpkg = ("dpkg", f"--root={root}", "--force-depends", "--force-not-root", "--log=/dev/null")
        self.run_clean(*dpkg, "--install", package("palaver-stt_*.deb"))
        self.assert_free_of_tree(root / "usr")
        self.assert_installation_transcribes(root / "usr")
        self.assertTrue((root / "usr/share/zsh/vendor-completions/_palaver-stt").exists())
        for page in ("palaver-stt", "PalaverSTTHelper"):
            self.assertIn(f".Nm {page}", self.run_clean("zcat", root / f"usr/share/man/man1/{page}.1.gz").stdout)
        self.run_clean(*dpkg, "--remove", "palaver-stt")
        self.assertEqual([path for path in root.rglob("*") if path.is_file() and "dpkg" not in path.parts], [])

    def test_debian_package_depends_on_what_its_programs_load(self):
        fields = self.run_clean("dpkg-deb", "--field", package("palaver-stt_*.deb")).stdout
        self.assertIn(f"\nVersion: {VERSION}\n", fields)
        self.assertRegex(fields, r"\nDepends: .*libc6 .*libstdc\+\+6 ")
        self.assertNotRegex(fields, r"\nDepends: .*sndfile")
        self.assertIn("\nRecommends: pocketsphinx-en-us, libsndfile1\n", fields)

    def test_debian_package_follows_policy(self):
        if not shutil.which("lintian"):
            self.skipTest("lintian is missing")
        command = ["lintian", "--fail-on", "error,warning", package("palaver-stt_*.deb")]
        self.run_clean(*command, *(["--allow-root"] if os.getuid() == 0 else []))

    def test_npm_tarball_transcribes_in_a_host(self):
        tarball = package("palaver-stt-*.tgz")
        if shutil.which("npm") and self.run_clean("npm", "--version", check=False).returncode == 0:
            (self.place / "package.json").write_text('{"name": "host", "version": "1.0.0", "type": "module"}')
            self.run_clean("npm", "install", "--offline", "--no-audit", "--no-fund", "--ignore-scripts", tarball)
        else:
            (self.place / "node_modules").mkdir()
            with tarfile.open(tarball) as archive:
                archive.extractall(self.place)
            (self.place / "package").rename(self.place / "node_modules/palaver-stt")
        module = self.place / "node_modules/palaver-stt"
        manifest = json.loads((module / "package.json").read_text())
        self.assertEqual(manifest["version"], VERSION)
        self.assertEqual({"preinstall", "install", "postinstall", "prepare"} & set(manifest["scripts"]), set())
        self.assertFalse((module / "binding.gyp").exists())
        self.assert_free_of_tree(module)
        programs = next((module / "prebuilt").iterdir())
        self.assertTrue({"LICENSE", "THIRD-PARTY-NOTICES", "PalaverSTTHelper", "PalaverSpeechWorker"} <=
                        {path.name for path in programs.iterdir()})
        (self.place / "host.mjs").write_text(NODE_HOST)
        self.assertEqual(self.run_clean("node", "host.mjs").stdout.splitlines(), [str(programs / "PalaverSTTHelper"), WORDS])

    def test_npm_tarball_holds_what_npm_would_pack(self):
        if not shutil.which("npm"):
            self.skipTest("npm is missing")
        with tarfile.open(package("palaver-stt-*.tgz")) as archive:
            archive.extractall(self.place)
        listed = json.loads(self.run_clean("npm", "pack", "--dry-run", "--json", "--offline", self.place / "package").stdout)
        expected = sorted(file["path"] for file in listed[0]["files"])
        held = sorted(str(path.relative_to(self.place / "package")) for path in (self.place / "package").rglob("*") if path.is_file())
        self.assertEqual(held, expected)

    def test_wheel_transcribes_in_a_virtual_environment(self):
        wheel = package("palaver_stt-*.whl")
        self.assertRegex(wheel.name, rf"^palaver_stt-{re.escape(VERSION)}-py3-none-manylinux_2_\d+_\w+\.whl$")
        environment = self.place / "venv"
        self.run_clean(sys.executable, "-m", "venv", environment)
        python = environment / "bin/python3"
        self.run_clean(python, "-m", "pip", "--disable-pip-version-check", "install", "--no-index", wheel)
        programs = next(environment.glob("lib/python*/site-packages/palaver_stt/_programs"))
        self.assert_free_of_tree(programs)
        for name in ("PalaverSTTHelper", "PalaverSpeechWorker"):
            self.assertTrue((programs / name).stat().st_mode & stat.S_IXUSR)
        self.assertTrue((programs / "THIRD-PARTY-NOTICES").exists())
        output = self.run_clean(python, "-I", "-c", PYTHON_HOST).stdout
        self.assertEqual(output.splitlines(), [str(programs / "PalaverSTTHelper"), WORDS])

    def test_formula_is_ruby_and_names_the_sources(self):
        formula = package("palaver-stt.rb")
        if not shutil.which("ruby"):
            self.skipTest("ruby is missing")
        self.run_clean("ruby", "-c", formula)
        text = formula.read_text()
        digest = hashlib.sha256(package("palaver-stt-*-source.tar.gz").read_bytes()).hexdigest()
        self.assertIn(f'sha256 "{digest}"', text)
        self.assertIn(f'version "{VERSION}"', text)
        self.assertNotRegex(text, "@[A-Z0-9]+@")


if __name__ == "__main__":
    unittest.main(verbosity=2)
