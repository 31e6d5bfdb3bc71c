"""Measures the server beside its limit, run by run in turn; see scripts/bench and docs/performance.md."""

import argparse
import json
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Iterable
from dataclasses import asdict, dataclass, field
from pathlib import Path
from statistics import median

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "torture"))

from running import Failure, die_with_parent, free_ports  # noqa: E402

YARDSTICK = "limit"
SYSTEMS = {"brindle": "brindle", "limit": "bench_limit", "pump": "bench_pump"}
# Stores of general use behind one front end, and the program of their server where they have one.
# Keeps what it is given as it is: the records of a hand-off are grouped and sorted outside of it.
NOT_THE_WHOLE_JOB = {"nats"}
PEERS = {"rocksdb": None, "sqlite": None, "redis": "redis-server", "nats": "nats-server", "postgresql": "postgres"}
SERVER_FOLDERS = ("/usr/sbin", "/usr/lib/postgresql/*/bin")  # beyond the search path
PROGRAMS = SYSTEMS | {peer: f"bench_{peer}" for peer in PEERS}
WORKLOADS = {"ticks": 2_000_000, "many": 2_000_000, "wide": 500_000}
WINDOW = 4  # seconds
# Figures that bear a ratio to another system's, what they are called, and which of two is the better.
COMPARED = {"kilorecords_per_s": ("1000 records/s", max), "cpu_ns": ("CPU ns/record", min), "peak_mb": ("peak MB", min)}
QUICK_SHARE = 2  # of the records
MEGABYTE = 1e6
TRIES = 3  # with other ports, where one is taken


@dataclass
class Job:
    """What is measured: one system with one workload. 0, and None for the lateness, is what the workload has."""

    system: str
    workload: str
    records: int = 0
    keys: int = 0
    window: int = WINDOW
    late_us: int | None = None
    seed: int = 1
    query: bool = False

    def measure(self, binaries: Path) -> dict[str, object]:
        """One run, verified; raises a Failure when anything about it is wrong."""
        for attempt in range(TRIES):
            directory = Path(tempfile.mkdtemp(prefix="brindle-bench-"))
            try:
                return self._run(binaries, directory)
            except Failure as failure:
                if attempt + 1 == TRIES or "Address already in use" not in str(failure):
                    raise
            finally:
                shutil.rmtree(directory, ignore_errors=True)
        raise AssertionError("every try ends in a return or a raise")

    def _run(self, binaries: Path, directory: Path) -> dict[str, object]:
        ports = [str(port) for port in free_ports(6)]
        ship, data, query = ports[:2], ports[2:4], ports[4:]
        recovery, spec, usage = directory / "recovery", directory / "schema.spec", directory / "usage"
        recovery.mkdir()
        directory.chmod(0o711)  # a peer's server may run as another user
        driver_line = [binaries / "bench_driver", "--workload", self.workload, "--spec", spec, "--ship", ",".join(ship),
                       "--data", ",".join(data), "--seed", self.seed, "--window", self.window * 1_000_000]
        for option, value in (("--records", self.records), ("--keys", self.keys)):
            driver_line += [option, value] if value else []
        driver_line += ["--late", self.late_us] if self.late_us is not None else []
        driver_line += ["--query", ",".join(query)] if self.query else []
        driver_line += ["--raw"] if self.system == "pump" else []
        system_line = [binaries / "bench_run", usage, binaries / PROGRAMS[self.system], spec, recovery, "127.0.0.1",
                       *ship, *data, self.window, *query]
        started = []
        with (directory / "errors").open("w+") as errors:

            def start(line: Iterable[object]) -> subprocess.Popen:
                started.append(subprocess.Popen([str(word) for word in line], stdin=subprocess.DEVNULL,
                                                stdout=subprocess.PIPE, stderr=errors, text=True,
                                                preexec_fn=die_with_parent))
                return started[-1]

            try:
                driver = start(driver_line)
                told = driver.stdout.readline()
                system = start(system_line) if told else None
                output = driver.communicate(timeout=120 + self.records / 20_000)[0]
                if system:
                    system.communicate(timeout=30)
            except subprocess.TimeoutExpired as late:
                raise Failure(f"no end within {late.timeout:.0f} s") from None
            finally:
                for process in started:
                    if process.poll() is None:
                        process.kill()
                    process.wait()
            errors.seek(0)
            said = errors.read()
        result = json.loads(output or '{"verified": false, "reason": "the driver did not say"}')
        words = usage.read_text().split() if usage.exists() else []
        if not result["verified"] or len(words) != 6 or words[5] != "0":
            raise Failure(f"{self.system}, {self.workload}: {result['reason'] or 'verified'}; "
                          f"status {words[5:] or 'unknown'}\n{said[-600:]}")
        return self._figures(result, [float(word) for word in words])

    def _figures(self, result: dict, usage: list[float]) -> dict[str, object]:
        user, system, peak_kb, bytes_read, bytes_written, _ = usage
        records = result["records"]
        figures = {
            "kilorecords_per_s": records / result["seconds"] / 1000,
            "cpu_ns": (user + system) * 1e9 / records,
            "user_ns": user * 1e9 / records,
            "peak_mb": peak_kb * 1024 / MEGABYTE,
            "driver_cpu_ns": result["driver_cpu_seconds"] * 1e9 / records,
            # Sockets are read by read and written by send: what was read beyond the producer's bytes is the log.
            "back_through_log": min(1.0, max(0.0, (bytes_read - result["bytes"]) / max(1, bytes_written))),
            "cycles": result["cycles"],
        }
        return {**asdict(self), **figures, **({"queries": result["queries"]} if self.query else {})}


