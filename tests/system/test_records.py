"""The road of a record from the producer's frame to the consumer: bytes, keys, buckets. Random streams are compared by
the `formats` scenarios; here are the cases that they meet by chance alone."""

import unittest

from runs import TIME_MAX, Run, announced, at, expect, expect_same_records, records_of
from wire import KEY_FILE, float_bits

NAN = 0x7FF8 << 48
OF_EVERY_LENGTH = [bytes([ord("a") + length % 26]) * length for length in (0, 11, 12, 13, 1023, 1024, 70000)]


class Records(unittest.TestCase):
    def test_reach_queries_and_the_consumer_under_every_schema(self) -> None:
        for name, types, keys, rests in (
                ("int32 keys", "4s", [-2**31, -1, 0, 2**31 - 1], [(b"value",)]),
                ("int64 keys", "84", [-2**63, 1, 2**32, 2**63 - 1], [(7,)]),
                ("float64 keys", "f4", [float_bits(0.0), float_bits(-0.0), NAN, float_bits(float("inf"))], [(7,)]),
                ("string64 keys", "s4", [b"ab", b"a", b"abc", b"\xff", b"b"], [(7,)]),
                ("one field, a string", "s", [b"", b"thirteen char"], [()]),
                ("keys of every length", "s4", OF_EVERY_LENGTH, [(1,)]),
                ("values of every length", "4s", [1, 2], [(text,) for text in OF_EVERY_LENGTH])):
            with self.subTest(name), Run(types) as run:
                run.start()
                sent = [(keys[i % len(keys)], at(6 + i % 4, 99), *rests[i % len(rests)])
                        for i in range(2 * max(len(keys), len(rests)))]
                run.send(sent, 3)
                client = run.client()
                for key in keys:
                    expected = [record for record in sent if record[0] == key]
                    expect_same_records(client.find_all(key, len(expected)), expected)
                run.finish(sent)


class Keys(unittest.TestCase):
    def test_go_out_in_groups_of_a_hundred(self) -> None:
        """The first cycle holds the retired records of the start, one a key; the final one a record of the first."""
        for count in (0, 1, 100, 101, 200, 201):
            with self.subTest(keys=count), Run("44") as run:
                run.start()
                keys = list(range(count))
                first = [(key, at(4, key), -key) for key in keys]
                last = [(0, at(9), 1)] if keys else []
                run.send(first + last)
                run.wait_cycles(len(last))
                run.finish(first + last)
                expected = run.schema.encode_cycle(keys, [(key, [(at(4, key), -key)]) for key in keys])
                if keys:
                    expected += run.schema.encode_cycle([], [(key, [(at(9), 1)] if key == 0 else []) for key in keys])
                expect("messages", run.bodies, expected)

    def test_seen_during_a_cycle_wait_for_the_next(self) -> None:
        with Run("4s", narrow=True) as run:
            run.start()
            run.consumer.paused = True
            # The second record hands off the first, whose message is too long for all the buffers on its way.
            sent = [(1, at(6), b"x" * (8 << 20)), (1, at(8), b""), (2, at(8), b"new")]
            run.send(sent[:2])
            run.server.wait_told("TShp: Keys sent:\n", 2)
            run.send(sent[2:])
            run.wait_keys([1, 2])
            expect("cycles that ended too early", run.server.errors().count("TShp: Ship done") - 1, 0)
            run.consumer.paused = False
            cycles = run.finish(sent)
            expect("blocks and new keys of each cycle",
                   [(sum(map(len, cycle.groups)), cycle.new_keys) for cycle in cycles], [(1, [1]), (1, []), (2, [2])])


class HandOffs(unittest.TestCase):
    def test_ship_what_left_the_open_bucket(self) -> None:
        """A hand-off at a bucket ships what lies before its start, nothing of the bucket itself, and each only once."""
        last = TIME_MAX // at(1)
        steps = (  # times, cycles after them, times shipped in the last of these
            ([at(9)], 1, []),                      # far on from the start
            ([at(10, -1), at(10), at(9)], 1, []),  # one bucket on is not enough
            ([at(11), at(11, 5)], 2, [at(9), at(9), at(10, -1), at(10)]),
            ([at(8), at(2), at(11, -1), at(13)], 3, [at(2), at(8), at(11, -1), at(11), at(11, 5)]),  # late ones
            ([at(last - 3)], 4, [at(13)]),                                                           # a far jump
            ([at(last - 4), at(5), at(last), TIME_MAX], 5, [at(5), at(last - 4), at(last - 3)]))
        with Run("44") as run:
            run.start()
            sent = []
            for times, count, _ in steps:
                records = [(1, time, len(sent) + index) for index, time in enumerate(times)]
                run.send(records)
                sent += records
                run.wait_cycles(count)
            cycles = run.finish(sent)
            expect("cycles", len(cycles), 6)
            for _, count, shipped in steps:
                expect(f"cycle {count}", [record[1] for record in records_of(cycles[count - 1:count])], shipped)

    def test_leave_the_very_first_buckets_to_a_replay(self) -> None:
        """While the newest bucket is one of the first five, an orderly end ships retired contents only: what is left
        stays in the directory, and a replay followed by later records brings it out."""
        sent = [(1, 0, 1), (2, at(5, -1), 2), (1, at(5), 3)]
        with Run("44") as first, Run("44", recover_from=first.recovery) as second:
            first.start()
            first.send(sent[:2])
            first.end()
            cycles = first.shipped()
            expect("shipped at first", (records_of(cycles), announced(cycles)), ([], [1, 2]))
            expect("left at first", sorted(path.name for path in first.recovery.iterdir()), ["F1", KEY_FILE])
            second.start()
            second.send(sent[2:])
            second.finish(sent)
