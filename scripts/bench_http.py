"""The suites of HTTP: servers under wrk, and parsers."""
import contextlib
import os
import pathlib
import re
import tempfile

from bench_run import Fault, LoadTime, free_port, output, program_path, require, running

BROWSER_HEADERS = {
    "Accept": "text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8",
    "Accept-Encoding": "gzip, deflate, br",
    "Accept-Language": "en-US,en;q=0.5",
    "Cache-Control": "max-age=0",
    "Cookie": "session=0123456789abcdef0123456789abcdef; theme=dark; lang=en",
    "Referer": "http://www.example.com/index.html",
    "Sec-Fetch-Dest": "document",
    "Sec-Fetch-Mode": "navigate",
    "Sec-Fetch-Site": "same-origin",
    "Upgrade-Insecure-Requests": "1",
    "User-Agent": "Mozilla/5.0 (X11; Linux x86_64; rv:109.0) Gecko/20100101 Firefox/115.0",
}
LOADS = {
    "1 connection": ["--connections", "1"],
    "50 connections": ["--connections", "50"],
    "500 connections": ["--connections", "500"],
    "50, a browser's headers": ["--connections", "50"] + [f"-H{name}: {value}" for name, value in BROWSER_HEADERS.items()],
}
NGINX = "/usr/sbin/nginx"
NGINX_CONFIG = """
daemon off;
master_process off;
pid nginx.pid;
error_log stderr crit;
events {{ worker_connections 4096; }}
http {{
    access_log off;
    keepalive_requests 1000000000;
    client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fastcgi; uwsgi_temp_path uwsgi; scgi_temp_path scgi;
    server {{
        listen 127.0.0.1:{port}{tls};
        location / {{ default_type text/plain; return 200 "Hello, World!"; }}
    }}
}}
"""
NGINX_TLS = " ssl; ssl_certificate {}; ssl_certificate_key {}; ssl_protocols TLSv1.2 TLSv1.3"
H2O = "/usr/bin/h2o"
# Its text is a file, which it keeps open: it has no fixed answer without a script.
H2O_CONFIG = """
num-threads: 1
num-name-resolution-threads: 1
{user}
listen: {{host: 127.0.0.1, port: {port}{tls}}}
hosts:
  default:
    paths:
      "/": {{file.dir: "{directory}", file.index: [hello.txt]}}
"""
H2O_TLS = ", ssl: {{certificate-file: {}, key-file: {}, minimum-version: TLSv1.2}}"
WRK = "/usr/bin/wrk"
SERVERS = {"talvo": "talvo_bench_http", "nginx": "nginx", "nginx2": "nginx", "h2o": "h2o"}
PEERS = ("nginx", "h2o")
PARSERS = {
    "pico": "bench_http_parse_pico",
    "talvo": "talvo_bench_http_parse",
    "http_parser": "bench_http_parse_http_parser",
    "beast": "bench_http_parse_beast",
}


def processor_ns(server):
    """Returns the processor time of all threads of the server so far."""
    tasks = pathlib.Path(f"/proc/{server.pid}/task").glob("*/schedstat")
    return sum(int(task.read_text(encoding="ascii").split()[0]) for task in tasks)


def run_wrk(url, load, server):
    """Returns requests a second, the times that half of the answers, or 99 of 100, did not exceed, in microseconds, and the
    server's processor time for a request."""
    before = processor_ns(server)
    seconds = LoadTime.OF_WRK_TLS if url.startswith("https:") else LoadTime.OF_WRK
    text = output([WRK, "--threads", "1", "--duration", f"{seconds}s", "--latency", *load, url], 1)
    if "Socket errors" in text or "Non-2xx" in text:
        raise Fault(f"wrk reported errors: {text}")
    requests = int(re.search(r"(\d+) requests in", text).group(1))
    if requests == 0:
        raise Fault("wrk received no answer")
    units = {"us": 1, "ms": 1e3, "s": 1e6}
    time_of = {percent: float(value) * units[unit] for percent, value, unit in re.findall(r"(\d+)%\s+([\d.]+)([mu]?s)", text)}
    cpu = (processor_ns(server) - before) / requests
    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", text).group(1))
    return {"rate": rate, "cpu": cpu, "p50": time_of["50"], "p99": time_of["99"]}


@contextlib.contextmanager
def running_nginx(port, tls=""):
    require(NGINX)
    with tempfile.TemporaryDirectory(prefix="talvo-bench-") as directory:
        config = pathlib.Path(directory) / "nginx.conf"
        config.write_text(NGINX_CONFIG.format(port=port, tls=tls), encoding="ascii")
        with running([NGINX, "-p", directory, "-c", str(config)], port) as server:
            yield server


@contextlib.contextmanager
def running_h2o(port, tls=""):
    require(H2O)
    user = "user: root" if os.geteuid() == 0 else ""  # otherwise root becomes nobody, which cannot read the folder
    with tempfile.TemporaryDirectory(prefix="talvo-bench-") as directory:
        (pathlib.Path(directory) / "hello.txt").write_text("Hello, World!", encoding="ascii")
        config = pathlib.Path(directory) / "h2o.conf"
        config.write_text(H2O_CONFIG.format(port=port, tls=tls, user=user, directory=directory), encoding="ascii")
        with running([H2O, "-c", str(config)], port) as server:
            yield server


def running_server(program, port, certificate=()):
    """A server of HTTP, or of HTTPS with the files of a chain and its key."""
    if program == "nginx":
        return running_nginx(port, NGINX_TLS.format(*certificate) if certificate else "")
    if program == "h2o":
        return running_h2o(port, H2O_TLS.format(*certificate) if certificate else "")
    return running([program_path(program), port, *certificate])


def measure(program, row):
    port = free_port()
    with running_server(program, port) as server:
        return {row: run_wrk(f"http://127.0.0.1:{port}/", LOADS[row], server)}
