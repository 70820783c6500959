"""What draws and checks pictures: wrong diagrams and results are found out, right ones are drawn."""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

ROOT = pathlib.Path(__file__).resolve().parent.parent
ROW = {"row": "a & b", "ratio": 1.2, "low": 1.0, "high": 1.5, "unit": "ratio", "goal": 1.1}


class Pictures(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_on(self, script, text, *options):
        file = self.folder / "given"
        file.write_text(text)
        done = subprocess.run([sys.executable, ROOT / script, file, *options], capture_output=True,
                              text=True, timeout=60)
        return done.returncode, done.stdout + done.stderr

    def test_diagrams_that_would_not_render_are_found(self):
        right = {"flowchart TD": "a --> b[some words]\na -->|says| c[(store)]\nd([x]) --> a",
                 "sequenceDiagram": "participant A as one\nalt no\nA->>A: x\nelse yes\n"
                                    "Note over A: y\nend",
                 "stateDiagram-v2": '[*] --> A: go\nstate "b c" as B\nA --> B'}
        wrong = (("flowchart TD", "a -> b"), ("flowchart TD", "a --> b[x (y)]"),
                 ("flowchart TD", "a --> end"), ("flowchart", "a --> b"), ("flowchart TD", ""),
                 ("sequenceDiagram", "A->>B: x"), ("sequenceDiagram", "participant A\nalt x\nA->>A: y"),
                 ("sequenceDiagram", "participant A\nA->>A: x; y"), ("sequenceDiagram", "end"),
                 ("stateDiagram-v2", "A -> B"), ("stateDiagram-v2", "A --> B: x: y"),
                 ("pie", "a: 1"))
        for cases, status in ((right.items(), 0), (wrong, 1)):
            for kind, lines in cases:
                text = f"# x\n```mermaid\n{kind}\n{lines}\n```\n"
                self.assertEqual(self.run_on("scripts/diagrams", text)[0], status, text)
        self.assertEqual(self.run_on("scripts/diagrams", "```mermaid\nflowchart TD\na --> b\n")[0], 1)

    def test_results_are_drawn_with_range_and_goal(self):
        svg = self.folder / "svg"
        rows = [ROW, {**ROW, "row": "alarm storm: CPU of a part and stream", "goal": None, "unit": "us"}]
        status, said = self.run_on("bench/plot.py", json.dumps(rows), "--to", svg)
        self.assertEqual((status, said.splitlines()[0]), (0, "2 rows, 1 beyond their goals"))
        tree = ElementTree.parse(svg)
        name = "{http://www.w3.org/2000/svg}"
        self.assertEqual(len([one for one in tree.iter(name + "line") if one.get("class") == "goal"]),
                         2, "one given, one looked up")
        bars = [one for one in tree.iter(name + "rect") if one.get("class") in ("bar", "over")]
        self.assertEqual([one.get("class") for one in bars], ["over", "bar"])
        self.assertIn("a & b", [one.text for one in tree.iter(name + "text")])

    def test_results_that_make_no_sense_are_refused(self):
        for change in ({"row": 5}, {"ratio": 2}, {"low": "1"}, {"high": None}, {"gaol": 1},
                       {"ratio": -1, "low": -1}, {"ratio": float("nan")}):
            status, said = self.run_on("bench/plot.py", json.dumps([{**ROW, **change}]), "--to",
                                       self.folder / "svg")
            self.assertEqual(status, 1, change)
            self.assertNotIn("Traceback", said)


if __name__ == "__main__":
    unittest.main()
