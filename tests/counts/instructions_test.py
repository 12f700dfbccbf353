#!/usr/bin/env python3
"""Counts what a message of 64 bytes, a request, or a connection with a message, costs in instructions under callgrind, and in
system calls of every kind under strace; both ends and the test's own part in it together.

usage: instructions_test.py COUNT_RUN

A run with more messages less one with fewer leaves the cost of the messages. The streams run in one thread, so that the turns of
two decide nothing. The bounds of instructions leave a tenth of room for other versions of the compiler, those of system calls leave
room for the ticks of two loops. A connection needs both ends' turns in any case; its count varies by 3 % from run to run.
"""
import re
import subprocess
import sys
import unittest

PROGRAM = sys.argv.pop(1)
INSTRUCTIONS = {"echo": 1130, "coroutine": 1440, "http": 4990, "browser": 9430, "raw": 2000, "length": 1220, "package": 1230}
CONNECTION = {"connect": 5200}
SYSTEM_CALLS = {"echo": 5.9, "coroutine": 5.9, "http": 5.9}  # two of them are the plain peer's


def instructions(path, messages):
    done = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", PROGRAM, path, str(messages)],
                          text=True, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return int(re.search(r"Collected : (\d+)", done.stderr).group(1))


def system_calls(path, messages):
    done = subprocess.run(["strace", "-f", "-c", "-o", "/dev/stdout", PROGRAM, path, str(messages)], text=True, check=True,
                          stdout=subprocess.PIPE)
    return int(re.search(r"^\S+\s+\S+\s+(?:\S+\s+)?(\d+)\s+(?:\d+\s+)?total$", done.stdout, re.M).group(1))


class InstructionsTest(unittest.TestCase):
    def compare(self, count, bounds, few, many):
        for path, bound in bounds.items():
            cost = (count(path, many) - count(path, few)) / (many - few)
            print(f"{path}: {cost:.2f} {count.__name__.replace('_', ' ')} a message")
            with self.subTest(path):
                self.assertLess(cost, bound)

    def test_instructions(self):
        self.compare(instructions, INSTRUCTIONS, 5000, 25000)
        self.compare(instructions, CONNECTION, 1000, 4000)  # each takes a port of the system for a minute

    def test_system_calls(self):
        self.compare(system_calls, SYSTEM_CALLS, 1000, 5000)


unittest.main()
