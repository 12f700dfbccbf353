"""The suites of scripts/bench and their loads. docs/measuring.md describes them."""
import os
import pathlib
import subprocess
import tempfile

import bench_forward
import bench_http
import bench_tls
import bench_wan
from bench_run import Fault, free_port, measure_server, pinned, program_path, require, run, run_load
from bench_table import Suite

# libuv runs twice: the difference of its two rows is noise.
PEERS = {"uv": "uv", "uv2": "uv", "asio": "asio"}
MORE_PEERS = PEERS | {"ev": "ev", "event": "event"}

ECHO_LOADS = {
    "64 B, 1 connection": ["--connections", "1"],
    "64 B, 50 connections": ["--connections", "50"],
    "64 B, 1000 connections": ["--connections", "1000"],
    "64 B, 50 x 16 in flight": ["--connections", "50", "--in-flight", "16"],
    "16 KiB, 10 streams": ["--connections", "10", "--size", "16384", "--in-flight", "4"],
    "16 KiB, 10 x 8 in flight": ["--connections", "10", "--size", "16384", "--in-flight", "8"],
    "connect, echo, close": ["--connections", "10", "--reconnect"],
    "10,000 connections, 100 busy": ["--connections", "10000", "--busy", "100"],
}
CONNECTION_LOADS = {f"64 B, {n:,} connection" + "s" * (n > 1): ["--connections", str(n)] for n in (1, 10, 100, 1000, 10000)}
SIZE_LOADS = {f"{size}, 10 connections": ["--connections", "10", "--size", str(number)]
              for size, number in (("1 B", 1), ("64 B", 64), ("4 KiB", 4096), ("64 KiB", 65536), ("1 MiB", 1048576))}
GROWTH = {f"{n:,} connections": str(n) for n in (10, 1000, 10000)}
ENOUGH_CONNECTIONS = 1000  # for a meaningful memory growth per connection
UDP_LOADS = {
    "64 B, 1 peer": ["--peers", "1"],
    "64 B, 1 peer x 16 in flight": ["--peers", "1", "--in-flight", "16"],
    "64 B, 100 peers": ["--peers", "100"],
    "1,200 B, 1 peer": ["--peers", "1", "--size", "1200"],
    "1,200 B, 1 peer x 16 in flight": ["--peers", "1", "--size", "1200", "--in-flight", "16"],
    "1,200 B, 100 peers": ["--peers", "100", "--size", "1200"],
}
MESSAGE_PEERS = {"zmq": ["zmq"], "zmq2": ["zmq"], "nng": ["nng"], "asio": ["asio"]}
MESSAGE_PROGRAMS = {
    "epoll": ["epoll"],
    "box": ["asio", "--type", "box"],
    "length": ["talvo", "--type", "length"],
    "package": ["talvo", "--type", "package"],
} | MESSAGE_PEERS
MESSAGE_LOADS = {
    "64 B, one way": ("send", "recv", "64"),
    "1 KiB, one way": ("send", "recv", "1024"),
    "16 KiB, one way": ("send", "recv", "16384"),
    "64 B, there and back": ("pong", "ping", "64"),
}
UNIX_LOADS = {f"{row}, Unix": load for row, load in MESSAGE_LOADS.items()}
DNSMASQ = "/usr/sbin/dnsmasq"


def echo_numbers(result, connections):
    numbers = {"rate": result["rate"], "cpu": result["cpu_ns"]}
    numbers |= {name.removesuffix("_us"): value for name, value in result.items() if name.endswith("_us")}
    return numbers | ({"kib": result["kib_per_connection"]} if connections >= ENOUGH_CONNECTIONS else {})


def measure_echo(program, row):
    port, load = free_port(), (ECHO_LOADS | CONNECTION_LOADS | SIZE_LOADS)[row]
    result = measure_server([program, port], ["bench_load"] + load, port)
    return {row: echo_numbers(result, int(load[1]))}


def measure_growth(program, row):
    port, number = free_port(), GROWTH[row]
    result = measure_server(["bench_growth_talvo", "server", port, "--type", program],
                            ["bench_growth_talvo", "load", "--type", program, "--connections", number], port)
    return {row: echo_numbers(result, int(number))}


def measure_users(threads, _):
    result, = run([program_path("bench_users_talvo"), threads])
    return {"64 B, one way": {"rate": result["rate"], "cpu": result["cpu_ns"]}}


def measure_udp(program, row):
    port = free_port()
    result = measure_server([program, port], ["bench_udp_load"] + UDP_LOADS[row], port)
    return {row: {"rate": result["rate"], "cpu": result["cpu_ns"]}}


