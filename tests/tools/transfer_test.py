#!/usr/bin/env python3
"""Sends files and messages as people do, and as those do who mean harm."""
import contextlib
import json
import os
import pathlib
import re
import resource
import signal
import socket
import struct
import subprocess
import unittest

from program import ANY_PORT, HOST, PATIENCE, SANITIZED, TALVO, ProgramTest, Server, poll

INTERRUPTED = 128 + signal.SIGINT


class TransferTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.out = self.directory / "out"
        self.out.mkdir()

    def receive(self, *arguments):
        return self.serve("recv", "--out", self.out, *arguments)

    def received(self):
        return {path.name: path.read_bytes() for path in self.out.iterdir()}

    def ping(self, *arguments):
        return self.run_talvo("ping", *arguments, "--interval", 0, "--timeout", PATIENCE * 1000)

    def send_endless(self, server):
        """A file so large that nobody gets to its end, and yet not on the disk. It has begun to arrive."""
        with open(self.directory / "endless", "wb") as file:
            file.truncate(1 << 40)
        sender = self.start("send", file.name, server.address)
        poll("data arrives", lambda: any(path.stat().st_size > 0 for path in self.out.iterdir()))
        return sender

    def events(self, output):
        """Without those that a slow machine adds."""
        return [o for o in map(json.loads, output.splitlines()) if o["event"] != "progress"]

    def test_files_of_all_sizes_arrive_over_each_type_of_connection(self):
        contents = {"empty": b"", "one": b"1", "with spaces \u00e9": b"text\n" * 1000, "large": os.urandom(10_000_000)}
        paths = [self.make(name, content) for name, content in contents.items()]
        for kind in [], ["--type", "length"], ["--type", "package"], ["--type", "package-keepalive"], ["--type", "nopartial"]:
            server = self.receive("--once", "--force", *kind)
            sent = self.run_talvo("send", *paths, server.address, *kind)
            self.assertEqual((0, ""), (sent.returncode, sent.stderr), kind)
            self.assertEqual(4, len(re.findall("^sent ", sent.stdout, re.M)))  # on a slow machine there is progress, too
            status, out, err = server.end(None)
            self.assertEqual((0, "", 4), (status, err, len(re.findall("^received ", out, re.M))), kind)
            self.assertEqual(contents, self.received(), kind)
            (self.out / "large").unlink()
        # The two ends have to agree.
        server = self.receive()
        self.assert_fails(self.run_talvo("send", "--type", "package", paths[0], server.address), 1)
        self.assertIn("does not speak", server.end()[2])

    def test_many_senders_at_once(self):
        server = self.receive()
        contents = {f"file{i}": os.urandom(1_000_000) for i in range(8)}
        senders = [self.start("send", self.make(name, content), server.address) for name, content in contents.items()]
        self.assertEqual([0] * 8, [sender.wait(PATIENCE) for sender in senders])
        self.assertEqual(contents, self.received())
        self.assertEqual(INTERRUPTED, server.end()[0])

    def test_existing_file_is_refused_and_the_others_go_on(self):
        taken, other = self.make("taken", "new"), self.make("other", "other")
        self.make("out/taken", "old")
        server = self.receive()
        sent = self.run_talvo("send", taken, other, server.address)
        self.assertEqual((1, True), (sent.returncode, "a file of that name exists" in sent.stderr))
        self.assertEqual({"taken": b"old", "other": b"other"}, self.received())
        self.assertEqual(128 + signal.SIGTERM, server.end(signal.SIGTERM)[0])

        server = self.receive("--force", "--once")
        self.assertEqual(0, self.run_talvo("send", taken, server.address).returncode)
        self.assertEqual(0, server.end(None)[0])
        self.assertEqual(b"new", self.received()["taken"])

    def test_json_lines(self):
        server = self.receive("--json")
        sent = self.run_talvo("send", self.make("a\"b", "abc"), self.make("a", ""), server.address, "--json")
        objects = self.events(sent.stdout)
        self.assertEqual(["sent", "sent"], [o["event"] for o in objects])
        self.assertEqual("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", objects[0]["sha256"])
        self.assertEqual(1, self.run_talvo("send", self.directory / "a", server.address, "--json").returncode)
        objects = self.events(server.end()[1])
        self.assertEqual([("received", "a\"b"), ("received", "a"), ("refused", "a")], [(o["event"], o["name"]) for o in objects])

    def test_killed_sender_leaves_nothing(self):
        for once in False, True:
            server = self.receive(*["--once"] * once)
            self.send_endless(server).kill()
            if once:
                status, _, err = server.end(None)
                self.assertEqual(1, status)
            else:
                poll("the half file is gone", lambda: not self.received())
                self.assertEqual(0, self.run_talvo("send", self.make("next", "next"), server.address).returncode)
                (self.out / "next").unlink()
                err = server.end()[2]
            self.assertRegex(err, r"^talvo: dropped 127\S+:\d+: the connection (broke: \S|was closed by the peer).*endless.*\n$")
            self.assertEqual({}, self.received())

    def test_ended_receiver_is_reported_and_leaves_no_final_name(self):
        for with_signal, left in (signal.SIGKILL, r"^\.talvo-[0-9a-f]{16}\.part$"), (signal.SIGINT, "^$"):
            server = self.receive()
            sender = self.send_endless(server)
            status = server.end(with_signal)[0]
            self.assertIn(status, (INTERRUPTED, -signal.SIGKILL))
            err = sender.communicate(timeout=PATIENCE)[1]
            self.assertEqual(1, sender.returncode)
            self.assertRegex(err, r"^talvo: the connection to \S+ (broke: \S.*|was closed by the peer); 0 of 1 files were delivered\n$")
            self.assertRegex(" ".join(name for name in os.listdir(self.out)), left)
            for path in self.out.iterdir():
                path.unlink()

    def test_full_disk_is_refused_with_the_reason(self):
        # A limit on the size of files stands in for the disk: it fails the same write.
        script = "ulimit -f 1000; trap '' XFSZ; exec \"$@\""
        process = subprocess.Popen(["bash", "-c", script, "bash", TALVO, "recv", *ANY_PORT, "--out", self.out], text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        with open(self.directory / "large", "wb") as file:
            file.truncate(1 << 40)
        sent = self.run_talvo("send", file.name, self.make("small", "small"), Server(process).address)
        self.assertEqual((1, True), (sent.returncode, "File too large" in sent.stderr))
        self.assertEqual({"small": b"small"}, self.received())

    def test_hostile_peers_are_dropped(self):
        def frame(kind, payload):
            return struct.pack(">BI", kind, len(payload)) + payload
        hello = frame(1, b"TALVO\1")
        hostile = {
            b"\xff" * 10000: "does not speak",
            frame(2, struct.pack(">Q", 3) + b"early"): "does not begin",
            hello + hello: "does not begin",
            frame(1, b"TALVO\2"): "another version",
            hello + frame(3, b"x"): "belongs to no file",
            hello + frame(2, struct.pack(">Q", 1) + b"more") + frame(3, b"xx"): "belongs to no file",
            hello + frame(2, struct.pack(">Q", 2) + b"less") + frame(3, b"x") + frame(4, bytes(32)): "too early",
            hello + frame(0x81, b""): "only a receiver",
        }
        server = self.receive()
        for attack, expected in hostile.items():
            with socket.create_connection((HOST, server.port), PATIENCE) as peer:
                try:
                    peer.sendall(attack)
                    while peer.recv(4096):
                        pass
                except ConnectionResetError:
                    pass
            self.assertIn(expected, server.process.stderr.readline())
        # Well-formed, but its files are refused one by one, and the answer to each comes.
        refused = [(8, name) for name in (b"../up", b"/abs", b"..", b"new\nline", b".talvo-x.part")] + [(1 << 63, b"huge")]
        with socket.create_connection((HOST, server.port), PATIENCE) as peer:
            peer.sendall(hello)
            for size, name in refused:
                peer.sendall(frame(2, struct.pack(">Q", size) + name))
                self.assertEqual(b"\x82", peer.recv(1))
                peer.recv(4096)
            peer.sendall(frame(2, struct.pack(">Q", 1) + b"wrong") + frame(3, b"x") + frame(4, bytes(32)) + frame(6, b""))
            answers = b""
            while piece := peer.recv(4096):
                answers += piece
            self.assertIn(b"SHA-256 differs", answers)
        self.assertEqual({}, self.received())
        self.assertEqual(INTERRUPTED, server.end()[0])

    @unittest.skipIf(SANITIZED, "sanitizers reserve address space")
    def test_a_receiver_without_memory_closes_what_it_cannot_serve_and_goes_on(self):
        server = self.serve("recv", "--out", self.out, "--force", stderr=subprocess.DEVNULL)
        pid = server.process.pid
        used = int(re.search(r"VmSize:\s*(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) << 10
        resource.prlimit(pid, resource.RLIMIT_AS, (used + (1 << 20),) * 2)
        resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)

        def is_answered(peer):
            try:
                peer.sendall(b"\1\0\0\0\6TALVO\1" + struct.pack(">BIQ", 2, 10, 1) + b"..")
                return peer.recv(1) == b"\x82"
            except ConnectionError:
                return False
        with contextlib.ExitStack() as peers:
            connect = lambda: peers.enter_context(socket.create_connection((HOST, server.port), PATIENCE))
            self.assertFalse(all(is_answered(connect()) for _ in range(4000)), "there is still memory")
        path = self.make("again", b"x")
        poll("it serves or has ended", lambda: server.process.poll() is not None or
             self.run_talvo("send", path, server.address).returncode == 0)
        self.assertEqual(INTERRUPTED, server.end()[0])

    def test_ping_over_each_type_of_connection(self):
        longest = {"tcp": 16 << 20, "length": 16 << 20, "package": 65531, "package-keepalive": 65531, "nopartial": 16 << 20,
                   "package --udp": 65502, "package-keepalive --udp": 65502, "nopartial --udp": 65498}
        for kind, size in longest.items():
            over = ["--type", *kind.split()]
            echo = self.serve("echo", *over)
            for n in 1, size:
                ping = self.ping(*over, echo.address, "--count", 5, "--size", n, "--json")
                self.assertEqual((0, ""), (ping.returncode, ping.stderr), kind)
                statistics = json.loads(ping.stdout)
                self.assertEqual((5, 5), (statistics["sent"], statistics["received"]), kind)
                times = [statistics[key + "_usec"] for key in ("min", "p50", "p90", "p99", "max")]
                self.assertEqual(times, sorted(times))
                self.assertGreater(times[0], 0)
            if size < 16 << 20:
                self.assertIn(f"at most {size} bytes", self.ping(*over, echo.address, "--size", size + 1).stderr)
            self.assertEqual((INTERRUPTED, "", ""), echo.end())
        self.assert_fails(self.ping(echo.address, "--count", 1), 1)

    def test_echo_survives_a_client_that_does_not_read(self):
        echo = self.serve("echo")
        with socket.create_connection((HOST, echo.port)) as peer:
            peer.setblocking(False)
            payload, sent = os.urandom(1 << 16), 0
            try:
                while sent < 1 << 30:
                    sent += peer.send(payload)
            except BlockingIOError:
                pass
            self.assertLess(sent, 1 << 30)  # it stops reading, and does not pile up
            self.assertEqual(0, self.ping(echo.address, "--count", 1).returncode)
            peer.settimeout(PATIENCE)
            back = 0
            while back < sent:
                back += len(peer.recv(1 << 20))
            self.assertEqual(sent, back)

    def test_messages_name_the_cause(self):
        file, echo, free, foreign = self.make("file", ""), self.serve("echo"), ["--port", "0"], ["--host", "192.0.2.1"]
        taken = ["--host", HOST, "--port", echo.port]
        silent = self.enterContext(socket.create_server((HOST, 0)))
        for arguments, cause in ((["ping", HOST + ":1"], "Connection refused"), (["send", file, HOST + ":1"], "Connection refused"),
                                 (["ping", "--udp", "--type", "package", HOST + ":1"], "Connection refused"),
                                 (["get", f"http://{HOST}:1/", "-o", "-"], "no connection to the server: Connection refused"),
                                 (["ping", "--type", "package", f"{HOST}:{silent.getsockname()[1]}", "--timeout", 100],
                                  "cannot connect"),
                                 (["send", file, echo.address], "no talvo recv"),
                                 (["serve", self.out, *taken], "Address already in use"),
                                 (["recv", "--out", self.out, *taken], "Address already in use"),
                                 (["echo", *free, *foreign], "Cannot assign requested address"),
                                 (["serve", self.out, *free, *foreign], "Cannot assign requested address")):
            self.assert_fails(self.run_talvo(*arguments), 1, cause)
        for arguments in (["echo", *free], ["serve", self.out, *free]):
            for limit in () if SANITIZED else (4, 5):
                few = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
                self.assert_fails(self.run_talvo(*arguments, preexec_fn=few), 1, "cannot start the library: no descriptor")

    def test_wrong_arguments_give_one_line_and_status_2(self):
        file, to = self.make("file", ""), "127.0.0.1:1"
        recv = ["recv", "--port", 0, "--out"]
        for arguments in ([], ["fly"], ["recv"], ["recv", "--port", 0], ["recv", "--port", "x", "--out", self.out],
                          [*recv, self.directory / "no"], [*recv, file], [*recv, self.out, "extra"],
                          [*recv, self.out, "--host", "here"], ["send", file], ["send", to],
                          ["send", self.directory / "no", to], ["send", self.out, to], ["send", file, "127.0.0.1"],
                          ["send", file, to, "--fast"], ["send", file, to, "--udp"], ["echo", "--port", -1],
                          ["echo", "--port", 0, "--udp", "--type", "tcp"], ["ping", "a:1", "b:1"], ["ping", "a:1", "--count", 0],
                          ["ping", "a:1", "--size"], ["ping", "a:1", "--interval", "1.5"], ["ping", "a:1", "--type", "fast"],
                          ["ping", "a:1", "--udp", "--size", "65508"]):
            run = self.run_talvo(*arguments)
            self.assert_fails(run, 2)
            self.assertEqual("", run.stdout)
        self.assertEqual(0, self.run_talvo("--help").returncode)
        self.assertRegex(self.run_talvo("--version").stdout, r"^talvo \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    unittest.main()
