"""The query ports: what a query finds, what it may not do to the server, and what it meets while records stream in."""

import select
import socket
import struct
import threading
import unittest

from runs import BOUND_MAX, IGNORING_INTERRUPTS, SANITIZED, TIME_MAX, Client, Run, assertion, at, expect
from running import Failure
from wire import QUERY_HEAD, frame

# Two records of one key, and the way a query finds them.
TWO = [(b"key", at(9), 1, b"one"), (b"key", at(9, 5), 2, b"two")]
TWO_FOUND = TWO[::-1]
QUERY = QUERY_HEAD.pack(1, 0, BOUND_MAX)


def number(value: int) -> bytes:
    return struct.pack(">I", value)


class Queries(unittest.TestCase):
    def test_find_the_open_buckets_newest_first(self) -> None:
        with Run("s4s") as run:
            client, sent = run.start().client(), []

            def send(key: bytes, time: int) -> None:
                sent.append((key, time, len(sent), key + b"!"))
                run.send(sent[-1:])

            def check(what: str, expected: list[int], *bounds: int, key: bytes = b"a", wait: bool = False) -> None:
                if wait:
                    client.find_all(key, len(expected))
                expect(what, [record[2] for record in client.find(key, *bounds)], expected)
                expect(what, client.find(key, *bounds), [sent[index] for index in expected])

            send(b"a", at(4, 7))
            run.wait_keys([b"a"])
            for _ in range(20):
                check("before the first advance, however long one waits", [])
            for key, time in ((b"a", at(8)),           # 1: the first advance
                              (b"a", at(4, 9)),        # 2: bucket 4 is still open
                              (b"a", at(6, 3)),        # 3
                              (b"a", at(8, 1)),        # 4
                              (b"a", at(6, 1)),        # 5: newest is what came last, not the greatest time
                              (b"longer key", at(7)),  # 6
                              (b"a", at(3))):          # 7: late, in the oldest open bucket
                send(key, time)
            check("all", [4, 1, 5, 3, 7, 2, 0], wait=True)
            check("another key", [6], key=b"longer key")
            check("both bounds belong to the range", [5, 3], at(6, 1), at(6, 3))
            check("a range without records", [], at(6, 4), at(8) - 1)
            check("an upside-down range", [], at(8, 1), at(6, 1))
            check("bounds are unsigned", [], -5, -1)
            check("from the beginning", [7], 0, at(3))
            for other in (b"", b"b", b"A", b"ab", b"longer ke", b"longer key."):
                check(f"no key {other}", [], key=other)
            send(b"a", at(9))  # 8: bucket 4 is recycled
            check("retired contents are not searched", [8, 4, 1, 5, 3], wait=True)
            send(b"b", at(10))  # 9: hands off the buckets before 10
            run.wait_cycles(2)
            check("what was shipped is still found", [8, 4, 1, 5, 3], wait=True)
            send(b"c", at(1000))  # 10
            check("the newest", [10], key=b"c", wait=True)
            check("nothing older", [])
            run.finish(sent)


class QueryRequests(unittest.TestCase):
    def test_odd_ones_are_harmless(self) -> None:
        """A request that is no query, or ends inside its fields, is not answered, and the same connections serve the
        next. String keys may have their NUL counted or not."""
        rows = (  # request, reply, lines on standard error
            ("a key without its NUL", QUERY + frame(b"key"), TWO_FOUND, 0),
            ("a key with its NUL", QUERY + frame(b"key\0"), TWO_FOUND, 0),
            ("a key with an inner NUL", QUERY + frame(b"key\0ab"), [], 0),
            ("a key with two NULs at its end", QUERY + frame(b"key\0\0"), [], 0),
            ("a long key with an inner NUL", QUERY + frame(b"key" + bytes(1997)), [], 0),
            ("a key of no byte", QUERY + number(0), [], 0),
            ("another type", number(2) + QUERY[4:] + frame(b"key"), None, 0),
            ("another type and nothing else", number(0), None, 0),
            ("another type with more than any query", number(0xFFFFFFFF) + b"x" * 9000, None, 0),
            ("the termination message", b"", None, 1),
            ("a type alone", number(1), None, 1),
            ("a cut time", QUERY[:19], None, 1),
            ("no key", QUERY, None, 1),
            ("a cut key length", QUERY + b"\0\0", None, 1),
            ("a cut key", QUERY + number(4) + b"key", None, 1),
            ("a key of 2 GB", QUERY + number(0x80000000) + b"key", None, 1),
            ("a key of 4 GB less one", QUERY + number(0xFFFFFFFF) + b"key", None, 1))
        with Run("s4s") as run:
            run.start()
            run.send(TWO)
            client, lines = run.client(), 0
            client.find_all(b"key", 2)
            for name, request, reply, told in rows:
                with self.subTest(name):
                    client.send(request)
                    if reply is not None:
                        expect("reply", run.schema.decode_reply(client.receive()), reply)
                    lines += told
                    expect("reply to the next", client.find(b"key"), TWO_FOUND)
                    expect("lines", run.other_lines().count("\n"), lines)
            for short in (b"\1", b"abc"):  # of a type
                client.send(short)
                expect("reply to the next", client.find(b"key"), TWO_FOUND)
            expect("terminations", run.server.errors().count("Received Termination,aborting\n"), 1)
            run.finish(TWO)

    def test_with_excess_data_end_the_server(self) -> None:
        for wrapper, status in (([], -2), (IGNORING_INTERRUPTS, 8)):
            for excess in (1, 9000):
                with self.subTest(status=status, excess=excess), Run("s4s", wrapper=wrapper) as run:
                    run.start().client().send(QUERY + frame(b"key\0") + b"x" * excess)
                    expect("status", run.server.wait_end(), status)
                    expect("other lines", run.other_lines(),
                           assertion(" WARNING: Excess data in query !\n", "uts_stgqueries.cpp line 31"))


