#!/usr/bin/env python3
"""Publishes lines to subscribers."""
import fcntl
import json
import signal
import socket
import struct
import subprocess
import termios
import unittest

from program import ANY_PORT, HOST, PATIENCE, ProgramTest, Server, poll


class PublishTest(ProgramTest):
    def publish(self, *arguments):
        process = self.start("publish", *ANY_PORT, "--json", *arguments, stdin=subprocess.PIPE, bufsize=1)
        return process, Server(process)

    def test_lines_reach_those_who_joined_and_the_newest_of_each_key_those_who_ask(self):
        for kind in "tcp", "package", "reliable":
            publish, server = self.publish("--type", kind, "--policy", "conflate", "--key-field", 1)
            early = self.start("subscribe", "--type", kind, server.address)
            self.assertEqual("joined", json.loads(publish.stdout.readline())["event"])
            for line in "a 1\n", "b 2\n", "a 3\n":
                publish.stdin.write(line)
                self.assertEqual(line, early.stdout.readline())
            late = self.start("subscribe", "--type", kind, server.address, "--join", "all-keys")
            self.assertEqual("joined", json.loads(publish.stdout.readline())["event"])
            publish.communicate("c", timeout=PATIENCE)
            self.assertEqual(("c\n", "b 2\na 3\nc\n"), tuple(s.communicate(timeout=PATIENCE)[0] for s in (early, late)))
            self.assertEqual((0, 0, 0), (publish.returncode, early.returncode, late.returncode))

    def test_long_lines_arrive_whole_or_are_reported(self):
        lines = ["a" * 65530, "b" * 65531, "c"]
        for kind, most in ("tcp", 1 << 24), ("length", 1 << 24), ("package", 65531):
            publish, server = self.publish("--type", kind)
            subscribe = self.start("subscribe", "--type", kind, server.address)
            self.assertEqual("joined", json.loads(publish.stdout.readline())["event"])
            out = publish.communicate("\n".join(lines), timeout=PATIENCE)[0]
            self.assertEqual("".join(line + "\n" for line in lines if len(line) < most), subscribe.communicate(timeout=PATIENCE)[0])
            self.assertEqual((0, "") if most > 65531 else (1, "line 2 was not sent: its 65531 bytes are too long for one message"),
                             (publish.returncode, json.loads(out)["reason"] if out else ""))

    def test_any_reader_of_a_socket_is_a_receiver(self):
        for request, ends in (b"GET / HTTP/1.0\r\n\r\n", False), (b"", True):
            publish, server = self.publish()
            with socket.create_connection((HOST, server.port), PATIENCE) as reader:
                reader.sendall(request)
                if ends:
                    reader.shutdown(socket.SHUT_WR)
                self.assertEqual("joined", json.loads(publish.stdout.readline())["event"])
                publish.communicate("hello\n", timeout=PATIENCE)
                self.assertEqual(b"hello\n", reader.makefile("rb").read())

    def test_a_subscriber_ends_when_its_output_does_not_go_on(self):
        publish, server = self.publish()
        with open("/dev/full", "w") as full:
            lost = self.start("subscribe", server.address, stdout=full)
        stalled = self.start("subscribe", server.address)
        for _ in range(2):
            self.assertEqual("joined", json.loads(publish.stdout.readline())["event"])
        publish.stdin.write(("x" * 65000 + "\n") * 4)
        self.assertEqual((1, "talvo: cannot write to stdout: No space left on device\n"), (lost.wait(PATIENCE), lost.stderr.read()))
        poll("the pipe is full", lambda: struct.unpack("i", fcntl.ioctl(stalled.stdout, termios.FIONREAD, bytes(4)))[0] > 65000)
        stalled.terminate()
        self.assertEqual(128 + signal.SIGTERM, stalled.wait(PATIENCE))

    def test_the_end_does_not_wait_for_a_stopped_receiver(self):
        patience = self.make("patience", "[Proxy]\nLingerSeconds=1\n")
        publish, server = self.publish("--policy", "conflate", "--key-field", 1, "--config", patience)
        with socket.create_connection((HOST, server.port), PATIENCE) as stopped:
            stopped.sendall(b"\n")
            self.assertEqual("joined", json.loads(publish.stdout.readline())["event"])
            out = publish.communicate("".join(f"{n} {'x' * 50000}\n" for n in range(400)), timeout=PATIENCE)[0]
        self.assertEqual(1, publish.returncode)
        self.assertIn("messages remain", out)


unittest.main()
