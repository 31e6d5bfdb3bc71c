"""SIGKILL at random points, a restart with the old directory, and an account of every record.

The model that each generation of a server is held against. Its arrivals are the whole records of the directory that it
replays, in the order of its files, and then those of the producer. Of the arrivals

1. the files hold runs in order of arrival, each file whole records only, but for the end of the newest; between files
   with neighbouring numbers nothing is missing;
2. a run that is missing before a file was in removed files, so each of its records was marked, that is gathered into a
   message: it was received, or it was in the one message of a records group that was being built or sent at the end,
   whose keys are known. The exception is the last record of the run, which may be lost whole: it closed its file, so
   it counted in the next one. A kill between two cycles therefore costs no more than such records;
3. what was read and is beyond the end of the files is at most 4095 bytes in stored form, counted from the last byte on
   disk. Read is what was received, found by a query, announced or in the key file, what the producer's stream held up
   to the last whole frame before the one at hand (bytes sent, less those in either socket's queue), and all that was
   replayed once the data ports are open;
4. what is received is received once in this generation, sorted by time and arrival in its block, under a key that was
   announced before, in the order of the keys, 100 keys to a message;
5. no closed file is left of which everything that it counts was received;
6. the key file holds the keys of the old one, copied, and then new ones in the order first seen, and nothing else.

The last generation ends in an orderly way: it ships all of its arrivals and leaves nothing but its key file. A record
that no generation delivered must have been lost by 2 or 3 in one of them, or not provably have been read. A replayed
directory stays as it is, a record that is torn at its end is told, and a kill in the middle of a replay is followed by
another replay of the same directory.

A seed repeats the records, the kinds of the kills and what they wait for; when exactly they strike is up to the
machine.
"""

from __future__ import annotations

import os
import random
import shutil
import signal
import socket
import threading
from collections import Counter
from collections.abc import Callable
from contextlib import suppress
from pathlib import Path

import wire
from running import Consumer, Failure, Producer, Session, wait_until

ORIGIN_US = 1_700_000_000_000_000
TAIL_MAX = wire.LOG_BLOCK_BYTES - 1
KEY_TYPES = ("int32", "int64", "float64", "string64")
NARROW_WINDOW_S, WIDE_WINDOW_S = 1, 1_000_000
STALLED_RECORDS = 8000  # of 1 kB: more than the send buffer of a connection grows to
KINDS = ("any moment", "inside a frame", "new file", "inside a cycle", "stalled", "between cycles", "final job")


def key_value(kind: str, index: int) -> wire.Value:
    return {"int32": index * 104_729 - 2**30, "int64": (index << 40) - 2**42, "float64": wire.float_bits(index / 7 - 5),
            "string64": b"key-%d-" % index + b"x" * (index % 13)}[kind]


class Chain:
    """What outlives a generation: the records made so far, the directory to replay, and where each record went."""

    def __init__(self, binaries: Path, kind: str, rng: random.Random) -> None:
        self.binaries, self.rng = binaries, rng
        self.schema = wire.Schema(f"Kill {kind} key int64 number string64 padding")
        self.records: list[wire.Record] = []
        self.time = ORIGIN_US
        self.step = rng.randrange(500, 20_000)
        self.keys = rng.choice([1, 5, 60, 230])
        self.old: Path | None = None
        self.old_files: dict[str, bytes] = {}
        self.warns = False  # the next replay, of a record that is cut off
        self.replayed: list[wire.Record] = []
        self.copied: list[wire.Value] = []
        self.received: set[int] = set()
        self.lost: dict[int, str] = {}
        self.tail_bytes = 0
        self.story: list[str] = []
        self.directories: list[Path] = []

    def make(self, count: int, padding: int) -> list[wire.Record]:
        """Records with numbers of their own; one in ten is late, and every generation has some new keys."""
        rng, made = self.rng, []
        self.keys += rng.randrange(4)
        for _ in range(count):
            self.time += rng.randrange(2 * self.step)
            late = rng.randrange(3_000_000) if rng.random() < 0.1 else 0
            key = key_value(self.schema.types[0], rng.randrange(self.keys))
            number = len(self.records) + len(made)
            made.append((key, self.time - late, number, b"%d" % number + b"." * rng.randrange(padding)))
        self.records += made
        return made

    def close(self) -> str:
        """After the orderly end: every record has a place."""
        missing = [record[2] for record in self.records if record[2] not in self.received]
        unexplained = [number for number in missing if number not in self.lost]
        if unexplained:
            raise Failure(f"{len(unexplained)} records went nowhere, the first is {unexplained[0]}")
        for directory in self.directories:
            shutil.rmtree(directory)
        reasons = Counter(self.lost[number] for number in missing)
        losses = ", ".join(f"{reasons[reason]} {reason}" for reason in sorted(reasons)) or "none lost"
        return (f"{' > '.join(self.story)}: {len(self.records)} records, {len(self.received)} received; {losses}; "
                f"{self.tail_bytes} bytes in the longest tail")


