#!/usr/bin/env python3
"""The helper for scripts, driven through its frames: usage pac_test.py TALVO_PAC [TEST...]."""
import calendar
import os
import pathlib
import socket
import struct
import subprocess
import sys
import time
import unittest

HELPER = sys.argv.pop(1)
PATIENCE = 60  # seconds; only how long a failing test takes
BERLIN = "CET-1CEST,M3.5.0,M10.5.0/3"
NAMES = {"4two.test": "10.0.0.1", "*two.test": "2001:db8::1;10.0.0.1", "m": "192.0.2.7", "M": "2001:db8::7;192.0.2.7"}


def text(value):
    return struct.pack(">H", len(value)) + value.encode()


class Helper:
    def __init__(self, zone="UTC0", when=(2026, 7, 3, 12, 30, 15)):
        self.socket, theirs = socket.socketpair()
        self.socket.settimeout(PATIENCE)
        self.frames = self.socket.makefile("rb")
        self.process = subprocess.Popen([HELPER], stdin=theirs, env={})
        theirs.close()
        self.zone, self.now = zone, calendar.timegm((*when, 0, 0, 0))
        self.asked, self.alerts = [], []

    def close(self):
        self.frames.close()
        self.socket.close()
        return self.process.wait(PATIENCE)

    def send(self, letter, payload):
        self.socket.sendall(struct.pack(">I", len(payload) + 1) + letter + payload)

    def receive(self):
        length, = struct.unpack(">I", self.frames.read(4))
        frame = self.frames.read(length)
        return frame[:1], frame[1:]

    def end(self):
        """Answers the questions for names until the result or the error comes."""
        while True:
            letter, payload = self.receive()
            if letter == b"n":
                self.asked.append(payload.decode())
                self.send(b"N", NAMES.get(payload.decode(), "").encode())
            elif letter == b"a":
                self.alerts.append(payload.decode())
            else:
                return (letter, payload) if letter == b"r" else (letter, *struct.unpack(">I", payload[:4]), payload[4:].decode())

    def clock(self):
        return struct.pack(">q", self.now * 1000000) + text(self.zone)

    def load(self, script):
        self.send(b"L", self.clock() + script.encode())
        return self.end()

    def find(self, url="https://h.test/", host="h.test"):
        self.send(b"F", self.clock() + text(url) + text(host))
        return self.end()

    def value(self, expression):
        """The value of an expression as a literal of JSON."""
        outcome = self.load("function FindProxyForURL(url, host) { return JSON.stringify(%s); }" % expression)
        assert outcome == (b"r", b"confined"), outcome
        outcome = self.find()
        assert outcome[0] == b"r", (expression, outcome)
        return outcome[1].decode()


