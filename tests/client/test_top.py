"""brindlectl top beside the real server: its figures against what was sent."""

import json
import os
import shutil
import time
from pathlib import Path

from running import wait_until
from runs import SANITIZED, Run, cycles_before_end, expect
from tools import TYPES, Brindlectl, fork_at_terminal
from wire import Record, float_bits

SECOND_US = 1_000_000


def records(count: int, keys: int, start_us: int) -> list[Record]:
    return [(b"key%d" % (i % keys), start_us + i * 1000, i, i, float_bits(i), b"note") for i in range(count)]


class Top(Brindlectl):
    def look(self, *arguments: object) -> dict:
        return json.loads(self.ended(0, "top", "--once", "--json", "--interval", "200ms", *arguments).out())

    def test_figures_are_those_of_what_was_sent(self) -> None:
        run = self.server()
        shown = ["--pid", run.server.pid]
        expect("state", self.look(*shown)["state"], "waiting for a producer")
        now_us = int(time.time()) * SECOND_US
        sent = records(20000, 7, now_us - 20 * SECOND_US)
        run.send(sent, per_frame=500)
        run.wait_cycles(cycles_before_end(sent))
        seen = self.look(*shown)
        expect("state and keys", (seen["state"], seen["keys"], seen["errors_total"]), ("serving", 7, 0))
        if not SANITIZED:  # sanitizers write to pipes of their own, which the system counts as well
            self.assertAlmostEqual(seen["records_in_estimate"], len(sent), delta=len(sent) * 0.02)
        # One of a sanitizer's own has its starter's name.
        expect("thread names", {thread["name"] for thread in seen["threads"]}, {"TMain", "TOrg", "TQry", "TShp"})
        self.assertGreater(seen["cycles"], 1)
        self.assertGreater(seen["shipped_bytes"], 10000)
        self.assertGreater(seen["memory_peak_bytes"], 1 << 20)
        # The newest bucket began within the last quarter of the window before the newest record.
        self.assertLess(abs(seen["event_time_us"] - sent[-1][1]), SECOND_US)
        self.assertGreater(seen["lag_us"], 0)
        expect("recovery files", seen["recovery_files"], sum(path.name[0] == "F" for path in run.recovery.iterdir()))
        run.finish(sent)
        log = self.directory / "kept"
        shutil.copy(run.server.error_file, log)
        gone = self.look("--pid", run.server.pid, "--log", log, "--window", "1s")
        expect("state", gone["state"], "gone, after an orderly end")

    def test_a_log_that_is_moved_or_cut_is_read_on(self) -> None:
        log = self.file("log", "TOrg: Total recs absorbed 1 delta 1  : utime 1 us\n")
        tool = self.tool("top", "--once", "--json", "--interval", "2s", "--log", log, "--name", "nobody")
        opened = Path(f"/proc/{tool.process.pid}/fd")
        wait_until("a reader of the log", lambda: str(log) in [os.path.realpath(one) for one in opened.iterdir()])
        with log.open("a") as more:
            more.write("TShp: termination sent\nBinding socket failed:: Address already in use\n")
        log.rename(self.directory / "log.1")
        self.file("log", "TOrg: Total recs absorbed 90 delta 10  : utime 1 us\n\x1b[31mERROR  Sender: Broken pipe\n")
        expect("status", tool.wait_end(), 0)
        seen = json.loads(tool.out())
        expect("figures of both", (seen["records_placed"], seen["cycles"], seen["errors_total"]), (90, 1, 2))
        expect("meanings", ["port" in seen["errors"][0]["meaning"], seen["errors"][1]["text"][0]], [True, "?"])
        cut = self.file("cut", "TOrg: Total recs absorbed 5 delta 5, the start of a line")
        tool = self.tool("top", "--once", "--json", "--interval", "2s", "--log", cut, "--name", "nobody")
        opened = Path(f"/proc/{tool.process.pid}/fd")
        wait_until("a reader of the log", lambda: str(cut) in [os.path.realpath(one) for one in opened.iterdir()])
        self.file("cut", "Binding socket failed\n")
        expect("status", tool.wait_end(), 0)
        expect("errors behind the cut", [error["text"] for error in json.loads(tool.out())["errors"]], ["Binding socket failed"])
        piped = self.tool("top", "--once", "--json", "--interval", "500ms", "--log", "-", "--name", "nobody")
        piped.feed(b"\0\0TOrg: Total recs absorbed 5 delta 5\nTMain Gathered TOrg\nhalf")
        expect("status", piped.wait_end(), 0)
        seen = json.loads(piped.out())
        expect("from a pipe", (seen["records_placed"], seen["state"]), (5, "gone, after an orderly end"))

    def test_a_server_that_is_started_again_is_found_and_the_terminal_is_given_back(self) -> None:
        name = f"brindle-{os.getpid()}"
        wrapper = ["bash", "-c", f'exec -a {name} "$0" "$@"']
        shown = bytearray()
        pid, terminal = fork_at_terminal({}, "top", "--name", name, "--interval", "100ms")

        def shows(text: str) -> bool:
            shown.extend(os.read(terminal, 65536))
            return text.encode() in shown

        wait_until("no server", lambda: shows("no server"))
        for _ in range(2):
            shown.clear()
            again = self.enterContext(Run(TYPES, wrapper=wrapper))
            again.start()
            wait_until("the server", lambda: shows(f"{again.server.pid}"))
            wait_until("its state", lambda: shows("waiting for a producer"))
            again.server.kill()
            wait_until("its end", lambda: shows("gone"))
        shown.clear()
        os.write(terminal, b"q")
        wait_until("the end of the screen", lambda: shows("\x1b[?1049l"))
        expect("status", os.waitpid(pid, 0)[1], 0)
        os.close(terminal)
