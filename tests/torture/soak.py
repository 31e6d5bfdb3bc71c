"""Steady load with late records, queries and ever new keys: memory, descriptors and threads must stay flat.

Writes a sample a second to soak.csv and, where gnuplot is installed, a picture of it. `count` is minutes.
"""

import csv
import shutil
import subprocess
import time
from pathlib import Path

from load import CODEC, PAD_BYTES, START_US, Feed, Ledger
from running import Consumer, Failure, Session

RATE = 20_000
NEW_KEY_EVERY = 2000  # records: ten new keys a second
SHORT_MINUTES = 0.5
# A key costs its node, its place in the list and what its buckets keep; once seen it is never forgotten.
KEY_BYTES_MAX = 1500
SLACK_KB = 1024
REPLAY_KB_MAX = 40_000
COLUMNS = ("seconds", "records", "delivered", "keys", "resident_kb", "descriptors", "threads", "log_files", "log_kb")
PLOT = """
set terminal svg size 900,700 dynamic background '#ffffff'
set output '{output}'
set datafile separator ','
set key autotitle columnhead left top
set multiplot layout 3,1
set grid
set ylabel 'kB'
plot '{table}' using 1:5 with lines lw 2
set ylabel 'files, descriptors'
plot '{table}' using 1:8 with lines lw 2, '' using 1:6 with lines lw 2
set ylabel 'kB'
set xlabel 'seconds'
plot '{table}' using 1:9 with lines lw 2
unset multiplot
"""


def log_size(directory: Path) -> tuple[int, int]:
    """Files and kB of the recovery log, whose files may go while one looks."""
    count = size = 0
    for path in directory.glob("F*"):
        try:
            size += path.stat().st_size
            count += 1
        except FileNotFoundError:
            pass
    return count, size >> 10


def plot(table: Path) -> str:
    gnuplot = shutil.which("gnuplot")
    if not gnuplot:
        return "no plot, as gnuplot is not installed"
    picture = table.with_suffix(".svg")
    subprocess.run([gnuplot], input=PLOT.format(output=picture, table=table), text=True, check=True)
    return f"plot in {picture}"


def soak(binaries: Path, minutes: float, output: Path) -> str:
    output.mkdir(parents=True, exist_ok=True)
    table = output / "soak.csv"
    ledger = Ledger()
    samples: list[tuple[int, ...]] = []
    with Session(binaries, CODEC.text, window=4, consumer=Consumer(ledger.take)) as session, table.open("w") as out:
        server = session.start().server
        feed = Feed(session.produce(), RATE, keys=500, late=0.02, new_key_every=NEW_KEY_EVERY)
        writer = csv.writer(out)
        writer.writerow(COLUMNS)
        begun = time.monotonic()
        while (seconds := time.monotonic() - begun) < minutes * 60:
            client = session.query()
            for key in range(20):
                client.ask(CODEC.encode_query(feed.sent // NEW_KEY_EVERY + key, START_US, 2**63))
            sample = (round(seconds), feed.sent, ledger.records, len(ledger.keys), server.status("VmRSS"),
                      server.descriptors(), server.status("Threads"), *log_size(session.recovery))
            client.close()
            samples.append(sample)
            writer.writerow(sample)
            out.flush()
            time.sleep(max(0.0, len(samples) - (time.monotonic() - begun)))
        sent = feed.finish()
        if server.wait_end(120) != 0:
            raise Failure(f"no orderly end: {server.errors()[-300:]}")
        session.consumer.wait_ended()
        ledger.check(sent)
    drawn = plot(table)
    warm, last = samples[len(samples) // 3], samples[-1]
    keys, grown = last[3] - warm[3], last[4] - warm[4]
    if grown > SLACK_KB + keys * KEY_BYTES_MAX / 1024:
        raise Failure(f"resident memory grew by {grown} kB after the warm-up, with {keys} new keys")
    if {sample[6] for sample in samples[1:]} != {last[6]} or max(sample[5] for sample in samples[1:]) > warm[5] + 2:
        raise Failure(f"threads or descriptors are not flat: see {table}")
    return (f"{sent} records in {last[0]} s, all delivered; resident {warm[4]} to {last[4]} kB with {keys} new keys; "
            f"{last[5]} descriptors, {last[6]} threads; samples in {table}, {drawn}")


def replay(binaries: Path, megabytes: int) -> str:
    """A log is replayed piece by piece: memory has nothing to do with its size."""
    count = megabytes * (1 << 20) // CODEC.stored_size((0, 0, 0, b"x" * PAD_BYTES))
    ledger = Ledger()
    with Session(binaries, CODEC.text, consumer=Consumer(ledger.take)) as session:
        old = session.directory / "old"
        old.mkdir()
        (old / "KeyFile").touch()
        with (old / "F1").open("wb") as log:
            for first in range(0, count, 10_000):
                log.write(CODEC.encode_log((number % 100, START_US + number * 50, number, b"x" * PAD_BYTES)
                                           for number in range(first, min(first + 10_000, count))))
        session.recover_from = old
        session.start(120).produce().close()
        if session.server.wait_end(60) != 0:
            raise Failure(f"no orderly end: {session.server.errors()[-300:]}")
        session.consumer.wait_ended()
        ledger.check(count)
        peak_kb = session.server.peak_kb()
    if peak_kb > REPLAY_KB_MAX:
        raise Failure(f"{peak_kb} kB of memory to replay {megabytes} MB")
    return f"{count} records, {megabytes} MB, replayed and delivered in {peak_kb} kB of memory"


def run(report, count: int | None, options) -> None:
    minutes = count or SHORT_MINUTES
    report.scenario("replay of a large log", lambda _: replay(report.binaries, 64 if minutes < 1 else 512))
    report.scenario("steady load", lambda _: soak(report.binaries, minutes, options.output))
