"""A steady stream of numbered records, and the book that is kept about them downstream."""

import random
import struct
import threading
import time
from collections.abc import Callable

import wire
from running import Failure, Producer

PAD_BYTES = 60
SCHEMA = "Load int64 key int64 number string64 pad"
CODEC = wire.Schema(SCHEMA)
START_US = 1_700_000_000_000_000

# A record and its parts with a pad of constant size; the bytes of the pad are appended where a record is built.
RECORD = struct.Struct(">qqq")
PAD = struct.pack(">I", PAD_BYTES + 1) + b"x" * PAD_BYTES + b"\0"
SHIPPED = struct.Struct(f">qq{len(PAD)}x")
BLOCK = struct.Struct(">qQ")


class Ledger:
    """Counts how often each numbered record came, and checks types, blocks and their order. Its `take` is what a
    consumer hands the message bodies to."""

    def __init__(self) -> None:
        self.seen = bytearray()
        self.records = 0
        self.cycles = 0
        self.keys: list[int] = []
        self.faults: list[str] = []

    def take(self, body: bytes) -> None:
        kind = int.from_bytes(body[:4], "big")
        if kind == wire.SHIP_KEYS:
            self.keys += struct.unpack(f">{(len(body) - 4) // 8}q", body[4:])
        elif kind == wire.SHIP_END:
            self.cycles += 1
        elif kind == wire.SHIP_RECORDS:
            self._take_blocks(memoryview(body))
        else:
            self.faults.append(f"a message of type {kind}")

    def _take_blocks(self, body: memoryview) -> None:
        at = 4
        while at < len(body):
            key, count = BLOCK.unpack_from(body, at)
            at += BLOCK.size
            before = -1
            for stamp, number in SHIPPED.iter_unpack(body[at:at + count * SHIPPED.size]):
                if stamp < before:
                    self.faults.append(f"the block of key {key} falls from {before} to {stamp}")
                before = stamp
                if number >= len(self.seen):
                    self.seen.extend(bytes(number + 1000 - len(self.seen)))
                self.seen[number] += 1
            self.records += count
            at += count * SHIPPED.size

    def check(self, sent: int, lost: bool = False) -> int:
        """Each of the numbers below `sent` came once; with `lost`, at most once. Returns how many did not come."""
        if self.faults:
            raise Failure(self.faults[0])
        seen = self.seen[:sent]
        doubled = len(seen) - seen.count(0) - seen.count(1)
        missing = sent - len(seen) + seen.count(0)
        if doubled or len(self.seen.rstrip(b"\0")) > sent or (missing and not lost):
            raise Failure(f"{missing} of {sent} records did not come, {doubled} came more than once")
        return missing


class Feed:
    """A producer in a thread of its own that sends numbered records at a rate, their event time at the same pace."""

    def __init__(self, producer: Producer, rate: int = 20_000, keys: int = 50, late: float = 0.0,
                 new_key_every: int = 0, seed: int = 0) -> None:
        self.sent = 0  # records handed to the connection
        self._producer = producer
        self._rate = rate
        self._keys = keys
        self._late = late
        self._new_key_every = new_key_every
        self._random = random.Random(seed)
        self._stop = threading.Event()
        self._broken = ""
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def batch(self, first: int, count: int) -> bytes:
        """A frame of the records from this number on."""
        step = 1_000_000 // self._rate
        shift = first // self._new_key_every if self._new_key_every else 0
        parts = []
        for number in range(first, first + count):
            stamp = START_US + number * step
            if self._late and self._random.random() < self._late:
                stamp -= self._random.randrange(2_000_000)
            parts.append(RECORD.pack(shift + number % self._keys, stamp, number))
        return wire.frame(PAD.join(parts) + PAD)

    def _run(self) -> None:
        begun = time.monotonic()
        while not self._stop.wait(0.005):
            due = int((time.monotonic() - begun) * self._rate) - self.sent
            if due > 0:
                try:
                    self._producer.send(self.batch(self.sent, due))
                except OSError as error:
                    self._broken = str(error)
                    return
                self.sent += due

    def finish(self) -> int:
        """Stops sending, ends the stream in order and returns how many records were sent."""
        self._stop.set()
        self._thread.join()
        if self._broken:
            raise Failure(f"the server took no more records: {self._broken}")
        self._producer.close()
        return self.sent


def hold(seconds: float, look: Callable[[], None]) -> None:
    """Lets the load run, and looks at it now and then."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        look()
        time.sleep(0.2)
