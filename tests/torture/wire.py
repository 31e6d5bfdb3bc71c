"""A second codec of everything that Brindle sends, accepts and leaves on disk.

It is written from docs/wire-protocol.md and docs/recovery-files.md alone and shares no line with the server, so that
the two can be held against each other byte for byte.

A record is a tuple (key, time, field 1, ... field n-1). Integers are Python integers, texts are bytes without their
NUL, and a float64 is the 64-bit pattern of the double (see `float_bits`): records can then be compared and hashed
whatever NaN they hold. An instance of `Raw` in the place of a text is what a producer may put on the wire although no
later stage looks like that: its bytes follow the length as they are, with or without a NUL.
"""

from __future__ import annotations

import struct
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass, field
from itertools import starmap
from pathlib import Path

Value = int | bytes
Record = tuple[Value, ...]

# Struct letters of the types of fixed size; float64 stays a bit pattern.
FIXED_LETTERS = {"int32": "i", "int64": "q", "float64": "Q"}
FIELD_TYPES = (*FIXED_LETTERS, "string64")

FRAME_HEADER = struct.Struct(">I")
TERMINATION_FRAME = FRAME_HEADER.pack(0)

SHIP_KEYS = 1
SHIP_RECORDS = 2
SHIP_END = 3
SHIP_GROUP_KEYS = 100
SHIP_TYPE = struct.Struct(">I")
BLOCK_COUNT = struct.Struct(">Q")

QUERY_TYPE = 1
QUERY_HEAD = struct.Struct(">IQQ")

KEY_FILE = "KeyFile"
LOG_BLOCK_BYTES = 4096
LOG_LIMIT_BYTES = 10000   # size at which a file is closed, at first
LOG_HEAD = struct.Struct("=qi")
KEY_LENGTH = struct.Struct("=i")
KEY_LENGTH_SURE = 1024      # a number below this is always a length
KEY_LENGTH_CUT_MAX = 65535  # up to here an entry that the file cuts off is still taken for one


class FormatError(ValueError):
    """Bytes that the formats do not allow, or that end before their item does."""


class Raw(bytes):
    """The bytes of a string64 exactly as a producer sends them behind their length."""

    def text(self) -> bytes:
        return bytes(self).partition(b"\0")[0]


def float_bits(number: float) -> int:
    return struct.unpack(">Q", struct.pack(">d", number))[0]


def normalise(record: Record) -> Record:
    """The record as every stage behind the receiver sees it."""
    return tuple(value.text() if isinstance(value, Raw) else value for value in record)


