"""Every rule of rules.json is checked, and can be broken."""

import json
import sys
import unittest
from typing import Any

import recordings  # noqa: F401, finds the protocol's modules

from conversation import CHECKS, RULES, Conversation, decode_command, violations

UUID = "256C1FA3-AE2C-45F2-A4C7-65C6D0E97115"
OTHER = "356C1FA3-AE2C-45F2-A4C7-65C6D0E97115"
OFF = "macOS Dictation is disabled. Turn it on in System Settings > Keyboard > Dictation, then retry."


def line(type: str, **keys: Any) -> str:
    return json.dumps({"type": type, **keys}, sort_keys=True, ensure_ascii=False, separators=(",", ":"))


STATUS = line("helper.status", implementation="sf-speech-recognizer", status="ready", dictation="enabled")
DISABLED = line("helper.status", implementation="sf-speech-recognizer", status="setup-required", dictation="disabled")
CHECKING = line("helper.status", implementation="speech-analyzer", status="checking-model")
READY = line("session.ready", sessionId="a", locale="ja-JP", available=True)
STOPPED = line("session.stopped", sessionId="a", at=1)
MUTED = line("source.suppressed", sessionId="a", source="self", suppressed=True, at=1)
START = b'{"type":"session.start","sessionId":"a"}\n'


def partial(id: str = UUID, source: str = "self", **keys: Any) -> str:
    shown = {"sessionId": "a", "source": source, "utteranceId": id, "text": "x", "startedAt": 1, "transcribedAt": 5, **keys}
    return line("transcript.partial", **shown)


def final(id: str = UUID, provider: str = "apple-sfspeech", **keys: Any) -> str:
    shown: dict[str, Any] = {"sessionId": "a", "source": "self", "utteranceId": id, "text": "x", "startedAt": 1, "transcribedAt": 5}
    shown |= {"speechEndedAt": 2, "latencyMs": 3, "endpointing": {"provider": provider}, **keys}
    return line("transcript.final", **shown)


def error(message: str, **keys: Any) -> str:
    return line("helper.error", message=message, at=1, **keys)


# Per rule: conversations that break it.
BROKEN: dict[str, list[Conversation]] = {
    "line-form": [
        Conversation([STATUS, '{"b":1,"a":2}']),
        Conversation([STATUS, '{"a":1, "b":2}']),
        Conversation([STATUS, '{"a":null}']),
        Conversation([STATUS, '{"a":"\\/"}']),
        Conversation([STATUS, '{"a":"\\u00e9"}']),
        Conversation([STATUS, "[]"]),
        Conversation([STATUS, '{"a":']),
    ],
    "mode-output": [
        Conversation([STATUS, line("research.complete")]),
        Conversation([STATUS, STATUS], ["--health"], exit_status=0),
        Conversation([], ["--authorize"], exit_status=0),
        Conversation([line("helper.model", status="installed")], ["--install-assets"], exit_status=0),
        Conversation([line("research.complete"), partial()], ["--research-transcribe-file"], exit_status=0),
        Conversation([partial(), line("research.complete")], ["--research-transcribe-file"], exit_status=0),
    ],
    "status-first": [Conversation([READY, STATUS])],
    "one-backend": [Conversation([STATUS, CHECKING])],
    "model-check": [Conversation([CHECKING, CHECKING]), Conversation([CHECKING, *[line("helper.status", status="ready")] * 2])],
    "error-code": [
        Conversation([STATUS, error("Something else")]),
        Conversation([STATUS, error("SpeechAnalyzer does not support Japanese on this Mac")]),
    ],
    "error-names": [
        Conversation([STATUS, error("session.stop requires sessionId", sessionId="a")]),
        Conversation([STATUS, error("pcmBase64 is not valid Base64", sessionId="a")]),
    ],
    "status-follows": [
        Conversation([STATUS, line("session.ready", sessionId="a", available=False), READY]),
        Conversation([DISABLED, error(OFF, sessionId="a", source="self")], complete=True),
    ],
    "dictation-once": [Conversation([STATUS, *[error(OFF, sessionId="a", source="self"), DISABLED] * 2])],
    "ready-first": [
        Conversation([STATUS, partial()]),
        Conversation([CHECKING, line("session.ready", sessionId="a", source="remote"), partial()]),
    ],
    "stopped-silent": [
        Conversation([STATUS, READY, STOPPED, partial()]),
        Conversation([STATUS, READY, STOPPED, STOPPED]),
        Conversation([STATUS, READY, STOPPED, error("Speech recognition failed: x", sessionId="a", source="self")]),
    ],
    "muted-silent": [Conversation([STATUS, READY, MUTED, partial()])],
    "one-final": [Conversation([STATUS, READY, final(), final()])],
    "final-last": [Conversation([STATUS, READY, final(), partial()])],
    "one-utterance-one-source": [Conversation([STATUS, READY, partial(), partial(source="remote")])],
    "shared-id": [
        Conversation([STATUS, READY, partial(), final(OTHER)]),
        Conversation([STATUS, READY, partial(), partial(OTHER)]),
    ],
    "utterance-id": [
        Conversation([STATUS, READY, partial(UUID.lower())]),
        Conversation([CHECKING, READY, partial("a-remote-50E4953A-100")]),
    ],
    "text-trimmed": [Conversation([STATUS, READY, partial(text=" x")]), Conversation([STATUS, READY, partial(text="x\n")])],
    "times": [
        Conversation([STATUS, READY, final(startedAt=3)]),
        Conversation([STATUS, READY, final(latencyMs=4)]),
        Conversation([STATUS, READY, final(speechEndedAt=6, latencyMs=-1)]),
    ],
    "provider": [Conversation([STATUS, READY, final(provider="apple-speech-analyzer")])],
    "clock-order": [Conversation([STATUS, line("pong", helperAt=2, sentAt=0), line("pong", helperAt=1, sentAt=0)])],
    "answers": [
        Conversation([STATUS], input=b'{"type":"ping"}\n', complete=True),
        Conversation([STATUS, line("pong", sentAt=0, helperAt=1)], input=b""),
        Conversation([STATUS, line("pong", sentAt=0, helperAt=1)], input=b'{"type":"ping","sentAt":1}\n'),
        Conversation([STATUS, READY, READY], input=START * 2),
        Conversation([STATUS, READY], input=START.replace(b"}", b',"locale":"en-US"}')),
        Conversation([STATUS, MUTED], input=b'{"type":"source.suppress","sessionId":"a","source":"self","suppressed":false}\n'),
        Conversation([STATUS, error("audio requires sessionId, source, sequence, capturedAt, and pcmBase64")], input=START),
        Conversation([STATUS, error("Unsupported command type: b")], input=b'{"type":"c"}\n'),
    ],
    "undecodable-lines": [
        Conversation([STATUS, error("Invalid JSON command: x")], input=START),
        Conversation([STATUS], input=b"{}\n", complete=True),
    ],
    "exit-status": [
        Conversation([STATUS], exit_status=1),
        Conversation([error("SpeechAnalyzer does not support locale x")], ["--install-assets"], exit_status=0),
        Conversation([line("helper.status", status="unavailable")], ["--health"], exit_status=0),
    ],
}


