"""brindlectl bench against the real server, and against one that does not keep its promises."""

import json
import subprocess
import sys

from runs import BINARIES, expect
from tools import Brindlectl

LATENCIES = ["latency_taken", "latency_queryable", "latency_shipped", "latency_query"]

# Stands in for a server: ships each frame's first record as it is told to, of a schema with an int64 key and one field.
FALSE_SERVER = """#!{python}
import socket, struct, sys
ship = [socket.create_connection((sys.argv[3], int(port))) for port in sys.argv[4:6]]
listeners = [socket.create_server(("127.0.0.1", int(port))) for port in sys.argv[6:8]]
data = [listener.accept()[0] for listener in listeners]
stream = b""
while part := data[0].recv(1 << 20):
    stream += part
size = struct.unpack(">I", stream[:4])[0]
rows = [stream[at:at + 24] for at in range(4, 4 + size, 24)]
rows = {edit}
messages = [struct.pack(">I", 1) + b"".join(dict.fromkeys(row[:8] for row in rows)), struct.pack(">I", 2), struct.pack(">I", 3)]
for row in rows:
    messages[1] += row[:8] + struct.pack(">Q", 1) + row[8:]
for message in messages:
    ship[0].sendall(struct.pack(">I", len(message)) + message)
"""


class Bench(Brindlectl):
    def test_every_preset_is_verified_and_measured(self) -> None:
        documented = subprocess.run([BINARIES / "brindlectl", "bench", "--help"], capture_output=True, text=True,
                                    check=True).stdout
        for preset, *more in (("ticks", "--rate", 20000, "--seconds", 2, "--window", "1s", "--frame", "4k"),
                              ("many", "--keys", 500, "--records", 50000, "--query-clients", 0),
                              ("wide", "--seconds", 1, "--query-clients", 2)):
            with self.subTest(preset):
                tool = self.ended(0, "bench", "--preset", preset, "--json", *more)
                result = json.loads(tool.out())
                expect("keys that are not documented", [key for key in result if key not in documented], [])
                expect("verified", (result["verified"], result["reason"]), (True, ""))
                self.assertGreater(result["server_peak_bytes"], 1 << 20)
                self.assertGreater(result["bytes_out"], 0)
                for name in LATENCIES if preset == "ticks" else LATENCIES[::2]:
                    if figures := result[name]:
                        ranks = [figures[key] for key in ("p50_us", "p90_us", "p99_us", "p999_us", "p9999_us", "max_us")]
                        expect(name, ranks, sorted(ranks))
                if preset == "ticks":
                    self.assertLess(result["latency_queryable"]["p50_us"], result["latency_shipped"]["p50_us"])
                    self.assertGreaterEqual(result["records"], 40000)

    def test_a_server_that_loses_doubles_or_changes_records_is_found_out(self) -> None:
        for edit, reason in (("rows", ""), ("rows[:-1]", "in place of 1"), ("rows + rows[:1]", "records in place of"),
                             ("[rows[0][:-1] + b'x'] + rows[1:]", "records that differ"),
                             ("rows + [b'x' * 24]", "a key that was never sent")):
            with self.subTest(edit):
                server = self.file("false", FALSE_SERVER.format(python=sys.executable, edit=edit))
                server.chmod(0o700)
                tool = self.ended(1 if reason else 0, "bench", "--preset", "many", "--records", 20, "--keys", 1000000,
                                  "--query-clients", 0, "--server", server)
                self.assertIn(reason or "verified: every record once", tool.out())

    def test_wrong_uses_are_told(self) -> None:
        other = self.file("other.spec", "Rec int32 a int64 b")
        for status, told, *options in ((2, "there are ticks, many, wide", "--preset", "few"),
                                       (2, "both --data and --ship", "--data", "1,2"),
                                       (2, "whole number of seconds", "--window", "1500ms"),
                                       (78, "types are not those of", "--spec", other),
                                       (69, "name the server with --server", "--server", self.directory / "none"),
                                       (69, "no server has connected", "--data", "1,2", "--ship", "31003,31004",
                                        "--wait", 0)):
            with self.subTest(told):
                self.assertIn(told, self.ended(status, "bench", *options).errors())
