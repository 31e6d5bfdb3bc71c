"""brindlectl sink: what servers ship, and where it goes."""

import json
import signal
import socket
import sqlite3
import struct
import unittest
from pathlib import Path

import wire
from running import Failure, connect, free_ports, listening_ports, reset, wait_until
from runs import expect
from tools import COLUMNS, SCHEMA, Brindlectl, Tool, addresses, cycle
from wire import Record, float_bits, frame

NAN = 0x7FF8 << 48
STREAM = 7 << 40  # where the numbers of the stream begin


def numbered(count: int) -> Record:
    return (count, 1, STREAM + count, float_bits(count), b"")


class Sink(Brindlectl):
    def start(self, *options: object, ports: list[int] | None = None) -> Tool:
        """A sink that listens; its ports are in self.ports."""
        for _ in range(20):
            self.ports = ports or free_ports(2)
            tool = self.tool("sink", "--spec", self.spec, "--ship", addresses(self.ports), *options)
            wait_until("the sink", lambda: tool.process.poll() is not None or
                       set(self.ports) <= listening_ports(tool.process.pid))
            if tool.process.poll() is None:  # otherwise a port was taken meanwhile
                return tool
        raise Failure("no sink starts")

    def server(self) -> socket.socket:
        """The connections of a server to it."""
        first, second = map(connect, self.ports)
        self.addCleanup(second.close)
        self.addCleanup(first.close)
        return first

    def ends(self, tool: Tool, status: int) -> None:
        expect("status, and what was told", (tool.wait_end(), tool.errors()), (status, tool.errors()))

    def rows(self, path: Path, query: str) -> list[tuple[object, ...]]:
        try:
            database = sqlite3.connect(f"file:{path}?mode=ro", uri=True)
        except sqlite3.OperationalError:  # not there yet
            return []
        try:
            return database.execute(query).fetchall()
        except sqlite3.OperationalError:
            return []
        finally:
            database.close()

    def test_writes_what_is_shipped(self) -> None:
        rows = [(7, -1, 1, float_bits(0.1), b'a,"b"\n'), (8, 1, 2, NAN, b"\xFF")]
        table = self.directory / "table"
        for options, out in (
                ([f"csv:{table}"], f'{COLUMNS}7,k,-1,1,0.1,"a,""b""\n"\n8,k,1,2,nan,\xFF\n'),
                (["--blocks", "--time", "at", f"csv:{table}2/"],
                 'cycle,block,at,key,small,big,real,note\n'
                 '1,1,7,k,-1,1,0.1,"a,""b""\n"\n1,1,8,k,1,2,nan,\xFF\n'),
                (["jsonl:-"],
                 '{"time":7,"key":"k","small":-1,"big":1,"real":0.1,"note":"a,\\"b\\"\\n"}\n'
                 '{"time":8,"key":"k","small":1,"big":2,"real":"nan","note":{"hex":"ff"}}\n')):
            with self.subTest(options):
                tool = self.start("--once", *options)
                server = self.server()
                server.sendall(cycle(rows))

                def written() -> str:
                    if options[-1] == "jsonl:-":
                        return tool.out()
                    path = Path(options[-1][4:], "Rec.csv")
                    return path.read_bytes().decode("latin-1") if path.exists() else ""

                wait_until("the records, before the stream ends", lambda: written() == out)
                server.close()
                self.ends(tool, 0)
                expect("told", tool.errors(), "brindlectl sink: received: 1 cycle, 1 key, 2 records\n")
                self.assertFalse(Path(options[-1][4:].rstrip("/") + ".spool").exists())

    def test_keeps_what_came_however_a_connection_ends(self) -> None:
        record = (7, 1, 1, float_bits(1), b"")
        good, message = cycle([record]), struct.pack(">I", 100)
        block = SCHEMA.encode_blocks([(b"k", [record] * 9)])
        cut = struct.pack(">I", 500) + block[:len(block) - 8 * SCHEMA.ship_layout.size(record)] + b"xyz"
        for what, stream, end, status, error, records, cycles in (
                ("orderly", good, "close", 0, "", 1, [(1,)]),
                ("interrupted inside a message", good + message, "interrupt", 0, "", 1, [(1,)]),
                ("cut inside a message", good + message + b"x", "close", 69, "closed inside a message", 1, [(1,)]),
                ("cut inside its second record", good + cut, "close", 69, "closed inside a message", 2, [(1,), (0,)]),
                ("ended inside a cycle", good + frame(wire.SHIP_TYPE.pack(1)), "close", 69, "ended inside a cycle", 1,
                 [(1,), (0,)]),
                ("reset", good, "reset", 69, "Connection reset by peer", 1, [(1,)]),
                ("no server", b"GET / HTTP/1.1\r\n\r\n" + good, "close", 69, "is this a Brindle server?", 0, []),
                ("a malformed message", frame(wire.SHIP_TYPE.pack(2) + b"garbage") + good, "close", 1,
                 "a message of 11 bytes cannot be read with this schema", 1, [(1,)])):
            with self.subTest(what):
                path = self.directory / f"{what}.db"
                tool = self.start("--once", f"sqlite:{path}")
                probe = connect(self.ports[0])
                probe.close()
                server = self.server()
                server.sendall(stream)
                if records:
                    wait_until("the record", lambda: self.rows(path, "select * from Rec"))
                if end == "interrupt":
                    tool.process.send_signal(signal.SIGINT)
                elif end == "reset":
                    reset(server)
                else:
                    server.close()
                self.ends(tool, status)
                self.assertIn(error, tool.errors())
                self.assertNotIn("secret", tool.errors())
                expect("rows", self.rows(path, "select time, key from Rec"), [(7, "k")] * records)
                expect("cycles", self.rows(path, "select complete from Rec_cycles order by cycle"), cycles)

    def test_serves_server_after_server_and_several_at_once(self) -> None:
        path = self.directory / "all.db"
        tool = self.start("--drop-key", "k2", "--stats", "--json", f"sqlite:{path}")
        first, second = self.server(), self.server()
        first.sendall(cycle([(1, 0, 0, 0, b"")]))
        half = cycle([(2, 0, 0, 0, b"")])
        second.sendall(half[:20])
        first.sendall(cycle([(3, 0, 0, 0, b"")]))
        wait_until("the first server's records", lambda: len(self.rows(path, "select * from Rec")) == 2)
        second.sendall(half[20:])
        first.close()
        third = connect(self.ports[0])  # its second connection never comes
        self.addCleanup(third.close)
        third.sendall(b"".join(map(frame, SCHEMA.encode_cycle([b"k2"], [(b"k2", [(4, 0, 0, 0, b"")])]))))
        wait_until("all cycles", lambda: len(self.rows(path, "select * from Rec_cycles")) == 4)
        tool.process.send_signal(signal.SIGTERM)
        self.ends(tool, 0)
        expect("times", self.rows(path, "select time from Rec order by time"), [(1,), (2,), (3,)])
        summary = json.loads(tool.out())
        expect("summary", {name: summary[name] for name in ("cycles", "records", "dropped", "keys", "spool_bytes")},
               {"cycles": 4, "records": 3, "dropped": 1, "keys": 4, "spool_bytes": 0})
        self.assertIn("cycle 1: 1 record, 1 key, ", tool.errors())

    def test_goes_on_reading_while_its_store_is_locked(self) -> None:
        path = self.directory / "locked.db"
        tool = self.start("--once", f"sqlite:{path}")
        server = self.server()
        server.sendall(cycle([(1, 0, 0, 0, b"")]))
        wait_until("the record", lambda: self.rows(path, "select * from Rec"))
        with sqlite3.connect(path, isolation_level=None) as database:
            database.execute("begin immediate")
            server.sendall(cycle([(2, 0, 0, 0, b"n" * 1000)] * 20000))
            server.close()
            wait_until("a word about it", lambda: "the destination is away" in tool.errors())
            database.execute("rollback")
        self.ends(tool, 0)
        self.assertIn("the destination is back", tool.errors())
        expect("rows", self.rows(path, "select count(*), complete from Rec, Rec_cycles group by complete"), [(40002, 1)])

    def test_goes_on_after_a_kill_and_writes_no_number_twice(self) -> None:
        path, watermark = self.directory / "numbers.db", self.directory / "watermark"
        options = ["--sequence", "big", "--watermark", watermark, f"sqlite:{path}"]
        tool = self.start(*options)
        server = self.server()

        def told() -> dict[str, int]:
            return watermark.exists() and json.loads(watermark.read_text())["streams"]

        server.sendall(cycle([numbered(1), numbered(2), numbered(4), (9, 0, 0, 0, b"heartbeat")]))
        wait_until("the watermark", lambda: told() == {"7": 2})
        epoch = json.loads(watermark.read_text())["epoch"]
        open_cycle = b"".join(map(frame, SCHEMA.encode_cycle([b"k"], [(b"k", [numbered(6), numbered(4)])])[:-1]))
        server.sendall(open_cycle)
        spool = self.directory / "numbers.db.spool"
        wait_until("the messages in the spool", lambda: any(
            open_cycle[-60:] in part.read_bytes() for part in spool.glob("*.spool")))
        tool.process.kill()
        tool.wait_end()
        tool = self.start(*options, ports=self.ports)
        server = self.server()
        server.sendall(cycle([numbered(n) for n in range(1, 6)]))
        wait_until("the watermark", lambda: told() == {"7": 6})
        self.assertGreater(json.loads(watermark.read_text())["epoch"], epoch)
        expect("numbers", self.rows(path, "select big & 1023 from Rec order by big, time"),
               [(0,), *((n,) for n in range(1, 7))])
        expect("cycles", self.rows(path, "select complete from Rec_cycles order by cycle"), [(1,), (0,), (1,)])
        # A stream that it does not know ends it, and loses nothing.
        stranger = (1, 0, (8 << 40) + 1, 0, b"")
        server.sendall(cycle([stranger]))
        self.ends(tool, 78)
        self.assertIn("let it in with --stream 8", tool.errors())
        tool = self.start(*options, "--stream", "8", ports=self.ports)
        wait_until("the stream", lambda: told() == {"7": 6, "8": 1})
        tool.process.send_signal(signal.SIGTERM)
        self.ends(tool, 0)

    def test_refuses_what_cannot_be(self) -> None:
        ports = addresses(free_ports(2))
        for status, error, *options in (
                (2, "mysql: names no destination", "mysql:x:secret"),
                (2, "this: names no destination", "host=x password=secret"),
                (2, "cannot be read", "postgresql://u:secret@[x/d"),
                (2, "--watermark and --stream need --sequence", "--watermark", "w", "csv:x"),
                (2, "standard output does not", "--sequence", "big", "jsonl:-"),
                (78, "no int64 field of this name", "--sequence", "note", f"csv:{self.directory}/x"),
                (2, "a stream is a number", "--sequence", "big", "--stream", "0", "csv:x"),
                (74, "No such file or directory; it stands beside the destination", "--spool", self.directory / "none/spool", "csv:x")):
            with self.subTest(error):
                tool = self.ended(status, "sink", "--spec", self.spec, "--ship", ports, *options)
                self.assertIn(error, tool.errors())
                self.assertNotIn("secret", tool.errors())
        tool = self.ended(69, "sink", "--spec", self.spec, "--ship", "192.0.2.1:7001,7002", "csv:x")
        self.assertIn("the host must be an address of this machine, or *", tool.errors())
