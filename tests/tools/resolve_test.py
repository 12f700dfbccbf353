#!/usr/bin/env python3
"""Host names on the command line, looked up where a configuration file says."""
import json
import unittest

from program import HOST, PATIENCE, ProgramTest


class ResolveTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.environment = {"XDG_CONFIG_HOME": self.directory / "etc"}
        hosts = self.make("hosts", f"10.1.2.3 here.test\n10.1.2.4 here.test\n{HOST} me.test\n")
        # Nobody answers at port 1: what the hosts file does not know does not exist.
        self.make("etc/talvo/talvo.cfg", f"[Dns]\nHostsFile={hosts}\nResolverFile=/dev/null\nServers=127.0.0.1:1\n")

    def talvo(self, *arguments):
        return self.run_talvo(*arguments, cwd=self.directory, env=self.environment)

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
        self.assert_fails(result, 1, "cannot resolve 'none.test': ")
        self.assertIn("here.test: 10.1.2.3", result.stdout)
        for wrong in ([], ["a b"], ["a", "x/y"]):
            self.assert_fails(self.talvo("resolve", *wrong), 2)

    def test_only_the_named_configuration_is_read(self):
        self.make("conf/talvo.cfg", "[Trace]\nEnable=1\nPath=planted\n")
        self.make("named.cfg", f"[Trace]\nEnable=1\nPath=named\n[Dns]\nHostsFile={self.directory}/hosts\n")
        (self.directory / "etc").rename(self.directory / ".config")
        for environment, arguments, mode, expected in (
                ({"HOME": self.directory}, [], 0o644, 0), ({"HOME": self.directory}, [], 0o666, 2),
                ({}, ["--config", "named.cfg"], 0o644, 0), ({}, ["--config", "missing"], 0o644, 2)):
            self.environment = environment
            (self.directory / ".config/talvo/talvo.cfg").chmod(mode)
            result = self.talvo("resolve", "here.test", *arguments)
            self.assertEqual(expected, result.returncode, result.stderr)
            self.assertEqual(expected, 2 * ("configuration" in result.stderr))
        self.assertTrue((self.directory / "named").exists())
        self.assertFalse((self.directory / "planted").exists())

    def test_a_name_serves_as_an_address(self):
        port = self.serve("echo").port
        result = self.talvo("ping", f"me.test:{port}", "--count", 3, "--interval", 0, "--timeout", PATIENCE * 1000)
        self.assertEqual((0, True), (result.returncode, "3 came back" in result.stdout), result.stderr)
        self.assert_fails(self.talvo("ping", "none.test:1"), 1, "cannot resolve 'none.test'")


if __name__ == "__main__":
    unittest.main()
