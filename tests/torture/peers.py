"""Bad neighbours: consumers, producers and query clients that stall, dribble, lie, vanish or were never there.

While a neighbour misbehaves, a steady load goes on beside it, and at the end every record is accounted for. `count` is
the number of query connections; from 5,000 on the consumer also stalls for ten minutes in place of 20 seconds.
"""

import random
import resource
import socket
import struct
from collections.abc import Callable
from contextlib import suppress
from pathlib import Path

import wire
from load import CODEC, START_US, Feed, Ledger, hold
from running import Consumer, Failure, Producer, QueryClient, Session, connect, reset, wait_until

CONNECTED_AGAIN = "TShp: Connected again, at least "
ATTEMPT_INTERVAL = 5  # seconds between two attempts to connect to a lost consumer
SHORT_ROUNDS = 500
FULL_ROUNDS = 5000


class Loaded:
    """A session under a steady load, with a ledger downstream."""

    def __init__(self, binaries: Path, rate: int = 20_000, narrow: bool = False, listening: bool = True) -> None:
        self.ledger = Ledger()
        self.consumer = Consumer(self.ledger.take, narrow)
        if not listening:
            self.consumer.stop_listening()
        self.session = Session(binaries, CODEC.text, consumer=self.consumer)
        self.session.start()
        self.server = self.session.server
        self.feed = Feed(self.session.produce(), rate)

    def __enter__(self) -> "Loaded":
        return self

    def __exit__(self, *_: object) -> None:
        self.feed.finish()
        self.session.__exit__(None)

    def wait_cycles(self, more: int) -> None:
        """The load goes on: further cycles are carried out, whoever hears of them."""
        before = self.server.errors().count("TShp: termination sent")
        self.server.wait_told("TShp: termination sent", before + more)

    def answers(self) -> None:
        """A query is answered, with records of the window."""
        client = self.session.query()
        wait_until("an answer", lambda: client.ask(CODEC.encode_query(1, 0, 2**63)))
        client.close()

    def end(self, lost: bool = False, seconds: float = 60) -> int:
        """The producer leaves. Status 0, and every record came once; with `lost`, some may be missing: their number."""
        sent = self.feed.finish()
        status = self.server.wait_end(seconds)
        if status != 0:
            raise Failure(f"status {status}: {self.server.errors()[-300:]}")
        if self.consumer.received:
            self.consumer.wait_ended()
        return self.ledger.check(sent, lost)

    def told_lost(self) -> tuple[int, int]:
        """Messages and records of all lines about a connection that was made anew."""
        lines = [line for line in self.server.errors().splitlines() if line.startswith(CONNECTED_AGAIN)]
        words = [line.removeprefix(CONNECTED_AGAIN).split() for line in lines]
        return sum(int(row[0]) for row in words), sum(int(row[3]) for row in words)


# Consumers -----------------------------------------------------------------------------------------------------------

