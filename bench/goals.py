"""Measures what needs a run of its own kind, each figure beside what it must and should be; see scripts/bench --goals
and docs/performance.md."""

import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from dataclasses import asdict, dataclass, field
from pathlib import Path
from statistics import mean, median

from bench import machine, markdown, spread
from staged import FRAME_RECORDS, MARKER, METER, PATIENCE, PRICE, QUICK_STALL, STALL, TICK, Setting, drive, keys
from staged import Failure, QueryClient, wire

TIME_BYTES = 8  # stored with every value
SUSTAINED_SHARE = 0.7               # of the speed at which a server passes records on: it can follow that
RECORDS_PER_SECOND_MAX = 4_000_000  # that a server may take in, and the bytes that each takes in its log
LOG_RECORD_BYTES = 40
RESOURCES = r": utime (-?\d+) us, stime (-?\d+) us"  # at the end of the lines that tell what a step has cost
ADVANCED = re.compile(r"TOrg: Advanced buckets from \d+ to \d+ " + RESOURCES)
SHIPPED = re.compile(r"TShp: Ship done \d+ " + RESOURCES)


@dataclass
class Row:
    """One figure, and what it is held against."""

    name: str
    measured: float
    unit: str
    must: float
    goal: float
    at_least: bool = False  # else at most
    details: str = ""
    figures: dict[str, object] = field(default_factory=dict)

    def cells(self) -> list[str]:
        def number(value: float) -> str:
            return f"{value:,.{0 if abs(value) >= 100 else 2}f}"

        def reached(bound: float) -> str:
            well = self.measured >= bound if self.at_least else self.measured <= bound
            return f"{'at least' if self.at_least else 'at most'} {bound:g}: {'yes' if well else 'no'}"

        return [self.name, f"{number(self.measured)} {self.unit}".rstrip(), reached(self.must), reached(self.goal),
                self.details]


# A long reply ---------------------------------------------------------------------------------------------------------

def ask_long(client: QueryClient, query: bytes, room: memoryview) -> tuple[int, float, float]:
    """Bytes of the reply, seconds until it began and until it was whole."""
    begun = time.perf_counter()
    client.send(query)
    size = wire.FRAME_HEADER.unpack(client.replies.recv(wire.FRAME_HEADER.size))[0]
    first = time.perf_counter() - begun
    at = 0
    while at < size:
        count = client.replies.recv_into(room[at:size])
        if not count:
            raise Failure("the reply connection ended")
        at += count
    return size, first, time.perf_counter() - begun


def reply(setting: Setting) -> list[Row]:
    count, pairs = 1_000_000, 5 if setting.quick else 11
    room = memoryview(bytearray(64 * count))
    replies, firsts, pumps = [], [], []
    with setting.server(TICK, window=400) as staged:
        start = staged.start_us()
        staged.send([(2, start + 10 * number, number, PRICE, 100) for number in range(count)])
        staged.settle(start + 10 * count)
        query = TICK.encode_query(2, start, start + 10 * count)
        size, _, _ = ask_long(staged.client, query, room)
        if sum(row[2] for row in TICK.decode_reply(bytes(room[:size]))) != count * (count - 1) // 2:
            raise Failure("a reply with other records than those sent")
        for _ in range(pairs):
            size, first, whole = ask_long(staged.client, query, room)
            replies.append(size / whole / 1e6)
            firsts.append(1000 * first)
            os.kill(staged.server.pid, signal.SIGSTOP)  # its polling is not to slow the pump
            try:
                meters = size // METER.data_layout.fixed_size
                pumped = drive(setting, "bench_driver", "bench_pump", staged.window,
                               ["--workload", "many", "--keys", 1, "--records", meters, "--raw"], PATIENCE)
            finally:
                os.kill(staged.server.pid, signal.SIGCONT)
            pumps.append(pumped["received_bytes"] / pumped["seconds"] / 1e6)
    ratios = [own / pump for own, pump in zip(replies, pumps)]
    details = (f"{spread(replies)} MB/s, pump {spread(pumps)} MB/s; reply of {size / 1e6:.0f} MB begins after "
               f"{spread(firsts)} ms; ratio {spread(ratios, 2)} in {pairs} pairs")
    return [Row("reply of 1,000,000 records, speed to the pump's", median(ratios), "", 0.25, 0.5, True, details,
                {"reply_mb_s": replies, "pump_mb_s": pumps, "first_byte_ms": firsts, "ratios": ratios})]


