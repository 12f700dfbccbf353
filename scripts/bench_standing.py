"""Keeps measured figures in docs/results and writes docs/standing.md with its pictures from them."""
import datetime
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import textwrap

from bench_run import ROOT
from bench_table import best_peer, median, ratios, spread
from drawing import COLOURS, Picture, Scale, short

RESULTS = ROOT / "docs" / "results"
PAGE = ROOT / "docs" / "standing.md"
KINDS = {"short": "The short rows", "all": "Whole suites"}
# What a panel compares, and its title; larger is better in each.
PANELS = {"rate": "rate", "cpu": "messages per CPU second", "p50": "1 / p50", "p99": "1 / p99"}
PEER_PACKAGES = ("libuv1", "libev4", "libevent-core-2.1-7", "libzmq5", "libnng1", "libasio-dev", "libboost-dev", "libhttp-parser2.9",
                 "nginx-light", "h2o", "libh2o0.13", "openssl")
LEFT, WIDTH, GAP, STEP, TOP = 280, 175, 22, 24, 100
LOW, HIGH = 0.1, 10

INTRODUCTION = """# Standing

<!-- Written by scripts/bench --keep from docs/results; change scripts/bench_standing.py instead. -->

The library against every peer on the same work. Each figure is a ratio of this library to one peer, and larger is better
everywhere: 2.00 is twice the rate, half of the processor time of a message, or half of the time of a round trip. Ratios are
taken within a round; a figure is the median over the rounds. [measuring.md](measuring.md) describes the rows and the method,
[performance.md](performance.md) the parts of the cost.

In a picture each mark is a peer, the line behind it spans all rounds, and the vertical line is 1. Right of that line this
library is ahead. The grey band is the noise: the ratio of a peer that runs twice to itself. A filled mark is a peer that counts
for "best", a hollow one a floor: a program without a library, or a library that does less. A ratio beyond 0.1 or 10 is drawn at
the edge.

In a table the columns of names are the ratios of the rate. "CPU", "p50", "p99" and "memory" compare with the best peer of the
column, which stands in brackets. "noise" is the ratio of the peer that runs twice to itself, and the spread of this library's
rounds, in per cent of their median. A dash: not measured, or the peer is not installed.
"""


def output_of(*command):
    done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False, text=True)
    return done.stdout.strip()


def first_match(pattern, path):
    try:
        found = re.search(pattern, pathlib.Path(path).read_text(encoding="ascii", errors="replace"), re.M)
    except OSError:
        return None
    return found.group(1) if found else None


def compiler():
    path = first_match(r"^CMAKE_CXX_COMPILER:\w+=(.*)", ROOT / "build" / "bench" / "CMakeCache.txt") or "c++"
    return output_of(path, "--version").splitlines()[0]


def peer_versions():
    lines = output_of("dpkg-query", "--show", "--showformat=${Package} ${Version}\n", *PEER_PACKAGES).splitlines()
    return ", ".join(line for line in lines if len(line.split()) == 2)


def origin():
    """Returns when, of which commit and on which machine the figures of this process are. Pages are no change: earlier figures."""
    virtual = " hypervisor" in (first_match(r"^flags\s*:(.*)", "/proc/cpuinfo") or "")
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "commit": output_of("git", "rev-parse", "--short", "HEAD")
                  + (" with changes" if output_of("git", "status", "--porcelain", "--untracked-files=no", "--", ":!docs") else ""),
        "processor": first_match(r"^model name\s*: (.*)", "/proc/cpuinfo") or platform.machine(),
        "cores": len(os.sched_getaffinity(0)),
        "machine": "virtual" if virtual else "bare metal",
        "governor": first_match(r"(\w+)", "/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor") or "none",
        "kernel": f"{platform.system()} {platform.release()}",
        "compiler": compiler(),
        "versions": peer_versions(),
    }


def significant(value):
    return None if value is None else float(f"{value:.4g}")


