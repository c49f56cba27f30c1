"""What the real helper writes in the tests of its process follows the schema and the rules.

The tests record what was said into the folder that PALAVER_CONVERSATIONS names."""

import json
import os
import sys
import unittest
from pathlib import Path

from recordings import require_jsonschema

require_jsonschema("the lines of the process tests against the schema")

import validate  # noqa: E402
from conversation import Conversation  # noqa: E402

FOLDER = Path(os.environ["PALAVER_CONVERSATIONS"])


def recorded(path: Path) -> Conversation:
    record = json.loads(path.read_text())
    # The last piece of an output that was not read to its end may be half a line.
    lines = bytes.fromhex(record["output"]).decode("utf-8").split("\n")[:-1]
    complete = record["complete"] and record["inputEnded"]
    data = bytes.fromhex(record["input"])
    return Conversation(lines, record["arguments"], data, complete, record["exitStatus"])


class ProcessConversations(unittest.TestCase):
    def test_every_line_follows_the_protocol(self) -> None:
        schemas = validate.Schemas()
        types = set()
        files = sorted(FOLDER.glob("*.json"))
        for path in files:
            with self.subTest(test=path.stem):
                run = recorded(path)
                self.assertEqual(validate.faults(run, schemas), [])
                types |= {event["type"] for event in run.events}
        self.assertGreater(len(files), 50, "the process tests record their conversations")
        self.assertLessEqual({"helper.status", "helper.error", "pong", "session.ready", "session.stopped"}, types)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
