#!/usr/bin/python3
"""A small scripted RTSP server for what real servers will not show on demand.

It answers DESCRIBE / SETUP / PLAY / OPTIONS / GET_PARAMETER / TEARDOWN, streams the H.264
NAL units of an Annex B file as RTP (RFC 6184, single NAL units and FU-A) over UDP or
TCP-interleaved transport, and records every request (method, URL, headers, time) and
connection event as JSON lines, so a test can check exactly what the client sent.

The scenario (a JSON file) can ask for: a fixed SDP, a DESCRIBE answered 401 until
credentials come (Basic or Digest), a fixed DESCRIBE status, a session timeout in the
Session header, a server that never answers, RTP header extensions on every packet, bit
flips, an oversized frame, a stream that stops, a connection closed mid-session, a storm
of RTCP BYE packets, methods answered with an error status, a session that expires when no
request is accepted within its timeout, UDP transport only, and responses whose lines end in
a bare LF. Python standard library only; runs until killed (the harness bounds it).
"""
import argparse
import base64
import hashlib
import json
import random
import re
import socket
import struct
import sys
import threading
import time

SSRC = 0x1234ABCD
MAX_PAYLOAD = 1400


def read_nals(path):
    data = open(path, "rb").read()
    starts = [m.end() for m in re.finditer(b"\x00\x00\x01", data)]
    nals = []
    for i, s in enumerate(starts):
        e = starts[i + 1] - 3 if i + 1 < len(starts) else len(data)
        nal = data[s:e]
        while nal.endswith(b"\x00"):
            nal = nal[:-1]
        if nal:
            nals.append(nal)
    return nals


def access_units(nals):
    """Groups NAL units into pictures: a picture ends with a slice (one slice per picture)."""
    units, current = [], []
    for nal in nals:
        current.append(nal)
        if nal[0] & 0x1F in (1, 5):
            units.append(current)
            current = []
    return units


class Recorder:
    def __init__(self, path):
        self.file = open(path, "a", buffering=1)
        self.lock = threading.Lock()

    def write(self, **event):
        event["t"] = time.time()
        with self.lock:
            self.file.write(json.dumps(event) + "\n")


