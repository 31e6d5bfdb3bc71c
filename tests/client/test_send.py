"""brindlectl send: from files to the real server."""

import gzip
import json
import signal
import socket
import time
import unittest
from contextlib import suppress

from running import free_ports, wait_until
from runs import expect
from tools import COLUMNS, HEADER, START_US, Brindlectl, addresses
from wire import float_bits

PLAIN = b"key,time,small,big,real,note\n"


def zstd(data: bytes) -> bytes:
    """A frame of one block that is not compressed, which is zstd as well."""
    return b"\x28\xB5\x2F\xFD\x00\x58" + (len(data) << 3 | 1).to_bytes(3, "little") + data


def row(key: str, offset_us: int, end: bytes = b"\n") -> bytes:
    return b"%s,%d,1,2,0.5,n" % (key.encode(), START_US + offset_us) + end


def record(key: str, offset_us: int) -> tuple[object, ...]:
    return (key.encode(), START_US + offset_us, 1, 2, float_bits(0.5), b"n")


class Send(Brindlectl):
    def test_every_value_of_a_csv_file(self) -> None:
        run = self.server()
        path = self.file("in.csv", b"\xEF\xBB\xBF" + HEADER +
                         b'"a,""b""\n2",2001-01-01T00:00:00.000001Z,,k1,-0,-9223372036854775808,-2147483648\r\n'
                         b",978307200000002,x,,1e-3,9223372036854775807,2147483647\n"
                         b"\xFF,978307200000003,x,k1,nan:7ff0000000000001,0,0")
        tool = self.ended(0, *self.send(run, path))
        expect("told", tool.errors(), "brindlectl send: 3 records sent in 1 frame\n")
        self.finish(run, [(b"k1", START_US + 1, -2**31, -2**63, float_bits(-0.0), b'a,"b"\n2'),
                          (b"", START_US + 2, 2**31 - 1, 2**63 - 1, float_bits(0.001), b""),
                          (b"k1", START_US + 3, 0, 0, 0x7FF0000000000001, b"\xFF")])

    def test_cuts_a_long_file_into_frames(self) -> None:
        run = self.server()
        sent = [(b"key%d" % (i % 7), START_US + i, i, 0, 0, b"n" * 500) for i in range(3000)]
        rows = (b"%s,%d,,%s,0,0,%d\n" % (record[5], record[1], record[0], record[2]) for record in sent)
        self.ended(0, *self.send(run, self.file("in.csv", HEADER + b"".join(rows))))
        self.finish(run, sent)

    def test_refuses_what_is_wrong_before_it_connects(self) -> None:
        good = HEADER + b"n,1,,k,1,1,1\n"
        rows = (
            (b"", ": is empty; the first row must name the columns\n"),
            (b"note,time,key,real,big\n",
             ":1: there is no column 'small'; the columns are: note, time, key, real, big\n"),
            (b"note,time,key,real,big,small,key\n", ":1: there are two columns 'key'\n"),
            (b"note,key,real,big,small\n",
             ":1: there is no column 'time'; the columns are: note, key, real, big, small\n"),
            (good + b'"a\nb",1,,k,1,1,1\nn,1,,k,1,1,x\n', ":5: small: 'x' is not an int32\n"),
            (good + b"n,1,,k,one,1,1\n", ":3: real: 'one' is not a float64\n"),
            (good + b"n,-1,,k,1,1,1\n", ":3: time: '-1' is before 1970, which the server refuses\n"),
            (good + b"n,today,,k,1,1,1\n",
             ":3: time: 'today' is neither an ISO 8601 time nor microseconds since 1970\n"),
            (good + b"n,1,,k\n", ":3: the row has 4 values, but the header names 7 columns\n"),
            (good + b'"n,1,,k,1,1,1\n', ":3: the row ends inside a quoted value\n"),
            (good, None))
        with socket.socket() as first, socket.socket() as second:
            ports = free_ports(2)
            for holder, port in zip((first, second), ports):
                holder.bind(("127.0.0.1", port))  # without listening
            for content, error in rows:
                with self.subTest(error):
                    path = self.file("in.csv", content)
                    tool = self.ended(65 if error else 69, "send", "--spec", self.spec, "--data", addresses(ports),
                                      "--wait", 0, path)
                    self.assertIn(f"{path}{error}" if error else "Connection refused", tool.errors())

    def test_passes_on_what_came_before_a_pause_and_query_finds_it(self) -> None:
        run = self.server()
        send = self.tool(*self.send(run, "-"))
        send.feed(HEADER + b"one,978307200000000,,k,1.5,1,1\nt\x01wo,978307200000001,,k,inf,2,-2\n")

        def ask(*options: str) -> str:
            return self.ended(0, "query", "--spec", self.spec, "--query", addresses(run.query_ports), "k",
                              *options).out()

        wait_until("the records", lambda: ask("--format", "csv").count("\n") == 3)
        expect("rows", ask("--format", "csv", "--to", "2001-01-01"), COLUMNS + "978307200000000,k,1,1,1.5,one\n")
        expect("table", ask(), "time                         key  small  big  real  note\n"
                               "2001-01-01T00:00:00Z         k        1    1   1.5  one\n"
                               "2001-01-01T00:00:00.000001Z  k       -2    2   inf  t\\x01wo\n")
        expect("status", send.wait_end(), 0)
        self.finish(run, [(b"k", START_US, 1, 1, float_bits(1.5), b"one"),
                          (b"k", START_US + 1, -2, 2, float_bits(float("inf")), b"t\x01wo")])

    def test_tells_that_the_server_went_away(self) -> None:
        run = self.server()
        send = self.tool(*self.send(run, "-"))
        send.feed(HEADER + b"one,978307200000000,,k,1,1,1\n")
        run.server.wait_told("TOrg: Total recs absorbed 1 ")
        run.server.kill()
        with suppress(BrokenPipeError):
            send.feed(b"two,978307200000000,,k,1,1,1\n")
        expect("status", send.wait_end(), 69)

    def test_does_not_say_done_when_the_server_refused_the_last_frame(self) -> None:
        run = self.server("ss")
        tool = self.ended(69, *self.send(run, self.file("in.csv", HEADER + b"n,1,,k,1,1,1\n")))
        self.assertIn("it has closed the connection", tool.errors())

    def test_takes_the_same_records_from_every_kind_of_file(self) -> None:
        run = self.server()
        text = PLAIN + row("a", 1) + row("b", 2, b"")
        lines = b"".join(b'{"note":"n","key":"%s","x":[1,{}],"time":%d,"small":1,"big":2,"real":5e-1}\n' % each
                         for each in ((b"a", START_US + 1), (b"b", START_US + 2)))
        contents = {"plain.csv": text, "mark": b"\xEF\xBB\xBF" + text.replace(b"\n", b"\r\n") + b"\r\n\r\n",
                    "tabs.tsv": text.replace(b",", b"\t"), "lines.jsonl": lines, "zipped": gzip.compress(text),
                    "members.csv": gzip.compress(text[:40]) + gzip.compress(text[40:]) + bytes(99),
                    "lines.jsonl.zst": zstd(lines[:100]) + zstd(lines[100:])}
        files = [self.file(name, content) for name, content in contents.items()]
        tool = self.ended(0, *self.send(run, files[0]), *files[1:], "--json")
        told = json.loads(tool.out())
        expect("summary", [told[name] for name in ("records", "rejected", "keys", "first_us", "last_us")],
               [2 * len(files), 0, 2, START_US + 1, START_US + 2])
        self.finish(run, [record("a", 1), record("b", 2)] * len(files))

    def test_brings_every_extreme_value_through(self) -> None:
        run = self.server()
        texts = [b"", b"x" * 70000, b'"', b"a,\"b\"\r\n\t\\", "\u00e9\U0001F600".encode(), b"\xFF\x41", b"nan", b"\x01"]
        reals = [(b"nan:7ff0000000000001", 0x7FF0000000000001), (b"nan", 0x7FF8 << 48), (b"-0.0", 1 << 63),
                 (b"inf", 0x7FF << 52), (b"-inf", 0xFFF << 52), (b"5e-324", 1), (b"0.1", float_bits(0.1)),
                 (b"1.7976931348623157e308", 0x7FEFFFFFFFFFFFFF)]
        csv, lines, sent = [PLAIN], [], []
        for index, (text, (real, bits)) in enumerate(zip(texts, reals)):
            small, big = (-2**31, -2**63) if index % 2 else (2**31 - 1, 2**63 - 1)
            csv.append(b'"%s",%d,%d,%d,%s,"%s"\n' % (text.replace(b'"', b'""'), START_US + index, small, big, real,
                                                    text.replace(b'"', b'""')))
            try:
                json_text = json.dumps(text.decode())
            except UnicodeDecodeError:
                json_text = json.dumps({"hex": text.hex()})
            json_real = real.decode() if real[-1:].isdigit() and real[:1] != b"n" else json.dumps(real.decode())
            lines.append(f'{{"key":{json_text},"time":{START_US + index},"small":{small},"big":{big},'
                         f'"real":{json_real},"note":{json_text}}}\n')
            sent.append((text, START_US + index, small, big, bits, text))
        self.ended(0, *self.send(run, self.file("in.csv", b"".join(csv))), self.file("in.jsonl", "".join(lines)))
        self.finish(run, sent * 2)

    def test_turns_rows_away_and_takes_them_again_when_they_are_mended(self) -> None:
        future = int((time.time() + 7200) * 1e6)
        cases = (
            (b"a,x,1,2,0.5,n", "time: 'x' is neither an ISO 8601 time nor microseconds since 1970"),
            (b"a,-5,1,2,0.5,n", "time: '-5' is before 1970, which the server refuses"),
            (b"a,%d,1,2,0.5,n" % future, "is further in the future than --max-future lets through"),
            (b"a,5,1,2,0.5,n", "time: '5' (1970-01-01T00:00:00.000005Z) is further in the past than --max-past"),
            (b"a,%d,2147483648,2,0.5,n" % START_US, "small: '2147483648' is not an int32"),
            (b"a,%d,1,,0.5,n" % START_US, "big: '' is not an int64; --empty big=VALUE gives empty cells a value"),
            (b"a,%d,1,2,0x1,n" % START_US, "real: '0x1' is not a float64"),
            (b"a,%d,1,2,0.5,\0" % START_US, "note: the text holds a NUL, which a string64 cannot"),
            (b"a,%d,1,2,0.5" % START_US, "the row has 5 values, but the header names 6 columns"),
            (b"d,%d,1,2,0.5,n" % START_US, "key: a new key beyond the 3 that --max-keys lets through"),
            (b'a,%d,1,2,0.5,n"n' % START_US, "the row has a quote inside a value that is not quoted"),
            (b'a,%d,1,2,0.5,"n' % START_US, "the row ends inside a quoted value"))
        run, rejects = self.server(), self.directory / "rejects.csv"
        good = [row(key, offset) for offset, key in enumerate("abc")]
        path = self.file("in.csv", PLAIN + b"".join(good) + b"".join(bad + b"\n" for bad, _ in cases))
        tool = self.ended(1, *self.send(run, path), "--rejects", rejects, "--max-past", "20000d", "--max-keys", 3,
                          "--max-future", "1h")
        told = tool.errors().splitlines()
        for line, (_, error) in enumerate(cases[:10], 5):
            self.assertIn(f"brindlectl send: {path}:{line}: ", told[line - 5])
            self.assertIn(error, told[line - 5])
        expect("the end", told[10:], [f"brindlectl send: {path}: 2 more rows are wrong",
                                      "brindlectl send: 3 records sent in 1 frame, 12 rows turned away"])
        kept = rejects.read_bytes().splitlines()
        expect("header", kept[0], b"reject_line,reject_reason," + PLAIN[:-1])
        for line, (bad, error) in enumerate(cases, 5):
            self.assertIn(error.encode(), kept[line - 4].replace(b'""', b'"'))
            expect("row", (kept[line - 4][:3], kept[line - 4].endswith(b'",' + bad)), (b"%d," % line if line > 9 else
                                                                                      b"%d,\"" % line, True))
        self.finish(run, [record(key, offset) for offset, key in enumerate("abc")])

        # Mended, sent again with one row still wrong, whose new reject stands for the old one.
        run, again = self.server(), self.directory / "again.csv"
        rejects.write_bytes(b"\n".join([kept[0], kept[5].replace(b"2147483648,2", b"1,2"), kept[7]]) + b"\n")
        self.ended(1, *self.send(run, rejects), "--rejects", again)
        expect("rejects", again.read_bytes(),
               b'reject_line,reject_reason,' + PLAIN + b'3,"real: \'0x1\' is not a float64",' + cases[6][0] + b"\n")
        self.finish(run, [record("a", 0)])
        self.ended(74, "send", "--spec", self.spec, "--data", "1,2", rejects, "--rejects", rejects)

    def test_turns_lines_of_json_away(self) -> None:
        start = b'{"key":"a","time":%d,"small":1,"big":2' % START_US
        cases = ((b"{", "the line is no JSON object"), (b"[1]", "the line is no JSON object"),
                 (start + b',"real":1,"note":"\xFF"}', "the line is no UTF-8"),
                 (start + b',"real":1,"note":"n"} {}', "the line is no JSON object"),
                 (start + b',"real":1}', "there is no member 'note'; --empty note=VALUE gives it a value"),
                 (start + b',"real":[1],"note":"n"}', "real: an array is not a float64"),
                 (start + b',"real":null,"note":"n"}', "real: '' is not a float64"),
                 (start + b',"real":1,"note":{"hex":"0"}}', "note: an object is not a string64"),
                 (start + b',"real":1,"real":1,"note":"n"}', "the line has two members 'real'"),
                 (start + b',"real":1,"note":"n","x":' + b"[" * 1100 + b"]" * 1100 + b"}",
                  "the line is nested deeper than 1024"),
                 (start + b',"real":1e999,"note":"n"}', "the line has a number that is no JSON, or beyond a float64"),
                 (start + b',"real":1,"note":"\\q"}', "the line has a string that is no JSON"),
                 (b" \t" + start + b',"real":"\x7F\xC2\x9B","note":"n"}', "real: '\\x7f\\xc2\\x9b' is not a float64"))
        run, rejects = self.server(), self.directory / "rejects.jsonl"
        good = start + b',"real":0.5,"note":"n","x":123456789012345678901}\n'
        files = [self.file(name, b"".join(bad + b"\n" for bad, _ in part) + end) for name, part, end in (
            ("in.jsonl", cases[:9], good), ("more.jsonl", cases[9:], b""))]
        tool = self.ended(1, *self.send(run, files[0]), files[1], "--rejects", rejects)
        for index, (bad, error) in enumerate(cases):
            self.assertIn(f"{files[index // 9]}:{index % 9 + 1}: {error}", tool.errors())
        self.finish(run, [record("a", 0)])
        json.loads(rejects.read_bytes().splitlines()[-1])  # blanks before the brace
        mended = rejects.read_bytes().splitlines()[6].replace(b"null", b"0.5")
        told = self.ended(0, "send", "--spec", self.spec, "--dry-run", self.file("again.jsonl", mended)).errors()
        self.assertIn("1 record would be sent in 1 frame; 0 rows rejected; 1 key; times from 2001-01-01T00:00:00Z", told)

    def test_other_names_empty_cells_and_times(self) -> None:
        run = self.server()
        path = self.file("in.csv", b"Key;when;s;big;real;note\nk;01.01.2001 01:00:00,5;;;nan;;\n".replace(b"nan;;", b"nan;"))
        self.ended(0, *self.send(run, path), "--delimiter", ";", "--map", "key=Key", "--map", "small=s", "--time", "when",
                   "--time-format", "%d.%m.%Y %H:%M:%S,5", "--time-zone", "Europe/Berlin", "--empty", "small=-1",
                   "--empty", "big=7", "--empty", "note=none")
        self.finish(run, [(b"k", START_US, -1, 7, 0x7FF8 << 48, b"none")])

    def test_follows_a_file_through_rotations(self) -> None:
        run, path = self.server(), self.directory / "log.csv"
        send = self.tool(*self.send(run, path), "--follow")

        def append(data: bytes) -> None:
            with path.open("ab") as file:
                file.write(data)

        def absorbed(count: int) -> None:
            def asked() -> int:
                return self.ended(0, "query", "--spec", self.spec, "--query", addresses(run.query_ports), "k", "--format",
                                  "csv").out().count("\n") - 1
            wait_until(f"{count} records", lambda: asked() == count)

        append(PLAIN + row("k", 0) + row("k", 1)[:-5])
        absorbed(1)
        append(row("k", 1)[-5:])
        absorbed(2)
        path.rename(self.directory / "log.csv.1")
        with (self.directory / "log.csv.1").open("ab") as old:
            old.write(row("k", 2))
        append(PLAIN + row("k", 3))  # under the name again
        absorbed(4)
        path.write_bytes(b"")
        wait_until("what is told", lambda: "the file was cut off; it is read from its start" in send.errors())
        append(PLAIN + row("k", 4) + row("k", 5))
        absorbed(6)
        send.process.send_signal(signal.SIGTERM)
        expect("status", send.wait_end(), 0)
        self.assertIn("stopped: 6 records sent", send.errors())
        self.finish(run, [record("k", offset) for offset in range(6)])

    def test_holds_the_server_and_brings_its_time_forward(self) -> None:
        run, rejects = self.server(), self.directory / "rejects.csv"
        rejects.write_bytes(b"older")
        self.ended(65, *self.send(run, self.file("empty.csv", b"")), "--rejects", rejects)
        expect("rejects, as nothing was read", rejects.read_bytes(), b"older")
        send = self.tool(*self.send(run, self.file("in.csv", PLAIN + row("k", 0) + b"bad\n")), "--hold", "--heartbeat",
                         "beat:0.2", "--json", "--rejects", rejects)
        wait_until("the wrong row, while it holds", lambda: rejects.read_bytes().endswith(b",bad\n"))
        wait_until("the record, by the heartbeats alone", lambda: b"k\0" + b"\0" * 7 + b"\1" in b"".join(run.bodies))
        other = self.ended(75, *self.send(run, self.file("other.csv", PLAIN + row("k", 1))))
        self.assertIn("is serving another producer", other.errors())
        send.process.send_signal(signal.SIGINT)
        expect("status", send.wait_end(), 1)
        told = json.loads(send.out())
        expect("told", (told["records"], told["stopped"], told["heartbeats"] > 0), (1, True, True))
        expect("status of the server", run.server.wait_end(), 0)

    def test_tells_a_server_that_leaves_it_in_the_queue(self) -> None:
        with socket.socket() as first, socket.socket() as second:
            ports = free_ports(2)
            for listener, port in zip((first, second), ports):
                listener.bind(("127.0.0.1", port))
                listener.listen()
            path = self.file("in.csv", PLAIN + row("k", 0))
            tool = self.ended(75, "send", "--spec", self.spec, "--data", addresses(ports), path)
        self.assertIn("leaves the connection in its queue", tool.errors())

    def test_paces_rows_and_gathers_them(self) -> None:
        rows = [row("k", offset) for offset in range(40)]
        path = self.file("in.csv", PLAIN + b"".join(rows))
        for options, frames in ((["--rate", 80], range(20, 41)), (["--rate", 80, "--linger", "10s"], range(1, 2)),
                                (["--batch", 1], range(40, 41))):
            with self.subTest(options):
                run = self.server()
                told = json.loads(self.ended(0, *self.send(run, path), "--json", *options).out())
                self.assertIn(told["frames"], frames)
                if "--rate" in options:
                    self.assertGreater(told["seconds"], 0.45)
                self.finish(run, [record("k", offset) for offset in range(40)])

    def test_warns_of_units_and_names_what_is_wrong(self) -> None:
        path = self.file("in.csv", PLAIN + b"a,978307200,1,2,0.5,n\n")
        cut = self.file("cut.csv.gz", gzip.compress(PLAIN + row("k", 0))[:-9])
        for status, error, *arguments in (
                (0, ":2: time: the time is 1970-01-01T00:16:18.307200Z, near 1970; are these seconds", path),
                (0, "times from 2001-01-01T00:00:00Z", path, "--time-format", "auto"),
                (65, "send: nothing would be sent", path, "--map", "small=key"),
                (65, ": the file ends inside its gzip data", cut),
                (2, "'Mars/Base' is no time zone", path, "--time-zone", "Mars/Base"),
                (2, "'weeks' is no format of times", path, "--time-format", "weeks"),
                (2, "--empty small=x: 'x' is not an int32", path, "--empty", "small=x"),
                (2, "--map: 'other=x' does not begin with a field", path, "--map", "other=x"),
                (65, "whose window is too large", self.file("window.zst", b"\x28\xB5\x2F\xFD\x00\xA8" + bytes(9))),
                (0, "1 record would", self.file("skip.zst", b"\x50\x2A\x4D\x18\1\0\0\0x" + zstd(PLAIN + row("k", 0)))),
                (2, "--delimiter: 'x' is no single byte", path, "--delimiter", "x"),
                (2, "x.tsv is read as tsv; add --format csv", "x.tsv", "--delimiter", ";"),
                (2, "--map: 'small=' names no column", path, "--map", "small="),
                (2, "--map: 'small=b' is the second one", path, "--map", "small=a", "--map", "small=b"),
                (2, "brindlectl send: --rate: ", path, "--rate", "x"),
                (2, "--rejects: standard output cannot take them", path, "--rejects", "-"),
                (2, "--heartbeat: 'k' is no KEY:SECONDS", path, "--heartbeat", "k")):
            with self.subTest(error):
                tool = self.ended(status, "send", "--spec", self.spec, "--dry-run", *arguments)
                self.assertIn(error, tool.errors())
        tool = self.ended(78, "send", "--spec", self.directory, "--dry-run", path)
        self.assertIn(f"{self.directory}: cannot be read: Is a directory", tool.errors())
        self.assertIn("'sned' is no command", self.ended(2, "sned", path).errors())
