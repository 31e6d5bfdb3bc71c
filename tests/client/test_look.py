"""The commands of brindlectl that show things, and what all commands have in common."""

import csv
import io
import json
import os
import shlex
import shutil
import signal
import socket
import subprocess

import wire
from running import free_ports, wait_until
from runs import BINARIES, Run, expect, expect_same_records, fill, read_all, records_of
from tools import COLUMNS, SCHEMA, START_US, TYPES, Brindlectl, addresses, fork_at_terminal
from wire import float_bits

ONE = (b"k", START_US, -1, 2, float_bits(0.5), b"a,b")
TWO = (b"k", START_US + 1, 1, 2, float_bits(float("nan")), b"")


class Directories(Brindlectl):
    def directory_of(self, name: str, files: dict[str, bytes]):
        return fill(self.directory / name, files)

    def test_dump_shows_what_a_replay_would_bring_back(self) -> None:
        data = SCHEMA.encode_log([ONE]) + SCHEMA.encode_log([TWO])[:20]
        log = self.directory_of("log", {"KeyFile": SCHEMA.encode_key_file([b"k", b"x"]), "F2": data})

        def dump(status: int, *options: object):
            return self.ended(status, "dump", "--spec", self.spec, *options, log)

        rows = dump(1, "--format", "csv")
        expect("rows", rows.out(), COLUMNS + f'{START_US},k,-1,2,0.5,"a,b"\n')
        expect("told", rows.errors(), f"brindlectl dump: 1 record in {log}\nbrindlectl dump: {log}/F2: the log is cut at "
               "offset 38: the log ends inside a field; check tells more\n")
        lines = dump(1)
        expect("told", lines.errors(), f" k  -> {START_US}  -1  2  0.500000  a,b \nWARNING: Incomplete recovery file\n" +
               rows.errors().partition("\n")[2])
        expect("keys", dump(1, "--keys", "--format", "csv").out(), "key,records,in_key_file\nk,1,1\nx,0,1\n")
        for count, options in ((1, ["--limit", 1]), (1, ["--key", "x", "--key", "k"]), (0, ["--key", "x"]),
                               (0, ["--from", START_US + 1]), (1, ["--to", START_US])):
            with self.subTest(options):
                tool = dump(0 if options[0] == "--limit" else 1, "--format", "jsonl", *options)
                expect("records", tool.out().count("\n"), count)
        dump(2, "--key", "k")
        fill(log, {"notes.txt": b""})
        dump(65)

    def test_check_says_what_is_wrong_and_whether_a_replay_works(self) -> None:
        good = SCHEMA.encode_log([ONE, TWO])
        negative = SCHEMA.encode_log([(b"k", -5, 0, 0, 0, b"")])
        far, early = (SCHEMA.encode_log([(b"k", time, 0, 0, 0, b"")]) for time in (2**62, 978307200))
        keys = SCHEMA.encode_key_file([b"k"])
        for status, files, words in (
                (0, {"F1": good, "F3": good}, "note       1 number missing between the files"),
                (0, {}, "records    0"),
                (1, {"F1": good[:-3], "F2": b""}, "torn: F1 at offset 38: the log ends inside a field; 32 bytes"),
                (1, {"F1": good + bytes(1000)}, "1 run of zeros that look like blocks never written; F1 at offset"),
                (1, {"F1": negative}, "1 record with a negative time: a replay refuses them"),
                (1, {"F1": far}, "in the far future"), (1, {"F1": early}, "before 1971: are they microseconds?"),
                (1, {"F1": good[:8] + b"\x30" + good[9:]}, "1 record whose length is not that of the fields"),
                (1, {"F01": good}, "'F01' has leading zeros in its number: the replay ends before it"),
                (65, {"F1": good, "F3~": b""}, "'F3~' does not belong into a recovery directory"),
                (65, {"F1": good, "KeyFile": keys[:-1]}, "KeyFile is corrupt at offset 0, behind 0 whole keys")):
            with self.subTest(words):
                log = self.directory_of("log", {"KeyFile": keys, **files})
                tool = self.ended(status, "check", "--spec", self.spec, log)
                self.assertIn(words, tool.out())
                report = json.loads(self.ended(status, "check", "--json", "--keys", "--spec", self.spec, log).out())
                expect("verdict", report["verdict"], {0: "clean", 1: "suspicious", 65: "error"}[status])
                counted = sum(key["records"] for key in report["keys"]["counts"])
                expect("records by key", counted, report["records"])
                shutil.rmtree(log)
        missing = self.directory_of("missing", {"F1": good})
        self.assertIn("KeyFile is missing", self.ended(65, "check", "--spec", self.spec, missing).out())
        cut = self.directory_of("cut", {"F1": SCHEMA.encode_log([(b"%d" % i, START_US, 0, 0, 0, b"") for i in range(9)]),
                                        "KeyFile": b""})
        report = json.loads(self.ended(0, "check", "--json", "--max-keys", 4, "--spec", self.spec, cut).out())
        expect("keys that are not counted", (report["keys"]["cut"], report["keys"]["records_of_others"]), (True, 5))

    def test_repair_makes_a_directory_that_a_server_replays(self) -> None:
        late = (b"late", START_US + 2, 3, 4, float_bits(1), b"z")
        first = self.directory_of("first", {"KeyFile": b"torn", "F4": SCHEMA.encode_log([ONE, TWO])[:-1],
                                            "F9": SCHEMA.encode_log([TWO]), "notes": b"x"})
        second = self.directory_of("second", {"KeyFile": SCHEMA.encode_key_file([b"k", b"old"]),
                                              "F1": SCHEMA.encode_log([(b"k", -1, 0, 0, 0, b""), late])})
        before = read_all(first), read_all(second)
        clean = self.directory / "clean"
        tool = self.ended(1, "repair", "--json", "--spec", self.spec, "--into", clean, first, second)
        expect("originals", (read_all(first), read_all(second)), before)
        report = json.loads(tool.out())
        expect("counts", [report[name] for name in ("records", "left_out", "files", "keys")], [3, 1, 3, 3])
        expect("clean", read_all(clean), {"F1": SCHEMA.encode_log([ONE]), "F2": SCHEMA.encode_log([TWO]),
                                          "F3": SCHEMA.encode_log([late]),
                                          "KeyFile": SCHEMA.encode_key_file([b"k", b"old", b"late"])})
        aside = read_all(self.directory / "clean.aside")
        contents = aside.pop("contents.txt").decode()
        expect("set aside", sum(map(len, aside.values())), report["set_aside_bytes"])
        self.assertIn(f"from {second}/F1, offset 0, ", contents)
        self.ended(0, "check", "--spec", self.spec, clean)
        with Run(TYPES, recover_from=clean) as run:
            run.start()
            run.end()
            expect_same_records(records_of(run.shipped()), [ONE, TWO, late])
        for status, into in ((74, clean), (2, first), (2, first / "x")):
            self.ended(status, "repair", "--spec", self.spec, "--into", into, first)
        self.ended(0, "repair", "--spec", self.spec, "--into", self.directory / "again", clean)
        expect("again", read_all(self.directory / "again"), read_all(clean))
        expect("what is left over", [path.name for path in self.directory.glob(".brindle*")], [])