class Stream:
    """What the consumer got in one generation, checked on the way."""

    def __init__(self, schema: wire.Schema, arrivals: list[wire.Record]) -> None:
        self.schema, self.arrivals = schema, arrivals
        self.position = {record[2]: index for index, record in enumerate(arrivals)}
        self.got: set[int] = set()
        self.announced: list[wire.Value] = []
        self.group: int | None = None  # in a cycle, the number of record messages that came

    def next_group(self) -> list[wire.Value]:
        """The keys whose records may have been marked for a message that did not come."""
        if self.group is None:
            return []
        at = self.group * wire.SHIP_GROUP_KEYS
        return self.announced[at:at + wire.SHIP_GROUP_KEYS]

    def take(self, body: bytes) -> None:
        message = self.schema.decode_ship(body)
        if (message.kind == wire.SHIP_KEYS) != (self.group is None):
            raise Failure(f"a message of type {message.kind} at the wrong place of a cycle")
        if message.kind == wire.SHIP_KEYS:
            self.group = 0
            self.announced += message.keys
        elif message.kind == wire.SHIP_END:
            if self.next_group():
                raise Failure(f"a cycle ends after {self.group} groups of {len(self.announced)} keys")
            self.group = None
        else:
            if not message.blocks or [key for key, _ in message.blocks] != self.next_group():
                raise Failure(f"group {self.group} of a cycle has {len(message.blocks)} keys, and not the "
                              f"{len(self.next_group())} announced ones")
            self.group += 1
            for key, rows in message.blocks:
                self._take_block(key, rows)

    def _take_block(self, key: wire.Value, rows: list[wire.Record]) -> None:
        places = [(row[0], self.position.get(row[1], -1)) for row in rows]
        for row, (_, place) in zip(rows, places):
            if place < 0 or self.arrivals[place] != (key, *row):
                raise Failure(f"received {(key, *row)}, which this server never got")
            if place in self.got:
                raise Failure(f"record {row[1]} came twice in one run")
            self.got.add(place)
        if places != sorted(places):
            raise Failure(f"a block of key {key!r} is not in order of time and arrival")


class Feeder(threading.Thread):
    """Sends frames from a thread of its own and counts the bytes that the kernel took."""

    def __init__(self, producer: Producer, frames: list[bytes]) -> None:
        super().__init__(daemon=True)
        self.producer, self.frames, self.sent = producer, frames, 0
        self.start()

    def run(self) -> None:
        for data in map(memoryview, self.frames):
            while data:
                try:
                    count = self.producer.first.send(data, socket.MSG_EOR)
                except OSError:
                    return
                self.sent += count
                data = data[count:]

    def surely_read(self, port: int) -> int:
        """A lower bound of the bytes that the server has taken from its socket, whatever moves meanwhile."""
        acknowledged = self.sent - self.producer.unread()
        ends = [f":{port:04X}", f":{self.producer.first.getsockname()[1]:04X}"]
        for line in Path("/proc/net/tcp").read_text().splitlines()[1:]:
            row = line.split()
            if row[1].endswith(ends[0]) and row[2].endswith(ends[1]):
                return acknowledged - int(row[4].split(":")[1], 16)
        return 0


