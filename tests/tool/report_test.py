"""What `match` tells, and in which forms: text, JSON lines, SARIF."""

import json
import os
import pathlib
import re
import unittest
import urllib.parse

import jsonschema

from support import DONE, FAILED, MATCHED, NOT_INSPECTED, TESSERA, ToolTest, text, zipped

SCHEMA = json.loads(
    (pathlib.Path(os.environ["TESSERA_SHARE"]) / "tessera/match.schema.json").read_text()
)

# SARIF 2.1.0, reduced to the properties in use and to those that it requires.
MESSAGE = {"type": "object", "required": ["text"], "properties": {"text": {"type": "string"}}}
LOCATIONS = {
    "type": "array",
    "items": {
        "type": "object",
        "additionalProperties": False,
        "properties": {
            "physicalLocation": {
                "type": "object",
                "required": ["artifactLocation"],
                "properties": {
                    "artifactLocation": {
                        "type": "object",
                        "additionalProperties": False,
                        "properties": {
                            "uri": {"type": "string", "pattern": r"^file:///[A-Za-z0-9/._~%-]+$"},
                            "description": MESSAGE,
                        },
                    }
                },
            },
            "logicalLocations": {
                "type": "array",
                "uniqueItems": True,
                "items": {
                    "type": "object",
                    "additionalProperties": False,
                    "properties": {
                        "name": {"type": "string"},
                        "fullyQualifiedName": {"type": "string"},
                        "kind": {"type": "string"},
                    },
                },
            },
        },
    },
}
LEVEL = {"enum": ["none", "note", "warning", "error"]}
SARIF = {
    "type": "object",
    "required": ["version", "runs"],
    "additionalProperties": False,
    "properties": {
        "$schema": {"type": "string", "format": "uri"},
        "version": {"const": "2.1.0"},
        "runs": {
            "type": "array",
            "items": {
                "type": "object",
                "required": ["tool"],
                "additionalProperties": False,
                "properties": {
                    "tool": {
                        "type": "object",
                        "required": ["driver"],
                        "properties": {
                            "driver": {
                                "type": "object",
                                "required": ["name"],
                                "properties": {
                                    "rules": {
                                        "type": "array",
                                        "uniqueItems": True,
                                        "items": {
                                            "type": "object",
                                            "required": ["id"],
                                            "properties": {"shortDescription": MESSAGE},
                                        },
                                    }
                                },
                            }
                        },
                    },
                    "invocations": {
                        "type": "array",
                        "items": {
                            "type": "object",
                            "required": ["executionSuccessful"],
                            "properties": {
                                "executionSuccessful": {"type": "boolean"},
                                "exitCode": {"type": "integer"},
                                "toolExecutionNotifications": {
                                    "type": "array",
                                    "items": {
                                        "type": "object",
                                        "required": ["message"],
                                        "additionalProperties": False,
                                        "properties": {
                                            "message": MESSAGE,
                                            "level": LEVEL,
                                            "locations": LOCATIONS,
                                            "descriptor": {
                                                "type": "object",
                                                "properties": {"id": {"type": "string"}},
                                            },
                                        },
                                    },
                                },
                            },
                        },
                    },
                    "results": {
                        "type": "array",
                        "items": {
                            "type": "object",
                            "required": ["message"],
                            "additionalProperties": False,
                            "properties": {
                                "ruleId": {"type": "string"},
                                "ruleIndex": {"type": "integer", "minimum": -1},
                                "level": LEVEL,
                                "message": MESSAGE,
                                "locations": LOCATIONS,
                                "partialFingerprints": {
                                    "type": "object",
                                    "additionalProperties": {"type": "string"},
                                },
                                "properties": {"type": "object"},
                            },
                        },
                    },
                },
            },
        },
    },
}


class ReportTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.document = self.write("a.txt", text(1))
        self.index("--label", "board", self.docs)
        members = [
            ("in/copy.txt", text(1)[2000:12000]),
            ("other.txt", text(2)),
            ("large.txt", text(3, 100_000)),
            ("tiny", "tiny"),
        ]
        self.archive = self.write("../query.zip", zipped(members))
        self.odd = pathlib.Path(os.fsdecode(os.fsencode(self.dir) + b"/od\xe9\x1b[31m \xc3\xa9"))
        self.odd.write_text(text(1))
        self.all = ["--explain", "--size-limit", "200k", self.archive, self.odd]

    # JSON.

    def json_lines(self, *arguments, status=MATCHED, **options):
        out, _ = self.run_tool("match", "--json", *arguments, status=status, **options)
        records = [json.loads(line) for line in out.splitlines()]
        jsonschema.Draft7Validator.check_schema(SCHEMA)
        for record in records:
            jsonschema.Draft7Validator(SCHEMA).validate(record)
        return records

    def test_json_holds_a_record_for_each_document_and_a_summary(self):
        records = self.json_lines(*self.all, "no such file", status=FAILED)
        problem, *documents, summary = records
        self.assertIn("no such file", problem["message"])
        self.assertEqual(
            ["container", "match", "no_match", "not_inspected", "too_short", "match"],
            [record["verdict"] for record in documents],
        )
        self.assertEqual(
            {"schema": "tessera-match-1", "kind": "summary", "files": 2, "documents": 5,
             "matched": 2, "not_inspected": 1, "too_short": 1, "problems": 1, "status": 2},
            summary,
        )  # fmt: skip
        lost = documents[3]
        self.assertEqual("size-limit", lost["not_inspected"]["reason"])
        self.assertFalse(lost["not_inspected"]["in_part"])
        (match,) = documents[1]["matches"]
        self.assertEqual((1, str(self.document), "board", 2),
                         (match["file_id"], match["name"], match["label"], match["level"]))
        self.assertEqual(match["passages"]["count"] > 0, True)

    def test_json_names_tell_every_byte(self):
        (record, _) = self.json_lines(self.odd)
        name = record["name"]
        self.assertEqual(f"{self.dir}/od\\xe9\\x1b[31m \u00e9", name)
        unescaped = re.sub(
            rb"\\(\\|x[0-9a-f]{2})",
            lambda e: b"\\" if e[1] == b"\\" else bytes([int(e[1][1:], 16)]),
            name.encode(),
        )
        self.assertEqual(os.fsencode(self.odd), unescaped)

    def test_json_schema_refuses_what_is_no_record(self):
        (record, summary) = self.json_lines(self.document)
        validator = jsonschema.Draft7Validator(SCHEMA)
        for changed in (
            {**record, "verdict": "clean"},
            {**record, "verdict": "no_match"},
            {**record, "verdict": "not_inspected", "matches": []},
            {**record, "matches": []},
            {**record, "more": 1},
            {**record, "schema": "tessera-match-2"},
            {**summary, "status": 4},
            {key: value for key, value in summary.items() if key != "not_inspected"},
        ):
            self.assertFalse(validator.is_valid(changed), changed)

    def test_json_without_anything_to_inspect_is_a_summary(self):
        empty = self.dir / "empty"
        empty.mkdir()
        (summary,) = self.json_lines(empty, status=DONE)
        self.assertEqual((0, 0), (summary["files"], summary["status"]))

    # SARIF.

    def sarif(self, *arguments, status=MATCHED, **options):
        out, _ = self.run_tool("match", "--sarif", *arguments, status=status, **options)
        log = json.loads(out)
        jsonschema.Draft7Validator(SARIF).validate(log)
        (run,) = log["runs"]
        rules = [rule["id"] for rule in run["tool"]["driver"]["rules"]]
        for result in run["results"]:
            self.assertEqual(result["ruleId"], rules[result["ruleIndex"]])
        return run

    def test_sarif_tells_matches_as_results_and_the_rest_as_notifications(self):
        run = self.sarif(*self.all, "no such file", status=FAILED)
        member, odd = run["results"]
        self.assertEqual(("level-2", "error"), (member["ruleId"], member["level"]))
        self.assertIn(str(self.document), member["message"]["text"])
        (location,) = member["locations"]
        self.assertEqual(
            self.archive.as_uri(), location["physicalLocation"]["artifactLocation"]["uri"]
        )
        self.assertEqual("in/copy.txt", location["logicalLocations"][0]["name"])
        self.assertEqual("board", member["properties"]["label"])
        self.assertTrue(member["properties"]["passages"])
        uri = odd["locations"][0]["physicalLocation"]["artifactLocation"]["uri"]
        self.assertEqual(
            os.fsencode(self.odd), urllib.parse.unquote_to_bytes(uri.removeprefix("file://"))
        )
        (invocation,) = run["invocations"]
        self.assertEqual((False, 2), (invocation["executionSuccessful"], invocation["exitCode"]))
        problem, lost = invocation["toolExecutionNotifications"]
        self.assertEqual(("error", "warning"), (problem["level"], lost["level"]))
        self.assertIn("no such file", problem["message"]["text"])
        self.assertIn("large.txt: not inspected: size-limit", lost["message"]["text"])

    def test_sarif_of_what_matches_nothing_is_a_log_too(self):
        run = self.sarif(self.write("../other.txt", text(2)), status=DONE)
        self.assertEqual([], run["results"])
        self.assertTrue(run["invocations"][0]["executionSuccessful"])

    def test_sarif_of_standard_input_names_no_file(self):
        run = self.sarif("-", stdin=text(1).encode())
        artifact = run["results"][0]["locations"][0]["physicalLocation"]["artifactLocation"]
        self.assertEqual({"description": {"text": "standard input"}}, artifact)

    # Text.

    def test_text_shows_what_matched_and_what_was_not_inspected(self):
        out, _ = self.run_tool("match", *self.all, status=MATCHED)
        lines = out.splitlines()
        self.assertEqual(f"{self.archive}!in/copy.txt", lines[0])
        self.assertRegex(lines[1], rf"^  level 2  {self.document}  \(\d+ of \d+ signatures\)  \[board\]$")
        self.assertRegex(lines[2], r"^    \d+-\d+: .*\[.+\].*$")
        lost = lines.index(f"{self.archive}!large.txt")
        self.assertRegex(lines[lost + 1], r"^  not inspected: size-limit \(.*\)$")
        self.assertEqual(f"{self.dir}/od\\xe9\\x1b[31m \u00e9", lines[lost + 2])
        self.assertEqual(
            "2 files, 5 documents: 2 matched, 1 too short to match, 1 not inspected", lines[-1]
        )
        self.assertNotIn("other.txt", out)
        self.assertNotIn("\x1b", out)

    def test_text_is_coloured_on_a_real_terminal_only(self):
        command = (
            f"'{TESSERA}' match --size-limit 200k '{self.archive}'; echo status $?; sleep 60"
        )
        terminal = self.terminal(command, columns=160)
        screen = terminal.wait_for("status 1")
        self.assertIn(f"  level 2  {self.document}  (", screen)
        self.assertIn("1 not inspected", screen)
        coloured = terminal.screen(colours=True)
        self.assertRegex(coloured, r"\x1b\[1m[^\n]*query\.zip!in/copy\.txt")
        self.assertRegex(coloured, r"\x1b\[1m\x1b\[31mlevel 2|\x1b\[1;31mlevel 2|\x1b\[31mlevel 2")
        self.assertRegex(coloured, r"\x1b\[33mnot inspected: size-limit")
        terminal.close()
        for plain in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
            setting = " ".join(f"{name}={value}" for name, value in plain.items())
            terminal = self.terminal(f"export {setting}; {command}", columns=160)
            terminal.wait_for("status 1")
            self.assertNotIn("\x1b[3", terminal.screen(colours=True))
            terminal.close()

    def test_text_of_hostile_names_and_passages_does_nothing_to_a_terminal(self):
        hostile = "\x1b[31mred\x1b]0;title\x07 " + text(9, 200).replace(". ", ".\x1b[2J ")
        self.write("b.txt", hostile)
        self.index()
        query = self.write("../\x1b[2Jquery", hostile)
        for report in ([], ["--json"], ["--sarif"]):
            out, err = self.run_tool("match", "--explain", *report, query, status=MATCHED)
            for character in "\x1b\x07":
                self.assertNotIn(character, out + err)
        for arguments in (["no\x1b[2Jsuch"], ["--files-from", "no\x1b[2Jlist"]):
            _, err = self.run_tool("match", *arguments, status=FAILED)
            self.assertNotIn("\x1b", err)

    def test_report_of_nothing_but_what_was_not_inspected(self):
        query = self.write("../large.zip", zipped([("large.txt", text(3))]))
        out, _ = self.run_tool("match", "--size-limit", "1k", query, status=NOT_INSPECTED)
        self.assertIn("1 file, 1 document: 0 matched, 1 not inspected\n", out)


if __name__ == "__main__":
    unittest.main()
