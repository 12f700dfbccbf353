#!/usr/bin/env python3
"""Runs `talvo get` as people do, against `talvo serve` and against a server that breaks off.

usage: get_test.py TALVO [TEST...]
"""
import pathlib
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

TALVO = sys.argv.pop(1)
PATIENCE = 240  # seconds; only how long a failing test takes
CONTENT = bytes(i * i % 251 for i in range(300000))


class GetTest(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.directory = pathlib.Path(temporary.name)
        (self.directory / "source").write_bytes(CONTENT)
        self.out = self.directory / "out"
        self.part = self.directory / "out.part"

    def serve(self):
        server = subprocess.Popen([TALVO, "serve", str(self.directory), "--host", "127.0.0.1", "--port", "0"], text=True,
                                  stdout=subprocess.PIPE)
        self.addCleanup(lambda: (server.terminate(), server.communicate(timeout=PATIENCE)))
        return f"http://127.0.0.1:{int(server.stdout.readline().rpartition(':')[2])}"

    def get(self, url, *arguments):
        done = subprocess.run([TALVO, "get", url, "--out", str(self.out), *arguments], text=True, capture_output=True,
                              timeout=PATIENCE)
        return done.returncode, done.stdout + done.stderr

    def test_a_beginning_is_gone_on_with(self):
        url = self.serve() + "/source"
        for name, beginning in (self.out, CONTENT[:1000]), (self.part, CONTENT[:1000]), (self.out, CONTENT):
            name.write_bytes(beginning)
            status, said = self.get(url, "--continue")
            self.assertEqual(0, status, said)
            self.assertEqual(CONTENT, self.out.read_bytes())
            self.assertFalse(self.part.exists())
            self.assertIn("got " + str(self.out), said)
            self.out.unlink()
        # The beginning of another version, as the tag tells, is not gone on with.
        self.part.write_bytes(b"old")
        (self.directory / "out.part.tag").write_text('"old"')
        self.assertEqual(0, self.get(url, "--continue")[0])
        self.assertEqual(CONTENT, self.out.read_bytes())

    def get_from(self, answer, *arguments):
        """Of a server that says this and closes."""
        with socket.create_server(("127.0.0.1", 0)) as listener:
            def serve():
                peer, _ = listener.accept()
                with peer:
                    peer.recv(65536)
                    peer.sendall(answer)
            thread = threading.Thread(target=serve)
            thread.start()
            done = self.get(f"http://127.0.0.1:{listener.getsockname()[1]}/", *arguments)
            thread.join()
        return done

    def test_only_the_rest_is_added(self):
        for part, body, wrong in (("4-8/9", b"there", None), ("4-8/*", b"there", None),
                                  ("3-8/9", b"?there", "another part than the rest"),
                                  ("4-7/9", b"ther", "another part than the rest"),
                                  ("4-8/9", b"there?", "more than the rest"), ("4-8/9", b"the", "less than the rest")):
            self.part.write_bytes(b"over")
            answer = f"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes {part}\r\n\r\n".encode() + body
            status, said = self.get_from(answer, "--continue")
            self.assertEqual((1 if wrong else 0, True), (status, (wrong or "got") in said), said)
            self.assertEqual(not wrong, self.out.exists())
            if not wrong:
                self.assertEqual(b"overthere", self.out.read_bytes())
                self.out.unlink()

    def test_what_is_not_whole_does_not_get_its_name(self):
        status, said = self.get_from(b'HTTP/1.1 200 OK\r\nETag: "v1"\r\nContent-Length: 9\r\n\r\nhalf')
        self.assertEqual(1, status)
        self.assertIn("the connection broke inside the body", said)
        self.assertFalse(self.out.exists())
        self.assertEqual(b"half", self.part.read_bytes())
        self.assertEqual('"v1"', (self.directory / "out.part.tag").read_text())

    def test_errors_are_told(self):
        status, said = self.get(self.serve() + "/missing")
        self.assertEqual((1, True), (status, "the server answered 404" in said), said)
        for url, expected in (f"file://{self.directory}/source", 0), (f"file://{self.directory}", 1), ("https://h/", 2):
            self.assertEqual(expected, self.get(url)[0], url)


if __name__ == "__main__":
    unittest.main()