class Generation:
    """One server, from its start to its kill or end."""

    def __init__(self, chain: Chain, window: int, narrow: bool) -> None:
        self.chain, self.rng = chain, chain.rng
        self.bodies: list[bytes] = []
        self.pairs = 1
        self.pause_at = self.stop_at = 0  # numbers of messages, from 1; 0 for never
        self.session = Session(chain.binaries, chain.schema.text, window, Consumer(self._on_body, narrow), chain.old)
        chain.directories.append(self.session.keep())
        self.arrivals = list(chain.replayed)
        self.frame_ends: list[tuple[int, int]] = []  # bytes of the stream, arrivals
        self.proved = 0
        self.ready = False

    def _on_body(self, body: bytes) -> None:
        if len(self.session.consumer.received) != self.pairs:  # a start that found a port taken was tried again
            self.pairs = len(self.session.consumer.received)
            self.bodies.clear()
        self.bodies.append(body)
        if len(self.bodies) == self.pause_at:
            self.session.consumer.paused = True
        if len(self.bodies) == self.stop_at:
            with suppress(ProcessLookupError):
                os.kill(self.session.server.pid, signal.SIGSTOP)

    def feed(self, count: int, kind: str) -> Feeder:
        rng, frames, at = self.rng, [], 0
        # What a consumer that stands still does not take must fill the buffers of the connection.
        made = self.chain.make(count, 2000 if kind == "stalled" else rng.choice([20, 60, 300]))
        while at < count:
            size = min(rng.choice([1, 3, 20, 100]), max(count - 1 - at, 1))  # one in the last, which proves the others
            frames.append(self.chain.schema.encode_frame(made[at:at + size]))
            at += size
            total = self.frame_ends[-1][0] if self.frame_ends else 0
            self.frame_ends.append((total + len(frames[-1]), len(self.arrivals) + at))
        self.arrivals += made
        if kind == "inside a frame":
            frames[-1] = frames[-1][:rng.randrange(5, len(frames[-1]))]
        self.producer = self.session.produce()
        self.feeder = Feeder(self.producer, frames)
        return self.feeder

    def all_read(self) -> bool:
        whole = sum(map(len, self.feeder.frames))
        return self.feeder.surely_read(self.session.data_ports[0]) == whole

    def struck(self) -> bool:
        """Whether the server stands still, or is no more."""
        try:
            return Path(f"/proc/{self.session.server.pid}/stat").read_text().rpartition(")")[2].split()[0] in "TZ"
        except FileNotFoundError:
            return True

    def stop_after(self, most: int) -> None:
        """Lets the consumer stop the server in the middle of what follows."""
        self.stop_at = len(self.bodies) + self.rng.randrange(1, most)

    def strike(self) -> None:
        """Kills, half of the time after a stop in which the sockets stand still to be measured."""
        server = self.session.server
        if self.rng.random() < 0.5 and server.running():
            os.kill(server.pid, signal.SIGSTOP)
            wait_until("the server to stand still", self.struck)
        if self.ready:
            read = self.feeder.surely_read(self.session.data_ports[0])
            frames = [count for end, count in self.frame_ends if end < read]
            self.proved = max(self.proved, len(self.chain.replayed), *frames[-1:])
        server.kill()
        status = server.process.returncode
        if status not in (-signal.SIGKILL, 0) or "Internal Error" in server.errors():
            raise Failure(f"the server ended by itself with {status}: {server.errors()[-300:]}")

    def live(self, kind: str, count: int) -> None:
        """Starts, feeds, and kills at the point that `kind` names; `end` is the orderly end."""
        rng, session = self.rng, self.session
        consumer = session.consumer
        if kind == "during replay":
            session.launch()
            wait_until("the ship connections", lambda: consumer.received)
            if rng.random() < 0.7:
                self.stop_after(200)
                wait_until("a message during the replay", lambda: self.struck() or session.ready())
            else:
                session.server.wait_told(f"Recovered {rng.choice([1, 10, 1000, 4000])} records")
            self.strike()
            return
        session.start()
        self.ready = True
        wait_until("the ship connections", lambda: consumer.received)
        if kind == "stalled":
            self.pause_at = len(self.bodies) + rng.randrange(1, 12)
        if kind == "inside a cycle":
            self.stop_after(60)
        feeder = self.feed(count, kind)
        if kind == "any moment":
            enough = rng.randrange(sum(map(len, feeder.frames)))
            wait_until("some bytes to be sent", lambda: feeder.sent >= enough)
        elif kind == "new file":
            path = session.recovery / f"F{rng.randrange(2, 9)}"
            wait_until("a new file", lambda: any(path.exists() for _ in range(200)) or self.all_read())
        elif kind == "inside a cycle":
            wait_until("a message in a cycle", lambda: self.struck() or self.all_read())
        else:
            wait_until("everything to be read", self.all_read)
        if kind == "between cycles":
            self._settle()
        if kind in ("final job", "end"):
            by_message = kind == "final job" and rng.random() < 0.5
            if by_message:
                self.stop_after(5)
            self.producer.first.shutdown(socket.SHUT_WR)
            if kind == "end":
                session.server.wait_end()
            elif by_message:
                wait_until("a message of the final job", self.struck)
            else:
                session.server.wait_told(rng.choice(["Shutting down", "shipping everything", " TShp: Terminating.."]))
        self.strike()
        if "Shutting down" in session.server.errors():
            self.proved = len(self.arrivals)

    def _settle(self) -> None:
        """Waits until the last record is placed and no cycle runs."""
        schema, last = self.chain.schema, self.arrivals[-1]
        client, errors = self.session.query(), self.session.server.errors
        request = schema.encode_query(last[0], 0, 2**64 - 1)
        wait_until("the last record in a reply", lambda: last in schema.decode_reply(client.ask(request)))
        self.proved = len(self.arrivals)
        wait_until("the end of a cycle", lambda: errors().count("Starting..") == errors().count("termination sent"))

    def account(self) -> None:
        """Holds what is left against the model and hands the directory on."""
        chain, schema, arrivals = self.chain, self.chain.schema, self.arrivals
        self.session.consumer.paused = False
        self.session.consumer.wait_ended()
        stream = Stream(schema, arrivals)
        for body in self.bodies:
            stream.take(body)
        self._check_old()
        if self.session.server.process.returncode == 0:
            left = [path.name for path in self.session.recovery.iterdir()]
            if len(stream.got) != len(arrivals) or stream.group is not None or left != [wire.KEY_FILE]:
                raise Failure(f"{len(stream.got)} of {len(arrivals)} records came by an orderly end that left {left}")
        files = {number: (data, *schema.parse_log(data)) for number, data in
                 wire.log_files(self.session.recovery).items()}
        newest = max(files, default=0)
        end, before, tail, data = 0, 0, 0, b""
        for number, (data, rows, tail) in files.items():
            first = stream.position.get(rows[0][2], -1) if rows else end
            if first < end or arrivals[first:first + len(rows)] != rows or (first > end and number == before + 1):
                raise Failure(f"F{number} does not hold a run of the arrivals from {end} on")
            self._check_gap(stream, end, first)
            counted = {*range(max(first - 1, 0), first + len(rows) - 1)}
            if number != newest:
                if tail or not rows:
                    raise Failure(f"F{number} is closed, with {len(rows)} records and a torn tail of {tail} bytes")
                if counted <= stream.got:
                    raise Failure(f"F{number} is left, although all that it counts was received")
            if rows or number == before + 1:
                end, before = first + len(rows), number
        sure_end = before == newest and newest > 0
        newest_size = len(files[newest][0]) if files else 0
        flushed = "TMain Gathered TOrg" in self.session.server.errors()
        maybe_closed = (newest_size >= wire.LOG_LIMIT_BYTES or flushed) and tail == 0
        if newest_size % wire.LOG_BLOCK_BYTES and not maybe_closed:
            raise Failure(f"the open file F{newest} has {newest_size} bytes")
        self._check_keys(stream)
        self._check_tail(stream, end, tail, sure_end, maybe_closed)
        chain.received |= {arrivals[place][2] for place in stream.got}
        if self.ready:
            chain.old = self.session.recovery
            chain.old_files = {path.name: path.read_bytes() for path in chain.old.iterdir()}
            chain.replayed = [row for _, rows, _ in files.values() for row in rows]
            chain.warns = tail > 0 and not self._cut_between_fields(data[-tail:])

    def _cut_between_fields(self, torn: bytes) -> bool:
        """A record that is cut there ends a replay without a warning."""
        head = wire.LOG_HEAD.size
        if len(torn) <= head:
            return len(torn) == head
        fixed_size = self.chain.schema.log_key_layout.fixed_size
        key_end = head + fixed_size if fixed_size else torn.find(b"\0", head) + 1
        return len(torn) in (key_end, key_end + 8)

    def _check_old(self) -> None:
        """The replayed directory is as it was, and a torn record in it was told."""
        chain = self.chain
        if chain.old and {path.name: path.read_bytes() for path in chain.old.iterdir()} != chain.old_files:
            raise Failure(f"the replayed directory {chain.old} has changed")
        warned = self.session.server.errors().count("WARNING: Incomplete recovery file")
        if self.ready and warned != chain.warns:
            raise Failure(f"{warned} warnings of an incomplete file in {chain.old}")

    def _lose(self, place: int, reason: str) -> None:
        number = self.arrivals[place][2]
        if number not in self.chain.received:
            self.chain.lost[number] = reason

    def _check_gap(self, stream: Stream, start: int, end: int) -> None:
        marked = set(stream.next_group())
        for place in range(start, end):
            if place in stream.got:
                continue
            if self.arrivals[place][0] in marked:
                self._lose(place, "in the message at hand")
            elif place == end - 1:
                self._lose(place, "that closed a removed file")
            else:
                raise Failure(f"record {self.arrivals[place][2]} was in a removed file and never received")

    def _check_tail(self, stream: Stream, end: int, torn: int, sure_end: bool, maybe_closed: bool) -> None:
        """`end` is the first arrival beyond the files. When the newest file is empty, or was removed before the next
        one was made, the files do not tell where it stands; then it is as early as the tail allows."""
        proved = max([self.proved, end, *(place + 1 for place in stream.got)])
        sizes = [self.chain.schema.stored_size(record) for record in self.arrivals[end:proved]]
        begin, size = end, sum(sizes) - torn
        if size > TAIL_MAX and (not sure_end or maybe_closed):
            while size > TAIL_MAX:
                size -= sizes[begin - end]
                begin += 1
            self._check_gap(stream, end, begin)
        if size > TAIL_MAX:
            raise Failure(f"{size} bytes were read and are not in the files, {proved - end} records from "
                          f"{self.arrivals[end][2]} on")
        self.chain.tail_bytes = max(self.chain.tail_bytes, size)
        for place in range(begin, len(self.arrivals)):
            if place not in stream.got:
                self._lose(place, "in the tail" if place < proved else "not read")

    def _check_keys(self, stream: Stream) -> None:
        chain = self.chain
        first_places: dict[wire.Value, int] = dict.fromkeys(chain.copied, 0)
        for place, record in enumerate(self.arrivals):
            first_places.setdefault(record[0], place)
        order = list(first_places)
        data = (self.session.recovery / wire.KEY_FILE).read_bytes()
        expected = chain.schema.encode_key_file(order[len(chain.copied):], chain.copied)
        keys = chain.schema.parse_key_file(data)
        if keys != order[:len(keys)] or data != expected[:len(data)] or len(keys) < len(chain.copied):
            raise Failure(f"the key file has {len(keys)} keys in {len(data)} bytes, not the {len(chain.copied)} copied "
                          "ones and then those of the arrivals in order")
        if stream.announced != keys[:len(stream.announced)]:
            raise Failure("the announced keys are not the first of the key file")
        if keys:
            self.proved = max(self.proved, max(first_places[key] for key in keys) + 1 if self.arrivals else 0)
        if self.ready:
            chain.copied = keys


