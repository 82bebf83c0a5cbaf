#!/usr/bin/env python3
"""Runs the chat server as a process and talks to it as people would: chat_test.py PROGRAM"""
import signal
import socket
import subprocess
import sys
import unittest

PROGRAM = sys.argv.pop()
PATIENCE = 30  # seconds


class Person:
    def __init__(self, port, name=None):
        self.socket = socket.create_connection(("127.0.0.1", port), PATIENCE)
        self.lines = self.socket.makefile("r", encoding="utf-8")
        assert self.hear() == "Your name?"
        if name:
            self.say(name)

    def say(self, text):
        self.socket.sendall(text.encode() + b"\n")

    def hear(self):
        return self.lines.readline().rstrip("\n")

    def leave(self):
        self.lines.close()
        self.socket.close()


class ChatTest(unittest.TestCase):
    def setUp(self):
        self.server = subprocess.Popen([PROGRAM, "0"], stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.server.stdout.close)
        self.addCleanup(self.server.wait)
        self.addCleanup(self.server.kill)
        self.port = int(self.server.stdout.readline().split()[-1])

    def join(self, name=None):
        person = Person(self.port, name)
        self.addCleanup(person.leave)
        return person

    def test_lines_reach_everybody_and_names_are_unique(self):
        ann = self.join("ann")
        self.assertEqual(ann.hear(), "* ann is here, with ann")
        bob = self.join("ann")
        self.assertIn("taken", bob.hear())
        bob.say("bob")
        for person in (ann, bob):
            self.assertEqual(person.hear(), "* bob is here, with ann, bob")
        bob.socket.sendall(b"hel")
        bob.say("lo %s \x1b[31m")
        self.assertEqual(ann.hear(), "bob: hello %s [31m")
        ann.say("/quit")
        self.assertEqual([bob.hear(), bob.hear()], ["bob: hello %s [31m", "* ann has left"])
        self.assertEqual(ann.hear(), "")

    def test_whoever_misbehaves_is_let_go(self):
        good, _deaf = self.join("good"), self.join("deaf")
        endless = self.join()
        endless.socket.sendall(b"x" * 5000)
        self.assertIn("too long", endless.hear())
        spoke = 0
        heard = ""
        while "deaf has left" not in heard:
            good.say("y" * 1000)
            heard = good.hear()
            spoke += 1
            self.assertLess(spoke, 50000)

    def test_a_signal_ends_it_with_a_word(self):
        ann = self.join("ann")
        ann.hear()
        self.server.send_signal(signal.SIGINT)
        self.assertIn("good-bye", ann.hear())
        self.assertEqual(ann.hear(), "")
        self.assertEqual(self.server.wait(PATIENCE), 0)


if __name__ == "__main__":
    unittest.main()
