#!/usr/bin/env python3
"""A peer of its own, written from docs/wire-format.md, talks to the program in both roles, and looks at every byte."""
import os
import socket
import struct
import unittest

from program import HOST, PATIENCE, ProgramTest

REQUEST, RESPONSE = bytes.fromhex("01 00000000 0000 0F"), bytes.fromhex("02 00000000 0000 0F")
GOODBYE = bytes.fromhex("03 0000")
STREAM, DATAGRAMS = socket.SOCK_STREAM, socket.SOCK_DGRAM
KINDS = [(kind, over) for kind in ("package", "package-keepalive", "nopartial") for over in (STREAM, DATAGRAMS)]


def frame(kind, payload):
    head = b"" if kind == "length" else b"\x06" + bytes(4) * (kind == "nopartial")
    return head + struct.pack(">I", len(payload)) + payload


class WirePeerTest(ProgramTest):
    def open(self, over):
        end = self.enterContext(socket.socket(socket.AF_INET, over))
        end.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, struct.pack("ll", PATIENCE, 0))
        return end

    def send(self, end, data):
        """Over a stream byte by byte, as far as a head may reach."""
        alone = 20 if end.type == STREAM else 0
        for i in range(min(alone, len(data))):
            end.sendall(data[i:i + 1])
        if len(data) > alone:
            end.sendall(data[alone:])

    def take(self, end, count):
        """So many bytes, or a datagram."""
        return end.recv(65536) if end.type == DATAGRAMS else end.recv(count, socket.MSG_WAITALL)

    def expect(self, end, data):
        self.assertEqual(data, self.take(end, len(data)))

    def expect_end(self, end):
        try:
            self.assertEqual(b"", end.recv(1))
        except ConnectionResetError:
            pass

    def shake_hands(self, end, kind):
        if kind.startswith("package"):
            self.send(end, REQUEST)
            self.expect(end, RESPONSE)

    def test_as_client(self):
        for kind, over in *KINDS, ("length", STREAM):
            with self.subTest(kind=kind, over=over):
                end = self.open(over)
                end.connect((HOST, self.serve("echo", "--json", "--type", kind, *["--udp"] * (over == DATAGRAMS)).port))
                self.shake_hands(end, kind)
                self.shake_hands(end, kind)  # a second request is answered again
                for_echo = frame(kind, b"abc")
                self.send(end, for_echo)
                self.expect(end, for_echo)
                if over == DATAGRAMS:
                    # Neither half a PDU nor what stands behind one reaches the next datagram.
                    for data in frame(kind, b"half of it")[:-5], for_echo + frame(kind, b"too much"), GOODBYE:
                        self.send(end, data)
                    self.expect(end, for_echo)
                    self.shake_hands(end, kind)  # after a farewell the same address is a new peer
                    self.send(end, for_echo)
                    self.expect(end, for_echo)
                    continue
                if kind != "length":
                    self.send(end, b"\4\0\0\0\0" + for_echo + b"\5" + for_echo[1:])  # a keep-alive and a first part
                    self.expect(end, for_echo * 2)
                large = frame(kind, os.urandom(60000)) * 3
                end.sendall(large)
                self.expect(end, large)
                end.shutdown(socket.SHUT_WR) if kind == "length" else end.sendall(GOODBYE + frame(kind, b"too late"))
                self.expect_end(end)

    def test_as_server(self):
        for kind, over in *KINDS, ("length", STREAM):
            with self.subTest(kind=kind, over=over):
                end = self.open(over)
                end.bind((HOST, 0))
                if over == STREAM:
                    end.listen()
                ping = self.start("ping", f"{HOST}:{end.getsockname()[1]}", "--type", kind, *["--udp"] * (over == DATAGRAMS),
                                  "--count", 3, "--interval", 0, "--size", 5000)
                if over == STREAM:
                    end = self.enterContext(end.accept()[0])
                else:
                    end.connect(end.recvfrom(65536, socket.MSG_PEEK)[1])
                if kind.startswith("package"):
                    for _ in range(3 if over == DATAGRAMS else 1):  # it asks again while it gets no answer
                        self.expect(end, REQUEST)
                    self.send(end, RESPONSE)
                    self.send(end, RESPONSE)  # is ignored
                for _ in range(3):
                    data = self.take(end, len(frame(kind, bytes(5000))))
                    self.assertEqual(frame(kind, data[-5000:]), data)
                    self.send(end, data)
                self.expect(end, b"" if kind == "length" else GOODBYE)
                out, err = ping.communicate(timeout=PATIENCE)
                self.assertEqual((0, "", True), (ping.returncode, err, "3 came back" in out))


if __name__ == "__main__":
    unittest.main()
