#!/usr/bin/env python3
"""The dissector reads the library's own traffic: a relay between the program's two ends writes it down as a capture."""
import pathlib
import selectors
import shutil
import socket
import struct
import subprocess
import unittest

from program import HOST, PATIENCE, ProgramTest

DISSECTOR = pathlib.Path(__file__).parents[2] / "tools/wireshark/talvo.lua"
CLIENT, SERVER = 40000, 7000  # ports in the capture
SIZE = 300  # bytes of a ping's message


def record(end, upstream, record_of, udp):
    """Passes on what comes at either end until the one who asked, `end`, has closed, or over UDP has said farewell."""
    with selectors.DefaultSelector() as selector:
        for source in end, upstream:
            source.settimeout(PATIENCE)
            selector.register(source, selectors.EVENT_READ)
        while ready := selector.select(PATIENCE):
            for key, _ in ready:
                data = key.fileobj.recv(65536)
                if data:
                    record_of.append((key.fileobj is end, data))
                    (upstream if key.fileobj is end else end).sendall(data)
                if not data or (udp and data[0] == 3):
                    return
    raise AssertionError("nothing happens any more")


def packets(said, udp, piece):
    """The same as IPv4 packets, a stream cut into segments of at most so many bytes."""
    numbers = {True: 1, False: 1}
    for from_client, data in said:
        for i in range(0, len(data), len(data) if udp else piece):
            part = data if udp else data[i:i + piece]
            ports = (CLIENT, SERVER) if from_client else (SERVER, CLIENT)
            if udp:
                inner = struct.pack(">HHHH", *ports, 8 + len(part), 0) + part
            else:
                inner = struct.pack(">HHIIBBHHH", *ports, numbers[from_client], numbers[not from_client], 0x50, 0x18, 65535, 0,
                                    0) + part
            numbers[from_client] += len(part)
            hosts = [b"\x0a\0\0\x01", b"\x0a\0\0\x02"]
            yield struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(inner), 0, 0, 64, 17 if udp else 6, 0) + \
                b"".join(hosts if from_client else hosts[::-1]) + inner


def write_capture(path, data):
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))  # 101: packets begin with their IP header
        for i, packet in enumerate(data):
            file.write(struct.pack("<IIII", i, 0, len(packet), len(packet)) + packet)


def find_fault():
    if not shutil.which("tshark"):
        return "tshark is not installed; scripts/setup installs it"
    version = subprocess.run(["tshark", "--version"], text=True, capture_output=True).stdout
    return "" if "with Lua" in version else "this tshark was built without Lua"


FAULT = find_fault()


@unittest.skipIf(FAULT, FAULT)
class WiresharkTest(ProgramTest):
    def traffic(self, kind, *udp):
        """What a `talvo ping` and a `talvo echo` say to each other: pairs of whether the client speaks, and bytes."""
        said = []
        over = ["--type", kind, *udp]
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM if udp else socket.SOCK_STREAM) as listener, \
                socket.socket(socket.AF_INET, listener.type) as upstream:
            upstream.connect((HOST, self.serve("echo", *over).port))
            listener.bind((HOST, 0))
            if not udp:
                listener.listen()
            ping = self.start("ping", f"{HOST}:{listener.getsockname()[1]}", *over, "--count", 3, "--interval", 0, "--size", SIZE)
            listener.settimeout(PATIENCE)
            if udp:
                listener.connect(listener.recvfrom(65536, socket.MSG_PEEK)[1])
            end = listener if udp else listener.accept()[0]
            record(end, upstream, said, udp)
            end.close()
            self.assertEqual(0, ping.wait(PATIENCE))
        return said

    def dissect(self, data, form, *fields, choose=("-o", f"talvo.ports:{SERVER}")):
        """The values of each field, all packets in a row; and the expert's complaints."""
        path = self.directory / "capture.pcap"
        write_capture(path, data)
        arguments = [argument for field in (*fields, "_ws.expert.message", "_ws.lua.error") for argument in ("-e", field)]
        result = subprocess.run(["tshark", "-X", f"lua_script:{DISSECTOR}", "-o", f"talvo.form:{form}", *choose, "-r", path,
                                 "-T", "fields", "-E", "separator=|", *arguments], text=True, capture_output=True)
        self.assertEqual(0, result.returncode, result.stderr)
        rows = [line.split("|") for line in result.stdout.splitlines()]
        columns = [[value for value in ",".join(column).split(",") if value] for column in zip(*rows)]
        self.assertEqual([], columns[-1])
        return columns[:-1]

    def test_streams_whatever_their_segments(self):
        for kind in "package", "nopartial", "length":
            said = self.traffic(kind)
            for piece in 1, 7, 1400:
                wanted = [str(SIZE)] * 6
                if kind == "length":
                    lengths, complaints = self.dissect(packets(said, False, piece), kind, "talvo.length")
                else:
                    handshake = ["1", "2"] if kind == "package" else []
                    kinds, lengths, reasons, complaints = self.dissect(packets(said, False, piece), kind, "talvo.type",
                                                                       "talvo.length", "talvo.reason")
                    self.assertEqual((handshake + ["6"] * 6 + ["3"], ["0"]), (kinds, reasons))
                self.assertEqual((wanted, []), (lengths, complaints), (kind, piece))

    def test_every_byte_has_its_field(self):
        said = self.traffic("package")
        tags, types, acks, payloads, _ = self.dissect(packets(said, False, 1400), "package", "talvo.contag", "talvo.conntype",
                                                      "talvo.ack", "talvo.payload")
        self.assertEqual((["0", "0"], ["15", "15"], ["0", "0"]), (tags, types, acks))
        stream = b"".join(data for from_client, data in said if from_client)
        sent = [stream[8 + i * (5 + SIZE):][5:5 + SIZE].hex() for i in range(3)]
        self.assertEqual([payload for payload in sent for _ in range(2)], payloads)

    def test_datagrams_and_decode_as(self):
        for kind in "package", "nopartial":
            said = self.traffic(kind, "--udp")
            said[-2:-2] = [(True, said[-2][1] + b"xyz"), (True, said[-2][1][:-1])]
            kinds, rests, complaints = self.dissect(packets(said, True, 0), kind, "talvo.type", "talvo.rest",
                                                    choose=("-d", f"udp.port=={SERVER},talvo"))
            self.assertEqual(["1", "2"] * (kind == "package") + ["6"] * 7 + ["3"], kinds)
            self.assertEqual(("78797a", 2), (rests[0], len(rests)))
            self.assertEqual(2, len([text for text in complaints if text.startswith("Dropped")]))

    def test_violations_are_marked(self):
        for form, data in ("package", b"\x07rest"), ("nopartial", b"\0"), ("length", bytes(4)):
            rests, complaints = self.dissect(packets([(True, data)], False, 1400), form, "talvo.rest")
            self.assertEqual(([data.hex()], ["Ends the connection"]), (rests, complaints))


if __name__ == "__main__":
    unittest.main()
