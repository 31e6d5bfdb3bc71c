"""brindlectl as its users run it: command lines, streams and exit statuses, with the real server on the other side."""

import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import unittest
from contextlib import suppress
from pathlib import Path

import wire
from running import DEADLINE, Failure, connect, die_with_parent, free_ports, listening_ports, reset, wait_until
from runs import BINARIES, Run, expect, fill
from wire import Record, Schema, float_bits, frame

TYPES = "s48fs"
SCHEMA = Schema("Rec string64 key int32 small int64 big float64 real string64 note\n")
HEADER = b"note,time,unused,key,real,big,small\n"
COLUMNS = "time,key,small,big,real,note\n"
START_US = 978307200000000  # 2001-01-01
NAN = 0x7FF8 << 48


def addresses(ports: list[int]) -> str:
    return f"127.0.0.1:{ports[0]},{ports[1]}"


class Tool:
    """A run of brindlectl. Its standard input is a pipe, its outputs are two files."""

    def __init__(self, directory: Path, *arguments: object) -> None:
        base = tempfile.mkdtemp(dir=directory)
        self.paths = Path(base, "out"), Path(base, "errors")
        with self.paths[0].open("wb") as out, self.paths[1].open("ab") as errors:
            self.process = subprocess.Popen([BINARIES / "brindlectl", *map(str, arguments)], stdin=subprocess.PIPE,
                                            stdout=out, stderr=errors, bufsize=0, preexec_fn=die_with_parent)

    def out(self) -> str:
        return self.paths[0].read_bytes().decode("latin-1")

    def errors(self) -> str:
        return self.paths[1].read_bytes().decode("latin-1")

    def feed(self, data: bytes) -> None:
        self.process.stdin.write(data)

    def wait_end(self) -> int:
        """Ends its input; the exit status, or the negative number of a signal."""
        self.process.stdin.close()
        try:
            return self.process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            raise Failure(f"brindlectl does not end: {self.errors()}") from None

    def close(self) -> None:
        self.process.kill()
        self.wait_end()


class Brindlectl(unittest.TestCase):
    def setUp(self) -> None:
        self.directory = Path(tempfile.mkdtemp(prefix="brindlectl-"))
        self.addCleanup(shutil.rmtree, self.directory)
        self.spec = self.file("rec.spec", SCHEMA.text)

    def file(self, name: str, content: bytes | str) -> Path:
        path = self.directory / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode("latin-1"))
        return path

    def tool(self, *arguments: object) -> Tool:
        tool = Tool(self.directory, *arguments)
        self.addCleanup(tool.close)
        return tool

    def ended(self, status: int, *arguments: object) -> Tool:
        tool = self.tool(*arguments)
        expect("status, and what was told", (tool.wait_end(), tool.errors()), (status, tool.errors()))
        return tool

    def server(self, types: str = TYPES) -> Run:
        run = self.enterContext(Run(types))
        run.start()
        return run

    def send(self, run: Run, source: object) -> list[object]:
        return ["send", "--spec", self.spec, "--data", addresses(run.data_ports), source]

    def finish(self, run: Run, sent: list[Record]) -> None:
        expect("status of the server", run.server.wait_end(), 0)
        run.finish(sent)


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
                               "2001-01-01T00:00:00.000001Z  k       -2    2   inf  t\\x01wo\n"
                               "2001-01-01T00:00:00Z         k        1    1   1.5  one\n")
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


def cycle(rows: list[Record]) -> bytes:
    """The messages of a cycle with one block."""
    return b"".join(map(frame, SCHEMA.encode_cycle([b"k"], [(b"k", rows)])))


class Sink(Brindlectl):
    def start(self, *options: object) -> tuple[Tool, socket.socket, socket.socket]:
        """A sink on free ports, and the connections of a server to it."""
        for _ in range(20):
            ports = free_ports(2)
            tool = self.tool("sink", "--spec", self.spec, "--ship", addresses(ports), *options)
            wait_until("the sink", lambda: tool.process.poll() is not None or
                       set(ports) <= listening_ports(tool.process.pid))
            if tool.process.poll() is None:  # otherwise a port was taken meanwhile
                first, second = map(connect, ports)
                self.addCleanup(second.close)
                self.addCleanup(first.close)
                return tool, first, second
        raise Failure("no sink starts")

    def test_writes_what_is_shipped(self) -> None:
        rows = [(7, -1, 1, float_bits(0.1), b'a,"b"\n'), (8, 1, 2, NAN, b"\xFF")]
        for options, out in (
                ([], f'{COLUMNS}7,k,-1,1,0.1,"a,""b""\n"\n8,k,1,2,nan,\xFF\n'),
                (["--blocks", "--time", "at"], 'cycle,block,at,key,small,big,real,note\n'
                                               '1,1,7,k,-1,1,0.1,"a,""b""\n"\n1,1,8,k,1,2,nan,\xFF\n'),
                (["--format", "jsonl"],
                 '{"time":7,"key":"k","small":-1,"big":1,"real":0.1,"note":"a,\\"b\\"\\n"}\n'
                 '{"time":8,"key":"k","small":1,"big":2,"real":"nan","note":{"hex":"ff"}}\n')):
            with self.subTest(options):
                tool, first, second = self.start(*options)
                first.sendall(cycle(rows))
                wait_until("the records, before the stream ends", lambda: tool.out() == out)
                first.close()
                second.close()
                expect("status", tool.wait_end(), 0)
                expect("told", tool.errors(), "brindlectl sink: received: 1 cycles, 1 keys, 2 records\n")

    def test_keeps_what_came_however_it_ends(self) -> None:
        record = (7, 1, 1, float_bits(1), b"")
        good, message = cycle([record]), struct.pack(">I", 100)
        block = SCHEMA.encode_blocks([(b"k", [record] * 9)])
        cut = struct.pack(">I", 500) + block[:len(block) - 8 * SCHEMA.ship_layout.size(record)] + b"xyz"
        line = "7,k,1,1,1,\n"
        for what, stream, end, status, error, records in (
                ("interrupted", good, "interrupt", 0, "stopped while the server was connected", 1),
                ("interrupted inside a message", good + message, "interrupt", 0,
                 "stopped while the server was connected", 1),
                ("cut inside a message", good + message + b"x", "close", 69, "the server's stream was cut off", 1),
                ("cut inside a message's second record", good + cut, "close", 69,
                 "the 1 whole records of it are written", 2),
                ("ended inside a cycle", good + frame(wire.SHIP_TYPE.pack(1)), "close", 69,
                 "the last cycle has no end", 1),
                ("reset", good, "reset", 69, "Connection reset by peer", 1),
                ("a malformed message between", frame(wire.SHIP_TYPE.pack(2) + b"garbage") + good, "close", 65,
                 "message 1 of 11 bytes cannot be read with this schema", 1)):
            with self.subTest(what):
                tool, first, _ = self.start()
                first.sendall(stream)
                wait_until("the record", lambda: tool.out() == COLUMNS + line)
                if end == "interrupt":
                    tool.process.send_signal(signal.SIGINT)
                elif end == "reset":
                    reset(first)
                else:
                    first.close()
                expect("status", tool.wait_end(), status)
                self.assertIn(error, tool.errors())
                self.assertIn(f" 1 keys, {records} records\n", tool.errors())
                expect("rows", tool.out(), COLUMNS + line * records)

    def test_that_cannot_write_says_so(self) -> None:
        tool, first, _ = self.start("--output", "/dev/full")
        first.sendall(cycle([]))
        expect("status", tool.wait_end(), 74)
        self.assertIn("/dev/full: writing failed: No space left on device", tool.errors())


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
