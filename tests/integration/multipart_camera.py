#!/usr/bin/env python3
"""A multipart HTTP camera for the fetcher's tests, on the standard library only.

Usage: multipart_camera.py PORT [LIFETIME_SECONDS [CERT KEY]]

Listens on 127.0.0.1:PORT and exits by itself after LIFETIME_SECONDS (default 120); with a
certificate and key in PEM files it speaks https. Every
request gets a multipart stream shaped by its query string:

  parts=N        number of parts (default 4); the response then ends
  endless=1      repeat the parts until the client goes away
  sizes=a,b,...  body sizes, cycled (default 200 + 37 * i)
  len=0|1        Content-Length part headers (default 1); lenfirst=1 puts it before the type
  lf=1           LF-only line ends
  boundary=TOK   boundary token (default myboundary); quote=1 quotes it in the header;
                 dashes=1 writes it with two leading dashes in the header only (a common
                 camera quirk), dashes=2 in the header and the lines (as RFC 2046 reads it)
  ctype=TEXT     replaces the response Content-Type entirely
  chunked=1      chunked transfer coding; http10=1 answers as HTTP/1.0
  auth=basic|digest   requires admin:secret
  method=POST    requires a POST whose body is <start/> (405 / 400 otherwise)
  version=1.0    requires an HTTP/1.0 request (505 otherwise)
  status=NNN     answers NNN with a short body instead of a stream
  redirect=1     answers 302 to the same request without this parameter
  audio=1        an audio/basic part (A-law) after every video part
  extra=1        in-band Vdo-ExtraSize/Ado-ExtraSize/Codec headers on the first part, a
                 Timestamp header on every part, an X-Frame line after the length
  manyheaders=K  part K carries 31 header lines before its type
  big=K          part K is 5 MiB without a length header
  cut=K          the connection closes in the middle of part K's body
  stall=K        after K parts nothing more is sent (the connection stays open)
  preamble=1     text before the first boundary
  midstart=1     the response starts inside a part of known length
  nearmiss=TEXT  TEXT is written into the middle of every video body
  split=K        the body goes out in two writes, cut at byte K
  bytewise=1     the body goes out one byte per write
  tag=T          counted; GET /count?tag=T answers the number of stream requests seen

Part bodies are deterministic: byte k of video part i is BASE[(k + 7919 * i) % 65536], BASE
being 65536 bytes of the generator x = (1103515245 x + 12345) mod 2^31 from x = 1, each byte
(x >> 16) & 255. The tests compute the same bytes.
"""

import base64
import hashlib
import os
import socket
import socketserver
import ssl
import sys
import threading
import time
import urllib.parse

USER, PASSWORD, REALM = "admin", "secret", "camera"
BIG_SIZE = 5 * 1024 * 1024
AUDIO_SIZE = 320


def make_base():
    out = bytearray(65536)
    x = 1
    for k in range(65536):
        x = (1103515245 * x + 12345) & 0x7FFFFFFF
        out[k] = (x >> 16) & 0xFF
    return bytes(out)


BASE = make_base()
DOUBLE_BASE = BASE + BASE
COUNTS = {}
COUNTS_LOCK = threading.Lock()
NONCES = set()


def video_body(i, size, nearmiss=b""):
    start = (7919 * i) % 65536
    chunks = []
    left = size
    while left > 0:
        piece = DOUBLE_BASE[start:start + min(left, 65536)]
        chunks.append(piece)
        left -= len(piece)
    body = bytearray(b"".join(chunks))
    if nearmiss and size >= 2 * len(nearmiss):
        mid = size // 2
        body[mid:mid + len(nearmiss)] = nearmiss
    return bytes(body)


def audio_body(i):
    return bytes((0xD5 + 3 * i + k) & 0xFF for k in range(AUDIO_SIZE))