class Session:
    """One client connection with its RTP stream."""

    def __init__(self, server, conn, addr):
        self.server = server
        self.sc = server.scenario
        self.conn = conn
        self.addr = addr
        self.send_lock = threading.Lock()
        self.transport = None  # ("tcp", rtp channel, rtcp channel) or ("udp", rtp, rtcp)
        self.streaming = threading.Event()
        self.stop = threading.Event()
        self.session_id = "5EE55100"
        self.rng = random.Random(self.sc.get("seed", 7))
        self.udp = None
        self.last_accepted = time.time()

    # -- RTSP --------------------------------------------------------------------------
    def run(self):
        rec = self.server.recorder
        rec.write(event="connect")
        buf = b""
        try:
            while not self.stop.is_set():
                chunk = self.conn.recv(65536)
                if not chunk:
                    break
                buf += chunk
                while True:
                    if buf[:1] == b"$":  # interleaved RTCP from the client
                        if len(buf) < 4:
                            break
                        size = struct.unpack(">H", buf[2:4])[0]
                        if len(buf) < 4 + size:
                            break
                        buf = buf[4 + size:]
                        continue
                    end = buf.find(b"\r\n\r\n")
                    if end < 0:
                        break
                    head = buf[:end].decode("latin-1")
                    lines = head.split("\r\n")
                    headers = {}
                    for line in lines[1:]:
                        if ":" in line:
                            k, v = line.split(":", 1)
                            headers[k.strip().lower()] = v.strip()
                    length = int(headers.get("content-length", "0"))
                    if len(buf) < end + 4 + length:
                        break
                    buf = buf[end + 4 + length:]
                    method, url = (lines[0].split(" ") + ["", ""])[:2]
                    rec.write(event="request", method=method, url=url, headers=headers)
                    if self.sc.get("never_answer"):
                        continue
                    self.handle(method, url, headers)
        except OSError:
            pass
        finally:
            self.stop.set()
            rec.write(event="closed")
            try:
                self.conn.close()
            except OSError:
                pass

    def reply(self, cseq, status="200 OK", headers=None, body=""):
        text = f"RTSP/1.0 {status}\r\nCSeq: {cseq}\r\n"
        for k, v in (headers or {}).items():
            text += f"{k}: {v}\r\n"
        if body:
            text += f"Content-Length: {len(body.encode())}\r\n"
        text += "\r\n" + body
        if self.sc.get("bare_lf"):
            text = text.replace("\r\n", "\n")
        with self.send_lock:
            self.conn.sendall(text.encode())

    def authorized(self, method, headers):
        kind = self.sc.get("describe_auth")
        if not kind:
            return True
        auth = headers.get("authorization", "")
        user, password = self.sc.get("user", ""), self.sc.get("password", "")
        if kind == "basic":
            token = base64.b64encode(f"{user}:{password}".encode()).decode()
            return auth == f"Basic {token}"
        fields = dict(re.findall(r'(\w+)="([^"]*)"', auth))
        if not auth.startswith("Digest") or fields.get("username") != user:
            return False
        md5 = lambda s: hashlib.md5(s.encode()).hexdigest()  # noqa: E731
        ha1 = md5(f"{user}:scripted:{password}")
        ha2 = md5(f"{method}:{fields.get('uri', '')}")
        return fields.get("response") == md5(f"{ha1}:{fields.get('nonce', '')}:{ha2}")

    def handle(self, method, url, headers):
        cseq = headers.get("cseq", "0")
        sc = self.sc
        if method in sc.get("reject", {}):
            self.reply(cseq, sc["reject"][method])
            return
        self.last_accepted = time.time()
        if method == "OPTIONS":
            self.reply(cseq, headers={
                "Public": "OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN, GET_PARAMETER"})
        elif method == "DESCRIBE":
            if sc.get("describe_status"):
                self.reply(cseq, sc["describe_status"])
            elif not self.authorized(method, headers):
                challenge = ('Basic realm="scripted"' if sc["describe_auth"] == "basic"
                             else 'Digest realm="scripted", nonce="0a1b2c3d4e"')
                self.reply(cseq, "401 Unauthorized", {"WWW-Authenticate": challenge})
            else:
                base = url if url.endswith("/") else url + "/"
                self.reply(cseq, headers={"Content-Base": base,
                                          "Content-Type": "application/sdp"},
                           body=self.server.sdp)
        elif method == "SETUP":
            self.setup(cseq, headers.get("transport", ""))
        elif method == "PLAY":
            extra = {"Session": self.session_id}
            if "range" in headers:
                extra["Range"] = headers["range"]
            self.reply(cseq, headers=extra)
            if not self.streaming.is_set():
                self.streaming.set()
                threading.Thread(target=self.stream, daemon=True).start()
        elif method == "TEARDOWN":
            self.reply(cseq, headers={"Session": self.session_id})
            self.stop.set()
        else:  # GET_PARAMETER and anything else
            self.reply(cseq, headers={"Session": self.session_id})

    def setup(self, cseq, transport):
        session = self.session_id
        if sc_timeout := self.sc.get("session_timeout"):
            session += f";timeout={sc_timeout}"
        if "RTP/AVP/TCP" in transport and self.sc.get("udp_only"):
            self.reply(cseq, "461 Unsupported Transport")
            return
        if "RTP/AVP/TCP" in transport:
            m = re.search(r"interleaved=(\d+)-(\d+)", transport)
            ch = (int(m.group(1)), int(m.group(2))) if m else (0, 1)
            self.transport = ("tcp", ch[0], ch[1])
            reply = f"RTP/AVP/TCP;unicast;interleaved={ch[0]}-{ch[1]}"
        else:
            m = re.search(r"client_port=(\d+)-(\d+)", transport)
            if not m:
                self.reply(cseq, "461 Unsupported Transport")
                return
            self.udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.udp.bind(("127.0.0.1", 0))
            self.udp_rtcp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.udp_rtcp.bind(("127.0.0.1", 0))
            self.transport = ("udp", int(m.group(1)), int(m.group(2)))
            reply = (f"RTP/AVP;unicast;client_port={m.group(1)}-{m.group(2)};"
                     f"server_port={self.udp.getsockname()[1]}-"
                     f"{self.udp_rtcp.getsockname()[1]}")
        self.reply(cseq, headers={"Transport": reply, "Session": session})

    # -- RTP ---------------------------------------------------------------------------
    def send_packet(self, packet, rtcp=False):
        kind, rtp_dest, rtcp_dest = self.transport
        if kind == "tcp":
            channel = rtcp_dest if rtcp else rtp_dest
            with self.send_lock:
                self.conn.sendall(struct.pack(">cBH", b"$", channel, len(packet)) + packet)
        else:
            sock = self.udp_rtcp if rtcp else self.udp
            sock.sendto(packet, ("127.0.0.1", rtcp_dest if rtcp else rtp_dest))

    def rtp_packet(self, seq, ts, marker, payload):
        ext = self.sc.get("rtp_extension")
        first = 0x80 | (0x10 if ext else 0)
        header = struct.pack(">BBHII", first, (0x80 if marker else 0) | 96, seq & 0xFFFF,
                             ts & 0xFFFFFFFF, SSRC)
        if ext:
            words = ext["words"]
            body = bytes((seq + i) & 0xFF for i in range(4 * words))
            header += struct.pack(">HH", ext["profile"], words) + body
        packet = bytearray(header + payload)
        rate = self.sc.get("bitflip_rate", 0)
        if rate and self.rng.random() < rate:
            for _ in range(self.rng.randint(1, 8)):
                i = self.rng.randrange(len(packet))
                packet[i] ^= 1 << self.rng.randrange(8)
        return bytes(packet)

    def packets_of(self, nal):
        if len(nal) <= MAX_PAYLOAD:
            return [nal]
        indicator = (nal[0] & 0xE0) | 28
        kind = nal[0] & 0x1F
        rest = nal[1:]
        out = []
        for off in range(0, len(rest), MAX_PAYLOAD):
            start = 0x80 if off == 0 else 0
            end = 0x40 if off + MAX_PAYLOAD >= len(rest) else 0
            out.append(bytes([indicator, start | end | kind]) + rest[off:off + MAX_PAYLOAD])
        return out

    def bye(self):
        rr = struct.pack(">BBHI", 0x80, 201, 1, SSRC ^ 1)
        return rr + struct.pack(">BBHI", 0x81, 203, 1, SSRC)

    def stream(self):
        sc = self.sc
        fps = sc.get("fps", 25)
        units = self.server.units
        seq = self.rng.randrange(65536)
        ts = self.rng.randrange(1 << 32)
        start = time.time()
        frame = 0
        big_sent = False
        rec = self.server.recorder
        try:
            while not self.stop.is_set():
                elapsed = time.time() - start
                if "close_after" in sc and elapsed >= sc["close_after"]:
                    rec.write(event="server_close")
                    self.stop.set()
                    self.conn.shutdown(socket.SHUT_RDWR)
                    return
                if "bye_storm" in sc and elapsed >= sc.get("bye_after", 1.0):
                    for _ in range(sc["bye_storm"]):
                        self.send_packet(self.bye(), rtcp=True)
                    rec.write(event="bye_storm")
                    return
                if sc.get("expire") and time.time() - self.last_accepted > sc["session_timeout"]:
                    rec.write(event="session_expired")
                    self.stop.set()
                    self.conn.shutdown(socket.SHUT_RDWR)
                    return
                if "stop_after" in sc and elapsed >= sc["stop_after"]:
                    rec.write(event="stopped_sending")
                    return
                unit = units[frame % len(units)]
                if sc.get("big_frame") and frame == 5 and not big_sent:
                    big_sent = True
                    unit = [bytes([0x21]) + bytes(self.rng.getrandbits(8)
                                                  for _ in range(1024)) * (sc["big_frame"] // 1024)]
                    rec.write(event="big_frame", size=len(unit[0]))
                for i, nal in enumerate(unit):
                    pieces = self.packets_of(nal)
                    for j, payload in enumerate(pieces):
                        marker = i == len(unit) - 1 and j == len(pieces) - 1
                        self.send_packet(self.rtp_packet(seq, ts, marker, payload))
                        seq += 1
                ts += 90000 // fps
                frame += 1
                delay = start + frame / fps - time.time()
                if delay > 0:
                    time.sleep(delay)
        except OSError:
            pass


class Server:
    def __init__(self, args):
        self.scenario = json.load(open(args.scenario))
        self.recorder = Recorder(args.record)
        nals = read_nals(self.scenario["h264_file"]) if "h264_file" in self.scenario else []
        self.units = access_units(nals) or [[bytes([0x65, 0x88, 0x84, 0x00])]]
        if "sdp" in self.scenario:
            self.sdp = self.scenario["sdp"]
        else:
            sps = next((n for n in nals if n[0] & 0x1F == 7), b"")
            pps = next((n for n in nals if n[0] & 0x1F == 8), b"")
            sprop = ",".join(base64.b64encode(n).decode() for n in (sps, pps) if n)
            self.sdp = ("v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=scripted\r\nt=0 0\r\n"
                        "a=control:*\r\nm=video 0 RTP/AVP 96\r\nc=IN IP4 0.0.0.0\r\n"
                        "a=rtpmap:96 H264/90000\r\n"
                        f"a=fmtp:96 packetization-mode=1;sprop-parameter-sets={sprop}\r\n"
                        "a=control:track1\r\n")
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", args.port))
        self.listener.listen(16)

    def serve(self):
        while True:
            conn, addr = self.listener.accept()
            threading.Thread(target=Session(self, conn, addr).run, daemon=True).start()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--scenario", required=True)
    parser.add_argument("--record", required=True)
    args = parser.parse_args()
    server = Server(args)
    print("listening on", args.port, flush=True)
    server.serve()


if __name__ == "__main__":
    sys.exit(main())