class Layout:
    """A row of fields without tags or padding. `prefixed` strings have a 4-byte length that counts their NUL; the
    others end at their first NUL. Neighbours of fixed size share one compiled struct."""

    def __init__(self, types: Sequence[str], order: str, prefixed: bool) -> None:
        self.length = struct.Struct(order + "I")
        self.prefixed = prefixed
        self.parts: list[tuple[struct.Struct | None, int, int]] = []  # struct or string, first and last field
        self.fixed: struct.Struct | None = None                       # the only part, if there is no string
        self.string_indexes = [index for index, name in enumerate(types) if name == "string64"]
        start = 0
        for index in [*self.string_indexes, len(types)]:
            if index > start:
                letters = "".join(FIXED_LETTERS[name] for name in types[start:index])
                self.parts.append((struct.Struct(order + letters), start, index))
            if index < len(types):
                self.parts.append((None, index, index + 1))
            start = index + 1
        self.fixed_size = sum(part.size for part, _, _ in self.parts if part)
        if not self.string_indexes:
            self.fixed = self.parts[0][0] if self.parts else struct.Struct("")

    def size(self, values: Sequence[Value]) -> int:
        overhead = self.length.size + 1 if self.prefixed else 1
        return self.fixed_size + sum(len(values[index]) + overhead for index in self.string_indexes)

    def encode(self, values: Sequence[Value]) -> bytes:
        if self.fixed:
            return self.fixed.pack(*values)
        out = b""
        for part, first, last in self.parts:
            if part:
                out += part.pack(*values[first:last])
                continue
            text = values[first]
            if not isinstance(text, Raw):
                text += b"\0"
            out += self.length.pack(len(text)) + text if self.prefixed else text
        return out

    def encode_all(self, rows: Iterable[Sequence[Value]]) -> bytes:
        return b"".join(starmap(self.fixed.pack, rows) if self.fixed else map(self.encode, rows))

    def decode(self, data: bytes, at: int) -> tuple[Record, int]:
        """The row that begins at `at`, and where it ends; FormatError when the bytes end first."""
        values: list[Value] = []
        try:
            for part, _, _ in self.parts:
                if part:
                    values += part.unpack_from(data, at)
                    at += part.size
                elif self.prefixed:
                    size = self.length.unpack_from(data, at)[0]
                    at += self.length.size + size
                    text = data[at - size:at]
                    if size < 1 or len(text) != size or text.find(b"\0") != size - 1:
                        raise FormatError(f"text of {size} bytes that ends at {at} is cut off or has a wrong NUL")
                    values.append(bytes(text[:-1]))
                else:
                    end = data.find(b"\0", at)
                    if end < 0:
                        raise FormatError(f"no NUL behind the text at {at}")
                    values.append(bytes(data[at:end]))
                    at = end + 1
        except struct.error as error:
            raise FormatError(str(error)) from None
        return tuple(values), at

    def decode_count(self, data: bytes, at: int, count: int) -> tuple[list[Record], int]:
        if self.fixed and self.fixed.size:
            end = at + count * self.fixed.size
            if end > len(data):
                raise FormatError(f"{count} rows at {at} need {end} bytes of {len(data)}")
            return list(self.fixed.iter_unpack(memoryview(data)[at:end])), end
        rows = []
        for _ in range(count):
            row, at = self.decode(data, at)
            rows.append(row)
        return rows, at

    def decode_all(self, data: bytes, at: int = 0) -> list[Record]:
        """All rows up to the end of the data."""
        if self.fixed and self.fixed.size:
            whole, rest = divmod(len(data) - at, self.fixed.size)
            if rest:
                raise FormatError(f"{rest} bytes behind {whole} rows")
            return self.decode_count(data, at, whole)[0]
        rows = []
        while at < len(data):
            row, at = self.decode(data, at)
            rows.append(row)
        return rows


@dataclass
class ShipMessage:
    """One message to the consumer. `keys` of an announcement, `blocks` of a records message: the key and its records
    as (time, field 1, ...), that is without the key."""

    kind: int
    keys: list[Value] = field(default_factory=list)
    blocks: list[tuple[Value, list[Record]]] = field(default_factory=list)

    def records(self) -> Iterator[Record]:
        for key, rows in self.blocks:
            for row in rows:
                yield (key, *row)