class Stream:
    """The body bytes of one response, produced part by part."""

    def __init__(self, q):
        self.q = q
        self.eol = b"\n" if q.get("lf") == "1" else b"\r\n"
        self.token = q.get("boundary", "myboundary")
        dashes = q.get("dashes")
        self.param = ("--" + self.token) if dashes in ("1", "2") else self.token
        self.delim = ("--" + (self.param if dashes == "2" else self.token)).encode()
        self.with_len = q.get("len", "1") == "1"
        sizes = q.get("sizes")
        self.sizes = [int(s) for s in sizes.split(",")] if sizes else None
        self.nearmiss = urllib.parse.unquote_to_bytes(q["nearmiss"]) if "nearmiss" in q else b""

    def content_type(self):
        if "ctype" in self.q:
            return self.q["ctype"]
        param = '"%s"' % self.param if self.q.get("quote") == "1" else self.param
        return "multipart/x-mixed-replace; boundary=" + param

    def size(self, i):
        if self.sizes:
            return self.sizes[i % len(self.sizes)]
        return 200 + 37 * i

    def intkey(self, name):
        return int(self.q[name]) if name in self.q else -1

    def part(self, i, index, kind, body, with_len):
        e = self.eol
        head = [self.delim + e]
        if self.q.get("extra") == "1":
            if i == 0 and kind == "video":
                head.append(b"Vdo-ExtraSize: 4" + e + b"\x01\x02\x03\x04")
                head.append(b"Ado-ExtraSize: 2" + e + b"\xaa\xbb")
                head.append(b"Codec: mjpeg;pcma" + e)
            head.append(b"Timestamp: %d" % (1600000000000 + 40 * index) + e)
        if self.intkey("manyheaders") == i and kind == "video":
            head += [b"X-Pad-%d: %d" % (n, n) + e for n in range(31)]
        ctype = b"Content-Type: " + (b"image/jpeg" if kind == "video" else b"audio/basic") + e
        clen = b"Content-Length: %d" % len(body) + e
        if with_len and self.q.get("lenfirst") == "1":
            head += [clen, ctype]
        elif with_len:
            head += [ctype, clen]
        else:
            head.append(ctype)
        if self.q.get("extra") == "1" and with_len:
            head.append(b"X-Frame: %d" % index + e)
        head.append(e)
        return b"".join(head) + body + e

    def pieces(self):
        """Yields (bytes, cut_after) in order; cut_after closes the connection after them."""
        if self.q.get("preamble") == "1":
            yield b"This is a multipart stream" + self.eol + self.eol, False
        if self.q.get("midstart") == "1":
            e = self.eol
            yield b"Content-Type: image/jpeg" + e + b"Content-Length: 5" + e + e + b"HELLO" + e, False
        count = int(self.q.get("parts", "4"))
        endless = self.q.get("endless") == "1"
        i = 0
        index = 0
        while endless or i < count:
            if self.intkey("stall") == i:
                yield None, False
                return
            size = BIG_SIZE if self.intkey("big") == i else self.size(i)
            body = video_body(i, size, self.nearmiss)
            with_len = self.with_len and self.intkey("big") != i
            data = self.part(i, index, "video", body, with_len)
            index += 1
            if self.intkey("cut") == i:
                yield data[:len(data) - len(body) // 2 - len(self.eol)], True
                return
            yield data, False
            if self.q.get("audio") == "1":
                yield self.part(i, index, "audio", audio_body(i), self.with_len), False
                index += 1
            i += 1
        yield self.delim + b"--" + self.eol, False


class Handler(socketserver.BaseRequestHandler):
    def setup(self):
        self.request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.reader = self.request.makefile("rb")

    def log(self, text):
        sys.stderr.write("[camera] %s\n" % text)
        sys.stderr.flush()

    def read_request(self):
        line = self.reader.readline(65536)
        if not line:
            return None
        method, target, version = (line.decode("latin-1").split() + ["", "", ""])[:3]
        headers = {}
        while True:
            h = self.reader.readline(65536)
            if h in (b"\r\n", b"\n", b""):
                break
            name, _, value = h.decode("latin-1").partition(":")
            headers[name.strip().lower()] = value.strip()
        body = b""
        if "content-length" in headers:
            body = self.reader.read(int(headers["content-length"]))
        return method, target, version, headers, body

    def reply(self, status, text, extra=(), body=b"", close=False):
        lines = ["HTTP/1.1 %d %s" % (status, text)] + list(extra)
        lines.append("Content-Length: %d" % len(body))
        if close:
            lines.append("Connection: close")
        self.request.sendall(("\r\n".join(lines) + "\r\n\r\n").encode() + body)

    def authorized(self, kind, headers, method, target):
        got = headers.get("authorization", "")
        if kind == "basic":
            want = base64.b64encode(("%s:%s" % (USER, PASSWORD)).encode()).decode()
            return got == "Basic " + want
        if not got.startswith("Digest "):
            return False
        fields = {}
        for item in got[7:].split(","):
            k, _, v = item.strip().partition("=")
            fields[k] = v.strip('"')
        if fields.get("nonce") not in NONCES or fields.get("username") != USER:
            return False

        def md5(s):
            return hashlib.md5(s.encode()).hexdigest()

        ha1 = md5("%s:%s:%s" % (USER, REALM, PASSWORD))
        ha2 = md5("%s:%s" % (method, fields.get("uri", "")))
        want = md5("%s:%s:%s:%s:%s:%s" % (ha1, fields["nonce"], fields.get("nc", ""),
                                          fields.get("cnonce", ""), fields.get("qop", ""), ha2))
        return fields.get("response") == want and fields.get("uri") == target

    def challenge(self, kind):
        if kind == "basic":
            return 'WWW-Authenticate: Basic realm="%s"' % REALM
        nonce = os.urandom(12).hex()
        NONCES.add(nonce)
        return 'WWW-Authenticate: Digest realm="%s", qop="auth", nonce="%s", algorithm=MD5' % (
            REALM, nonce)

    def handle(self):
        # Requests on one connection until a stream is served (a Digest round trip may reuse it).
        while True:
            request = self.read_request()
            if request is None:
                return
            method, target, version, headers, body = request
            self.log("%s %s %s" % (method, target, version))
            url = urllib.parse.urlsplit(target)
            q = dict(urllib.parse.parse_qsl(url.query, keep_blank_values=True))
            if url.path == "/count":
                with COUNTS_LOCK:
                    n = COUNTS.get(q.get("tag", ""), 0)
                self.reply(200, "OK", ["Content-Type: text/plain"], str(n).encode(), close=True)
                return
            if "auth" in q and not self.authorized(q["auth"], headers, method, target):
                self.reply(401, "Unauthorized", [self.challenge(q["auth"])], b"denied")
                continue
            if q.get("method") == "POST" and method != "POST":
                self.reply(405, "Method Not Allowed", body=b"POST only", close=True)
                return
            if q.get("method") == "POST" and body != b"<start/>":
                self.reply(400, "Bad Request", body=b"bad body", close=True)
                return
            if q.get("version") == "1.0" and version != "HTTP/1.0":
                self.reply(505, "HTTP Version Not Supported", close=True)
                return
            if q.get("redirect") == "1":
                target = target.replace("redirect=1", "redirect=0")
                self.reply(302, "Found", ["Location: " + target], b"moved")
                continue
            if "status" in q:
                self.reply(int(q["status"]), "Status", body=b"status page", close=True)
                return
            if "tag" in q:
                with COUNTS_LOCK:
                    COUNTS[q["tag"]] = COUNTS.get(q["tag"], 0) + 1
            self.stream(q)
            return

    def stream(self, q):
        s = Stream(q)
        chunked = q.get("chunked") == "1"
        status = "HTTP/1.0 200 OK" if q.get("http10") == "1" else "HTTP/1.1 200 OK"
        head = [status, "Content-Type: " + s.content_type(), "Cache-Control: no-cache"]
        head.append("Transfer-Encoding: chunked" if chunked else "Connection: close")
        self.request.sendall(("\r\n".join(head) + "\r\n\r\n").encode())

        def send(data):
            if chunked:
                data = b"%x\r\n" % len(data) + data + b"\r\n"
            self.request.sendall(data)

        try:
            split, bytewise = int(q.get("split", "-1")), q.get("bytewise") == "1"
            if split >= 0 or bytewise:
                # Finite streams only: the whole body first, then the writes as asked.
                body = b"".join(p for p, _ in s.pieces() if p is not None)
                if bytewise:
                    for k in range(len(body)):
                        send(body[k:k + 1])
                else:
                    if split > 0:
                        send(body[:split])
                    time.sleep(0.002)
                    send(body[split:])
            else:
                for data, cut in s.pieces():
                    if data is None:
                        time.sleep(3600)  # stalled; the lifetime ends it
                        return
                    send(data)
                    if cut:
                        self.request.shutdown(socket.SHUT_RDWR)
                        return
            if chunked:
                self.request.sendall(b"0\r\n\r\n")
        except (BrokenPipeError, ConnectionResetError):
            pass


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True


def main():
    port = int(sys.argv[1])
    lifetime = float(sys.argv[2]) if len(sys.argv) > 2 else 120.0
    threading.Timer(lifetime, lambda: os._exit(0)).start()
    with Server(("127.0.0.1", port), Handler) as server:
        if len(sys.argv) > 4:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(sys.argv[3], sys.argv[4])
            server.socket = context.wrap_socket(server.socket, server_side=True)
        server.serve_forever()


if __name__ == "__main__":
    main()
