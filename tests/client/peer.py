#!/usr/bin/env python3
"""HTTP peers that behave the way the client must survive, one behaviour per run.

    peer.py MODE

Listens on a loopback port of the system's choice, prints "listening on PORT", and serves every
connection in a thread of its own until it is killed:

  port      answers 200 with the client's own port number (keep-alive), so that a test sees
            whether two requests came over one connection
  challenge answers 401 with a Basic challenge; the body counts the requests seen so far that
            carried an Authorization header
  silent    reads the request and never answers
  headers   answers with a status line and then header lines without end
  body      answers 200 and then content without end (no length: it ends when the connection
            does)
  length    answers 200 announcing a Content-Length of 1 GiB and sends a few bytes
  proxy     answers 200 with the request line it was sent, as a proxy would see it
"""
import socket
import sys
import threading

MODE = sys.argv[1]
authorized_requests = 0
lock = threading.Lock()


def read_request(connection, pending):
    """Reads one request head and its Content-Length body; returns (head, rest) or None."""
    while b"\r\n\r\n" not in pending:
        chunk = connection.recv(65536)
        if not chunk:
            return None
        pending += chunk
    head, _, rest = pending.partition(b"\r\n\r\n")
    length = 0
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.strip().lower() == b"content-length":
            length = int(value.strip())
    while len(rest) < length:
        chunk = connection.recv(65536)
        if not chunk:
            return None
        rest += chunk
    return head.decode("latin-1"), rest[length:]


def answer(connection, status, body, extra=""):
    connection.sendall(
        f"HTTP/1.1 {status}\r\nContent-Type: text/plain\r\nContent-Length: {len(body)}\r\n"
        f"{extra}\r\n".encode() + body)


def endless(connection, first, piece):
    connection.sendall(first)
    while True:
        connection.sendall(piece)


def serve(connection, address):
    global authorized_requests
    pending = b""
    try:
        while True:
            request = read_request(connection, pending)
            if request is None:
                return
            head, pending = request
            if MODE == "port":
                answer(connection, "200 OK", str(address[1]).encode())
            elif MODE == "challenge":
                with lock:
                    if "\r\nauthorization:" in head.lower():
                        authorized_requests += 1
                    count = authorized_requests
                answer(connection, "401 Unauthorized", str(count).encode(),
                       'WWW-Authenticate: Basic realm="quiz"\r\n')
            elif MODE == "silent":
                threading.Event().wait()
            elif MODE == "headers":
                endless(connection, b"HTTP/1.1 200 OK\r\n", b"X-Filler: " + b"a" * 1000 + b"\r\n")
            elif MODE == "body":
                endless(connection, b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n",
                        b"b" * 65536)
            elif MODE == "length":
                connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\nbbbb")
                threading.Event().wait()
            elif MODE == "proxy":
                answer(connection, "200 OK", head.split("\r\n")[0].encode())
    except OSError:
        pass
    finally:
        connection.close()


def main():
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.bind(("127.0.0.1", 0))
    listener.listen(128)
    print(f"listening on {listener.getsockname()[1]}", flush=True)
    while True:
        connection, address = listener.accept()
        threading.Thread(target=serve, args=(connection, address), daemon=True).start()


main()
