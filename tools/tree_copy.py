"""Copies the checkout, for tools that edit a copy of it."""

import shutil
import subprocess


def copy_tree(root, tree):
    """Makes the copy `tree` equal to the checkout `root`, new files included. Files that are equal keep their times, so that they
    are not rebuilt. Removes every other file in the copy."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=root,
                            capture_output=True, check=True, text=True).stdout
    wanted = {name for name in listed.split("\0") if name and (root / name).is_file()}
    for name in wanted:
        source, copy = root / name, tree / name
        if not copy.exists() or copy.read_bytes() != source.read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, copy)
    for copy in tree.rglob("*"):
        if copy.is_file() and copy.relative_to(tree).as_posix() not in wanted:
            copy.unlink()
