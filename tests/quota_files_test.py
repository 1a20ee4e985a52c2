#!/usr/bin/env python3
"""rqctl's word on quota files, against a table, the reference page and the JSON Schema.

quota_files_test.py RQCTL SOURCE_DIRECTORY
"""
import copy
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from jsonschema import Draft202012Validator

RQCTL = sys.argv.pop(1)
SOURCE = pathlib.Path(sys.argv.pop(1)).resolve()
VALIDATOR = Draft202012Validator(json.loads((SOURCE / "etc/schema/process_resource_limit.schema.json").read_text()))
# What a schema cannot say: the kind of a number, the names of other entries, depth.
BEYOND_A_SCHEMA = re.compile(r"error: (1\.0|there is no entry|\S+ inherits from this|nested deeper)")


class QuotaFiles(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def rqctl(self, *arguments):
        run = subprocess.run([RQCTL, *arguments], cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             timeout=60, check=False)
        return run.returncode, run.stdout.decode().splitlines()

    def check(self, *texts):
        """The findings; the service refuses exactly the texts in which an error is found."""
        names = [f"{number}.json" for number in range(1, len(texts) + 1)]
        for name, text in zip(names, texts):
            (self.folder / name).write_text(text)
        status, lines = self.rqctl("check", "--strict", *names)
        findings, verdict = lines[:-1], lines[-1]
        refused = any(": error: " in line for line in findings)
        self.assertEqual((2 if refused else 1 if findings else 0), status, lines)
        self.assertTrue(verdict.startswith("refused" if refused else "accepted"), verdict)
        return findings

    def check_schema(self, text, findings):
        """What the schema accepts the service accepts; what is without fault the schema accepts."""
        try:
            document = json.loads(text)
        except ValueError:
            return
        faults = [error.message for error in VALIDATOR.iter_errors(document)]
        if not findings:
            self.assertEqual([], faults, text)
        if not faults:
            errors = [line for line in findings if ": error: " in line and not BEYOND_A_SCHEMA.search(line)]
            self.assertEqual([], errors, text)

    def test_table(self):
        cases = []
        for line in (SOURCE / "tests/data/quota_faults.txt").read_text().split("\n"):
            if line.startswith("  "):
                cases[-1][1].append(line.strip())
            elif line.startswith("+ "):
                cases[-1][0].append(line[2:])
            elif line and not line.startswith("#"):
                cases.append(([line], []))
        for texts, expected in cases:
            with self.subTest(texts=texts):
                findings = self.check(*texts)
                self.assertEqual(expected, findings)
                if len(texts) == 1:
                    self.check_schema(texts[0], findings)

    def test_a_file_that_is_empty_or_too_deep_or_cannot_be_read(self):
        self.assertIn("1.json:1:1: (document): error: unexpected end of input", self.check("")[0])
        for arrays, expected in (511, []), (512, ["1.json:1:534: (document): error: nested deeper than 512, "
                                                  "allowed: at most 512 levels"]):
            self.assertEqual(expected, self.check('{"quotas":[], "$deep":' + "[" * arrays + "]" * arrays + "}"))
        status, lines = self.rqctl("check", "missing.json", ".")
        self.assertEqual((2, ["missing.json:1:1: (document): error: cannot be read: No such file or directory, allowed: "
                              "a quota file",
                              "./etc/efficiency_manager/process_resource_limit.json:1:1: (document): error: cannot be "
                              "read: No such file or directory, allowed: a quota file",
                              "refused by the service: 2 errors, 0 warnings"]), (status, lines))

    def test_every_value_in_place_of_every_other(self):
        rule = {"condition": ["screen_off"], "id": 1, "resource_quota": 1, "duration": 1, "action": "kill"}
        valid = {"quotas": [{"process_name": "a", "inherit": "", "process_quotas": {"running_time": 1, "mem": [rule]}}]}

        def places(node, path=()):
            yield path
            for key, value in node.items() if isinstance(node, dict) else enumerate(node) if isinstance(node, list) else ():
                yield from places(value, path + (key,))

        for path in places(valid):
            for other in (None, True, 1.0, -1, 2**32, 2**64, "a", "", [], ["audio"], {}, "gone"):
                document = {"": copy.deepcopy(valid)}
                node = document
                for key in ("",) + path[:-1]:
                    node = node[key]
                key = path[-1] if path else ""
                node = node if path else document
                if other == "gone":
                    del node[key]
                else:
                    node[key] = other
                text = json.dumps(document.get(""))
                with self.subTest(text=text):
                    self.check_schema(text, self.check(text))

    def test_samples_are_without_fault(self):
        layers = [SOURCE / "etc/quotas" / name for name in ("vendor", "product", "device")]
        self.assertEqual((0, ["accepted by the service: 0 errors, 0 warnings"]), self.rqctl("check", "--strict", *layers))
        for layer in layers:
            (file,) = layer.rglob("*.json")
            self.check_schema(file.read_text(), [])

    def test_explains_a_process_by_the_installed_layers(self):
        layer = self.folder / "layer/etc/efficiency_manager"
        layer.mkdir(parents=True)
        (layer / "process_resource_limit.json").write_text(
            '{"quotas": [{"process_name": "a_name_of_19_bytes_", "inherit": "", "process_quotas": {}}]}')
        (self.folder / "config_directories.json").write_text(json.dumps({"directories": [str(self.folder / "layer")]}))
        for argument, seen in ("", "a_name_of_19_by"), ("/to/the_file", "the_file"):
            target = subprocess.Popen(["/bin/a_name_of_19_bytes_", "-c", "print(flush=True); input()", argument],
                                      executable=sys.executable, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            with target:
                # Until its program runs, a process may have no name.
                target.stdout.readline()
                status, lines = self.rqctl("--etc", ".", "explain", str(target.pid), "--json")
                target.stdin.write(b"\n")
            told = json.loads("\n".join(lines))
            self.assertEqual((0, "a_name_of_19_bytes_", seen, not argument),
                             (status, told["watched_as"], told["seen_as"], told["accepted"]))
            self.assertEqual(str(layer / "process_resource_limit.json"), told["entries"][0]["file"])
        self.assertEqual((6, [f"rqctl: there is no process {target.pid}"]), self.rqctl("explain", str(target.pid)))
        self.assertEqual((2, ["rqctl: there is no quota file in the installed directories"]),
                         self.rqctl("--etc", "nowhere", "explain", "1"))

    def test_examples_of_the_reference_page(self):
        page = (SOURCE / "docs/quota-files.md").read_text()
        commands = 0
        for kind, text in re.findall(r"^```(\S+ ?\S*)\n(.*?)^```$", page, re.M | re.S):
            if kind.startswith("json "):
                (self.folder / kind.split()[1]).write_text(text)
            elif kind == "console":
                for command, expected in re.findall(r"^\$ rqctl (.*)\n((?:(?!\$ ).*\n)*)", text, re.M):
                    commands += 1
                    with self.subTest(command=command):
                        self.assertEqual(expected.splitlines(), self.rqctl(*command.split())[1])
        self.assertEqual(page.count("$ rqctl"), commands)


if __name__ == "__main__":
    unittest.main()
