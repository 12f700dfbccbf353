"""The suites of one message to many receivers: a producer on the first core, its receivers in one process on the second."""
import json
import signal
import subprocess

from bench_wan import killed

SIZES = {"64 B": (64, 2000000), "1 KiB": (1024, 400000), "16 KiB": (16384, 40000)}  # bytes, deliveries in all
SUITES = {"forward-64": "64 B", "forward-1k": "1 KiB", "forward-16k": "16 KiB"}
NUMBERS = (1, 10, 100, 1000)
ROUNDS = 7
MOST_SECONDS = 200  # of any one run: 70 MiB to 900 receivers, for the suite forward-memory

LOSSLESS = ["--policy", "wait"]
DROPPING = ["--policy", "drop-oldest"]
PEERS = {"zmq": ["bench_forward_zmq"], "zmq2": ["bench_forward_zmq"], "zmq unlimited": ["bench_forward_zmq", "--type", "unlimited"],
         "nng": ["bench_forward_nng"]}
TALVO = {name: ["talvo_bench_forward", "--type", name, *LOSSLESS] for name in ("raw", "length", "package")}
RATE_PROGRAMS = {"epoll": ["bench_forward_epoll"]} | TALVO | PEERS
BEST_OF = ("zmq", "zmq unlimited", "nng")


def label(number, size):
    return f"{size}, {number:,} receiver" + "s" * (number > 1)


class Load:
    """receivers, of which the first ones may never read; count messages of size bytes, a rate of them a second or 0."""

    def __init__(self, receivers, size, count, rate=0, stopped=0, skip=0):
        self.receivers, self.size, self.count, self.rate = receivers, size, count, rate
        self.stopped, self.skip = stopped, skip


RATES = {label(number, name): Load(number, size, deliveries // number)
         for number in NUMBERS for name, (size, deliveries) in SIZES.items()}
LATENCIES = {"64 B, 100 a second, 1,000 receivers": Load(1000, 64, 150, rate=100)}
MEMORY = {"16 KiB, 1,000 receivers, 100 stopped": Load(1000, 16384, 4500, stopped=100)}
MEMORY_PROGRAMS = {"length": ["talvo_bench_forward", "--type", "length", *DROPPING], "zmq": PEERS["zmq"]}
# The rows of one program, which is compared with itself.
SKIPPED = 4500  # a stopped receiver's sockets take 4 MB before it is refused
STOPPED = {"1 KiB, 90 that read": (Load(90, 1024, 40000), Load(100, 1024, 40000, stopped=10)),
           "1 KiB, 90 that read, 1,000 a second": (Load(90, 1024, 6000, rate=1000, skip=SKIPPED),
                                                    Load(100, 1024, 6000, rate=1000, stopped=10, skip=SKIPPED))}
STOPPED_PROGRAMS = {"all read": 0, "10 stopped": 1}
USERS = {"64 B, a forward in a user's thread": (Load(1, 64, 1500, rate=1000), Load(1000, 64, 1500, rate=1000))}
USERS_PROGRAMS = {"1 receiver": 0, "1,000 receivers": 1}


def suites(make, measure):
    return {
        name: make(RATE_PROGRAMS, measure, [label(number, size) for number in NUMBERS], "epoll", BEST_OF,
                   tuple(TALVO), ROUNDS)
        for name, size in SUITES.items()
    } | {
        "forward-latency": make(RATE_PROGRAMS, measure, list(LATENCIES), "epoll", BEST_OF, tuple(TALVO), ROUNDS),
        "forward-stopped": make(STOPPED_PROGRAMS, measure, list(STOPPED), "all read", own=tuple(STOPPED_PROGRAMS), rounds=ROUNDS),
        "forward-memory": make(MEMORY_PROGRAMS, measure, list(MEMORY), own=("length",), rounds=1),
        "forward-user": make(USERS_PROGRAMS, measure, list(USERS), "1 receiver", own=tuple(USERS_PROGRAMS), rounds=ROUNDS),
    }


def read_json(text):
    return json.loads(text.strip().splitlines()[-1])


def transfer(program_path, pinned, port, program, load):
    """Returns deliveries a second, the producer's processor time of each, and, with a rate, the times to the last receiver."""
    name, *kind = program
    numbers = [port, str(load.receivers), str(load.size), str(load.count)]
    rate = ["--rate", str(load.rate)] if load.rate else []
    producing = pinned([program_path(name), *numbers, *kind, *rate], 0)
    with killed(subprocess.Popen(producing, stdout=subprocess.PIPE, text=True)) as producer:
        if producer.stdout.readline() != "ready\n":
            raise RuntimeError("the producer is not ready")
        receiving = [program_path(name), "recv", *numbers, *kind, *rate, "--stopped", str(load.stopped), "--skip", str(load.skip),
                     "--pid", str(producer.pid)]
        received = read_json(subprocess.run(pinned(receiving, 1), stdout=subprocess.PIPE, text=True, timeout=MOST_SECONDS,
                                            check=True).stdout)
        produced = read_json(producer.communicate(timeout=MOST_SECONDS)[0])
    if producer.returncode not in (0, -signal.SIGTERM):
        raise RuntimeError(f"the producer ended with {producer.returncode}")
    results = {"rate": received["rate"], "cpu": (received["cpu_end_ns"] - produced["cpu_start_ns"]) / received["delivered"],
               "delivered": received["delivered"], "mib": produced["peak_kib"] / 1024, "forward_ns": produced["forward_ns"]}
    return results | {what: received[f"{what}_us"] for what in ("p50", "p99") if f"{what}_us" in received}


def run(program_path, pinned, port, program, row):
    """Returns the numbers of one run."""
    if row in STOPPED:
        return transfer(program_path, pinned, port, MEMORY_PROGRAMS["length"], STOPPED[row][program])
    if row in USERS:
        user = ["talvo_bench_forward", "--type", "length", *DROPPING, "--user"]
        return {"rate": 1e9 / transfer(program_path, pinned, port, user, USERS[row][program])["forward_ns"]}
    return transfer(program_path, pinned, port, program, (RATES | LATENCIES | MEMORY)[row])
