#!/usr/bin/env python3
"""Runs the program as people do: real processes, real files, loopback, ports that the system chooses.

usage: transfer_test.py TALVO [TEST...]
"""
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

TALVO = sys.argv.pop(1)
PATIENCE = 240  # seconds; only how long a failing test takes
# An address of loopback that no other process uses, so that nobody takes a port that was let go.
HOST = f"127.{64 + (os.getpid() >> 16) % 128}.{os.getpid() >> 8 & 255}.{os.getpid() & 255}"
MESSAGE_TYPES = "length", "package", "package-keepalive", "nopartial"


def poll(what, condition):
    for _ in range(PATIENCE * 100):
        if condition():
            return
        time.sleep(0.01)
    raise AssertionError("still not so: " + what)


class Server:
    """A `talvo recv` or `talvo echo` that is ready."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen([TALVO, *arguments, "--host", HOST, "--port", "0"], text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        first = self.process.stdout.readline()
        if "--json" in arguments:
            self.port = json.loads(first)["port"]
        else:
            assert self.process.stdout.readline() == "ready\n"
            self.port = int(first.rpartition(":")[2])
        self.address = f"{HOST}:{self.port}"

    def end(self, with_signal=signal.SIGINT):
        """The exit status and what it said on its two outputs."""
        if with_signal is not None:
            self.process.send_signal(with_signal)
        out, err = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, out, err


def talvo(*arguments):
    if arguments[:1] == ("ping",) and "--count" in arguments:
        arguments += ("--timeout", str(PATIENCE * 1000))
    return subprocess.run([TALVO, *arguments], text=True, capture_output=True, timeout=2 * PATIENCE)


class TransferTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory(prefix="talvo-test-")
        self.addCleanup(self.directory.cleanup)
        self.out = self.path("out")
        self.servers = []
        os.mkdir(self.out)

    def tearDown(self):
        for server in self.servers:
            server.process.kill()
            server.process.communicate()

    def serve(self, *arguments):
        self.servers.append(Server(*arguments))
        return self.servers[-1]

    def path(self, name):
        return os.path.join(self.directory.name, name)

    def make(self, name, content):
        with open(self.path(name), "wb") as file:
            file.write(content)
        return self.path(name)

    def make_endless(self):
        """So large that nobody gets to its end, and yet not on the disk."""
        with open(self.path("endless"), "wb") as file:
            file.truncate(1 << 40)
        return file.name

    def received(self, name):
        with open(os.path.join(self.out, name), "rb") as file:
            return file.read()

    def events(self, output):
        """Without those that a slow machine adds."""
        return [o for o in map(json.loads, output.splitlines()) if o["event"] != "progress"]

    def wait_for_bytes(self):
        """A file under its temporary name has begun to grow."""
        def growing():
            return any(os.path.getsize(os.path.join(self.out, name)) > 0 for name in os.listdir(self.out))
        poll("data arrives", growing)

    def test_files_of_all_sizes_arrive(self):
        contents = {"empty": b"", "one": b"1", "with spaces \u00e9": b"text\n" * 1000, "large": os.urandom(20_000_000)}
        paths = [self.make(name, content) for name, content in contents.items()]
        server = self.serve("recv", "--out", self.out, "--once")
        sent = talvo("send", *paths, server.address)
        self.assertEqual((sent.returncode, sent.stderr), (0, ""))
        self.assertEqual(len(re.findall("^sent ", sent.stdout, re.M)), 4)  # on a slow machine there is progress, too
        status, out, err = server.end(None)
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(len(re.findall("^received ", out, re.M)), 4)
        self.assertEqual({name: self.received(name) for name in os.listdir(self.out)}, contents)

    def test_files_arrive_over_each_type_of_connection(self):
        content = os.urandom(3_000_000)
        for kind in MESSAGE_TYPES:
            server = self.serve("recv", "--type", kind, "--out", self.out, "--once", "--force")
            sent = talvo("send", "--type", kind, self.make("file", content), self.make("empty", b""), server.address)
            self.assertEqual((0, ""), (sent.returncode, sent.stderr), kind)
            self.assertEqual(0, server.end(None)[0], kind)
            self.assertEqual((content, b""), (self.received("file"), self.received("empty")), kind)
            os.remove(os.path.join(self.out, "file"))
        # The two ends have to agree.
        server = self.serve("recv", "--out", self.out)
        sent = talvo("send", "--type", "package", self.path("file"), server.address)
        self.assertEqual((1, 1), (sent.returncode, len(sent.stderr.splitlines())))
        self.assertIn("does not speak", server.end()[2])

    def test_many_senders_at_once(self):
        server = self.serve("recv", "--out", self.out)
        content = os.urandom(1_000_000)
        paths = [self.make(f"file{i}", content) for i in range(8)]
        senders = [subprocess.Popen([TALVO, "send", path, server.address], stdout=subprocess.DEVNULL) for path in paths]
        self.assertEqual([sender.wait(PATIENCE) for sender in senders], [0] * 8)
        self.assertTrue(all(self.received(f"file{i}") == content for i in range(8)))
        self.assertEqual(server.end()[0], 128 + signal.SIGINT)

    def test_existing_file_is_refused_and_the_others_go_on(self):
        taken, other = self.make("taken", b"new"), self.make("other", b"other")
        self.make("out/taken", b"old")
        server = self.serve("recv", "--out", self.out)
        sent = talvo("send", taken, other, server.address)
        self.assertEqual(sent.returncode, 1)
        self.assertIn("a file of that name exists", sent.stderr)
        self.assertEqual((self.received("taken"), self.received("other")), (b"old", b"other"))
        self.assertEqual(server.end(signal.SIGTERM)[0], 128 + signal.SIGTERM)

        server = self.serve("recv", "--out", self.out, "--force", "--once")
        self.assertEqual(talvo("send", taken, server.address).returncode, 0)
        self.assertEqual(server.end(None)[0], 0)
        self.assertEqual(self.received("taken"), b"new")

    def test_json_lines(self):
        server = self.serve("recv", "--out", self.out, "--json")
        sent = talvo("send", self.make("a\"b", b"abc"), self.make("a", b""), server.address, "--json")
        objects = self.events(sent.stdout)
        self.assertEqual([o["event"] for o in objects], ["sent", "sent"])
        self.assertEqual(objects[0]["sha256"], "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")
        self.assertEqual(talvo("send", self.path("a"), server.address, "--json").returncode, 1)
        objects = self.events(server.end()[1])
        self.assertEqual([(o["event"], o["name"]) for o in objects], [("received", "a\"b"), ("received", "a"), ("refused", "a")])

    def test_killed_sender_leaves_nothing(self):
        endless = self.make_endless()
        for once in False, True:
            server = self.serve("recv", "--out", self.out, *["--once"] * once)
            sender = subprocess.Popen([TALVO, "send", endless, server.address], stdout=subprocess.DEVNULL)
            self.wait_for_bytes()
            sender.kill()
            sender.wait()
            if once:
                status, _, err = server.end(None)
                self.assertEqual(status, 1)
            else:
                poll("the half file is gone", lambda: os.listdir(self.out) == [])
                self.assertEqual(talvo("send", self.make("next", b"next"), server.address).returncode, 0)
                os.remove(os.path.join(self.out, "next"))
                err = server.end()[2]
            self.assertRegex(err, r"^talvo: dropped 127.0.0.1:\d+: the connection (broke: \S|was closed by the peer).*endless.*\n$")
            self.assertEqual(os.listdir(self.out), [])

    def test_killed_receiver_is_reported_and_leaves_no_final_name(self):
        server = self.serve("recv", "--out", self.out)
        sender = subprocess.Popen([TALVO, "send", self.make_endless(), server.address], text=True, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE)
        self.wait_for_bytes()
        server.end(signal.SIGKILL)
        _, err = sender.communicate(timeout=PATIENCE)
        self.assertEqual(sender.returncode, 1)
        self.assertRegex(err, r"^talvo: the connection to \S+ (broke: \S.*|was closed by the peer); 0 of 1 files were delivered\n$")
        self.assertRegex(" ".join(os.listdir(self.out)), r"^\.talvo-[0-9a-f]{16}\.part$")

    def test_interrupted_ends_remove_the_half_file(self):
        server = self.serve("recv", "--out", self.out)
        sender = subprocess.Popen([TALVO, "send", self.make_endless(), server.address], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        self.wait_for_bytes()
        self.assertEqual(server.end()[0], 128 + signal.SIGINT)
        self.assertEqual(sender.wait(PATIENCE), 1)
        self.assertEqual(os.listdir(self.out), [])

    def test_full_disk_is_refused_with_the_reason(self):
        # A limit on the size of files stands in for the disk: it fails the same write.
        server = Server.__new__(Server)
        script = f"ulimit -f 1000; trap '' XFSZ; exec '{TALVO}' recv --host {HOST} --port 0 --out '{self.out}'"
        server.process = subprocess.Popen(["bash", "-c", script], text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.servers.append(server)
        address = server.process.stdout.readline().split()[-1]
        sent = talvo("send", self.make_endless(), self.make("small", b"small"), address)
        self.assertEqual(sent.returncode, 1)
        self.assertIn("File too large", sent.stderr)
        self.assertEqual(os.listdir(self.out), ["small"])

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
        server = self.serve("recv", "--out", self.out)
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
                self.assertEqual(peer.recv(1), b"\x82")
                peer.recv(4096)
            peer.sendall(frame(2, struct.pack(">Q", 1) + b"wrong") + frame(3, b"x") + frame(4, bytes(32)) + frame(6, b""))
            answers = b""
            while piece := peer.recv(4096):
                answers += piece
            self.assertIn(b"SHA-256 differs", answers)
        self.assertEqual(os.listdir(self.out), [])
        self.assertEqual(server.end()[0], 128 + signal.SIGINT)

    def test_sender_gives_up_on_a_peer_that_is_no_receiver(self):
        echo = self.serve("echo")
        sent = talvo("send", self.make("a", b"a"), echo.address)
        self.assertEqual(sent.returncode, 1)
        self.assertIn("no talvo recv", sent.stderr)

    def test_ping_over_each_type_of_connection(self):
        longest = {"tcp": 16 << 20, "length": 16 << 20, "package": 65531, "package-keepalive": 65531, "nopartial": 16 << 20,
                   "package --udp": 65502, "package-keepalive --udp": 65502, "nopartial --udp": 65498}
        for kind, size in longest.items():
            echo = self.serve("echo", "--type", *kind.split())
            for n in 1, size:
                ping = talvo("ping", "--type", *kind.split(), echo.address, "--count", "5", "--interval", "0", "--size", str(n),
                             "--json")
                self.assertEqual((0, ""), (ping.returncode, ping.stderr), kind)
                statistics = json.loads(ping.stdout)
                self.assertEqual((5, 5), (statistics["sent"], statistics["received"]), kind)
                times = [statistics[key + "_usec"] for key in ("min", "p50", "p90", "p99", "max")]
                self.assertEqual(times, sorted(times))
                self.assertGreater(times[0], 0)
            if size < 16 << 20:
                ping = talvo("ping", "--type", *kind.split(), echo.address, "--size", str(size + 1))
                self.assertIn(f"at most {size} bytes", ping.stderr)
            self.assertEqual((128 + signal.SIGINT, "", ""), echo.end())
        gone = talvo("ping", echo.address, "--count", "1")
        self.assertEqual((gone.returncode, len(gone.stderr.splitlines())), (1, 1))

    def test_ping_waits_for_a_handshake_no_longer_than_for_an_answer(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            ping = talvo("ping", "--type", "package", f"127.0.0.1:{silent.getsockname()[1]}", "--timeout", "100")
        self.assertEqual((1, 1), (ping.returncode, len(ping.stderr.splitlines())))
        self.assertIn("cannot connect", ping.stderr)

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
            self.assertEqual(talvo("ping", echo.address, "--count", "1").returncode, 0)
            peer.settimeout(PATIENCE)
            back = 0
            while back < sent:
                back += len(peer.recv(1 << 20))
            self.assertEqual(back, sent)

    def test_messages_name_the_cause(self):
        file, taken = self.make("file", b""), str(self.serve("echo").port)
        for arguments, cause in ((["ping", HOST + ":1"], "Connection refused"), (["send", file, HOST + ":1"], "Connection refused"),
                                 (["ping", "--udp", "--type", "package", HOST + ":1"], "Connection refused"),
                                 (["get", f"http://{HOST}:1/", "-o", "-"], "no connection to the server: Connection refused"),
                                 (["serve", self.out, "--port", taken, "--host", HOST], "Address already in use"),
                                 (["recv", "--out", self.out, "--port", taken, "--host", HOST], "Address already in use"),
                                 (["echo", "--port", "0", "--host", "192.0.2.1"], "Cannot assign requested address"),
                                 (["serve", self.out, "--port", "0", "--host", "192.0.2.1"], "Cannot assign requested address")):
            run = talvo(*arguments)
            self.assertEqual((1, 1), (run.returncode, len(run.stderr.splitlines())), run.stderr)
            self.assertIn(cause, run.stderr)

    def test_wrong_arguments_give_one_line_and_status_2(self):
        file = self.make("file", b"")
        recv, to = ["recv", "--port", "0", "--out"], "127.0.0.1:1"
        for arguments in ([], ["fly"], ["recv"], ["recv", "--port", "0"], ["recv", "--port", "x", "--out", self.out],
                          [*recv, self.path("no")], [*recv, file], [*recv, self.out, "extra"], [*recv, self.out, "--host", "here"],
                          ["send", file], ["send", to], ["send", self.path("no"), to], ["send", self.out, to],
                          ["send", file, "127.0.0.1"], ["send", file, to, "--fast"], ["send", file, to, "--udp"],
                          ["echo", "--port", "-1"], ["echo", "--port", "0", "--udp", "--type", "tcp"], ["ping", "a:1", "b:1"],
                          ["ping", "a:1", "--count", "0"], ["ping", "a:1", "--size"], ["ping", "a:1", "--interval", "1.5"],
                          ["ping", "a:1", "--type", "fast"], ["ping", "a:1", "--udp", "--size", "65508"]):
            with self.subTest(arguments):
                run = talvo(*arguments)
                self.assertEqual((run.returncode, run.stdout, len(run.stderr.splitlines())), (2, "", 1))
        self.assertEqual(talvo("--help").returncode, 0)
        self.assertRegex(talvo("--version").stdout, r"^talvo \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    unittest.main()
