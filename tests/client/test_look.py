"""The commands of brindlectl that show things, and what all commands have in common."""

from runs import expect, fill
from tools import COLUMNS, SCHEMA, Brindlectl
from wire import float_bits


class Others(Brindlectl):
    def test_dump_shows_what_a_replay_would_bring_back(self) -> None:
        records = [(b"k", 5, -1, 2, float_bits(0.5), b"a,b"), (b"k", 6, 1, 2, float_bits(0.5), b"")]
        data = SCHEMA.encode_log(records[:1]) + SCHEMA.encode_log(records[1:])[:20]
        log = fill(self.directory / "log", {"KeyFile": b"", "F2": data})
        csv = self.ended(0, "dump", "--spec", self.spec, "--format", "csv", log)
        expect("rows", csv.out(), COLUMNS + '5,k,-1,2,0.5,"a,b"\n')
        expect("told", csv.errors(), f"WARNING: Incomplete recovery file\nbrindlectl dump: 1 record in {log}\n")
        lines = self.ended(0, "dump", "--spec", self.spec, log)
        expect("told", lines.errors(), " k  -> 5  -1  2  0.500000  a,b \nWARNING: Incomplete recovery file\n")
        fill(log, {"notes.txt": b""})
        self.ended(65, "dump", "--spec", self.spec, log)

    def test_exit_status_tells_who_is_at_fault(self) -> None:
        odd = self.file("odd.spec", "Rec int32 a int64 b float64")
        empty = self.file("empty.spec", "Rec")
        none = self.directory / "none"
        for status, *arguments in (
                (2,), (2, "frobnicate"), (0, "--version"), (0, "send", "--help"),
                (2, "send", "--spec", self.spec, "x.csv"),
                (2, "send", "--spec", self.spec, "--data", "nowhere", "x.csv"),
                (74, "send", "--spec", self.spec, "--data", "1,2", none),
                (78, "send", "--spec", none, "--data", "1,2", "-"),
                (78, "send", "--spec", odd, "--data", "1,2", "-"),
                (78, "send", "--spec", empty, "--data", "1,2", "-"),
                (2, "query", "--spec", self.spec, "--query", "1,2", "--from", "noon", "k"),
                (69, "query", "--spec", self.spec, "--query", "no-such-host.invalid:1,2", "k"),
                (2, "sink", "--spec", self.spec, "--ship", "1,2", "--time", "key"),
                (74, "dump", "--spec", self.spec, none)):
            with self.subTest(arguments):
                tool = self.ended(status, *arguments)
                expect("silence", not tool.errors(), status == 0)
