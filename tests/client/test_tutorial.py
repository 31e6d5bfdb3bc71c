"""docs/tutorial.md, command by command."""

import os
import re
import subprocess
from pathlib import Path

from running import DEADLINE, Failure, die_with_parent, free_ports, wait_until
from runs import BINARIES, expect
from tools import Brindlectl

PAGE = Path(__file__).parents[2] / "docs/tutorial.md"
PORT = re.compile(r"\b7[012]0[1-9]\b")


def steps(text: str) -> list[tuple[str, str]]:
    """The commands of the fenced blocks, each with the output that is shown."""
    found = []
    for block in re.findall(r"^```\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        shown = block.startswith("$ ")
        command, _, output = block[2:].partition("\n") if shown else (block, "", "")
        found.append((command, output))
    return found


class Tutorial(Brindlectl):
    def test_every_command_shows_what_the_page_shows(self) -> None:
        text = PAGE.read_text()
        names = sorted(set(PORT.findall(text)))
        ports = dict(zip(names, map(str, free_ports(len(names)))))
        self.environment = {**os.environ, "PATH": f"{BINARIES}:{os.environ['PATH']}"}
        commands = [(PORT.sub(lambda port: ports[port[0]], command), output) for command, output in steps(text)]
        self.assertGreater(len(commands), 15)
        self.waiting: list[subprocess.Popen[bytes]] = []
        for command, output in commands:
            with self.subTest(command):
                if command.startswith("export PATH"):  # of a checkout; here it is set
                    continue
                if command.endswith("&"):
                    self.start(command)
                    continue
                # The number of cycles depends on when the server ships.
                seen = self.wait() if command == "wait" else self.run_shell(command)
                expect(command, *(re.sub(r"\d+ cycles?", "N cycles", text) for text in (seen, output)))

    def run_shell(self, command: str) -> str:
        return subprocess.run(command, shell=True, cwd=self.directory, env=self.environment, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=DEADLINE, check=False, text=True).stdout

    def start(self, command: str) -> None:
        """A background command, ready as it is for someone who types the next one."""
        with (self.directory / "told").open("ab") as told:
            process = subprocess.Popen(command.removesuffix("&"), shell=True, cwd=self.directory, env=self.environment,
                                       stdout=told, stderr=told, preexec_fn=die_with_parent)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.waiting.append(process)
        wanted = {int(port) for port in re.findall(r"\b\d{5}\b", command)}

        def ready() -> bool:
            if process.poll() is not None:
                raise Failure(f"{command}: ended with {process.returncode}: {(self.directory / 'told').read_text()}")
            rows = [line.split() for line in Path("/proc/net/tcp").read_text().splitlines()[1:]]
            return len(wanted & {int(row[1].split(":")[1], 16) for row in rows if row[3] == "0A"}) >= len(wanted)

        wait_until(command, ready)

    def wait(self) -> str:
        """As of a shell: for all that runs. What the background commands told."""
        for process in self.waiting:
            expect(f"status of {process.args}", process.wait(DEADLINE), 0)
        self.waiting.clear()
        told = self.directory / "told"
        text = told.read_text()
        told.unlink()
        return text
