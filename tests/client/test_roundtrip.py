"""From a file through the server to every destination and back: what a destination holds is what the file held."""

import csv
import gzip
import io
import json
import sqlite3
import struct
import sys
import unittest
from collections.abc import Callable, Iterator
from datetime import datetime
from pathlib import Path
from types import SimpleNamespace

from postgresql import IS_INSTALLED, PostgreSQL
from running import Session, free_ports, listening_ports, wait_until
from runs import BINARIES, SANITIZED, expect, expect_same_records
from tools import START_US, Brindlectl, addresses
from wire import Record, Schema, Value, float_bits

EXAMPLES = Path(__file__).parents[2] / "examples"
NAN = 0x7FF8 << 48
BITS = [0, 1 << 63, NAN, 0x7FF0000000000001, 0xFFF8 << 48, 0x7FF << 52, 0xFFF << 52, 1, 0x7FEFFFFFFFFFFFFF,
        float_bits(0.1), float_bits(-1e22), float_bits(2.0**53)]
TEXTS = [b"", b"x" * 70000, b'"', b"a,\"b\"\r\n\t\\", b"\n", "\u00e9\U0001F600".encode(), b"\xFF\x41", b"nan", b"\\x41",
         b"\x01", b" blank ", b"007"]
SMALLS = [-2**31, 2**31 - 1, 0, -1] * 3
BIGS = [-2**63, 2**63 - 1, 0, 2**53 + 1] * 3
KEYS = {"string64": TEXTS, "int32": SMALLS, "int64": BIGS, "float64": BITS}


def bits_of(text: str) -> int:
    """Of a float64 as files have it."""
    return int(text[4:], 16) if text.startswith("nan:") else NAN if text == "nan" else float_bits(float(text))


def text_of(bits: int) -> str:
    number = struct.unpack(">d", struct.pack(">Q", bits))[0]
    return repr(number) if number == number else f"nan:{bits:016x}"


def value_of(kind: str, text: str) -> Value:
    """`text` has a character per byte."""
    return {"string64": lambda text: text.encode("latin-1"), "float64": bits_of}.get(kind, int)(text)


def records_of(schema: Schema, texts: Iterator[list[str]]) -> list[Record]:
    """Of rows in the order time, fields."""
    readers = [(lambda text, kind=kind: value_of(kind, text)) for kind in schema.types]
    return [(readers[0](key), int(time), *(read(text) for read, text in zip(readers[1:], rest)))
            for time, key, *rest in texts]


def csv_records(schema: Schema, path: Path) -> list[Record]:
    content = path.read_bytes()
    if path.suffix == ".gz":
        content = gzip.decompress(content)
    rows = csv.reader(io.StringIO(content.decode("latin-1"), newline=""))
    columns = next(rows)
    at = [columns.index(name) for name in ("time", *schema.fields)]

    def texts() -> Iterator[list[str]]:
        for row in rows:
            texts = [row[index] for index in at]
            if not texts[0].isdigit():
                texts[0] = f"{datetime.fromisoformat(texts[0]).timestamp():.0f}000000"
            yield texts

    return records_of(schema, texts())


def json_records(schema: Schema, path: Path) -> list[Record]:
    def value(kind: str, value: object) -> Value:
        if kind == "string64":
            return bytes.fromhex(value["hex"]) if isinstance(value, dict) else value.encode()
        return float_bits(value) if isinstance(value, float) else bits_of(value) if kind == "float64" else value

    lines = [json.loads(line) for line in path.read_bytes().split(b"\n")[:-1]]
    for line in lines:
        expect("members", list(line), ["time", *schema.fields])
    return [(value(schema.types[0], line[schema.fields[0]]), line["time"],
             *(value(kind, line[name]) for kind, name in zip(schema.types[1:], schema.fields[1:]))) for line in lines]


def sqlite_records(schema: Schema, path: Path) -> list[Record]:
    def value(kind: str, value: object) -> Value:
        if kind == "float64":
            return int.from_bytes(value, "big") if isinstance(value, bytes) else float_bits(value)
        return value.encode() if isinstance(value, str) else value

    with sqlite3.connect(f"file:{path}?mode=ro", uri=True) as database:
        rows = database.execute(f"SELECT * FROM {schema.name}").fetchall()
    database.close()
    return [(value(schema.types[0], row[1]), row[0], *map(value, schema.types[1:], row[2:])) for row in rows]


