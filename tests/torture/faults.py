"""System calls that fail, fall short or are interrupted, one after another; full and read-only disks.

A reference run is repeated with one fault each. What must come out of it is told by the table `kinds`: the ending, the
lines on standard error, and which records have to arrive. Whatever the ending, standard error holds documented lines
only, the key file can be read, the directory that was replayed is as before, and a clean replay of what was left brings
every whole record of it.
"""

import os
import random
import re
import shutil
import socket
import struct
import subprocess
import tempfile
from collections import Counter
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from itertools import islice
from pathlib import Path

import wire
from running import Consumer, Failure, QueryClient, Session, wait_until

SCHEMA = wire.Schema("Mixed\n string64 name\n int32 number\n int64 wide\n float64 value\n string64 text\n")
WINDOW_BUCKET_US = 250_000
BEGIN_US = 1_700_000_000_000_000
FRAME_RECORDS = 50
POINTS = 50
END_SECONDS = 20.0
ABORTED = -6
ASSERTED = -2
DOCUMENTED = Path(__file__).parents[2] / "docs" / "messages.md"
REASONS = "|".join({re.escape(os.strerror(number)) for number in range(1, 134)})


# Endings -------------------------------------------------------------------------------------------------------------
@dataclass(frozen=True)
class Ending:
    """`keeps`: "all" records arrive; those of the "front" of the stream, cut at a frame; "some", because the consumer
    was lost; or the "log" holds what did not arrive."""

    statuses: tuple[int, ...]
    texts: tuple[str, ...]  # each is a pattern that standard error contains
    keeps: str


def ending(status: int, keeps: str, *texts: str) -> Ending:
    return Ending((status,), tuple(texts), keeps)


SENDER = "(ERROR  Sender:|Socket Sender:): "
SERVED = "TMain Gathered TOrg\n"
CLEAN = ending(0, "all", SERVED)
LOG_WRITE = ending(ASSERTED, "log", "sutl_FileWrite error: : ",
                   "ERROR, Write incomplete!|ERROR, Closing write incomplete!|ERROR: Flush write incomplete!")
KEY_WRITE = ending(0, "all", "sutl_FileWrite error: : ", SERVED)
NOT_CREATED = ending(ABORTED, "log", "ERROR: File .* could not be created: ")
READ_ERROR = ending(ASSERTED, "log", "Read error!")
READ_BACK = ending(ASSERTED, "log", "ERROR, recovery read failed!")
KEYS_UNREAD = ending(ABORTED, "log", "sutl_FileRead error: : ", "Corrupt Recovery Keyfile!")
DIRECTORY = ending(ABORTED, "log", "Recovery directory open failed: ")
ENTRIES = ending(ABORTED, "log", "Recovery directory read failed: ")
OLD_UNOPENED = ending(0, "some", "ERROR: Recovery file .* could not be opened, the replay ends before it: ", SERVED)
SCHEMA_UNREAD = "ERROR suts_tspec: (Cannot open|Incomplete)"
NO_SCHEMA = ending(0, "front", SCHEMA_UNREAD, "has no key field: no record can be taken")
NO_REPLAY = ending(8, "front", SCHEMA_UNREAD, "cannot be replayed")
REMOVAL = ending(0, "all", "File removal failed!", SERVED)
DATA_READ = ending(0, "front", "Socket Receiver:: ", SERVED)
HEADER_READ = ending(0, "front", "Incomplete bytefield length read!", SERVED)
QUERY_READ = ending(0, "all", "Socket Receiver:: ", SERVED)
QUERY_SEND = ending(0, "all", SENDER, SERVED)
SHIP_SEND = ending(0, "some", SENDER, SERVED)
NO_CONSUMER = ending(0, "some", "Socket open failed:|TCPClient connection failed! |Hostname lookup",
                     SENDER + "|Connected again", SERVED)
OUT_OF_MEMORY = ending(ABORTED, "log", "ERROR, out of memory!")
THREAD = ending(ABORTED, "log", "ERROR, (ship|organizer) thread could not be started: ")
NO_QUERY_THREAD = ending(0, "all", "ERROR, query thread could not be started: ", SERVED)


