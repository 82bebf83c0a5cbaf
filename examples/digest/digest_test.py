#!/usr/bin/env python3
"""Runs the digest server and its client as processes and checks every answer: digest_test.py PROGRAM_FOLDER"""
import hashlib
import os
import random
import re
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

PROGRAMS = sys.argv.pop()
CLIENT = os.path.join(PROGRAMS, "digest_client")
PATIENCE = 60  # seconds


def begin(name=b"x"):
    """The message that starts a file, packed by hand."""
    body = b"\x00\x00\x00\x00\x07" + len(name).to_bytes(4, "big") + name
    return b"VELS" + bytes.fromhex("00010000 4447 0001") + len(body).to_bytes(4, "big") + bytes([0, 0, 0, 1]) + body


class Server:
    def __init__(self, *options):
        command = [os.path.join(PROGRAMS, "digest_server"), "--port", "0", *options]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.fullmatch(r"listening on ([\d.]+):(\d+)\n", line)
        assert match, line
        self.port = int(match[2])
        self.address = f"127.0.0.1:{self.port}"

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), PATIENCE)

    def stop(self, number=signal.SIGTERM):
        """Ends it as a user would; (exit code, what it printed, what it logged)."""
        self.process.send_signal(number)
        output, log = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, output, log

    def kill(self):
        """Whatever has become of it, nothing of it is left."""
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdout.close()
        self.process.stderr.close()


def client(server, *arguments, data=b""):
    return subprocess.run([CLIENT, server, *arguments], input=data, capture_output=True, timeout=PATIENCE)


class DigestTest(unittest.TestCase):
    def setUp(self):
        room = tempfile.TemporaryDirectory()
        self.addCleanup(room.cleanup)
        self.room = room.name
        self.server = None
        self.addCleanup(lambda: self.server and self.server.kill())

    def write(self, name, content):
        path = os.path.join(self.room, name)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def test_many_files_over_many_connections(self):
        random.seed(4711)
        contents = [random.randbytes(size) for size in (0, 1, 63, 64, 4096, 262144, 262145, 3000000)]
        contents += [b"line\n" * n for n in range(40)]
        paths = [self.write(f"file {i}", content) for i, content in enumerate(contents)]
        self.server = Server("--workers", "3")
        for connections in ("1", "7", "1000"):
            result = client(self.server.address, "--connections", connections, *paths)
            self.assertEqual((result.returncode, result.stderr), (0, b""))
            lines = result.stdout.decode().splitlines()
            self.assertEqual(len(lines), len(paths))
            for line, path, content in zip(lines, paths, contents):
                start, size, count, _ = line.split("\t")
                self.assertEqual(start, f"{hashlib.md5(content).hexdigest()}  {path}")
                self.assertEqual((int(size), int(count)), (len(content), content.count(b"\n")))
        code, output, log = self.server.stop()
        self.assertEqual((code, log), (0, ""))
        total = 3 * sum(map(len, contents))
        self.assertRegex(output, rf"served {3 * len(paths)} files of {total} bytes over \d+ connections, refused 0\n")

    def test_standard_input_and_styles(self):
        self.server = Server()
        digest = hashlib.md5(b"text\n").hexdigest()
        result = client(self.server.address, "--quiet", data=b"text\n")
        self.assertEqual((result.returncode, result.stdout.decode()), (0, f"{digest}  -\n"))
        result = client(self.server.address, "--table", "-", data=b"text\n")
        self.assertRegex(result.stdout.decode(), rf"md5 .*\n{digest} +5 +1 +\d+  -\nsum +5 +1\n")
        self.assertEqual(self.server.stop(signal.SIGINT)[0], 0)

    def test_unreadable_files_do_not_stop_the_others(self):
        self.server = Server()
        good = self.write("good", b"content")
        result = client(self.server.address, os.path.join(self.room, "absent"), good, self.room)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout.decode().split("\t")[0], f"{hashlib.md5(b'content').hexdigest()}  {good}")
        self.assertIn("absent: ", result.stderr.decode())
        self.assertEqual(len(result.stderr.decode().splitlines()), 2)

    def test_garbage_closes_that_connection_alone(self):
        self.server = Server()
        with self.server.connect() as quiet:
            huge = b"VELS" + bytes.fromhex("00010000 4447 0002 ffffff00 00000001") + b"x"
            unknown = b"VELS" + bytes.fromhex("00010000 4447 0063 00000000 00000000")
            for garbage in (b"GET / HTTP/1.0\r\n\r\n    ", huge, unknown, begin() + begin()):
                with self.server.connect() as peer:
                    peer.sendall(garbage)
                    self.assertEqual(self.rest(peer), b"", garbage)
            path = self.write("file", b"still here")
            self.assertEqual(client(self.server.address, path).returncode, 0)
            quiet.sendall(begin())
        log = [self.server.process.stderr.readline() for _ in range(5)]
        for line in log:
            self.assertRegex(line, r"^127\.0\.0\.1:\d+ closed: \S")
        self.assertIn("closed in the middle of x", log[4])
        self.assertIn("refused 4", self.server.stop()[1])

    @staticmethod
    def rest(peer):
        try:
            return peer.recv(1)
        except ConnectionResetError:
            return b""

    def test_idle_connections_are_closed(self):
        self.server = Server("--idle", "1")
        with self.server.connect() as peer:
            peer.sendall(begin())
            self.assertEqual(self.rest(peer), b"")
        self.assertIn("nothing came for 1 seconds", self.server.stop()[2])

    def test_refused_port(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            result = client(f"127.0.0.1:{taken.getsockname()[1]}", self.write("file", b""))
            self.assertEqual((result.returncode, result.stdout), (3, b""))
            self.assertIn(b"cannot connect to 127.0.0.1:", result.stderr)
            self.assertIn(b"(10061)", result.stderr)
            taken.listen()
            second = subprocess.run([os.path.join(PROGRAMS, "digest_server"), "--port", str(taken.getsockname()[1])],
                                    capture_output=True, timeout=PATIENCE)
            self.assertEqual((second.returncode, second.stdout), (1, b""))
            self.assertIn(b"cannot listen: ", second.stderr)

    def test_wrong_arguments(self):
        for arguments in ([], ["nowhere"], ["host:0"], ["host:99999"], ["host:1", "--connections", "0"], ["host:1", "--x"]):
            result = subprocess.run([CLIENT, *arguments], capture_output=True, timeout=PATIENCE)
            self.assertEqual(result.returncode, 2, arguments)
            self.assertIn(b"usage", result.stderr)
        for arguments in (["--port", "65536"], ["--port"], ["--idle", "0"], ["--workers", "64"], ["x", "1"]):
            command = [os.path.join(PROGRAMS, "digest_server"), *arguments]
            self.assertEqual(subprocess.run(command, capture_output=True, timeout=PATIENCE).returncode, 2, arguments)


if __name__ == "__main__":
    unittest.main()
