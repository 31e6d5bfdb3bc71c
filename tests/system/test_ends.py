"""How the server ends, how it refuses to start, and what it survives."""

import socket
import subprocess
import unittest

from runs import (BINARIES, IGNORING_INTERRUPTS, UNREAD_ERRORS, Run, assertion, at, cycles_before_end, expect, fill,
                  read_all, read_log, records_of)
from running import DEADLINE, free_ports
from wire import KEY_FILE, LOG_BLOCK_BYTES, Record, TERMINATION_FRAME

ABORTED, INTERRUPTED = -6, -2
USAGE = ("Args: Specfile RecoveryPath ShipHost ShipPort1 ShipPort2 DataListenPort1 DataListenPort2 TW[sec] QPort1 "
         "QPort2 <RecoverFromPath>\n ")


def sample(count: int) -> list[Record]:
    return [(i % 5, at(9 + i // 10, i), i) for i in range(count)]


class Ends(unittest.TestCase):
    def test_by_a_termination_frame_kill_the_server_and_keep_the_log(self) -> None:
        sent = [(i, at(4, i), b"x" * 200) for i in range(100)]
        for wrapper, status in (([], INTERRUPTED), (IGNORING_INTERRUPTS, 8)):
            with self.subTest(status=status), Run("4s", wrapper=wrapper) as run:
                run.start()
                run.send(sent)
                run.producer.send(TERMINATION_FRAME)
                expect("status", run.server.wait_end(), status)
                expect("other lines", run.other_lines(), "Received Termination,aborting\n" + assertion(
                    " ERROR, Organizer destruction without termination!", "uts_stgorganizer.cpp line 233"))
                self.assertNotIn("Shutting down", run.server.errors())
                expect("cycles", run.shipped(), [])
                # Whole blocks are on disk; the tail of the last one is lost with the process.
                logged, size = read_log(run.schema, run.recovery), run.schema.stored_size(sent[0])
                expect("the log", logged, sent[:len(logged)])
                self.assertGreaterEqual(len(logged), (len(sent) * size - LOG_BLOCK_BYTES + 1) // size)

    def test_of_a_connection_are_orderly_also_after_a_reset(self) -> None:
        for by_reset in (False, True):
            with self.subTest(by_reset=by_reset), Run("44") as run:
                run.start()
                run.send(sample(50))
                run.wait_cycles(cycles_before_end(sample(50)))  # a reset drops what was not read yet
                if by_reset:
                    run.producer.reset()
                run.finish(sample(50))
                expect("other lines", run.other_lines(),
                       "Socket Receiver:: Connection reset by peer\n" if by_reset else "")
                for line in ("Shutting down\n", "TMain: TQ termination ", "TMain Gathered TOrg\n",
                             "TOrg -> Termination received, shipping everything.\n", " TShp: Terminating..\n"):
                    expect(line, run.server.errors().count(line), 1)


class Starts(unittest.TestCase):
    def test_on_ports_in_use_end_the_data_service_but_not_the_queries(self) -> None:
        for index in range(4):
            with self.subTest(f"port {index}"), Run("44") as run, socket.socket() as holder:
                run.held_ports = {index: free_ports(1)[0]}
                holder.bind(("", run.held_ports[index]))
                if index < 2:
                    run.launch()
                    expect("status", run.server.wait_end(), 0)
                    expect("ends", run.server.errors().count("Shutting down\n"), 1)
                    expect("cycles, one of them and empty", len(run.finish([])), 1)
                else:
                    run.start()
                    run.send(sample(50))
                    run.finish(sample(50))
                expect("other lines", run.other_lines(),
                       "Binding socket failed:: Address already in use\n Accept failed:: Invalid argument\n")

    def test_with_a_wrong_count_of_arguments_print_the_usage_and_touch_nothing(self) -> None:
        with Run("44") as run:
            words = [run.spec, run.recovery, "127.0.0.1", *free_ports(4), 1, *free_ports(2), run.recovery, "too many"]
            for count in (0, 1, 9, 12):
                done = subprocess.run([BINARIES / "brindle", *map(str, words[:count])], capture_output=True,
                                      timeout=DEADLINE)
                expect(f"{count} arguments", (done.returncode, done.stderr.decode()), (8, USAGE))
            expect("files", read_all(run.recovery), {})

    def test_that_fail_leave_nothing_behind(self) -> None:
        """A failed start leaves its directory as it was, so the same command works once the cause is gone."""
        bad_name = "Illegal name in recovery directory!\n"
        not_empty = assertion("ERROR, Recovery directory not empty!\n", "uts_stgrecovery.cpp line 68")
        bad_width = assertion(" ERROR, Window width has to be multiple of 100!\n", "uts_stgorganizer.cpp line 192")
        bad_spec = assertion("ERROR, bad spec file!\n", "UTL/C/LIBS/UTS/uts_tsspec.h line 135")
        corrupt, no_keys = "Corrupt Recovery Keyfile!\n", {KEY_FILE: b""}
        for name, files, older, change, status, error in (
                ("an earlier run's file", {"F3": b"x"}, None, {}, INTERRUPTED, not_empty),
                ("a stray file", {"notes.txt": b"x"}, None, {}, ABORTED, bad_name),
                ("a number that no int holds", {"F99999999999": b""}, None, {}, ABORTED, bad_name),
                ("an earlier run's keys", {KEY_FILE: b"x"}, None, {}, ABORTED, "KeyFile could not be created: "),
                *((f"window {window}", {}, None, {"window": window}, INTERRUPTED, bad_width) for window in (
                    "0", "-5", "wide",
                    "9223372036855",           # just too wide
                    "92233720368548",          # wraps to a good one
                    "99999999999999999999")),  # beyond all numbers
                ("bad directory and window", {"F3": b"x"}, None, {"window": "0"}, INTERRUPTED, not_empty),
                ("no older key file", {}, {"F1": b""}, {}, ABORTED, corrupt),
                ("a cut older key file", {}, {KEY_FILE: b"1234567"}, {}, ABORTED, corrupt),
                ("a replay without a field", {}, no_keys, {"spec": "Rec"}, 8, ""),
                ("a replay of a bad schema", {}, no_keys, {"spec": "Rec int32 a int23 b"}, 8, "bad type int23\n"),
                ("an unfinished schema", {}, None, {"spec": "Rec int32 a int64 b float64"}, INTERRUPTED, bad_spec)):
            with self.subTest(name), Run("44") as run, Run("44") as again:
                fill(run.recovery, files)
                if older is not None:
                    run.recover_from = fill(run.directory / "older", older)
                run.window = change.get("window", run.window)
                run.spec.write_text(change.get("spec", run.schema.text))
                run.launch()
                expect("status", run.server.wait_end(), status)
                self.assertTrue(run.other_lines(), "a failed start says why")
                self.assertIn(error, run.server.errors())
                expect("files", read_all(run.recovery), files)

                again.recovery, again.recover_from = run.recovery, run.recover_from
                for left in files:
                    (run.recovery / left).unlink()
                if older is not None:
                    fill(run.recover_from, no_keys)
                again.start()
                again.send(sample(20))
                again.finish(sample(20))

    def test_with_the_widest_window_work(self) -> None:
        with Run("44") as run:
            run.window = 9223372036854
            run.start()
            run.send(sample(20))
            run.end()
            expect("records, of which none leaves a bucket", records_of(run.shipped()), [])
            expect("the log", read_log(run.schema, run.recovery), sample(20))

    def test_without_a_field_refuse_records(self) -> None:
        """The server runs all the same; queries find nothing."""
        for spec, line in ((None, "ERROR suts_tspec: Cannot open specfile "),
                           ("", "ERROR suts_tspec: Incomplete spec file!\n"),
                           ("Rec int32 a int64", "ERROR suts_tspec: Incomplete spec file!\n"),
                           ("Rec int32 a Int32 b", "ERROR suts_tspec: Syntax, bad type Int32\n"),
                           ("Rec\n", "")):
            with self.subTest(spec=spec), Run("44") as run:
                run.spec.unlink()
                if spec is not None:
                    run.spec.write_text(spec)
                run.start()
                before = run.other_lines()
                expect("first line", before[:len(line)], line)
                client = run.client()
                query = run.schema.encode_query(1, 0, 2**64 - 1)
                expect("reply to a key with more that would be fatal", client.ask(query + b"and more"), b"")
                expect("reply to no key", client.ask(query[:20]), b"")
                run.send(sample(1))
                expect("status", run.server.wait_end(), 0)
                expect("lines", run.other_lines().count("\n"), before.count("\n") + 1)
                run.finish([])


class Survival(unittest.TestCase):
    def test_of_a_closed_error_pipe(self) -> None:
        with Run("44", wrapper=UNREAD_ERRORS) as run:
            run.start()
            run.send(sample(200))
            run.finish(sample(200))
            expect("standard error", run.server.errors(), "")

    def test_without_a_consumer(self) -> None:
        """Records count as shipped when they are gathered, whether the consumer got them or not."""
        with Run("44") as run, socket.socket() as holder:
            # Held without listening, so that nobody else's server is reached by chance.
            run.consumer.ports = free_ports(1) * 2
            holder.bind(("127.0.0.1", run.consumer.ports[0]))
            run.start()
            run.send(sample(200))
            run.end()
            told = run.server.errors()
            expect("failed connects", told.count("ERROR TCPClient connection failed! : Connection refused\n"), 1)
            self.assertGreaterEqual(told.count("ERROR  Sender:: "), 3, "messages are tried and reported all the same")
            expect("files left", list(read_all(run.recovery)), [KEY_FILE])

    def test_of_a_consumer_that_vanishes(self) -> None:
        for inside in (False, True):
            with self.subTest(inside_a_message=inside), Run("4s", narrow=True) as run:
                run.start()
                run.consumer.paused = inside
                run.send([(1, at(6), b"x" * (4 << 20)), (1, at(8), b"")])
                run.server.wait_told("TShp: Keys sent:\n" if inside else "TShp: termination sent\n", 2)
                run.consumer.stop_listening()
                run.consumer.drop()
                run.consumer.paused = False
                run.send([(1, at(20), b"a"), (2, at(30), b"b")])
                run.end()
                self.assertIn("Sender:", run.server.errors())
                expect("files left", list(read_all(run.recovery)), [KEY_FILE])
