"""The organizer far behind the producer: records come back from the recovery log while its files are being removed."""

import random
import unittest
from collections.abc import Callable
from contextlib import suppress

from runs import Run, at, cycles_before_end, expect, expect_ordered_blocks, expect_same_records, records_of
from wire import KEY_FILE, Value


class Backlog(unittest.TestCase):
    """In step, behind, in step, behind, and the end while behind. Every record comes out once and as it was sent."""

    def test_of_small_records_comes_back_from_the_log(self) -> None:
        self._run("44", 60, lambda number: (number,), 20, 2000, 5000)

    def test_of_records_that_each_close_a_file_comes_back_from_the_log(self) -> None:
        self._run("4s", 3, lambda number: (b"%d" % number + bytes([97 + number % 26]) * 20000,), 20000, 300, 2200)

    def test_of_mixed_sizes_comes_back_from_the_log(self) -> None:
        self._run("44s", 120, lambda number: (number, b"m" * (15000 if number % 97 == 0 else number % 50)), 45, 2000,
                  4000)

    def _run(self, types: str, keys: int, rest: Callable[[int], tuple[Value, ...]], stored_bytes: int, in_step: int,
             behind: int) -> None:
        """`stored_bytes` is the least of a record in the log; the two counts are records of each round."""
        seed = random.SystemRandom().randrange(1 << 31)
        generator = random.Random(seed)
        sent, now = [], at(10)

        def send(count: int) -> None:
            """Event time is so fast that nearly every record hands the one before it off: files go as soon as they are
            closed. Now and then a record is late or time stands still, so that they do not go in step with reading."""
            nonlocal now
            first = len(sent)
            for number in range(first, first + count):
                kind = generator.randrange(20)
                now += at(1 + generator.randrange(3)) if kind >= 3 else 0
                time = now - at(generator.randrange(5)) if kind == 0 else now + generator.randrange(1000)
                sent.append((number % keys, time, *rest(number)))
            run.send(sent[first:], 50)

        def logged() -> bool:
            """What cannot be shipped stays in the log, so its size tells when the records were received."""
            total = 0
            for path in run.recovery.iterdir():
                with suppress(FileNotFoundError):
                    total += path.stat().st_size
            return total >= behind * stored_bytes / 2

        with self.subTest(seed=seed), Run(types, narrow=True) as run:
            run.start()
            for last in (False, True):
                # Each step is shipped before the next, which leaves the log's second reader some records behind.
                for _ in range(10):
                    send(in_step // 10)
                    run.wait_cycles(cycles_before_end(sent))
                (run.recovery / f"stray{last:d}").write_text("not a recovery file")
                run.consumer.paused = True
                send(behind)
                if not last:
                    run.wait("the backlog in the log", logged)
                    run.consumer.paused = False
                    run.wait_cycles(cycles_before_end(sent))
            run.producer.close()
            marker = "TMain: TQ termination "
            run.server.wait_told(marker)
            self.assertGreater(int(run.server.errors().partition(marker)[2].split()[0]), 1000, "no backlog to speak of")
            run.consumer.paused = False
            run.end()
            cycles = run.shipped()
            expect("cycles", len(cycles), cycles_before_end(sent) + 1)
            expect_same_records(records_of(cycles), sent)
            expect_ordered_blocks(cycles, sent)
            # Strays are left alone, files are not left.
            expect("files", sorted(path.name for path in run.recovery.iterdir()), [KEY_FILE, "stray0", "stray1"])
