"""The link of the suite "wan": two network namespaces and a program between them, for one run."""
import contextlib
import filecmp
import json
import os
import pathlib
import select
import signal
import subprocess
import tempfile
import time

from bench_tls import certificate

PORT = "7000"
SERVER = "10.0.0.2"
RELAY_PORT = "7001"  # at the sender
MOST_SECONDS = 200  # of any one run: 32 MiB over 200 ms with socket buffers of 64 KiB
UNLIMITED = 100000
LOADS = {  # round trip in ms, Mbit a second, queue in KiB, loss in per cent, MiB to send
    "1 ms": (1, 400, 512, 0, 24),
    "40 ms": (40, 400, 2048, 0, 32),
    "200 ms": (200, 400, 4096, 0, 32),
    "40 ms, 0.1 % lost": (40, 400, 2048, 0.1, 24),
    "40 ms, 100 Mbit/s": (40, 100, 1024, 0, 12),
    "40 ms, unlimited": (40, UNLIMITED, 65536, 0, 64),
}
SHORT = ["40 ms, 100 Mbit/s", "40 ms, unlimited"]
STREAMS = ("raw", "length", "package", "nopartial", "reliable", "tls", "proxied")
PROGRAMS = {"plain": ["plain"], "plain2": ["plain"]} | {kind: ["stream", kind] for kind in STREAMS}
PROGRAMS |= {"http": ["http"], "send, recv": ["send"], "serve, get": ["get"]}
OWN = tuple(name for name in PROGRAMS if not name.startswith("plain"))


def cannot_run():
    """Returns the reason why the suite cannot run here, or None."""
    if os.geteuid() != 0:
        return "it makes network namespaces, which needs root"
    try:
        os.close(os.open("/dev/net/tun", os.O_RDWR))
    except OSError as error:
        return str(error)
    return None


class Link:
    """All programs on it end with it, and it ends with this process: no namespace or device remains."""

    def __init__(self, program, *settings):
        self.process = subprocess.Popen([program, *map(str, settings)], text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        words = self.process.stdout.readline().split()
        if not words or words[0] != "ready":
            raise RuntimeError("the link is not ready in time")
        self.namespaces = words[1:]

    def start(self, end, command, **how):
        namespace = f"--net=/proc/{self.process.pid}/fd/{self.namespaces[end]}"
        return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "nsenter", namespace, *command], text=True, **how)

    def finish(self):
        return json.loads(self.process.communicate(timeout=MOST_SECONDS)[0])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


@contextlib.contextmanager
def killed(process):
    try:
        yield process
    finally:
        process.kill()
        process.wait()


def await_line(process):
    """Waits for the program's first line, after which it accepts connections."""
    if not select.select([process.stdout], [], [], MOST_SECONDS)[0] or not process.stdout.readline():
        raise RuntimeError(f"{process.args} is not ready in time")


def commands(program, directory, size):
    """Returns the command that listens at one end and the one that connects at the other."""
    name, *kind = program
    if name == "plain":
        return ["bench_wan_plain", "recv", PORT, size], ["bench_wan_plain", "send", SERVER, PORT, size]
    if name == "stream":
        listening = ["bench_wan_talvo", "recv", PORT, size, *kind]
        connecting = ["bench_wan_talvo", "send", SERVER, PORT, size, *kind]
        return (listening + (certificate("P-256") if kind == ["tls"] else []),
                connecting + ([f"http://127.0.0.1:{RELAY_PORT}"] if kind == ["proxied"] else []))
    if name == "http":
        return ["bench_wan_talvo", "serve", PORT, size], ["bench_wan_talvo", "get", SERVER, PORT, size]
    listening = ["--host", "0.0.0.0", "--port", PORT]
    if name == "send":
        return ["talvo", "recv", "--out", f"{directory}/to", *listening], ["talvo", "send", f"{directory}/file", f"{SERVER}:{PORT}"]
    return ["talvo", "serve", directory, *listening], ["talvo", "get", f"http://{SERVER}:{PORT}/file", "-o", f"{directory}/to/file"]


@contextlib.contextmanager
def relay(link, command):
    """An HTTP proxy at the sender, which has one client."""
    with killed(link.start(0, command, stdout=subprocess.PIPE)) as process:
        await_line(process)
        yield


def run_pair(link, server_command, client_command, stop_server):
    """Returns the client's output and its duration."""
    with killed(link.start(1, server_command, stdout=subprocess.PIPE)) as server:
        await_line(server)
        start = time.monotonic()
        with killed(link.start(0, client_command, stdout=subprocess.PIPE)) as client:
            printed = client.communicate(timeout=MOST_SECONDS)[0]
            seconds = time.monotonic() - start
        if client.returncode != 0:
            raise RuntimeError(f"the client ended with {client.returncode}")
        if stop_server:
            server.terminate()
        if server.wait(MOST_SECONDS) not in (0, 128 + signal.SIGTERM):
            raise RuntimeError(f"the server ended with {server.returncode}")
    return printed, seconds


def transfer(program_path, program, row):
    """Returns bytes a second between the first and the last full packet on the link, and their share of its capacity."""
    *settings, mib = LOADS[row]
    rtt_ms, mbit = settings[:2]
    moves_file = program[0] in ("send", "get")
    with tempfile.TemporaryDirectory(prefix="talvo-bench-") as directory:
        pathlib.Path(directory, "to").mkdir()
        pathlib.Path(directory, "file").write_bytes(os.urandom(1 << 20) * mib if moves_file else b"")
        both = commands(program, directory, str(mib << 20))
        with contextlib.ExitStack() as stack:
            link = stack.enter_context(Link(program_path("bench_wan_link"), *settings))
            if program[-1] == "proxied":
                stack.enter_context(relay(link, [program_path("bench_wan_plain"), "relay", RELAY_PORT]))
            printed, seconds = run_pair(link, *([program_path(name), *rest] for name, *rest in both), moves_file)
            seen = link.finish()
        if moves_file and not filecmp.cmp(f"{directory}/file", f"{directory}/to/file", shallow=False):
            raise RuntimeError("the received file differs")
    if program[0] == "plain" and json.loads(printed)["connect_ms"] < rtt_ms:
        raise RuntimeError("the link is faster than it should be")
    rate = (mib << 20) * 1e9 / seen["full_ns"]
    numbers = {"rate": rate, "time": seconds, "dropped": seen["dropped"], "link_cpu": seen["cpu_ns"] / seen["full_ns"]}
    return numbers | ({"link": rate * 8 / (mbit * 1e6)} if mbit != UNLIMITED else {})
