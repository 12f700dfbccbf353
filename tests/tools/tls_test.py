#!/usr/bin/env python3
"""Runs the program over TLS as people do, with certificates of its own root, and against peers that break off."""
import json
import os
import pathlib
import signal
import socket
import ssl
import struct
import subprocess
import tempfile
import threading
import unittest
import urllib.request

from program import HOST, PATIENCE, ProgramTest

MAKE_CERTIFICATES = pathlib.Path(__file__).parents[2] / "scripts" / "make-certificates"
UNVERIFIED = "unable to get local issuer certificate"


class TlsTest(ProgramTest):
    @classmethod
    def setUpClass(cls):
        cls.certificates = tempfile.TemporaryDirectory(prefix="talvo-test-")
        cls.addClassCleanup(cls.certificates.cleanup)
        subprocess.run([MAKE_CERTIFICATES, "--name", "IP:" + HOST, cls.certificates.name, "expired"], check=True)

    def path(self, name):
        return os.path.join(self.certificates.name, name)

    def own(self, name="server"):
        return "--cert", self.path(name + ".pem"), "--key", self.path(name + ".key")

    def root(self, name="root"):
        return "--cacert", self.path(name + ".pem")

    def answer_once(self, answer):
        """Of a server that reads once, sends this and closes without an end of TLS. Its port."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.path("server.pem"), self.path("server.key"))
        listener = self.enterContext(socket.create_server((HOST, 0)))

        def serve():
            with context.wrap_socket(listener.accept()[0], server_side=True) as peer:
                peer.recv(65536)
                peer.sendall(answer)
        thread = threading.Thread(target=serve)
        thread.start()
        self.addCleanup(thread.join)
        return listener.getsockname()[1]

    def test_https_is_verified_at_both_ends(self):
        content = self.make("source", os.urandom(300000)).read_bytes()
        out = self.directory / "out"
        server = self.serve("serve", self.directory, *self.own())
        url = f"https://{server.address}/source"
        context = ssl.create_default_context(cafile=self.path("root.pem"))
        with urllib.request.urlopen(url, timeout=PATIENCE, context=context) as answer:
            self.assertEqual(content, answer.read())
        self.assertEqual((0, content), (self.run_talvo("get", url, *self.root(), "-o", out).returncode, out.read_bytes()))
        for trust in (), self.root("other-root"):
            self.assert_fails(self.run_talvo("get", url, *trust, "-o", self.directory / "refused"), 5, UNVERIFIED)
        self.assert_fails(self.run_talvo("get", url.replace("https", "http"), "-o", self.directory / "refused"), 7)
        self.assertFalse((self.directory / "refused").exists())
        insecure = self.run_talvo("get", url, "--insecure", "-o", out)
        self.assertEqual((0, True), (insecure.returncode, "warning: --insecure" in insecure.stderr))
        server = self.serve("serve", self.directory, *self.own(), *self.root())
        url = f"https://{server.address}/source"
        for own, status in ((), 7), (self.own(), 7), (self.own("client"), 0):
            self.assertEqual(status, self.run_talvo("get", url, *self.root(), *own, "-o", out).returncode, own)

    def test_connections_of_each_type(self):
        content = self.make("file", os.urandom(3_000_000)).read_bytes()
        for kind in [], ["--type", "length"], ["--type", "package"], ["--type", "nopartial"]:
            echo = self.serve("echo", "--tls", *self.own(), *kind)
            ping = self.run_talvo("ping", echo.address, "--tls", *self.root(), *kind, "--count", 5, "--interval", 0,
                                  "--size", 60000, "--json")
            self.assertEqual((0, "", 5), (ping.returncode, ping.stderr, json.loads(ping.stdout)["received"]), kind)
            out = self.directory / f"out{len(kind)}{kind[-1:]}"
            out.mkdir()
            recv = self.serve("recv", "--out", out, "--once", "--tls", *self.own(), *self.root(), *kind)
            sent = self.run_talvo("send", self.directory / "file", recv.address, "--tls", *self.root(), *self.own("client"), *kind)
            self.assertEqual((0, "", 0), (sent.returncode, sent.stderr, recv.end(None)[0]), kind)
            self.assertEqual(content, (out / "file").read_bytes())
        for arguments, cause in (([], UNVERIFIED), (["--servername", "localhost", *self.root()], ""),
                                 (["--servername", "other.test", *self.root()], "hostname mismatch"),
                                 (["--insecure"], "warning")):
            echo = self.serve("echo", "--tls", *self.own())
            run = self.run_talvo("ping", echo.address, "--tls", *arguments, "--count", 1)
            self.assertEqual((cause in (UNVERIFIED, "hostname mismatch"), True), (run.returncode == 1, cause in run.stderr), run)
        self.assert_fails(self.run_talvo("ping", echo.address, "--count", 1), 1)  # plain

    def test_a_cut_stream_is_a_failure(self):
        port = self.answer_once(b"")
        self.assert_fails(self.run_talvo("ping", f"{HOST}:{port}", "--tls", *self.root()), 1, "the stream was cut")
        port = self.answer_once(b"HTTP/1.1 200 OK\r\n\r\nhalf")  # only its end delimits the body
        self.assert_fails(self.run_talvo("get", f"https://{HOST}:{port}/", *self.root(), "-o", self.directory / "out"), 7, "cut")
        self.assertFalse((self.directory / "out").exists())
        recv = self.serve("recv", "--out", self.directory, "--once", "--tls", *self.own())
        context = ssl.create_default_context(cafile=self.path("root.pem"))
        with context.wrap_socket(socket.create_connection((HOST, recv.port), PATIENCE), server_hostname=HOST) as peer:
            peer.sendall(struct.pack(">BI6s32sBIIIIqIQ4s", 1, 38, b"TALVO\2", b"", 2, 36, 1, 0, 0o600, 0, 0, 9, b"file") +
                         b"\3\0\0\0\x08\0\0\0\1half")
            answers = b""
            while len(answers) < 38 + 17:  # WELCOME and ACCEPT
                answers += peer.recv(100)
        status, _, err = recv.end(None)
        self.assertEqual((1, True), (status, "the stream was cut" in err), err)

    def look(self, server, *arguments):
        run = self.run_talvo("tls", server.address, "--json", *arguments)
        lines = [json.loads(line) for line in run.stdout.splitlines()]
        if run.returncode:
            failed = lines.pop()
            self.assertEqual(("failed", "tls"), (failed["event"], failed["cause"]))
        return run.returncode, lines

    def test_tls_shows_a_server(self):
        server = self.serve("serve", self.directory, *self.own())
        status, (own, intermediate, session) = self.look(server, *self.root())
        keys = "protocol", "alpn", "name", "verified", "reason", "resumed", "end"
        self.assertEqual((0, "TLS 1.3", "http/1.1", HOST, True, "", True, ""), (status, *(session[key] for key in keys)))
        self.assertTrue({"localhost", "127.0.0.1", HOST} <= set(own["names"]), own)
        self.assertEqual(("CN=localhost", intermediate["subject"], 0), (own["subject"], own["issuer"], own["number"]))
        self.assertIn(own["days_left"], (29, 30))
        status, (*chain, session) = self.look(server, *self.root("other-root"))
        self.assertEqual((1, 2, False, UNVERIFIED, False),
                         (status, len(chain), *(session[key] for key in ("verified", "reason", "resumed"))))
        self.assertIn("hostname mismatch", self.look(server, *self.root(), "--servername", "other.test")[1][-1]["reason"])
        status, (own, *_, session) = self.look(self.serve("echo", "--tls", *self.own("expired")), *self.root())
        self.assertEqual((1, True, "certificate has expired"), (status, own["days_left"] < 0, session["reason"]))
        server = self.serve("echo", "--tls", *self.own(), *self.root())
        status, (*_, session) = self.look(server, *self.root())
        self.assertEqual((0, True), (status, "alert certificate required" in session["end"]), session)
        self.assertEqual("", self.look(server, *self.root(), *self.own("client"))[1][-1]["end"])
        self.assert_fails(self.run_talvo("tls", self.serve("echo").address, "--alpn", "h2"), 1)

    def test_a_hang_up_reloads_the_certificates(self):
        for name in "server", "expired":
            pem, key = (self.make("own" + end, pathlib.Path(self.path(name + end)).read_bytes()) for end in (".pem", ".key"))
            server = self.serve("serve", self.directory, "--cert", pem, "--key", key) if name == "server" else server
        server.process.send_signal(signal.SIGHUP)
        self.assertIn("reloaded", [server.process.stdout.readline() for line in ("ready", "reloaded")][1])
        self.assertEqual("certificate has expired", self.look(server, *self.root())[1][-1]["reason"])

    def test_options_that_make_no_sense(self):
        pem, missing = self.path("root.pem"), self.path("missing.pem")
        ping, echo = ["ping", "h:1", "--tls"], ["echo", "--port", 0, "--tls"]
        for arguments in (echo, [*echo, *self.root()], [*echo, "--cert", pem], [*echo, "--cert", pem, "--key", pem],
                          [*echo, *self.own(), "--udp", "--type", "package"], [*echo, *self.own(), "--insecure"],
                          ["echo", "--port", 0, *self.own()], ["serve", self.directory, "--port", 0, *self.root()],
                          [*ping, "--udp", "--type", "package"], [*ping, "--insecure", *self.root()], [*ping, "--cacert", missing],
                          [*ping, "--cacert", self.path("root.key")], [*ping, "--key", self.path("client.key")],
                          [*ping, "--servername", "a b"], ["ping", "unix:/x", "--tls"], ["ping", "h:1", *self.root()],
                          ["get", "https://h/", "--insecure", *self.root()], ["get", "file:///x", *self.root()], ["tls"],
                          ["tls", "h"], ["tls", "h:1", "--insecure"]):
            self.assert_fails(self.run_talvo(*arguments), 2)


if __name__ == "__main__":
    unittest.main()
