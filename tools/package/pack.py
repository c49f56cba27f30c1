#!/usr/bin/env python3
"""Packs a folder as a .tar.gz whose bytes depend on its files only: sorted names, one time, no owner.

usage: tools/package/pack.py FOLDER ARCHIVE NAME

NAME is the folder in the archive. The time of all files is SOURCE_DATE_EPOCH, in s.
"""
import gzip
import os
import pathlib
import sys
import tarfile


def pack(folder: pathlib.Path, archive: pathlib.Path, name: str) -> None:
    epoch = int(os.environ["SOURCE_DATE_EPOCH"])

    def normalised(entry: tarfile.TarInfo) -> tarfile.TarInfo:
        entry.mtime = epoch
        entry.uid = entry.gid = 0
        entry.uname = entry.gname = "root"
        if not entry.issym():
            entry.mode = 0o755 if entry.isdir() or entry.mode & 0o100 else 0o644
        return entry

    # TarFile.add sorts the entries of each folder. The header of gzip would hold a name and a time.
    with archive.open("wb") as file, gzip.GzipFile(filename="", mode="wb", fileobj=file, mtime=0) as packed, tarfile.open(
        fileobj=packed, mode="w", format=tarfile.PAX_FORMAT
    ) as tar:
        tar.add(folder, name, filter=normalised)


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    pack(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3])
