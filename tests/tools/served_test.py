#!/usr/bin/env python3
"""Asks `talvo serve` as a browser does."""
import email.utils
import gzip
import http.client
import json
import os
import re
import signal
import socket
import threading
import unittest
import urllib.error
import urllib.request

from program import HOST, PATIENCE, ProgramTest, poll

NOBODY = 65534


class ServedTest(ProgramTest):
    def serve_here(self, *arguments):
        self.directory.chmod(0o755)
        # Not as root, who may read everything.
        user = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
        return self.serve("serve", ".", *arguments, cwd=self.directory, **user)

    def ask(self, url):
        with urllib.request.urlopen(url, timeout=PATIENCE) as answer:
            return answer.headers, answer.read()

    def answer(self, listening, target, method="GET", **headers):
        """The status, headers and body of one request; "_" in a name stands for "-"."""
        client = http.client.HTTPConnection(HOST, listening.port, timeout=PATIENCE)
        self.addCleanup(client.close)
        client.request(method, target, headers={name.replace("_", "-"): value for name, value in headers.items()})
        answer = client.getresponse()
        return answer.status, answer.headers, answer.read()

    def test_text_is_compressed_for_clients_that_take_it(self):
        text = "".join(f"<p>paragraph {i * i}</p>\n" for i in range(100000)).encode()
        short, stale, picture = b"short", b"plain" * 1000, os.urandom(1000)
        for name, content in (("text.html", text), ("short.html", short), ("old.css", stale), ("a.png", picture), ("a.png.gz", b"stored")):
            self.make(name, content)
        os.utime(self.make("old.css.gz", "stale"), (1, 1))
        listening = self.serve_here()
        for accepted, taken in (("gzip", True), ("br, GZIP;q=0.5", True), ("*", True), ("x-gzip", True), ("", False), ("br", False),
                                ("gzip;q=0", False), ("*, gzip;q=0", False), ("gzip;q=0.1, identity", False), ("gzip;q=x", False)):
            status, headers, body = self.answer(listening, "/text.html", Accept_Encoding=accepted)
            self.assertEqual((200, taken, "Accept-Encoding"), (status, "Content-Encoding" in headers, headers["Vary"]), accepted)
            self.assertEqual(text, gzip.decompress(body) if taken else body)
        for name, content, coding in (("short.html", short, None), ("old.css", stale, "gzip"), ("a.png", b"stored", "gzip")):
            _, headers, body = self.answer(listening, "/" + name, Accept_Encoding="gzip")
            self.assertEqual(coding, headers["Content-Encoding"])
            self.assertEqual(content, gzip.decompress(body) if name == "old.css" else body)
        plain, packed = (self.answer(listening, "/text.html", "HEAD", Accept_Encoding=coding)[1]["ETag"] for coding in ("", "gzip"))
        self.assertNotEqual(plain, packed)
        for tag, status in (packed, 304), (plain, 200):
            self.assertEqual(status, self.answer(listening, "/text.html", Accept_Encoding="gzip", If_None_Match=tag)[0])
        part = self.answer(listening, "/text.html", Accept_Encoding="gzip", Range="bytes=3-5", If_Range=plain)
        self.assertEqual((206, text[3:6], None), (part[0], part[2], part[1]["Content-Encoding"]))
        self.assertEqual((200, text), self.answer(listening, "/text.html", Accept_Encoding="gzip", Range="bytes=3-5", If_Range=packed)[::2])

    def test_other_origins_and_options(self):
        self.make("file", "content")
        self.make("home.txt", "home")
        for origin, arguments in (None, []), ("*", ["--cors"]), ("https://a.test", ["--cors=https://a.test"]):
            listening = self.serve_here("--index", "home.txt", *arguments)
            for method, target, expected in ("GET", "/file", 200), ("OPTIONS", "/file", 204), ("OPTIONS", "*", 204), ("PUT", "/file", 405):
                status, headers, _ = self.answer(listening, target, method)
                self.assertEqual((expected, origin), (status, headers["Access-Control-Allow-Origin"]))
                self.assertEqual(None if expected == 200 else "GET, HEAD, OPTIONS", headers["Allow"])
            self.assertEqual(b"home", self.answer(listening, "/")[2])
        self.assertIn(b"home.txt", self.answer(self.serve_here("--index", ""), "/")[2])

    def test_the_access_log_has_a_line_for_each_answer(self):
        self.make("file", "x" * 100000)
        log, moved = self.directory / "log", self.directory / "moved"
        self.make("log", "").chmod(0o666)
        listening = self.serve_here("--access-log", "log")
        for target, headers in ("/file", {}), ("/file", {"Range": "bytes=0-9"}), ("/none?\"", {"Referer": "r"}):
            self.answer(listening, target, **headers)
        self.answer(listening, "/file", "HEAD")
        for request in b"GET /file HTTP/1.1\r\nHost: a b\r\n\r\n", b"GET /" + b"a" * 70000:  # the server itself answers these
            with socket.create_connection((HOST, listening.port), PATIENCE) as client:
                client.sendall(request)
                self.assertEqual(b"HTTP/1.1 4", client.recv(10, socket.MSG_WAITALL))
        poll("six lines", lambda: log.read_text().count("\n") == 6)
        lines = re.sub(r"\[[^]]*\]", "[]", log.read_text()).splitlines()
        self.assertEqual([f'127.0.0.1 - - [] "{rest}' for rest in (
            'GET /file HTTP/1.1" 200 100000', 'GET /file HTTP/1.1" 206 10', 'GET /none?\\x22 HTTP/1.1" 404 10',
            'HEAD /file HTTP/1.1" 200 -', 'GET /file HTTP/1.1" 400 16', '-" 414 17')], lines)
        self.directory.chmod(0o777)
        log.rename(moved)
        listening.process.send_signal(signal.SIGHUP)
        poll("the log is opened again", log.exists)
        self.answer(listening, "/file")
        poll("a line", log.read_text)
        self.assertEqual(6, moved.read_text().count("\n"))
        listening = self.serve_here("--json", "--access-log", "-")
        self.answer(listening, "/file", User_Agent='a"b')
        line = json.loads(listening.process.stdout.readline())
        self.assertEqual(["request", "GET", "/file", 200, 100000, 'a"b'],
                         [line[field] for field in ("event", "method", "target", "status", "bytes", "agent")])

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

    def test_a_page_is_sorted_by_its_query(self):
        for age, (name, size) in enumerate((("file10", 1), ("file2", 300), ("z", 20))):
            os.utime(self.make(name, "x" * size), (1000 - age, 1000 - age))
        (self.directory / "zz").mkdir()
        url = self.serve_here().url
        for query, expected in (("", "zz/ file2 file10 z"), ("?sort=-name", "zz/ z file10 file2"), ("?sort=size", "zz/ file10 z file2"),
                                ("?sort=-size", "zz/ file2 z file10"), ("?sort=date", "zz/ z file2 file10"), ("?sort=<", "zz/ file2 file10 z")):
            page = self.ask(url + "/" + query)[1].decode()
            self.assertEqual(expected.split(), re.findall(r'<a href="\./(.*?)">', page), query)
        self.assertIn("1 folder, 3 files, 321 bytes", page)


if __name__ == "__main__":
    unittest.main()
