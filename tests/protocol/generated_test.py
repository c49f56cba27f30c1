"""The generated files are those that the generator makes, and the AsyncAPI document refers to what exists."""

import json
import re
import sys
import unittest

from recordings import ROOT

import generate

PROTOCOL = generate.Protocol()


class GeneratedFiles(unittest.TestCase):
    def test_files_are_up_to_date(self) -> None:
        for name, text in generate.outputs(PROTOCOL).items():
            with self.subTest(name):
                self.assertTrue((ROOT / name).exists(), f"{name} is missing; run protocol/generate.py")
                self.assertEqual((ROOT / name).read_text(encoding="utf-8"), text, f"run protocol/generate.py for {name}")

    def test_page_has_every_table_once(self) -> None:
        page = (ROOT / "docs/protocol.md").read_text(encoding="utf-8")
        self.assertEqual(sorted(re.findall(r"<!-- table: (\S+) -->", page)), sorted(generate.TABLES))

    def test_changed_table_is_noticed(self) -> None:
        page = (ROOT / "docs/protocol.md").read_text(encoding="utf-8")
        changed = page.replace("| `ping` |", "| `pling` |", 1)
        self.assertNotEqual(page, changed)
        self.assertEqual(generate.with_tables(PROTOCOL, changed), page)

    def test_unknown_table_is_an_error(self) -> None:
        with self.assertRaises(KeyError):
            generate.with_tables(PROTOCOL, "<!-- table: nothing -->\n<!-- end -->")

    def test_page_examples_are_those_of_the_schema(self) -> None:
        page = (ROOT / "docs/protocol.md").read_text(encoding="utf-8")
        shown = [json.loads(text) for text in re.findall(r"```json\n(\{.*\})\n```", page)]
        examples = [
            example
            for name in [*PROTOCOL.commands, *PROTOCOL.events]
            for example in PROTOCOL.definitions[name]["examples"]
        ]
        for example in shown:
            self.assertIn(example, examples)
        for example in examples:
            self.assertIn(example, shown)


class AsyncAPIDocument(unittest.TestCase):
    def setUp(self) -> None:
        self.document = json.loads((ROOT / "protocol/asyncapi.json").read_text(encoding="utf-8"))
        self.schema = json.loads((ROOT / "protocol/schema.json").read_text(encoding="utf-8"))

    def resolve(self, reference: str) -> object:
        file, pointer = reference.split("#")
        self.assertIn(file, ("", "./schema.json"))
        value: object = self.schema if file else self.document
        for part in pointer.strip("/").split("/"):
            self.assertIsInstance(value, dict)
            value = value[part]  # type: ignore[index]
        return value

    def references(self, value: object) -> list[str]:
        if isinstance(value, dict):
            own = [value["$ref"]] if "$ref" in value else []
            return own + [found for item in value.values() for found in self.references(item)]
        if isinstance(value, list):
            return [found for item in value for found in self.references(item)]
        return []

    def test_references_exist(self) -> None:
        references = self.references(self.document)
        self.assertGreater(len(references), 40)
        for reference in references:
            self.resolve(reference)
        for reference in self.references(self.schema):
            self.assertTrue(reference.startswith("#/$defs/"))
            self.assertIn(reference.removeprefix("#/$defs/"), self.schema["$defs"])

    def test_known_keywords_only(self) -> None:
        known = {
            "": {"asyncapi", "info", "defaultContentType", "channels", "operations", "components"},
            "info": {"title", "version", "description"},
            "channel": {"address", "description", "messages"},
            "operation": {"action", "channel", "summary", "messages"},
            "message": {"name", "title", "summary", "contentType", "payload", "examples"},
        }
        document = self.document
        self.assertEqual(set(document), known[""])
        self.assertEqual(set(document["info"]), known["info"])
        self.assertEqual(set(document["components"]), {"messages"})
        for kind, group in (("channel", "channels"), ("operation", "operations")):
            for value in document[group].values():
                self.assertEqual(set(value), known[kind])
        for value in document["components"]["messages"].values():
            self.assertEqual(set(value), known["message"])
            self.assertEqual(set(value["payload"]), {"schemaFormat", "schema"})

    def test_channels_carry_every_message(self) -> None:
        def names(channel: str) -> list[str]:
            return list(self.document["channels"][channel]["messages"])

        self.assertEqual(names("stdin"), PROTOCOL.commands)
        self.assertEqual(names("stdout"), PROTOCOL.events)
        self.assertEqual(sorted(self.document["components"]["messages"]), sorted(PROTOCOL.commands + PROTOCOL.events))

    def test_operations_take_messages_of_their_channel(self) -> None:
        used = set()
        for name, operation in self.document["operations"].items():
            channel = operation["channel"]["$ref"]
            self.assertEqual(operation["action"], "receive" if channel == "#/channels/stdin" else "send", name)
            for message in operation["messages"]:
                self.assertTrue(message["$ref"].startswith(f"{channel}/messages/"), name)
                used.add(message["$ref"].rsplit("/", 1)[1])
        self.assertEqual(used, set(PROTOCOL.commands + PROTOCOL.events))

    def test_message_names_are_the_wire_types(self) -> None:
        for name, message in self.document["components"]["messages"].items():
            payload = message["payload"]["schema"]["$ref"]
            self.assertEqual(payload, f"./schema.json#/$defs/{name}")
            self.assertEqual(message["name"], PROTOCOL.type_name(name))


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
