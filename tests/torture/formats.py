"""One server per schema, and everything that it writes held against the second codec, byte for byte."""

from __future__ import annotations

import csv
import io
import random
import re
import shutil
import socket
import subprocess
from array import array
from collections import Counter, defaultdict
from collections.abc import Iterable, Iterator
from itertools import pairwise
from pathlib import Path

import wire
from running import Failure, Producer, Session, wait_until

TIME_MAX = 2**63 - 1
SECOND_US = 1_000_000
WINDOW_S = 4000
EDGES = {
    "int32": [0, 1, -1, 2**31 - 1, -(2**31)],
    "int64": [0, 1, -1, 2**63 - 1, -(2**63), 2**32],
    # Zeros, infinities, smallest and largest numbers, quiet and signalling NaNs with payloads.
    "float64": [0, 1 << 63, 0x7FF << 52, 0xFFF << 52, 1, 0x7FEFFFFFFFFFFFFF, 0x7FF8000000000000, 0xFFF8000000000000,
                0x7FF0000000000001, 0xFFFFFFFFFFFFFFFF, 0x7FF800000000BEEF],
    "string64": [b"", b"x", b" ", b"\r\n,\"", b"\xff\xfe\x80", b"=1+1", b"\xc3\xa4\xe2\x82\xac", b"y" * 3000],
}
BITS = {"int32": 32, "int64": 64, "float64": 64}


def expect(name: str, seen: object, expected: object) -> None:
    if seen == expected:
        return
    if isinstance(seen, bytes) and isinstance(expected, bytes):
        at = next((i for i, (a, b) in enumerate(zip(seen, expected)) if a != b), min(len(seen), len(expected)))
        raise Failure(f"{name}: {len(seen)} bytes, {len(expected)} expected, first difference at {at}: "
                      f"{seen[at:at + 24].hex(' ')} and not {expected[at:at + 24].hex(' ')}")
    raise Failure(f"{name}: {str(seen)[:200]} and not {str(expected)[:200]}")


