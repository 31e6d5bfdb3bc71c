"""A supervised server, its supervisor and its sink are killed at random, over `count` generations of each scenario.

Nothing that was on disk is lost: a producer that never sends anything twice, and records that stay staged until an
orderly end. After each kill of the supervisor what the log files hold must still be there, or have been received.
Every record is once in the table: a sender with numbers, the SQLite sink, and kills of everybody.
"""

import fcntl
import os
import random
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
import tempfile
import time
from contextlib import suppress
from pathlib import Path

import wire
from running import Failure, die_with_parent, free_ports, wait_until

SCHEMA = "Load int64 key int64 number string64 pad"
SHORT_GENERATIONS = 10
START_US = 1_700_000_000_000_000
ROWS, ROW_US, RATE = 2000, 1000, 6000
SENT, TRY_AGAIN, UNAVAILABLE = 0, 75, 69
STARTS_MAX = 40  # of a sender in a round


class Supervised:
    """A directory with a configuration, and the processes that live by it."""

    def __init__(self, binaries: Path, window: str, ship_ports: list[int]) -> None:
        self.binaries = binaries
        self.directory = Path(tempfile.mkdtemp(prefix="brindle-supervise-"))
        ports = [port for port in free_ports(6) if port not in ship_ports]
        self.ship_ports, self.data_ports = ship_ports, ports[:2]
        self.spec = self.directory / "load.spec"
        self.spec.write_text(SCHEMA)
        pairs = {"ship": ship_ports, "data": ports[:2], "query": ports[2:4]}
        config = self.directory / "load.toml"
        self.command = ["load", "--config", config]
        config.write_text(f'spec = "load.spec"\nwindow = "{window}"\nstate = "state"\n' + "".join(
            f'{key} = "{first},{second}"\n' for key, (first, second) in pairs.items()))
        self.state = self.directory / "state" / "load"
        self.log_path = self.directory / "log"
        self.log = self.log_path.open("ab")
        self._log_kept = ""
        self.log_seen = 0  # characters that were there when the supervisor was started
        self.processes: dict[str, subprocess.Popen[bytes]] = {}
        self.kills = {"server": 0, "supervisor": 0, "sink": 0}

    def start(self, who: str, verb: str, *arguments: object) -> subprocess.Popen[bytes]:
        self.processes[who] = subprocess.Popen(
            [self.binaries / "brindlectl", verb, *map(str, arguments)], stdin=subprocess.DEVNULL, stdout=self.log,
            stderr=self.log, preexec_fn=die_with_parent)
        return self.processes[who]

    def supervise(self) -> None:
        self.log_seen = len(self.told())
        self.start("supervisor", "run", *self.command)

    def runs(self, who: str) -> bool:
        return who in self.processes and self.processes[who].poll() is None

    def servers(self) -> list[int]:
        """The processes of all starts so far."""
        return [int(pid) for pid in re.findall(r" started as process (\d+)", self.told())]

    def kill(self, who: str) -> None:
        """With SIGKILL; nothing where there is nobody."""
        if who != "server":
            if self.runs(who):
                self.kills[who] += 1
                self.processes[who].kill()
                self.processes[who].wait()
            return
        with suppress(OSError, IndexError):
            pid = self.servers()[-1]
            descriptor = os.pidfd_open(pid)
            # The number may be another process's by now.
            if Path(f"/proc/{pid}/stat").read_text().split()[3] == str(self.processes["supervisor"].pid):
                signal.pidfd_send_signal(descriptor, signal.SIGKILL)
                self.kills["server"] += 1
            os.close(descriptor)

    def ready(self) -> bool:
        """Whether the newest server was ready once; the supervisor's word, as nothing may connect before."""
        last = self.told()[self.log_seen:].rpartition(" started as process ")
        return bool(last[1]) and " is ready after " in last[2] and "ended " not in last[2]

    def told(self) -> str:
        return self._log_kept or self.log_path.read_text(errors="replace")

    def wait_unlocked(self) -> None:
        """Until neither a supervisor nor its server lives: the server must not outlive its supervisor."""
        def free() -> bool:
            try:
                with (self.state / "lock").open() as lock:
                    fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                return False
            except FileNotFoundError:
                return True
            return True

        wait_until("the end of the supervisor's server", free)

    def close(self) -> None:
        for process in self.processes.values():
            process.kill()
            process.wait()
        self.log.close()

    def remove(self) -> None:
        """What a failure leaves stays for whoever looks into it."""
        self._log_kept = self.told()
        shutil.rmtree(self.directory, ignore_errors=True)


def on_disk(crew: Supervised, schema: wire.Schema) -> set[int]:
    """The numbers of the whole records in the generations' log files, while nobody writes them."""
    numbers: set[int] = set()
    for recovery in crew.state.glob("gen-*/recovery"):
        records, _ = schema.parse_log(b"".join(wire.log_files(recovery).values()))
        numbers.update(record[2] for record in records)
    return numbers


def send_for(crew: Supervised, schema: wire.Schema, seconds: float, first: int, generator: random.Random) -> int:
    """Connects once and sends until then, or until there is nobody; the number of the next record."""
    end, connections = time.monotonic() + seconds, []
    while time.monotonic() < end:
        with suppress(OSError):
            if not connections and crew.ready():
                connections += [socket.create_connection(("127.0.0.1", port)) for port in crew.data_ports]
                STAYING.extend(connections)
            if connections:
                # Many blocks of the log in some starts, none in others.
                rows = range(first, first + generator.choice([1, 10, 60]))
                connections[0].sendall(schema.encode_frame(
                    [(row % 7, START_US + row * ROW_US, row, b"x" * 40) for row in rows]))
                first = rows.stop
        time.sleep(0.02)
    return first