def kept(results):
    """Returns what is kept of a suite."""
    suite = results.suite
    rows = {work: {program: {what: [significant(values.get(turn)) for turn in range(results.rounds)]
                             for what, values in numbers.items() if what in PANELS or what == "kib"}
                   for program, numbers in programs.items()} for work, programs in results.numbers.items()}
    return origin() | {"rounds": results.rounds, "own": [name for name in suite.programs if name in suite.own],
                       "peers": suite.peers(), "best_of": list(suite.best_of or [suite.floor]), "rows": rows}


def keep(kind, measured):
    """Puts the results in the place of earlier ones of their suites, and writes the page."""
    RESULTS.mkdir(exist_ok=True)
    path = RESULTS / f"{kind}.json"
    suites = json.loads(path.read_text(encoding="utf-8")) if path.is_file() else {}
    suites |= {results.name: kept(results) for results in measured if results.suite.peers()}
    text = json.dumps(suites, indent=1)
    text = re.sub(r"\[\s+([^\[\]{}]*?)\s+\]", lambda match: "[" + re.sub(r"\s+", " ", match.group(1)) + "]", text)
    path.write_text(text + "\n", encoding="utf-8")
    write_page()


class Line:
    """One row of a suite and one program of this library in it."""

    def __init__(self, suite, work, own):
        self.suite, self.own = suite, own
        self.programs = {name: {what: {turn: value for turn, value in enumerate(values) if value is not None}
                                for what, values in numbers.items()} for name, numbers in suite["rows"][work].items()}
        self.label = work if len(suite["own"]) == 1 else f"{work}, {own}"

    def has(self, what):
        return median(self.programs, self.own, what) is not None

    def ratios(self, peer, what):
        """Returns the ratios of the rounds, of which larger ones are better."""
        pair = (self.own, peer) if what == "rate" else (peer, self.own)
        return ratios(self.programs, *pair, what)

    def against(self, peer, what):
        found = self.ratios(peer, what)
        return f"{statistics.median(found):.2f}" if found else "-"

    def against_best(self, what):
        best = best_peer(self.suite["best_of"], self.programs, what)
        return f"{self.against(best, what)} ({best})" if best and self.has(what) else "-"

    def noise(self, what="rate"):
        """Returns the ratio of a peer that runs twice to itself, at least 1; None without one."""
        found = [statistics.median(pair) for peer in self.suite["peers"]
                 if (pair := ratios(self.programs, peer, f"{peer}2", what))]
        return max((max(value, 1 / value) for value in found if value > 0), default=None)

    def noise_text(self):
        twin, range_ = self.noise(), spread(self.programs.get(self.own, {}))
        return ", ".join(["-" if twin is None else f"{twin:.2f}", "-" if range_ is None else f"{range_ * 100:.0f} %"])


def lines_of(suite):
    found = [Line(suite, work, own) for work in suite["rows"] for own in suite["own"]]
    return [line for line in found if line.has("rate")]


def table(suite):
    lines = lines_of(suite)
    further = {what: title for what, title in (("cpu", "CPU"), ("p50", "p50"), ("p99", "p99"), ("kib", "memory"))
               if any(line.has(what) for line in lines)}
    head = ["row", *suite["peers"], *further.values(), "noise"]
    rows = [[line.label, *(line.against(peer, "rate") for peer in suite["peers"]),
             *(line.against_best(what) for what in further), line.noise_text()] for line in lines]
    return "\n".join("| " + " | ".join(row) + " |" for row in [head, ["---"] * len(head), *rows])


def origin_text(suite):
    return (f"Measured on {suite['date']}, commit {suite['commit']}, medians of {suite['rounds']} rounds, on {suite['cores']} cores of "
            f"{suite['processor']} ({suite['machine']}, governor: {suite['governor']}), {suite['kernel']}, {suite['compiler']}. "
            f"Peers: {suite['versions'] or 'versions unknown'}.")