@dataclass
class Session:
    """All runs of one call, each round's in turn, so that what disturbs the machine meets every system."""

    binaries: Path
    failures: list[str] = field(default_factory=list)

    def rounds(self, count: int, jobs: Callable[[int], list[Job]]) -> list[dict]:
        runs = []
        for number in range(count):
            turn = jobs(number)
            for job in turn if number % 2 == 0 else reversed(turn):
                print(f"\r{job.workload} {job.system}, round {number + 1} of {count}".ljust(60), end="",
                      file=sys.stderr, flush=True)
                try:
                    runs.append({"round": number, **job.measure(self.binaries)})
                except Failure as failure:
                    self.failures.append(str(failure))
        print("\r".ljust(61), end="\r", file=sys.stderr)
        return runs


def search_servers() -> None:
    """Where the peers, too, look for the programs of their servers."""
    folders = [str(folder) for pattern in SERVER_FOLDERS for folder in sorted(Path("/").glob(pattern[1:]))]
    os.environ["PATH"] = os.pathsep.join([os.environ["PATH"], *folders])


def absence(peer: str, binaries: Path) -> str:
    """Why this peer cannot be measured; empty when it can."""
    if not (binaries / PROGRAMS[peer]).exists():
        return "its library was not found when the bench was built"
    server = PEERS[peer]
    return f"{server} is not installed" if server and not shutil.which(server) else ""


def spread(values: list[float], digits: int = 0) -> str:
    """Median, and the range where there is one."""
    if not values:
        return "-"
    low, middle, high = min(values), median(values), max(values)
    if len(values) == 1:
        return f"{middle:,.{digits}f}"
    return f"{middle:,.{digits}f} ({low:,.{digits}f}-{high:,.{digits}f})"


def ratios(runs: list[dict], figure: str, to: str = YARDSTICK) -> list[float]:
    """Of each run to the yardstick's of the same round and workload."""
    def place(run: dict) -> tuple:
        return run["round"], run["workload"], *point(run)

    yardsticks = {place(run): run[figure] for run in runs if run["system"] == to}
    own = (run for run in runs if run["system"] != to and place(run) in yardsticks)
    return [run[figure] / yardsticks[place(run)] for run in own]


def point(run: dict) -> tuple:
    """What a growth measurement varies."""
    return run["records"], run["keys"], run["window"], run["late_us"]


