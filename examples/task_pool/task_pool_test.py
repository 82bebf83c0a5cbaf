#!/usr/bin/env python3
"""Runs the pool as a process: it grows under load, shrinks when idle, and stops only when all is answered."""
import re
import signal
import socket
import subprocess
import sys
import unittest

PROGRAM = sys.argv.pop()
PATIENCE = 60  # seconds


def primes_below(limit):
    sieve = bytearray([1]) * limit
    sieve[:2] = bytes(min(limit, 2))
    for n in range(2, int(limit**0.5) + 1):
        sieve[n * n::n] = bytes(len(range(n * n, limit, n)))
    return sum(sieve)


class TaskPoolTest(unittest.TestCase):
    def setUp(self):
        command = [PROGRAM, "0", "3", "20", "300"]  # any port, at most 3 threads, 20 ms of delay, 300 ms idle
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.end)
        self.client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.client.settimeout(PATIENCE)
        self.addCleanup(self.client.close)
        self.client.connect(("127.0.0.1", int(self.line(r"listening on port (\d+)\n"))))
        self.line(r"threads (1): .*\n")

    def end(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def line(self, pattern):
        line = self.process.stdout.readline()
        match = re.fullmatch(pattern, line)
        self.assertTrue(match, line)
        return match[1]

    def size_becomes(self, size):
        """A busy machine makes jobs wait that are none too many, so the way there is left open."""
        while int(self.line(r"threads (\d+): (?:a job waited \d+ ms|idle)\n")) != size:
            pass

    def ask(self, numbers):
        for number in numbers:
            self.client.send(b"%d" % number)

    def answers(self, count):
        return sorted(tuple(map(int, self.client.recv(100).split())) for _ in range(count))

    def test_follows_the_load_and_answers_all_before_it_stops(self):
        numbers = range(60000, 60060)
        expected = [(number, primes_below(number)) for number in numbers]
        for number in (0, 2, 3, 10):
            self.ask([number])
            self.assertEqual(self.answers(1), [(number, primes_below(number))])
        self.ask(numbers)
        self.assertEqual(self.answers(len(numbers)), expected)
        self.size_becomes(3)
        self.size_becomes(1)
        self.ask(numbers)
        self.assertEqual(len(self.answers(1)), 1)  # the others are queued, or not even taken from the socket
        self.process.send_signal(signal.SIGINT)
        output, _ = self.process.communicate(timeout=PATIENCE)
        self.assertEqual(self.process.returncode, 0)
        answered = int(re.search(r"answered (\d+) jobs, at most 3 threads\n$", output)[1])
        self.assertGreaterEqual(answered, 4 + len(numbers) + 1)
        self.assertEqual(len(self.answers(answered - 4 - len(numbers) - 1)), answered - 4 - len(numbers) - 1)
        self.client.settimeout(0)
        self.assertRaises((BlockingIOError, ConnectionRefusedError), self.client.recv, 100)  # not one more


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