def section(kind, title, suites):
    command = f"`scripts/bench {kind} --keep`" + (", of all suites or of one," if kind == "all" else "")
    text = [f"## {title}\n\n{command} measured these rows; the numbers are in [{kind}.json](results/{kind}.json).\n",
            f"![The rate, processor time and round-trip times of this library against each peer, row by row]({picture_name(kind)})\n"]
    last = None
    for name, suite in suites.items():
        text.append(f"### {name}{', short' if kind == 'short' else ''}\n")
        if (words := origin_text(suite)) != last:
            text.append(textwrap.fill(words, 128, break_on_hyphens=False) + "\n")
            last = words
        text.append(table(suite) + "\n")
    return "\n".join(text)


def picture_name(kind):
    return "plots/standing.svg" if kind == "short" else f"plots/standing-{kind}.svg"


class Panel:
    """One column of a picture."""

    def __init__(self, picture, number, bottom):
        self.picture, start = picture, LEFT + number * (WIDTH + GAP)
        self.across = Scale(LOW, HIGH, start, start + WIDTH, True)
        what = list(PANELS)[number]
        picture.text(start + WIDTH / 2, TOP - 30, PANELS[what], "middle", 13)
        for value in self.across.ticks():
            picture.line(self.across(value), TOP - 8, self.across(value), bottom, "axis" if value == 1 else "grid")
            picture.text(self.across(value), TOP - 13, short(value), "middle", 9, "pale")

    def draw(self, line, what, y, peers):
        """The noise and the mark of each peer, those of a row a little apart."""
        if (twin := line.noise(what)) is not None:
            left, right = self.across(1 / twin), self.across(twin)
            self.picture.rectangle(left, y - 9, max(right - left, 1), 18, "noise")
        shown = [peer for peer in line.suite["peers"] if line.ratios(peer, what)]
        for place, peer in enumerate(shown):
            found, index = line.ratios(peer, what), peers.index(peer)
            at = y + (place - (len(shown) - 1) / 2) * 3
            self.picture.stroke([(self.across(min(found)), at), (self.across(max(found)), at)], COLOURS[index % len(COLOURS)])
            self.picture.mark(self.across(statistics.median(found)), at, index, hollow=peer not in line.suite["best_of"],
                              title=f"{line.label}: {statistics.median(found):.2f} of {peer} "
                                    f"({min(found):.2f} to {max(found):.2f})")


def draw(kind, suites):
    """One row for each line, with a panel for each kind of figure; the memory of a connection has a row of its own."""
    peers = list(dict.fromkeys(peer for suite in suites.values() for peer in suite["peers"]))
    rows = []
    for name, suite in suites.items():
        lines = lines_of(suite)
        rows += [(name, None)] + [(line.label, (line, {what: what for what in PANELS})) for line in lines]
        rows += [(f"{line.label}, memory", (line, {"rate": "kib"})) for line in lines if line.has("kib")]
    height = TOP + STEP * len(rows) + 20
    picture = Picture(LEFT + len(PANELS) * (WIDTH + GAP), height)
    for index, peer in enumerate(peers):
        x = 20 + index % 8 * 125
        y = 20 + index // 8 * 18
        picture.mark(x, y, index)
        picture.text(x + 9, y + 4, peer)
    panels = {what: Panel(picture, number, height - 14) for number, what in enumerate(PANELS)}
    for number, (label, content) in enumerate(rows):
        y = TOP + STEP * number + STEP / 2
        if content is None:
            picture.text(10, y + 4, label, "start", 13)
            picture.line(10, y + STEP / 2 - 2, picture.width - 10, y + STEP / 2 - 2)
            continue
        line, whats = content
        picture.text(LEFT - 12, y + 4, label, "end", 11)
        for panel, what in whats.items():
            if line.has(what):
                panels[panel].draw(line, what, y, peers)
    picture.save(ROOT / "docs" / picture_name(kind))


def write_page():
    """From the kept figures alone."""
    text = INTRODUCTION
    for kind, title in KINDS.items():
        path = RESULTS / f"{kind}.json"
        if path.is_file():  # else nothing of this kind is kept
            suites = json.loads(path.read_text(encoding="utf-8"))
            draw(kind, suites)
            text += "\n" + section(kind, title, suites)
    PAGE.write_text(text, encoding="utf-8")
