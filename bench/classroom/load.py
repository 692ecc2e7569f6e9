#!/usr/bin/env python3
"""A class of N students against a running veskan-classroom, on raw sockets.

Every student opens the student WebSocket and joins; the teacher's socket (its token read from
the password-protected teacher page) starts the first question; every student answers at once.
Prints how long the joins, the answers (until every student has heard "received") and the
teacher's chart (until it shows N answers) took, and the classroom's resident memory.

    bench/classroom/load.py BASE_URL PASSWORD STUDENTS [PID]

The sockets are driven by one selector loop, so 5,000 students cost one process and one thread.
"""
import base64
import json
import os
import re
import selectors
import socket
import struct
import sys
import time
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from benchlib import resident_kib  # noqa: E402


def frame(text):
    """A masked text frame, as a client sends it."""
    payload = text.encode()
    mask = os.urandom(4)
    head = bytes([0x81])
    if len(payload) < 126:
        head += bytes([0x80 | len(payload)])
    elif len(payload) < 65536:
        head += bytes([0x80 | 126]) + struct.pack("!H", len(payload))
    else:
        head += bytes([0x80 | 127]) + struct.pack("!Q", len(payload))
    return head + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(payload))


class Socket:
    """One WebSocket: handshake, then text messages out and in."""

    def __init__(self, host, port, target):
        self.sock = socket.create_connection((host, port))
        self.sock.setblocking(False)
        key = base64.b64encode(os.urandom(16)).decode()
        self.out = (f"GET {target} HTTP/1.1\r\nHost: {host}:{port}\r\nUpgrade: websocket\r\n"
                    f"Connection: Upgrade\r\nSec-WebSocket-Key: {key}\r\n"
                    "Sec-WebSocket-Version: 13\r\n\r\n").encode()
        self.inbox = b""
        self.upgraded = False
        self.state = None

    def send(self, text):
        self.out += frame(text)

    def flush(self):
        if self.out:
            try:
                sent = self.sock.send(self.out)
                self.out = self.out[sent:]
            except BlockingIOError:
                pass

    def read(self):
        try:
            data = self.sock.recv(65536)
        except BlockingIOError:
            return
        if not data:
            raise ConnectionError("the classroom closed a socket")
        self.inbox += data
        if not self.upgraded:
            end = self.inbox.find(b"\r\n\r\n")
            if end < 0:
                return
            if not self.inbox.startswith(b"HTTP/1.1 101"):
                raise ConnectionError(self.inbox[:end].decode(errors="replace"))
            self.inbox = self.inbox[end + 4:]
            self.upgraded = True
        while len(self.inbox) >= 2:
            length = self.inbox[1] & 0x7F
            start = 2
            if length == 126:
                if len(self.inbox) < 4:
                    return
                length = struct.unpack("!H", self.inbox[2:4])[0]
                start = 4
            elif length == 127:
                if len(self.inbox) < 10:
                    return
                length = struct.unpack("!Q", self.inbox[2:10])[0]
                start = 10
            if len(self.inbox) < start + length:
                return
            opcode = self.inbox[0] & 0x0F
            payload = self.inbox[start:start + length]
            self.inbox = self.inbox[start + length:]
            if opcode == 1:
                message = json.loads(payload)
                if message.get("type") == "error":
                    sys.exit("the classroom said: " + message["text"])
                if message.get("type") == "state":
                    self.state = message


def teacher_token(base, password):
    parts = urllib.parse.urlsplit(base)
    credentials = base64.b64encode(f"teacher:{password}".encode()).decode()
    with socket.create_connection((parts.hostname, parts.port)) as sock:
        sock.sendall((f"GET /teacher HTTP/1.1\r\nHost: {parts.netloc}\r\n"
                      f"Authorization: Basic {credentials}\r\nConnection: close\r\n\r\n").encode())
        page = b""
        while True:
            data = sock.recv(65536)
            if not data:
                break
            page += data
    found = re.search(rb'name="classroom-token" content="([A-Z0-9]+)"', page)
    if not found:
        sys.exit("no teacher page: wrong password?")
    return found.group(1).decode()


def pump(selector, sockets, done, what, limit=120):
    """Runs the sockets until done() holds; fails after `limit` seconds."""
    until = time.monotonic() + limit
    while not done():
        if time.monotonic() > until:
            sys.exit(f"timed out: {what}")
        for s in sockets:
            s.flush()
        for key, _ in selector.select(0.05):
            key.data.read()


def main():
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    base, password, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
    pid = int(sys.argv[4]) if len(sys.argv) > 4 else 0
    parts = urllib.parse.urlsplit(base)
    selector = selectors.DefaultSelector()
    before = resident_kib(pid) or 0

    teacher = Socket(parts.hostname, parts.port, "/ws/teacher?token=" + teacher_token(base, password))
    selector.register(teacher.sock, selectors.EVENT_READ, teacher)
    everyone = [teacher]
    pump(selector, everyone, lambda: teacher.state is not None, "the teacher's first state")
    if teacher.state["phase"] != "waiting" or teacher.state["number"] != 1:
        teacher.send("rerun")  # a clean first question

    started = time.monotonic()
    students = []
    for i in range(count):
        student = Socket(parts.hostname, parts.port, "/ws/student")
        student.send(f"join\t\tLoad {i:05d}")
        selector.register(student.sock, selectors.EVENT_READ, student)
        students.append(student)
        everyone.append(student)
        if i % 200 == 199:  # let the classroom take them in as they come
            pump(selector, everyone, lambda: True, "joins")
    pump(selector, everyone, lambda: all(s.state for s in students), "every student joined")
    joined = time.monotonic() - started

    teacher.send("start")
    pump(selector, everyone, lambda: all(s.state["phase"] == "open" for s in students),
         "the question reaching every student")
    started = time.monotonic()
    for i, student in enumerate(students):
        student.send(f"answer\t1\t{i % len(student.state['choices'])}")
    pump(selector, everyone, lambda: all(s.state.get("answered", -1) >= 0 for s in students),
         "every answer received")
    answered = time.monotonic() - started
    pump(selector, everyone, lambda: teacher.state["answers"] == count, "the chart")
    charted = time.monotonic() - started
    counts = [choice["answers"] for choice in teacher.state["choices"]]
    if sum(counts) != count:
        sys.exit(f"the chart counts {sum(counts)} answers, not {count}")
    after = resident_kib(pid) or 0
    print(f"students {count}: joined in {joined * 1000:.0f} ms, all answers received in "
          f"{answered * 1000:.0f} ms ({count / answered:.0f} answers/s), chart complete after "
          f"{charted * 1000:.0f} ms; classroom memory {before / 1024:.1f} -> {after / 1024:.1f} MiB")
    teacher.send("rerun")
    pump(selector, [teacher], lambda: teacher.state["total"] == 0, "the rerun")
    for s in everyone:
        s.sock.close()


if __name__ == "__main__":
    main()
