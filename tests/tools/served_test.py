#!/usr/bin/env python3
"""Asks `talvo serve` as a browser does."""
import email.utils
import os
import re
import signal
import socket
import threading
import unittest
import urllib.error
import urllib.request

from program import HOST, PATIENCE, ProgramTest

NOBODY = 65534


class ServedTest(ProgramTest):
    def serve_here(self):
        self.directory.chmod(0o755)
        # Not as root, who may read everything.
        user = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
        return self.serve("serve", ".", cwd=self.directory, **user)

    def ask(self, url):
        with urllib.request.urlopen(url, timeout=PATIENCE) as answer:
            return answer.headers, answer.read()

    def test_a_signal_lets_answers_end_and_a_second_does_not(self):
        with open(self.directory / "file", "wb") as file:
            file.truncate(20_000_000)  # more than the sockets' buffers hold
        for once in True, False:
            listening = self.serve_here()
            server = listening.process
            begun = [socket.create_connection((HOST, listening.port), PATIENCE) for _ in range(3)]
            for client, part in zip(begun, (b"", b"GET", b"POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 9\r\n\r\n")):
                client.sendall(part)
                self.addCleanup(client.close)
            with urllib.request.urlopen(listening.url + "/file", timeout=PATIENCE) as answer:
                server.send_signal(signal.SIGTERM)
                self.assertIn("answers under way: 1", server.stdout.readline() + server.stdout.readline())
                if once:
                    self.assertEqual([b"", b"", b"HTTP/1.1 405"], [client.recv(12) for client in begun])
                    self.assertEqual(20_000_000, len(answer.read()))
                else:
                    server.send_signal(signal.SIGINT)
                self.assertEqual(128 + (signal.SIGTERM if once else signal.SIGINT), server.wait(PATIENCE))

    def test_no_change_is_later_than_the_answer(self):
        file = self.make("file", "")
        url = self.serve_here().url
        for seconds, same in (2**32, True), (784111777, False):
            os.utime(file, (seconds, seconds))
            headers, _ = self.ask(url + "/file")
            date, changed = (email.utils.parsedate_to_datetime(headers[name]) for name in ("Date", "Last-Modified"))
            # The second may have changed between the two.
            self.assertEqual(same, 0 <= (date - changed).total_seconds() < 60, headers)

    def test_a_pipe_is_not_touched(self):
        def write(fifo):
            try:
                fifo.write_bytes(b"x")
            except BrokenPipeError:
                pass

        (self.directory / "sub").mkdir()
        url = self.serve_here().url
        for fifo, page, status in ("fifo", "fifo", 403), ("sub/index.html", "sub/", 200):
            fifo = self.directory / fifo
            os.mkfifo(fifo)
            fifo.chmod(0o666)
            writer = threading.Thread(target=write, args=(fifo,))
            writer.start()
            for _ in range(5):
                try:
                    self.assertEqual((200, b"<!DOCTYPE"), (status, self.ask(f"{url}/{page}")[1][:9]))
                except urllib.error.HTTPError as error:
                    self.assertEqual(status, error.code)
            with open(os.open(fifo, os.O_RDONLY | os.O_NONBLOCK), "rb") as reader:
                writer.join(PATIENCE)
                self.assertEqual(b"x", reader.read(), "its writer was let go")

    def test_a_page_links_to_nothing_that_is_refused(self):
        for name in "new\nline", "a%2fb", "q?x", "h#x", "c:d", ".dot", "\x01\x7f", "\u00fc", "a b<\"'&>", "b\\c":
            self.make(name, "")
        (self.directory / "sub" / "deep").mkdir(parents=True)
        (self.directory / "in").symlink_to("sub/deep")
        (self.directory / "index").symlink_to("q?x")
        for number, target in enumerate(("/etc/passwd", "nowhere", "../..", "loop", "/proc/self/fd/0", "fifo")):
            (self.directory / f"link{number}").symlink_to(target)
        (self.directory / "loop").symlink_to("loop")
        os.mkfifo(self.directory / "fifo")
        self.make("secret", "")
        (self.directory / "private").mkdir()
        for name in "secret", "private":
            (self.directory / name).chmod(0)
        (self.directory / "sub").chmod(0o311)  # its page cannot be shown, that of what lies in it can
        url = self.serve_here().url
        links = [b"/in/", b"/sub/deep/"]
        for page in "/", "/sub/deep/":
            links += [page.encode() + link for link in re.findall(rb'<a href="\./(.*?)">', self.ask(url + page)[1])]
            links += [page.encode() + link for link in re.findall(rb'<a href="(\.\./)">', self.ask(url + page)[1])]
        self.assertEqual(2 + 12, len(links), links)
        for link in links:
            self.ask(url + link.decode())  # throws at a status that is none of success


if __name__ == "__main__":
    unittest.main()