def run_chain(binaries: Path, kind: str, rng: random.Random, kills: list[str], count: int) -> str:
    """One generation for each of the kills, and a last one that ends in an orderly way."""
    chain = Chain(binaries, kind, rng)
    for index, point in enumerate([*kills, "end"]):
        # What is to be replayed for long must not be shipped before.
        wide = "during replay" in kills[index + 1:] and point != "during replay"
        generation = Generation(chain, WIDE_WINDOW_S if wide else NARROW_WINDOW_S, point == "stalled")
        chain.story.append(point)
        try:
            with generation.session:
                sizes = {"stalled": STALLED_RECORDS, "end": count}
                generation.live(point, 10 * count if wide else sizes.get(point, rng.randrange(count // 4, count)))
                generation.account()
        except (Failure, OSError, ValueError) as failure:
            (generation.session.directory / "received").write_bytes(b"".join(map(wire.frame, generation.bodies)))
            paths = ", ".join(map(str, chain.directories[-2:]))
            raise Failure(f"{' > '.join(chain.story)}: {failure}; directories kept: {paths}") from None
    return chain.close()


def run(report, count: int | None, _options) -> None:
    rounds = count or 20
    full = rounds >= 100

    def add(name: str, index: int, kills: Callable[[random.Random], list[str]], records: int = 2500) -> None:
        kind = KEY_TYPES[index % len(KEY_TYPES)]
        report.scenario(f"{name} {index:03}, {kind}",
                        lambda rng: run_chain(report.binaries, kind, rng, kills(rng), records))

    for index in range(rounds):
        add("round", index, lambda rng: rng.choices(KINDS, k=rng.randrange(1, 5)))
    for index in range(60 if full else 20):
        add("between cycles", index, lambda _: ["between cycles"])
    for index in range(30 if full else 10):
        add("inside a cycle", index, lambda rng: [rng.choice(["inside a cycle", "stalled"])])
    for index in range(10 if full else 5):
        add("during replay", index, lambda _: ["inside a frame", "during replay", "during replay", "any moment"])
    for index in range(3 if full else 1):
        for place in (KEY_TYPES.index("int64"), KEY_TYPES.index("string64")):
            add("chain of 20", place + len(KEY_TYPES) * index, lambda rng: rng.choices(KINDS, k=19), 800)