def of(runs: list[dict], **wanted: object) -> list[dict]:
    return [run for run in runs if all(run[name] == value for name, value in wanted.items())]


def summary(runs: list[dict]) -> dict[str, dict[str, float]]:
    """Medians per workload and system, as they are compared between two files."""
    lines = {}
    for workload in WORKLOADS:
        for system in PROGRAMS:
            own = of(runs, workload=workload, system=system)
            if not own:
                continue
            beside = own + (of(runs, workload=workload, system=YARDSTICK) if system != YARDSTICK else [])
            line = {f"{figure} to limit": median(values) for figure in COMPARED if (values := ratios(beside, figure))}
            lines[f"{workload} {system}"] = line | {name: median(run[name] for run in own) for name in COMPARED}
    return lines


def markdown(head: list[str], rows: list[list[str]]) -> str:
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]
    lines = [head, ["-" * width for width in widths], *rows]
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |"
                     for line in lines) + "\n"


def table(runs: list[dict]) -> str:
    head = ["workload", "system", "1000 records/s", "to limit", "CPU ns/record", "to limit", "peak MB", "to limit",
            "back by log", "driver ns"]
    rows = []
    for workload in WORKLOADS:
        limit = of(runs, workload=workload, system=YARDSTICK)
        for system in PROGRAMS:
            own = of(runs, workload=workload, system=system)
            if not own:
                continue

            def cells(figure: str) -> list[str]:
                beside = ratios(own + limit, figure) if system != YARDSTICK else []
                return [spread([run[figure] for run in own]), spread(beside, 2) if beside else "-"]

            back = f"{100 * median(run['back_through_log'] for run in own):.0f} %" if system == "brindle" else "-"
            rows.append([workload, system, *cells("kilorecords_per_s"), *cells("cpu_ns"), *cells("peak_mb"), back,
                         spread([run["driver_cpu_ns"] for run in own])])
    return markdown(head, rows)


def peer_table(runs: list[dict]) -> str:
    """The server by each peer, run by run, and which of those that do the whole job is the best at a figure."""
    peers = [peer for peer in PEERS if of(runs, system=peer)]
    rows = []
    for workload in WORKLOADS:
        here = of(runs, workload=workload)
        server = of(here, system="brindle")
        for figure, (title, better) in COMPARED.items():
            medians = {peer: median(run[figure] for run in own) for peer in peers if (own := of(here, system=peer))}
            if medians and server:
                cells = [spread(ratios(server + of(here, system=peer), figure, to=peer), 2) for peer in peers]
                whole = medians.keys() - NOT_THE_WHOLE_JOB or medians.keys()
                rows.append([workload, title, *cells, better(sorted(whole), key=medians.get)])
    return markdown(["workload", "brindle's", *(f"to {peer}" for peer in peers), "best peer"], rows) if rows else ""


def query_table(runs: list[dict]) -> str:
    rows = []
    for name, figure in (("p50", "p50_ms"), ("p99", "p99_ms"), ("p99.9", "p999_ms"), ("greatest", "max_ms")):
        rows.append([name, spread([run["queries"][figure] for run in runs if figure in run["queries"]], 3)])
    count = sum(run["queries"]["count"] for run in runs)
    empty = sum(run["queries"]["empty"] for run in runs)
    records = sum(run["queries"]["records"] for run in runs)
    rows += [["replies with records", str(count)], ["without, not counted above", str(empty)],
             ["records per reply", f"{records / max(1, count):.0f}"],
             ["1000 records/s meanwhile", spread([run["kilorecords_per_s"] for run in runs])]]
    return markdown(["query, ms", "ticks, hottest key, 10 ms"], rows)