def postgresql_records(schema: Schema, database: PostgreSQL) -> list[Record]:
    forms = {"float64": "encode(float8send({0}), 'hex')",
             "string64": r"encode(CASE WHEN {0} LIKE '\\x%' THEN {0}::bytea ELSE convert_to({0}, 'UTF8') END, 'hex')"}
    columns = [forms.get(kind, "{0}").format(f'"{name}"') for kind, name in zip(schema.types, schema.fields)]
    rows = database.ask("SELECT (extract(epoch FROM time - '2000-01-01Z'::timestamptz) * 1000000)::bigint + "
                        f'946684800000000, {", ".join(columns)} FROM "{schema.name}"')
    read = {"float64": lambda text: int(text, 16), "string64": bytes.fromhex}
    return [(read.get(schema.types[0], int)(key), int(time),
             *(read.get(kind, int)(text) for kind, text in zip(schema.types[1:], rest))) for time, key, *rest in rows]


class RoundTrip(Brindlectl):
    @classmethod
    def setUpClass(cls) -> None:
        csv.field_size_limit(sys.maxsize)
        cls.database = PostgreSQL() if IS_INSTALLED else None
        if cls.database:
            cls.addClassCleanup(cls.database.close)

    def carry(self, schema: Schema, source: Path, destination: str, window: int) -> None:
        """A file through a server of its own to a sink of its own."""
        ports = free_ports(2)
        consumer = SimpleNamespace(ports=ports, close=lambda: None)
        with Session(BINARIES, schema.text, window, consumer) as session:
            sink = self.tool("sink", "--spec", session.spec, "--ship", addresses(ports), "--once", destination)
            wait_until("the sink", lambda: set(ports) <= listening_ports(sink.process.pid))
            session.start()
            self.ended(0, "send", "--spec", session.spec, "--data", addresses(session.data_ports), source)
            expect("status of the server", session.server.wait_end(), 0)
            expect("status of the sink, and what it told", (sink.wait_end(), sink.errors()), (0, sink.errors()))
            self.assertEqual(list(self.directory.glob("*.spool")), [])

    def everywhere(self, schema: Schema, source: Path, records: list[Record], window: int = 1) -> None:
        """csv comes from the source, jsonl from what csv is, the tables from what jsonl is."""
        folder = self.directory / source.name.partition(".")[0]
        folder.mkdir(exist_ok=True)
        table, lines, database = folder / f"csv/{schema.name}.csv", folder / "all.jsonl", folder / "all.db"
        stages: list[tuple[Path, str, Callable[[], list[Record]]]] = [
            (source, f"csv:{table.parent}", lambda: csv_records(schema, table)),
            (table, f"jsonl:{lines}", lambda: json_records(schema, lines)),
            (lines, f"sqlite:{database}", lambda: sqlite_records(schema, database))]
        if self.database:
            self.database.ask("DROP SCHEMA IF EXISTS here CASCADE; CREATE SCHEMA here; "
                              "ALTER ROLE test SET search_path = here")
            stages.append((lines, self.database.address(), lambda: postgresql_records(schema, self.database)))
        for path, destination, read in stages:
            with self.subTest(f"{schema.text} to {destination}"):
                self.carry(schema, path, destination, window)
                expect_same_records(read(), records)
        if not self.database:
            self.skipTest("PostgreSQL 15 is not installed; the other destinations are tested")

    def test_every_extreme_value(self) -> None:
        for kind, keys in KEYS.items():
            schema = Schema(f"Edge\n{kind} key\nint32 small\nint64 big\nfloat64 real\nstring64 note\n")
            records = [(key, START_US + index * 500001, *rest)
                       for index, (key, *rest) in enumerate(zip(keys, SMALLS, BIGS, BITS, TEXTS))]

            def cell(kind: str, value: Value) -> bytes:
                if kind == "string64":
                    return b'"' + value.replace(b'"', b'""') + b'"'
                return (text_of(value) if kind == "float64" else str(value)).encode()

            rows = [b"%d," % record[1] + b",".join(map(cell, schema.types, record[:1] + record[2:])) for record in records]
            source = self.file(f"{kind}.csv", b"\n".join([b"time," + ",".join(schema.fields).encode(), *rows]))
            self.everywhere(schema, source, records)

    def test_the_examples(self) -> None:
        for name, source, window in (("earthquakes", "earthquakes-2018w5.csv", 86400),
                                     ("flights", "flights-2001q1.csv.gz", 7200)):
            path = EXAMPLES / name / source
            if SANITIZED and path.suffix == ".gz":  # the first rows do
                rows = gzip.decompress(path.read_bytes()).splitlines(keepends=True)
                path = self.file("flights.csv", b"".join(rows[:20000]))
            schema = Schema((EXAMPLES / name / f"{name}.spec").read_text())
            self.everywhere(schema, path, csv_records(schema, path), window)

