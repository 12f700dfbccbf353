#!/usr/bin/env python3
"""A peer of its own, written from docs/wire-format.md, talks to the program in both roles, and looks at every byte."""
import os
import socket
import struct
import unittest

from program import HOST, PATIENCE, ProgramTest

REQUEST, RESPONSE = bytes.fromhex("01 00000000 0000 0F"), bytes.fromhex("02 00000000 0000 0F")
GOODBYE = bytes.fromhex("03 0000")


def package(payload):
    return b"\x06" + struct.pack(">I", len(payload)) + payload


def nopartial(payload):
    return b"\x06" + struct.pack(">II", 0, len(payload)) + payload


def length(payload):
    return struct.pack(">I", len(payload)) + payload


FRAMES = {"package": package, "package-keepalive": package, "nopartial": nopartial, "length": length}
OVER_UDP = "package", "package-keepalive", "nopartial"


def shakes_hands(kind):
    return kind.startswith("package")


class Peer:
    """Our end of a connection or of a flow of datagrams."""

    def __init__(self, end, kind):
        self.end, self.kind, self.frame = end, kind, FRAMES[kind]
        self.udp = end.type == socket.SOCK_DGRAM
        end.settimeout(PATIENCE)

    def send(self, data, one_by_one=False):
        for i in range(len(data)) if one_by_one else []:
            self.end.sendall(data[i:i + 1])
        if not one_by_one:
            self.end.sendall(data)

    def take(self, count):
        """That many bytes, over UDP a datagram, whatever it holds; fewer when the other side has ended."""
        if self.udp:
            return self.end.recv(65536)
        data = b""
        try:
            while len(data) < count and (piece := self.end.recv(count - len(data))):
                data += piece
        except ConnectionResetError:
            pass
        return data


class WirePeerTest(ProgramTest):
    def echo(self, kind, *more):
        return self.serve("echo", "--json", "--type", kind, *more).port

    def connect(self, port, kind, udp=False):
        end = socket.socket(socket.AF_INET, socket.SOCK_DGRAM if udp else socket.SOCK_STREAM)
        self.addCleanup(end.close)
        end.connect((HOST, port))
        return Peer(end, kind)

    def expect(self, peer, data):
        self.assertEqual(data, peer.take(len(data)), peer.kind)

    def shake_hands(self, peer, one_by_one=False):
        if shakes_hands(peer.kind):
            peer.send(REQUEST, one_by_one)
            self.expect(peer, RESPONSE)

    def expect_end(self, peer):
        self.assertEqual(b"", peer.take(1), peer.kind)

    def test_as_client_over_tcp(self):
        for kind, frame in FRAMES.items():
            peer = self.connect(self.echo(kind), kind)
            self.shake_hands(peer, one_by_one=True)
            self.shake_hands(peer)  # a second request is answered again
            peer.send(frame(b"abc"), one_by_one=True)
            self.expect(peer, frame(b"abc"))
            if kind != "length":
                peer.send(b"\x04\0\0\0\0" + frame(b"first after a keep-alive") + b"\x05" + frame(b"second")[1:])
                self.expect(peer, frame(b"first after a keep-alive") + frame(b"second"))
            large = os.urandom(60000)
            peer.send(frame(large) * 3)
            self.expect(peer, frame(large) * 3)
            if kind == "length":
                peer.end.shutdown(socket.SHUT_WR)
            else:
                peer.send(GOODBYE + frame(b"too late"))
            self.expect_end(peer)

    def test_as_client_over_udp(self):
        for kind in OVER_UDP:
            frame = FRAMES[kind]
            peer = self.connect(self.echo(kind, "--udp"), kind, udp=True)
            self.shake_hands(peer)
            self.shake_hands(peer)
            peer.send(frame(b"abc"))
            self.expect(peer, frame(b"abc"))
            # Neither half a PDU nor what stands behind one reaches the next datagram.
            peer.send(frame(b"half of it")[:-5])
            peer.send(frame(b"whole") + frame(b"too much"))
            peer.send(frame(b"and so on"))
            self.expect(peer, frame(b"whole"))
            self.expect(peer, frame(b"and so on"))
            # After a farewell the same address is a new peer.
            peer.send(GOODBYE)
            self.shake_hands(peer)
            peer.send(frame(b"again"))
            self.expect(peer, frame(b"again"))

    def ping(self, port, kind, *more):
        return self.start("ping", f"{HOST}:{port}", "--type", kind, "--count", 3, "--interval", 0, "--size", 5000, *more)

    def serve_pings(self, peer, count):
        for _ in range(count):
            data = peer.take(len(peer.frame(bytes(5000))))
            self.assertEqual(peer.frame(data[-5000:]), data, peer.kind)
            peer.send(data[:7], one_by_one=True) if not peer.udp else None
            peer.send(data if peer.udp else data[7:])
        self.expect(peer, b"" if peer.kind == "length" else GOODBYE)

    def end_well(self, ping):
        out, err = ping.communicate(timeout=PATIENCE)
        self.assertEqual((0, ""), (ping.returncode, err))
        self.assertIn("3 came back", out)

    def test_as_server_over_tcp(self):
        for kind in FRAMES:
            with socket.create_server((HOST, 0)) as listener:
                listener.settimeout(PATIENCE)
                ping = self.ping(listener.getsockname()[1], kind)
                with listener.accept()[0] as end:
                    peer = Peer(end, kind)
                    if shakes_hands(kind):
                        self.expect(peer, REQUEST)
                        peer.send(RESPONSE, one_by_one=True)
                        peer.send(RESPONSE)  # is ignored
                    self.serve_pings(peer, 3)
                    self.expect_end(peer)
            self.end_well(ping)

    def test_as_server_over_udp(self):
        for kind in OVER_UDP:
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as end:
                end.bind((HOST, 0))
                ping = self.ping(end.getsockname()[1], kind, "--udp")
                peer = Peer(end, kind)
                end.connect(end.recvfrom(65536, socket.MSG_PEEK)[1])
                if shakes_hands(kind):
                    for _ in range(3):  # it asks again while it gets no answer
                        self.expect(peer, REQUEST)
                    peer.send(RESPONSE)
                    peer.send(RESPONSE)
                self.serve_pings(peer, 3)
            self.end_well(ping)


if __name__ == "__main__":
    unittest.main()
