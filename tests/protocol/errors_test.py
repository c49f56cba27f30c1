"""errors.json has exactly one code for every error text: of the scenarios, of its own examples and of the sources."""

import json
import re
import sys
import unittest

from recordings import ROOT, scenarios

from conversation import ERRORS, Conversation, errors_of


class ErrorTexts(unittest.TestCase):
    runs: "dict[str, Conversation]" = {}

    @classmethod
    def setUpClass(cls) -> None:
        cls.runs = scenarios()

    def test_examples_have_their_entry(self) -> None:
        for error in ERRORS:
            for example in error["examples"]:
                self.assertEqual(errors_of(example), [error], example)

    def test_messages_are_those_of_their_pattern(self) -> None:
        for error in ERRORS:
            text = re.sub(r"<n>", "1", error["message"])
            text = re.sub(r"<(?!wav-path|vocabulary-json-path)[a-z]+>", "x y", text)
            self.assertEqual(errors_of(text), [error], text)

    def test_near_misses_have_no_code(self) -> None:
        for error in ERRORS:
            if error["message"].endswith(">") and "Usage" not in error["message"]:
                continue
            for near in (error["message"] + "!", "x" + error["message"], error["message"].lower()):
                self.assertNotIn(error, errors_of(near), near)

    def test_every_entry_occurs_in_a_scenario(self) -> None:
        seen = set()
        for run in self.runs.values():
            for event in run.events:
                if event["type"] == "helper.error":
                    entries = errors_of(event["message"])
                    self.assertEqual(len(entries), 1, event["message"])
                    seen.add(entries[0]["message"])
        # Scenarios do not run out of memory. The texts of that are held to the sources, below.
        exhaustion = {"The command does not fit into memory", "The helper has to end: <why>"}
        # Nor do they have the system's analyzer, whose adapter refuses what would end the process.
        adapter = (ROOT / "platform/macos/AppleSpeechAnalysis.cpp").read_text(encoding="utf-8")
        refusals = {f"SpeechAnalyzer input failed: {text}" for text in re.findall(r'throw std::\w+\("([^"]*)"\)', adapter)}
        self.assertEqual(len(refusals), 3)
        self.assertEqual(seen | exhaustion | refusals, {error["message"] for error in ERRORS})
        self.assertFalse(seen & (exhaustion | refusals))

    def test_no_more_chunk_errors_than_chunks(self) -> None:
        for name, run in self.runs.items():
            chunks = (run.input or b"").count(b'"audio"')
            counts: dict[str, int] = {}
            for event in run.events:
                if event["type"] == "helper.error" and errors_of(event["message"])[0]["repeats"] == "each-chunk":
                    counts[event["message"]] = counts.get(event["message"], 0) + 1
            if not run.mode:
                self.assertLessEqual(sum(counts.values()), chunks, name)

    def test_texts_of_the_sources_have_a_code(self) -> None:
        """Every literal that the sources pass to an error event has an entry."""
        texts = set()
        for folder in ("core", "legacy", "analyzer", "modes"):
            for path in (ROOT / folder).rglob("*.cpp"):
                source = re.sub(r'"\s*\n\s*"', "", path.read_text(encoding="utf-8"))
                texts |= set(re.findall(r'\berror\(\s*(?:std::string\(\s*)?"([^"]*)"', source))
                texts |= set(re.findall(r'\b(?:channel|research)Error\(\s*\d+,\s*"([^"]*)"', source))
        texts = {text for text in texts if text != "a number is not finite"}  # a diagnostic on standard error
        self.assertGreater(len(texts), 20)
        wrapped = ("", "SpeechAnalyzer input failed: ", "Research transcription failed: ")
        for text in texts:
            entries = [
                entry
                for prefix in wrapped
                for entry in errors_of(prefix + text)
                if not entry.get("general") or entry["message"].startswith(text)
            ]
            self.assertTrue(entries, text)

    def test_texts_of_the_state_table_are_known(self) -> None:
        """docs/states.md shows what the helper writes in each state of the machine."""
        page = (ROOT / "docs/states.md").read_text(encoding="utf-8")
        texts = re.findall(r"^\| [A-Z]+ \| (.*) \|$", page.split("## Texts")[1], re.MULTILINE)
        self.assertGreater(len(texts), 10)
        schema = json.loads((ROOT / "protocol/schema.json").read_text(encoding="utf-8"))
        messages = set(re.findall(r"'const': (?:'([^']*)'|\"([^\"]*)\")", str(schema["$defs"]["HelperStatusEvent"])))
        statuses = {first or second for first, second in messages}
        for text in texts:
            self.assertTrue(text in statuses or len(errors_of(text)) == 1, text)

    def test_clients_tables_agree(self) -> None:
        sys.path.insert(0, str(ROOT / "clients/python/src"))
        from palaver_stt._protocol import ERROR_DEFINITIONS

        for error in ERRORS:
            for example in error["examples"]:
                found = next(entry for entry in ERROR_DEFINITIONS if entry.pattern.search(example))
                self.assertEqual((found.code, found.repeats), (error["code"], error["repeats"]))

    def test_fields_are_described(self) -> None:
        described = json.loads((ROOT / "protocol/errors.json").read_text(encoding="utf-8"))["fields"]
        for error in ERRORS:
            self.assertLessEqual(set(error), set(described))
            self.assertIn(error["repeats"], ("once", "each-chunk", "each-command"))
            self.assertRegex(error["code"], r"^[a-z]+(-[a-z0-9]+)*$")


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
