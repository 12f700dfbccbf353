#!/usr/bin/env python3
"""The program over each kind of address."""
import json
import os
import pathlib
import unittest
import urllib.request

from program import HOST, PATIENCE, ProgramTest

IPV6 = ["::1"] if pathlib.Path("/proc/net/if_inet6").exists() else []


class AddressTest(ProgramTest):
    def listen(self, *arguments):
        """Returns the endpoint as the program shows it, and as a client names it."""
        ready = json.loads(self.start(*arguments, "--json").stdout.readline())
        address = f"[{ready['address']}]" if ready["address"] in IPV6 + ["::"] else ready["address"]
        return (f"{address}:{ready['port']}",) * 2 if "port" in ready else (address, "unix:" + address)

    def test_each_kind_carries_messages_files_and_pages(self):
        out = self.directory / "out"
        out.mkdir()
        file = self.make("file", os.urandom(100000))
        places = [lambda _, host=host: ["--host", host, "--port", 0] for host in [HOST] + IPV6]
        places += [lambda name: ["--host", f"unix:{self.directory}/{name}.sock"],
                   lambda name: ["--host", f"unix:@talvo-test-{os.getpid()}-{name}"]]
        for place in places:
            shown, endpoint = self.listen("echo", *place("echo"))
            ping = self.run_talvo("ping", endpoint, "--count", 2, "--interval", 1, "--timeout", PATIENCE * 1000)
            self.assertIn(f"bytes from {shown}: number 2", ping.stdout, ping.stderr)
            _, endpoint = self.listen("recv", "--out", out, "--force", "--type", "package", *place("recv"))
            self.assertEqual("", self.run_talvo("send", file, endpoint, "--type", "package").stderr)
            shown, endpoint = self.listen("serve", self.directory, *place("serve"))
            to = ["http://any.test/file", "--connect-to", endpoint] if "unix" in endpoint else [f"http://{shown}/file"]
            self.assertEqual("", self.run_talvo("get", *to, "--out", self.directory / "copy").stderr)
            self.assertEqual([file.read_bytes()] * 2, [(out / "file").read_bytes(), (self.directory / "copy").read_bytes()])

    def test_a_server_without_host_takes_both_families(self):
        self.make("file", "content")
        port = self.listen("serve", self.directory, "--port", 0)[0].rpartition(":")[2]
        for host in ["127.0.0.1"] + [f"[{host}]" for host in IPV6]:
            with urllib.request.urlopen(f"http://{host}:{port}/file", timeout=PATIENCE) as answer:
                self.assertEqual(b"content", answer.read())
        self.assertEqual("127.0.0.1", self.listen("echo", "--host", "LocalHost", "--port", 0)[0].rpartition(":")[0])
        self.assert_fails(self.run_talvo("echo", "--host", "other.test", "--port", 0), 2, "a name other than localhost")

    def test_a_race_has_one_winner(self):
        _, echo = self.listen("echo", "--host", HOST, "--port", 0)
        _, slow = self.listen("echo", "--host", f"unix:{self.directory}/slow.sock")
        refused = HOST + ":1"
        run = self.run_talvo("ping", "--race", refused, f"unix:{self.directory}/none", echo, slow, "--count", 1, "--json")
        lines = [json.loads(line) for line in run.stdout.splitlines()]
        self.assertEqual([("connected", echo), ("answer", None)], [(line["event"], line.get("peer")) for line in lines[:2]], run.stderr)
        self.assert_fails(self.run_talvo("ping", "--race", refused, HOST + ":2"), 1, f"{refused}: Connection refused")
        self.assert_fails(self.run_talvo("ping", echo, slow), 2, "--race")
        self.assert_fails(self.run_talvo("ping", "--race", *[echo] * 17), 2, "16")

    def test_a_wrong_address_is_named(self):
        self.assert_fails(self.run_talvo("ping", "::1:80"), 2, "brackets")
        self.assert_fails(self.run_talvo("get", "http://[fe80::1%25none]/"), 2, "no interface")
        self.assert_fails(self.run_talvo("ping", f"unix:{self.directory}/none"), 1, "/none: No such file")


if __name__ == "__main__":
    unittest.main()