def port_endings(text: str, deaf: bool = True) -> list[list[Ending]]:
    """A call made for each of the query ports, then for each of the data ports. A pair whose second port alone is deaf
    finds out when the first is used, which nobody does with the query ports then."""
    query = ending(0, "all", text, " Accept failed:: ", SERVED)
    quiet = ending(0, "all", text, SERVED)
    data = ending(0, "front", text, " Accept failed:: ", "Shutting down", SERVED)
    return [[query], [query if deaf else quiet], [data], [data]]


# Loads and kinds -----------------------------------------------------------------------------------------------------
Records = list[wire.Record]


@dataclass
class Load:
    name: str
    old: Records      # in the directory that is replayed
    fresh: Records    # from the producer
    stalls: bool = False  # the consumer reads nothing before all is in the log

    @property
    def sent(self) -> Records:
        return self.old + self.fresh


@dataclass
class Kind:
    """Faults of one function. `rule` says which calls; `{n}` and `{m}` in an effect are the number of one of them and
    of the next. Without a number of calls the dry run tells it; endings per call are a list of lists."""

    load: Load
    rule: str
    effects: list[str]
    endings: list[Ending] | list[list[Ending]]
    calls: int = 0
    silent: bool = False  # queries may get no answer

    def faults(self, call: int) -> Iterator[str]:
        for effect in self.effects:
            rules = [f"{self.rule}:{part}" if "=" in part.split(":")[0] else part for part in effect.split(",")]
            yield ",".join(rules).format(n=call, m=call + 1)

    def allowed(self, call: int) -> list[Ending]:
        first = self.endings[0]
        return self.endings if isinstance(first, Ending) else self.endings[min(call, len(self.endings)) - 1]