STAYING: list[socket.socket] = []  # connections of producers: one that closes would be the orderly end of its server


def nothing_lost(generator: random.Random, generations: int, binaries: Path) -> str:
    schema = wire.Schema(SCHEMA)
    crew = Supervised(binaries, "1h", free_ports(2))
    database = crew.directory / "out.db"
    received: set[int] = set()

    def missing(numbers: set[int]) -> set[int]:
        """What the sink has not got, nor ever had."""
        if numbers - received:
            with suppress(sqlite3.OperationalError), sqlite3.connect(database) as table:  # no table before the first
                received.update(row[0] for row in table.execute("select distinct number from Load"))
        return numbers - received

    crew.start("sink", "sink", "--spec", crew.spec, "--ship", ",".join(map(str, crew.ship_ports)), f"sqlite:{database}")
    number = stops = looks = 0
    seen: set[int] = set()
    try:
        while len(crew.servers()) < generations:
            if not crew.runs("supervisor"):
                crew.supervise()
            number = send_for(crew, schema, generator.choice([0, 0.02, 0.1, 0.3, 0.6]), number, generator)
            action = generator.choice(["server"] * 4 + ["supervisor"] * 5 + ["stop"])
            if action == "stop":
                stops += 1
                crew.processes["supervisor"].terminate()
                crew.processes["supervisor"].wait()
            else:
                crew.kill(action)
            if not crew.runs("supervisor"):
                crew.wait_unlocked()
                now = on_disk(crew, schema)
                wait_until(f"{len(seen - now)} records that were on disk; see {crew.directory}",
                           lambda: not missing(seen - now), 10)
                looks += 1
                seen = now
            while STAYING:
                STAYING.pop().close()
        crew.kill("supervisor")
        crew.wait_unlocked()
        seen |= on_disk(crew, schema)
        count = len(crew.servers())
        crew.supervise()
        wait_until("the last replay", lambda: len(crew.servers()) > count and crew.ready())
        crew.processes["supervisor"].terminate()
        status = crew.processes["supervisor"].wait()
        wait_until(f"all records, after an end with status {status}; see {crew.directory}",
                   lambda: not missing(seen) and status == 0 and not list(crew.state.glob("gen-*")), 10)
        crew.remove()
    finally:
        crew.close()
    return (f"{len(crew.servers())} generations, {number} records sent, {looks} looks at the disk; killed: server "
            f"{crew.kills['server']}, supervisor {crew.kills['supervisor']}; stopped in order: {stops}")


def exactly_once(generator: random.Random, generations: int, binaries: Path) -> str:
    crew = Supervised(binaries, "1s", free_ports(2))
    database = crew.directory / "out.db"
    common = ["--spec", crew.spec, "--sequence", "number", "--watermark", crew.directory / "watermark"]
    sink = [*common, "--ship", ",".join(map(str, crew.ship_ports)), f"sqlite:{database}"]
    rounds = starts = 0
    try:
        while len(crew.servers()) < generations:
            start_us = time.time_ns() // 1000
            path = crew.directory / f"rows-{rounds}.csv"
            path.write_text("time,key,pad\n" + "".join(
                f"{start_us + row * ROW_US},{generator.randrange(20)},row {rounds * ROWS + row}\n"
                for row in range(ROWS)))
            send = [*common, "--data", ",".join(map(str, crew.data_ports)), "--wait", 8, "--spool",
                    crew.directory / "spool", "--batch", "4k", "--rate", RATE, path]
            moments = sorted((generator.uniform(0, 1), generator.choice(["server", "server", "supervisor", "sink"]))
                             for _ in range(generator.randrange(1, 5)))
            begun, status = time.monotonic(), None
            while status != SENT:
                for who, verb, arguments in (("supervisor", "run", crew.command), ("sink", "sink", sink)):
                    if not crew.runs(who):
                        crew.start(who, verb, *arguments)
                if status is not None or "sender" not in crew.processes:
                    starts += 1
                    crew.start("sender", "send", *send)
                if moments and time.monotonic() - begun >= moments[0][0]:
                    crew.kill(moments.pop(0)[1])
                time.sleep(0.002)
                status = crew.processes["sender"].poll()
                if status not in (None, SENT, TRY_AGAIN, UNAVAILABLE) or starts > STARTS_MAX * (rounds + 1):
                    raise Failure(f"the sender ended with {status} after {starts} starts; see {crew.directory}")
            del crew.processes["sender"]
            rounds += 1
            with sqlite3.connect(database) as table:
                counts = table.execute("select count(*), count(distinct number), max(number & 1099511627775), "
                                       "count(distinct pad) from Load").fetchone()
            if set(counts) != {rounds * ROWS}:
                raise Failure(f"{rounds * ROWS} rows were sent, {counts} are in the table; see {crew.directory}")
        crew.remove()
    finally:
        crew.close()
    return (f"{len(crew.servers())} generations, {rounds} rounds, {rounds * ROWS} rows, each once in the table; "
            "killed: " + ", ".join(f"{who} {times}" for who, times in crew.kills.items()))


def run(report: object, count: int | None, options: object) -> None:
    generations = count or SHORT_GENERATIONS
    report.scenario("nothing on disk is lost", lambda generator: nothing_lost(generator, generations, options.binaries))
    report.scenario("every row once", lambda generator: exactly_once(generator, generations, options.binaries))
