#!/usr/bin/env python3
"""Runs `talvo get` as people do, against `talvo serve` and against a server that breaks off."""
import contextlib
import fcntl
import gzip
import http.client
import json
import os
import re
import signal
import socket
import stat
import subprocess
import termios
import threading
import unittest

from program import PATIENCE, TALVO, ProgramTest, poll

CONTENT = bytes(i * i % 251 for i in range(300000))


def read_request(peer):
    request = b""
    while True:
        head, end, body = request.partition(b"\r\n\r\n")
        length = re.search(rb"Content-Length: (\d+)", head)
        if end and len(body) >= int(length[1] if length else 0):
            return request.decode()
        piece = peer.recv(65536)
        assert piece, "the request is cut"
        request += piece


class GetTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.make("source", CONTENT)
        self.out = self.directory / "out"
        self.part = self.directory / "out.part"

    def source(self):
        return self.serve("serve", self.directory).url + "/source"

    def get(self, url, *arguments, out=None):
        done = self.run_talvo("get", url, "--out", out or self.out, *arguments)
        return done.returncode, done.stdout + done.stderr

    def test_a_beginning_is_gone_on_with(self):
        url = self.source()
        tag = http.client.HTTPConnection(url.split("/")[2], timeout=PATIENCE)
        tag.request("HEAD", "/source")
        tag = tag.getresponse().headers["ETag"]
        # Neither another version, as the tag shows, nor a file without a tag is a beginning.
        for beginning, version, got in ((CONTENT[:1000], tag, len(CONTENT) - 1000), (CONTENT, tag, 0),
                                        (b"old", '"old"', len(CONTENT)), (b"foreign", "", len(CONTENT))):
            self.out.write_bytes(b"foreign")
            self.part.write_bytes(beginning)
            self.make("out.part.tag", version)
            status, said = self.get(url, "--continue", "--json")
            self.assertEqual((0, True), (status, f'"bytes":{got},' in said.replace(" ", "")), said)
            self.assertEqual(CONTENT, self.out.read_bytes())
            self.assertFalse(self.part.exists())
        self.assertEqual([0, 10], [self.get(f"file://{self.directory}{name}")[0] for name in ("/source", "")])
        self.make("large", bytes((1 << 20) + 1))
        self.assertIn("more than 1 MiB", self.get(f"file://{self.directory}/large")[1])

    def test_only_an_answer_that_fits_touches_anything(self):
        url = self.source()
        self.out.write_bytes(CONTENT + b"longer")
        self.out.chmod(0o600)
        before = os.stat(self.out)
        for wrong, cause, said_why, *arguments in ((url + "x", 9, "the server answered 404"), (url + "x", 9, "404", "--continue"),
                                                   ("http://127.0.0.1:1/", 4, "refused", "--continue")):
            status, said = self.get(wrong, *arguments)
            self.assertEqual((cause, True), (status, said_why in said), said)
            after = os.stat(self.out)
            self.assertEqual((before.st_ino, before.st_mtime_ns), (after.st_ino, after.st_mtime_ns), said)
            self.assertEqual(["out", "source"], sorted(os.listdir(self.directory)))
        self.assertEqual((0, CONTENT), (self.get(url)[0], self.out.read_bytes()))
        self.assertEqual(0o600, stat.S_IMODE(os.stat(self.out).st_mode))

    def test_what_is_no_regular_file_is_written_to_and_stays(self):
        url = self.source()
        os.mkfifo(self.out)
        with open(self.directory / "read", "w+b") as read, subprocess.Popen(["cat", self.out], stdout=read) as reader:
            status, said = self.get(url)
            reader.wait(PATIENCE)
            read.seek(0)
            self.assertEqual((0, CONTENT), (status, read.read()), said)
        # A signal ends the wait for a reader that does not read.
        reader = os.open(self.out, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        getter = self.start("get", url, "-o", self.out)
        poll("data arrives", lambda: any(fcntl.ioctl(reader, termios.FIONREAD, bytes(4))))
        getter.terminate()
        self.assertEqual(143, getter.wait(PATIENCE))
        self.assertTrue(self.out.is_fifo())
        self.assertEqual(2, self.get(url, "--continue")[0])
        self.out.unlink()
        # Links are followed, whether they lead to a file or not.
        for target in "real", "elsewhere":
            self.out.symlink_to(target)
            (self.directory / "real").write_bytes(b"old")
            self.assertEqual((0, CONTENT), (self.get(url)[0], (self.directory / target).read_bytes()))
            self.assertTrue(self.out.is_symlink())
            self.out.unlink()
        (self.directory / "sub").mkdir()
        self.out.symlink_to("sub")
        for wrong in self.out, self.directory / "no" / "file", str(self.out) + "/", "/dev/null/x", self.directory / ("n" * 247):
            self.assert_fails(self.run_talvo("get", url, "-o", wrong), 2)
        self.assertEqual(0, self.get(url, out=self.directory / ("n" * 246))[0])  # ".part.tag" has room behind it
        done = self.run_talvo("get", url, "-o", "-", text=False, cwd=self.directory)
        self.assertEqual((0, CONTENT, False), (done.returncode, done.stdout, (self.directory / "-").exists()))
        # A file that is open already keeps what it holds; a closed stdout is none of the program's own handles.
        with self.make("log", "kept\n").open("ab") as log:
            self.assertEqual(2, self.run_talvo("get", url, "-o", "/dev/fd/2", capture_output=False, stderr=log).returncode)
        self.assertTrue((self.directory / "log").read_bytes().startswith(b"kept\n"))
        self.assertEqual(10, subprocess.run(["sh", "-c", '"$0" get "$1" >&- 2>/dev/null', TALVO, url], timeout=PATIENCE).returncode)

    def test_a_part_belongs_to_one_process_and_is_no_link(self):
        url = self.source()
        self.part.write_bytes(b"old")
        with open(self.part, "rb") as other:
            fcntl.flock(other, fcntl.LOCK_EX)
            self.assert_fails(self.run_talvo("get", url, "-o", self.out), 10, "another process is writing")
        self.assertEqual(b"old", self.part.read_bytes())
        victim = self.make("victim", "mine")
        for name, status in ("out.part", 10), ("out.part.tag", 0):
            self.part.unlink(missing_ok=True)
            (self.directory / name).symlink_to(victim)
            self.assertEqual((status, b"mine"), (self.get(url)[0], victim.read_bytes()))

    @contextlib.contextmanager
    def scripted(self, *answers):
        """A server that says these, one a connection, and closes each. Yields its URL and the list of requests."""
        requests = []

        def serve():
            for answer in answers:
                with listener.accept()[0] as peer:
                    peer.settimeout(PATIENCE)
                    requests.append(read_request(peer))
                    peer.sendall(answer if isinstance(answer, bytes) else answer.encode())
        with socket.create_server(("127.0.0.1", 0)) as listener:
            listener.settimeout(PATIENCE)
            thread = threading.Thread(target=serve)
            thread.start()
            yield f"http://127.0.0.1:{listener.getsockname()[1]}", requests
            thread.join()

    def get_from(self, answer, *arguments):
        with self.scripted(answer) as (url, _):
            return self.get(url + "/", *arguments)

    def test_a_failed_transfer_is_resumed(self):
        whole = 'HTTP/1.1 200 OK\r\n{}\r\nContent-Length: 9\r\n\r\nover'
        rest = 'HTTP/1.1 206 Partial Content\r\nETag: "v1"\r\nContent-Range: bytes 4-8/9\r\nContent-Length: 5\r\n\r\nthere'
        again = 'HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\noverthere'
        longer = rest.replace("4-8/9", "4-10/11").replace(": 5", ": 7") + "..."
        tag, busy = 'ETag: "v1"', "HTTP/1.1 503 Busy\r\nContent-Length: 0\r\nRetry-After: 0\r\n\r\n"
        for out, version, status, *answers in ((self.out, tag, 0, busy, whole, rest), (self.out, 'ETag: W/"v1"', 0, whole, again),
                                               ("-", tag, 0, whole, rest), ("-", tag, 11, whole, again), ("-", tag, 11, whole, longer)):
            with self.scripted(*(answer.replace("{}", version) for answer in answers)) as (url, requests):
                done = self.run_talvo("get", url + "/", "--retry", 2, "--out", out)
            self.assertEqual((status, len(answers) - 1), (done.returncode, done.stderr.count("next attempt in")), done.stderr)
            self.assertEqual(version == tag, "If-Range: \"v1\"\r\n" in requests[-1] and "Range: bytes=4-\r\n" in requests[-1])
            self.assertEqual("over" if status else "overthere", done.stdout if out == "-" else self.out.read_text())
        # What may have been done is not done again, nor is a refusal asked for again, nor is more tried than was allowed.
        for answers, status, *arguments in (([busy], 9, "--data", "x", "--retry", 1), (["HTTP/1.1 404 N\r\n\r\n"], 9, "--retry", 1),
                                            ([busy, busy], 9, "--retry", 1), ([whole.replace("{}", "A: b")], 7)):
            with self.scripted(*answers) as (url, requests):
                self.assertEqual((status, len(answers)), (self.get(url + "/", *arguments)[0], len(requests)), arguments)

    def test_a_compressed_body_is_written_plain(self):
        bomb = gzip.compress(bytes(50_000_000))
        for body, kind, status, size in ((gzip.compress(CONTENT), "text/plain", 0, len(CONTENT)), (bomb, "text/plain", 0, 50_000_000),
                                         (gzip.compress(b"a") * 2, "text/plain", 0, 2), (bomb[:-9], "text/plain", 7, 0),
                                         (b"plain", "text/plain", 8, 0), (bomb, "application/gzip", 0, len(bomb))):
            self.out.unlink(missing_ok=True)
            head = f"HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Type: {kind}\r\nContent-Length: {len(body)}\r\n\r\n"
            self.assertEqual(status, self.get_from(head.encode() + body)[0], (kind, size))
            self.assertEqual([size] * (not status), [path.stat().st_size for path in self.directory.glob("out")])
        self.assertEqual(8, self.get_from("HTTP/1.1 200 OK\r\nContent-Encoding: br\r\n\r\nx")[0])

    def test_requests_are_those_of_the_arguments(self):
        done = "HTTP/1.1 204 No Content\r\n\r\n"
        body = self.make("body", "a=b")
        secret = self.make("secret", "word\nmore")
        for arguments, first, *others in ((["-H", "A: b", "-H", "User-Agent:"], "GET / ", "A: b\r\n", "Accept-Encoding: gzip\r\n"),
                                          (["-d", "@" + str(body)], "POST / ", "Content-Length: 3\r\n", "urlencoded\r\n", "\r\n\r\na=b"),
                                          (["-d", "", "-X", "PUT", "-H", "Content-Type: a/b"], "PUT / ", "Content-Type: a/b\r\n")):
            with self.scripted(done) as (url, requests):
                self.assertEqual(0, self.get(url, *arguments)[0])
            self.assertTrue(requests[0].startswith(first) and all(other in requests[0] for other in others), requests)
            self.assertEqual("User-Agent:" in arguments, "User-Agent" not in requests[0])
        with self.scripted('HTTP/1.1 401 No\r\nWWW-Authenticate: Basic realm="r"\r\nContent-Length: 0\r\n\r\n', done) as (url, requests):
            self.assertEqual(0, self.get(url, "--user", "ann", "--password-file", secret)[0])
        self.assertIn("Authorization: Basic YW5uOndvcmQ=\r\n", requests[1])
        for wrong in ["-H", "A"], ["-H", "Range: bytes=0-"], ["-u", "ann:word"], ["-X", "A B"], ["--limit-rate", "x"], ["-d", "@none"]:
            self.assertEqual(2, self.get("http://127.0.0.1:1/", *wrong)[0], wrong)

    def test_several_urls(self):
        for name in "a b", "c.txt":
            self.make(name, name)
        (self.directory / "into").mkdir()
        url = self.serve("serve", self.directory).url
        into = self.directory / "into"
        run = self.run_talvo("get", url + "/a%20b?x=/y", url + "/none", "http://127.0.0.1:1/x", url + "/c.txt", "--output-dir", into, "--json",
                             "--limit-rate", "1G")
        self.assertEqual((9, {"a b": "a b", "c.txt": "c.txt"}), (run.returncode, {path.name: path.read_text() for path in into.iterdir()}))
        self.assertEqual([("got", None), ("failed", "refused"), ("failed", "connect"), ("got", None)],
                         [(line["event"], line.get("cause")) for line in map(json.loads, run.stdout.splitlines())])
        self.assertEqual("a bc.txt", self.run_talvo("get", url + "/a%20b", url + "/c.txt").stdout)
        self.make("of a file", "here")
        self.assertEqual(0, self.run_talvo("get", "-O", f"file://{self.directory}/of a file", cwd=into).returncode)
        self.assertEqual("here", (into / "of a file").read_text())
        for wrong in [url + "/"], [url + "/x", url + "/y/x"], [url + "/%2e%2e"], [url + "/a%2fb"]:
            self.assert_fails(self.run_talvo("get", "-O", *wrong, cwd=into), 2)

    def test_only_the_rest_of_the_same_version_is_added(self):
        date, other = "Wed, 21 Oct 2015 07:28:00 GMT", "Wed, 21 Oct 2020 07:28:00 GMT"
        wrong_part, wrong_version = "another part than the rest", "a part of another version"
        for part, body, had, header, cause in (
                ("4-8/9", "there", date, "A: b", ""), ("4-8/*", "there", date, "A: b", ""),
                ("3-8/9", "?there", date, "A: b", wrong_part), ("4-7/9", "ther", date, "A: b", wrong_part),
                *((part, "there", date, "A: b", wrong_part) for part in ("*/9", "4-8", "4/9-8", "4-9/9", "5-4/9", "-4-8/9",
                                                                         "4-99999999999999999999/*", "4-8/9x")),
                ("4-8/9", "there?", date, "A: b", "more than the rest"), ("4-8/9", "the", date, "A: b", "less than the rest"),
                ("4-8/9", "there", date, "Content-Encoding: gzip", wrong_version),
                ("4-8/9", "there", '"a"', 'ETag: "a"', ""), ("4-8/9", "there", '"a"', 'ETag: "b"', wrong_version),
                ("4-8/9", "there", '"a"', 'ETag: W/"a"', wrong_version),
                ("4-8/9", "there", '"a"', "Last-Modified: " + date, wrong_version),
                ("4-8/9", "there", date, "Last-Modified: " + date, ""), ("4-8/9", "there", date, 'ETag: "a"', ""),
                ("4-8/9", "there", date, "Last-Modified: " + other, wrong_version), ("4-8/9", "there", '"a"\n9', 'ETag: "a"', ""),
                ("4-8/9", "there", '"a"\n11', 'ETag: "a"', wrong_version), ("4-8/*", "there", date + "\n11", "A: b", wrong_version)):
            self.part.write_bytes(b"over")
            self.make("out.part.tag", had)
            answer = f"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes {part}\r\n{header}\r\n\r\n{body}"
            status, said = self.get_from(answer, "--continue")
            expected = {"": 0, wrong_version: 11, "less than the rest": 7}.get(cause, 8)
            self.assertEqual((expected, True), (status, (cause or "got") in said), (part, had, header, said))
            if "another" in cause:
                self.assertEqual(b"over", self.part.read_bytes())
            self.assertEqual([b"overthere"] * (not cause), [path.read_bytes() for path in self.directory.glob("out")])
            self.out.unlink(missing_ok=True)

    def test_what_is_not_whole_does_not_get_its_name(self):
        status, said = self.get_from('HTTP/1.1 200 OK\r\nETag: "v1"\r\nContent-Length: 9\r\n\r\nhalf')
        self.assertEqual((7, True, False), (status, "the connection broke inside the body" in said, self.out.exists()))
        tag = (self.directory / "out.part.tag").read_text()
        self.assertEqual((b"half", ['"v1"', "9"]), (self.part.read_bytes(), tag.split("\n")[:2]))
        # The same tag of another URL is another file's.
        with self.scripted('HTTP/1.1 200 OK\r\nETag: "v1"\r\nContent-Length: 9\r\n\r\nsomething') as (url, requests):
            self.assertEqual(0, self.get(url + "/other", "--continue")[0])
        self.assertEqual((b"something", False), (self.out.read_bytes(), "Range" in requests[0]))

    def test_a_reader_of_stdout_that_has_enough_is_no_problem(self):
        with subprocess.Popen([TALVO, "get", self.source()], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as getter:
            self.assertEqual(CONTENT[:1], os.read(getter.stdout.fileno(), 1))
            getter.stdout.close()
            self.assertEqual((b"", 128 + signal.SIGPIPE), (getter.stderr.read(), getter.wait(PATIENCE)))


if __name__ == "__main__":
    unittest.main()
