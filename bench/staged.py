"""What the measurements of goals.py stand on: a server that takes what it is sent, and other tools run with it."""

import json
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "torture"))

import wire  # noqa: E402
from running import Consumer, Failure, Producer, QueryClient, Server, Session, die_with_parent, free_ports  # noqa: E402
from running import wait_until  # noqa: E402

TICK = wire.Schema("Tick int64 symbol int64 sequence float64 price int32 size")  # a value of 20 stored bytes
METER = wire.Schema("Meter int64 meter float64 value")                           # a value of 8
PRICE = wire.float_bits(100.25)
MARKER = 1  # a key that no workload has
GOLDEN = 0x9E3779B97F4A7C15
START_US = 1_700_000_000_000_000
SECOND_US = 1_000_000
WINDOW_BUCKETS = 4  # buckets a window is wide
FRAME_RECORDS = 2000
STALL, QUICK_STALL = 60, 15  # seconds
PATIENCE = 300.0  # seconds for what takes some
CYCLE_BEGUN = "TShp: Starting.."
CYCLE_ENDED = "TShp: termination sent"


@dataclass
class Setting:
    """What all measurements share."""

    binaries: Path
    quick: bool = False  # fewer samples
    stall: int = 0       # seconds, 0: as many as are usual
    rate: int = 0        # records per second at most while the consumer stalls, 0: flat out

    def __post_init__(self) -> None:
        self.stall = self.stall or (QUICK_STALL if self.quick else STALL)

    @contextmanager
    def server(self, schema: wire.Schema, window: int) -> Iterator["Staged"]:
        consumer = Consumer(on_body=lambda _: None)
        consumer.chunk = 1 << 20
        with Session(self.binaries, schema.text, window, consumer) as session:
            session.start()
            yield Staged(schema, window, session.server, session.produce(), session.query())


@dataclass
class Staged:
    """A server with a producer, a consumer that takes everything, and a query client."""

    schema: wire.Schema
    window: int  # seconds
    server: Server
    producer: Producer
    client: QueryClient

    def __post_init__(self) -> None:
        # Or a small frame waits until the one before is acknowledged.
        for connection in (self.producer.first, self.client.requests):
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    @property
    def bucket_us(self) -> int:
        return self.window * SECOND_US // WINDOW_BUCKETS

    def start_us(self) -> int:
        """The beginning of a bucket."""
        return START_US - START_US % self.bucket_us

    def send(self, records: list[wire.Record]) -> None:
        for first in range(0, len(records), FRAME_RECORDS):
            self.producer.send(self.schema.encode_frame(records[first:first + FRAME_RECORDS]))

    def mark(self, time_us: int) -> None:
        """One record, of a key of its own."""
        row = (MARKER, time_us, PRICE) if self.schema is METER else (MARKER, time_us, 0, PRICE, 0)
        self.send([row])

    def settle(self, time_us: int) -> None:
        """Waits until everything sent so far is staged and no cycle runs. No marker of this time was sent before."""
        self.mark(time_us)
        query = self.schema.encode_query(MARKER, time_us, time_us)
        wait_until("the last record in a reply", lambda: self.client.ask(query), PATIENCE)
        wait_until("the end of a cycle", lambda: self.server.errors().count(CYCLE_BEGUN) == self.cycles(), PATIENCE)

    def cycles(self) -> int:
        return self.server.errors().count(CYCLE_ENDED)

    def wait_cycle(self, before: int) -> None:
        """Until a cycle that was begun since has come to its end, and its thread sleeps."""
        wait_until("the end of a cycle", lambda: self.cycles() > before, PATIENCE)
        time.sleep(0.02)

    def cpu_seconds(self, thread: str = "") -> float:
        """Of the process, or of its thread of this name."""
        return sum(self._scheduled(0, thread)) / 1e9

    def waiting_seconds(self) -> float:
        """That the server's threads and this one could have run and had no core."""
        return (sum(self._scheduled(1)) + int(Path("/proc/self/schedstat").read_text().split()[1])) / 1e9

    def _scheduled(self, column: int, thread: str = "") -> Iterator[int]:
        for task in Path(f"/proc/{self.server.pid}/task").iterdir():
            if not thread or (task / "comm").read_text().strip() == thread:
                yield int((task / "schedstat").read_text().split()[column])


def keys(count: int) -> list[int]:
    """Whose neighbours in order are not neighbours in arrival."""
    return [(rank * GOLDEN & (1 << 64) - 1) >> 1 for rank in range(2, count + 2)]


def drive(setting: Setting, tool: str, system: str, window: int, options: Iterable[object], seconds: float) -> dict:
    """Runs a tool of the bench with a system on free ports, and returns what the tool tells."""
    ports = [str(port) for port in free_ports(6)]
    directory = Path(tempfile.mkdtemp(prefix="brindle-goals-"))
    recovery, spec = directory / "recovery", directory / "schema.spec"
    recovery.mkdir()
    started: list[subprocess.Popen] = []

    def start(program: str, *words: object) -> subprocess.Popen:
        with (directory / program).open("w") as errors:
            started.append(subprocess.Popen(
                [setting.binaries / program, *map(str, words)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                stderr=errors, text=True, preexec_fn=die_with_parent))
        return started[-1]

    try:
        driver = start(tool, *options, "--spec", spec, "--ship", ",".join(ports[:2]), "--data", ",".join(ports[2:4]))
        if driver.stdout.readline():
            start(system, spec, recovery, "127.0.0.1", *ports[:4], window, *ports[4:])
        output = driver.communicate(timeout=seconds)[0]
        result = json.loads(output or '{"verified": false, "reason": "the driver did not say"}')
        if not result["verified"]:
            raise Failure(f"{system}: {result['reason']}\n{(directory / system).read_text()[-600:]}")
        return result
    except subprocess.TimeoutExpired:
        raise Failure(f"{system}: no end within {seconds:.0f} s") from None
    finally:
        for process in started:
            process.kill()
            process.wait()
        shutil.rmtree(directory, ignore_errors=True)