class Queries(Brindlectl):
    def ask(self, status: int, run: Run, *options: object):
        return self.ended(status, "query", "--spec", self.spec, "--query", addresses(run.query_ports), *options)

    def staged(self, records: list[wire.Record]) -> Run:
        run = self.server()
        run.send(records)
        run.client().find_all(records[-1][0], sum(record[0] == records[-1][0] for record in records))
        run._ends.pop()()  # others are served only when it has left
        return run

    def test_query_sorts_chooses_computes_and_draws(self) -> None:
        now = START_US
        values = [5, 3, 9, 9]
        records = [(b"k", now + 200_000 * (3 - i), value, i, float_bits(value / 2), b"n%d" % i)
                   for i, value in enumerate(values)]
        run = self.staged(records)
        rows = list(csv.DictReader(io.StringIO(self.ask(0, run, "k", "--format", "csv").out())))
        expect("by time", [int(row["time"]) for row in rows], sorted(record[1] for record in records))
        out = self.ask(0, run, "k", "--format", "jsonl", "--limit", 1, "--fields", "note,small").out()
        expect("the newest", out, f'{{"time":{records[0][1]},"note":"n0","small":5}}\n')
        stats = json.loads(self.ask(0, run, "k", "--stats", "--json", "--fields", "small,note").out())
        expect("figures", stats, {"key": "k", "records": 4, "fields": {"small": {
            "count": 4, "min": 3, "mean": 6.5, "max": 9, "first": 9, "last": 5, "nan": 0}}})
        plot = self.ask(0, run, "k", "--plot", "real", "--ascii").out().splitlines()
        expect("chart", (len(plot), plot[0], plot[1][:4], plot[16][:4], max(map(len, plot))),
               (18, "real", "4.5 ", "1.5 ", 79))
        for status, *options in ((2, "k", "--plot", "note"), (2, "k", "--fields", "nothing"), (2, "--follow"),
                                 (2, "k", "--from", "-5x"), (0, "k", "--from", "-5m", "--to", "now")):
            self.ask(status, run, *options)
        tool = self.tool("query", "--spec", self.spec, "--query", addresses(run.query_ports), "--fields", "note",
                         "--format", "csv", "--quiet")
        tool.feed(b"x\nk\n")
        expect("status, and keys from lines", (tool.wait_end(), tool.out().count("\n")), (0, 5))

    def test_query_follows_without_missing_or_doubling(self) -> None:
        first = (b"k", START_US + 900_000, 1, 1, 0, b"first")
        run = self.staged([first])
        tool = self.tool("query", "--spec", self.spec, "--query", addresses(run.query_ports), "k", "--follow",
                         "--format", "csv", "--fields", "note")

        def told() -> list[str]:
            return [line.split(",")[1] for line in tool.out().splitlines()[1:]]

        wait_until("the first row", lambda: told() == ["first"])
        run.send([first, (b"k", START_US + 1, 1, 1, 0, b"late"), (b"other", START_US, 1, 1, 0, b"")])
        wait_until("what is new", lambda: sorted(told()) == ["first", "first", "late"])
        # The first rows leave the window with this one.
        run.send([(b"k", START_US + 3_000_000, 1, 1, 0, b"newest")])
        wait_until("the newest", lambda: sorted(told()) == ["first", "first", "late", "newest"])
        tool.process.send_signal(signal.SIGINT)
        expect("status", tool.wait_end(), 0)

    def test_query_follows_over_a_start_of_the_server(self) -> None:
        """A replay that is placed bit by bit shows nothing twice; the newest record may come before others."""
        records = [(b"k", START_US + i, i, i, 0, b"%d" % i) for i in range(4)]
        listeners = [socket.create_server(("127.0.0.1", port)) for port in free_ports(2)]
        tool = self.tool("query", "--spec", self.spec, "--query", addresses([one.getsockname()[1] for one in listeners]),
                         "k", "--follow", "--format", "csv", "--fields", "note")
        for shown in ([0, 1, 2], [], [2], [1, 2, 3], [0, 1, 2, 3]):
            pair = [listener.accept()[0] for listener in listeners]
            pair[0].recv(4096)
            pair[1].sendall(wire.frame(SCHEMA.encode_records([records[i] for i in shown])))
            expect("its ends", [one.recv(1) for one in reversed(pair)], [b"", b""])
            for one in pair:
                one.close()
        tool.process.send_signal(signal.SIGTERM)
        expect("status", tool.wait_end(), 0)
        expect("rows", [line.split(",")[1] for line in tool.out().splitlines()[1:]], ["0", "1", "2", "3"])
        for listener in listeners:
            listener.close()

    def test_send_reads_back_what_query_prints(self) -> None:
        texts = [b"", b'a,"b"\r\n\t\\', b"\n", b"\xFF\x41", b"\x1b[31m", b" blank ", b"nan", "\u00e9\U0001F600".encode()]
        reals = [0, 1 << 63, 1, 0x7FF8 << 48, 0xFFF0000000000001, 0x7FF << 52, float_bits(0.1), float_bits(2.0**53)]
        records = [(b"k\xFF", START_US + i, -i, 2**63 - 1 - i, real, text) for i, (text, real) in enumerate(zip(texts, reals))]
        run = self.staged(records)
        for form in ("csv", "jsonl"):
            key = self.tool("query", "--spec", self.spec, "--query", addresses(run.query_ports), "--format", form)
            key.feed(b"k\xFF\n")
            expect("status", key.wait_end(), 0)
            other = self.server()
            source = self.file("shown." + form, key.paths[0].read_bytes())
            self.ended(0, *self.send(other, source))
            self.finish(other, records)

    def test_query_waits_for_its_turn(self) -> None:
        run = self.staged([ONE])
        other = run.client()
        other.find(b"k")
        self.assertIn("another query client is connected", self.ask(75, run, "k", "--wait", 0).errors())
        waiting = self.tool("query", "--spec", self.spec, "--query", addresses(run.query_ports), "k")
        run._ends.pop()()
        expect("status", waiting.wait_end(), 0)

    def test_query_converses_at_a_terminal(self) -> None:
        run = self.staged([ONE])
        state = self.directory / "state"
        for typed, seen, status in ((b"help\nk 2001-01-01\n", b"a,b", 0), (b"\x10\x10\n", b"a,b", 0), (b"", b"query> ", 2)):
            child, terminal = fork_at_terminal({"XDG_STATE_HOME": str(state)}, "query", "--spec", self.spec, "--query",
                                               addresses(run.query_ports))
            shown = b""
            for awaited, then in ((b"query> ", typed), (seen, b"\x03" if status else b"quit\n")):
                while awaited not in shown:
                    shown += os.read(terminal, 4096)
                os.write(terminal, then)
            while True:
                try:
                    os.read(terminal, 4096)
                except OSError:  # its other side is closed
                    break
            os.close(terminal)
            expect("status", os.waitpid(child, 0)[1], status)


class Others(Brindlectl):
    def test_a_full_disk_and_a_reader_that_leaves_end_every_command(self) -> None:
        log = fill(self.directory / "log", {"KeyFile": b"", "F1": SCHEMA.encode_log([ONE] * 4000)})
        for arguments in (["dump", "--format", "csv", "--spec", self.spec, log], ["check", "--spec", self.spec, log],
                          ["top", "--once", "--interval", "100ms", "--log", self.spec, "--name", "nobody"]):
            for out in ("/dev/full", "| true"):
                with self.subTest(arguments[0] + out):
                    line = shlex.join(map(str, [BINARIES / "brindlectl", *arguments])) + " 2>/dev/full"
                    line += f" >{out}" if out[0] == "/" else f" {out}; exit ${{PIPESTATUS[0]}}"
                    ended = subprocess.run(["bash", "-c", line], check=False, timeout=60).returncode
                    self.assertIn(ended, (74,) if out[0] == "/" else (0, 74))  # a reader may leave behind a short text

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