def compare(new: dict, old: dict) -> str:
    """Both files' medians beside each other. Ratios to the limit bear comparison across sessions, the rest does not."""
    rows = []
    all_before = summary(old["runs"])
    for line, figures in summary(new["runs"]).items():
        before = all_before.get(line, {})
        rows += [[line, name, f"{before[name]:,.2f}", f"{now:,.2f}", f"{100 * (now / before[name] - 1):+.1f} %"]
                 for name, now in figures.items() if name in before]
    for figure in ("p50_ms", "p99_ms", "p999_ms"):
        was, now = ([run["queries"][figure] for run in session["queries"] if figure in run["queries"]]
                    for session in (old, new))
        if was and now:
            rows.append(["ticks brindle", f"query {figure}", spread(was, 3), spread(now, 3),
                         f"{100 * (median(now) / median(was) - 1):+.1f} %"])
    return markdown(["workload, system", "figure", "before", "now", "change"], rows)


@dataclass
class Growth:
    """What is varied, with which workload, over which values."""

    name: str
    axis: str
    workload: str
    values: list[int]
    job: Callable[[int], dict[str, int]]
    logarithmic: bool = True

    def jobs(self, seed: int, most: int) -> list[Job]:
        return [Job(system, self.workload, seed=seed, **{"records": most, **self.job(value)})
                for value in self.values for system in ("brindle", YARDSTICK)]

    def plot(self, runs: list[dict], folder: Path) -> str:
        """Writes an SVG, and returns the table of its values."""
        lines, rows = [], []
        base: dict[str, float] = {}
        for value in self.values:
            here = [run for run in runs if all(run[name] == wanted for name, wanted in self.job(value).items())]
            cpu = {system: [run["cpu_ns"] for run in of(here, system=system)] for system in ("brindle", YARDSTICK)}
            if not all(cpu.values()):
                continue
            lines.append(f"{value} {median(cpu['brindle']):.1f} {median(cpu[YARDSTICK]):.1f}")
            for system, values in cpu.items():
                base.setdefault(system, median(values))
            own, limit = (median(cpu[system]) / base[system] for system in ("brindle", YARDSTICK))
            rows.append([f"{value:,}", spread(cpu["brindle"]), spread(cpu[YARDSTICK]), f"{own:.2f}", f"{limit:.2f}",
                         f"{own / limit:.2f}"])
        data = "\n".join(lines)
        script = f"""set terminal svg size 720,420 background "white"
set output "{folder / f'growth-{self.name}.svg'}"
set xlabel "{self.axis}"
set ylabel "CPU ns per record"
set yrange [0:*]
set key top left
set grid
{"set logscale x" if self.logarithmic else ""}
$data << END
{data}
END
plot $data using 1:2 with linespoints title "brindle", $data using 1:3 with linespoints title "limit"
"""
        if lines:
            subprocess.run(["gnuplot"], input=script, text=True, check=True, timeout=60)
        return markdown([self.axis, "brindle ns", "limit ns", "brindle's growth", "limit's", "one to the other"], rows)


GROWTHS = [
    Growth("records", "records", "ticks", [100_000, 300_000, 1_000_000, 3_000_000, 10_000_000],
           lambda value: {"records": value}),
    Growth("keys", "keys", "many", [10, 100, 1_000, 10_000, 100_000, 1_000_000], lambda value: {"keys": value}),
    Growth("window", "window, s", "ticks", [1, 2, 4, 8, 16, 32], lambda value: {"window": value}),
    Growth("lateness", "late by at most, ms", "ticks", [0, 100, 500, 1000, 2000, 4000, 8000],
           lambda value: {"late_us": value * 1000}, logarithmic=False),
]


