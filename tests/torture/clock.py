"""Event time gone wrong: nothing crashes, and every record comes out once at an orderly end, or the log has it.

`count` is the number of records of the large cases.
"""

from collections.abc import Iterable
from pathlib import Path

import wire
from load import CODEC, PAD, RECORD, START_US, Ledger
from running import Consumer, Failure, Session

SHORT_RECORDS = 100_000
SECOND = 1_000_000
HOUR = 3600 * SECOND
YEAR = 365 * 24 * HOUR
LATEST = 2**63 - 1
FRAME_RECORDS = 5000
KEYS = 7


class Played(Ledger):
    """What a run has delivered, left and taken."""

    left: list[str]  # names in the recovery directory
    logged: bytes    # its log files, one behind the other
    peak_kb: int     # the most memory of the server


def play(binaries: Path, times: list[int], window: int = 1) -> Played:
    """Sends a record per time stamp, in this order, and ends the run."""
    ledger = Played()
    with Session(binaries, CODEC.text, window, Consumer(ledger.take)) as session:
        producer = session.start().produce()
        for first in range(0, len(times), FRAME_RECORDS):
            rows = enumerate(times[first:first + FRAME_RECORDS], first)
            producer.send(wire.frame(b"".join(RECORD.pack(number % KEYS, stamp, number) + PAD for number, stamp in rows)))
        producer.close()
        status = session.server.wait_end(300)
        session.consumer.wait_ended()
        if status != 0:
            raise Failure(f"status {status}: {session.server.errors()[-300:]}")
        ledger.left = sorted(path.name for path in session.recovery.iterdir())
        ledger.logged = b"".join(path.read_bytes() for path in session.recovery.glob("F*"))
        ledger.peak_kb = session.server.peak_kb()
    return ledger


def everything_shipped(binaries: Path, times: Iterable[int], window: int = 1, cycles: range | None = None) -> str:
    stamps = list(times)
    ledger = play(binaries, stamps, window)
    ledger.check(len(stamps))
    if ledger.left != ["KeyFile"]:
        raise Failure(f"left behind: {ledger.left}")
    if cycles and ledger.cycles not in cycles:
        raise Failure(f"{ledger.cycles} cycles, expected {cycles}")
    return f"{len(stamps)} records shipped in {ledger.cycles} cycles, memory up to {ledger.peak_kb} kB"


def around(jump: int, count: int) -> list[int]:
    """A steady stream with one record that is far ahead of it in the middle."""
    stamps = [START_US + number * 100 for number in range(count)]
    stamps[count // 2] = min(START_US + jump, LATEST)
    return stamps


def small_times(binaries: Path, count: int) -> str:
    """Below one and a quarter windows nothing is ever shipped: the log keeps it all."""
    ledger = play(binaries, [number % 1_200_000 for number in range(count)])
    records, tail = CODEC.parse_log(ledger.logged)
    if ledger.records or len(records) != count or tail:
        raise Failure(f"{ledger.records} shipped, {len(records)} of {count} in the log, {tail} bytes behind them")
    return f"{count} records, none shipped, all in the log"


def refused(binaries: Path, count: int) -> str:
    """Negative times are refused one by one; the records around them go through."""
    stamps = [(-1 - number if number % 2 else START_US + number) for number in range(count)]
    ledger = play(binaries, stamps)
    if ledger.check(count, lost=True) != count // 2 or any(ledger.seen[1::2]):
        raise Failure("not the records with negative times were refused")
    return f"{count // 2} refused, {count // 2} shipped"


def run(report, count: int | None, options) -> None:
    del options
    binaries, many = report.binaries, count or SHORT_RECORDS
    for name, jump in (("an hour", HOUR), ("a year", YEAR), ("to 2^62", 2**62 - START_US), ("to 2^63 - 1", LATEST)):
        # All that follows is late, so that only the final cycle is left: with the first one, and the jump's own.
        report.scenario(f"one record jumps ahead: {name}", lambda _, jump=jump: everything_shipped(
            binaries, around(jump, 20_000), 1, range(2, 6)))
    report.scenario("a clock that steps back and forth", lambda generator: everything_shipped(
        binaries, (START_US + number * 100 + generator.choice((0, 0, -HOUR, 2 * SECOND)) for number in range(20_000))))
    report.scenario("some records at time 0", lambda _: everything_shipped(
        binaries, (0 if number % 10 == 5 else START_US + number * 1000 for number in range(20_000))))
    report.scenario("only small times", lambda _: small_times(binaries, 20_000))
    report.scenario("negative times", lambda _: refused(binaries, 20_000))
    report.scenario("equal times", lambda _: everything_shipped(binaries, [START_US] * many, 1, range(2, 3)))
    report.scenario("strictly descending times", lambda _: everything_shipped(
        binaries, (START_US + HOUR - number * 1000 for number in range(many)), 1, range(2, 3)))
    report.scenario("a year of data at once through a window of 5 s", lambda _: everything_shipped(
        binaries, (START_US + number * (YEAR // 20_000) for number in range(20_000)), 5))
