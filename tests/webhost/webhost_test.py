"""The sample host under real clients: curl for what a client asks for, raw sockets for what no client should send.

usage: webhost_test.py PROGRAM CONFIG_FOLDER [unittest arguments]
"""
import gzip
import hashlib
import http.client
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROGRAM, CONFIG = sys.argv[1:3]
LAST_LINE = "INFO:  Common library exited..."
WORDS = b"the quick brown fox jumps over a lazy dog while it rains in the plain\n"


class Host:
    """One running host over a folder of its own."""

    def __init__(self, settings=""):
        self.root = tempfile.mkdtemp(prefix="webhost-")
        self.site = os.path.join(self.root, "files")
        os.makedirs(os.path.join(self.root, "config"))
        os.makedirs(self.site)
        with open(os.path.join(CONFIG, "config.ini")) as given, open(os.path.join(self.root, "config", "config.ini"), "w") as own:
            own.write(given.read() + settings)
        self.process = None

    def write(self, name, data):
        path = os.path.join(self.site, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(data)
        os.utime(path, (1000000000, 1000000000))  # long ago: a settled file has a strong tag
        return path

    def start(self):
        self.process = subprocess.Popen([PROGRAM, "0", self.site], env=dict(os.environ, TVHOME=self.root),
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        line = self.process.stdout.readline()
        match = re.match(r"Listening on http://127\.0\.0\.1:(\d+)/ ", line)
        if not match:
            raise RuntimeError("no address: %r" % line)
        self.port = int(match.group(1))
        return self

    def stop(self, how=signal.SIGTERM):
        """Seconds until it has ended, and its exit code."""
        begin = time.monotonic()
        self.process.send_signal(how)
        code = self.process.wait(timeout=60)
        self.process.stdout.close()
        return time.monotonic() - begin, code

    def log(self, name):
        with open(os.path.join(self.root, "log", name), errors="replace") as file:
            return file.read().splitlines()

    def remove(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
            self.process.stdout.close()
        shutil.rmtree(self.root)

    def url(self, path):
        return "http://127.0.0.1:%d/%s" % (self.port, path)

    def curl(self, path, *arguments):
        return subprocess.run(["curl", "-sS", "--noproxy", "*", "--max-time", "60", *arguments, self.url(path)], capture_output=True, check=True).stdout

    def head(self, path, *arguments):
        """Status and fields of the last reply."""
        lines = self.curl(path, "-o", os.devnull, "-D", "-", *arguments).decode().strip().split("\r\n\r\n")[-1].split("\r\n")
        return int(lines[0].split()[1]), {name.lower(): value for name, value in (line.split(": ", 1) for line in lines[1:])}

    def raw(self, data, pieces=1, timeout=10):
        """Everything that the host answers to these bytes until it closes or nothing comes any more."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=timeout) as sock:
            step = max(1, (len(data) + pieces - 1) // pieces)
            try:
                for at in range(0, len(data), step):
                    sock.sendall(data[at:at + step])
                    if pieces > 1:
                        time.sleep(0.002)
                sock.shutdown(socket.SHUT_WR)
            except OSError:
                pass  # refused before all of it was sent
            answer = b""
            try:
                while True:
                    got = sock.recv(65536)
                    if not got:
                        break
                    answer += got
            except ConnectionResetError:
                pass
            return answer


def statuses(answer):
    return [int(status) for status in re.findall(rb"HTTP/1\.1 (\d{3}) [A-Z]", answer)]


class Files(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.host = Host()
        noise = random.Random(1)
        cls.files = {
            "empty.bin": b"",
            "empty.txt": b"",
            "one.txt": b"x",
            "1k.bin": noise.randbytes(1024),
            "1k.txt": (WORDS * 20)[:1024],
            "16k.bin": noise.randbytes(16384),
            "large.bin": noise.randbytes(1 << 20) * 100,
            "large.txt": WORDS * 200000,
            "noise.txt": noise.randbytes(300000),
            "index.html": b"<h1>top</h1>",
            "sub/index.html": b"<h1>sub</h1>",
            "a b+c.txt": b"blank",
            ".secret": b"secret",
            ".git/config": b"secret",
        }
        for name, data in cls.files.items():
            cls.host.write(name, data)
        with open(os.path.join(cls.host.root, "outside.txt"), "w") as file:
            file.write("outside")
        os.makedirs(os.path.join(cls.host.site, "bare"))
        cls.host.start()

    @classmethod
    def tearDownClass(cls):
        cls.host.remove()

    def test_every_file_arrives_whole_plain_and_compressed(self):
        for name in ("empty.bin", "empty.txt", "one.txt", "1k.bin", "1k.txt", "16k.bin", "large.bin", "large.txt", "noise.txt"):
            wanted = hashlib.sha256(self.files[name]).digest()
            for arguments in ((), ("--compressed",), ("-0",), ("-0", "--compressed")):
                got = hashlib.sha256(self.host.curl(name, *arguments)).digest()
                self.assertEqual(got, wanted, (name, arguments))

    def test_text_is_compressed_for_those_who_ask(self):
        status, fields = self.host.head("large.txt", "-H", "Accept-Encoding: gzip")
        self.assertEqual((status, fields["content-encoding"], fields["transfer-encoding"]), (200, "gzip", "chunked"))
        self.assertNotIn("content-length", fields)
        self.assertEqual(fields["vary"], "Accept-Encoding")
        body = self.host.curl("large.txt", "-H", "Accept-Encoding: gzip")
        self.assertLess(len(body), len(self.files["large.txt"]) // 10)
        self.assertEqual(gzip.decompress(body), self.files["large.txt"])
        for name, coding in (("large.txt", "identity"), ("1k.bin", "gzip"), ("one.txt", "gzip"), ("large.txt", "gzip;q=0")):
            status, fields = self.host.head(name, "-H", "Accept-Encoding: " + coding)
            self.assertNotIn("content-encoding", fields)
            self.assertEqual(int(fields["content-length"]), len(self.files[name]))

    def test_fields_of_a_reply(self):
        status, fields = self.host.head("1k.bin")
        self.assertEqual(fields["content-type"], "application/octet-stream")
        self.assertEqual(fields["accept-ranges"], "bytes")
        self.assertEqual(fields["last-modified"], "Sun, 09 Sep 2001 01:46:40 GMT")
        self.assertRegex(fields["date"], r"^\w{3}, \d\d \w{3} \d{4} \d\d:\d\d:\d\d GMT$")
        self.assertNotIn("server", fields)
        self.assertEqual(self.host.head("")[1]["content-type"], "text/html; charset=utf-8")

    def test_ranges(self):
        data = self.files["16k.bin"]
        for value, first, last in (("0-0", 0, 0), ("0-99", 0, 99), ("100-", 100, 16383), ("-1", 16383, 16383),
                                   ("16383-", 16383, 16383), ("5-99999", 5, 16383), ("8000-8000", 8000, 8000)):
            arguments = ("-H", "Range: bytes=" + value, "-H", "Accept-Encoding: gzip")
            status, fields = self.host.head("16k.bin", *arguments)
            self.assertEqual((status, fields["content-range"]), (206, "bytes %d-%d/16384" % (first, last)))
            self.assertEqual(self.host.curl("16k.bin", *arguments), data[first:last + 1], value)
        for value in ("16384-", "-0"):
            status, fields = self.host.head("16k.bin", "-H", "Range: bytes=" + value)
            self.assertEqual((status, fields["content-range"]), (416, "bytes */16384"))
        for value in ("bytes=1-2,4-5", "bytes=5-2", "lines=1-2", "bytes=x"):
            self.assertEqual(self.host.curl("16k.bin", "-H", "Range: " + value), data)
        part = self.host.curl("large.bin", "-r", "70000000-99999999")
        self.assertEqual(part, self.files["large.bin"][70000000:100000000])
        self.assertNotIn("content-encoding", self.host.head("large.txt", "-H", "Range: bytes=0-9999", "-H", "Accept-Encoding: gzip")[1])

    def test_conditions(self):
        fields = self.host.head("1k.txt")[1]
        packed = self.host.head("1k.txt", "-H", "Accept-Encoding: gzip")[1]
        tag, date = fields["etag"], fields["last-modified"]
        self.assertNotEqual(packed["etag"], tag)
        range_ = ("-H", "Range: bytes=0-9")
        table = (
            (304, "If-None-Match: " + tag, ()),
            (304, "If-None-Match: \"x\", W/" + tag, ()),
            (304, "If-None-Match: *", ()),
            (200, "If-None-Match: \"x\"", ()),
            (200, "If-None-Match: " + packed["etag"], ()),
            (304, "If-None-Match: " + packed["etag"], ("-H", "Accept-Encoding: gzip")),
            (304, "If-Modified-Since: " + date, ()),
            (304, "If-Modified-Since: Sunday, 09-Sep-01 01:46:41 GMT", ()),
            (200, "If-Modified-Since: Sun, 09 Sep 2001 01:46:39 GMT", ()),
            (200, "If-Modified-Since: yesterday", ()),
            (200, "If-None-Match: \"x\"", ("-H", "If-Modified-Since: " + date)),
            (200, "If-Match: " + tag, ()),
            (412, "If-Match: \"x\"", ()),
            (412, "If-Unmodified-Since: Sun, 09 Sep 2001 01:46:39 GMT", ()),
            (200, "If-Unmodified-Since: " + date, ()),
            (206, "If-Range: " + tag, range_),
            (206, "If-Range: " + date, range_),
            (200, "If-Range: \"x\"", range_),
            (200, "If-Range: W/" + tag, range_),
            (200, "If-Range: Sun, 09 Sep 2001 01:46:41 GMT", range_),
        )
        for wanted, field, more in table:
            self.assertEqual(self.host.head("1k.txt", "-H", field, *more)[0], wanted, (field, more))
        self.assertEqual(self.host.curl("1k.txt", "-H", "If-None-Match: " + tag), b"")

    def test_a_file_written_just_now_has_a_weak_tag(self):
        self.host.write("fresh.txt", b"new")
        os.utime(os.path.join(self.host.site, "fresh.txt"))
        self.assertTrue(self.host.head("fresh.txt")[1]["etag"].startswith("W/"))

    def replace(self, name, version):
        path = os.path.join(self.host.site, name)
        with open(path + ".new", "wb") as file:
            file.write(b"%d" % version * (1000 * version))
        os.utime(path + ".new", (1100000000 + version, 1100000000 + version))
        os.replace(path + ".new", path)

    def version_served(self, name, method):
        connection = http.client.HTTPConnection("127.0.0.1", self.host.port, timeout=20)
        connection.request(method, "/" + name)
        reply = connection.getresponse()
        body = reply.read()
        connection.close()
        version = int(reply.getheader("Content-Length")) // 1000
        self.assertEqual(reply.getheader("ETag"), '"%x-%x"' % (1100000000 + version, 1000 * version))
        self.assertEqual(body, b"" if method == "HEAD" else b"%d" % version * (1000 * version))
        return version

    def test_a_file_that_is_replaced_is_never_mixed_up(self):
        # The host may answer from what it remembers for a while, but header and body must be of one version.
        orders = (("HEAD", "GET"), ("GET", "GET"), ("GET", "HEAD", "GET"), ("HEAD", "HEAD", "GET", "GET"))
        for number, order in enumerate(orders):
            for version, method in enumerate(order, 1):
                self.replace("changing%d.bin" % number, version)
                self.version_served("changing%d.bin" % number, method)
        time.sleep(3.1)  # the memory of the settings is two seconds long
        for number, order in enumerate(orders):
            self.assertEqual(self.version_served("changing%d.bin" % number, "GET"), len(order))

    def test_folders(self):
        self.assertEqual(self.host.curl(""), b"<h1>top</h1>")
        self.assertEqual(self.host.curl("sub/"), b"<h1>sub</h1>")
        status, fields = self.host.head("sub")
        self.assertEqual((status, fields["location"]), (301, "/sub/"))
        self.assertEqual(self.host.head("bare/")[0], 404)
        self.assertEqual(statuses(self.host.raw(b"GET //sub HTTP/1.0\r\n\r\n")), [301])
        self.assertIn(b"Location: /sub/\r\n", self.host.raw(b"GET //sub HTTP/1.0\r\n\r\n"))
        self.assertEqual(self.host.curl("a%20b+c.txt"), b"blank")

    def test_nothing_outside_the_folder(self):
        for target in ("/../outside.txt", "/%2e%2e/outside.txt", "/..%2foutside.txt", "/sub/../../outside.txt",
                       "/sub/%2e%2e/%2e%2e/outside.txt", "/..\\outside.txt", "/..%5coutside.txt", "/.%2e/outside.txt",
                       "//../outside.txt", "/.secret", "/.git/config", "/%2egit/config", "/sub/..%00/outside.txt",
                       "/1k.txt%00", "/1k.txt.", "/1k.txt%20", "/c:/1k.txt", "/sub\\index.html", "/%252e%252e/outside.txt",
                       "/1k.txt/", "/con", "http://x/../outside.txt"):
            answer = self.host.raw(b"GET %s HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n" % target.encode())
            self.assertIn(statuses(answer), ([400], [404]), target)
            self.assertNotIn(b"outside", answer.split(b"\r\n\r\n", 1)[1], target)
            self.assertNotIn(b"secret", answer, target)

    def test_many_requests_over_one_connection(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.host.port, timeout=20)
        connection.connect()
        port = connection.sock.getsockname()[1]
        for i in range(200):
            name = ("1k.bin", "one.txt", "empty.bin", "16k.bin", "missing")[i % 5]
            connection.request(("GET", "HEAD")[i % 7 == 0], "/" + name)
            reply = connection.getresponse()
            body = reply.read()
            self.assertEqual(reply.status, 404 if name == "missing" else 200)
            if reply.status == 200:
                self.assertEqual(body, b"" if i % 7 == 0 else self.files[name])
            self.assertEqual(connection.sock.getsockname()[1], port)
        connection.close()
        out = self.host.curl("1k.bin", "-w", "%{num_connects}", *sum((["-o", os.devnull, self.host.url("1k.bin")] for _ in range(20)), []), "-o", os.devnull)
        self.assertEqual(out.count(b"1"), 1)

    def test_requests_sent_without_waiting(self):
        one = b"GET /one.txt HTTP/1.1\r\nHost: a\r\n\r\n"
        big = b"GET /16k.bin HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n\r\nhello"
        last = b"GET /one.txt HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n"
        for pieces in (1, 3, 50):
            answer = self.host.raw(one * 20 + big + one + last + one, pieces)
            self.assertEqual(statuses(answer), [200] * 23)
            self.assertEqual(answer.count(self.files["16k.bin"]), 1)
        self.assertEqual(statuses(self.host.raw(one * 500)), [200] * 500)

    def test_heads_of_any_cut(self):
        request = b"GET /one.txt HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n"
        for pieces in (2, 5, len(request)):
            self.assertEqual(statuses(self.host.raw(request, pieces)), [200])

    def test_head_has_the_fields_and_no_body(self):
        for name in ("1k.bin", "large.txt", "missing"):
            for more in (b"", b"Accept-Encoding: gzip\r\n"):
                get = self.host.raw(b"GET /%s HTTP/1.1\r\nHost: a\r\nConnection: close\r\n%s\r\n" % (name.encode(), more))
                head = self.host.raw(b"HEAD /%s HTTP/1.1\r\nHost: a\r\nConnection: close\r\n%s\r\n" % (name.encode(), more))
                strip = lambda text: re.sub(rb"Date: [^\r]*", b"", text)
                self.assertEqual(strip(get.split(b"\r\n\r\n")[0] + b"\r\n\r\n"), strip(head))

    def test_malformed_requests(self):
        host = b"Host: a\r\n"
        table = (
            ([400], b"GET / HTTP/1.1\r\n\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + host + b"\r\n"),
            ([400], b"GET / HTTP/1.1\n" + host + b"\r\n"),
            ([400], b"GET / HTTP/1.1\r\nHost: a\rX: y\r\n\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"X: a\r\n folded\r\n\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Content-Length: 5\r\nContent-Length: 6\r\n\r\nhello"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Content-Length : 5\r\n\r\nhello"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Content-Length: 5,5\r\n\r\nhello"),
            ([501], b"GET / HTTP/1.1\r\n" + host + b"Transfer-Encoding: xchunked\r\n\r\n"),
            ([501], b"GET / HTTP/1.1\r\n" + host + b"Transfer-Encoding: chunked, identity\r\n\r\n0\r\n\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Transfer-Encoding: chunked\r\n\r\n5\r\nhelloXX\r\n0\r\n\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Transfer-Encoding: chunked\r\n\r\n5\nhello\r\n0\r\n\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Transfer-Encoding: chunked\r\n\r\n-5\r\nhello\r\n0\r\n\r\n"),
            ([413], b"GET / HTTP/1.1\r\n" + host + b"Content-Length: 65537\r\n\r\n"),
            ([413], b"GET / HTTP/1.1\r\n" + host + b"Content-Length: 999999999\r\n\r\n" + b"x" * 300000),
            ([413], b"GET / HTTP/1.1\r\n" + host + b"Transfer-Encoding: chunked\r\n\r\n" + b"8000\r\n" + b"x" * 32768 + b"\r\n8001\r\n" + b"x" * 32769),
            ([413], b"GET / HTTP/1.1\r\n" + host + b"Transfer-Encoding: chunked\r\n\r\n" + b"1\r\nx\r\n" * 30000),
            ([414], b"GET /" + b"a" * 20000 + b" HTTP/1.1\r\n" + host + b"\r\n"),
            ([414], b"GET /" + b"a" * 2000 + b" HTTP/1.1\r\n" + host + b"Connection: close\r\n\r\n"),
            ([431], b"GET / HTTP/1.1\r\n" + host + b"X: " + b"a" * 20000 + b"\r\n\r\n"),
            ([431], b"GET / HTTP/1.1\r\n" + host + b"X: y\r\n" * 200 + b"\r\n"),
            ([505], b"GET / HTTP/2.0\r\n" + host + b"\r\n"),
            ([505], b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"),
            ([400], b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"\n" * 10),
            ([], b"GET / HTTP/1.1\r\nHost: a\r\n"),
            ([], b""),
            ([400], b"*4\r\n$6\r\nCONFIG\r\n"),
            ([405], b"POST / HTTP/1.1\r\n" + host + b"Content-Length: 5\r\nConnection: close\r\n\r\nhello"),
            ([405, 200], b"DELETE / HTTP/1.1\r\n" + host + b"\r\nGET / HTTP/1.1\r\n" + host + b"\r\n"),
            ([501], b"BREW / HTTP/1.1\r\n" + host + b"Connection: close\r\n\r\n"),
            ([417], b"GET / HTTP/1.1\r\n" + host + b"Expect: miracles\r\n\r\n"),
            ([100, 200, 200], b"GET / HTTP/1.1\r\n" + host + b"Expect: 100-continue\r\nContent-Length: 5\r\n\r\nhelloGET / HTTP/1.1\r\n" + host + b"\r\n"),
            # What a smuggled request would look like: the second one must never be answered.
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Content-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n12\r\nGET /x HTTP/1.1\r\n" + host + b"\r\n0\r\n\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"Transfer-Encoding: \x00chunked\r\n\r\n0\r\n\r\nGET /x HTTP/1.1\r\n" + host + b"\r\n"),
            ([400], b"GET / HTTP/1.1\r\n" + host + b"X: y\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\nGET /x HTTP/1.1\r\n" + host + b"\r\n"),
        )
        for wanted, request in table:
            for pieces in (1, 4):
                self.assertEqual(statuses(self.host.raw(request, pieces)), wanted, (request[:120], pieces))

    def test_log_lines(self):
        self.host.raw(b'GET /one.txt?"x\\ HTTP/1.1\r\nHost: a\r\nConnection: close\r\nReferer: http://r/\r\nUser-Agent: a"b\tc\xff\r\n\r\n')
        self.host.raw(b"GARBAGE\r\n\r\n")
        time.sleep(1.3)  # written out once a second
        lines = self.host.log("access.log")
        stamp = r"\[\d\d/\w{3}/\d{4}:\d\d:\d\d:\d\d [+-]\d{4}\]"
        mine = [line for line in lines if "/one.txt?" in line]
        self.assertEqual(len(mine), 1)
        self.assertRegex(mine[0], r"^127\.0\.0\.1 - - " + stamp + r' "GET /one.txt\?\\x22x\\x5c HTTP/1.1" 200 1 "http://r/" "a\\x22b\\x09c\\xff"$')
        self.assertTrue(any(re.search(r'"GARBAGE" 400 \d+ "-" "-"$', line) for line in lines))


class Load(unittest.TestCase):
    def test_ten_thousand_requests_over_32_connections(self):
        host = Host()
        self.addCleanup(host.remove)
        data = host.write("1k.bin", random.Random(2).randbytes(1024)) and random.Random(2).randbytes(1024)
        host.start()
        request = b"GET /1k.bin HTTP/1.1\r\nHost: a\r\n\r\n"
        good = []

        def client():
            with socket.create_connection(("127.0.0.1", host.port), timeout=60) as sock:
                stream = sock.makefile("rb")
                for _ in range(313):
                    sock.sendall(request)
                    head = b""
                    while not head.endswith(b"\r\n\r\n"):
                        line = stream.readline()
                        if not line:
                            return
                        head += line
                    if b" 200 " not in head or stream.read(1024) != data:
                        return
                    good.append(1)

        threads = [threading.Thread(target=client) for _ in range(32)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(len(good), 32 * 313)
        host.stop()
        self.assertEqual(sum('"GET /1k.bin HTTP/1.1" 200 1024' in line for line in host.log("access.log")), 32 * 313)


class Stop(unittest.TestCase):
    def check_stop(self, host, how):
        seconds, code = host.stop(how)
        self.assertEqual(code, 0)
        self.assertLess(seconds, 3)
        self.assertTrue(host.log("webhost.log")[-1].endswith(LAST_LINE))

    def test_idle(self):
        for how in (signal.SIGTERM, signal.SIGINT):
            host = Host()
            self.addCleanup(host.remove)
            self.check_stop(host.start(), how)

    def test_with_clients_that_wait_send_and_do_not_read(self):
        host = Host()
        self.addCleanup(host.remove)
        host.write("large.bin", b"x" * (50 << 20))
        host.start()
        sockets = [socket.create_connection(("127.0.0.1", host.port)) for _ in range(40)]
        for i, sock in enumerate(sockets):
            self.addCleanup(sock.close)
            if i % 4 == 1:
                sock.sendall(b"GET / HTT")
            elif i % 4 == 2:
                sock.sendall(b"GET /large.bin HTTP/1.1\r\nHost: a\r\n\r\n")
            elif i % 4 == 3:
                sock.sendall(b"GET / HTTP/1.1\r\nHost: a\r\n\r\n")
        time.sleep(0.3)
        self.check_stop(host, signal.SIGTERM)

    def test_a_busy_port(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            host = Host()
            self.addCleanup(host.remove)
            run = subprocess.run([PROGRAM, str(taken.getsockname()[1]), host.site], env=dict(os.environ, TVHOME=host.root),
                                 capture_output=True, text=True, timeout=30)
            self.assertEqual(run.returncode, 1)
            self.assertIn("cannot listen", run.stderr)
            self.assertTrue(host.log("webhost.log")[-1].endswith(LAST_LINE))

    def test_wrong_arguments(self):
        for arguments, code in ((["x"], 2), (["70000"], 2), (["-1"], 2), (["0", "/no/such/folder"], 1)):
            host = Host()
            self.addCleanup(host.remove)
            run = subprocess.run([PROGRAM, *arguments], env=dict(os.environ, TVHOME=host.root), capture_output=True, timeout=30)
            self.assertEqual(run.returncode, code, arguments)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
