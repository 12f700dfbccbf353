#!/usr/bin/env python3
"""Host names on the command line, looked up where a configuration file says.

usage: resolve_test.py TALVO [TEST...]
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

TALVO = os.path.abspath(sys.argv.pop(1))
PATIENCE = 240  # seconds; only how long a failing test takes


class ResolveTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory(prefix="talvo-test-")
        self.addCleanup(self.directory.cleanup)
        self.environment = {"XDG_CONFIG_HOME": os.path.join(self.directory.name, "etc")}
        hosts = self.write("hosts", "10.1.2.3 here.test\n10.1.2.4 here.test\n127.0.0.1 me.test\n")
        # Nobody answers at port 1: what the hosts file does not know does not exist.
        self.write("etc/talvo/talvo.cfg", f"[Dns]\nHostsFile={hosts}\nResolverFile=/dev/null\nServers=127.0.0.1:1\n")

    def write(self, name, text):
        path = os.path.join(self.directory.name, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        return path

    def talvo(self, *arguments):
        return subprocess.run([TALVO, *arguments], cwd=self.directory.name, text=True, capture_output=True, timeout=PATIENCE,
                              env=self.environment)

    def test_addresses_time_and_source_are_shown(self):
        result = self.talvo("resolve", "here.test", "HERE.test", "10.9.9.9")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertEqual(["here.test: 10.1.2.3 10.1.2.4, ttl 3600 s, from lookup",
                          "here.test: 10.1.2.3 10.1.2.4, ttl 3600 s, from cache",
                          "10.9.9.9: 10.9.9.9, ttl 3600 s, from cache"], result.stdout.splitlines())
        record = json.loads(self.talvo("resolve", "--json", "here.test").stdout)
        self.assertEqual({"event": "resolved", "name": "here.test", "addresses": "10.1.2.3 10.1.2.4", "ttl": 3600,
                          "from": "lookup"}, record)

    def test_one_failure_is_told_and_fails_the_whole(self):
        result = self.talvo("resolve", "none.test", "here.test")
        self.assertEqual(1, result.returncode)
        self.assertIn("here.test: 10.1.2.3", result.stdout)
        self.assertEqual(1, len(result.stderr.splitlines()))
        self.assertIn("cannot resolve 'none.test': ", result.stderr)
        for wrong in ([], ["a b"], ["a", "x/y"]):
            result = self.talvo("resolve", *wrong)
            self.assertEqual((2, 1), (result.returncode, len(result.stderr.splitlines())), wrong)

    def test_only_the_named_configuration_is_read(self):
        self.write("conf/talvo.cfg", "[Trace]\nEnable=1\nPath=planted\n")
        self.write("named.cfg", f"[Trace]\nEnable=1\nPath=named\n[Dns]\nHostsFile={self.directory.name}/hosts\n")
        os.rename(os.path.join(self.directory.name, "etc"), os.path.join(self.directory.name, ".config"))
        user = os.path.join(self.directory.name, ".config/talvo/talvo.cfg")
        for environment, arguments, mode, expected in (
                ({"HOME": self.directory.name}, [], 0o644, 0), ({"HOME": self.directory.name}, [], 0o666, 2),
                ({}, ["--config", "named.cfg"], 0o644, 0), ({}, ["--config", "missing"], 0o644, 2)):
            self.environment = environment
            os.chmod(user, mode)
            result = self.talvo("resolve", "here.test", *arguments)
            self.assertEqual(expected, result.returncode, result.stderr)
            self.assertEqual(expected, 2 * ("configuration" in result.stderr))
        self.assertTrue(os.path.exists(os.path.join(self.directory.name, "named")))
        self.assertFalse(os.path.exists(os.path.join(self.directory.name, "planted")))

    def test_a_name_serves_as_an_address(self):
        with subprocess.Popen([TALVO, "echo", "--host", "127.0.0.1", "--port", "0"], text=True, stdout=subprocess.PIPE,
                              cwd=self.directory.name) as server:
            port = server.stdout.readline().strip().rpartition(":")[2]
            result = self.talvo("ping", f"me.test:{port}", "--count", "3", "--interval", "0",
                                "--timeout", str(PATIENCE * 1000))
            server.terminate()
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("3 came back", result.stdout)
        result = self.talvo("ping", "none.test:1")
        self.assertEqual(1, result.returncode)
        self.assertIn("cannot resolve 'none.test'", result.stderr)


unittest.main(verbosity=2)
