#!/usr/bin/env python3
"""Breaks connections with the program's own forwarder."""
import json
import os
import signal
import socket
import unittest

from program import HOST, PATIENCE, ProgramTest, Server


class FlakyTest(ProgramTest):
    def flaky(self, target, *arguments):
        return Server(self.start("flaky", HOST + ":0", target, "--json", *arguments))

    def faults(self, flaky):
        events = [json.loads(line) for line in flaky.end()[1].splitlines()]
        return [(o["connection"], o["fault"], o["bytes"]) for o in events if o["event"] == "fault"], events[-1]

    def connect(self, listener, flaky):
        client = self.enterContext(socket.create_connection((HOST, flaky.port), PATIENCE))
        server = self.enterContext(listener.accept()[0])
        server.settimeout(PATIENCE)
        return client, server

    def test_reliable_connections_go_on_and_a_seed_repeats_its_faults(self):
        for kind in "reliable", "reliable-plain":
            echo, seen = self.serve("echo", "--type", kind), set()
            for _ in range(2):
                flaky = self.flaky(echo.address, "--bytes", 2000, "--faults", "close,reset", "--count", 2, "--seed", 5)
                ping = self.run_talvo("ping", "--type", kind, flaky.address, "--count", 500, "--interval", 0, "--json")
                self.assertEqual((0, ""), (ping.returncode, ping.stderr))
                events = [json.loads(line) for line in ping.stdout.splitlines()]
                self.assertEqual(["suspended", "resumed"] * 2 + ["statistics"], [o["event"] for o in events])
                self.assertEqual((500, 2), (events[-1]["received"], events[-1]["gaps"]))
                faults, statistics = self.faults(flaky)
                seen.add(str(faults))
                self.assertEqual((2, 3, 2), (len(faults), statistics["connections"], statistics["faults"]))
            self.assertEqual(1, len(seen))

    def test_a_restarted_server_is_named_as_the_cause(self):
        echo = self.serve("echo", "--type", "reliable")
        ping = self.start("ping", "--type", "reliable", echo.address, "--interval", 1, "--count", 1000000)
        ping.stdout.readline()
        echo.end(signal.SIGKILL)
        self.start("echo", "--type", "reliable", "--host", HOST, "--port", echo.port)
        self.assertIn("the peer does not have the connection", ping.communicate(timeout=PATIENCE)[1])

    def test_each_fault_is_made_at_its_byte(self):
        listener = self.enterContext(socket.create_server((HOST, 0)))
        target = "%s:%d" % listener.getsockname()
        data = os.urandom(100000)
        flaky = self.flaky(target, "--every", 3600000, "--delay", 1)
        client, server = self.connect(listener, flaky)
        client.sendall(data)
        client.shutdown(socket.SHUT_WR)
        self.assertEqual(data, server.makefile("rb").read())
        server.sendall(data)
        server.close()
        self.assertEqual(data, client.makefile("rb").read())
        for fault in "close", "reset", "stall", "halve":
            flaky = self.flaky(target, "--bytes", 1000, "--faults", fault, "--count", 1, "--stall", 1)
            client, server = self.connect(listener, flaky)
            client.sendall(data[:2000])
            got = server.recv(2000, socket.MSG_PEEK)
            if fault == "reset":
                with self.assertRaises(ConnectionError):
                    client.recv(1)
            elif fault == "close":
                self.assertEqual((b"", data[:len(got)]), (client.recv(1), server.makefile("rb").read()))
            elif fault == "stall":
                self.assertEqual(data[:2000], server.makefile("rb").read(2000))
            else:  # the way back is lost
                server.sendall(b"lost")
                client.sendall(b"on")
                self.assertEqual(data[:2000] + b"on", server.makefile("rb").read(2002))
            made, statistics = self.faults(flaky)
            self.assertEqual([(1, fault)], [o[:2] for o in made])
            self.assertLessEqual(made[0][2], 2000)
            self.assertEqual(made[0][2] + {"stall": 2000 - made[0][2], "halve": 2002 - made[0][2]}.get(fault, 0), statistics["bytes"])


if __name__ == "__main__":
    unittest.main()
