"""What is installed: the library in the hands of others, the manual pages beside --help, the units."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

from running import DEADLINE, die_with_parent, free_ports, listening_ports, wait_until
from runs import BINARIES, expect
from tools import addresses

SOURCES = Path(__file__).parents[2]
RUNNING = {**os.environ, "LC_ALL": "C.UTF-8", "MANPAGER": "cat", "MANWIDTH": "1000"}


def done(*words: object, status: int = 0, **options: object) -> str:
    """What a program prints; it must end with this status."""
    run = subprocess.run(list(map(str, words)), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                         timeout=10 * DEADLINE, check=False, env=RUNNING, **options)
    expect(f"status of {words}, which says {run.stdout}", run.returncode, status)
    return run.stdout


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.base = Path(tempfile.mkdtemp(prefix="brindle-install-"))
        cls.addClassCleanup(shutil.rmtree, cls.base)
        cls.prefix = cls.base / "prefix"
        done("cmake", "--install", BINARIES.parent, "--prefix", cls.prefix)

    def start(self, ports: set[int], *words: object) -> subprocess.Popen[bytes]:
        process = subprocess.Popen(list(map(str, words)), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   preexec_fn=die_with_parent)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        wait_until(f"{words[0]} to listen", lambda: ports <= listening_ports(process.pid))
        return process

    def test_the_examples_are_built_against_what_is_installed_and_run(self) -> None:
        examples = self.prefix / "share/doc/libbrindle-client-dev/examples"
        config = next(self.prefix.rglob("brindle_client.pc")).parent
        flags = done("env", f"PKG_CONFIG_PATH={config}", "pkg-config", "--cflags", "--libs", "brindle_client").split()
        for name in "producer", "consumer":
            source = examples / name / f"{name}.cpp"
            self.assertLess(len(source.read_text().splitlines()), 80)
            folder = self.base / "cmake" / name
            done("cmake", "-G", "Ninja", "-S", source.parent, "-B", folder, f"-DCMAKE_PREFIX_PATH={self.prefix}")
            done("cmake", "--build", folder)
            (self.base / "pkg-config").mkdir(exist_ok=True)
            done("c++", "-std=c++20", "-Wall", "-Wextra", "-Werror", source, *flags, "-o",
                 self.base / "pkg-config" / name)
        spec = examples / "producer/producer.spec"
        for way in "cmake/{0}/{0}", "pkg-config/{0}":
            with self.subTest(way):
                ship, data, query = (free_ports(2) for _ in range(3))
                recovery = tempfile.mkdtemp(dir=self.base)
                consumer = self.start(set(ship), self.base / way.format("consumer"), spec, addresses(ship))
                server = self.start(set(data), self.prefix / "bin/brindle", spec, recovery, "127.0.0.1", *ship, *data,
                                    1, *query)
                done(self.base / way.format("producer"), spec, addresses(data), 20, 10)
                lines = consumer.communicate(timeout=DEADLINE)[0].decode().splitlines()
                expect("ends", (consumer.returncode, server.wait(DEADLINE)), (0, 0))
                expect("records, and their fields", [line.count("\t") for line in lines], [3] * 20)
                times = [int(line.split("\t")[1]) for line in lines]
                self.assertEqual(times, sorted(times))

    def test_every_option_that_help_shows_stands_in_the_page(self) -> None:
        todo, seen = [["brindlectl"]], 0
        while todo:
            words = todo.pop()
            shown = done(BINARIES / words[0], *words[1:], "--help")
            page = done("man", "-l", self.prefix / f"share/man/man1/{'-'.join(words)}.1")
            page = " ".join(page.replace("\u2010", "-").split())
            _, _, verbs = shown.partition("\nSubcommands:\n")
            todo += [[*words, name] for name in re.findall(r"^  (\w+) ", verbs.split("\n\n")[0], re.MULTILINE)]
            # An entry is a name, perhaps with a line end, and then what it is for.
            for name, about in re.findall(r"^  (?:-h,)?(--[\w-]+).*?(?:  +|\n +)(\w.*)$", shown, re.MULTILINE):
                seen += 1
                with self.subTest(" ".join([*words, name])):
                    self.assertRegex(page, rf"{name}( \S+)? {re.escape(about)}\.")
        self.assertGreater(seen, 80)

    def test_pages_are_well_formed(self) -> None:
        pages = sorted(self.prefix.rglob("man/man?/*"))
        self.assertGreater(len(pages), 12)
        for page in pages:
            with self.subTest(page.name):
                done("mandoc", "-Tlint", "-Wwarning", page)
                expect("warnings", done("sh", "-c", 'man --warnings -l "$0" >/dev/null', page), "")

    def test_the_page_of_the_server_has_the_arguments_that_it_prints(self) -> None:
        usage = done(BINARIES / "brindle", status=8).replace("<RecoverFromPath>", "[RecoverFromPath]").split()[1:]
        page = done("man", "-l", self.prefix / "share/man/man1/brindle.1").split("DESCRIPTION")[0]
        expect("synopsis", page.split("SYNOPSIS")[1].split(), ["brindle", *usage])

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_units_are_sound_and_shut_in(self) -> None:
        for unit in sorted(self.prefix.rglob("*.service")):
            # Under the names of an instance, and with programs that are there.
            for name in "brindle@x.service", "brindle-sink@x.service":
                text = (unit.parent / name.replace("x", "")).read_text()
                (self.base / name).write_text(re.sub(r"(?<=ExecStart=)\S+(?=/)", str(self.prefix / "bin"), text))
            path = self.base / unit.name.replace("@", "@x")
            expect("complaints", done("systemd-analyze", "verify", "--man=no", path), "")
            done("systemd-analyze", "security", "--offline=yes", "--threshold=25", path)