def machine() -> dict[str, object]:
    model = next((line.split(":", 1)[1].strip() for line in Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith("model name")), platform.machine())
    memory = int(Path("/proc/meminfo").read_text().split()[1]) * 1024
    return {"cores": len(os.sched_getaffinity(0)), "processor": model, "memory_gb": round(memory / 1e9, 1),
            "kernel": platform.release(), "load_before": round(os.getloadavg()[0], 2)}


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="scripts/bench", description="Measures the server beside its limit.")
    parser.add_argument("--quick", action="store_true", help="in less than 3 minutes: fewer rounds, half the records")
    parser.add_argument("--peers", action="store_true",
                        help="beside general stores that do the same job, too; in less than 25 minutes")
    parser.add_argument("--workload", choices=WORKLOADS, action="append", help="only this one; may be repeated")
    parser.add_argument("--system", choices=PROGRAMS, action="append", help="only this one, and the limit")
    parser.add_argument("--rounds", type=int, default=0, help="runs of each system with each workload")
    parser.add_argument("--records", type=int, default=0, help="in place of the workload's own number")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--growth", action="store_true",
                        help="cost over records, keys, window and lateness, with plots, in place of the table")
    parser.add_argument("--output", type=Path, default=Path("build/bench"), help="folder of the results")
    parser.add_argument("--json", type=Path, help="where the figures go (OUTPUT/bench.json)")
    parser.add_argument("--against", type=Path, metavar="FILE", help="compares with the figures of another session")
    parser.add_argument("--load", type=Path, metavar="FILE", help="measures nothing: shows the figures of this file")
    parser.add_argument("--binaries", type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def measure(options: argparse.Namespace, session: Session) -> dict:
    begun = time.monotonic()
    where = machine()
    workloads = options.workload or list(WORKLOADS)
    rounds = options.rounds or (3 if options.quick or options.growth else 7)

    def records(workload: str) -> int:
        return options.records or WORKLOADS[workload] // (QUICK_SHARE if options.quick else 1)

    growth: dict[str, list[dict]] = {}
    runs: list[dict] = []
    queries: list[dict] = []
    if options.growth:
        most = options.records or (250_000 if options.quick else 1_000_000)
        for series in GROWTHS:
            growth[series.name] = session.rounds(rounds, lambda _: series.jobs(options.seed, most))
    else:
        systems = {*(options.system or SYSTEMS), *(PEERS if options.peers and not options.system else ()), YARDSTICK}
        search_servers()
        for peer in PEERS.keys() & systems:
            if why := absence(peer, session.binaries):
                print(f"skipped {peer}: {why}")
                systems.remove(peer)
        for workload in workloads:
            turn = [Job(system, workload, records(workload), seed=options.seed)
                    for system in PROGRAMS if system in systems]
            runs += session.rounds(rounds, lambda _: turn)
        if "ticks" in workloads and "brindle" in systems:
            asked = Job("brindle", "ticks", records("ticks"), seed=options.seed, query=True)
            queries = session.rounds(rounds, lambda _: [asked])
    return {"machine": where, "seed": options.seed, "rounds": rounds, "seconds": round(time.monotonic() - begun),
            "runs": runs, "queries": queries, "growth": growth, "failures": session.failures}


def main() -> int:
    options = arguments()
    options.output.mkdir(parents=True, exist_ok=True)
    before = json.loads(options.against.read_text()) if options.against else None  # may be the file that is written
    if options.load:
        figures = json.loads(options.load.read_text())
    else:
        figures = measure(options, Session(options.binaries))
        path = options.json or options.output / "bench.json"
        path.write_text(json.dumps(figures, indent=1) + "\n")
        print(f"figures: {path}")
    where = figures["machine"]
    print(f"{where['cores']} cores, {where['processor']}, {where['memory_gb']} GB, Linux {where['kernel']}, "
          f"load before {where['load_before']}; seed {figures['seed']}, {figures['rounds']} rounds in "
          f"{figures['seconds']} s; median (least-greatest)\n")
    if figures["runs"]:
        print(table(figures["runs"]))
        if beside_peers := peer_table(figures["runs"]):
            print(beside_peers)
    if figures["queries"]:
        print(query_table(figures["queries"]))
    for series in GROWTHS:
        if figures["growth"].get(series.name):
            print(f"{series.name}, workload {series.workload}:\n")
            print(series.plot(figures["growth"][series.name], options.output))
    if before:
        print(compare(figures, before))
    for failure in figures["failures"]:
        print(f"FAILED  {failure}")
    return 1 if figures["failures"] else 0


if __name__ == "__main__":
    sys.exit(main())
