"""Runs the torture scenarios of one verb; see scripts/torture."""

import argparse
import importlib
import random
import sys
import time
import traceback
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

from running import Failure

VERBS = {
    "formats": ("RECORDS", "records, files and messages against a second codec, byte for byte"),
    "kill": ("ROUNDS", "kill -9 at random points, replay, and account for every record"),
    "faults": ("POINTS", "system calls that fail, fall short or are interrupted; full and read-only disks"),
    "clock": ("RECORDS", "event time that jumps, stands still, runs backwards or is out of range"),
    "peers": ("ROUNDS", "producers, consumers and query clients that misbehave"),
    "exact": ("ROUNDS", "kill -9 of sender, server and sink, and every record is once in the table"),
    "supervise": ("GENERATIONS", "kill -9 of a supervised server, its supervisor and its sink; nothing on disk is lost"),
    "soak": ("MINUTES", "steady load with memory, descriptors and disk watched"),
}


@dataclass
class Report:
    """Prints one line per scenario and counts. A scenario is a function that returns what it saw, or raises."""

    verb: str
    seed: int
    binaries: Path
    only: str
    passed: int = 0
    failed: int = 0
    begun: float = field(default_factory=time.monotonic)

    def scenario(self, name: str, body: Callable[[random.Random], str]) -> None:
        """Runs it with a generator of its own, so that it can be repeated alone."""
        if self.only and self.only not in name:
            return
        try:
            seen = body(random.Random(f"{self.seed}/{name}"))
        except (Failure, AssertionError, OSError, ValueError, IndexError, KeyError) as failure:
            self.failed += 1
            if not isinstance(failure, Failure):
                traceback.print_exc()
            print(f"FAIL  {name}: {failure}\n      again: scripts/torture {self.verb} --seed {self.seed} "
                  f"--only '{name}'", flush=True)
            return
        self.passed += 1
        print(f"ok    {name}: {seen}", flush=True)

    def close(self) -> int:
        seconds = time.monotonic() - self.begun
        print(f"{self.verb}: {self.passed} passed, {self.failed} failed, seed {self.seed}, {seconds:.0f} s")
        return 1 if self.failed or not self.passed else 0


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/torture", description="Tries to break a Brindle server.")
    verbs = parser.add_subparsers(dest="verb", required=True)
    for verb, (count, description) in VERBS.items():
        sub = verbs.add_parser(verb, help=description, description=description)
        sub.add_argument("count", nargs="?", type=int, metavar=count, help="more is longer; the default is short")
        sub.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31))
        sub.add_argument("--only", default="", metavar="TEXT", help="only scenarios whose name contains it")
        sub.add_argument("--output", type=Path, default=Path("build/torture"), help="where plots and tables go")
        sub.add_argument("--binaries", type=Path, required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    print(f"{options.verb}: seed {options.seed}", flush=True)
    report = Report(options.verb, options.seed, options.binaries, options.only)
    importlib.import_module(options.verb).run(report, options.count, options)
    return report.close()


if __name__ == "__main__":
    sys.exit(main())
