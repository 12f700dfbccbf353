"""How the tests of this folder run the program: real processes, real files, loopback, ports that the system chooses.

usage of each test: NAME_test.py TALVO [TEST...]
"""
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

TALVO = os.path.abspath(sys.argv.pop(1))
# A sanitized program needs address space and descriptors of its own.
SANITIZED = re.search(rb"__[at]san_init", pathlib.Path(TALVO).read_bytes()) is not None
PATIENCE = 240  # seconds; only how long a failing test takes
# An address of loopback that no other process uses, so that nobody takes a port that was let go.
HOST = f"127.{64 + (os.getpid() >> 16) % 128}.{os.getpid() >> 8 & 255}.{os.getpid() & 255}"
ANY_PORT = "--host", HOST, "--port", "0"


def poll(what, condition):
    for _ in range(PATIENCE * 100):
        if condition():
            return
        time.sleep(0.01)
    raise AssertionError("still not so: " + what)


def receive_exactly(peer, count):
    """So many bytes, or fewer at the end. MSG_WAITALL does not wait on a socket with a time-out, which is non-blocking."""
    data = b""
    while len(data) < count and (piece := peer.recv(count - len(data))):
        data += piece
    return data


class Server:
    """A process of the program that listens; it says first where, as text or as JSON."""

    def __init__(self, process):
        self.process = process
        first = process.stdout.readline()
        self.port = json.loads(first)["port"] if first.startswith("{") else int(first.rpartition(":")[2])
        self.address = f"{HOST}:{self.port}"
        self.url = "http://" + self.address

    def end(self, with_signal=signal.SIGINT):
        """The exit status and what it said on its two outputs since."""
        if with_signal is not None:
            self.process.send_signal(with_signal)
        out, err = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, out.removeprefix("ready\n"), err


class ProgramTest(unittest.TestCase):
    """Each test has a directory of its own, and its processes end with it."""

    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="talvo-test-")
        self.addCleanup(temporary.cleanup)
        self.directory = pathlib.Path(temporary.name)

    def run_talvo(self, *arguments, **more):
        return subprocess.run([TALVO, *map(str, arguments)], **{"text": True, "capture_output": True, "timeout": 2 * PATIENCE, **more})

    def start(self, *arguments, program=(TALVO,), **more):
        process = subprocess.Popen([*program, *map(str, arguments)],
                                   **{"text": True, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **more})
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def serve(self, *arguments, **more):
        return Server(self.start(*arguments, *ANY_PORT, **more))

    def make(self, name, content):
        path = self.directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        return path

    def assert_fails(self, run, status, cause=""):
        """With one line that names the cause, and nothing else."""
        self.assertEqual((status, 1), (run.returncode, len(run.stderr.splitlines())), run.args)
        self.assertIn(cause, run.stderr)