def measure_messages(program, row):
    listening, connecting, size = (MESSAGE_LOADS | UNIX_LOADS)[row]
    name, kind = f"bench_messages_{program[0]}", program[1:]
    with tempfile.TemporaryDirectory(prefix="talvo-bench-") as directory:
        port = os.path.join(directory, "socket") if row in UNIX_LOADS else free_port()
        result = measure_server([name, listening, port, size] + kind, [name, connecting, "--size", size] + kind, port)
    numbers = {"rate": result["rate"], "cpu": result["cpu_ns"]}
    if "p50_us" in result:
        numbers |= {"p50": result["p50_us"], "p99": result["p99_us"]}
    return {row: numbers}


def measure_names(mode, _):
    """Uses a fresh DNS server and a fresh process, so that all caches are empty."""
    require(DNSMASQ)
    with tempfile.TemporaryDirectory(prefix="talvo-bench-") as directory:
        names, config = os.path.join(directory, "names"), os.path.join(directory, "talvo.cfg")
        pathlib.Path(names).write_text("".join(f"127.0.0.1 n{i}.test\n" for i in range(5000)), encoding="ascii")
        server_port = free_port()
        pathlib.Path(config).write_text(f"[Dns]\nServers=127.0.0.1:{server_port}\n", encoding="ascii")
        command = [DNSMASQ, "--no-daemon", "--conf-file=/dev/null", "--pid-file=", "--no-hosts", "--no-resolv",
                   "--bind-interfaces", "--listen-address=127.0.0.1", "--local=/#/", "--log-facility=-", "--local-ttl=60",
                   "--port=" + server_port, "--addn-hosts=" + names]
        with subprocess.Popen(command, stderr=subprocess.PIPE) as server:
            try:
                while b"read " not in (line := server.stderr.readline()):
                    if not line:
                        raise Fault("dnsmasq does not start")
                result, = run([program_path("bench_names_talvo"), mode, config])
            finally:
                server.kill()
    return {f"echo, 64 B, {row}": {what: result[f"{row}_{what}_us"] for what in ("p50", "p99")} for row in ("burst", "second")}


def measure_https(program, row):
    port = free_port()
    with bench_http.running_server(program, port, bench_tls.certificate(row)) as server:
        return {row: bench_http.run_wrk(f"https://127.0.0.1:{port}/", bench_http.LOADS[row], server)}


def measure_tls(program, row):
    port, load = free_port(), (bench_tls.HANDSHAKES | bench_tls.ECHO)[row]
    with bench_http.running_server(program, port, bench_tls.certificate(row)) as server:
        result = run_load(["bench_load"] + load, port, server)
    return {row: echo_numbers(result, int(load[1]))}


def measure_rates(program, _):
    rates, = run([program_path(program)])
    return {name: {"rate": value} for name, value in rates.items()}


def measure_costs(program, argument):
    """For programs that print nanoseconds, with p99 if they time each operation."""
    return {line["name"]: {"rate": 1 / line["ns"]} | ({"p99": line["p99_ns"]} if "p99_ns" in line else {})
            for line in run([program_path(program)] + ([argument] if argument else []))}


def measure_trace(program, _):
    """The program measures both in one run; the key selects one."""
    name, key = program
    costs, = run([program_path(name)])
    return {"a line whose level is off": {"rate": 1 / costs[key]}}


def measure_wan(program, row):
    require(program_path("bench_wan_link"))
    try:
        return {row: bench_wan.transfer(program_path, program, row)}
    except (RuntimeError, subprocess.SubprocessError) as error:
        raise Fault(error) from error


def measure_forward(program, row):
    try:
        return {row: bench_forward.run(program_path, pinned, free_port(), program, row)}
    except (RuntimeError, subprocess.SubprocessError) as error:
        raise Fault(error) from error


def programs_of(talvo, suite, peers):
    return {"talvo": talvo} | {name: f"bench_{suite}_{peer}" for name, peer in peers.items()}


ECHO = {"epoll": "bench_echo_epoll"} | programs_of("talvo_bench_echo", "echo", MORE_PEERS)
ECHO_PEERS = ("uv", "ev", "event", "asio")
COROUTINES = {"sinks": "talvo_bench_echo"}
COROUTINES |= programs_of("bench_coroutines_talvo", "coroutines", {"callbacks": "callbacks", "asio": "asio", "asio2": "asio"})
COROUTINE_LOADS = ["64 B, 1 connection", "64 B, 50 connections", "64 B, 1000 connections", "64 B, 50 x 16 in flight"]
USERS = {f"{n} thread" + "s" * (n > 1): str(n) for n in (1, 2, 4, 8)}
GROWTH_TYPES = {kind: kind for kind in ("raw", "length", "package", "keepalive")}
THREAD_PEERS = PEERS | {"ev": "ev"}
THREADS = {n: f"bench_threads_{n}" for n in ("eventfd", "condvar")} | programs_of("talvo_bench_threads", "threads", THREAD_PEERS)
TIMERS = programs_of("talvo_bench_timers", "timers", {"calendar": "calendar"} | MORE_PEERS)
TRACE = {"floor": ("bench_trace", "floor_ns"), "talvo": ("bench_trace", "disabled_ns")}
TLS_SERVERS = {name: f"bench_tls_{program}" for name, program in
               {"epoll": "epoll", "talvo": "talvo", "asio": "asio", "asio2": "asio"}.items()}
