"""Starts the programs of the benchmarks and reads their results."""
import contextlib
import json
import os
import pathlib
import select
import signal
import socket
import subprocess
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = ROOT / "build" / "bench" / "benchmarks"
TOOLS = ROOT / "build" / "bench" / "tools"
MOST_SECONDS = 60  # of any one program


class Fault(Exception):
    """A program failed. Its row has no figures of this round."""


class Missing(Exception):
    """A program is not there. Its row has no figures."""


class LoadTime:
    """For so many seconds a load is counted, after those of its warm-up. More rounds reduce the noise more than longer loads.
    wrk has no warm-up: its time over TLS includes all handshakes, which take it a second on a busy machine."""

    WARM_UP, SECONDS, OF_WRK, OF_WRK_TLS = 0.1, 0.6, 1, 3

    @classmethod
    def arguments(cls):
        return ["--warm-up", str(cls.WARM_UP), "--seconds", str(cls.SECONDS)]


def program_path(name):
    return str((TOOLS if name == "talvo" else PROGRAMS) / name)


def require(path):
    if not os.access(path, os.X_OK):
        raise Missing(f"{path} is not installed")


def pinned(command, core):
    cores = sorted(os.sched_getaffinity(0))
    return ["taskset", "--cpu-list", str(cores[core])] + command if len(cores) > 1 else command


def output(command, core=None, most_seconds=MOST_SECONDS):
    """Returns the program's output, from the given core or from all."""
    require(command[0])
    try:
        done = subprocess.run(command if core is None else pinned(command, core), stdout=subprocess.PIPE, timeout=most_seconds,
                              check=False, text=True)
    except subprocess.TimeoutExpired as error:
        raise Fault(f"{' '.join(command)} takes more than {most_seconds} s") from error
    if done.returncode != 0:
        raise Fault(f"{' '.join(command)} ended with {done.returncode}: {done.stdout.strip()[-200:]}")
    return done.stdout


def run(command, core=None):
    """Returns the program's output: JSON objects, one a line."""
    return [json.loads(line) for line in output(command, core).splitlines()]


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return str(probe.getsockname()[1])


def await_port(port):
    for _ in range(MOST_SECONDS * 100):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", int(port))) == 0:
                return
        time.sleep(0.01)
    raise Fault(f"no program listens on port {port}")


@contextlib.contextmanager
def running(command, port=None):
    """A fresh server on the first core. It prints "ready", or is ready when it listens on port, and must end in order."""
    require(command[0])
    with subprocess.Popen(pinned(command, 0), stdout=subprocess.PIPE) as server:
        try:
            if port is not None:
                await_port(port)
            elif not select.select([server.stdout], [], [], MOST_SECONDS)[0] or server.stdout.readline() != b"ready\n":
                raise Fault(f"{' '.join(command)} is not ready in time")
            yield server
            server.send_signal(signal.SIGTERM)
            if server.wait(MOST_SECONDS) not in (0, -signal.SIGTERM):
                raise Fault(f"{' '.join(command)} ended with {server.returncode}")
        except subprocess.TimeoutExpired as error:
            raise Fault(f"{' '.join(command)} does not end") from error
        finally:
            server.kill()


def run_load(command, port, server):
    """Returns the output of a load on the second core."""
    result, = run([program_path(command[0]), *command[1:], "--port", port, "--pid", str(server.pid), *LoadTime.arguments()], 1)
    return result


def measure_server(server_command, load_command, port):
    with running([program_path(server_command[0])] + server_command[1:]) as server:
        return run_load(load_command, port, server)
