#!/usr/bin/env python3
"""Serves the files of a directory over HTTP/1.1 on 127.0.0.1 for a bounded time. A path
ending in "?cut=N" sends only the first N bytes of the file and then closes the connection,
as a camera that drops a stream mid-box. Usage: mp4_file_server.py DIR PORT SECONDS"""
import http.server
import os
import sys
import threading
import urllib.parse


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        url = urllib.parse.urlparse(self.path)
        name = os.path.join(self.server.root, os.path.basename(url.path))
        if not os.path.isfile(name):
            self.send_error(404)
            return
        data = open(name, "rb").read()
        cut = urllib.parse.parse_qs(url.query).get("cut")
        self.send_response(200)
        self.send_header("Content-Type", "video/mp4")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data[:int(cut[0])] if cut else data)
        if cut:
            self.close_connection = True

    def log_message(self, *args):
        pass


def main():
    root, port, seconds = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
    server = http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler)
    server.root = root
    server.daemon_threads = True
    threading.Timer(seconds, server.shutdown).start()
    server.serve_forever()


if __name__ == "__main__":
    main()