TLS_PEERS = {"nginx": "nginx", "nginx2": "nginx"}
MESSAGES = ("epoll", ("zmq", "nng", "asio"), ("length", "package"))
SUITES = {
    "echo": Suite(ECHO, measure_echo, list(ECHO_LOADS), "epoll", ECHO_PEERS),
    "connections": Suite(ECHO, measure_echo, list(CONNECTION_LOADS), "epoll", ECHO_PEERS),
    "sizes": Suite(ECHO, measure_echo, list(SIZE_LOADS), "epoll", ECHO_PEERS),
    "coroutines": Suite(COROUTINES, measure_echo, COROUTINE_LOADS, "sinks", ("asio",), ("sinks", "talvo", "callbacks"), 15),
    "growth": Suite(GROWTH_TYPES, measure_growth, list(GROWTH), "raw", own=tuple(GROWTH_TYPES)),
    "users": Suite(USERS, measure_users, [None], "1 thread", own=tuple(USERS)),
    "udp": Suite(programs_of("bench_udp_talvo", "udp", PEERS), measure_udp, list(UDP_LOADS), "uv", ("uv", "asio")),
    "messages": Suite(MESSAGE_PROGRAMS, measure_messages, list(MESSAGE_LOADS), *MESSAGES),
    "messages-unix": Suite(MESSAGE_PROGRAMS, measure_messages, list(UNIX_LOADS), *MESSAGES),
    "names": Suite({mode: mode for mode in ("quiet", "address", "name")}, measure_names, [None], "quiet",
                   own=("quiet", "address", "name")),
    "http-server": Suite({"epoll": "bench_http_epoll"} | bench_http.SERVERS, bench_http.measure, list(bench_http.LOADS), "epoll",
                         bench_http.PEERS),
    "http-parse": Suite(bench_http.PARSERS, measure_costs, [None], "pico", ("http_parser", "beast")),
    "proxies": Suite(programs_of("bench_proxies_talvo", "proxies", PEERS), measure_rates, [None], None, ("uv", "asio")),
    "timers": Suite(TIMERS, measure_costs, [None], "ev", ("uv", "event", "asio"), ("talvo", "calendar")),
    "threads": Suite(THREADS, measure_costs, [None], "eventfd", ("uv", "asio", "ev")),
    "trace": Suite(TRACE, measure_trace, [None], "floor", own=tuple(TRACE)),
    "tls-handshakes": Suite(TLS_SERVERS | TLS_PEERS, measure_tls, list(bench_tls.HANDSHAKES), "epoll", ("asio", "nginx"),
                            rounds=9),
    "tls-echo": Suite(TLS_SERVERS, measure_tls, list(bench_tls.ECHO), "epoll", ("asio",)),
    "tls-https": Suite(bench_http.SERVERS, measure_https, list(bench_http.LOADS)[:3], "nginx", bench_http.PEERS),
    "wan": Suite(bench_wan.PROGRAMS, measure_wan, list(bench_wan.LOADS), "plain", own=bench_wan.OWN,
                 cannot_run=bench_wan.cannot_run),
} | bench_forward.suites(Suite, measure_forward)

# Of scripts/bench short: the rows of each suite, and the programs that are left out.
SHORT = {
    "echo": (["16 KiB, 10 x 8 in flight", "64 B, 1 connection", "64 B, 50 connections", "64 B, 1000 connections",
              "connect, echo, close"], ("epoll",)),
    "wan": (bench_wan.SHORT, ("length", "package", "nopartial", "http", "send, recv", "serve, get")),
    "messages": (list(MESSAGE_LOADS), ("box",)),
    "http-server": (list(bench_http.LOADS), ()),
    "http-parse": ([None], ()),
    "timers": (["100000"], ()),
    "threads": ([None], ("eventfd", "condvar")),
    "udp": (["64 B, 1 peer x 16 in flight", "64 B, 100 peers"], ()),
}


def short_suites():
    return {name: SUITES[name].part(*part) for name, part in SHORT.items()}