class Schema:
    """The record type of a schema text, and the codecs of all its forms."""

    def __init__(self, text: str) -> None:
        words = text.split()
        if len(words) < 3 or len(words) % 2 == 0:
            raise FormatError("a schema is a name and pairs of type and field name")
        self.text = text
        self.name = words[0]
        self.types = words[1::2]
        self.fields = words[2::2]
        unknown = [name for name in self.types if name not in FIELD_TYPES]
        if unknown:
            raise FormatError(f"bad type {unknown[0]}")
        key, rest = self.types[0], self.types[1:]
        self.key_layout = Layout([key], ">", True)
        self.data_layout = Layout([key, "int64", *rest], ">", True)
        self.ship_layout = Layout(["int64", *rest], ">", True)
        self.log_layout = Layout(["int64", "int32", key, *rest], "=", False)
        self.log_value_layout = Layout(rest, "=", False)
        self.log_key_layout = Layout([key], "=", False)

    # Records, frames and queries ------------------------------------------------------------------------------------
    def encode_record(self, record: Record) -> bytes:
        return self.data_layout.encode(record)

    def encode_records(self, records: Iterable[Record]) -> bytes:
        return self.data_layout.encode_all(records)

    def encode_frame(self, records: Iterable[Record]) -> bytes:
        return frame(self.encode_records(records))

    def encode_query(self, key: Value, time_from: int, time_to: int, count_nul: bool = True) -> bytes:
        """The body of a query. A text key may have its NUL counted or left away; both must find the same."""
        plain = isinstance(key, bytes) and not count_nul
        return QUERY_HEAD.pack(QUERY_TYPE, time_from, time_to) + self.key_layout.encode([Raw(key) if plain else key])

    def decode_records(self, body: bytes) -> list[Record]:
        """Whole records, as in a data frame or the reply to a query."""
        return self.data_layout.decode_all(body)

    decode_reply = decode_records

    # Ship messages --------------------------------------------------------------------------------------------------
    def encode_keys(self, keys: Iterable[Value]) -> bytes:
        return SHIP_TYPE.pack(SHIP_KEYS) + b"".join(self.key_layout.encode([key]) for key in keys)

    def encode_blocks(self, blocks: Iterable[tuple[Value, Sequence[Record]]]) -> bytes:
        out = [SHIP_TYPE.pack(SHIP_RECORDS)]
        for key, rows in blocks:
            out += [self.key_layout.encode([key]), BLOCK_COUNT.pack(len(rows)), self.ship_layout.encode_all(rows)]
        return b"".join(out)

    def encode_cycle(self, new_keys: Iterable[Value], blocks: Sequence[tuple[Value, Sequence[Record]]]) -> list[bytes]:
        """The bodies of a whole cycle below the size at which messages are split; `blocks` has every key there is."""
        groups = range(0, len(blocks), SHIP_GROUP_KEYS)
        return [self.encode_keys(new_keys), *(self.encode_blocks(blocks[at:at + SHIP_GROUP_KEYS]) for at in groups),
                SHIP_TYPE.pack(SHIP_END)]

    def decode_ship(self, body: bytes) -> ShipMessage:
        if len(body) < SHIP_TYPE.size:
            raise FormatError(f"a ship message of {len(body)} bytes")
        message = ShipMessage(SHIP_TYPE.unpack_from(body)[0])
        at = SHIP_TYPE.size
        if message.kind == SHIP_KEYS:
            message.keys = [key for key, in self.key_layout.decode_all(body, at)]
        elif message.kind == SHIP_RECORDS:
            while at < len(body):
                (key,), at = self.key_layout.decode(body, at)
                if at + BLOCK_COUNT.size > len(body):
                    raise FormatError(f"a key block is cut off at {at}")
                count = BLOCK_COUNT.unpack_from(body, at)[0]
                rows, at = self.ship_layout.decode_count(body, at + BLOCK_COUNT.size, count)
                message.blocks.append((key, rows))
        elif message.kind != SHIP_END or at != len(body):
            raise FormatError(f"ship message of type {message.kind} with {len(body)} bytes")
        return message

    # The recovery directory -----------------------------------------------------------------------------------------
    def stored_size(self, record: Record) -> int:
        return self.log_layout.size((0, 0, record[0], *record[2:]))

    def encode_log(self, records: Iterable[Record]) -> bytes:
        """The stored form. The records are as later stages see them: no `Raw` in them."""
        value = self.log_value_layout
        if value.fixed:
            return self.log_layout.encode_all((r[1], value.fixed_size, r[0], *r[2:]) for r in records)
        return self.log_layout.encode_all((r[1], value.size(r[2:]), r[0], *r[2:]) for r in records)

    def parse_log(self, data: bytes) -> tuple[list[Record], int]:
        """The whole records of the files' bytes in order of number, and the length of the torn tail behind them."""
        layout, value_size = self.log_layout, self.log_value_layout.size
        if layout.fixed:
            whole, tail = divmod(len(data), layout.fixed.size)
            rows, _ = layout.decode_count(data, 0, whole)
        else:
            rows, at, tail = [], 0, 0
            while at < len(data):
                try:
                    row, at = layout.decode(data, at)
                except FormatError:
                    tail = len(data) - at
                    break
                rows.append(row)
        for index, row in enumerate(rows):
            if row[1] != value_size(row[3:]):
                raise FormatError(f"record {index} has {value_size(row[3:])} value bytes and says {row[1]}")
        return [(row[2], row[0], *row[3:]) for row in rows], tail

    def encode_key_file(self, seen: Iterable[Value], copied: Iterable[Value] = ()) -> bytes:
        """The keys copied by a replay, which stand first and without a length, and those seen in the run itself."""
        out = [self.log_key_layout.encode([key]) for key in copied]
        for key in seen:
            entry = self.log_key_layout.encode([key])
            out += [KEY_LENGTH.pack(len(entry)), entry] if self.types[0] == "string64" else [entry]
        return b"".join(out)

    def parse_key_file(self, data: bytes) -> list[Value]:
        """The keys of a key file as a replay reads them; FormatError where a start would call it corrupt."""
        if self.types[0] != "string64":
            return [key for key, in self.log_key_layout.decode_all(data)]
        keys: list[Value] = []
        copied_seen = False
        at = 0
        while at < len(data):
            rest = data[at:]
            if len(rest) < KEY_LENGTH.size:
                if not copied_seen or not rest.endswith(b"\0"):
                    raise FormatError(f"{len(rest)} bytes at the end of the key file")
                length = -1
            else:
                length = KEY_LENGTH.unpack_from(rest)[0]
            entry = rest[KEY_LENGTH.size:KEY_LENGTH.size + max(length, 0)]
            is_whole = len(entry) == length
            if 0 <= length < KEY_LENGTH_SURE:
                if not is_whole:
                    raise FormatError(f"the key file ends inside the key at {at}")
            elif is_whole and entry.find(b"\0") == length - 1:
                pass
            elif KEY_LENGTH_SURE <= length <= KEY_LENGTH_CUT_MAX and not is_whole:
                pass
            else:
                end = rest.find(b"\0")
                if end < 0:
                    raise FormatError(f"no NUL behind the copied key at {at}")
                copied_seen = True
                keys.append(rest[:end])
                at += end + 1
                continue
            keys.append(entry.partition(b"\0")[0])
            at += KEY_LENGTH.size + len(entry)
        return keys