# Advances and cycles --------------------------------------------------------------------------------------------------

def told_ns(line: re.Pattern, errors: str) -> int:
    """Processor time of the whole server during a step, by its own word."""
    user_us, system_us = line.search(errors).groups()
    return 1000 * (int(user_us) + int(system_us))


# What the advance and the cycle of each step meet; the first cycle has something new.
STEPS = (("empty", ""), ("empty", "staged"), ("freed", "none"), ("empty", "none"))


def advances(setting: Setting) -> list[Row]:
    """In each round every key gets a record, and single records then move event time on by two buckets at a time."""
    own = keys(200_000)
    advanced: dict[str, list[float]] = {"empty": [], "freed": []}
    shipped: dict[str, list[float]] = {"": [], "none": [], "staged": []}
    thread: dict[str, list[float]] = {"": [], "none": [], "staged": []}
    with setting.server(METER, window=40) as staged:
        at = staged.start_us()
        for _ in range(4 if setting.quick else 10):
            staged.send([(key, at, PRICE) for key in own])
            staged.settle(at + 1)
            for advance, cycle in STEPS:
                time.sleep(0.02)
                at += 2 * staged.bucket_us
                told, cycles, before = len(staged.server.errors()), staged.cycles(), staged.cpu_seconds("TShp")
                staged.mark(at)
                staged.wait_cycle(cycles)
                lines = staged.server.errors()[told:]
                advanced[advance].append(told_ns(ADVANCED, lines) / len(own))
                shipped[cycle].append(told_ns(SHIPPED, lines) / len(own))
                thread[cycle].append((staged.cpu_seconds("TShp") - before) * 1e9 / len(own))

    def row(name: str, values: list[float], more: str = "", **further: list[float]) -> Row:
        return Row(name, median(values), "ns", 400, 150, False,
                   f"{len(own):,} keys, {len(values)} times: {spread(values)} ns{more}", {"ns": values, **further})

    def cycle_row(name: str, kind: str) -> Row:
        return row(name, shipped[kind], f"; the ship thread alone {spread(thread[kind])} ns", thread_ns=thread[kind])

    return [row("bucket advance, per key, buckets empty", advanced["empty"]),
            row("bucket advance, per key, a shipped record to free", advanced["freed"]),
            cycle_row("cycle, per key with nothing new, buckets empty", "none"),
            cycle_row("cycle, per key with nothing new, a shipped record in a bucket", "staged")]


# Memory ---------------------------------------------------------------------------------------------------------------

def memory_of(setting: Setting, schema: wire.Schema, own: list[int], count: int) -> tuple[float, float]:
    """Peak bytes per record beyond those of a server that has none, all of them staged in one bucket; and after a
    cycle that has shipped them."""
    with setting.server(schema, window=400) as staged:
        idle_kb = staged.server.status("VmRSS")
        start = staged.start_us()
        for first in range(0, count, FRAME_RECORDS):
            numbers = range(first, min(count, first + FRAME_RECORDS))
            fields = ((PRICE,) if schema is METER else (number, PRICE, 100) for number in numbers)
            staged.send([(own[number % len(own)], start + number, *rest) for number, rest in zip(numbers, fields)])
        staged.settle(start + count)
        staged_kb = staged.server.status("VmHWM")
        cycles = staged.cycles()
        staged.mark(start + 2 * staged.bucket_us)
        staged.wait_cycle(cycles)
        shipped_kb = staged.server.status("VmHWM")
    return (staged_kb - idle_kb) * 1024 / count, (shipped_kb - idle_kb) * 1024 / count