class Generator:
    """Random records of a schema around a time."""

    def __init__(self, schema: wire.Schema, rng: random.Random, origin: int, keys: int) -> None:
        self.schema, self.rng, self.origin = schema, rng, origin
        self.keys = [self.value(schema.types[0]) for _ in range(keys)]

    def value(self, kind: str) -> wire.Value:
        rng = self.rng
        if rng.random() < 0.2:
            edges = EDGES[kind]
            return edges[min(rng.randrange(len(edges)), rng.randrange(len(edges)))]
        if kind == "string64":
            return rng.randbytes(rng.randrange(24)).replace(b"\0", b"0")
        number = rng.getrandbits(BITS[kind])
        return number if kind == "float64" else number - (1 << BITS[kind] - 1)

    def odd(self, value: wire.Value) -> wire.Value:
        """Sometimes another form of a text that must arrive as the same text."""
        if isinstance(value, int) or self.rng.random() > 0.1:
            return value
        forms = [value, value + b"\0", value + b"\0" + self.rng.randbytes(3), value + b"\0\0"]
        return wire.Raw(self.rng.choice(forms))

    def time(self) -> int:
        """Mostly in the open buckets and the next one, sometimes later than all of them."""
        width = WINDOW_S * SECOND_US // 4
        if self.rng.random() < 0.02:
            return self.rng.choice([0, 1, self.rng.randrange(self.origin)])
        end = (self.origin // width + 2) * width
        start = max(end - 6 * width, 0)
        return min(start + self.rng.choice([self.rng.randrange(6 * width), self.rng.randrange(6) * width]), TIME_MAX)

    def records(self, count: int) -> list[wire.Record]:
        types = self.schema.types[1:]
        first = (self.rng.choice(self.keys), self.origin, *(b"" if t == "string64" else self.value(t) for t in types))
        return [first, *((self.odd(self.rng.choice(self.keys)), self.time(), *(self.odd(self.value(t)) for t in types))
                         for _ in range(count - 1))]


class Staging:
    """What the documents say of buckets and of the order in which a query finds records."""

    def __init__(self, window_s: int) -> None:
        self.width = window_s * SECOND_US // 4
        self.newest = 4
        self.buckets: dict[tuple[wire.Value, int], list[wire.Record]] = defaultdict(list)

    def place(self, record: wire.Record) -> None:
        number = record[1] // self.width
        self.newest = max(self.newest, number)
        self.buckets[record[0], max(number, self.newest - 4)].append(record)

    def find(self, key: wire.Value, time_from: int, time_to: int) -> list[wire.Record]:
        open_buckets = range(self.newest, self.newest - 5, -1)
        return [record for number in open_buckets for record in reversed(self.buckets.get((key, number), ()))
                if time_from <= record[1] <= time_to]


def send_in_pieces(producer: Producer, frames: Iterable[bytes], rng: random.Random) -> None:
    """Cuts bodies anywhere. Headers stay whole, since the server waits no more than 20 ms for their rest."""
    for data in frames:
        cut = rng.randrange(4, len(data)) if rng.random() < 0.3 else 0
        if cut:
            producer.first.sendall(data[:cut])
        producer.first.sendall(data[cut:], socket.MSG_EOR)


def split(records: list[wire.Record], schema: wire.Schema, rng: random.Random) -> Iterator[bytes]:
    at = 0
    while at < len(records):
        count = rng.choice([1, 1, 2, 3, 10, 100, 1000])
        yield schema.encode_frame(records[at:at + count])
        at += count


def first_seen(records: Iterable[wire.Record]) -> list[wire.Value]:
    return list(dict.fromkeys(record[0] for record in records))


def check_queries(session: Session, schema: wire.Schema, records: list[wire.Record], rng: random.Random) -> int:
    """Waits until the last record is placed, then compares replies."""
    staging = Staging(WINDOW_S)
    for record in records:
        staging.place(record)
    client = session.query()

    def ask(key: wire.Value, low: int, high: int, count_nul: bool = True) -> bytes:
        return client.ask(schema.encode_query(key, low, high, count_nul))

    last = records[-1][0]
    all_placed = schema.encode_records(staging.find(last, 0, 2**64 - 1))
    wait_until("the last record in a reply", lambda: ask(last, 0, 2**64 - 1) == all_placed)
    keys = first_seen(records)
    count = 60
    for _ in range(count):
        key = rng.choice(keys)
        low, high = (rng.choice([0, 2**64 - 1, *(rng.choice(records)[1] for _ in range(3))]) for _ in range(2))
        expected = schema.encode_records(staging.find(key, low, high))
        expect(f"reply for {key!r} from {low} to {high}", ask(key, low, high, rng.random() < 0.5), expected)
    if schema.types[0] == "string64":
        expect("reply for a key with a NUL inside", ask(wire.Raw(b"x\0y\0"), 0, 2**64 - 1), b"")
    return count


def check_dump(session: Session, directory: Path, schema: wire.Schema, records: list[wire.Record]) -> None:
    out = session.directory / "dump.csv"
    command = [session.binaries / "brindlectl", "dump", "--quiet", "--spec", session.spec, "--format", "csv",
               "--output", out, directory]
    # A log whose tail is torn, as a running server's mostly is, gives 1.
    status = subprocess.run(command, timeout=60, stderr=subprocess.DEVNULL).returncode
    expect("that the dump is done", status in (0, 1), True)
    rows = csv.reader(io.StringIO(out.read_bytes().decode("latin-1"), newline=""))
    out.unlink()
    expect("columns of the dump", next(rows), ["time", *schema.fields])

    def value(kind: str, text: str) -> wire.Value:
        if kind == "string64":
            return text.encode("latin-1")
        if kind != "float64":
            return int(text)
        return int(text[4:], 16) if text.startswith("nan:") else wire.float_bits(float(text))

    seen = [(value(schema.types[0], row[1]), int(row[0]), *map(value, schema.types[1:], row[2:])) for row in rows]
    expect("records of the dump", len(seen), len(records))
    for index, pair in enumerate(zip(seen, records)):
        expect(f"record {index} of the dump", *pair)


def check_log(session: Session, schema: wire.Schema, records: list[wire.Record]) -> list[wire.Record]:
    """Compares the files of a live server from which nothing was shipped. Returns the whole records on disk."""
    expected = schema.encode_log(records)
    files = wire.log_files(session.recovery)
    sizes = wire.expected_file_sizes(map(schema.stored_size, records))
    expect("log files", {number: len(data) for number, data in files.items()}, dict(enumerate(sizes, 1)))
    data = b"".join(files.values())
    expect("the log", data, expected[:len(data)])
    whole, tail = schema.parse_log(data)
    if len(expected) - len(data) >= wire.LOG_BLOCK_BYTES:
        raise Failure(f"{len(expected) - len(data)} bytes of the log are not written")
    expect("whole records and torn tail", (whole, tail),
           (records[:len(whole)], len(data) - len(schema.encode_log(records[:len(whole)]))))
    return whole


def check_replay(old: Session, copy: Path, schema: wire.Schema, whole: list[wire.Record], keys: list[wire.Value],
                 more: list[wire.Record]) -> None:
    """The copied directory in a second server, and a few records behind it."""
    with Session(old.binaries, schema.text, WINDOW_S, recover_from=copy) as session:
        session.start()
        producer = session.produce()
        producer.send(schema.encode_frame(more))
        producer.close()
        expect("status of the replaying server", session.server.wait_end(), 0)
        session.consumer.wait_ended()
        counts: Counter[wire.Record] = Counter()
        announced: list[wire.Value] = []
        for body in session.consumer.received[-1]:
            message = schema.decode_ship(body)
            announced += message.keys
            counts.update(message.records())
        after = map(wire.normalise, more)
        expect("records shipped after a replay", counts, Counter([*whole, *after]))
        order = first_seen([(key,) for key in keys] + [*whole, *map(wire.normalise, more)])
        expect("keys announced after a replay", announced, order)
        expect("the key file of the replay", (session.recovery / wire.KEY_FILE).read_bytes(),
               schema.encode_key_file(order[len(keys):], keys))


def check_schema(binaries: Path, schema: wire.Schema, count: int, rng: random.Random) -> str:
    width = WINDOW_S * SECOND_US // 4
    origin = rng.choice([1_700_000_000 * SECOND_US, 6 * width, 9 * width - 1, 2**62, TIME_MAX])
    generator = Generator(schema, rng, origin, rng.choice([1, 7, 100, 101, 350]))
    sent = generator.records(count)
    records = [wire.normalise(record) for record in sent]
    keys = first_seen(records)
    with Session(binaries, schema.text, WINDOW_S) as session:
        session.start()
        producer = session.produce()
        # The first record opens many buckets, which starts a cycle; what follows opens one more at the most.
        producer.send(schema.encode_frame(sent[:1]))
        session.server.wait_told("TShp: termination sent")
        send_in_pieces(producer, split(sent[1:], schema, rng), rng)
        queries = check_queries(session, schema, records, rng)
        whole = check_log(session, schema, records)
        copy = session.directory / "copy"
        shutil.copytree(session.recovery, copy)
        key_file = (copy / wire.KEY_FILE).read_bytes()
        expect("the key file", key_file, schema.encode_key_file(keys))
        expect("the keys read back", schema.parse_key_file(key_file), keys)
        check_dump(session, copy, schema, whole)
        producer.close()
        expect("status", session.server.wait_end(), 0)
        session.consumer.wait_ended()
        expect("names left by an orderly end", [path.name for path in session.recovery.iterdir()], [wire.KEY_FILE])
        rows = defaultdict(list)
        for record in sorted(records, key=lambda record: record[1]):
            rows[record[0]].append(record[1:])
        expected = [*schema.encode_cycle(keys[:1], [(keys[0], [])]),
                    *schema.encode_cycle(keys[1:], [(key, rows[key]) for key in keys])]
        bodies = session.consumer.received[-1]
        expect("number of ship messages", len(bodies), len(expected))
        for index, pair in enumerate(zip(bodies, expected)):
            expect(f"ship message {index}", *pair)
        check_replay(session, copy, schema, whole, keys, Generator(schema, rng, origin, 3).records(5))
    return (f"{len(schema.types)} fields, {count} records, {len(keys)} keys, {len(bodies)} messages, "
            f"{queries} replies, {len(whole)} records in the log and replayed")


def shuffled_records(count: int, rng: random.Random) -> Iterator[list[wire.Record]]:
    """Batches of records (key, time, number) up to ten windows of a second late, many of them with equal times."""
    window = SECOND_US
    step = 60 * window // count + 1
    for at in range(0, count, 500):
        yield [(rng.randrange(8), 1_700_000_000 * SECOND_US
                + max(number * step - rng.randrange(10 * window), 0) // 50_000 * 50_000, number)
               for number in range(at, min(at + 500, count))]


def check_shuffled(binaries: Path, count: int, rng: random.Random) -> str:
    schema = wire.Schema("Shuffled int32 key int64 number")
    keys, times = array("i"), array("q")
    with Session(binaries, schema.text, 1) as session:
        session.start()
        producer = session.produce()
        for batch in shuffled_records(count, rng):
            producer.first.sendall(schema.encode_frame(batch), socket.MSG_EOR)
            keys.extend(record[0] for record in batch)
            times.extend(record[1] for record in batch)
        producer.close()
        expect("status", session.server.wait_end(30 + count / 20_000), 0)
        session.consumer.wait_ended(30 + count / 20_000)
        seen = bytearray(count)
        cycles = ties = late = 0
        newest: dict[wire.Value, int] = {}
        for body in session.consumer.received[-1]:
            message = schema.decode_ship(body)
            cycles += message.kind == wire.SHIP_END
            for key, rows in message.blocks:
                for time, number in rows:
                    if seen[number] or (key, time) != (keys[number], times[number]):
                        raise Failure(f"record {number} came twice, or came as {(key, time)}")
                    seen[number] = 1
                for before, after in pairwise(rows):
                    if before >= after:
                        raise Failure(f"key {key}: {before} stands before {after} in a block of cycle {cycles + 1}")
                    ties += before[0] == after[0]
                if rows:
                    late += rows[0][0] < newest.get(key, 0)
                    newest[key] = max(rows[-1][0], newest.get(key, 0))
        expect("records received", sum(seen), count)
        expect("that there were ties, late records and cycles", (ties > 0, late > 0, cycles > 2), (True,) * 3)
    return f"{count} records, {cycles} cycles, {ties} ties in order of arrival, {late} blocks that go back in time"


def check_examples() -> str:
    """The bytes that the documents show, in their order."""
    schema = wire.Schema("Reading string64 sensor int32 status float64 value string64 unit")
    seen = []
    for name in ("wire-protocol.md", "recovery-files.md"):
        text = (Path(__file__).parents[2] / "docs" / name).read_text()
        for block in re.findall(r"```\n(.*?)```", text, re.DOTALL):
            lines = re.findall(r"^((?:[0-9a-f]{2} )*[0-9a-f]{2})(?:  |$)", block, re.MULTILINE)
            seen.append(bytes.fromhex("".join(lines)))
    start = 1_700_000_000 * SECOND_US
    first = (b"t1", start, 7, wire.float_bits(21.5), b"C")
    second = (b"t1", start + SECOND_US // 2, -2, wire.float_bits(22.0), b"")
    boiler = [b"t1", b"boiler-07"]
    expected = [
        schema.encode_frame([first, second]),
        *map(wire.frame, schema.encode_cycle([b"t1"], [(b"t1", [first[1:], second[1:]])])),
        wire.frame(schema.encode_query(b"t1", start, start + SECOND_US)),
        schema.encode_frame([second, first]),
        schema.encode_log([first, second]), schema.encode_key_file(boiler), schema.encode_key_file([b"pump-1"], boiler)]
    for index, pair in enumerate(zip(filter(None, seen), expected, strict=True)):
        expect(f"example {index}", *pair)
    return f"{len(expected)} examples"


def run(report, count: int | None, _options) -> None:
    count = count or 10_000
    shapes = {
        "one field": lambda _: [],
        "every type": lambda _: list(EDGES),
        "many fields": lambda rng: rng.choices(list(EDGES), k=rng.randrange(5, 40)),
    }
    for key in EDGES:
        for shape, fields in shapes.items():
            def body(rng: random.Random, key: str = key, fields=fields) -> str:
                types = [key, *fields(rng)]
                text = "Formats\n" + "\n".join(f"{kind} f{index}" for index, kind in enumerate(types)) + "\n"
                return check_schema(report.binaries, wire.Schema(text), max(count // 12, 100), rng)

            report.scenario(f"{key} key, {shape}", body)
    report.scenario("examples of the documents", lambda _: check_examples())
    report.scenario("shuffled input", lambda rng: check_shuffled(report.binaries, max(count, 100_000), rng))
