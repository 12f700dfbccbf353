#!/usr/bin/env python3
"""Counts what a message of 64 bytes, or a request, costs in instructions, both ends and the test's own part in it together,
under callgrind.

usage: instructions_test.py COUNT_RUN

A run with more messages less one with fewer leaves what the messages cost. The bounds leave a third of room: how many messages
share a wake-up depends on how valgrind lets the threads take turns, and compilers differ.
"""
import re
import subprocess
import sys
import unittest

PROGRAM = sys.argv.pop(1)
BOUNDS = {"echo": 1300, "http": 8100, "raw": 2100, "length": 3200, "package": 4900}


def instructions(path, messages):
    done = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", PROGRAM, path, str(messages)],
                          text=True, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return int(re.search(r"Collected : (\d+)", done.stderr).group(1))


class InstructionsTest(unittest.TestCase):
    def test_paths(self):
        for path, bound in BOUNDS.items():
            few, many = 5000, 25000
            cost = (instructions(path, many) - instructions(path, few)) / (many - few)
            print(f"{path}: {cost:.0f} instructions a message")
            with self.subTest(path):
                self.assertLess(cost, bound)


unittest.main()
