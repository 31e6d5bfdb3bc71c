"""The sessions of docs/tools.md, on flights of which a killed server left a part."""

import os
import re
import shutil
import subprocess
from pathlib import Path

from running import DEADLINE, Session, wait_until
from runs import BINARIES, expect
from tools import Brindlectl, addresses

ROOT = Path(__file__).parents[2]
FLIGHTS = ROOT / "examples/flights"
ROWS = 60_000
WINDOW_SECONDS = 10 * 24 * 3600
BLOCK = 4096


def sessions(text: str) -> list[tuple[str, list[str], int]]:
    """The commands of the fenced blocks, each with the lines that are shown and its exit status."""
    found: list[tuple[str, list[str], int]] = []
    for block in re.findall(r"^```\n(\$ .*?)^```$", text, re.MULTILINE | re.DOTALL):
        for session in re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]:
            command, *shown = session.splitlines()
            if command == "echo $?":
                found[-1] = (*found[-1][:2], int(shown[0]))
            else:
                found.append((command, shown, 0))
    return found


def shapes(lines: list[str], command: str) -> list[str]:
    """What of a command's lines does not depend on the machine's speed: of those that measure, the names of things."""
    if not re.match("brindlectl (top|bench)", command):
        return [re.sub(r"\S*/(?=mended)", "", line) for line in lines]
    return [re.sub(r"\s*\d.*", "", line) for line in lines if re.match("[a-z]{3}", line) and "errors" not in line]


class ToolsPage(Brindlectl):
    def test_every_command_shows_what_the_page_shows(self) -> None:
        found = sessions((ROOT / "docs/tools.md").read_text())
        self.assertGreater(len(found), 10)
        with Session(BINARIES, (FLIGHTS / "flights.spec").read_text(), WINDOW_SECONDS) as session:
            session.start()
            self.environment = {**os.environ, "PATH": f"{BINARIES}:{os.environ['PATH']}", "COLUMNS": "80",
                                "LC_ALL": "C.UTF-8", "BRINDLE_SPEC": str(FLIGHTS / "flights.spec"),
                                "BRINDLE_QUERY": addresses(session.query_ports)}
            rows = self.run_shell(f"zcat {FLIGHTS}/flights-2001q1.csv.gz | head -n {ROWS + 1}")[0]
            self.tool("send", "--spec", FLIGHTS / "flights.spec", "--data", addresses(session.data_ports), "--hold",
                      self.file("part.csv", rows))
            moment, key, *values = rows.splitlines()[-1].split(",")
            last = f"brindlectl query --from {moment} --format csv --quiet {key}"
            wait_until("the last row", lambda: ",".join(values) in self.run_shell(last)[0])
            live = [one for one in found if re.match("brindlectl (query|top)", one[0])]
            for command, shown, status in live:
                self.check(command.replace("/tmp/flights/recovery", f"{session.recovery} --once"), shown, status)
            session.server.kill()
            shutil.copytree(session.recovery, self.directory / "run7")
        log = min(shutil.copytree(self.directory / "run7", self.directory / "hurt").glob("F*"))
        with log.open("r+b") as damaged:
            damaged.seek(100 * BLOCK)
            damaged.write(bytes(BLOCK))
        for one in found:
            if one not in live:
                self.check(one[0].replace("--rate 50000 --seconds 6", "--rate 5000 --seconds 2"), *one[1:])

    def check(self, command: str, shown: list[str], status: int) -> None:
        with self.subTest(command):
            seen, ended = self.run_shell(command)
            lines = shapes(seen.splitlines(), command)
            missing = [line for line in shapes(shown, command) if line != "..." and line not in lines]
            expect("status, and lines that are not there", (ended, missing), (status, []))

    def run_shell(self, command: str) -> tuple[str, int]:
        done = subprocess.run(["bash", "-c", command], cwd=self.directory, env=self.environment, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=DEADLINE, check=False)
        return done.stdout, done.returncode
