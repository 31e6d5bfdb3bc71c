"""Ends of the server, and what comes after: the same ports at once, SIGTERM in every state, peers that see a clean end.

BRINDLE_RESTARTS in the environment is how often each kind of end is followed by a start."""

from __future__ import annotations

import os
import signal
import socket
import sys
import threading
import time
import unittest
from collections.abc import Callable
from contextlib import suppress
from itertools import count

from runs import (BOUND_MAX, SANITIZED, Run, at, cycles_before_end, expect, expect_same_records, fill, read_all,
                  records_of)
from running import Failure, connect, free_ports, wait_until
from wire import KEY_FILE, Record

RESTARTS = int(os.environ.get("BRINDLE_RESTARTS", "20"))
TERMINATED = -signal.SIGTERM
STOPPED = "Received SIGTERM\n"
IGNORING_STOPS = ["sh", "-c", "trap '' TERM; exec \"$0\" \"$@\""]
HOLDING_STOPS_BACK = [sys.executable, "-c", "import os, signal, sys; signal.pthread_sigmask(signal.SIG_BLOCK, "
                      "[signal.SIGTERM]); os.execv(sys.argv[1], sys.argv[1:])"]


def sample(records: int, text: bytes = b"") -> list[Record]:
    return [(i % 5, at(9 + i // 10, i), text) for i in range(records)]


def stop(run: Run) -> None:
    run.server.process.send_signal(signal.SIGTERM)


class Peers:
    """Connections to all four ports of a server, the last byte of each read by a thread that may close at once."""

    def __init__(self, run: Run, closes: bool) -> None:
        self.client = run.client()
        self.connections = [run.producer.first, run.producer.second, self.client.requests, self.client.replies]
        self.ends: list[object] = [None] * len(self.connections)
        self._threads = [threading.Thread(target=self._read, args=(index, closes), daemon=True) for index in range(4)]

    def watch(self) -> None:
        for thread in self._threads:
            thread.start()

    def _read(self, index: int, closes: bool) -> None:
        try:
            self.ends[index] = self.connections[index].recv(1)
        except OSError as error:
            self.ends[index] = error
        if closes:
            self.connections[index].close()

    def wait(self) -> list[object]:
        for thread in self._threads:
            thread.join()
        return self.ends


class SamePorts(unittest.TestCase):
    def test_can_be_used_at_once_after_every_end(self) -> None:
        """With a producer and a query client connected that stay, or that close the moment they see the end; another
        waits to be accepted. An orderly end is a clean end of stream for them all."""
        for end in ("kill", "SIGTERM", "producer"):
            ports, former = free_ports(4), None
            for index in range(RESTARTS):
                with self.subTest(end=end, round=index):
                    run = Run("4s")
                    try:
                        run.held_ports = dict(enumerate(ports))
                        run.start()
                        expect("lines of the start", run.other_lines(), "")
                        peers = Peers(run, closes=index % 2 == 1)
                        waiting = run.client()
                        run.send(sample(50))
                        run.wait("a reply", lambda: peers.client.find(4))
                        if end == "producer":
                            run.producer.first.shutdown(socket.SHUT_WR)
                        peers.watch()
                        if end == "kill":
                            run.server.kill()
                            peers.wait()
                            continue
                        if end == "SIGTERM":
                            stop(run)
                        expect("ends of stream", peers.wait(), [b""] * 4)
                        run.finish(sample(50))
                    finally:
                        # The peers of this server live on until the next one has been started.
                        if former:
                            former.__exit__(None)
                        former = run
            if former:
                former.__exit__(None)


class Replies(unittest.TestCase):
    def test_under_way_are_complete_at_an_orderly_end(self) -> None:
        sent = [(1, at(9, i), b"x" * (1 << 20)) for i in range(8)]
        for name, end in (("SIGTERM", stop), ("producer", lambda run: run.producer.close())):
            with self.subTest(name), Run("4s") as run:
                run.start()
                run.send(sent, 1)
                client = run.client()
                client.find_all(1, len(sent))
                client.send(run.schema.encode_query(1, 0, BOUND_MAX))
                client.replies.recv(1, socket.MSG_PEEK)
                end(run)
                run.server.wait_told("TMain Gathered TOrg\n")
                expect("records of the reply", sorted(run.schema.decode_reply(client.receive())), sent)
                expect("the end", (client.replies.recv(1), client.requests.recv(1)), (b"", b""))
                run.finish(sent)


    def test_wait_for_a_client_that_has_ended_its_requests_and_pauses(self) -> None:
        sent = [(1, at(9, i), b"x" * (1 << 20)) for i in range(2)]
        with Run("4s") as run:
            run.start()
            run.send(sent, 1)
            finder = run.client()
            finder.find_all(1, len(sent))
            finder.close()
            client = run.client()  # whose system has no room yet for more than a small part
            client.send(run.schema.encode_query(1, 0, BOUND_MAX))
            client.requests.shutdown(socket.SHUT_WR)
            time.sleep(7)
            expect("records of the reply", sorted(run.schema.decode_reply(client.receive())), sent)
            expect("the end", client.replies.recv(1), b"")
            run.finish(sent)


class Sigterm(unittest.TestCase):
    def test_ends_whatever_is_waited_for_and_ships_what_was_taken(self) -> None:
        sent = sample(50, b"text")

        def half_connected(run: Run) -> None:
            before = run.server.descriptors()
            first = connect(run.data_ports[0])
            run._ends.append(first.close)
            wait_until("an accept", lambda: run.server.descriptors() > before)

        def sending(cut: bytes = b"") -> Callable[[Run], None]:
            def begin(run: Run) -> None:
                run.send(sent)
                run.producer.send(cut)
                run.wait_cycles(cycles_before_end(sent))
                wait_until("nothing left to receive", lambda: run.producer.unread() == 0)
            return begin

        for name, begin, taken, line in (
                ("the first connection", lambda run: None, [], ""), ("the second connection", half_connected, [], ""),
                ("a frame", sending(), sent, ""),
                ("the rest of a frame", sending(b"\0\0\1\0part"), sent,
                 "Socket Receiver: socket closed prematurely!\n")):
            for wrapper in ([], IGNORING_STOPS, HOLDING_STOPS_BACK):
                with self.subTest(name, wrapper=wrapper), Run("4s", wrapper=wrapper) as run:
                    run.start()
                    begin(run)
                    stop(run)
                    run.server.wait_end()
                    run.finish(taken)
                    expect("other lines", run.other_lines(), line + STOPPED)

    def test_takes_what_has_arrived_of_a_producer_that_never_pauses(self) -> None:
        with Run("48") as run:
            run.start()
            frames = ([(frame % 7, at(9 + frame // 10), frame * 100 + i) for i in range(100)] for frame in count())

            def feed() -> None:
                with suppress(OSError):
                    for frame in frames:
                        run.send(frame)

            feeder = threading.Thread(target=feed)
            run.producer.first.settimeout(600)
            feeder.start()
            run.wait_cycles(3)
            stop(run)
            expect("status", run.server.wait_end(), 0)
            feeder.join()
            shipped = sorted(record[2] for record in records_of(run.shipped()))
            expect("numbers", shipped == list(range(len(shipped))), True)
            expect("files left", list(read_all(run.recovery)), [KEY_FILE])

    def test_cuts_a_replay_short_and_says_so(self) -> None:
        records = [(1, at(9 + i // 10_000, i % 10_000), i) for i in range(100_000 if SANITIZED else 1_000_000)]
        with Run("48") as run:
            log = run.schema.encode_log(records)
            run.recover_from = fill(run.directory / "old", {KEY_FILE: b"", "F1": log})
            run.launch()
            run.server.wait_told(" --- Recovered 1 records\n")
            stop(run)
            listening = False
            while run.server.running():
                listening |= run.ready()
            expect("data ports that listen", listening, False)
            run.end()
            shipped = records_of(run.shipped())
            self.assertIn(len(shipped), range(1, len(records)))
            expect_same_records(shipped, records[:len(shipped)])
            expect("other lines", run.other_lines(),
                   f"WARNING: SIGTERM has ended the replay after {len(shipped)} records, "
                   f"replay {run.recover_from} again\n{STOPPED}")
            expect("the old log", read_all(run.recover_from)["F1"] == log, True)

    def test_ends_a_start_that_waits_for_the_consumer(self) -> None:
        """Whose system answers no more, since nobody accepts."""
        with Run("44") as run, socket.socket() as listener:
            listener.bind(("127.0.0.1", 0))
            listener.listen(0)
            run.consumer.ports = [listener.getsockname()[1]] * 2
            callers = [socket.socket() for _ in range(4)]
            for caller in callers:
                run._ends.append(caller.close)
                caller.setblocking(False)
                caller.connect_ex(listener.getsockname())
            run.launch()
            wait_until("the log", lambda: (run.recovery / "F1").exists())
            stop(run)
            expect("status", run.server.wait_end(), 0)
            told = run.server.errors()
            self.assertIn("ERROR TCPClient connection failed! : Interrupted system call\n", told)
            self.assertIn(STOPPED, told)

    def test_ends_a_shutdown_at_the_second_time(self) -> None:
        for stops in (1, 2):
            with self.subTest(stops=stops), Run("4s", narrow=True) as run:
                sent = [(1, at(9, i), b"x" * (1 << 20)) for i in range(8)]
                run.start()
                run.consumer.paused = True
                run.send(sent)
                run.producer.close()
                run.server.wait_told("Shutting down\n")
                stop(run)
                if stops == 2:
                    wait_until("the first to be handled", lambda: not catches(run, signal.SIGTERM))
                    stop(run)
                    expect("status", run.server.wait_end(), TERMINATED)
                    continue
                run.consumer.paused = False
                run.finish(sent)
                expect("other lines", run.other_lines(), "")


def catches(run: Run, number: int) -> bool:
    """Whether the server has a handler for a signal."""
    with open(f"/proc/{run.server.pid}/status", encoding="ascii") as status:
        masks = [line.split()[1] for line in status if line.startswith("SigCgt:")]
    if not masks:
        raise Failure("no mask of the signals caught")
    return bool(int(masks[0], 16) >> (number - 1) & 1)
