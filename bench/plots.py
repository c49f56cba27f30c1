"""Draws how the cost of the path grows, as SVG files.

usage: python3 bench/plots.py BENCH FOLDER

BENCH is the program palaver_bench. Its roles are measured in turns, and each point is the best of several rounds,
which other work on the machine disturbs least. Writes
throughput.svg, sessions.svg and memory.svg into FOLDER and prints the figures. Needs Linux.
"""
import fcntl
import os
import pathlib
import subprocess
import sys

import svg

ROUNDS = 7
BYTES = 120 << 20  # of input for one point
LINE_OF_100_MS = 4412  # bytes


def measure(bench, role, sessions, lines, frames=1600):
    """Runs a reader on the load. Returns its figures."""
    read_end, write_end = os.pipe()
    fcntl.fcntl(write_end, fcntl.F_SETPIPE_SZ, 1 << 20)
    reader = subprocess.Popen([bench, "--as", role], stdin=read_end, stdout=subprocess.PIPE, text=True)
    arguments = [str(sessions), str(lines), str(frames)]
    writer = subprocess.Popen([bench, "--as", "writer", *arguments], stdin=read_end, stdout=write_end)
    os.close(read_end)
    os.close(write_end)
    report = reader.communicate()[0]
    if writer.wait() != 0 or reader.returncode != 0:
        raise SystemExit(f"{role} failed")
    figures = {name: float(value) for name, value in map(str.split, report.splitlines())}
    if figures.get("buffers", lines) != lines:
        raise SystemExit(f"{role} did not handle every line")
    return figures


def best(choose, roles, points, figure):
    """Measures every point with every role, round by round. `figure(role, point)` measures once; `choose` is min or max."""
    found = {(role, point): [] for role in roles for point in points}
    for _ in range(ROUNDS):
        for (role, point), values in found.items():
            values.append(figure(role, point))
    return {role: [choose(found[role, point]) for point in points] for role in roles}


def chart(path, title, x_title, y_title, xs, series):
    """Draws lines by name over evenly spaced points, and prints them."""
    pathlib.Path(path).write_text(svg.lines(
        title, x_title, y_title, {name: list(enumerate(values)) for name, values in series.items()}, places=[f"{x:g}" for x in xs]))
    print(title)
    for i, point in enumerate(xs):
        print(f"  {point:g}: " + ", ".join(f"{name} {values[i]:.3g}" for name, values in series.items()))


def plot_throughput(bench, folder):
    lengths = [20, 40, 60, 100, 200, 400, 1000]  # ms

    def speed(role, length):
        lines = BYTES * 100 // (LINE_OF_100_MS * length)
        return lines * length / 1000 / measure(bench, role, 4, lines, length * 16)["seconds"] / 1000

    found = best(max, ["path", "limit"], lengths, speed)
    chart(f"{folder}/throughput.svg", "Audio handled, by the length of a line", "ms of audio in a line",
          "1000 s of audio a second", lengths, {"whole path": found["path"], "reading only": found["limit"]})


def plot_sessions(bench, folder):
    sessions = [1, 2, 5, 10, 20, 50, 100, 200]
    lines = BYTES // LINE_OF_100_MS

    def cost(role, count):
        return measure(bench, role, count, lines)["processor"] / lines * 1e6

    found = best(min, ["path", "limit"], sessions, cost)
    chart(f"{folder}/sessions.svg", "Processor time, by the number of sessions", "sessions of two sources",
          "µs a line of 100 ms", sessions, {"whole path": found["path"], "reading only": found["limit"]})


def plot_memory(bench, folder):
    hours = 8
    figures = measure(bench, "path-memory", 1, hours * 72000)
    minutes = range(10, hours * 60 + 1, 10)
    resident = [figures[f"minute-{minute}"] / (1 << 20) for minute in minutes]
    chart(f"{folder}/memory.svg", "Resident memory, by hours of audio at full speed", "hours of audio of two sources",
          "MiB", [minute / 60 for minute in minutes][2::3], {"whole path": resident[2::3]})


def main():
    if len(sys.argv) != 3:
        raise SystemExit("usage: plots.py BENCH FOLDER")
    plot_throughput(*sys.argv[1:])
    plot_sessions(*sys.argv[1:])
    plot_memory(*sys.argv[1:])


main()
