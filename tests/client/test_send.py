"""brindlectl send: from files to the real server."""

import socket
import unittest
from contextlib import suppress

from running import free_ports, wait_until
from runs import expect
from tools import COLUMNS, HEADER, START_US, Brindlectl, addresses
from wire import float_bits


class Send(Brindlectl):
    def test_every_value_of_a_csv_file(self) -> None:
        run = self.server()
        path = self.file("in.csv", b"\xEF\xBB\xBF" + HEADER +
                         b'"a,""b""\n2",2001-01-01T00:00:00.000001Z,,k1,-0,-9223372036854775808,-2147483648\r\n'
                         b",978307200000002,x,,1e-3,9223372036854775807,2147483647\n"
                         b"\xFF,978307200000003,x,k1,nan:7ff0000000000001,0,0")
        tool = self.ended(0, *self.send(run, path))
        expect("told", tool.errors(), "brindlectl send: 3 records sent in 1 frame\n")
        self.finish(run, [(b"k1", START_US + 1, -2**31, -2**63, float_bits(-0.0), b'a,"b"\n2'),
                          (b"", START_US + 2, 2**31 - 1, 2**63 - 1, float_bits(0.001), b""),
                          (b"k1", START_US + 3, 0, 0, 0x7FF0000000000001, b"\xFF")])

    def test_cuts_a_long_file_into_frames(self) -> None:
        run = self.server()
        sent = [(b"key%d" % (i % 7), START_US + i, i, 0, 0, b"n" * 500) for i in range(3000)]
        rows = (b"%s,%d,,%s,0,0,%d\n" % (record[5], record[1], record[0], record[2]) for record in sent)
        self.ended(0, *self.send(run, self.file("in.csv", HEADER + b"".join(rows))))
        self.finish(run, sent)

    def test_refuses_what_is_wrong_before_it_connects(self) -> None:
        good = HEADER + b"n,1,,k,1,1,1\n"
        rows = (
            (b"", ": is empty; the first row must name the columns\n"),
            (b"note,time,key,real,big\n",
             ":1: there is no column 'small'; the columns are: note, time, key, real, big\n"),
            (b"note,time,key,real,big,small,key\n", ":1: there are two columns 'key'\n"),
            (b"note,key,real,big,small\n",
             ":1: there is no column 'time'; the columns are: note, key, real, big, small\n"),
            (good + b'"a\nb",1,,k,1,1,1\nn,1,,k,1,1,x\n', ":5: small: 'x' is not an int32\n"),
            (good + b"n,1,,k,one,1,1\n", ":3: real: 'one' is not a float64\n"),
            (good + b"n,-1,,k,1,1,1\n", ":3: time: '-1' is before 1970, which the server refuses\n"),
            (good + b"n,today,,k,1,1,1\n",
             ":3: time: 'today' is neither an ISO 8601 time nor microseconds since 1970\n"),
            (good + b"n,1,,k\n", ":3: the row has 4 values, but the header names 7 columns\n"),
            (good + b'"n,1,,k,1,1,1\n', ":3: the row ends inside a quoted value\n"),
            (good, None))
        with socket.socket() as first, socket.socket() as second:
            ports = free_ports(2)
            for holder, port in zip((first, second), ports):
                holder.bind(("127.0.0.1", port))  # without listening
            for content, error in rows:
                with self.subTest(error):
                    path = self.file("in.csv", content)
                    tool = self.ended(65 if error else 69, "send", "--spec", self.spec, "--data", addresses(ports),
                                      "--wait", 0, path)
                    self.assertIn(f"{path}{error}" if error else "Connection refused", tool.errors())

    def test_passes_on_what_came_before_a_pause_and_query_finds_it(self) -> None:
        run = self.server()
        send = self.tool(*self.send(run, "-"))
        send.feed(HEADER + b"one,978307200000000,,k,1.5,1,1\nt\x01wo,978307200000001,,k,inf,2,-2\n")

        def ask(*options: str) -> str:
            return self.ended(0, "query", "--spec", self.spec, "--query", addresses(run.query_ports), "k",
                              *options).out()

        wait_until("the records", lambda: ask("--format", "csv").count("\n") == 3)
        expect("rows", ask("--format", "csv", "--to", "2001-01-01"), COLUMNS + "978307200000000,k,1,1,1.5,one\n")
        expect("table", ask(), "time                         key  small  big  real  note\n"
                               "2001-01-01T00:00:00.000001Z  k       -2    2   inf  t\\x01wo\n"
                               "2001-01-01T00:00:00Z         k        1    1   1.5  one\n")
        expect("status", send.wait_end(), 0)
        self.finish(run, [(b"k", START_US, 1, 1, float_bits(1.5), b"one"),
                          (b"k", START_US + 1, -2, 2, float_bits(float("inf")), b"t\x01wo")])

    def test_tells_that_the_server_went_away(self) -> None:
        run = self.server()
        send = self.tool(*self.send(run, "-"))
        send.feed(HEADER + b"one,978307200000000,,k,1,1,1\n")
        run.server.wait_told("TOrg: Total recs absorbed 1 ")
        run.server.kill()
        with suppress(BrokenPipeError):
            send.feed(b"two,978307200000000,,k,1,1,1\n")
        expect("status", send.wait_end(), 69)

    def test_does_not_say_done_when_the_server_refused_the_last_frame(self) -> None:
        run = self.server("ss")
        tool = self.ended(69, *self.send(run, self.file("in.csv", HEADER + b"n,1,,k,1,1,1\n")))
        self.assertIn("it has closed the connection", tool.errors())
