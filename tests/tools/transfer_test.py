#!/usr/bin/env python3
"""Sends files and messages as people do, and as those do who mean harm."""
import contextlib
import hashlib
import json
import os
import pathlib
import re
import resource
import signal
import socket
import stat
import struct
import subprocess
import unittest

from program import ANY_PORT, HOST, PATIENCE, SANITIZED, TALVO, ProgramTest, Server, poll, receive_exactly

INTERRUPTED = 128 + signal.SIGINT


def frame(kind, payload):
    return struct.pack(">BI", kind, len(payload)) + payload


def entry(kind, size, name, number=1, folder=0):
    return frame(kind, struct.pack(">IIIqIQ", number, folder, 0o640, 1000000000, 0, size) + name)


def file(*arguments):
    return entry(2, *arguments)


def folder(name, *arguments):
    return entry(7, 0, name, *arguments)


def data(content, number=1):
    return frame(3, struct.pack(">I", number) + content)


def end(content, number=1):
    return frame(4, struct.pack(">I", number) + hashlib.sha256(content).digest())


HELLO, BYE = frame(1, b"TALVO\2" + bytes(32)), frame(6, b"")
PART = r"^\.talvo-[0-9a-f]{16}\.part$"


class TransferTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.out = self.directory / "out"
        self.out.mkdir()

    def receive(self, *arguments):
        return self.serve("recv", "--out", self.out, *arguments)

    def received(self):
        return {path.name: path.read_bytes() for path in self.out.iterdir() if not re.match(PART, path.name)}

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
        for kind in [], ["--type", "length"], ["--type", "package"], ["--type", "package-keepalive"], ["--type", "nopartial"], \
                ["--type", "reliable"], ["--type", "reliable-plain"]:
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

    def test_folders_arrive_with_names_times_and_modes_and_links_are_left_out(self):
        for number in range(40):
            self.make(f"tree/many/{number}", os.urandom(number * 1000))
        self.make("tree/deep/er/still/leaf", "leaf").chmod(0o400)
        (self.directory / "tree" / "nothing in it").mkdir()
        (self.directory / "tree" / "deep" / "up").symlink_to(self.directory)
        os.mkfifo(self.directory / "tree" / "fifo")
        (self.directory / "tree" / "deep").chmod(0o750)
        os.utime(self.directory / "tree" / "many" / "7", ns=(1, 1234567890123456789))
        for path in "tree/deep/er", "tree/many":
            os.utime(self.directory / path, (1, 1300000000))
        look = lambda root: {str(path.relative_to(root)): (path.stat().st_mode, path.stat().st_mtime_ns, path.is_file() and path.read_bytes())
                             for path in root.rglob("*") if path.is_dir() and not path.is_symlink() or path.is_file()}
        # What a killed receiver has left: a folder before it got its name, and in it one with its mark.
        temporary = lambda name: f".talvo-{hashlib.sha256(name).hexdigest()[:16]}.part"
        (self.out / temporary(b"tree/") / "many").mkdir(parents=True)
        self.make(f"out/{temporary(b'tree/')}/many/{temporary(b'.')}", "")
        server = self.receive("--json")
        sent = self.run_talvo("send", self.directory / "tree", server.address)
        self.assertEqual((0, "", 2, 41), (sent.returncode, sent.stderr, *(len(re.findall(f"^{word} ", sent.stdout, re.M)) for word in ("skipped", "sent"))))
        self.assertEqual(look(self.directory / "tree"), look(self.out / "tree"))
        # A second time everything is there already, but for the file that is another one now. The user's modes stay.
        (self.out / "tree" / "deep").chmod(0o1700)
        self.make("tree/many/3", os.urandom(3000))
        # A folder in whose place there is a file now is refused, and the rest arrives.
        (self.out / "tree" / "nothing in it").rmdir()
        self.make("out/tree/nothing in it", "")
        sent = self.run_talvo("send", self.directory / "tree/", server.address, "--json")
        events = self.events(sent.stdout)
        self.assertEqual((1, ["thing in it", "tree/many/3"]),
                         (sent.returncode, sorted(o["name"][-11:] for o in events if o["event"] == "failed")))
        self.assertTrue(all(o["bytes"] == 0 for o in events if o["event"] == "sent"))
        self.assertEqual(0o1700, stat.S_IMODE((self.out / "tree" / "deep").stat().st_mode))

    def test_stdin_arrives_as_it_comes(self):
        server = self.receive()
        pipe = self.start("send", "-", self.make("other", "other"), server.address, "--name", "log", stdin=subprocess.PIPE)
        poll("the other file arrives", lambda: (self.out / "other").exists())
        pipe.stdin.write("one\n" * 100000)
        self.assertEqual((0, b"one\n" * 100000), (pipe.communicate("two", timeout=PATIENCE) and pipe.returncode, (self.out / "log").read_bytes()[:-3]))
        with open(self.make("input", "from a file")) as file:
            self.assertEqual(0, self.run_talvo("send", "-", server.address, stdin=file).returncode)
        self.assertEqual(b"from a file", (self.out / "stdin").read_bytes())

    def test_a_shared_secret_is_proved_by_both_ends(self):
        path, right, wrong = self.make("file", "x"), self.make("right", "correct horse\r\n"), self.make("wrong", "another one")
        self.assertIn("warning: other users can read", self.run_talvo("send", path, HOST + ":1", "--secret-file", right).stderr)
        right.chmod(0o600)
        server, open_server = self.receive("--secret-file", right), self.receive()
        for to, secret, status, cause in ((server, ["--secret-file", right], 0, ""), (server, [], 1, "demands a shared secret"),
                                          (server, ["--secret-file", wrong], 1, "has another shared secret"),
                                          (open_server, ["--secret-file", right], 1, "has no shared secret")):
            sent = self.run_talvo("send", path, to.address, *secret)
            self.assertEqual((status, True), (sent.returncode, cause in sent.stderr), sent.stderr)
        environment = {**os.environ, "TALVO_SECRET": "correct horse"}
        self.assertEqual(0, self.run_talvo("send", path, server.address, "--secret", env=environment).returncode)
        for early in file(1, b"early"), data(b"x"), frame(9, bytes(32)):
            self.attack(server, HELLO + early)
        self.assertEqual({"file"}, set(os.listdir(self.out)))
        # A peer that sends back what it gets proves nothing.
        with socket.create_server((HOST, 0)) as rogue:
            sender = self.start("send", path, f"{HOST}:{rogue.getsockname()[1]}", "--secret-file", right)
            with rogue.accept()[0] as peer:
                hello = receive_exactly(peer, 43)
                peer.sendall(frame(0x83, b"\1" + hello[-32:]))
                peer.sendall(frame(0x89, receive_exactly(peer, 37)[-32:]))
                self.assertIn("another shared secret", sender.communicate(timeout=PATIENCE)[1])

    def test_an_existing_file_is_refused_and_the_others_go_on(self):
        taken, other, empty = self.make("a\"b", "abc"), self.make("other", "other"), self.make("empty", "")
        self.make("out/a\"b", "older")
        server = self.receive("--json")
        sent = self.run_talvo("send", taken, other, empty, server.address, "--json")
        self.assertEqual((1, True), (sent.returncode, "a file of that name exists" in sent.stdout + sent.stderr))
        self.assertEqual({"a\"b": b"older", "other": b"other", "empty": b""}, self.received())
        status, out, _ = server.end(signal.SIGTERM)
        self.assertEqual(128 + signal.SIGTERM, status)
        self.assertEqual([("failed", "a\"b"), ("received", "other"), ("received", "empty")],
                         [(o["event"], o["name"]) for o in self.events(out)])

        server = self.receive("--force", "--once")
        sent = self.run_talvo("send", taken, server.address, "--json")
        self.assertEqual([("sent", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")],
                         [(o["event"], o["sha256"]) for o in self.events(sent.stdout)])
        self.assertEqual((0, b"abc"), (server.end(None)[0], self.received()["a\"b"]))

    def test_an_interrupted_file_is_continued_unless_it_has_changed(self):
        for once in False, True:
            server = self.receive(*["--once"] * once)
            sender = self.send_endless(server)
            if not once:  # others are served meanwhile
                self.assertEqual(0, self.run_talvo("send", self.make("next", "next"), server.address).returncode)
            sender.kill()
            if not once:
                self.assertIn("endless can be continued", server.process.stderr.readline())
                (self.out / "next").unlink()
            status, _, err = server.end(None if once else signal.SIGINT)
            if once:
                self.assertRegex(err, r"^talvo: dropped 127\S+:\d+: the connection (broke: \S|was closed by the peer).*endless.*\n$")
            (part,) = self.out.iterdir()
            self.assertRegex(part.name, PART)
            had = part.stat().st_size
            with open(self.directory / "endless", "r+b") as large:
                large.truncate(had + 1000000)
                large.write(b"changed" if once else b"")
            server = self.receive("--json", "--once")
            (sent,) = self.events(self.run_talvo("send", large.name, server.address, "--json").stdout)
            (received,) = self.events(server.end(None)[1])
            self.assertEqual((0 if once else had,) * 2, tuple(event["size"] - event["bytes"] for event in (sent, received)))
            self.assertEqual({"endless": pathlib.Path(large.name).read_bytes()}, self.received())
            (self.out / "endless").unlink()

    def test_an_attempt_that_fails_is_repeated_unless_the_receiver_refuses(self):
        sizes = {f"tree/{number}": number * 400000 for number in range(1, 9)}
        for name, size in sizes.items():
            self.make(name, os.urandom(size))
        flaky = self.start("flaky", HOST + ":0", self.receive().address, *"--bytes 5000000 --count 1 --faults reset".split())
        done = self.run_talvo("send", self.directory / "tree", Server(flaky).address, *"--retry 3 --limit-rate 1G --json".split())
        events = self.events(done.stdout)
        self.assertEqual((0, 1, sorted(sizes)), (done.returncode, sum(o["event"] == "retry" for o in events),
                                                 sorted(o["name"][-6:] for o in events if o["event"] == "sent")), done.stdout)
        for name in sizes:
            self.assertEqual((self.directory / name).read_bytes(), (self.out / name).read_bytes())
        with socket.create_server((HOST, 0)) as silent:
            for answer, cause, text in ((b"", "timeout", "sends nothing"), (frame(0x83, bytes(33)), "timeout", "sends nothing"),
                                        (frame(0x83, bytes(33)) + frame(0x86, b"it is late"), "refused", "because it is late")):
                sender = self.start("send", "-", f"{HOST}:{silent.getsockname()[1]}", *"--timeout 300 --json".split(), stdin=subprocess.PIPE)
                with silent.accept()[0] as peer:
                    peer.sendall(answer)
                    (failed,) = self.events(sender.communicate(timeout=PATIENCE)[0])
                self.assertEqual((cause, sender.args[3], True), (failed["cause"], failed["peer"], text in failed["reason"]))

    def test_a_file_that_changes_meanwhile_is_reported(self):
        with socket.create_server((HOST, 0)) as receiver:
            for content, taken, cause in (b"abcd", data(b"abc") + end(b"abc"), "changed"), (b"a", data(b"a"), "local"):
                sender = self.start("send", self.make("file", "abc"), f"{HOST}:{receiver.getsockname()[1]}", "--json")
                with receiver.accept()[0] as peer:
                    receive_exactly(peer, len(HELLO + file(3, b"file")))
                    self.make("file", content)
                    peer.sendall(frame(0x83, bytes(33)) + frame(0x81, struct.pack(">IQ", 1, 0)))
                    self.assertEqual(taken, receive_exactly(peer, len(taken)))
                    peer.sendall(frame(0x82, struct.pack(">IB", 1, cause == "local")))
                    events = self.events(sender.communicate(timeout=PATIENCE)[0])
                self.assertEqual((1, cause), (sender.returncode, events[-1]["cause"]), events)

    def test_ended_receiver_is_reported_and_leaves_no_final_name(self):
        for with_signal in signal.SIGKILL, signal.SIGINT:
            server = self.receive()
            sender = self.send_endless(server)
            status = server.end(with_signal)[0]
            self.assertIn(status, (INTERRUPTED, -signal.SIGKILL))
            err = sender.communicate(timeout=PATIENCE)[1]
            self.assertEqual(1, sender.returncode)
            self.assertRegex(err, r"^talvo: the connection to \S+ (broke: \S.*|was closed by the peer); 0 of 1 files were delivered\n$")
            self.assertRegex(" ".join(os.listdir(self.out)), PART)
            for path in self.out.iterdir():
                path.unlink()

    def test_full_disk_is_refused_with_the_reason(self):
        # A limit on the size of files stands in for the disk: it fails the same write.
        limited = ["bash", "-c", "ulimit -f 1000; trap '' XFSZ; exec \"$@\"", "bash", TALVO]
        server = Server(self.start("recv", *ANY_PORT, "--json", "--out", self.out, program=limited))
        with open(self.directory / "large", "wb") as file:
            file.truncate(1 << 40)
        sent = self.run_talvo("send", file.name, self.make("small", "small"), server.address)
        self.assertEqual((1, True), (sent.returncode, "File too large" in sent.stderr))
        self.assertEqual({"small": b"small"}, self.received())
        (failed,) = (o for o in self.events(server.end()[1]) if o["event"] == "failed")
        self.assertEqual(("local", True), (failed["cause"], "can be continued" in failed["reason"]))
        # The part stays for the time when there is room.
        had = max(path.stat().st_size for path in self.out.iterdir())
        os.truncate(file.name, had + 1000)
        server = self.receive()
        (sent,) = self.events(self.run_talvo("send", file.name, server.address, "--json").stdout)
        self.assertEqual((1000, had + 1000), (sent["bytes"], (self.out / "large").stat().st_size))

    def attack(self, server, data):
        """The answers until the receiver closes, to a peer whose first bytes come one by one."""
        answers = b""
        with socket.create_connection((HOST, server.port), PATIENCE) as peer, contextlib.suppress(ConnectionError):
            peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for i in range(min(50, len(data))):
                peer.sendall(data[i:i + 1])
            peer.sendall(data[50:])
            while piece := peer.recv(4096):
                answers += piece
        return answers

    def test_hostile_peers_are_dropped(self):
        server = self.receive()
        wrong = [HELLO + struct.pack(">BI", kind, size) + b"x" for kind, size in (
            (7, 0), (3, 256 * 1024 + 5), (3, 4), (2, 0xffffffff), (2, 32 + 256), (2, 32), (4, 37), (5, 517), (0x82, 518), (6, 1), (8, 4))]
        many = b"".join(file(1, b"%d" % number, number) for number in range(1, 82))
        for sent, expected in (*((sent, "does not speak") for sent in (b"GET / HTTP/1.1\r\n\r\n", b"\xff" * 10000, *wrong)),
                               (file(3, b"early"), "does not begin"), (HELLO + HELLO, "does not begin"),
                               (frame(1, b"TALVO\1"), "another version"), (HELLO + data(b"x"), "belongs to no file"),
                               (HELLO + file(1, b"more") + data(b"xx"), "belongs to no file"),
                               (HELLO + file(2, b"less") + data(b"x") + end(b""), "too early"),
                               (HELLO + file(1, b"a") + file(1, b"b"), "bad frame"), (HELLO + many, "too many files"),
                               (HELLO + frame(8, bytes(36)), "had not begun"), (HELLO + end(b""), "had not begun"),
                               (HELLO + frame(9, bytes(32)), "nobody demands"), (HELLO + file(1, b"a") + BYE, "within a file"),
                               (HELLO + frame(0x81, bytes(12)), "only a receiver")):
            self.attack(server, sent)
            self.assertIn(expected, server.process.stderr.readline(), sent[:100])
        # Well-formed, but its files are refused one by one.
        names = (b".", b"..", b"/", b"../a", b"/etc/passwd", b"a/", b"a\0b", b"a\nb", b"\x7f", b"a\xc2\x9b", b".talvo-00.part")
        answers = self.attack(server, HELLO + b"".join(begin(name, 8) for name in names for begin in (lambda *a: file(8, *a), folder)) +
                              file(1 << 63, b"huge") + file(1, b"orphan", 1, 7) + file(1, b"wrong") + data(b"x") + end(b"") + BYE)
        self.assertEqual((2 * len(names) + 3, True), (answers.count(b"\x82\0\0"), b"SHA-256 differs" in answers), answers)
        self.assertEqual({}, self.received())
        # A silent peer is dropped, and neither it nor one without a file is the sender of --once.
        once = self.receive("--once", "--timeout", 1500)
        for sent, expected in (HELLO, b"sent nothing"), (HELLO + BYE, b""), (HELLO + file(1, b"late"), b"sent nothing"):
            self.assertIsNone(once.process.poll())
            self.assertIn(expected, self.attack(once, sent))
        self.assertEqual(1, once.end(None)[0])
        names = b"a", b"...", "r\u00e9sum\u00e9 2.pdf".encode(), b"n" * 255, b".talvo-notes"
        self.attack(server, HELLO + b"".join(file(4, name) + data(b"co") + data(b"nt") + end(b"cont") for name in names) + BYE)
        self.assertEqual({name.decode(): b"cont" for name in names}, self.received())
        self.assertEqual(INTERRUPTED, server.end()[0])

    def test_only_regular_files_are_replaced(self):
        old = [f".talvo-{'0' * 16}.part", ".talvo-1.part", "a"]
        for name in *old, f".talvo-{'1' * 16}.part":
            self.make("out/" + name, "half")
        for name in old:
            os.utime(self.out / name, (0, 0))
        server = self.receive("--force")
        poll("the leftover of a killed process is gone", lambda: not (self.out / old[0]).exists())
        self.assertEqual({*old[1:], f".talvo-{'1' * 16}.part"}, set(os.listdir(self.out)))
        (self.out / "link").symlink_to("a")
        (self.out / "dir").mkdir()
        os.mkfifo(self.out / "fifo")
        (self.out / "away").symlink_to(self.directory)
        answers = self.attack(server, HELLO + b"".join(file(1, name) for name in (b"link", b"dir", b"fifo")) +
                              folder(b"away", 2) + folder(b"deep", 6, 2) + frame(4, b"\0\0\0\6") +
                              file(1, b"escaped", 3, 2) + frame(4, b"\0\0\0\2") + folder(b"dir", 4) + file(1, b"in", 5, 4) +
                              data(b"x", 5) + end(b"x", 5) + frame(4, b"\0\0\0\4") + BYE)
        self.assertEqual((8, b"x"), (answers.count(b"\x82\0\0"), (self.out / "dir" / "in").read_bytes()), answers)
        self.assertFalse((self.directory / "escaped").exists())
        server.end()
        # The same looks come again at the end: something may have come up meanwhile.
        for force, make in ([], lambda path: path.write_text("old")), (["--force"], os.mkfifo):
            server = self.receive(*force)
            with socket.create_connection((HOST, server.port), PATIENCE) as peer:
                peer.sendall(HELLO + file(4, b"late"))
                self.assertEqual(b"\x81", receive_exactly(peer, 5 + 33 + 1)[-1:])
                make(self.out / "late")
                peer.sendall(data(b"cont") + end(b"cont") + BYE)
                poll("it is refused", lambda: b"\x82" in peer.recv(4096))
            server.end()
            self.assertEqual(bool(force), (self.out / "late").is_fifo())
            (self.out / "late").unlink()

    @unittest.skipIf(SANITIZED, "sanitizers reserve address space")
    def test_a_receiver_without_memory_closes_what_it_cannot_serve_and_goes_on(self):
        server = self.serve("recv", "--out", self.out, "--force", stderr=subprocess.DEVNULL)
        pid = server.process.pid
        used = int(re.search(r"VmSize:\s*(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) << 10
        resource.prlimit(pid, resource.RLIMIT_AS, (used + (1 << 20),) * 2)
        resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)

        def is_answered(peer):
            try:
                peer.sendall(HELLO + file(1, b".."))
                return receive_exactly(peer, 5 + 33 + 1)[-1:] == b"\x82"
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
        longest = {"tcp": 16 << 20, "length": 16 << 20, "package": 65531, "package-keepalive": 65531, "nopartial": 16 << 20, "reliable": 1048567, "reliable-plain": 1048567,
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
                                 *((["publish", *free, "--file", wrong], f"'{wrong}': ") for wrong in (self.out, self.directory / "no")),
                                 (["echo", *free, *foreign], "Cannot assign requested address"),
                                 (["serve", self.out, *free, *foreign], "Cannot assign requested address")):
            run = self.run_talvo(*arguments)
            self.assert_fails(run, 4 if arguments[0] == "get" else 1, cause)
            self.assertNotIn("ready", run.stdout)
        for command in "ping", "bench", "subscribe", "tls", "bench http://":
            command, _, scheme = command.partition(" ")
            (failed,) = self.events(self.run_talvo(command, scheme + HOST + ":1", "--json").stdout)
            self.assertEqual(("connect", scheme + HOST + ":1"), (failed["cause"], failed["url" if scheme else "peer"]))
        with open("/dev/full", "w") as full:
            for arguments in ["help"], ["-V"], ["resolve", "127.0.0.1"], ["ping", echo.address, "--count", 1, "--json"], ["echo", *free], \
                    ["get", f"file://{file}", "-o", self.directory / "copy", "--json"]:
                run = self.run_talvo(*arguments, capture_output=False, stdout=full, stderr=subprocess.PIPE)
                self.assert_fails(run, 10 if arguments[0] == "get" else 1, "cannot write to stdout: No space left on device")
        for arguments in (["echo", *free], ["serve", self.out, *free]):
            for limit in () if SANITIZED else (4, 5):
                few = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
                self.assert_fails(self.run_talvo(*arguments, preexec_fn=few), 1, "cannot start the library: no descriptor")

    def test_wrong_arguments_give_one_line_and_status_2(self):
        file, to = self.make("file", ""), "127.0.0.1:1"
        file.chmod(0o600)
        recv = ["recv", "--port", 0, "--out"]
        endpoints = ("", ":", "host", "host:", ":80", "host:0", "host:65536", "host:-1", "host:1x", "host: 1", "1.2.3:80",
                     "256.1.1.1:80", "a b:80", "::1:80", "a/b:80", "[::1]", "[::1]:0", "[h]:80", "unix:x", "unix:@")
        urls = ("", "h", "ftp://h/", "https://", "http://", "http:///a", "http://h?q=1", "http://h?q=1/a", "http://h#a/",
                "http://u@h/", "http://u:p@h/", "http://h:98539/", "http://h:notaport/", "http://h:0/", "http://h:/",
                "http://1.2/", "http://h\\@i/", "http://[h]/", "http://[::1]:0/", "http://a b/", "http://h/a b", "http://h/a\tb", "http://h/a?b\x7f", "file://h/a",
                "file://a", "file://")
        for arguments in (*(["ping", endpoint] for endpoint in endpoints), *(["get", url] for url in urls),
                          [], ["fly"], ["recv"], ["recv", "--port", 0], ["recv", "--port", "x", "--out", self.out],
                          [*recv, self.directory / "no"], [*recv, file], [*recv, self.out, "extra"],
                          *([*recv, self.out, "--host", host] for host in ("here", "[h]", "[::1]:1", "unix:/x", "1.2")),
                          ["echo", "--host", "::1"], ["echo", "--host", "h:1"], ["get", "http://h/", "--connect-to", "h"],
                          ["echo", "--udp", "--type", "package", "--host", "unix:/x"], ["send", file], ["send", to],
                          ["send", self.directory / "no", to], ["send", "-", "-", to], ["send", file, "127.0.0.1"],
                          ["send", "-", to, "--name", "a/b"], ["send", file, to, "--name", "x"], *(["tls", to, "--alpn=" + wrong] for wrong in ("", ",", "h2,", "x" * 300)), ["send", file, to, "--bind", "h"], ["echo", "-q", "-v", "--port", 0],
                          ["send", file, to, "--secret-file", file], ["get", "http://h/", "--user", "ann:secret"],
                          *(["get", "http://h/", "-H", own] for own in ("content-length: 5", "Transfer-Encoding: chunked", "Range: bytes=1-")),
                          *(["serve", self.out, "--port", 0, "--cors=" + wrong] for wrong in ("", "a.test", "https://a.test/", "https://A.test", "https://a.test:443", "http://a,b")), ["help", "fly"],
                          ["send", file, to, "--fast"], ["send", file, to, "--udp"], ["echo", "--port", -1],
                          ["echo", "--port", 0, "--udp", "--type", "tcp"], ["ping", "a:1", "b:1"], ["ping", "a:1", "--count", 0],
                          ["ping", "a:1", "--size"], ["ping", "a:1", "--interval", "1.5"], ["ping", "a:1", "--type", "fast"],
                          ["ping", "a:1", "--udp", "--size", "65508"], ["flaky", to], ["flaky", "h:1", to], ["flaky", to, "h"],
                          *(["flaky", to, to, *wrong.split()] for wrong in ("--faults fire", "--every 1 --bytes 1", "--count 0"))):
            run = self.run_talvo(*arguments)
            self.assert_fails(run, 2)
            self.assertEqual("", run.stdout)
        self.assertEqual(self.run_talvo("fly").stderr, self.run_talvo("help", "fly").stderr)
        self.assertEqual(self.run_talvo("--help").stdout, self.run_talvo("help").stdout)
        self.assertEqual(self.run_talvo("send", "--help").stdout, self.run_talvo("help", "send").stdout)
        self.assertRegex(self.run_talvo("-V").stdout, r"^talvo \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    unittest.main()