class Rules(unittest.TestCase):
    def test_rules_and_checks_are_the_same(self) -> None:
        names = [rule["id"] for rule in RULES]
        self.assertEqual(len(names), len(set(names)))
        self.assertEqual(sorted(names), sorted(CHECKS))
        self.assertEqual(sorted(names), sorted(BROKEN))

    def test_every_rule_can_be_broken(self) -> None:
        for rule, conversations in BROKEN.items():
            for number, run in enumerate(conversations):
                with self.subTest(rule=rule, number=number):
                    self.assertIn(rule, [name for name, _ in violations(run)])

    def test_malformed_events_are_no_crash(self) -> None:
        lines = [STATUS, '{"type":"pong"}', '{"type":"transcript.final"}', '{"at":"x","type":"session.stopped"}', "1", '{"endpointing":1}']
        found = {name for name, _ in violations(Conversation(lines, input=START, complete=True, exit_status=0))}
        self.assertLessEqual({"line-form", "times", "answers", "clock-order"}, found)

    def test_correct_conversation_breaks_none(self) -> None:
        run = Conversation(
            [STATUS, READY, partial(), partial(), final(), partial(OTHER), MUTED.replace('"at":1', '"at":6'), STOPPED.replace("1", "7")],
            input=START
            + b'{"type":"source.suppress","sessionId":"a","source":"self","suppressed":true}\n'
            + b'{"type":"session.stop","sessionId":"a"}\n',
            complete=True,
            exit_status=0,
        )
        self.assertEqual(violations(run), [])


class Commands(unittest.TestCase):
    def test_decodes_as_the_helper_does(self) -> None:
        for text, command in (
            (b'{"type":"ping","sentAt":1.5}', {"type": "ping", "sentAt": 1.5}),
            (b'{"type":"ping","type":3}', {"type": "ping"}),
            (b'{"type":"ping","sentAt":null,"new":[]}', {"type": "ping"}),
            (b'{"type":"ping","sentAt":"1"}', None),
            (b'{"type":"ping","sentAt":1e999}', None),
            (b'{"type":"ping","sentAt":NaN}', None),
            (b'{"type":"\\ud800"}', None),
            (b'{"type":"a\xff"}', None),
            (b'{"sentAt":1}', None),
            (b"[]", None),
        ):
            with self.subTest(text):
                self.assertEqual(decode_command(text), command)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
