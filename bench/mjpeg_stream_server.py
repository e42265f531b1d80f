#!/usr/bin/env python3
"""Serves a prepared multipart MJPEG stream over loopback HTTP as fast as the client reads.

Usage: mjpeg_stream_server.py PORT STREAM_FILE BOUNDARY [LIFETIME_SECONDS]

A GET for any path with the query "repeat=N" gets the file's parts N times (default 1), then
the closing delimiter, then the connection closes. Exits by itself after LIFETIME_SECONDS
(default 600).
"""

import os
import re
import socketserver
import sys
import threading


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        request = self.rfile.readline(65536)
        match = re.search(rb"[?&]repeat=(\d+)", request)
        repeat = int(match.group(1)) if match else 1
        while self.rfile.readline(65536) not in (b"\r\n", b"\n", b""):
            pass
        head = ("HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace;boundary=%s\r\n"
                "Connection: close\r\n\r\n" % self.server.boundary)
        try:
            self.wfile.write(head.encode())
            for _ in range(repeat):
                self.wfile.write(self.server.stream)
            self.wfile.write(b"--%s--\r\n" % self.server.boundary.encode())
        except (BrokenPipeError, ConnectionResetError):
            pass


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True


def main():
    port, path, boundary = int(sys.argv[1]), sys.argv[2], sys.argv[3]
    lifetime = float(sys.argv[4]) if len(sys.argv) > 4 else 600.0
    threading.Timer(lifetime, lambda: os._exit(0)).start()
    with Server(("127.0.0.1", port), Handler) as server:
        with open(path, "rb") as f:
            server.stream = f.read()
        server.boundary = boundary
        server.serve_forever()


if __name__ == "__main__":
    main()
