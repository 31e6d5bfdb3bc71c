"""brindlectl as its users run it: command lines, streams and exit statuses."""

import os
import pty
import shutil
import socket
import subprocess
import tempfile
import unittest
from pathlib import Path

from running import DEADLINE, Failure, connect, die_with_parent, free_ports, listening_ports, wait_until
from runs import BINARIES, Run, expect
from wire import Record, Schema, frame

TYPES = "s48fs"
SCHEMA = Schema("Rec string64 key int32 small int64 big float64 real string64 note\n")
HEADER = b"note,time,unused,key,real,big,small\n"
COLUMNS = "time,key,small,big,real,note\n"
START_US = 978307200000000  # 2001-01-01


def addresses(ports: list[int]) -> str:
    return f"127.0.0.1:{ports[0]},{ports[1]}"


def fork_at_terminal(environment: dict[str, str], *arguments: object) -> tuple[int, int]:
    """A run of brindlectl at a terminal of its own: its process, and the other end of the terminal."""
    try:
        child, terminal = pty.fork()
    except OSError as error:  # a bare chroot has none
        raise unittest.SkipTest(str(error)) from None
    if child == 0:
        os.environ.update(environment, TERM="xterm")
        os.execv(BINARIES / "brindlectl", ["brindlectl", *map(str, arguments)])
    return child, terminal


class Tool:
    """A run of brindlectl. Its standard input is a pipe, its outputs are two files."""

    def __init__(self, directory: Path, *arguments: object) -> None:
        base = tempfile.mkdtemp(dir=directory)
        self.paths = Path(base, "out"), Path(base, "errors")
        with self.paths[0].open("wb") as out, self.paths[1].open("ab") as errors:
            self.process = subprocess.Popen([BINARIES / "brindlectl", *map(str, arguments)], stdin=subprocess.PIPE,
                                            stdout=out, stderr=errors, bufsize=0, preexec_fn=die_with_parent)

    def out(self) -> str:
        return self.paths[0].read_bytes().decode("latin-1")

    def errors(self) -> str:
        return self.paths[1].read_bytes().decode("latin-1")

    def feed(self, data: bytes) -> None:
        self.process.stdin.write(data)

    def wait_end(self) -> int:
        """Ends its input; the exit status, or the negative number of a signal."""
        self.process.stdin.close()
        try:
            return self.process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            raise Failure(f"brindlectl does not end: {self.errors()}") from None

    def close(self) -> None:
        self.process.kill()
        self.wait_end()


class Brindlectl(unittest.TestCase):
    def setUp(self) -> None:
        self.directory = Path(tempfile.mkdtemp(prefix="brindlectl-"))
        self.addCleanup(shutil.rmtree, self.directory)
        self.spec = self.file("rec.spec", SCHEMA.text)

    def file(self, name: str, content: bytes | str) -> Path:
        path = self.directory / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode("latin-1"))
        return path

    def tool(self, *arguments: object) -> Tool:
        tool = Tool(self.directory, *arguments)
        self.addCleanup(tool.close)
        return tool

    def ended(self, status: int, *arguments: object) -> Tool:
        tool = self.tool(*arguments)
        expect("status, and what was told", (tool.wait_end(), tool.errors()), (status, tool.errors()))
        return tool

    def server(self, types: str = TYPES) -> Run:
        run = self.enterContext(Run(types))
        run.start()
        return run

    def send(self, run: Run, source: object) -> list[object]:
        return ["send", "--spec", self.spec, "--data", addresses(run.data_ports), source]

    def finish(self, run: Run, sent: list[Record]) -> None:
        expect("status of the server", run.server.wait_end(), 0)
        run.finish(sent)


def cycle(rows: list[Record]) -> bytes:
    """The messages of a cycle with one block."""
    return b"".join(map(frame, SCHEMA.encode_cycle([b"k"], [(b"k", rows)])))
