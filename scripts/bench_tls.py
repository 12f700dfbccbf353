"""The suites of TLS: their loads, and fresh certificates for their servers."""
import atexit
import functools
import pathlib
import subprocess
import tempfile

HANDSHAKES = {
    "full handshakes, P-256": ["--connections", "10", "--handshakes", "full"],
    "full handshakes, RSA-2048": ["--connections", "10", "--handshakes", "full"],
    "resumed handshakes": ["--connections", "10", "--handshakes", "resumed"],
}
ECHO = {
    "64 B, 1 connection": ["--connections", "1"],
    "64 B, 50 connections": ["--connections", "50"],
    "64 B, 500 connections": ["--connections", "500"],
    "16 KiB, 10 streams": ["--connections", "10", "--size", "16384", "--in-flight", "4"],
    "1,000 connections, 10 busy": ["--connections", "1000", "--busy", "10"],
}
ECHO = {row: load + ["--tls"] for row, load in ECHO.items()}


@functools.cache
def _directory():
    directory = tempfile.TemporaryDirectory(prefix="talvo-bench-")
    atexit.register(directory.cleanup)
    script = pathlib.Path(__file__).resolve().parent / "make-certificates"
    subprocess.run([str(script), directory.name, "rsa"], check=True)
    return pathlib.Path(directory.name)


def certificate(row):
    """Returns the files of a chain and its key: RSA of 2,048 bits if the row names it, else P-256."""
    name = "rsa" if "RSA" in row else "server"
    return [str(_directory() / f"{name}.{suffix}") for suffix in ("pem", "key")]
