#!/usr/bin/env python3
"""Runs `talvo get` as people do, against `talvo serve` and against a server that breaks off."""
import fcntl
import http.client
import os
import signal
import socket
import stat
import subprocess
import termios
import threading
import unittest

from program import PATIENCE, TALVO, ProgramTest, poll

CONTENT = bytes(i * i % 251 for i in range(300000))


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
        self.assertEqual([0, 1], [self.get(f"file://{self.directory}{name}")[0] for name in ("/source", "")])

    def test_only_an_answer_that_fits_touches_anything(self):
        url = self.source()
        self.out.write_bytes(CONTENT + b"longer")
        self.out.chmod(0o600)
        before = os.stat(self.out)
        for wrong, said_why, *arguments in ((url + "x", "the server answered 404"), (url + "x", "404", "--continue"),
                                            ("http://127.0.0.1:1/", "refused", "--continue")):
            status, said = self.get(wrong, *arguments)
            self.assertEqual((1, True), (status, said_why in said), said)
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
        self.assertEqual(1, subprocess.run(["sh", "-c", '"$0" get "$1" >&- 2>/dev/null', TALVO, url], timeout=PATIENCE).returncode)

    def test_a_part_belongs_to_one_process_and_is_no_link(self):
        url = self.source()
        self.part.write_bytes(b"old")
        with open(self.part, "rb") as other:
            fcntl.flock(other, fcntl.LOCK_EX)
            self.assert_fails(self.run_talvo("get", url, "-o", self.out), 1, "another process is writing")
        self.assertEqual(b"old", self.part.read_bytes())
        victim = self.make("victim", "mine")
        for name, status in ("out.part", 1), ("out.part.tag", 0):
            self.part.unlink(missing_ok=True)
            (self.directory / name).symlink_to(victim)
            self.assertEqual((status, b"mine"), (self.get(url)[0], victim.read_bytes()))

    def get_from(self, answer, *arguments):
        """Of a server that says this and closes."""
        def serve():
            with listener.accept()[0] as peer:
                peer.recv(65536)
                peer.sendall(answer.encode())
        with socket.create_server(("127.0.0.1", 0)) as listener:
            thread = threading.Thread(target=serve)
            thread.start()
            done = self.get(f"http://127.0.0.1:{listener.getsockname()[1]}/", *arguments)
            thread.join()
        return done

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
                ("4-8/9", "there", date, "Last-Modified: " + other, wrong_version)):
            self.part.write_bytes(b"over")
            self.make("out.part.tag", had)
            answer = f"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes {part}\r\n{header}\r\n\r\n{body}"
            status, said = self.get_from(answer, "--continue")
            self.assertEqual((1 if cause else 0, True), (status, (cause or "got") in said), (part, had, header, said))
            if "another" in cause:
                self.assertEqual(b"over", self.part.read_bytes())
            self.assertEqual([b"overthere"] * (not cause), [path.read_bytes() for path in self.directory.glob("out")])
            self.out.unlink(missing_ok=True)

    def test_what_is_not_whole_does_not_get_its_name(self):
        status, said = self.get_from('HTTP/1.1 200 OK\r\nETag: "v1"\r\nContent-Length: 9\r\n\r\nhalf')
        self.assertEqual((1, True, False), (status, "the connection broke inside the body" in said, self.out.exists()))
        self.assertEqual((b"half", '"v1"'), (self.part.read_bytes(), (self.directory / "out.part.tag").read_text()))

    def test_a_reader_of_stdout_that_has_enough_is_no_problem(self):
        with subprocess.Popen([TALVO, "get", self.source()], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as getter:
            self.assertEqual(CONTENT[:1], os.read(getter.stdout.fileno(), 1))
            getter.stdout.close()
            self.assertEqual((b"", 128 + signal.SIGPIPE), (getter.stderr.read(), getter.wait(PATIENCE)))


if __name__ == "__main__":
    unittest.main()