def memory(setting: Setting) -> list[Row]:
    count = 1_000_000
    rows = []
    for schema, value_bytes in ((TICK, 20), (METER, 8)):
        stored = value_bytes + TIME_BYTES
        whole, shipped = memory_of(setting, schema, keys(10), count)  # the last one counts for the keys below
        rows.append(Row(
            f"peak memory per staged record of {value_bytes} bytes beyond these and its time", whole - stored, "bytes",
            90, 60, False, f"{count:,} records of 10 keys: {whole:.0f} bytes each; {shipped:.0f} at the peak of the "
            f"cycle that ships all of them", {"bytes": whole, "bytes_after_cycle": shipped}))
    for count in (200_000, 1_000_000):
        each, shipped = memory_of(setting, METER, keys(count), count)
        rows.append(Row(
            f"peak memory per key, {count:,} keys", each - whole, "bytes", 700, 450, False,
            f"one record a key: {each:.0f} bytes for both, less {whole:.0f} for the record as above; {shipped:.0f} for "
            f"both at the peak of the cycle that announces all keys", {"bytes": each, "bytes_after_cycle": shipped}))
    return rows


# A consumer that stalls -----------------------------------------------------------------------------------------------

def stall(setting: Setting) -> list[Row]:
    """Flat out, the producer may be faster than the server passes records on, stall or no stall: a second run tells
    what becomes of the backlog when it is not."""
    rows = stalled(setting, setting.rate)
    if setting.rate:
        return rows
    return rows + stalled(setting, int(SUSTAINED_SHARE * 1000 * rows[0].figures["shipped"]["before"]))


