#!/usr/bin/env python3
"""Makes the packages that CPack does not: the sources, the npm tarball, the Python wheel and the Homebrew formula.

usage: tools/package/make.py source  FOLDER
       tools/package/make.py npm     FOLDER PROGRAMS
       tools/package/make.py wheel   FOLDER PROGRAMS
       tools/package/make.py formula FOLDER URL

FOLDER gets the package. PROGRAMS is a folder with PalaverSTTHelper, PalaverSpeechWorker, their libraries and their notices, as
`cmake --install` leaves it. URL is where FOLDER's archive of the sources will be found. SOURCE_DATE_EPOCH is the time of all
files, in s. Needs no network.
"""
import hashlib
import json
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile

from pack import pack

ROOT = pathlib.Path(__file__).resolve().parents[2]
VERSION = re.search(r"^project\(\S+ VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(), re.M)[1]
MACHINE = platform.machine()

# glibc's minor version of the manylinux platform that may use each version of libstdc++ (PEP 600, auditwheel's policies).
LIBSTDCXX = {(3, 4, 29): 34, (3, 4, 30): 35, (3, 4, 32): 38, (3, 4, 33): 39}


def source_name() -> str:
    return f"palaver-stt-{VERSION}-source"


def make_source(folder: pathlib.Path) -> pathlib.Path:
    """Packs the files that git knows or would add, or all but the build where there is no repository."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=ROOT, capture_output=True, text=True)
    top = subprocess.run(["git", "rev-parse", "--show-toplevel"], cwd=ROOT, capture_output=True, text=True)
    if listed.returncode == 0 and pathlib.Path(top.stdout.strip() or "/").resolve() == ROOT:
        names = [name for name in listed.stdout.split("\0") if name]
    else:
        names = [str(path.relative_to(ROOT)) for path in ROOT.rglob("*") if path.is_file() and "__pycache__" not in path.parts]
        names = [name for name in names if pathlib.Path(name).parts[0] not in ("build", ".git", ".cache")]
    with tempfile.TemporaryDirectory() as stage:
        for name in names:
            if (ROOT / name).is_file():
                to = pathlib.Path(stage, name)
                to.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(ROOT / name, to)
        archive = folder / f"{source_name()}.tar.gz"
        pack(pathlib.Path(stage), archive, source_name())
    return archive


def copy_programs(programs: pathlib.Path, to: pathlib.Path) -> None:
    """Copies helper, worker, its libraries and the notices into one folder, in which the helper finds them."""
    to.mkdir(parents=True)
    doc = programs / "share/doc/palaver-stt"
    for path in (programs / "bin/PalaverSTTHelper", programs / "libexec/palaver-stt/PalaverSpeechWorker",
                 doc / "LICENSE", doc / "THIRD-PARTY-NOTICES", *sorted((programs / "lib/palaver-stt").glob("*.so"))):
        shutil.copy(path, to)


def make_npm(folder: pathlib.Path, programs: pathlib.Path) -> pathlib.Path:
    client = ROOT / "clients/node"
    manifest = json.loads((client / "package.json").read_text())
    arch = {"x86_64": "x64", "aarch64": "arm64"}.get(MACHINE, MACHINE)
    with tempfile.TemporaryDirectory() as stage:
        to = pathlib.Path(stage, "package")
        copy_programs(programs, to / "prebuilt" / f"linux-{arch}")
        shutil.copy(client / "package.json", to)
        for pattern in manifest["files"]:
            if pattern == "prebuilt/":
                continue
            found = [client / pattern] if pattern.endswith("/") else list(client.glob(pattern))
            if not all(path.exists() for path in found) or not found:
                sys.exit(f"error: {client}/package.json names {pattern}, and there is no such file")
            for path in found:
                (shutil.copytree if path.is_dir() else shutil.copy)(path, to / path.name)
        for name in manifest["bin"].values():
            (to / name).chmod(0o755)
        archive = folder / f"palaver-stt-{VERSION}.tgz"
        pack(to, archive, "package")
    return archive


def manylinux(programs: pathlib.Path) -> str:
    """Returns the oldest platform that has every version of a library that the worker asks for. The helper is static."""
    worker = programs / "libexec/palaver-stt/PalaverSpeechWorker"
    needed = subprocess.run(["readelf", "--version-info", "--wide", worker], capture_output=True, text=True, check=True).stdout
    minor = max(int(text) for text in re.findall(r"\bGLIBC_2\.(\d+)", needed))
    versions = [tuple(map(int, text.split("."))) for text in re.findall(r"\bGLIBCXX_(\d+\.\d+\.\d+)", needed)]
    newest = max(versions, default=(0,))
    fitting = [glibc for libstdcxx, glibc in sorted(LIBSTDCXX.items()) if libstdcxx >= newest]
    if not fitting:
        sys.exit(f"error: no manylinux platform is known for libstdc++ {newest}")
    return f"manylinux_2_{max(minor, fitting[0])}_{MACHINE}"


def builder() -> str:
    """Returns an interpreter whose setuptools can build a wheel."""
    for python in (sys.executable, "/usr/bin/python3"):
        if pathlib.Path(python).exists() and subprocess.run([python, "-c", "import setuptools, wheel"], capture_output=True).returncode == 0:
            return python
    sys.exit("error: a wheel needs setuptools and wheel (Debian: python3-setuptools, python3-wheel)")


def make_wheel(folder: pathlib.Path, programs: pathlib.Path) -> pathlib.Path:
    with tempfile.TemporaryDirectory() as stage:
        client = pathlib.Path(stage, "client")
        shutil.copytree(ROOT / "clients/python", client, ignore=shutil.ignore_patterns("__pycache__", "*.egg-info", "build"))
        copy_programs(programs, client / "src/palaver_stt/_programs")
        project = (client / "pyproject.toml").read_text()
        with_programs = project.replace('palaver_stt = ["py.typed"]', 'palaver_stt = ["py.typed", "_programs/*"]')
        if with_programs == project:
            sys.exit("error: clients/python/pyproject.toml has no list of package data to add the programs to")
        (client / "pyproject.toml").write_text(with_programs)
        (client / "setup.cfg").write_text(f"[bdist_wheel]\nplat_name = {manylinux(programs)}\n")
        # Files keep their modes in a wheel, and a mode follows the umask.
        for path in client.rglob("*"):
            path.chmod(0o755 if path.is_dir() or path.stat().st_mode & 0o100 else 0o644)
        build = "import sys; from setuptools import build_meta; print(build_meta.build_wheel(sys.argv[1]))"
        done = subprocess.run([builder(), "-c", build, folder.resolve()], cwd=client, capture_output=True, text=True, umask=0o022)
        if done.returncode != 0:
            sys.exit(done.stderr)
        return folder / done.stdout.splitlines()[-1]


def make_formula(folder: pathlib.Path, url: str) -> pathlib.Path:
    archive = folder / f"{source_name()}.tar.gz"
    text = (ROOT / "packaging/homebrew/palaver-stt.rb.in").read_text()
    for name, value in (("URL", url), ("VERSION", VERSION), ("SHA256", hashlib.sha256(archive.read_bytes()).hexdigest())):
        text = text.replace(f"@{name}@", value)
    formula = folder / "palaver-stt.rb"
    formula.write_text(text)
    return formula


def main() -> None:
    makers = {"source": (make_source, 0), "npm": (make_npm, 1), "wheel": (make_wheel, 1), "formula": (make_formula, 1)}
    if len(sys.argv) < 3 or sys.argv[1] not in makers or len(sys.argv) != 3 + makers[sys.argv[1]][1]:
        sys.exit(__doc__)
    make, _ = makers[sys.argv[1]]
    os.environ["SOURCE_DATE_EPOCH"]  # fails early, with its name
    rest = [text if sys.argv[1] == "formula" else pathlib.Path(text) for text in sys.argv[3:]]
    print(make(pathlib.Path(sys.argv[2]), *rest))


if __name__ == "__main__":
    main()
