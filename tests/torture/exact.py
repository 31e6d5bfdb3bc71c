"""Sender, server and sink are killed at random, and the table holds every record once.

`count` is rounds: in each a file of rows is sent, and up to three of the processes are killed while it is on its way.
Whoever was killed is started again with the same command line, the server with a fresh directory and, more often than
not, the old one to replay.
"""

import random
import select
import signal
import socket
import sqlite3
import subprocess
import threading
import time
from contextlib import suppress
from pathlib import Path

from running import Failure, Session, die_with_parent, free_ports, wait_until

SCHEMA = "Load int64 key int64 number string64 pad"
ROWS = 6000
ROW_US = 1000
RATE = 6000  # rows a second: a round takes a second and the time of its crashes
SHORT_ROUNDS = 6
SENT, TRY_AGAIN, UNAVAILABLE = 0, 75, 69
STARTS_MAX = 40  # of a sender in a round


class Relay:
    """Stands on ports of its own before the servers, which come and go on others; closed while there is none."""

    def __init__(self) -> None:
        self.ports = free_ports(2)
        self._targets: list[int] = []
        self._listeners: list[socket.socket] = []

    def open(self, targets: list[int]) -> None:
        self._targets = targets
        for port in self.ports:
            listener = socket.socket()
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind(("127.0.0.1", port))
            self._listeners.append(listener)
        for listener in self._listeners:
            listener.listen()
        threading.Thread(target=self._run, args=[list(self._listeners)], daemon=True).start()

    def close(self) -> None:
        for listener in self._listeners:
            with suppress(OSError):
                listener.shutdown(socket.SHUT_RDWR)  # wakes who waits for it
            listener.close()
        self._listeners.clear()

    def _run(self, listeners: list[socket.socket]) -> None:
        with suppress(OSError, ValueError):
            while True:
                for listener in sorted(select.select(listeners, [], [])[0], key=listeners.index):
                    inner, _ = listener.accept()
                    try:
                        outer = socket.create_connection(("127.0.0.1", self._targets[listeners.index(listener)]))
                    except OSError:
                        inner.close()
                        continue
                    threading.Thread(target=self._pump, args=[inner, outer], daemon=True).start()
                    threading.Thread(target=self._watch, args=[outer, inner], daemon=True).start()

    @staticmethod
    def _pump(source: socket.socket, target: socket.socket) -> None:
        with suppress(OSError):
            while piece := source.recv(1 << 16):
                target.sendall(piece)
        with suppress(OSError):
            target.shutdown(socket.SHUT_WR)

    @staticmethod
    def _watch(server: socket.socket, client: socket.socket) -> None:
        """Nothing comes back: the end of the server is the end of both."""
        with suppress(OSError):
            server.recv(1)
        for connection in (server, client):
            with suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
            connection.close()


