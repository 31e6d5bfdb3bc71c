"""What a server makes of an older directory. Logs that were cut or damaged, and chains of killed generations, are what
the `kill` scenarios and the tests of the playback are about."""

import unittest

from runs import Run, announced, at, blocks_of, expect, expect_same_records, fill, read_all, records_of
from wire import KEY_FILE


class NegativeTimes(unittest.TestCase):
    """A negative time stamp would be taken for the end of all records."""

    def test_are_refused_alone_live_and_in_a_replay(self) -> None:
        mixed = [(i % 4, {1: -1, 2: i - 2**63}.get(i % 4, at(9, i)), i) for i in range(40)]
        good = [record for record in mixed if record[1] >= 0]
        with Run("44") as run:
            run.start()
            run.send(mixed)
            run.finish(good)
            # One line for the first, then more rarely.
            self.assertIn(run.other_lines().count("\n"), range(1, 20), run.other_lines())
        with Run("44") as run:
            log = run.schema.encode_log(mixed)
            run.recover_from = fill(run.directory / "old", {KEY_FILE: b"", "F1": log})
            run.start()
            run.end()
            expect_same_records(records_of(run.shipped()), good)
            # 1 to 10 and 20: the refused do not count.
            told = run.server.errors()
            expect("progress", (told.count(" --- Recovered "), told.count(" --- Recovered 20 records\n")), (11, 1))


class OldKeyFiles(unittest.TestCase):
    def test_give_back_the_keys_in_their_order(self) -> None:
        kilo = b"k" * 1030
        for name, types, seen, copied in (("a number twice", "84", [1, 2, 1], []),
                                          ("a long string twice", "s4", [kilo, b"", kilo], []),
                                          ("copied, then new", "s4", [b"gamma"], [kilo, b"b"])):
            with self.subTest(name), Run(types) as run:
                keys = copied + seen
                records = [(key, at(9), index) for index, key in enumerate(keys)]
                run.recover_from = fill(run.directory / "old", {
                    KEY_FILE: run.schema.encode_key_file(seen, copied), "F1": run.schema.encode_log(records)})
                run.start()
                run.end()
                cycles = run.shipped()
                expect_same_records(records_of(cycles), records)
                expect("keys announced", announced(cycles), keys)
                # A key that stands twice has two blocks.
                expect("blocks", [key for key, _ in blocks_of(cycles[-1:])], keys)
                expect("files", read_all(run.recovery), {KEY_FILE: run.schema.encode_key_file([], keys)})
                expect("other lines", run.other_lines(), "")
