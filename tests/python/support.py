"""A real daemon on a free port, and programs beside it."""

import os
import pathlib
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest

BIN = os.environ["KVX_BIN"]
EXAMPLES = pathlib.Path(os.environ["KVX_PYTHON_EXAMPLES"])
LONGEST = 30  # seconds that anything is waited for


class Program:
    """A program whose lines are awaited; killed with the test."""

    def __init__(self, test, *command):
        # A shell's background job hands on that SIGINT is ignored.
        self.process = subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, bufsize=0,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.said = ""
        test.addCleanup(self.end)

    def await_line(self, text):
        """Waits for `text`, and returns what has come."""
        until = time.monotonic() + LONGEST
        while text not in self.said:
            readable, _, _ = select.select([self.process.stdout], [], [], until - time.monotonic())
            data = os.read(self.process.stdout.fileno(), 65536) if readable else b""
            if not data:
                raise AssertionError(f"'{text}' never came: {self.said}")
            self.said += data.decode()
        return self.said

    def wait(self):
        """Its exit status; all that it said is then in `said`."""
        rest, _ = self.process.communicate(timeout=LONGEST)
        self.said += rest.decode()
        return self.process.returncode

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


class BusTest(unittest.TestCase):
    """A test with a daemon of its own, which is the configured one."""

    def setUp(self):
        home = tempfile.TemporaryDirectory()
        self.addCleanup(home.cleanup)
        self.daemon = Program(self, f"{BIN}/rvd", "-listen", "tcp:127.0.0.1:0")
        self.address = self.daemon.await_line("ready on").split()[-1]
        os.mkdir(f"{home.name}/etc")
        with open(f"{home.name}/etc/Calvorine.rvd.cfg", "w", encoding="ascii") as file:
            file.write(f'rendezvous session = {{ "daemon" = "{self.address}" }};\n')
        os.environ["KVX_HOME"] = home.name

    def python(self, code_or_file, *arguments):
        where = ["-c", code_or_file] if "\n" in code_or_file else [code_or_file]
        return Program(self, sys.executable, "-u", *where, *arguments)

    def example(self, name, *arguments):
        return self.python(str(EXAMPLES / name), *arguments)
