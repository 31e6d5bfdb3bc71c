"""brindlectl schema: what it says of schemas, and what it makes of data."""

import json

from runs import expect
from tools import Brindlectl


class Schema(Brindlectl):
    def test_check_names_the_place_or_the_sizes(self) -> None:
        for text, status, told in (
                ("R\nint32 a\nint64 b float64 c\n", 0, {"wire_bytes": 28, "log_bytes": 32, "fixed_size": True, "key": "a"}),
                ("R string64 a", 0, {"wire_bytes": 13, "log_bytes": 13, "fixed_size": False}),
                ("R\nint32 a\n  Int64 b\n", 78, {"problems": [{
                    "line": 3, "column": 3, "text": "'Int64' is no type; the types are string64, int32, int64, float64; "
                                                    "did you mean int64?"}]})):
            with self.subTest(text):
                tool = self.ended(status, "schema", "check", "--json", self.file("x.spec", text))
                seen = json.loads(tool.out())
                expect("told", {name: seen[name] for name in told}, told)
                self.assertIn("x.spec:3:3: 'Int64'" if status else "x.spec: a record takes", tool.errors())

    def test_check_refuses_names_that_json_cannot_have(self) -> None:
        tool = self.ended(78, "schema", "check", "--json", self.file("x.spec", b"R\nint32 a\xFF\n"))
        expect("told", json.loads(tool.out())["problems"][0]["text"], "'a\\xff' is no UTF-8, which these tools want of names")

    def test_guess_makes_nothing_of_what_is_no_text(self) -> None:
        for content in (b"\x7FELF\x02\x01\0\0a,b\nx,y\n", b"a,b\n" + b"\x9D\x80\n" * 3 + b"1,2\n"):
            tool = self.ended(65, "schema", "guess", self.file("program", content))
            expect("schema", tool.out(), "")
            self.assertIn("program: these are no rows of text", tool.errors())

    def test_guess_warns_of_what_send_would_not_take(self) -> None:
        for content, warning in ((b"a;b\n1;2\n", "there is one column, 'a;b'; perhaps --delimiter ';' is needed"),
                                 (b"a,b,a\n1,2,3\n", "two columns are called 'a', and send takes neither")):
            told = self.ended(0, "schema", "guess", self.file("data.csv", content)).errors()
            self.assertIn(warning, told)
            self.assertNotIn("--map", told)

    def test_guess_makes_what_send_takes(self) -> None:
        csv = "id,ts,device,count,wide,level,sparse\n" + "".join(
            f"{n},{1700000000 + n}.5,dev{n % 3},{n},{2**40 + n},{n}.25,{n if n % 2 else ''}\n" for n in range(9))
        lines = "".join(f'{{"at":"0{n}.02.2024 10:00","name":"x{n % 2}","a b":{n}}}\n' for n in range(1, 9))
        for name, content, options, spec, advice in (
                ("data.csv", csv, [], "data\nstring64 device\nint32    id\nint32    count\nint64    wide\n"
                 "float64  level\nint32    sparse\n", ["--time", "ts", "--time-format", "s", "--empty", "sparse=0"]),
                ("x.jsonl", lines, ["--key", "a b"], "x\nint32    a_b\nstring64 name\n",
                 ["--time", "at", "--time-format", "'%d.%m.%Y %H:%M'", "--map", "'a_b=a b'"])):
            with self.subTest(name):
                path = self.file(name, content)
                tool = self.ended(0, "schema", "guess", path, *options)
                expect("schema", tool.out(), spec)
                self.assertIn(" ".join(["--data HOST:PORT1,PORT2", *advice, str(path)]), tool.errors())
                self.ended(0, "send", "--dry-run", "--spec", self.file("guessed.spec", spec), path,
                           *(option.strip("'") for option in advice))
