"""Starts the speech worker as a helper of another version would.

usage: worker_version_test.py WORKER
"""

import os
import socket
import subprocess
import sys


def answer_to(*arguments):
    """What the worker sends, until it ends after the helper's end of the socket was closed."""
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
    worker = subprocess.Popen([sys.argv[1], *arguments], preexec_fn=lambda: os.dup2(theirs.fileno(), 3), close_fds=False,
                              stderr=subprocess.PIPE)
    theirs.close()
    ours.settimeout(60)
    answer = ours.recv(65536)
    ours.close()
    assert worker.wait(60) == 0, worker.returncode
    return answer


MODEL = ["pocketsphinx", "/usr/share/pocketsphinx/model/en-us", "en-US"]
# The worker of the first version took the engine first.
for arguments in (["999", *MODEL], MODEL, ["3"], ["3", *MODEL, "more"]):
    answer = answer_to(*arguments)
    assert b"the speech worker is of another version than the helper" in answer, (arguments, answer)
print("passed")
