"""What the torture scenarios stand on: private directories, free ports, the server process, and its three neighbours.

Every wait has a deadline, and whatever happens, `Session` takes its process and its directories with it. Keep a
directory by `session.keep()`; its path is then printed with the failure.
"""

import ctypes
import fcntl
import os
import random
import resource
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import threading
import time
from collections.abc import Callable, Iterable
from contextlib import suppress
from pathlib import Path

import wire

# Seconds for what takes milliseconds on an idle machine; sanitizers slow a server up to fifteen times.
DEADLINE = 150.0 if os.environ.get("BRINDLE_SANITIZED") else 30.0
TRANSFER_BYTES = 1 << 16
LISTENING = "0A"  # the state's number in /proc/net/tcp
LIBC = ctypes.CDLL(None)
PARENT_DEATH_SIGNAL = 1  # PR_SET_PDEATHSIG


def die_with_parent() -> None:
    """In a child, before its program starts: whoever is killed takes the child along."""
    LIBC.prctl(PARENT_DEATH_SIGNAL, signal.SIGKILL)


class Failure(Exception):
    """What a scenario found wrong."""


def wait_until(what: str, condition: Callable[[], object], seconds: float = DEADLINE) -> object:
    """Returns the condition's first true value; raises a Failure that names what was waited for."""
    end = time.monotonic() + seconds
    pause = 0.0005
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise Failure(f"waited {seconds:g} s in vain for {what}")
        time.sleep(pause)
        pause = min(pause * 2, 0.02)


def free_ports(count: int) -> list[int]:
    """Ports that can be bound at this moment, below the range from which connections get theirs."""
    ports: list[int] = []
    while len(ports) < count:
        port = random.SystemRandom().randrange(10240, 32768)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
            except OSError:
                continue
        if port not in ports:
            ports.append(port)
    return ports


def reset(*connections: socket.socket) -> None:
    """Closes with an RST, which takes what was not yet delivered along."""
    for connection in connections:  # whoever closes them then
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    for connection in connections:
        connection.close()


def connect(port: int, seconds: float = DEADLINE) -> socket.socket:
    """Connects as soon as somebody listens."""

    def attempt() -> socket.socket | None:
        try:
            return socket.create_connection(("127.0.0.1", port), timeout=seconds)
        except ConnectionRefusedError:
            return None

    return wait_until(f"somebody who listens on port {port}", attempt, seconds)


def listening_ports(pid: int) -> set[int]:
    """The ports on which a process listens, found without connecting to them."""
    own = set()
    try:
        for name in os.listdir(f"/proc/{pid}/fd"):
            try:
                own.add(os.readlink(f"/proc/{pid}/fd/{name}"))
            except OSError:
                pass
        table = Path(f"/proc/{pid}/net/tcp").read_text()
    except OSError:
        return set()
    rows = (line.split() for line in table.splitlines()[1:])
    return {int(row[1].split(":")[1], 16) for row in rows
            if row[3] == LISTENING and f"socket:[{row[9]}]" in own}


