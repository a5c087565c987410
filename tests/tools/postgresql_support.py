"""A PostgreSQL server for a test: on a Unix socket in a folder of its own, as an ordinary user."""

import glob
import os
import shutil
import subprocess
import tempfile

from fleet_support import FleetTest


class Server:
    """A Server runs from its making to `remove`, unless it is stopped in between."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="pg-", dir="/tmp")  # a socket's path may not be long
        self.data = os.path.join(self.folder, "data")
        self._programs = sorted(glob.glob("/usr/lib/postgresql/*/bin"))[-1]
        self._run("initdb", "--auth=trust", "--username=tester", "--encoding=UTF8", "--no-sync", "-D", self.data)
        # That this machine's disk keeps what it was given is not what is tested.
        settings = ["listen_addresses = ''", f"unix_socket_directories = '{self.folder}'", "fsync = off"]
        with open(os.path.join(self.data, "postgresql.conf"), "a", encoding="ascii") as stream:
            stream.write("\n".join(["", *settings, ""]))
        self.start()

    def _run(self, program, *words, check=True):
        """Runs one of the server's programs. They refuse to work for root, who is nobody special in a namespace with
        another number."""
        as_user = ["unshare", "--user", "--map-user=65534"] if os.geteuid() == 0 else []
        command = [*as_user, os.path.join(self._programs, program), *words]
        log = os.path.join(self.folder, "log")
        with open(log, "ab") as stream:
            result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=stream, stderr=stream, timeout=60)
        if check and result.returncode != 0:
            with open(log, encoding="utf-8") as stream:
                raise AssertionError(f"{program}: {stream.read()}")

    def start(self):
        self._run("pg_ctl", "start", "--wait", "-D", self.data)

    def stop(self, mode="fast"):
        self._run("pg_ctl", "stop", "--wait", f"--mode={mode}", "-D", self.data)

    def remove(self):
        self._run("pg_ctl", "stop", "--wait", "--mode=immediate", "-D", self.data, check=False)
        shutil.rmtree(self.folder)

    def url(self, database):
        return f"postgresql://tester@/{database}?host={self.folder}"


class ServerTest(FleetTest):
    """A ServerTest has a server of its own, and its registry there."""

    def setUp(self):
        self.server = Server()
        self.addCleanup(self.server.remove)
        os.environ["FLEET_TEST_SERVER"] = self.server.url("NAME")
        self.addCleanup(os.environ.pop, "FLEET_TEST_SERVER")
        super().setUp()
