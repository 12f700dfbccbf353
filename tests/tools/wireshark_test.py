#!/usr/bin/env python3
"""The dissector reads the bytes that wire_peer_test.py exchanges with the program."""
import pathlib
import shutil
import subprocess
import unittest

from program import ProgramTest
from wire_peer_test import GOODBYE, REQUEST, RESPONSE, frame

DISSECTOR = pathlib.Path(__file__).parents[2] / "tools/wireshark/talvo.lua"
PORTS = "40000,7000"  # of client and server in the capture
TEXTS = [bytes([number]) * 300 for number in range(3)]


def find_fault():
    if not shutil.which("tshark"):
        return "tshark is not installed; scripts/setup installs it"
    version = subprocess.run(["tshark", "--version"], text=True, capture_output=True).stdout
    return "" if "with Lua" in version else "this tshark was built without Lua"


FAULT = find_fault()


def session(kind):
    """Pairs of whether the client speaks, and bytes: three messages and their echoes."""
    said = [(True, REQUEST), (False, RESPONSE)] if kind == "package" else []
    said += [(from_client, frame(kind, text)) for text in TEXTS for from_client in (True, False)]
    return said + [(True, GOODBYE)] * (kind != "length")


@unittest.skipIf(FAULT, FAULT)
class WiresharkTest(ProgramTest):
    def dissect(self, said, form, *fields, udp=False, piece=1400):
        """The values of each field, all packets in a row; and the expert's complaints."""
        packets = [("I" if from_client else "O", data[i:i + piece].hex())
                   for from_client, data in said for i in range(0, len(data), piece)]
        text = self.make("packets.txt", "".join(f"{way} {data}\n" for way, data in packets))
        capture = self.directory / "capture.pcap"
        line = "^(?<dir>[IO]) (?<data>[0-9a-f]+)$"
        subprocess.run(["text2pcap", "-q", "-r", line, "-u" if udp else "-T", PORTS, text, capture], check=True, capture_output=True)
        choose = ["-d", "udp.port==7000,talvo"] if udp else ["-o", "talvo.ports:7000"]
        arguments = [argument for field in (*fields, "_ws.expert.message", "_ws.lua.error") for argument in ("-e", field)]
        result = subprocess.run(["tshark", "-X", f"lua_script:{DISSECTOR}", "-o", f"talvo.form:{form}", *choose, "-r", capture,
                                 "-T", "fields", "-E", "separator=|", *arguments], text=True, capture_output=True)
        self.assertEqual(0, result.returncode, result.stderr)
        rows = [line.split("|") for line in result.stdout.splitlines()]
        columns = [[value for value in ",".join(column).split(",") if value] for column in zip(*rows)]
        self.assertEqual([], columns[-1])
        return columns[:-1]

    def test_reliable_connections_in_both_forms(self):
        for connect, token in (("0000000012340f", ""), ("0000000012341f" + "ab" * 16 + "00000007", "ab" * 16)):
            said = [(True, bytes.fromhex("01" + connect)), (False, bytes.fromhex("02" + connect)),
                    (True, bytes.fromhex("06000000000000000161")), (False, bytes.fromhex("040000000a"))]
            for piece in 1, 1400:
                columns = self.dissect(said, "reliable", "talvo.type", "talvo.contag", "talvo.ack", "talvo.token", piece=piece)
                self.assertEqual([["1", "2", "6", "4"], [str(0x1234)] * 2, ["0", "0", "0", "10"], [token] * 2 * bool(token), []],
                                 columns)

    def test_streams_whatever_their_segments(self):
        for kind in "package", "nopartial", "length":
            for piece in 1, 7, 1400:
                fields = ["talvo." + name for name in ("type", "length", "reason", "contag", "conntype", "payload")]
                kinds, lengths, reasons, tags, types, payloads, complaints = self.dissect(session(kind), kind, *fields, piece=piece)
                handshake = kind == "package"
                self.assertEqual([] if kind == "length" else ["1", "2"] * handshake + ["6"] * 6 + ["3"], kinds)
                self.assertEqual((["300"] * 6, [] if kind == "length" else ["0"], []), (lengths, reasons, complaints), (kind, piece))
                self.assertEqual((["0", "0"] * handshake, ["15", "15"] * handshake), (tags, types))
                self.assertEqual([text.hex() for text in TEXTS for _ in range(2)], payloads)

    def test_datagrams_and_decode_as(self):
        for kind in "package", "nopartial":
            said = session(kind)
            said[-2:-2] = [(True, said[-2][1] + b"xyz"), (True, said[-2][1][:-1])]
            kinds, rests, complaints = self.dissect(said, kind, "talvo.type", "talvo.rest", udp=True)
            self.assertEqual(["1", "2"] * (kind == "package") + ["6"] * 7 + ["3"], kinds)
            self.assertEqual(("78797a", 2), (rests[0], len(rests)))
            self.assertEqual(2, len([text for text in complaints if text.startswith("Dropped")]))

    def test_violations_are_marked(self):
        for form, data in ("package", b"\x07rest"), ("nopartial", b"\0"), ("length", bytes(4)):
            rests, complaints = self.dissect([(True, data)], form, "talvo.rest")
            self.assertEqual(([data.hex()], ["Ends the connection"]), (rests, complaints))


if __name__ == "__main__":
    unittest.main()