def make_records(source: random.Random, keys: list[bytes], count: int, begin: int, text_bytes: int = 40) -> Records:
    """In order of time, ten to a bucket."""
    records = []
    for index in range(count):
        text = source.randbytes(source.randrange(text_bytes // 2, text_bytes)).replace(b"\0", b"\1")
        records.append((keys[index % len(keys)] if index < 2 * len(keys) else source.choice(keys),
                        begin + index * WINDOW_BUCKET_US // 10, source.randrange(-2**31, 2**31),
                        source.randrange(-2**63, 2**63), source.randrange(2**64), text))
    return records


def make_loads(seed: int) -> tuple[Load, Load, Load]:
    source = random.Random(seed)
    keys = [f"key-{index:02}".encode() + b"x" * source.randrange(20) for index in range(24)]
    later = BEGIN_US + 100 * WINDOW_BUCKET_US
    return (Load("run", [], make_records(source, keys, 600, BEGIN_US)),
            Load("replay", make_records(source, keys[:16], 400, BEGIN_US), make_records(source, keys, 200, later)),
            make_backlog(source))


def make_backlog(source: random.Random) -> Load:
    """More than the buffers of a connection and the memory of the server's queue hold together."""
    return Load("backlog", [], make_records(source, [b"one", b"two", b"three"], 4000, BEGIN_US, 3000), stalls=True)


def make_kinds(run: Load, replay: Load, backlog: Load) -> list[Kind]:
    full = ["errno=ENOSPC:at={n}", "errno=EIO:at={n}"]
    full_and_freed = ["errno=ENOSPC:from={m}:times=1,short=30:at={n}"]
    half_key = ["errno=ENOSPC:at={m},short=2:at={n}"]
    refused = ["errno=EMFILE:at={n}"]
    broken = ["errno=EIO:at={n}"]
    not_accepted = ["errno=EMFILE:at={n}", "errno=ECONNABORTED:at={n}"]
    lost = ["errno=EPIPE:at={n}", "errno=ECONNRESET:at={n}", "errno=EAGAIN:at={n}"]
    calls = "read|write|send|open|accept|connect|poll|close|remove"
    interrupted = [f"{calls}:errno=EINTR:chance=300:seed={{n}}", f"{calls}:errno=EINTR:every=2"]
    short = [f"read|write|send:short={size}" for size in (1, 3, 1000)]
    both = [f"{interrupted[0]},read|write|send:short=2"]
    nothing = [*interrupted, *short, *both]
    slow = [*interrupted, short[2]]  # for the megabytes of a backlog
    memory = [OUT_OF_MEMORY, DIRECTORY, NO_CONSUMER, THREAD, NO_QUERY_THREAD, CLEAN]
    return [
        # Changes nothing at all.
        *(Kind(load, "", nothing, [CLEAN], calls=20) for load in (run, replay)),
        Kind(backlog, "", slow, [CLEAN], calls=20),
        Kind(run, "close", ["errno=EIO:at={n}", "errno=EINTR:at={n}"], [CLEAN]),
        Kind(run, "connect", ["errno=EINTR:at={n}"], [CLEAN]),
        # The log and the key file.
        *(Kind(load, "write:on=recovery/F", full, [LOG_WRITE]) for load in (run, replay)),
        Kind(run, "write:on=recovery/F", full_and_freed, [LOG_WRITE]),
        *(Kind(load, "write:on=recovery/KeyFile", [*full, "errno=ENOSPC:from={n}:times=3"], [KEY_WRITE])
          for load in (run, replay)),
        *(Kind(load, "write:on=recovery/KeyFile", half_key, [KEY_WRITE]) for load in (run, replay)),
        Kind(run, "open:on=recovery/F", [*refused, "errno=EROFS:at={n}"], [NOT_CREATED, CLEAN]),
        Kind(run, "open:on=recovery/KeyFile", refused, [NOT_CREATED]),
        Kind(run, "remove:on=recovery/F", [*broken, "errno=EROFS:from={n}"], [REMOVAL]),
        Kind(run, "opendir:on=recovery", refused, [DIRECTORY]),
        Kind(run, "readdir:on=recovery", broken, [ENTRIES]),
        # The replay and the way back from the log.
        Kind(replay, "read:on=old/F", broken, [READ_ERROR]),
        Kind(replay, "read:on=old/KeyFile", broken, [KEYS_UNREAD]),
        Kind(replay, "open:on=old/KeyFile", refused, [KEYS_UNREAD]),
        Kind(replay, "open:on=old/F", [*refused, "errno=EIO:at={n}"], [OLD_UNOPENED]),
        Kind(replay, "opendir:on=/old", refused, [DIRECTORY]),
        Kind(replay, "readdir:on=/old", broken, [ENTRIES]),
        Kind(backlog, "read:on=recovery/F", broken, [READ_ERROR]),
        Kind(backlog, "lseek:on=recovery/F", broken, [READ_BACK]),
        Kind(backlog, "open:on=recovery/F", refused, [NOT_CREATED, READ_BACK, CLEAN]),
        # The schema.
        Kind(run, "open:on=schema.spec", refused, [NO_SCHEMA]),
        Kind(run, "read:on=schema.spec", ["errno=EIO:at={n},short=11"], [NO_SCHEMA], calls=6),
        Kind(replay, "read:on=schema.spec", ["errno=EIO:at={n},short=13"], [NO_REPLAY], calls=5),
        # Sockets.
        *(Kind(run, f"accept:argument={port}", not_accepted, [ending(0, "front", " Accept failed:: ", SERVED)])
          for port in (6, 7)),
        *(Kind(run, f"accept:argument={port}", not_accepted, [ending(0, "all", " Accept failed:: ", SERVED)],
               silent=True) for port in (9, 10)),
        Kind(run, "read:argument=6", [*broken, "errno=ECONNRESET:at={n}"], [DATA_READ]),
        Kind(run, "poll", ["errno=EIO:at={n},read:argument=6:short=1"], [HEADER_READ], calls=6),
        Kind(run, "read:argument=9", broken, [QUERY_READ], silent=True),
        Kind(run, "send:argument=10", lost, [QUERY_SEND], silent=True),
        *(Kind(load, "send:argument=4", lost, [SHIP_SEND]) for load in (run, replay)),
        Kind(run, "socket", refused, [[NO_CONSUMER], [NO_CONSUMER], *port_endings("Socket open failed:: ")],
             silent=True),
        Kind(run, "bind", ["errno=EACCES:at={n}"], port_endings("Binding socket failed:: "), silent=True),
        Kind(run, "listen", ["errno=EIO:at={n}"], port_endings(" Listen on socket failed:: ", False), silent=True),
        Kind(run, "connect", broken, [NO_CONSUMER], calls=2),
        # Threads and memory.
        Kind(run, "pthread_create", ["errno=EAGAIN:at={n}"], [[THREAD], [THREAD], [NO_QUERY_THREAD]], silent=True),
        Kind(run, "malloc", ["errno=ENOMEM:at={n}"], [*memory, NO_SCHEMA], silent=True),
        Kind(replay, "malloc", ["errno=ENOMEM:at={n}", "errno=ENOMEM:from={n}"], [*memory, NO_REPLAY], silent=True),
    ]


# One run -------------------------------------------------------------------------------------------------------------
def read_log(directory: Path) -> tuple[Records, int]:
    """The whole records of the files, and the length of the tail behind them."""
    files = sorted((path for path in directory.iterdir() if path.name[0] == "F"), key=lambda path: int(path.name[1:]))
    return SCHEMA.parse_log(b"".join(path.read_bytes() for path in files))


def all_logged(directory: Path, sent: Records) -> bool:
    """Whether everything but what fits into a block is in the log, some of which may be removed already."""
    try:
        logged, _ = read_log(directory)
    except OSError:
        return False
    rest = wire.LOG_BLOCK_BYTES // SCHEMA.stored_size(sent[0]) + 10
    return bool(logged) and logged[-1] in sent[-rest:]


def write_old(directory: Path, records: Records) -> dict[str, bytes]:
    """A directory to be replayed: files with a gap in their numbers, and the keys in the order first seen."""
    directory.mkdir()
    third = len(records) // 3
    parts = {"F1": records[:third], "F3": records[third:2 * third], "F10": records[2 * third:]}
    files = {name: SCHEMA.encode_log(part) for name, part in parts.items()}
    files["KeyFile"] = SCHEMA.encode_key_file(dict.fromkeys(record[0] for record in records))
    for name, content in files.items():
        (directory / name).write_bytes(content)
    return files


@dataclass
class Outcome:
    status: int = 0
    errors: str = ""
    received: Records = field(default_factory=list)
    cycle_open: bool = False  # records may have been marked that no message has brought
    asked: bool = False       # the last query was answered in full
    firings: int = 0
    gone: int = 0             # records that somebody else took out of the log


class OneTry(QueryClient):
    """Connects at once or not at all."""

    def __init__(self, ports: list[int], seconds: float) -> None:
        self.requests, self.replies = (socket.create_connection(("127.0.0.1", port), seconds) for port in ports)


def ask(session: Session, key: wire.Value, expected: Counter, seconds: float) -> bool:
    """Asks until the reply is what is expected. False when no answer comes, or the server ends meanwhile."""
    if not set(session.query_ports) <= session.server.listening():
        return False

    def answered() -> bool:
        reply = Counter(SCHEMA.decode_reply(client.ask(SCHEMA.encode_query(key, 0, 2**63))))
        return reply == expected or not expected

    try:
        client = OneTry(session.query_ports, seconds)
        with client.requests, client.replies:
            wait_until("the whole answer", lambda: not session.server.running() or answered(), seconds)
            return session.server.running()
    except (Failure, OSError):
        return False


Meanwhile = Callable[[Session], None]


def produce(session: Session, load: Load, silent: bool, meanwhile: Meanwhile) -> bool:
    """Sends the records and ends in order; any step may find that the server has gone. Whether the last query was
    answered."""
    newest = load.fresh[-1] if load.fresh else (b"", 0)
    oldest_open = (newest[1] // WINDOW_BUCKET_US - 4) * WINDOW_BUCKET_US
    window = Counter(record for record in load.sent if record[0] == newest[0] and record[1] >= oldest_open)
    frames = [SCHEMA.encode_frame(load.fresh[at:at + FRAME_RECORDS]) for at in range(0, len(load.fresh), FRAME_RECORDS)]
    asked = False
    try:
        with socket.create_connection(("127.0.0.1", session.data_ports[0])) as first, \
                socket.create_connection(("127.0.0.1", session.data_ports[1])):
            for index, data in enumerate(frames):
                if index == len(frames) // 2 and not load.stalls:
                    ask(session, newest[0], Counter(), 0.3 if silent else 5)
                first.sendall(data)
            if load.stalls:
                wait_until("the records in the log",
                           lambda: not session.server.running() or all_logged(session.recovery, load.sent))
                meanwhile(session)
                session.consumer.paused = False
            asked = bool(frames) and ask(session, newest[0], window, 0.3 if silent else 5)
    except OSError:
        pass
    return asked


def play(session: Session, load: Load, faults: str = "", silent: bool = False,
         meanwhile: Meanwhile = lambda _: None) -> Outcome:
    """A whole run, from the start of the process to its end. `meanwhile` is called when a consumer that stalls has let
    the backlog grow."""
    counts = session.directory / "counts"
    if faults:
        session.env = {"LD_PRELOAD": str(session.binaries / "faultshim.so"),
                       "BRINDLE_FAULTS": f"counts={counts},{faults}"}
    outcome = Outcome()
    session.consumer.paused = load.stalls
    session.launch()
    wait_until("the data ports, or an end", lambda: session.ready() or not session.server.running()
               or session.data_ports[0] in session.server.listening() and "Listen on socket" in session.server.errors())
    if session.server.running():
        outcome.asked = produce(session, load, silent, meanwhile)
    session.consumer.paused = False
    gather(session, outcome)
    if faults:
        outcome.firings = sum(fired for _, fired in struct.iter_unpack("QQ", counts.read_bytes()))
    return outcome


def gather(session: Session, outcome: Outcome) -> None:
    """What is known when the process has ended."""
    outcome.status = session.server.wait_end(END_SECONDS)
    outcome.errors = session.server.errors()
    lost = re.search("TCPClient connection failed|Socket open failed|Hostname lookup", outcome.errors)
    pairs = outcome.errors.count("Connected again") + ("TShp: Starting.." in outcome.errors and not lost)
    try:
        wait_until("the connections in the consumer's hands", lambda: len(session.consumer.received) >= pairs, 3)
    except Failure:
        pass  # what did not arrive is judged later
    session.consumer.wait_ended()
    try:
        messages = map(SCHEMA.decode_ship, session.consumer.bodies())
        outcome.received = [record for message in messages for record in message.records()]
    except wire.FormatError as error:
        raise Failure(f"status {outcome.status}, and a message that cannot be decoded: {error}") from None
    outcome.cycle_open = outcome.errors.count(" TShp: Starting..") > outcome.errors.count("TShp: termination sent")


# Judgement -----------------------------------------------------------------------------------------------------------
def documented_lines() -> re.Pattern:
    """Every text that the page of messages quotes, numbers and names filled in, with or without a reason."""
    page = re.sub(r"^```.*?^```", "", DOCUMENTED.read_text(), flags=re.M | re.S)
    texts = []
    for quoted in set(re.findall(r"`([^`]+)`", page)):
        text = re.sub(r"\n\s*", " ", quoted)
        if len(re.findall(r"[A-Za-z]{2,}", re.sub(r"%\w+", "", text))) < 2:
            continue
        text = re.sub(r"%l*[ud]", "\0", re.sub(r"%s", "\1", text)).replace(": utime ...", "\2")
        text = re.escape(text).replace("\0", r"-?\d+").replace("\1", ".*")
        texts.append(text.replace("\2", r": utime -?\d+ us, stime -?\d+ us, etime -?\d+ us, MaxRSS \d+ kB  "))
    quoted = "(" + "|".join(sorted(texts, key=len, reverse=True)) + ")"
    return re.compile(rf"{quoted}(: ({REASONS}))?|  ?: ({REASONS})|: ({REASONS})| ?|"
                      rf" >>>>>> Internal Error \(Assert Failure\): {quoted} ?|     At file:\S+ line \d+ <<<<<<<")


DOCUMENTED_LINE = documented_lines()
CREATION = re.compile(r"^ERROR: File \S+ could not be created: ")


def check_errors(errors: str) -> None:
    for line in errors.split("\n"):
        # Another thread's line may follow the first half of this report.
        if not DOCUMENTED_LINE.fullmatch(CREATION.sub("", line)):
            raise Failure(f"a line that is not documented: '{line}'")


def check_received(load: Load, outcome: Outcome, keeps: str) -> None:
    received, sent = Counter(outcome.received), load.sent
    if strange := received - Counter(sent):
        raise Failure(f"{sum(strange.values())} records came twice or were never sent")
    missing = len(sent) - len(outcome.received)
    if keeps == "all" and missing:
        raise Failure(f"{missing} of {len(sent)} records did not arrive, with status 0")
    cut = (len(outcome.received) - len(load.old)) % FRAME_RECORDS
    if keeps == "front" and (cut or received != Counter(sent[:len(outcome.received)])):
        raise Failure(f"the {len(outcome.received)} records that came are no whole frames from the front")
    told = sum(map(int, re.findall(r"Connected again, .* with (\d+) records were lost", outcome.errors)))
    renewed = outcome.errors.rfind("Connected again") > max(map(outcome.errors.rfind, ("  Sender:", "Socket Sender:")))
    if keeps == "some" and (told > missing or renewed and told < missing):
        raise Failure(f"{missing} records did not arrive, and {told} were said to be lost")


def check_logged(load: Load, outcome: Outcome, directory: Path) -> Records:
    """What arrived and what is logged have no hole but for what is documented: a cycle that was under way, and the
    last record of a removed file. Returns the logged records."""
    logged, _ = read_log(directory)
    places = {record: index for index, record in enumerate(load.sent)}
    found = [places.get(record, -1) for record in logged]
    if -1 in found or found != sorted(set(found)):
        raise Failure("the log holds records out of order or never sent")
    known = {*found, *(places[record] for record in outcome.received)}
    lost = max(known, default=-1) + 1 - len(known)
    numbers = [int(path.name[1:]) for path in directory.glob("F*")]
    removed = max(numbers, default=0) - len(numbers)
    if lost > removed + outcome.gone and not outcome.cycle_open and outcome.status != 0:
        raise Failure(f"{lost} records are neither shipped nor logged, and no cycle was under way")
    return logged


def check_left(binaries: Path, load: Load, outcome: Outcome, directory: Path) -> str:
    """The directory can be replayed, and every whole record of it comes to a consumer."""
    logged = check_logged(load, outcome, directory)
    key_file = directory / "KeyFile"
    if not key_file.exists():
        if logged:
            raise Failure("a log without a key file")
        return "nothing left"
    try:
        keys = SCHEMA.parse_key_file(key_file.read_bytes())
    except wire.FormatError as error:
        raise Failure(f"the key file cannot be read: {error}") from None
    if strange := set(keys) - {record[0] for record in load.sent}:
        raise Failure(f"the key file holds what was never sent: {sorted(strange)[0]!r}")
    with Session(binaries, SCHEMA.text, recover_from=directory) as session:
        again = play(session, Load("again", logged, []))
        check_errors(again.errors)
        if again.status != 0 or Counter(again.received) != Counter(logged):
            raise Failure(f"a replay of {len(logged)} records ended with {again.status} and "
                          f"{len(again.received)} records: {again.errors[-200:]!r}")
    return f"{len(logged)} replayed"


def judge(session: Session, kind: Kind, call: int, outcome: Outcome, old: dict[str, bytes]) -> str:
    allowed = kind.allowed(call) if outcome.firings else [CLEAN]
    matching = [each for each in allowed if outcome.status in each.statuses
                and all(re.search(text, outcome.errors) for text in each.texts)]
    if not matching:
        raise Failure(f"no ending that is allowed: status {outcome.status}, "
                      f"{len(outcome.received)} of {len(kind.load.sent)} records arrived, {outcome.errors[-300:]!r}")
    met = matching[0]
    check_errors(outcome.errors)
    check_received(kind.load, outcome, met.keeps)
    if met == CLEAN and not kind.silent and not outcome.asked:
        raise Failure("the last query was not answered in full")
    for name, content in old.items():
        if (session.recover_from / name).read_bytes() != content:
            raise Failure(f"{name} of the directory that was replayed has changed")
    if outcome.status == 0 and met != REMOVAL and any(session.recovery.glob("F*")):
        raise Failure("an orderly end has left files of the log behind")
    left = check_left(session.binaries, kind.load, outcome, session.recovery)
    lines = outcome.errors.split("\n")
    story = next((line.strip() for text in met.texts for line in lines if re.search(text, line)), "")
    return (f"{'' if outcome.firings else 'not reached; '}status {outcome.status}, {len(outcome.received)} arrived, "
            f"{left}{', ' + story if met != CLEAN else ''}")


# Disks ---------------------------------------------------------------------------------------------------------------
NO_MOUNT = "left out: no file system can be mounted here"


@contextmanager
def small_disk(options: str) -> Iterator[Path | None]:
    """A file system of its own; None where that is not permitted."""
    place = Path(tempfile.mkdtemp(prefix="brindle-disk-"))
    command = ["mount", "-t", "tmpfs", "-o", options, "tmpfs", str(place)]
    mounted = os.geteuid() == 0 and subprocess.run(command, capture_output=True).returncode == 0
    try:
        yield place if mounted else None
    finally:
        if mounted:
            subprocess.run(["umount", str(place)], check=True)
        place.rmdir()


def crowd(source: random.Random, count: int, place: int = 0) -> Records:
    """Records so close in time that none is shipped before later ones come."""
    begin = BEGIN_US + place * WINDOW_BUCKET_US
    return [(r[0], begin + index, *r[2:]) for index, r in enumerate(make_records(source, [b"one", b"two"], count, 0))]


def judge_one(session: Session, load: Load, outcome: Outcome, *endings: Ending) -> str:
    outcome.firings = 1
    return judge(session, Kind(load, "", [], list(endings), silent=True), 1, outcome, {})


def on_disk(binaries: Path, options: str, load: Load, *endings: Ending) -> str:
    with small_disk(options) as disk:
        if not disk:
            return NO_MOUNT
        with Session(binaries, SCHEMA.text) as session:
            session.recovery = disk
            return judge_one(session, load, play(session, load), *endings)


def full_disk(binaries: Path, source: random.Random) -> str:
    """Nothing is shipped before the disk is full."""
    return on_disk(binaries, "size=64k", Load("full", [], crowd(source, 2000)), LOG_WRITE, NOT_CREATED)


def full_disk_and_freed(binaries: Path, source: random.Random) -> str:
    """Half a key is written when the disk is full; there is room again for the next."""
    page = wire.LOG_BLOCK_BYTES
    load = Load("freed", [], [(b"%d" % index * 1996, BEGIN_US + index, 0, 0, 0, b"") for index in range(3)])
    load.fresh.append((b"short", BEGIN_US + 3, 0, 0, 0, b""))
    with small_disk(f"size={16 * page}") as disk:
        if not disk:
            return NO_MOUNT
        with Session(binaries, SCHEMA.text) as session:
            session.recovery = disk / "recovery"
            session.recovery.mkdir()
            keys, filler, outcome = session.recovery / "KeyFile", disk / "filler", Outcome()
            producer = session.start().produce()
            producer.send(SCHEMA.encode_frame(load.fresh[:2]))
            entry = len(SCHEMA.encode_key_file([load.fresh[0][0]]))
            wait_until("two keys", lambda: keys.stat().st_size == 2 * entry)
            with filler.open("wb", buffering=0) as file:
                try:
                    while True:
                        file.write(bytes(page))
                except OSError:
                    file.truncate(file.tell() - page)  # room for the log's block, none for the key's second page
            producer.send(SCHEMA.encode_frame(load.fresh[2:3]))
            session.server.wait_told("sutl_FileWrite error: : No space left on device")
            filler.unlink()
            producer.send(SCHEMA.encode_frame(load.fresh[3:]))
            wait_until("the key that has room", lambda: keys.read_bytes().endswith(b"short\0"))
            producer.send(wire.TERMINATION_FRAME)
            gather(session, outcome)
            return judge_one(session, load, outcome, ending(ASSERTED, "log", "Organizer destruction without"))


def read_only_disk(binaries: Path, source: random.Random) -> str:
    return on_disk(binaries, "size=64k,ro", Load("read-only", [], crowd(source, 50)), NOT_CREATED)


def read_only_directory(binaries: Path, source: random.Random) -> str:
    """The directory turns read-only under the server: a removal fails, then the next file."""
    first, second, third = crowd(source, 200), crowd(source, 30, 8), crowd(source, 400, 9)
    load = Load("read-only", [], first + second + third)
    with Session(binaries, SCHEMA.text) as session:
        if os.geteuid() == 0:  # whom permissions do not bind
            nobody = 65534
            session.wrapper = ["setpriv", f"--reuid={nobody}", f"--regid={nobody}", "--clear-groups"]
            shutil.copy(binaries / "brindle", session.directory)
            session.binaries = session.directory
            for path in (session.directory, session.recovery):
                os.chown(path, nobody, nobody)
        producer = session.start().produce()
        producer.send(SCHEMA.encode_frame(first))
        wait_until("a second file", (session.recovery / "F2").exists)
        session.recovery.chmod(0o500)
        outcome = Outcome()
        try:
            producer.send(SCHEMA.encode_frame(second))
            session.server.wait_told("File removal failed!\n: Permission denied")
            producer.send(SCHEMA.encode_frame(third))
            gather(session, outcome)
        finally:
            session.recovery.chmod(0o700)
        return judge_one(session, load, outcome, NOT_CREATED)


def vanished_file(binaries: Path, source: random.Random) -> str:
    """A file of the log is removed by somebody else before the reader of the backlog has come to it."""
    load = make_backlog(source)
    vanished: Records = []

    def remove_middle(session: Session) -> None:
        middle = load.sent[len(load.sent) // 2]
        for path in session.recovery.glob("F*"):
            held = SCHEMA.parse_log(path.read_bytes())[0]
            if middle in held:
                vanished.extend(held)
                path.unlink()

    with Session(binaries, SCHEMA.text, consumer=Consumer(narrow=True)) as session:
        outcome = play(session, load, silent=True, meanwhile=remove_middle)
        outcome.gone = len(vanished)
        return judge_one(session, load, outcome, READ_BACK)


DISKS = {"a full disk": full_disk, "a full disk that is freed": full_disk_and_freed,
         "a read-only disk": read_only_disk, "a directory turns read-only": read_only_directory,
         "a file of the backlog vanishes": vanished_file}


# Points --------------------------------------------------------------------------------------------------------------
class Points:
    """The faults to choose from, and the runs that they are put into."""

    def __init__(self, binaries: Path, seed: int) -> None:
        self.binaries = binaries
        self.kinds = make_kinds(*make_loads(seed))
        self.reached = 0
        self.tried = 0
        self._count_calls()

    def _session(self, load: Load) -> tuple[Session, dict[str, bytes]]:
        session = Session(self.binaries, SCHEMA.text, consumer=Consumer(narrow=load.stalls))
        if not load.old:
            return session, {}
        session.recover_from = session.directory / "old"
        return session, write_old(session.recover_from, load.old)

    def _count_calls(self) -> None:
        """A run of each load without a fault tells how many calls there are to choose from."""
        for load in {id(kind.load): kind.load for kind in self.kinds}.values():
            counted = [kind for kind in self.kinds if kind.load is load and kind.calls == 0]
            session, _ = self._session(load)
            with session:
                outcome = play(session, load, ",".join(kind.rule for kind in counted))
                check_received(load, outcome, "all")
                numbers = struct.iter_unpack("QQ", (session.directory / "counts").read_bytes())
            for kind, (calls, _) in zip(counted, numbers):
                # How far a backlog grows is not the same in every run.
                kind.calls = calls // 2 if load.stalls and calls > 50 else calls
                if not calls:
                    raise Failure(f"no call of {kind.rule} in a {load.name}")

    def run(self, kind: Kind, call: int, faults: str) -> str:
        session, old = self._session(kind.load)
        with session:
            outcome = play(session, kind.load, faults, kind.silent)
            if "Address already in use" not in outcome.errors:
                self.tried += 1
                self.reached += outcome.firings > 0
                return judge(session, kind, call, outcome, old)
        return self.run(kind, call, faults)  # somebody was quicker with a port

    def chosen(self, source: random.Random) -> Iterator[tuple[str, Callable[[random.Random], str]]]:
        """All points, in an order that comes to every kind before it comes to one again."""
        rows = []
        for kind in self.kinds:
            calls = range(1, kind.calls + 1)
            row = list({faults: (kind, call, faults) for call in calls for faults in kind.faults(call)}.values())
            source.shuffle(row)
            rows.append(row)
        for place in range(max(map(len, rows))):
            for row in rows:
                if place < len(row):
                    kind, call, faults = row[place]
                    yield f"{kind.load.name} {faults}", lambda _, point=row[place]: self.run(*point)


    def reach(self) -> str:
        if self.reached < 0.9 * self.tried:
            raise Failure(f"only {self.reached} of {self.tried} faults came about")
        return f"{self.reached} of {self.tried} faults came about"


def run(report, count: int | None, options) -> None:
    for name, scenario in DISKS.items():
        report.scenario(name, lambda source, scenario=scenario: scenario(options.binaries, source))
    points = Points(options.binaries, options.seed)
    chosen = points.chosen(random.Random(options.seed))
    for name, body in chosen if options.only else islice(chosen, count or POINTS):
        report.scenario(name, body)
    report.scenario("the faults come about", lambda _: points.reach())