class Crew:
    """The three processes and what they leave."""

    def __init__(self, session: Session, generator: random.Random) -> None:
        self.session = session
        self.random = generator
        self.directory = session.directory
        self.relay = Relay()
        self.ship_ports = session.consumer.ports
        self.database = self.directory / "out.db"
        self.generation = 0
        self.killed = False  # the server: its directory may still be needed
        self.kills = {"sender": 0, "server": 0, "sink": 0}
        self.log = (self.directory / "log").open("ab")
        self.sink = self.start_sink()
        self.sender: subprocess.Popen[bytes] | None = None
        self.start_server()

    def tool(self, verb: str, *arguments: object) -> subprocess.Popen[bytes]:
        command = [self.session.binaries / "brindlectl", verb, "--spec", self.session.spec, "--sequence", "number",
                   "--watermark", self.directory / "watermark", *map(str, arguments)]
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log,
                                preexec_fn=die_with_parent)

    def start_sink(self) -> subprocess.Popen[bytes]:
        return self.tool("sink", "--ship", f"127.0.0.1:{self.ship_ports[0]},{self.ship_ports[1]}",
                         f"sqlite:{self.database}")

    def start_sender(self, path: Path) -> subprocess.Popen[bytes]:
        return self.tool("send", "--data", f"127.0.0.1:{self.relay.ports[0]},{self.relay.ports[1]}", "--wait", 8,
                         "--spool", self.directory / "spool", "--batch", "4k", "--rate", RATE, path)

    def start_server(self) -> None:
        self.relay.close()
        if self.generation:
            self.session.server.kill()
            replays = self.killed and self.random.random() < 0.7
            self.session.recover_from = self.session.recovery if replays else None
            self.session.recovery = self.directory / f"recovery-{self.generation}"
            self.session.recovery.mkdir()
        self.killed = False
        self.generation += 1
        self.session.start()
        self.relay.open(self.session.data_ports)

    def kill(self, who: str) -> None:
        self.kills[who] += 1
        if who == "server":
            self.killed = self.session.server.running()
            self.session.server.kill()
            return
        process = self.sink if who == "sink" else self.sender
        process.send_signal(signal.SIGKILL)
        process.wait()

    def send(self, path: Path, moments: list[tuple[float, str]]) -> None:
        """Sends a file, with a kill at each of the moments, seconds from the start."""
        begun = time.monotonic()
        starts = 0
        while True:
            if self.sender is None:
                starts += 1
                if starts > STARTS_MAX:
                    raise Failure(f"the sender comes to no end; see {self.session.keep()}")
                self.sender = self.start_sender(path)
            if moments and time.monotonic() - begun >= moments[0][0]:
                self.kill(moments.pop(0)[1])
            if self.sink.poll() is not None:
                self.sink = self.start_sink()
            if not self.session.server.running():
                self.start_server()
            status = self.sender.poll()
            if status is not None:
                self.sender = None
                if status == SENT:
                    return
                if status not in (-signal.SIGKILL, TRY_AGAIN, UNAVAILABLE):
                    raise Failure(f"the sender ended with {status}; see {self.session.keep()}")
            time.sleep(0.002)

    def close(self) -> None:
        self.relay.close()
        for process in (self.sender, self.sink):
            if process is not None:
                process.kill()
                process.wait()
        self.log.close()


def check(crew: Crew, rows: int) -> None:
    with sqlite3.connect(crew.database) as database:
        numbers, distinct, last, pads = database.execute(
            "select count(*), count(distinct number), max(number & 1099511627775), count(distinct pad) from Load"
        ).fetchone()
    if not numbers == distinct == last == pads == rows:
        raise Failure(f"{rows} rows, but {numbers} records, {distinct} numbers up to {last}, {pads} different ones; "
                      f"see {crew.session.keep()}")


def run(report: object, count: int | None, options: object) -> None:
    rounds = count or SHORT_ROUNDS

    def kills(generator: random.Random) -> str:
        with Session(options.binaries, SCHEMA) as session:
            session.consumer.close()  # its ports are the sink's
            crew = Crew(session, generator)
            try:
                for number in range(rounds):
                    start_us = time.time_ns() // 1000
                    path = session.directory / f"rows-{number}.csv"
                    path.write_text("time,key,pad\n" + "".join(
                        f"{start_us + row * ROW_US},{generator.randrange(20)},row {number * ROWS + row}\n"
                        for row in range(ROWS)))
                    moments = sorted((generator.uniform(0, 2), generator.choice(list(crew.kills)))
                                     for _ in range(generator.randrange(1, 4)))
                    crew.send(path, moments)
                    check(crew, (number + 1) * ROWS)
                wait_until("the last word", lambda: crew.database.exists())
            finally:
                crew.close()
            return (f"{rounds} rounds, {rounds * ROWS} rows, each once in the table; killed: "
                    + ", ".join(f"{who} {times}" for who, times in crew.kills.items()))

    report.scenario("kills of sender, server and sink", kills)
