"""Draws the figures of a run of this benchmark.

usage: python3 bench/accuracy/charts.py FIGURES.json FOLDER
"""

import json
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent))

import svg


def main():
    results = json.loads(pathlib.Path(sys.argv[1]).read_text())
    folder = pathlib.Path(sys.argv[2])
    conditions = [name for name in next(iter(results.values())) if name != "memory"]
    errors = {engine: [100 * found[name]["errors"] / found[name]["words"] for name in conditions] for engine, found in results.items()}
    (folder / "word-errors.svg").write_text(
        svg.bars("Word errors through the whole helper", "% of words", conditions, errors, (10, "target 10 %")))
    delays = {}
    for engine, found in results.items():
        every = sorted(found["both sources at once"]["toPartial"])
        every = [delay for delay in every if delay >= 0]
        delays[engine] = [(delay / 1000, 100 * (index + 1) / len(every)) for index, delay in enumerate(every)]
    (folder / "word-delay.svg").write_text(
        svg.lines("From the end of a word to the first event that holds it, two live sources", "s", "% of words", delays))
    channels = ["0", "1", "2", "10", "a minute after"]
    memory = {engine: [sum(found["memory"][name]) for name in channels] for engine, found in results.items() if "memory" in found}
    if memory:
        (folder / "engine-memory.svg").write_text(
            svg.bars("Resident memory of helper and worker", "MB", [f"{name} channels" if name.isdigit() else name for name in channels], memory))


main()
