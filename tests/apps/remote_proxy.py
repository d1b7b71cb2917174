#!/usr/bin/env python3
"""A loopback HTTP/1.1 proxy that loses chosen answers, for the remote client's tests.

    remote_proxy.py UPSTREAM_PORT PORT_FILE DROP...

Forwards each request to the server on UPSTREAM_PORT. The requests to a download method of the
documents service are counted from 1; for each count listed in DROP the server's answer is read
and thrown away and the client's connection closed, as when a connection breaks after the server
has done the work. The port it listens on is written to PORT_FILE.
"""
import socket
import sys
import threading

upstream_port = int(sys.argv[1])
drops = {int(n) for n in sys.argv[3:]}
lock = threading.Lock()
downloads = 0


def read_message(sock, buf):
    """One Content-Length framed message from sock (buf holds bytes read before); None at EOF."""
    while b"\r\n\r\n" not in buf:
        data = sock.recv(65536)
        if not data:
            return None, b""
        buf += data
    head, rest = buf.split(b"\r\n\r\n", 1)
    length = 0
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.strip().lower() == b"content-length":
            length = int(value.strip())
    while len(rest) < length:
        data = sock.recv(1 << 20)
        if not data:
            return None, b""
        rest += data
    return head + b"\r\n\r\n" + rest[:length], rest[length:]


def serve(client):
    global downloads
    up = socket.create_connection(("127.0.0.1", upstream_port))
    buf = b""
    try:
        while True:
            request, buf = read_message(client, buf)
            if request is None:
                return
            up.sendall(request)
            answer, _ = read_message(up, b"")
            if answer is None:
                return
            drop = False
            if b"/services/IDocumentStore/Download" in request.split(b"\r\n", 1)[0]:
                with lock:
                    downloads += 1
                    drop = downloads in drops
            if drop:
                return
            client.sendall(answer)
    finally:
        client.close()
        up.close()


listener = socket.socket()
listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
listener.bind(("127.0.0.1", 0))
listener.listen(16)
with open(sys.argv[2], "w") as f:
    f.write(str(listener.getsockname()[1]))
while True:
    conn, _ = listener.accept()
    threading.Thread(target=serve, args=(conn,), daemon=True).start()
