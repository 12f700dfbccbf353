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

    def test_targets_ranges_and_conditions(self):
        for name in "a/b c", "...", "\u00fc":
            os.utime(self.make(name, "0123456789"), (784111777, 784111777))
        listening = self.serve_here()

        def ask(target, *headers):
            with socket.create_connection((HOST, listening.port), PATIENCE) as client, client.makefile("rb") as answer:
                head = "".join(header + "\r\n" for header in headers)
                client.sendall(f"GET {target} HTTP/1.1\r\nHost: h\r\nConnection: close\r\n{head}\r\n".encode())
                head, _, body = answer.read().partition(b"\r\n\r\n")
                return int(head[9:12]), body
        for target in "/a/b%20c?x=/../y", "//a///b%20c", "http://host/a/b%20c", "HTTP://host/a/b%20c", "/...", "/%C3%BC":
            self.assertEqual((200, b"0123456789"), ask(target), target)
        for target in "/..", "/a/../b", "/%2e%2E/b", "/.%2e", "/.", "/a%2fb%20c", "/...%00b", "/...%", "/...%4", "/...%4g":
            self.assertIn(ask(target)[0], (400, 404), target)
        for ranges, expected in (("bytes=0-0", "0"), ("bytes=3-5", "345"), ("bytes=3-", "3456789"), ("bytes=-4", "6789"),
                                 ("bytes=-40", "0123456789"), ("bytes=9-99999999999999999999999", "9"), ("bytes=10-", None),
                                 ("bytes=99999999999999999999999-", None), ("bytes=-0", None)):
            status, body = ask("/...", "Range: " + ranges)
            self.assertEqual((206, expected.encode()) if expected else (416, body), (status, body), ranges)
        for ranges in "bytes=0-1,3-4", "bytes=5-3", "bytes=a-", "bytes=-", "lines=0-1", "":
            self.assertEqual((200, b"0123456789"), ask("/...", "Range: " + ranges), ranges)
        tag = self.ask(listening.url + "/...")[0]["ETag"]
        now, before = "Sun, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:36 GMT"
        for status, *headers in ((200, f'If-Match: "a", {tag}'), (200, "If-Match: *"), (412, f'If-Match: "a", W/{tag}'),
                                 (200, "If-Unmodified-Since: " + now), (412, "If-Unmodified-Since: " + before),
                                 (200, "If-Unmodified-Since: yesterday"),
                                 (200, "If-Match: " + tag, "If-Unmodified-Since: " + before),
                                 (412, 'If-Match: "a"', "If-None-Match: " + tag),
                                 (304, "If-Match: " + tag, "If-None-Match: " + tag), (304, f'If-None-Match: "a" , W/{tag}'),
                                 (200, 'If-None-Match: "a"', "If-Modified-Since: " + now),
                                 (304, "If-Modified-Since: " + now), (200, "If-Modified-Since: " + before)):
            self.assertEqual(status, ask("/...", *headers)[0], headers)

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
        self.assertIn(b">a b&lt;&quot;&#39;&amp;&gt;<", self.ask(url)[1])
        for link in links:
            self.ask(url + link.decode())  # throws at a status that is none of success


if __name__ == "__main__":
    unittest.main()