def stalled(setting: Setting, rate: int) -> list[Row]:
    before, after, warm = 10, 15 if setting.quick else 40, 2
    back = before + setting.stall
    total = back + after
    room = total * (rate or RECORDS_PER_SECOND_MAX) * LOG_RECORD_BYTES
    if shutil.disk_usage(tempfile.gettempdir()).free < room:
        raise Failure(f"the log may need {room / 1e9:.0f} GB in {tempfile.gettempdir()}: give a --rate")
    result = drive(setting, "bench_stall", "brindle", 4,
                   ["--workload", "ticks", "--records", 1_000_000, "--seconds", f"{before},{setting.stall},{after}",
                    "--rate", rate], total + PATIENCE)
    sent, received = zip(*([0, 0], *result["series"]))

    def speed(counts: tuple[int, ...], first: int, last: int) -> float:
        return (counts[last] - counts[first]) / (last - first) / 1000

    spans = {"before": (warm, before), "stalled": (before, back), "after": (back, total)}
    ingest = {name: speed(sent, *span) for name, span in spans.items()}
    shipped = {name: speed(received, *span) for name, span in spans.items()}
    backlog = [put - got for put, got in zip(sent, received)]
    shown = [before, *range(back, total, max(1, after // 4)), total]
    producer = "producer held back" if rate else "producer flat out"
    return [
        Row(f"ingest after a stall of {setting.stall} s to that before, {producer}", ingest["after"] / ingest["before"],
            "", 0.5, 0.75, True, "1000 records/s in (and out): " + ", ".join(
                f"{name} {ingest[name]:,.0f} ({shipped[name]:,.0f})" for name in spans),
            {"ingest": ingest, "shipped": shipped, "sent_by_second": sent, "received_by_second": received}),
        Row(f"backlog {after} s after it to that at its end, {producer}", backlog[total] / backlog[back], "", 1, 1,
            False, "1000 records: " + ", ".join(f"{second} s {backlog[second] / 1000:,.0f}" for second in shown)
            + f"; stall from {before} to {back} s"),
    ]


# Nothing to do --------------------------------------------------------------------------------------------------------

def idle(setting: Setting) -> list[Row]:
    seconds = 10

    def plain_poll() -> float:
        return float(subprocess.run([setting.binaries / "bench_poll", str(seconds / 2)], stdout=subprocess.PIPE,
                                    text=True, check=True).stdout)

    polls = [plain_poll()]
    pauses = {0.1: 20 if setting.quick else 50, 1.0: 5 if setting.quick else 10}
    delays: dict[float, list[float]] = {pause: [] for pause in pauses}
    asked, waited = [], []
    with setting.server(METER, window=4) as staged:
        fresh_cpu, begun = staged.cpu_seconds(), time.perf_counter()
        time.sleep(seconds / 2)
        fresh = 100 * (staged.cpu_seconds() - fresh_cpu) / (time.perf_counter() - begun)
        at = staged.start_us()
        staged.settle(at)
        time.sleep(1)
        cpu, begun = staged.cpu_seconds(), time.perf_counter()
        time.sleep(seconds)
        share = 100 * (staged.cpu_seconds() - cpu) / (time.perf_counter() - begun)
        for pause, samples in pauses.items():
            for _ in range(samples):
                time.sleep(pause)
                at += 1000
                query = METER.encode_query(MARKER, at, at)
                waiting = staged.waiting_seconds()
                sent = time.perf_counter()
                staged.mark(at)
                begun = time.perf_counter()
                while not staged.client.ask(query):
                    asked.append(1000 * (time.perf_counter() - begun))
                    time.sleep(0.0001)  # it and the query thread would hold both cores otherwise
                    begun = time.perf_counter()
                delays[pause].append(1000 * (time.perf_counter() - sent))
                waited.append(1000 * (staged.waiting_seconds() - waiting))
    polls.append(plain_poll())
    every = [delay for values in delays.values() for delay in values]
    bound = 2  # milliseconds
    late = [wait for delay, wait in zip(every, waited) if delay > bound]
    return [
        Row("idle, of one core", share, "%", 5, 2, False,
            f"over {seconds} s behind a record, {fresh:.2f} % before any; a loop of usleep(1) {mean(polls):.2f} %",
            {"percent": share, "before_any_record": fresh, "poll": polls}),
        Row("first record queryable after a pause, greatest", max(every), "ms", bound, bound, False,
            f"{len(late)} of {len(every)} above {bound} ms"
            + (f", whose threads waited {spread(late, 1)} ms for a core; " if late else "; ")
            + "; ".join(f"{len(values)} pauses of {pause:g} s: {spread(values, 3)} ms"
                        for pause, values in delays.items())
            + (f"; a query that finds nothing takes {median(asked):.3f} ms" if asked else ""),
            {"ms": {str(pause): values for pause, values in delays.items()}, "waited_ms": waited,
             "empty_query_ms": asked}),
    ]


MEASUREMENTS: dict[str, Callable[[Setting], list[Row]]] = {
    "reply": reply, "advances": advances, "memory": memory, "stall": stall, "idle": idle}


def measure(setting: Setting, only: list[str] | None = None) -> dict[str, object]:
    """All figures, ready for a file. What could not be measured is told in its `failures`."""
    begun = time.monotonic()
    figures: dict[str, object] = {"machine": machine(), "rows": [], "failures": []}
    for name in only or MEASUREMENTS:
        print(f"\r{name}".ljust(60), end="", file=sys.stderr, flush=True)
        try:
            figures["rows"] += [asdict(row) for row in MEASUREMENTS[name](setting)]
        except Failure as failure:
            figures["failures"].append(f"{name}: {failure}")
    print("\r".ljust(61), end="\r", file=sys.stderr)
    return {**figures, "seconds": round(time.monotonic() - begun)}


def table(figures: dict) -> str:
    return markdown(["what", "measured", "must", "goal", "details"],
                    [Row(**row).cells() for row in figures["rows"]])


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/bench --goals", description=__doc__)
    parser.add_argument("--goals", action="store_true", help=argparse.SUPPRESS)  # what has led here
    parser.add_argument("--quick", action="store_true", help=f"fewer samples, and a stall of {QUICK_STALL} s")
    parser.add_argument("--only", choices=MEASUREMENTS, action="append", help="only this one; may be repeated")
    parser.add_argument("--stall", type=int, default=0, metavar="SECONDS", help=f"of the consumer ({STALL})")
    parser.add_argument("--rate", type=int, default=0, help="records per second at most in the stall (flat out)")
    parser.add_argument("--json", type=Path, help="where the figures go")
    parser.add_argument("--binaries", type=Path, required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    figures = measure(Setting(options.binaries, options.quick, options.stall, options.rate), options.only)
    if options.json:
        options.json.write_text(json.dumps(figures, indent=1) + "\n")
    where = figures["machine"]
    print(f"{where['cores']} cores, {where['processor']}, load before {where['load_before']}; {figures['seconds']} s\n")
    print(table(figures))
    for failure in figures["failures"]:
        print(f"FAILED  {failure}")
    return 1 if figures["failures"] else 0


if __name__ == "__main__":
    sys.exit(main())
