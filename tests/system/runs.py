"""What the system tests share: a session that knows its schema, and what it shipped held against what was sent."""

from __future__ import annotations

import os
import re
import socket
import sys
from collections import Counter
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass, field
from itertools import pairwise
from pathlib import Path

import wire
from running import DEADLINE, Consumer, Failure, Producer, QueryClient, Session, wait_until
from wire import Record, Value

BINARIES = Path(os.environ["BRINDLE_BINARIES"])
SANITIZED = bool(os.environ.get("BRINDLE_SANITIZED"))
BUCKET_US = 250_000  # under a window of one second
TIME_MAX = 2**63 - 1
BOUND_MAX = 2**64 - 1
TYPES = {"s": "string64", "4": "int32", "8": "int64", "f": "float64"}
IGNORING_INTERRUPTS = ["sh", "-c", "trap '' INT; exec \"$0\" \"$@\""]  # as for a background job of a shell
UNREAD_ERRORS = [sys.executable, "-c", "import os, signal, sys; reader, writer = os.pipe(); os.dup2(writer, 2); "
                 "signal.signal(signal.SIGPIPE, signal.SIG_DFL); os.execv(sys.argv[1], sys.argv[1:])"]

# Lines that every run prints; # is a number. One that is written with several calls may hold another thread's line, so
# the pieces are taken out one by one.
ACCOUNT = ": utime # us, stime # us, etime # us, MaxRSS # kB  \n"
USUAL = ["TOrg: Total recs absorbed # delta # ", "TOrg: Advanced buckets from # to # ", "TShp: Keys sent:\n", ACCOUNT,
         " " + ACCOUNT, " TShp: Starting..\n", "TShp: Ship done #", "TShp: termination sent\n",
         " TShp: Terminating..\n", "TMain: TQ termination #\n", "TMain Gathered TOrg\n",
         "TOrg -> Termination received, shipping everything.\n", "Shutting down\n", " --- Recovered # records\n"]
USUAL_PIECES = re.compile("|".join(re.escape(piece).replace(r"\#", r"[-\d]*") for piece in USUAL))


def at(bucket: int, offset_us: int = 0) -> int:
    return bucket * BUCKET_US + offset_us


def schema_of(types: str) -> wire.Schema:
    """One character a field, as in TYPES; field 0 is the key."""
    return wire.Schema("Rec" + "".join(f"\n{TYPES[kind]} field{index}" for index, kind in enumerate(types)) + "\n")


def assertion(message: str, site: str) -> str:
    return f"\n\n >>>>>> Internal Error (Assert Failure): {message} \n     At file:{site} <<<<<<<\n\n"


def read_all(directory: Path) -> dict[str, bytes]:
    return {path.name: path.read_bytes() for path in directory.iterdir()}


def fill(directory: Path, files: dict[str, bytes]) -> Path:
    directory.mkdir(exist_ok=True)
    for name, content in files.items():
        (directory / name).write_bytes(content)
    return directory


def read_log(schema: wire.Schema, directory: Path) -> list[Record]:
    return schema.parse_log(b"".join(wire.log_files(directory).values()))[0]


def first_seen(records: Iterable[Record]) -> list[Value]:
    return list(dict.fromkeys(record[0] for record in records))


@dataclass
class Cycle:
    new_keys: list[Value]
    groups: list[list[tuple[Value, list[Record]]]] = field(default_factory=list)  # one a message


def decode_cycles(schema: wire.Schema, bodies: Iterable[bytes]) -> list[Cycle]:
    """Messages must come as keys, records..., end; and so again."""
    cycles: list[Cycle] = []
    inside = False
    for body in bodies:
        message = schema.decode_ship(body)
        if (message.kind == wire.SHIP_KEYS) == inside:
            raise Failure(f"message of type {message.kind} {'inside' if inside else 'between'} cycles")
        inside = message.kind != wire.SHIP_END
        if message.kind == wire.SHIP_KEYS:
            cycles.append(Cycle(message.keys))
        elif message.kind == wire.SHIP_RECORDS:
            cycles[-1].groups.append(message.blocks)
    if inside:
        raise Failure("the last cycle has no end")
    return cycles


def blocks_of(cycles: Iterable[Cycle]) -> list[tuple[Value, list[Record]]]:
    return [block for cycle in cycles for group in cycle.groups for block in group]


def records_of(cycles: Iterable[Cycle]) -> list[Record]:
    return [(key, *row) for key, rows in blocks_of(cycles) for row in rows]


def announced(cycles: Iterable[Cycle]) -> list[Value]:
    return [key for cycle in cycles for key in cycle.new_keys]


def expect(what: str, seen: object, expected: object) -> None:
    if seen != expected:
        raise AssertionError(f"{what}: {str(seen)[:1500]}\nexpected: {str(expected)[:1500]}")


def expect_same_records(seen: Sequence[Record], expected: Sequence[Record]) -> None:
    """In any order, each as often."""
    missing, surplus = Counter(expected) - Counter(seen), Counter(seen) - Counter(expected)
    expect(f"records that are missing of {len(expected)}", [missing.total(), *list(missing)[:3]], [0])
    expect("records that are too many", [surplus.total(), *list(surplus)[:3]], [0])


