#!/usr/bin/env python3
"""Loads of each kind, and a server that stalls on purpose."""
import json
import socket
import threading
import unittest

from program import HOST, ProgramTest

TYPES = ["tcp", "length", "package", "package-keepalive", "nopartial", "reliable", "reliable-plain", "package --udp", "nopartial --udp"]


class BenchTest(ProgramTest):
    def bench(self, *arguments):
        run = self.run_talvo("bench", *arguments, "--seconds", 1, "--json")
        self.assertEqual((0, ""), (run.returncode, run.stderr), arguments)
        return json.loads(run.stdout)

    def check(self, result, kind):
        times = [result[f"{key}_usec"] for key in ("min", "p50", "p75", "p90", "p99", "p999", "p9999", "max")]
        self.assertEqual((kind, times), (result["kind"], sorted(times)))
        answered, late = result["sent"] - result["missing"], result["late"]
        self.assertIn(sum(count for _, count in result["histogram"]), (answered, answered + late, result["sent"] + late))
        self.assertGreater(result["sent"] - result["missing"], 0)

    def test_each_type_and_both_ways(self):
        for kind in TYPES:
            over = ["--type", *kind.split(), "--size", 100]
            self.check(self.bench("--self", *over, "--connections", 3, "--rate", 300), "echo")
            self.check(self.bench("--self", *over, "--one-way", "--rate", 300), "one way")
        echo = self.serve("echo", "--type", "length")
        self.check(self.bench(echo.address, "--type", "length", "--plot", self.directory / "plot.svg"), "echo")
        self.assertIn("</svg>", (self.directory / "plot.svg").read_text())
        self.check(self.bench(self.serve("echo", "--discard").address, "--one-way"), "one way")

    def test_http(self):
        self.make("www/page", "x" * 1000)
        served = self.serve("serve", self.directory / "www")
        self.check(self.bench(served.url + "/page", "--connections", 4), "http")
        missing = self.bench(served.url + "/none", "--rate", 50)
        self.assertEqual(missing["sent"], missing["other_status"])

    def test_a_stall_delays_all_that_was_due_in_it(self):
        with socket.create_server((HOST, 0)) as server:
            def echo_late():
                with server.accept()[0] as peer:
                    held = b""
                    while len(held) < 64 * 50:  # half a second of the load
                        held += peer.recv(65536)
                    peer.sendall(held)
                    while data := peer.recv(65536):
                        peer.sendall(data)
            thread = threading.Thread(target=echo_late)
            thread.start()
            result = self.bench(f"{HOST}:{server.getsockname()[1]}", "--rate", 100)
            thread.join()
        # The first 50 waited for the last of them: evenly from 0 to 490 ms.
        self.assertGreater(result["max_usec"], 480000)
        self.assertGreaterEqual(sum(count for usec, count in result["histogram"] if usec > 100000), 38)

    def test_a_stall_to_the_end_counts(self):
        with socket.create_server((HOST, 0)) as server:
            def echo_once():
                with server.accept()[0] as peer:
                    peer.sendall(peer.recv(64, socket.MSG_WAITALL))
                    while peer.recv(65536):
                        pass
            thread = threading.Thread(target=echo_once)
            thread.start()
            result = self.bench(f"{HOST}:{server.getsockname()[1]}", "--rate", 100)
            thread.join()
        self.assertEqual(result["sent"] + result["late"], sum(count for _, count in result["histogram"]))
        self.assertGreater(result["p50_usec"], 500000)

    def test_wrong_arguments(self):
        for wrong in ([], ["--self", "h:1"], ["--self", "--rate", "0"], ["h:1", "--rate", "fast"], ["http://h/", "--type", "tcp"],
                      ["h:1", "--udp", "--type", "package", "--size", 7], ["file:///etc/passwd"], ["--self", "--plot", ""],
                      ["http://h/", "--size", 9], ["--self", "--plot", self.directory / "no" / "file"]):
            self.assert_fails(self.run_talvo("bench", *wrong), 2)
        self.assert_fails(self.run_talvo("bench", HOST + ":1", "--connections", 4), 1, "Connection refused")


if __name__ == "__main__":
    unittest.main()