class QueryConversations(unittest.TestCase):
    def test_end_and_let_the_next_client_in(self) -> None:
        """However a conversation ends, both of its connections are closed."""
        request = frame(QUERY + frame(b"key\0"))
        incomplete, early = "Incomplete bytefield length read!\n", "Socket Receiver: socket closed prematurely!\n"
        with Run("s4s") as run:
            run.start()
            run.send(TWO)
            lines = ""
            for name, data, stays, line in (
                    ("a close between requests", b"", False, ""),
                    ("a header of two bytes, then silence", request[:2], True, incomplete),
                    ("a header of three bytes", request[:3], False, incomplete),
                    ("a cut body", request[:20], False, early),
                    ("a length of 4 GB less one", number(0xFFFFFFFF) + request, False, early)):
                with self.subTest(name):
                    first = run.client()
                    expect("reply", first.find_all(b"key", 2), TWO_FOUND)
                    second = run.client()  # waits, and is answered when the first is gone
                    second.send(request[4:])
                    expect("reply", first.find(b"key"), TWO_FOUND)
                    expect("replies to a second pair", select.select([second.replies], [], [], 0)[0], [])
                    first.requests.sendall(data)
                    if not stays:
                        first.requests.shutdown(socket.SHUT_WR)
                    expect("ends of both", (first.requests.recv(1), first.replies.recv(1)), (b"", b""))
                    expect("reply", run.schema.decode_reply(second.receive()), TWO_FOUND)
                    second.close()
                    lines += line
                    expect("other lines", run.other_lines(), lines)
            run.finish(TWO)

    def test_with_a_client_that_does_not_read_hold_up_nothing(self) -> None:
        """It asks for megabytes; the server goes on, and ends when it is told to."""
        sent = [(b"key", at(9, i), i, b"x" * (1 << 20)) for i in range(8)]
        with Run("s4s") as run:
            run.start()
            run.send(sent, 1)
            client = run.client()
            client.find_all(b"key", len(sent))
            client.send(QUERY + frame(b"key\0"))
            client.replies.recv(4, socket.MSG_WAITALL)
            run.finish(sent)


class QueriesUnderLoad(unittest.TestCase):
    def test_are_consistent(self) -> None:
        """Every reply, whatever is absorbed, advanced or shipped meanwhile, is made of sent records of the key and the
        range, the newest first."""
        keys, hits = 8, 0
        sent = [(i % keys, at(6) + i * 500, i, b"value %d" % i) for i in range(20_000 if SANITIZED else 150_000)]
        with Run("44s") as run:
            run.start()
            run.producer.first.settimeout(600)
            feeder = threading.Thread(target=run.send, args=(sent, 500), daemon=True)
            feeder.start()
            client, rounds = run.client(), 0
            while feeder.is_alive() or (hits == 0 and rounds < 10_000):  # what was last sent stays in the window
                begin = at(6 + rounds % 300)  # follows the stream
                end = TIME_MAX if rounds % 2 == 0 else begin + 400_000
                last = end
                for record in client.find(rounds % keys, begin, end):
                    known = record[2] < len(sent) and record == sent[record[2]]
                    if not known or record[0] != rounds % keys or not begin <= record[1] <= last:
                        raise AssertionError(f"{record} in a reply of {begin} to {end} for key {rounds % keys}")
                    last = record[1]
                    hits += 1
                rounds += 1
            feeder.join()
            self.assertGreater(hits, 0)
            run.finish(sent)


class Storm(threading.Thread):
    """Keeps asking until the server is gone: on one pair with many requests under way, or with a new pair for each."""

    def __init__(self, run: Run, reconnects: bool) -> None:
        super().__init__(daemon=True)
        self.session, self.reconnects, self.answers, self.stop = run, reconnects, 0, False
        self.start()

    def run(self) -> None:
        count = 1 if self.reconnects else 50
        request = frame(self.session.schema.encode_query(1, 0, BOUND_MAX)) * count
        try:
            while not self.stop:
                client = Client(self.session)
                with client.requests, client.replies:
                    client.requests.sendall(request)
                    while not self.stop:
                        client.receive()
                        self.answers += 1
                        if self.reconnects:
                            break
                        client.requests.sendall(request[:len(request) // count])
        except (Failure, OSError):
            pass  # the connection went down with the server


class OrderlyEnds(unittest.TestCase):
    def test_under_a_storm_of_queries_return_zero(self) -> None:
        """The query thread is inside a search, a send or an accept when the server is taken down under it."""
        sent = [(i % 3, at(9 + i // 100, i), i) for i in range(600)]
        for index in range(20 if SANITIZED else 100):
            with self.subTest(round=index), Run("44") as run:
                run.start()
                run.send(sent)
                storm = Storm(run, index % 2 == 1)
                run.wait("the storm", lambda: storm.answers > index)
                run.end()
                storm.stop = True
                storm.join()
                run.finish(sent)