def stall(binaries: Path, seconds: float) -> str:
    with Loaded(binaries, narrow=True) as load:
        load.wait_cycles(2)
        load.consumer.paused = True
        resident = []
        hold(seconds, lambda: (load.answers(), resident.append(load.server.status("VmRSS"))))
        plateau, peak = sorted(resident[len(resident) // 2:])[len(resident) // 4], max(resident[len(resident) // 2:])
        backlog = load.feed.sent - load.ledger.records
        if peak > plateau * 1.1:
            raise Failure(f"resident memory rose from {plateau} to {peak} kB while the consumer stalled")
        load.consumer.paused = False
        load.end(seconds=60 + seconds)
        return f"{load.feed.sent} records, {backlog} of them waiting at the end of the stall; resident {plateau} kB"


def byte_by_byte(binaries: Path) -> str:
    with Loaded(binaries, rate=1000, narrow=True) as load:
        load.consumer.chunk = 1
        load.wait_cycles(2)
        load.end()
        return f"{load.feed.sent} records, read one byte at a time"


def lost_consumer(binaries: Path, drop: Callable[[Consumer], None]) -> str:
    """The connection is lost; the server goes on, connects again, and says what was lost."""
    with Loaded(binaries) as load:
        load.wait_cycles(2)
        descriptors = load.server.descriptors()
        drop(load.consumer)
        load.server.wait_told(CONNECTED_AGAIN)
        if load.server.descriptors() != descriptors:
            raise Failure(f"{descriptors} descriptors before, {load.server.descriptors()} after")
        load.answers()
        keys = len(set(load.ledger.keys))
        load.wait_cycles(2)
        missing = load.end(lost=True)
        messages, records = load.told_lost()
        if not messages or records > missing:
            raise Failure(f"{messages} messages with {records} records told as lost, {missing} records missing")
        if len(load.ledger.keys) != 2 * keys:
            raise Failure(f"{len(load.ledger.keys)} keys announced in two connections, where there are {keys}")
        return f"{missing} of {load.feed.sent} records lost, {records} of them told; all keys announced again"


def second_closed(binaries: Path) -> str:
    with Loaded(binaries) as load:
        load.wait_cycles(1)
        load.consumer.drop(hard=True, which=[1])
        load.wait_cycles(3)
        load.end()
        if CONNECTED_AGAIN in load.server.errors():
            raise Failure("connected again, although the connection with the messages was never lost")
        return f"{load.feed.sent} records, all delivered"


def never_there(binaries: Path) -> str:
    """No consumer, and one that comes when only the final cycle is left: it must not be connected to any more."""
    with Loaded(binaries, listening=False) as load:
        load.wait_cycles(3)
        load.answers()
        with Session(binaries, CODEC.text) as other:
            other.consumer.stop_listening()
            other.start()
            producer = other.produce()
            producer.send(load.feed.batch(0, 10))
            client = other.query()
            wait_until("the records in the window", lambda: client.ask(CODEC.encode_query(1, 0, 2**63)))
            client.close()
            # One bucket advance came with the first record: its cycle has begun before the records were found. The next
            # attempt would be free to go by now.
            other.server.wait_told("TShp: termination sent")
            hold(ATTEMPT_INTERVAL * 1.1, lambda: None)
            other.consumer.listen()
            producer.close()
            if other.server.wait_end() != 0 or other.consumer.received:
                raise Failure("the final cycle was sent to a consumer that came too late")
        if load.end(lost=True) != load.feed.sent or load.server.errors().count("connection failed!") != 1:
            raise Failure("records delivered to nobody, or more than one failed connect told")
        return f"{load.feed.sent} records dropped, as announced"


def comes_late(binaries: Path) -> str:
    with Loaded(binaries, listening=False) as load:
        load.wait_cycles(2)
        load.consumer.listen()
        load.server.wait_told(CONNECTED_AGAIN)
        load.wait_cycles(2)
        missing = load.end(lost=True)
        records = load.told_lost()[1]
        if missing != records:
            raise Failure(f"{missing} records missing, {records} told as lost")
        return f"{missing} of {load.feed.sent} records lost and told, the others delivered"


def attempts(binaries: Path) -> str:
    """While the first port is refused, attempts are rare, and only the second port sees them."""
    with Loaded(binaries, listening=False) as load, socket.socket() as listener:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", load.consumer.ports[1]))
        listener.listen(100)
        listener.settimeout(0)
        load.wait_cycles(1)
        seconds = 2.5 * ATTEMPT_INTERVAL
        hold(seconds, lambda: None)
        seen = 0
        with suppress(BlockingIOError):
            while True:
                listener.accept()[0].close()
                seen += 1
        cycles = load.server.errors().count(" TShp: Starting..")
        if not 2 <= seen <= 4 or cycles < 10:
            raise Failure(f"{seen} attempts in {seconds:g} s and {cycles} cycles")
        load.end(lost=True)
        return f"{seen} attempts in {cycles} cycles"


def nobody_accepts(binaries: Path) -> str:
    """A listener that is connected to anew and never accepts: sends stop, time out, and the run ends in order."""
    with Loaded(binaries, rate=50_000, listening=False) as load:
        listeners = []
        for port in load.consumer.ports:
            listener = socket.socket()
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind(("127.0.0.1", port))
            listener.listen(1)
            listeners.append(listener)
        load.server.wait_told(CONNECTED_AGAIN)
        wait_until("a send that gives up", lambda: "Sender:: Resource temporarily unavailable" in load.server.errors(),
                   60)
        load.end(lost=True)
        for listener in listeners:
            listener.close()
        return "the send gave up, and the run ended in order"


# Producers -----------------------------------------------------------------------------------------------------------

def bad_producer(binaries: Path, misbehave: Callable[[Producer], None], text: str, whole: int) -> str:
    """Whole frames first, then the fault: an orderly end that says why, with all whole frames shipped."""
    ledger = Ledger()
    with Session(binaries, CODEC.text, consumer=Consumer(ledger.take)) as session:
        session.start()
        producer = session.produce()
        for first in range(0, whole, 100):
            producer.send(Feed.batch(FRAMES, first, 100))
        client = session.query()
        last = CODEC.encode_query((whole - 1) % 50, START_US, 2**63)
        wait_until("the whole frames in the window", lambda: len(client.ask(last)) > 0)
        client.close()
        # A process's peak, as its own last word has it, begins with that of the one that has started it.
        before = max(session.server.status("VmHWM"), resource.getrusage(resource.RUSAGE_SELF).ru_maxrss)
        try:
            misbehave(producer)
        except (ConnectionError, BrokenPipeError):
            pass  # the server had seen enough
        session.server.wait_told("Shutting down", seconds=60)
        if session.server.wait_end() != 0 or text not in session.server.errors():
            raise Failure(f"no orderly end with '{text}': {session.server.errors()[-300:]}")
        session.consumer.wait_ended()
        ledger.check(whole)
        grown = session.server.peak_kb() - before
        if grown > 20_000:
            raise Failure(f"memory rose by {grown} kB")
        return f"{whole} records shipped, then: {text}"


class _Frames(Feed):
    """Only the making of frames, without a thread."""

    def __init__(self) -> None:
        self._rate, self._keys, self._late, self._new_key_every = 1000, 50, 0.0, 0


FRAMES = _Frames()


def garbage(producer: Producer, generator: random.Random) -> None:
    producer.send(wire.frame(b"\xff" * 16 + b"\x7f" * 4 + generator.randbytes(500)))


def cut_and_reset(producer: Producer) -> None:
    producer.send(FRAMES.batch(500, 10)[:-1])
    wait_until("the server's side to have it", lambda: not producer.unread())
    producer.reset()


def claim(producer: Producer, size: int, payload: int) -> None:
    producer.send(struct.pack(">I", size))
    for _ in range(payload >> 16):
        producer.send(bytes(1 << 16))
    producer.first.shutdown(socket.SHUT_WR)


def dribble(binaries: Path) -> str:
    """Bodies in pieces of one byte; only headers must be whole."""
    ledger = Ledger()
    with Session(binaries, CODEC.text, consumer=Consumer(ledger.take)) as session:
        producer = session.start().produce()
        producer.first.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for first in range(0, 200, 10):
            frame = FRAMES.batch(first, 10)
            producer.send(frame[:5])
            for at in range(5, len(frame)):
                producer.send(frame[at:at + 1])
        producer.close()
        if session.server.wait_end() != 0:
            raise Failure("no orderly end")
        session.consumer.wait_ended()
        ledger.check(200)
        return "200 records, one byte at a time"


def second_producer(binaries: Path) -> str:
    with Loaded(binaries) as load:
        second = Producer(load.session.data_ports)
        second.send(FRAMES.batch(0, 10))
        load.wait_cycles(2)
        load.end()
        second.close()
        return f"{load.feed.sent} records of the first producer, none of the second"


# Query clients -------------------------------------------------------------------------------------------------------

def odd_queries(load: Loaded, generator: random.Random) -> None:
    """Requests that are no query: ignored, or told and left unanswered; the conversation goes on."""
    client = load.session.query()
    good = CODEC.encode_query(1, 0, 2**63)
    for body in (b"", b"\0", struct.pack(">I", 7), struct.pack(">I", 2) + generator.randbytes(300), good[:3], good[:19],
                 good[:-1]):
        client.requests.sendall(wire.frame(body))
    wait_until("an answer behind them", lambda: client.ask(good))
    client.close()


def silent_client(load: Loaded) -> None:
    client = load.session.query()
    load.wait_cycles(2)
    client.close()
    load.answers()


def vanishing_client(load: Loaded) -> None:
    for _ in range(20):
        client = load.session.query()
        for _ in range(10):
            client.requests.sendall(wire.frame(CODEC.encode_query(1, 0, 2**63)))
        reset(client.replies)
        reset(client.requests)
    load.answers()


def beside_load(binaries: Path, misbehave: Callable[[Loaded], None]) -> str:
    with Loaded(binaries) as load:
        load.wait_cycles(1)
        misbehave(load)
        load.answers()
        load.wait_cycles(1)
        load.end()
        return f"{load.feed.sent} records delivered beside it"


def connection_rounds(binaries: Path, rounds: int, generator: random.Random) -> str:
    """Pairs one after another; one in ten half open at first, one in ten cut off inside a request."""
    with Loaded(binaries, rate=2000) as load:
        load.answers()
        ports = load.session.query_ports
        query = wire.frame(CODEC.encode_query(1, 0, 2**63))
        marks = []
        for index in range(rounds):
            if index in (rounds // 5, rounds - 1):
                load.answers()
                marks.append((load.server.descriptors(), load.server.status("VmRSS")))
            kind = generator.randrange(10)
            if kind == 0:
                # Half open: the first leaves alone. What comes on the second port then makes the pair whole.
                connect(ports[0]).close()
                with suppress(BrokenPipeError):  # the server may have closed it by the time the connect returns
                    connect(ports[1]).close()
                continue
            client = QueryClient(ports)
            if kind == 1:
                client.requests.sendall(query[:generator.randrange(1, len(query))])
                reset(client.requests)
                client.replies.close()
            else:
                client.ask(query[4:])
                client.close()
        (descriptors, resident), (_, resident_after) = marks
        wait_until("the last pair's descriptors to go", lambda: load.server.descriptors() <= descriptors)
        load.end()
        if resident_after > resident + 1024:
            raise Failure(f"memory {resident} to {resident_after} kB")
        return f"{rounds} pairs; {descriptors} descriptors, memory {resident_after - resident:+} kB"


def run(report, count: int | None, options) -> None:
    del options
    rounds = count or SHORT_ROUNDS
    binaries = report.binaries
    seconds = 600 if rounds >= FULL_ROUNDS else 20
    report.scenario("consumer stalls and goes on", lambda _: stall(binaries, seconds))
    report.scenario("consumer reads byte by byte", lambda _: byte_by_byte(binaries))
    report.scenario("consumer resets", lambda _: lost_consumer(binaries, lambda consumer: consumer.drop()))
    report.scenario("consumer closes in order and comes back",
                    lambda _: lost_consumer(binaries, lambda consumer: consumer.drop(hard=False)))
    report.scenario("consumer closes its second connection", lambda _: second_closed(binaries))
    report.scenario("consumer was never there", lambda _: never_there(binaries))
    report.scenario("consumer comes late", lambda _: comes_late(binaries))
    report.scenario("attempts to connect again", lambda _: attempts(binaries))
    report.scenario("consumer listens and never accepts", lambda _: nobody_accepts(binaries))
    for name, misbehave, text in (
            ("sends garbage", None, "Shutting down"),
            ("resets inside a frame", cut_and_reset, "Socket Receiver:"),
            ("claims 2^31 bytes", lambda producer: claim(producer, 1 << 31, 64 << 20), "Socket Receiver:"),
            ("claims 2^31 - 1 bytes and leaves", lambda producer: claim(producer, (1 << 31) - 1, 0),
             "Socket Receiver: socket closed prematurely!")):
        report.scenario(f"producer {name}", lambda generator, act=misbehave, text=text: bad_producer(
            binaries, act or (lambda producer: garbage(producer, generator)), text, 500))
    report.scenario("producer dribbles", lambda _: dribble(binaries))
    report.scenario("a second producer", lambda _: second_producer(binaries))
    report.scenario("query client says nothing", lambda _: beside_load(binaries, silent_client))
    report.scenario("query client sends garbage",
                    lambda generator: beside_load(binaries, lambda load: odd_queries(load, generator)))
    report.scenario("query clients vanish before the reply", lambda _: beside_load(binaries, vanishing_client))
    report.scenario("query connections", lambda generator: connection_rounds(binaries, rounds, generator))