class PacTest(unittest.TestCase):
    def helper(self, **more):
        helper = Helper(**more)
        self.addCleanup(helper.close)
        return helper

    def check(self, helper, table):
        for line in table.strip().splitlines():
            expression, _, expected = line.strip().partition(" -> ")
            self.assertEqual(expected.strip(), helper.value(expression), expression)

    def test_hosts_patterns_and_addresses(self):
        helper = self.helper()
        self.check(helper, """
            [isPlainHostName("www"), isPlainHostName("www.a"), isPlainHostName("::1"), isPlainHostName()] -> [true,false,false,false]
            [dnsDomainIs("www.a.b", ".a.b"), dnsDomainIs("a.b", ".a.b"), dnsDomainIs("x", 7)] -> [true,false,false]
            ["www", "www.a.b", "www.a.c", "w"].map(function(h) { return localHostOrDomainIs(h, "www.a.b"); }) -> [true,true,false,false]
            [dnsDomainLevels("www"), dnsDomainLevels("a.b.c"), dnsDomainLevels(null)] -> [0,2,0]
            [shExpMatch("http://a.b/c", "*.b/*"), shExpMatch("axb", "a.b"), shExpMatch("ab", "a?b"), shExpMatch("a", "")] -> [true,false,false,false]
            [shExpMatch("aXbXc", "a*b*c"), shExpMatch("b.c", "[ab].c"), shExpMatch("b", "(a|b)"), shExpMatch("b", "(["), shExpMatch("", "*")] -> [true,true,true,false,true]
            shExpMatch(new Array(40000).join("a"), "*a*a*a*a*a*a*b") -> false
            [isInNet("10.1.2.3", "10.1.0.0", "255.255.0.0"), isInNet("10.1.2.3", "10.2.0.0", "255.255.0.0")] -> [true,false]
            [isInNet("two.test", "10.0.0.1", "255.255.255.255"), isInNet("no.test", "0.0.0.0", "0.0.0.0"), isInNet("::1", "0.0.0.0", "0.0.0.0")] -> [true,false,false]
            [isInNet("10.0.0.1", "10.0.0.256", "255.0.0.0"), isInNet("10.0.0.1", "10.0.0.1"), isInNet()] -> [false,false,false]
            [dnsResolve("two.test"), dnsResolve("no.test"), dnsResolve("1.2.3.4"), dnsResolve("::1"), dnsResolve({})] -> ["10.0.0.1",null,"1.2.3.4",null,null]
            [isResolvable("two.test"), isResolvable("no.test"), isResolvableEx("two.test"), isResolvableEx("")] -> [true,false,true,false]
            [convert_addr("104.16.41.2"), convert_addr("255.0.0.1"), convert_addr("1.2")] -> [1745889538,-16777215,null]
            [myIpAddress(), myIpAddressEx(), dnsResolveEx("two.test"), dnsResolveEx("no.test"), dnsResolveEx("::1")] -> ["192.0.2.7","2001:db8::7;192.0.2.7","2001:db8::1;10.0.0.1","","::1"]
            [isInNetEx("10.1.2.3", "10.0.0.0/8"), isInNetEx("2001:db8::1", "2001:db8::/33"), isInNetEx("2001:db8:8000::", "2001:db8::/33")] -> [true,true,false]
            [isInNetEx("10.1.2.3", "::/0"), isInNetEx("1.2.3.4", "1.2.3.4/33"), isInNetEx("1.2.3.4", "1.2.3.4"), isInNetEx("x", "0.0.0.0/0")] -> [false,false,false,false]
            [sortIpAddressList("10.2.3.9;2001:4898:28:3::1;::1;9.9.9.9; 10.2.3.4"), sortIpAddressList(""), sortIpAddressList("1.2.3.4;x")] -> ["::1;2001:4898:28:3::1;9.9.9.9;10.2.3.4;10.2.3.9",false,false]
            [getClientVersion(), typeof alert("x")] -> ["1.0","undefined"]""")
        self.assertIn("4two.test", helper.asked)
        self.assertFalse({"41.2.3.4", "*::1"} & set(helper.asked))

    def test_times(self):
        friday = self.helper(zone=BERLIN, when=(2026, 7, 3, 22, 30, 15))  # Saturday, 0:30:15 in Berlin
        self.check(friday, """
            [weekdayRange("SAT"), weekdayRange("FRI", "GMT"), weekdayRange("FRI", "SUN"), weekdayRange("MON", "FRI"), weekdayRange("sat")] -> [true,true,true,false,false]
            [weekdayRange(), weekdayRange("SUN", "SAT"), weekdayRange("SAT", "MON"), weekdayRange("SAT", "X")] -> [false,true,true,false]
            [dateRange(4), dateRange(3, "GMT"), dateRange("JUL"), dateRange(2026), dateRange(2027), dateRange("3", "5")] -> [true,true,true,true,false,true]
            [dateRange("DEC", "AUG"), dateRange("AUG", "DEC"), dateRange(1, "JUN", 4, "JUL"), dateRange(5, "JUL", 31, "DEC")] -> [true,false,true,false]
            [dateRange("JUN", 2026, "JUL", 2026), dateRange(4, "JUL", 2026, 4, "JUL", 2026), dateRange(1, "JAN", 2024, 3, "JUL", 2026)] -> [true,true,false]
            [dateRange(), dateRange(1, "JUN"), dateRange(1, 2, "JUN", "JUL"), dateRange(0), dateRange(1.5)] -> [false,false,false,false,false]
            [timeRange(0), timeRange(22, "GMT"), timeRange(0, 1), timeRange(22, 6), timeRange(1, 23), timeRange("0")] -> [true,true,true,true,false,true]
            [timeRange(0, 0, 0, 30), timeRange(0, 31, 2, 0), timeRange(0, 30, 15, 0, 30, 59), timeRange(0, 0, 0, 0, 30, 14)] -> [true,false,true,false]
            [timeRange(), timeRange(0, 1, 2), timeRange(-1, 25), timeRange("x")] -> [false,false,false,false]
            [new Date().getHours(), new Date().getTimezoneOffset(), new Date(2026, 0, 1).getTimezoneOffset()] -> [0,-120,-60]""")
        self.assertEqual(str(friday.now), friday.value("Math.floor(Date.now() / 1000)"))

    def test_errors_have_their_line(self):
        helper = self.helper()
        for script, line, words in (("function FindProxyForURL() {\n  return x;\n}", 2, "ReferenceError: identifier 'x' undefined"),
                                    ("function FindProxyForURL(u) {\n\n  return u.a.b; }", 3, "TypeError"),
                                    ("function FindProxyForURL() { throw 'my words'; }", 0, "my words"),
                                    ("function FindProxyForURL() {\n  return FindProxyForURL() + 1; }", 2, "RangeError")):
            self.assertEqual((b"r", b"confined"), helper.load(script))
            letter, at, message = helper.find()
            self.assertEqual((b"e", line), (letter, at), message)
            self.assertIn(words, message)
        for script, line, words in (("var a = 1;\nlet b = 2;", 2, "ECMAScript 5"), ("f = () => 1", 1, "ECMAScript 5"), ("x;", 1, "'x'"),
                                    ("", 0, "no function FindProxyForURL"), ("\n\n(", 3, "SyntaxError")):
            letter, at, message = helper.load(script)
            self.assertEqual((b"e", line), (letter, at), message)
            self.assertIn(words, message)
            self.assertEqual(b"e", helper.find()[0])
        self.assertEqual((b"r", b"confined"), helper.load("n = 0; function FindProxyForURLEx(u, h) { return ++n + u + h; } function FindProxyForURL() {}"))
        self.assertEqual((b"r", b"1https://h.test/h.test"), helper.find())
        self.assertEqual((b"r", b"2https://h.test/h.test"), helper.find())
        self.assertEqual("null", helper.value("null"))

    def test_a_script_can_do_no_harm(self):
        helper = self.helper()
        helper.load("function FindProxyForURL() { alert(new Array(999).join('\u00e4')); var s = 'x'; while (true) s += s + '1'; }")
        self.assertEqual(b"e", helper.find()[0])
        self.assertEqual(["\u00e4" * 256], helper.alerts)
        self.assertEqual('["undefined","undefined","undefined"]', helper.value("[typeof require, typeof process, typeof console]"))
        status = pathlib.Path(f"/proc/{helper.process.pid}/status").read_text()
        self.assertIn("NoNewPrivs:\t1\nSeccomp:\t2\n", status)
        limits = pathlib.Path(f"/proc/{helper.process.pid}/limits").read_text()
        for limit in ("Max address space         268435456", "Max open files            0", "Max processes             0", "Max core file size        0"):
            self.assertIn(limit, limits)
        self.assertEqual(min(os.nice(0) + 10, 19), os.getpriority(os.PRIO_PROCESS, helper.process.pid))

    def test_bytes_that_are_no_frame_end_it(self):
        for junk in (b"\0\0\0\0", b"\xff\xff\xff\xffx", b"\0\0\0\1?", b"\0\0\0\1F", b"\0\0\0\3F\0\1"):
            helper = Helper()
            helper.socket.sendall(junk)
            self.assertEqual(2, helper.process.wait(PATIENCE), junk)
            helper.close()
        helper = Helper()
        self.assertEqual("1", helper.value("1"))
        self.assertEqual(0, helper.close())


if __name__ == "__main__":
    unittest.main()