def expected_file_sizes(record_sizes: Iterable[int]) -> list[int]:
    """The sizes on disk of the files of a log from which nothing was shipped; the last one is open and has whole blocks
    only. Holds while no record fills a file alone."""
    sizes, limit, closed_bytes = [], LOG_LIMIT_BYTES, 0
    written = filled = 0
    for size in record_sizes:
        blocks, filled = divmod(filled + size, LOG_BLOCK_BYTES)
        written += blocks * LOG_BLOCK_BYTES
        if written >= limit:
            sizes.append(written + filled)
            closed_bytes += sizes[-1]
            written = filled = 0
            if closed_bytes > 5 * limit:
                limit *= 10
    return [*sizes, written]


def frame(body: bytes) -> bytes:
    return FRAME_HEADER.pack(len(body)) + body


class FrameDecoder:
    """Collects frames from pieces of any size."""

    def __init__(self) -> None:
        self.buffer = bytearray()

    def feed(self, data: bytes) -> list[bytes]:
        """The bodies that are complete now, in order."""
        self.buffer += data
        bodies = []
        at = 0
        while len(self.buffer) - at >= FRAME_HEADER.size:
            end = at + FRAME_HEADER.size + FRAME_HEADER.unpack_from(self.buffer, at)[0]
            if end > len(self.buffer):
                break
            bodies.append(bytes(self.buffer[at + FRAME_HEADER.size:end]))
            at = end
        del self.buffer[:at]
        return bodies


def log_files(directory: Path) -> dict[int, bytes]:
    """The log files of a recovery directory by number, ascending; FormatError for a name that must not be there."""
    files = {}
    for path in directory.iterdir():
        if path.name == KEY_FILE or path.name.startswith("."):
            continue
        number = path.name[1:]
        if path.name[0] != "F" or not number.isdecimal() or number.startswith("0"):
            raise FormatError(f"illegal name {path.name} in the recovery directory")
        files[int(number)] = path.read_bytes()
    return dict(sorted(files.items()))