class Consumer:
    """The downstream side: accepts pairs of connections, one after another, and takes the messages of the first.

    A thread of its own reads. `received[i]` holds the frame bodies of the i-th pair; with `on_body` they are handed
    over instead, one by one, in the reading thread. The attributes that are not underscored may be set at any time.
    """

    def __init__(self, on_body: Callable[[bytes], None] | None = None, narrow: bool = False) -> None:
        self.received: list[list[bytes]] = []
        self.partial = b""  # of the pair at hand: a message that has not come whole
        self.surplus = b""  # what came on a second connection, which carries nothing
        self.chunk = TRANSFER_BYTES  # most bytes per read
        self.paused = False
        self.ports: list[int] = []
        self._on_body = on_body
        self._narrow = narrow
        self._stop = False
        self._listeners: list[socket.socket] = []
        self._pair: list[socket.socket] = []
        self._thread = threading.Thread(target=self._run, daemon=True)
        self.listen()
        self._thread.start()

    def listen(self) -> None:
        """Begins to listen, or goes on to on the ports of before."""
        listeners = []
        for port in self.ports or [0, 0]:
            listener = socket.socket()
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            if self._narrow:
                listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            while True:
                try:
                    listener.bind(("127.0.0.1", port or free_ports(1)[0]))
                    break
                except OSError:
                    if port:
                        raise
            listener.listen(8)
            listener.settimeout(0.02)
            listeners.append(listener)
        self.ports = [listener.getsockname()[1] for listener in listeners]
        self._listeners = listeners

    def stop_listening(self) -> None:
        """Further connects are refused; the pair at hand stays."""
        listeners, self._listeners = self._listeners, []
        for listener in listeners:
            listener.shutdown(socket.SHUT_RDWR)  # at once, also while the thread waits in accept
            listener.close()

    def drop(self, hard: bool = True, which: Iterable[int] = (0, 1)) -> None:
        """Closes connections of the pair at hand, with a reset or in order. No message of this pair comes any more."""
        pair = [self._pair[index] for index in which if index < len(self._pair)]
        if hard:
            reset(*pair)
        for connection in pair:
            connection.close()

    def bodies(self) -> list[bytes]:
        """Of all pairs, in the order received."""
        return [body for pair in self.received for body in pair]

    def wait_ended(self, seconds: float = DEADLINE) -> None:
        """Waits until the pair at hand has come to its end of stream."""
        wait_until("the end of the ship connection", lambda: not self._pair, seconds)

    def close(self) -> None:
        self._stop = True
        self.stop_listening()
        self._thread.join(DEADLINE)

    def _accept(self, index: int) -> socket.socket | None:
        listeners = self._listeners
        if len(listeners) < 2:
            time.sleep(0.005)
            return None
        try:
            connection = listeners[index].accept()[0]
        except OSError:
            return None
        connection.settimeout(0.02)
        return connection

    def _run(self) -> None:
        pair: list[socket.socket] = []
        while not self._stop:
            connection = self._accept(len(pair))
            if connection is None:
                continue
            pair.append(connection)
            if len(pair) == 1:
                continue
            self._pair = pair
            self.received.append([])
            self._read(pair[0])
            with suppress(OSError):
                pair[1].setblocking(False)
                self.surplus += pair[1].recv(TRANSFER_BYTES)
            self._pair = []
            for connection in pair:
                connection.close()
            pair = []
        for connection in pair:
            connection.close()

    def _read(self, connection: socket.socket) -> None:
        frames = wire.FrameDecoder()
        while not self._stop:
            if self.paused:
                time.sleep(0.002)
                continue
            try:
                part = connection.recv(self.chunk)
            except TimeoutError:
                continue
            except OSError:
                break
            if not part:
                break
            for body in frames.feed(part):
                if self._on_body:
                    self._on_body(body)
                else:
                    self.received[-1].append(body)
            self.partial = bytes(frames.buffer[:64])


class Producer:
    """The pair of data connections."""

    def __init__(self, ports: list[int]) -> None:
        self.first = connect(ports[0])
        self.second = connect(ports[1])

    def send(self, data: bytes) -> None:
        self.first.sendall(data)

    def unread(self) -> int:
        """How many of the bytes sent have not reached the server's side of the connection (SIOCOUTQ)."""
        return struct.unpack("i", fcntl.ioctl(self.first, termios.TIOCOUTQ, b"\0" * 4))[0]

    def close(self) -> None:
        """The orderly end: between two frames, a stream that ends."""
        self.first.close()
        self.second.close()

    def reset(self) -> None:
        reset(self.first)
        reset(self.second)


class QueryClient:
    """The pair of query connections. The reply connection is closed first, as the server's users are told to."""

    def __init__(self, ports: list[int]) -> None:
        self.requests = connect(ports[0])
        self.replies = connect(ports[1])

    def ask(self, request: bytes) -> bytes:
        """The body of the reply; raises a Failure when the server ends instead."""
        self.send(request)
        return self.receive()

    def send(self, request: bytes) -> None:
        self.requests.sendall(struct.pack(">I", len(request)) + request)

    def receive(self) -> bytes:
        """The body of the next reply."""
        return self._take(struct.unpack(">I", self._take(4))[0])

    def _take(self, size: int) -> bytes:
        data = bytearray()
        while len(data) < size:
            part = self.replies.recv(size - len(data))
            if not part:
                raise Failure("the reply connection ended")
            data += part
        return bytes(data)

    def close(self) -> None:
        self.replies.close()
        self.requests.close()


