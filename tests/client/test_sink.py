"""brindlectl sink: what a server ships, and where it goes."""

import signal
import socket
import struct
import unittest

import wire
from running import Failure, connect, free_ports, listening_ports, reset, wait_until
from runs import expect
from tools import COLUMNS, SCHEMA, Brindlectl, Tool, addresses, cycle
from wire import float_bits, frame

NAN = 0x7FF8 << 48


class Sink(Brindlectl):
    def start(self, *options: object) -> tuple[Tool, socket.socket, socket.socket]:
        """A sink on free ports, and the connections of a server to it."""
        for _ in range(20):
            ports = free_ports(2)
            tool = self.tool("sink", "--spec", self.spec, "--ship", addresses(ports), *options)
            wait_until("the sink", lambda: tool.process.poll() is not None or
                       set(ports) <= listening_ports(tool.process.pid))
            if tool.process.poll() is None:  # otherwise a port was taken meanwhile
                first, second = map(connect, ports)
                self.addCleanup(second.close)
                self.addCleanup(first.close)
                return tool, first, second
        raise Failure("no sink starts")

    def test_writes_what_is_shipped(self) -> None:
        rows = [(7, -1, 1, float_bits(0.1), b'a,"b"\n'), (8, 1, 2, NAN, b"\xFF")]
        for options, out in (
                ([], f'{COLUMNS}7,k,-1,1,0.1,"a,""b""\n"\n8,k,1,2,nan,\xFF\n'),
                (["--blocks", "--time", "at"], 'cycle,block,at,key,small,big,real,note\n'
                                               '1,1,7,k,-1,1,0.1,"a,""b""\n"\n1,1,8,k,1,2,nan,\xFF\n'),
                (["--format", "jsonl"],
                 '{"time":7,"key":"k","small":-1,"big":1,"real":0.1,"note":"a,\\"b\\"\\n"}\n'
                 '{"time":8,"key":"k","small":1,"big":2,"real":"nan","note":{"hex":"ff"}}\n')):
            with self.subTest(options):
                tool, first, second = self.start(*options)
                first.sendall(cycle(rows))
                wait_until("the records, before the stream ends", lambda: tool.out() == out)
                first.close()
                second.close()
                expect("status", tool.wait_end(), 0)
                expect("told", tool.errors(), "brindlectl sink: received: 1 cycles, 1 keys, 2 records\n")

    def test_keeps_what_came_however_it_ends(self) -> None:
        record = (7, 1, 1, float_bits(1), b"")
        good, message = cycle([record]), struct.pack(">I", 100)
        block = SCHEMA.encode_blocks([(b"k", [record] * 9)])
        cut = struct.pack(">I", 500) + block[:len(block) - 8 * SCHEMA.ship_layout.size(record)] + b"xyz"
        line = "7,k,1,1,1,\n"
        for what, stream, end, status, error, records in (
                ("interrupted", good, "interrupt", 0, "stopped while the server was connected", 1),
                ("interrupted inside a message", good + message, "interrupt", 0,
                 "stopped while the server was connected", 1),
                ("cut inside a message", good + message + b"x", "close", 69, "the server's stream was cut off", 1),
                ("cut inside a message's second record", good + cut, "close", 69,
                 "the 1 whole records of it are written", 2),
                ("ended inside a cycle", good + frame(wire.SHIP_TYPE.pack(1)), "close", 69,
                 "the last cycle has no end", 1),
                ("reset", good, "reset", 69, "Connection reset by peer", 1),
                ("a malformed message between", frame(wire.SHIP_TYPE.pack(2) + b"garbage") + good, "close", 65,
                 "message 1 of 11 bytes cannot be read with this schema", 1)):
            with self.subTest(what):
                tool, first, _ = self.start()
                first.sendall(stream)
                wait_until("the record", lambda: tool.out() == COLUMNS + line)
                if end == "interrupt":
                    tool.process.send_signal(signal.SIGINT)
                elif end == "reset":
                    reset(first)
                else:
                    first.close()
                expect("status", tool.wait_end(), status)
                self.assertIn(error, tool.errors())
                self.assertIn(f" 1 keys, {records} records\n", tool.errors())
                expect("rows", tool.out(), COLUMNS + line * records)

    def test_that_cannot_write_says_so(self) -> None:
        tool, first, _ = self.start("--output", "/dev/full")
        first.sendall(cycle([]))
        expect("status", tool.wait_end(), 74)
        self.assertIn("/dev/full: writing failed: No space left on device", tool.errors())
