"""brindlectl run with the real server: configuration, life cycle, and what it says of both."""

import json
import os
import re
import signal
import socket
import subprocess
import time
from contextlib import suppress
from pathlib import Path

from running import Consumer, Producer, free_ports, listening_ports, wait_until
from runs import BINARIES, expect
from tools import SCHEMA, Brindlectl, Tool
from wire import Record, float_bits

START_US = 1_700_000_000_000_000


def rows(first: int, count: int) -> list[Record]:
    return [(b"key%d" % (i % 3), START_US + i, i, i, float_bits(i), b"note" * 20) for i in range(first, first + count)]


class Running(Brindlectl):
    def setUp(self) -> None:
        super().setUp()
        self.received: list[Record] = []
        self.consumer = Consumer(self.take)
        self.addCleanup(self.consumer.close)
        ports = free_ports(4)
        self.data, self.query = ports[:2], ports[2:]
        self.keys = {"spec": '"rec.spec"', "window": '"1h"', "state": '"state"', "backoff_first": '"10ms"',
                     "data": f'"{ports[0]},{ports[1]}"', "query": f'"{ports[2]},{ports[3]}"',
                     "ship": f'"{self.consumer.ports[0]},{self.consumer.ports[1]}"'}
        self.state = self.directory / "state" / "one"

    def take(self, body: bytes) -> None:
        message = SCHEMA.decode_ship(body)
        self.received += [(key, *row) for key, block in message.blocks or [] for row in block]

    def config(self, **changes: str) -> list[object]:
        """The arguments for a configuration with these values in place."""
        keys = {**self.keys, **changes}
        path = self.file("one.toml", "".join(f"{key} = {value}\n" for key, value in keys.items()))
        return ["run", "one", "--config", path]

    def start(self, **changes: str) -> Tool:
        return self.tool(*self.config(**changes))

    def told(self, tool: Tool, text: str, times: int = 1) -> None:
        def comes() -> bool:
            if tool.errors().count(text) >= times:
                return True
            if tool.process.poll() is not None:
                raise AssertionError(f"ended with {tool.process.returncode} without '{text}': {tool.errors()}")
            return False

        wait_until(f"'{text}', {times} times", comes)

    def ready(self, tool: Tool, times: int = 1) -> int:
        """The process of the server, once it is ready for the so manieth time."""
        self.told(tool, " is ready after ", times)
        return int(re.findall(r"started as process (\d+)", tool.errors())[-1])

    def stop(self, tool: Tool, status: int = 0, signals: int = 1) -> None:
        for _ in range(signals):
            tool.process.send_signal(signal.SIGTERM)
            if signals > 1:  # the same signal twice at once is one
                wait_until("the first", lambda: "stopping: " in tool.errors())
        expect("status, and what was told", (tool.wait_end(), tool.errors()), (status, tool.errors()))

    def produce(self, records: list[Record]) -> Producer:
        producer = Producer(self.data)
        self.addCleanup(producer.close)
        producer.send(SCHEMA.encode_frame(records))
        return producer

    def logged(self, count: int) -> None:
        """Waits until so many whole blocks of the log are written."""
        wait_until("the log", lambda: sum(path.stat().st_size // 4096 for path in self.state.glob("gen-*/recovery/F*"))
                   >= count)

    def test_what_is_wrong_with_a_configuration_is_told_with_its_line(self) -> None:
        lines = list(self.keys)
        for key, value, said in [
            ("windw", '"1h"', "unknown key 'windw'; did you mean 'window'?"),
            ("restarts", "1", "unknown key 'restarts'; brindlectl run --help lists the keys"),
            ("table.x", "1", "unknown key 'table'"),
            ("window", "3600", "window: must be a length of time in quotes"),
            ("window", '"1500ms"', "window: must be whole seconds"),
            ("window", '"0s"', "window: must be from 1 to"),
            ("data", '"7101"', "data: '7101' is no address; write HOST:PORT1,PORT2"),
            ("ship", '"h:1,1"', "ship: 'h:1,1' names one port twice"),
            ("query", self.keys["data"], "query: a port of 'data' cannot be used twice"),
            ("spec", "[]", "spec: must be a text in quotes"),
            ("log_size", '"1k"', "log_size: must be at least 4096 bytes"),
            ("starts_max", "0", "starts_max: must be a whole number from 1 to"),
            ("starts_max", '"5"', "starts_max: must be a whole number"),
            ("on_schema_change", '"abort"', 'on_schema_change: must be "stop" or "drain"'),
            ("state", "state", "")]:
            tool = self.ended(78, *self.config(**{key: value}), "--check")
            line = lines.index(key) + 1 if key in lines else len(lines) + 1
            self.assertIn(f"one.toml:{line}: {said}", tool.errors(), key)
        self.file("one.toml", "")
        expect("keys that are missing", self.ended(78, "run", "one", "--config", self.directory / "one.toml")
               .errors().count("' is missing: "), 5)
        self.assertIn("/nowhere: cannot be read", self.ended(78, "run", "one", "--config", "/nowhere").errors())
        self.ended(2, "run", "../one")

    def test_keys_of_the_help_are_those_of_the_page(self) -> None:
        text = self.ended(0, "run", "--help").out()
        keys = re.findall(r"^  ([a-z_]+) +(?:PATH|DURATION|ADDRESS|CHOICE|NUMBER|BYTES) ", text, re.M)
        page = (Path(__file__).parents[2] / "docs" / "supervisor.md").read_text()
        expect("keys", re.findall(r"^\| `([a-z_]+)` \| [A-Z]+ \|", page, re.M), keys)

    def test_check_looks_and_changes_nothing(self) -> None:
        def check(status: int, **changes: str) -> str:
            return self.ended(status, *self.config(**changes), "--check", "--json").out()

        self.assertIn("the consumer listens", check(0))
        self.consumer.stop_listening()
        expect("without a consumer", json.loads(check(0))["ok"], True)
        with socket.socket() as listener:
            listener.bind(("", self.query[1]))
            listener.listen()
            findings = [one["text"] for one in json.loads(check(78))["findings"] if one["fault"]]
            self.assertIn(f"query: port {self.query[1]} is in use", findings[0])
        self.assertIn("name the program with 'server'", check(78, server='"nowhere"'))
        self.assertIn("must be readable and writable", check(78, state='"one.toml/x"'))
        self.assertIn("is not known", check(78, ship='"no.such.host.invalid:1,2"'))
        self.assertIn("IPAddressAllow=192.0.2.1", check(0, ship='"192.0.2.1:1,2"'))
        self.assertIn("name the schema file with 'spec'", self.ended(78, *self.config(spec='"x"'), "--check").errors())
        self.assertFalse(self.state.exists())

    def test_a_dry_run_prints_the_command_line_that_a_start_uses(self) -> None:
        tool = self.ended(0, *self.config(state='"it\'s"'), "--dry-run")
        words = subprocess.run(["bash", "-c", f"printf '%s\\n' {tool.out()}"], capture_output=True, text=True,
                               check=True).stdout.splitlines()
        run = self.start(state='"it\'s"')
        pid = self.ready(run)
        expect("words", Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")[:-1], [word.encode() for word in words])
        self.stop(run)

    def test_kills_are_survived_on_the_same_ports_and_an_end_ships_everything(self) -> None:
        sent = rows(0, 400)
        tool = self.start()
        pid = self.ready(tool)
        self.produce(sent)
        self.logged(10)
        another = self.ended(75, *self.config())
        self.assertIn(str(tool.process.pid), another.errors())
        os.kill(pid, signal.SIGKILL)
        pid = self.ready(tool, 2)
        expect("shipped so far", self.received, [])
        # Neither may outlive the other; whoever comes next has all that was on disk.
        tool.process.kill()
        wait_until("the end of the server", lambda: not Path(f"/proc/{pid}").exists())
        tool = self.start()
        self.ready(tool)
        first = self.produce(rows(400, 400))
        # So many new blocks settle the replay: the older generations go.
        wait_until("one generation", lambda: len(list(self.state.glob("gen-*"))) == 1)
        first.close()
        self.ready(tool, 2)  # the end of the producer is an end of the server: everything was shipped
        self.assertIn("everything was shipped", tool.errors())
        self.stop(tool)
        wait_until("the records", lambda: set(rows(400, 400)) <= set(self.received))
        missing = sorted(row[2] for row in set(sent) - set(self.received))
        expect("missing is at most the tail", missing, list(range(400 - len(missing), 400)))
        self.assertLess(len(missing), 45)  # 4095 bytes
        expect("left", sorted(path.name for path in self.state.iterdir()), ["lock"])

    def test_a_lost_consumer_costs_nothing_that_is_staged(self) -> None:
        tool = self.start()
        self.ready(tool)
        self.produce(rows(0, 400))
        self.logged(10)
        self.consumer.stop_listening()
        self.consumer.drop()
        self.told(tool, "waiting for the consumer")
        self.assertIn("was ended by signal SIGKILL", tool.errors())
        expect("servers", tool.errors().count("started as process"), 1)
        self.consumer.listen()
        self.ready(tool, 2)
        self.stop(tool)
        wait_until("the records", lambda: len(set(self.received)) > 350)

    def test_a_consumer_that_is_back_at_once_was_lost_all_the_same(self) -> None:
        tool = self.start(window='"1s"')
        self.ready(tool)
        # Each record is a cycle, so that the server sends into the closed connection and makes it anew.
        records = [(b"key", START_US + i * 250_000, i, i, 0, b"") for i in range(2000)]
        producer = self.produce(records[:100])
        wait_until("records", lambda: self.received)
        self.consumer.drop()
        with suppress(OSError):  # the server may be killed before it has all
            producer.send(SCHEMA.encode_frame(records[100:]))
        self.told(tool, "the connection to the consumer")
        self.ready(tool, 2)
        self.stop(tool)

    def test_bad_starts_are_tried_again_with_pauses_and_given_up(self) -> None:
        with socket.socket() as listener:
            listener.bind(("", self.data[1]))
            listener.listen()
            tool = self.tool(*self.config(starts_max="3", backoff_first='"100ms"', log='"log"', log_size="4096"))
            begun = time.monotonic()
            expect("status", tool.wait_end(), 75)
            self.assertGreater(time.monotonic() - begun, 0.3)
        log = "".join(path.read_text() for path in sorted(self.directory.glob("log*"), reverse=True))
        expect("starts", log.count("started as process"), 3)
        self.assertIn("brindle: Binding socket failed:: Address already in use", log)
        self.assertIn("given up after 3 starts", tool.errors())
        crash = self.file("crash", "#!/bin/sh\necho no >&2\nexit 3\n")
        crash.chmod(0o755)
        tool = self.ended(75, *self.config(server='"crash"', starts_max="2"))
        self.assertRegex(tool.errors(), r"(?s)brindle: no\n.*ended with status 3 before it was ready")
        # An orderly end is none of a server that says nothing.
        self.assertIn("ended with status 0 before it was ready",
                      self.ended(75, *self.config(server='"/bin/true"', starts_max="2")).errors())
        self.assertIn("cannot be started", self.ended(75, *self.config(server='"one.toml"', starts_max="1")).errors())

    def test_the_second_signal_and_the_time_limit_kill(self) -> None:
        self.consumer.paused = True
        for changes, signals, said in [({}, 2, "for the second time"),
                                       ({"stop_timeout": '"300ms"'}, 1, "not ended in time")]:
            tool = self.start(**changes)
            self.ready(tool)
            # More than the buffers of a consumer take that does not read.
            for first in range(0, 40000, 4000):
                self.produce_more(first)
            self.stop(tool, 75, signals)
            self.assertIn(said, tool.errors())
            self.assertIn("records wait for the next start", tool.errors())

    def produce_more(self, first: int) -> None:
        records = [(row[0], row[1], row[2], row[3], row[4], b"x" * 400) for row in rows(first, 4000)]
        if first == 0:
            self.producer = self.produce(records)
        else:
            self.producer.send(SCHEMA.encode_frame(records))

    def test_a_changed_schema_stops_or_drains(self) -> None:
        tool = self.start()
        pid = self.ready(tool)
        self.produce(rows(0, 400))
        self.logged(10)
        tool.process.kill()
        wait_until("the end of the server", lambda: not Path(f"/proc/{pid}").exists())
        self.spec.write_text(SCHEMA.text.replace("note", "remark"))
        self.assertIn("the schema has changed", self.ended(78, *self.config()).errors())
        expect("shipped", self.received, [])
        tool = self.start(on_schema_change='"drain"')
        self.ready(tool, 2)
        wait_until("the records", lambda: len(self.received) > 350)
        self.assertIn("remark", next(self.state.glob("gen-*/schema.spec")).read_text())
        self.stop(tool)

    def test_the_service_manager_is_told(self) -> None:
        path = self.directory / "notify"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(str(path))
            manager.settimeout(20)
            self.consumer.stop_listening()
            os.environ.update(NOTIFY_SOCKET=str(path), WATCHDOG_USEC="200000")
            try:
                tool = self.start(server='"witness"')
            finally:
                del os.environ["NOTIFY_SOCKET"], os.environ["WATCHDOG_USEC"]
            # The server must not be told of the socket.
            script = f'#!/bin/sh\necho "socket:$NOTIFY_SOCKET." >&2\nexec {BINARIES}/brindle "$@"\n'
            self.file("witness", script).chmod(0o755)
            seen: list[str] = []

            def comes(text: str) -> None:
                while not any(text in one for one in seen):
                    seen.append(manager.recv(4096).decode())

            comes("STATUS=waiting for the consumer")
            comes("EXTEND_TIMEOUT_USEC=30000000")
            self.assertIn("EXTEND_TIMEOUT_USEC=30000000\nWATCHDOG=1", seen)  # while it prepares
            self.assertNotIn("READY=1", seen)
            self.consumer.listen()
            comes("READY=1")
            comes("STATUS=generation 1 serves")
            seen.clear()
            comes("WATCHDOG=1")
            self.stop(tool)
            comes("STOPPING=1")
            self.assertIn("socket:.", tool.errors())

    def test_the_log_is_opened_anew_and_kept_within_its_size(self) -> None:
        tool = self.start(log='"log"', log_size="4096", log_files="2")
        log = self.directory / "log"
        wait_until("a start", lambda: log.exists() and "is ready" in log.read_text())
        log.rename(self.directory / "moved")
        tool.process.send_signal(signal.SIGHUP)
        wait_until("a new log", log.exists)
        children = Path(f"/proc/{tool.process.pid}/task/{tool.process.pid}/children")
        for _ in range(6):  # each is the end of one server, with a dozen lines
            server = children.read_text()
            wait_until("a server that is ready", lambda: set(self.data) <= listening_ports(int(server or 0)))
            self.produce(rows(0, 1)).close()
            wait_until("its end", lambda: children.read_text() != server)
            wait_until("the next one", children.read_text)
        self.stop(tool)
        expect("files", sorted(path.name for path in self.directory.glob("log*")), ["log", "log.1"])
        for path in self.directory.glob("log*"):
            self.assertLessEqual(path.stat().st_size, 4096)
