"""brindlectl sink with a PostgreSQL server that goes away and comes back."""

import json
import signal
import threading
import unittest
from contextlib import suppress
from types import SimpleNamespace

from postgresql import IS_INSTALLED, PostgreSQL
from running import Session, free_ports, listening_ports, wait_until
from runs import BINARIES, expect
from tools import SCHEMA, START_US, Brindlectl, Tool, addresses

ROW_US = 1000      # event time from row to row; a cycle has 500 rows or so
BATCH_ROWS = 100


class Feed:
    """Rows, one after the other, as fast as they are taken or so."""

    def __init__(self, send: Tool) -> None:
        self.rows = 0
        self._send = send
        self._stop = threading.Event()
        send.feed(b"time,key,small,big,real,note\n")
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        with suppress(BrokenPipeError):
            while not self._stop.wait(0.02):
                numbers = range(self.rows, self.rows + BATCH_ROWS)
                self._send.feed(b"".join(b"%d,key%d,0,%d,0.5,n\n" % (START_US + number * ROW_US, number % 7, number)
                                         for number in numbers))
                self.rows += BATCH_ROWS

    def end(self) -> None:
        self._stop.set()
        self._thread.join()


@unittest.skipUnless(IS_INSTALLED, "PostgreSQL 15 is not installed")
class Away(Brindlectl):
    def setUp(self) -> None:
        super().setUp()
        self.database = PostgreSQL()
        self.addCleanup(self.database.close)
        self.ports = free_ports(2)

    def sink(self, address: str, *options: str) -> Tool:
        return self.tool("sink", "--spec", self.spec, "--ship", addresses(self.ports), "--spool",
                         self.directory / "spool", *options, address)

    def test_no_cycle_is_lost_or_doubled_when_the_store_restarts(self) -> None:
        sink = self.sink(self.database.address(), "--once", "--json")
        wait_until("the sink", lambda: set(self.ports) <= listening_ports(sink.process.pid))
        consumer = SimpleNamespace(ports=self.ports, close=lambda: None)
        with Session(BINARIES, SCHEMA.text, 1, consumer) as session:
            session.start()
            send = self.tool("send", "--spec", self.spec, "--data", addresses(session.data_ports), "-")
            feed = Feed(send)
            self.addCleanup(feed.end)

            def committed() -> int:
                return int(self.database.ask('SELECT count(*) FROM "Rec_cycles"')[0][0])

            wait_until("the tables", lambda: self.database.ask("SELECT to_regclass('\"Rec_cycles\"')") != [[""]])
            stops = [signal.SIGINT, signal.SIGQUIT] * 3
            for count, how in enumerate(stops, 1):
                cycles = committed()
                wait_until("cycles", lambda cycles=cycles: committed() > cycles + 2)
                self.database.stop(how)
                wait_until("a word that it is away",
                           lambda count=count: sink.errors().count("the destination is away: ") == count)
                rows = feed.rows
                wait_until("rows meanwhile", lambda rows=rows: feed.rows > rows + 10 * BATCH_ROWS)
                self.database.start()
                wait_until("a word that it is back",
                           lambda count=count: sink.errors().count("the destination is back") == count)
            feed.end()
            expect("status of send, and what it told", (send.wait_end(), send.errors()), (0, send.errors()))
            expect("status of the server", session.server.wait_end(), 0)
            expect("status of the sink, and what it told", (sink.wait_end(), sink.errors()), (0, sink.errors()))
        cycles = self.database.ask('SELECT count(*), max(cycle), bool_and(complete), sum(records) FROM "Rec_cycles"')[0]
        expect("cycles without a gap", (cycles[0], cycles[2:]), (cycles[1], ["t", str(feed.rows)]))
        expect("each record once", self.database.ask('SELECT count(*), count(DISTINCT big), min(big), max(big) FROM "Rec"'),
               [[str(feed.rows), str(feed.rows), "0", str(feed.rows - 1)]])
        # Its other counts lack a cycle whose commit was done while the answer to it was lost.
        expect("bytes in the spool", json.loads(sink.out())["spool_bytes"], 0)
        self.assertFalse((self.directory / "spool").exists())

    def test_says_why_it_cannot_write(self) -> None:
        self.database.ask("CREATE ROLE reader LOGIN PASSWORD 'secret'")
        for address, reason in ((self.database.address("wrong"), 'password authentication failed for user "test"'),
                                (self.database.address().replace("/postgres?", "/none?"), '"none" does not exist'),
                                (self.database.address().replace("test:", "reader:"), "permission denied for schema"),
                                ("postgresql://test@127.0.0.1:1/x", "Connection refused")):
            with self.subTest(reason):
                sink = self.sink(address)
                wait_until("a word", lambda sink=sink: "\n" in sink.errors() or sink.process.poll() is not None)
                self.assertIn(reason, sink.errors().splitlines()[0])
                for password in ("wrong", "secret"):
                    self.assertNotIn(password, sink.errors())
                sink.process.send_signal(signal.SIGINT)
                wait_until("a word about the end", lambda sink=sink: "the end waits for the destination for at most 10 s"
                           in sink.errors() or sink.process.poll() is not None)
                sink.close()