def expect_ordered_blocks(cycles: list[Cycle], sent: list[Record]) -> None:
    """By time; equal times in the order sent."""
    order = {record: index for index, record in enumerate(sent)}
    for key, rows in blocks_of(cycles):
        for before, after in pairwise(rows):
            if (before[0], order[key, *before]) > (after[0], order[key, *after]):
                raise AssertionError(f"key {key!r}: {before} stands before {after}")


def cycles_before_end(records: Iterable[Record]) -> int:
    """How many cycles records bring about, by the rules of the buckets alone."""
    newest, opened, cycles = 4, 0, 0
    for record in records:
        advance = max(record[1] // BUCKET_US - newest, 0)
        newest += advance
        opened += advance
        if opened > 1:
            opened = 0
            cycles += 1
    return cycles


class Client(QueryClient):
    """Connects at once or not at all: before the data ports can be connected to, the query ports can."""

    def __init__(self, run: Run) -> None:
        self.schema = run.schema
        self.requests = socket.create_connection(("127.0.0.1", run.query_ports[0]), DEADLINE)
        try:
            self.replies = socket.create_connection(("127.0.0.1", run.query_ports[1]), DEADLINE)
        except OSError:
            self.requests.close()
            raise

    def find(self, key: Value, time_from: int = 0, time_to: int = BOUND_MAX) -> list[Record]:
        query = self.schema.encode_query(key, time_from & BOUND_MAX, time_to & BOUND_MAX)
        return self.schema.decode_reply(self.ask(query))

    def find_all(self, key: Value, count: int) -> list[Record]:
        """Being absorbed takes a moment."""
        found: list[Record] = []

        def complete() -> bool:
            found[:] = self.find(key)
            return len(found) == count

        wait_until(f"{count} records in a reply", complete)
        return found


class Run(Session):
    """A session with its schema, one producer, and the messages of its consumer."""

    def __init__(self, types: str, narrow: bool = False, wrapper: list[str] | None = None,
                 recover_from: Path | None = None) -> None:
        self.schema = schema_of(types)
        self.bodies: list[bytes] = []
        self.cycles = 0
        self._producer: Producer | None = None
        consumer = Consumer(self._take, narrow)
        super().__init__(BINARIES, self.schema.text, 1, consumer, recover_from, wrapper)

    def __exit__(self, kind: object, *rest: object) -> None:
        errors = self._server.errors() if self._server else ""
        super().__exit__(kind, *rest)
        if "Sanitizer" in errors:
            raise Failure(errors)

    def _take(self, body: bytes) -> None:
        self.bodies.append(body)
        self.cycles += body == wire.SHIP_TYPE.pack(wire.SHIP_END)

    @property
    def producer(self) -> Producer:
        self._producer = self._producer or self.produce()
        return self._producer

    def send(self, records: list[Record], per_frame: int = 0) -> None:
        for first in range(0, len(records), per_frame or len(records) or 1):
            self.producer.send(self.schema.encode_frame(records[first:first + (per_frame or len(records))]))

    def client(self) -> Client:
        client = Client(self)
        self._ends.append(client.close)
        return client

    def wait(self, what: str, condition: Callable[[], object]) -> None:
        """Fails at once when the server ends before it holds."""

        def holds() -> bool:
            ended = not self.server.running()
            held = bool(condition())
            if ended and not held:
                raise Failure(f"the server ended before {what}: {self.server.errors()[-300:]}")
            return held

        wait_until(what, holds)

    def wait_cycles(self, count: int) -> None:
        self.wait(f"{count} cycles", lambda: self.cycles >= count)

    def wait_keys(self, keys: Iterable[Value]) -> None:
        expected, path = self.schema.encode_key_file(keys), self.recovery / wire.KEY_FILE
        self.wait("the key file", lambda: path.read_bytes() == expected)

    def other_lines(self) -> str:
        """Standard error without the lines that every run prints."""
        return USUAL_PIECES.sub("", self.server.errors())

    def shipped(self) -> list[Cycle]:
        """All cycles, once the connection has ended."""
        wait_until("the ship connections", lambda: self.consumer.received)
        self.consumer.wait_ended()
        expect("bytes that belong to no message", self.consumer.partial + self.consumer.surplus, b"")
        return decode_cycles(self.schema, self.bodies)

    def end(self) -> None:
        """The producer leaves and the server ends with status 0. Twice is harmless."""
        if self._producer or self.server.running():
            self.producer.close()
        status = self.server.wait_end()
        expect(f"status, with {self.server.errors()[-300:]}", status, 0)

    def finish(self, sent: list[Record]) -> list[Cycle]:
        """Ends a run that shipped everything: each sent record once, blocks in order, each key announced once in the
        order first seen, nothing left but the key file."""
        self.end()
        cycles, keys = self.shipped(), first_seen(sent)
        expect_same_records(records_of(cycles), sent)
        expect_ordered_blocks(cycles, sent)
        expect("keys announced", announced(cycles), keys)
        expect("files left", read_all(self.recovery), {wire.KEY_FILE: self.schema.encode_key_file(keys)})
        return cycles
