"""A PostgreSQL server of a test's own."""

import os
import pwd
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

from running import Failure, die_with_parent, wait_until

PROGRAMS = Path("/usr/lib/postgresql/15/bin")
IS_INSTALLED = (PROGRAMS / "postgres").exists()


class PostgreSQL:
    """Reached by a socket in its directory alone, with a password; run as an unprivileged user when root tests."""

    def __init__(self) -> None:
        self.directory = Path(tempfile.mkdtemp(prefix="brindle-pg-"))
        self.user: list[str] = []
        if os.getuid() == 0:
            user = pwd.getpwnam("postgres")
            os.chown(self.directory, user.pw_uid, user.pw_gid)
            self.user = ["setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups"]
        password = self.directory / "password"
        password.write_text("secret")
        password.chmod(0o644)
        self.process: subprocess.Popen[bytes] | None = None
        try:
            subprocess.run([*self.user, PROGRAMS / "initdb", "-D", self.directory / "data", "-U", "test",
                            "--pwfile", password, "-A", "scram-sha-256", "-E", "UTF8", "--no-locale", "--no-sync"],
                           check=True, capture_output=True)
            self.start()
        except BaseException:
            self.close()
            raise

    def address(self, password: str = "secret") -> str:
        return f"postgresql://test:{password}@/postgres?host={self.directory}"

    def start(self) -> None:
        with (self.directory / "log").open("ab") as log:
            self.process = subprocess.Popen(
                [*self.user, PROGRAMS / "postgres", "-D", self.directory / "data", "-k", self.directory, "-c",
                 "listen_addresses="], stdout=log, stderr=log, preexec_fn=die_with_parent)
        ready = [PROGRAMS / "pg_isready", "-q", "-h", self.directory]

        def answers() -> bool:
            if self.process.poll() is not None:
                raise Failure(f"PostgreSQL does not start: {(self.directory / 'log').read_text()[-500:]}")
            return subprocess.run(ready, check=False).returncode == 0

        wait_until("PostgreSQL", answers)

    def stop(self, how: int) -> None:
        """SIGINT is its fast shutdown, SIGQUIT its immediate one, which leaves it as a crash does."""
        self.process.send_signal(how)
        self.process.wait()

    def ask(self, query: str) -> list[list[str]]:
        """The rows of a query without line ends and tabs in its values."""
        psql = subprocess.run([PROGRAMS / "psql", "-XqAtF\t", "-v", "ON_ERROR_STOP=1", "-c", query, self.address()],
                              capture_output=True, text=True, check=False)
        if psql.returncode != 0:
            raise Failure(psql.stderr)
        return [line.split("\t") for line in psql.stdout.splitlines()]

    def close(self) -> None:
        if self.process and self.process.poll() is None:
            self.stop(signal.SIGQUIT)
        shutil.rmtree(self.directory)
