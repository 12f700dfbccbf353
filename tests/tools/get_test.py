#!/usr/bin/env python3
"""Runs `talvo get` as people do, against `talvo serve` and against a server that breaks off."""
import fcntl
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
        self.make("out.part.tag", '"old"')
        self.assertEqual(0, self.get(url, "--continue")[0])
        self.assertEqual(CONTENT, self.out.read_bytes())

    def test_only_an_answer_that_fits_touches_anything(self):
        url = self.source()
        self.out.write_bytes(CONTENT + b"longer")
        self.out.chmod(0o600)
        before = os.stat(self.out)
        for wrong, said_why, *arguments in ((url + "x", "the server answered 404"), (url + "x", "404", "--continue"),
                                            (url, "", "--continue"), ("http://127.0.0.1:1/", "refused", "--continue")):
            status, said = self.get(wrong, *arguments)
            self.assertEqual((1, True), (status, said_why in said), said)
            after = os.stat(self.out)
            self.assertEqual((before.st_ino, before.st_mtime_ns), (after.st_ino, after.st_mtime_ns), said)
            self.assertEqual(["out", "source"], sorted(os.listdir(self.directory)))
        self.assertEqual(0, self.get(url)[0])
        self.assertEqual(CONTENT, self.out.read_bytes())
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
            self.assertEqual(0, self.get(url)[0])
            self.assertEqual((target, CONTENT), (os.readlink(self.out), (self.directory / target).read_bytes()))
            self.out.unlink()
        (self.directory / "sub").mkdir()
        self.out.symlink_to("sub")
        for wrong in (self.out, self.directory / "sub", self.directory / "no" / "file", str(self.out) + "/", "/dev/null/x",
                      self.directory / ("n" * 247)):
            self.assert_fails(self.run_talvo("get", url, "-o", wrong), 2)
        self.assertEqual(0, self.get(url, out=self.directory / ("n" * 246))[0])  # ".part.tag" has room behind it
        done = self.run_talvo("get", url, "-o", "-", text=False, cwd=self.directory)
        self.assertEqual((0, CONTENT, False), (done.returncode, done.stdout, (self.directory / "-").exists()))
        # A file that is open already keeps what it holds; a closed stdout is none of the program's own handles.
        log = self.make("log", "kept\n")
        for name in "/dev/stderr", "/dev/fd/2", "/proc/self/fd/2":
            with log.open("ab") as error:
                self.assertEqual(2, self.run_talvo("get", url, "-o", name, capture_output=False, stderr=error).returncode)
        self.assertTrue(log.read_bytes().startswith(b"kept\n"))
        self.assertEqual(1, subprocess.run(["sh", "-c", '"$0" get "$1" >&- 2>/dev/null', TALVO, url], timeout=PATIENCE).returncode)

    def test_a_part_belongs_to_one_process_and_is_no_link(self):
        url = self.source()
        self.part.write_bytes(b"old")
        with open(self.part, "rb") as other:
            fcntl.flock(other, fcntl.LOCK_EX)
            status, said = self.get(url)
            self.assertEqual((1, True), (status, "another process is writing" in said), said)
            self.assertEqual(b"old", self.part.read_bytes())
        victim = self.make("victim", "mine")
        for name in self.part, self.directory / "out.part.tag":
            self.part.unlink(missing_ok=True)
            name.symlink_to(victim)
            status, said = self.get(url)
            self.assertEqual((b"mine", name == self.part), (victim.read_bytes(), status == 1), said)

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

    def test_a_rest_belongs_to_its_beginning(self):
        date, other = "Wed, 21 Oct 2015 07:28:00 GMT", "Wed, 21 Oct 2020 07:28:00 GMT"
        for had, header, same in (('"a"', 'ETag: "a"', True), ('"a"', 'ETag: "b"', False), ('"a"', 'ETag: W/"a"', False),
                                  ('"a"', "Last-Modified: " + date, False), (date, "Last-Modified: " + date, True),
                                  (date, 'ETag: "a"', True), (date, "Last-Modified: " + other, False),
                                  ("", 'ETag: "a"', True), ("", "Content-Encoding: gzip", False)):
            self.part.write_bytes(b"over")
            self.make("out.part.tag", had)
            answer = f"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 4-8/9\r\n{header}\r\n\r\nthere".encode()
            status, said = self.get_from(answer, "--continue")
            self.assertEqual((0 if same else 1, same), (status, self.out.exists()), (had, header, said))
            self.assertEqual(b"overthere" if same else b"over", (self.out if same else self.part).read_bytes())
            self.out.unlink(missing_ok=True)

    def test_what_is_not_whole_does_not_get_its_name(self):
        status, said = self.get_from(b'HTTP/1.1 200 OK\r\nETag: "v1"\r\nContent-Length: 9\r\n\r\nhalf')
        self.assertEqual(1, status)
        self.assertIn("the connection broke inside the body", said)
        self.assertFalse(self.out.exists())
        self.assertEqual(b"half", self.part.read_bytes())
        self.assertEqual('"v1"', (self.directory / "out.part.tag").read_text())

    def test_a_reader_of_stdout_that_has_enough_is_no_problem(self):
        with subprocess.Popen([TALVO, "get", self.source()], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as getter:
            self.assertEqual(CONTENT[:1], os.read(getter.stdout.fileno(), 1))
            getter.stdout.close()
            self.assertEqual((b"", 128 + signal.SIGPIPE), (getter.stderr.read(), getter.wait(PATIENCE)))

    def test_files_by_their_urls(self):
        for url, expected in (f"file://{self.directory}/source", 0), (f"file://{self.directory}", 1):
            self.assertEqual(expected, self.get(url)[0], url)


if __name__ == "__main__":
    unittest.main()