class Server:
    """One server process. Standard error goes to a file, so it is complete before anything that follows from it."""

    def __init__(self, arguments: list[str], error_file: Path, env: dict[str, str], limits: dict[int, int]) -> None:
        def prepare() -> None:
            die_with_parent()
            signal.signal(signal.SIGINT, signal.SIG_DFL)
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            for limit, value in limits.items():
                resource.setrlimit(limit, (value, value))

        self.error_file = error_file
        with error_file.open("wb") as errors:
            self.process = subprocess.Popen(
                arguments, stdin=subprocess.DEVNULL, stdout=errors, stderr=errors, env={**os.environ, **env},
                preexec_fn=prepare)
        self.pid = self.process.pid

    def errors(self) -> str:
        return self.error_file.read_text(errors="replace")

    def running(self) -> bool:
        return self.process.poll() is None

    def wait_told(self, text: str, times: int = 1, seconds: float = DEADLINE) -> None:
        """Waits for a text on standard error; fails at once when the server ends without it."""

        def told() -> bool:
            ended = not self.running()
            if self.errors().count(text) >= times:
                return True
            if ended:
                raise Failure(f"the server ended with {self.process.returncode} before it said '{text}'")
            return False

        wait_until(f"'{text}'", told, seconds)

    def wait_end(self, seconds: float = DEADLINE) -> int:
        """The exit status, or the negative number of the signal; a server that does not end is killed and a Failure."""
        try:
            return self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.kill()
            raise Failure(f"the server did not end within {seconds:g} s") from None

    def kill(self) -> None:
        if self.running():
            self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def listening(self) -> set[int]:
        return listening_ports(self.pid)

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def peak_kb(self) -> int:
        """The most memory it has used, by its own last word."""
        return int(self.errors().rsplit("MaxRSS ", 1)[1].split()[0])

    def status(self, name: str) -> int:
        """A number of /proc/PID/status: VmRSS and VmHWM are in kB, Threads is a count."""
        for line in Path(f"/proc/{self.pid}/status").read_text().splitlines():
            if line.startswith(name + ":"):
                return int(line.split()[1])
        raise Failure(f"/proc/{self.pid}/status has no {name}")


class Session:
    """A server with its consumer, its producer and its directories, on ports that are free.

    `binaries` is the folder that holds `brindle` and `brindlectl`. `recover_from` names an earlier recovery directory;
    `recovery` may be set before the start (a directory that exists and is empty).
    """

    def __init__(self, binaries: Path, schema: str, window: int = 1, consumer: Consumer | None = None,
                 recover_from: Path | None = None, wrapper: list[str] | None = None) -> None:
        self.binaries = binaries
        self.directory = Path(tempfile.mkdtemp(prefix="brindle-torture-"))
        self.recovery = self.directory / "recovery"
        self.recovery.mkdir()
        self.spec = self.directory / "schema.spec"
        self.spec.write_text(schema)
        self.window = window
        self.recover_from = recover_from
        self.consumer = consumer or Consumer()
        self.env: dict[str, str] = {}
        self.limits: dict[int, int] = {}  # of the process: RLIMIT number and value
        self.wrapper = wrapper or []
        self.data_ports: list[int] = []
        self.query_ports: list[int] = []
        self.held_ports: dict[int, int] = {}  # ports that are not chosen: of data 0 and 1, of queries 2 and 3
        self._server: Server | None = None
        self._kept = False
        self._ends: list[Callable[[], None]] = []

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, kind: object, *_: object) -> None:
        if self._server:
            self._server.kill()
        for end in self._ends:
            end()
        self.consumer.close()
        if self._kept:
            return
        shutil.rmtree(self.directory, ignore_errors=True)

    def keep(self) -> Path:
        """The directories survive the session: for the next generation, or for whoever looks into a failure."""
        self._kept = True
        return self.directory

    @property
    def server(self) -> Server:
        if not self._server:
            raise Failure("the server was not started")
        return self._server

    def launch(self) -> None:
        """Starts the process and does not wait for anything."""
        ports = [self.held_ports.get(index, port) for index, port in enumerate(free_ports(4))]
        self.data_ports, self.query_ports = ports[:2], ports[2:]
        arguments = [*self.wrapper, str(self.binaries / "brindle"), str(self.spec), str(self.recovery), "127.0.0.1"]
        arguments += map(str, [*self.consumer.ports, *self.data_ports, self.window, *self.query_ports])
        if self.recover_from:
            arguments.append(str(self.recover_from))
        self._server = Server(arguments, self.directory / "stderr", self.env, self.limits)

    def ready(self) -> bool:
        """Whether a producer would be served: the data ports open last of all."""
        return set(self.data_ports) <= self.server.listening()

    def start(self, seconds: float = DEADLINE) -> "Session":
        """Starts the process, on other ports where one was taken meanwhile, and waits until it is ready."""
        for _ in range(5):
            self.launch()
            wait_until("the data ports, or an end", lambda: self.ready() or not self.server.running(), seconds)
            if self.held_ports or "Address already in use" not in self.server.errors():
                break
            self.server.kill()
            for path in self.recovery.iterdir():
                path.unlink()
        if not self.server.running():
            raise Failure(f"the server did not start: {self.server.errors()[-300:]}")
        return self

    def produce(self) -> Producer:
        producer = Producer(self.data_ports)
        self._ends.append(producer.close)
        return producer

    def query(self) -> QueryClient:
        client = QueryClient(self.query_ports)
        self._ends.append(client.close)
        return client
