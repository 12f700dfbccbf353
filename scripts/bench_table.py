"""Suites: their rounds, and tables of ratios."""
import random
import statistics
import sys

from bench_run import Missing

COLUMNS = ("rate/floor", "rate/best", "cpu/floor", "cpu/best", "p50/floor", "p50/best", "p99/floor", "p99/best", "KiB/conn",
           "time/floor", "of link", "MiB")
ROUNDS = 5


class Suite:
    """One table: its rows, the programs of each, and the function that measures one program's run.

    own are the programs on this library; cannot_run() returns the reason why the suite cannot run on this machine, or None.
    """

    def __init__(self, programs, measure, rows, floor=None, best_of=(), own=("talvo",), rounds=ROUNDS, cannot_run=lambda: None):
        self.programs, self.measure, self.rows, self.floor, self.best_of = programs, measure, rows, floor, best_of
        self.own, self.rounds, self.cannot_run = own, rounds, cannot_run

    def part(self, rows, without=()):
        """Returns the suite with other rows, and without some programs."""
        programs = {name: program for name, program in self.programs.items() if name not in without}
        floor = None if self.floor in without else self.floor
        return Suite(programs, self.measure, rows, floor, self.best_of, self.own, self.rounds, self.cannot_run)

    def peers(self):
        """Returns the programs of others, each twin only once."""
        return [name for name in self.programs if name not in self.own and name[:-1] not in self.programs]


class Results:
    """All numbers of a suite: numbers[row][program][what] has one value for each round in which the program ran."""

    def __init__(self, name, suite, rounds):
        self.name, self.suite, self.rounds = name, suite, rounds
        self.numbers, self.missing, self.faults = {}, set(), 0

    def collect(self):
        for turn in range(self.rounds):
            print(f"bench: {self.name}, round {turn + 1} of {self.rounds}", file=sys.stderr)
            for row in self.suite.rows:
                order = [program for program in self.suite.programs if program not in self.missing]
                random.Random(turn).shuffle(order)
                for program in order:
                    self._measure(turn, row, program)

    def _measure(self, turn, row, program):
        try:
            for work, values in self.suite.measure(self.suite.programs[program], row).items():
                for what, value in values.items():
                    self.numbers.setdefault(work, {}).setdefault(program, {}).setdefault(what, {})[turn] = value
        except Missing as error:
            self.missing.add(program)
            print(f"bench: {self.name} has no figures of {program}: {error}", file=sys.stderr)
        except Exception as error:  # the other programs run in any case
            self.faults += 1
            print(f"bench: {self.name}, {row or 'all rows'}, {program}: {type(error).__name__}: {error}", file=sys.stderr)


def ratios(programs, program, other, what):
    """Returns the ratio of each round that both have. A value below the resolution of its program is 0 and has none."""
    values = programs.get(program, {}).get(what, {})
    others = programs.get(other, {}).get(what, {})
    return [value / others[turn] for turn, value in values.items() if others.get(turn, 0) > 0]


def ratio(programs, program, other, what):
    """Returns the median of the rounds' ratios, so that one slow round does no harm; None without any."""
    found = ratios(programs, program, other, what)
    return statistics.median(found) if found else None


def median(programs, program, what):
    values = programs.get(program, {}).get(what)
    return statistics.median(values.values()) if values else None


def best_peer(names, programs, what):
    """Returns the best of the named programs; None if none has numbers."""
    known = {name: median(programs, name, what) for name in names if median(programs, name, what) is not None}
    choose = max if what == "rate" else min
    return choose(known, key=known.get, default=None)


def spread(values):
    """Returns the largest less the smallest of the rates, or of the times, as a share of the median."""
    numbers = list((values.get("rate") or values.get("p50") or {}).values())
    return (max(numbers) - min(numbers)) / statistics.median(numbers) if numbers else None


def evaluate(results):
    suite, table = results.suite, []
    for work, programs in results.numbers.items():
        for program in suite.programs:
            values = programs.get(program, {})
            row = {"work": work, "program": program, "spread": spread(values),
                   "time/floor": ratio(programs, program, suite.floor, "time"),
                   "KiB/conn": median(programs, program, "kib"), "MiB": median(programs, program, "mib"),
                   "of link": median(programs, program, "link"), "best": best_peer(suite.best_of, programs, "rate"),
                   "median": {what: median(programs, program, what) for what in values},
                   "runs": {what: list(rounds.values()) for what, rounds in values.items()}}
            for what in ("rate", "cpu", "p50", "p99"):
                row[f"{what}/floor"] = ratio(programs, program, suite.floor, what)
                row[f"{what}/best"] = ratio(programs, program, best_peer(suite.best_of, programs, what), what)
            table.append(row)
    return table


def print_table(name, suite, table, rounds):
    columns = [c for c in COLUMNS if any(row[c] is not None for row in table)]
    width = max((len(row["work"]) for row in table), default=0)
    longest = max(8, *(len(name) for name in suite.programs))
    floor = f", floor: {suite.floor}" if suite.floor else ""
    best = f", best: the best of {', '.join(suite.best_of)}" if suite.best_of else ""
    print(f"\n{name}: medians of {rounds} rounds{floor}{best}")
    print(f"{'':{width}}  {'':{longest}}" + "".join(f"{c:>11}" for c in columns) + f"{'spread':>9}")
    shown = None
    for row in table:
        cells = "".join(f"{row[c]:11.2f}" if row[c] is not None else f"{'-':>11}" for c in columns)
        last = f"{row['spread']:9.0%}" if row["spread"] is not None else f"{'-':>9}"
        print(f"{row['work'] if row['work'] != shown else '':{width}}  {row['program']:{longest}}{cells}{last}")
        shown = row["work"]
