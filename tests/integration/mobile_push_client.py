#!/usr/bin/env python3
"""A mobile push client for the integration tests (Python standard library only).

Waits for the receiver's Unix socket, connects, and pushes header-framed messages:
"Content-Type", "Content-Length" and "TimeStamp" lines, an empty line, then the payload.
Video comes from an H.264 Annex B file (SPS and PPS as messages of their own, then one
message per access unit, every NAL behind a four-byte start code); audio from an ADTS file
(one frame per message). Messages go out at real-time pace by their timestamps, and the
byte stream is cut into writes of random sizes, so payloads are split across writes and
small messages share a write.

Every message sent is recorded: --manifest gets one line per message
("<seq> <content-type> <timestamp|-> <length> <tags>") and --payloads the payloads back to
back, for the test to compare with what the receiver delivered.

Modes:
  push         the media, then close
  bad-header   media-info, a few media messages, a header without Content-Length, more
               messages; then --after fill (keep writing well past 4 MiB) or idle (sleep
               --idle seconds, then close)
  idle         media-info, then sleep --idle seconds, then close
"""

import argparse
import errno
import os
import random
import socket
import sys
import time

BASE_TS = 1_700_000_000_000_000  # microseconds
VIDEO_STEP = 40_000              # 25 frames per second
ADTS_RATES = [96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
              16000, 12000, 11025, 8000, 7350]


def split_nals(data):
    """NAL units of an Annex B stream, without their start codes."""
    starts = []
    i = 0
    while True:
        i = data.find(b"\x00\x00\x01", i)
        if i < 0:
            break
        starts.append(i + 3)
        i += 3
    nals = []
    for n, s in enumerate(starts):
        end = starts[n + 1] - 3 if n + 1 < len(starts) else len(data)
        nal = data[s:end]
        while nal.endswith(b"\x00"):
            nal = nal[:-1]
        if nal:
            nals.append(nal)
    return nals


def video_messages(path):
    """(timestamp, content type, payload, tags) for SPS, PPS and every access unit."""
    with open(path, "rb") as f:
        nals = split_nals(f.read())
    out = []
    au, au_key, index = [], False, 0
    for nal in nals:
        kind = nal[0] & 0x1F
        if kind in (7, 8) and index == 0 and not au:
            out.append((BASE_TS, "video/h264", b"\x00\x00\x00\x01" + nal,
                        "sps" if kind == 7 else "pps"))
            continue
        au.append(nal)
        au_key = au_key or kind == 5
        if kind in (1, 5):  # one slice per picture in the test streams
            payload = b"".join(b"\x00\x00\x00\x01" + n for n in au)
            out.append((BASE_TS + index * VIDEO_STEP, "video/h264", payload,
                        "key" if au_key else "-"))
            au, au_key, index = [], False, index + 1
    return out


def audio_messages(path, offset_us):
    with open(path, "rb") as f:
        data = f.read()
    out, pos, index = [], 0, 0
    while pos + 7 <= len(data):
        if data[pos] != 0xFF or (data[pos + 1] & 0xF0) != 0xF0:
            raise SystemExit("bad ADTS stream at %d" % pos)
        length = ((data[pos + 3] & 3) << 11) | (data[pos + 4] << 3) | (data[pos + 5] >> 5)
        rate = ADTS_RATES[(data[pos + 2] >> 2) & 0x0F]
        ts = BASE_TS + offset_us + index * 1024 * 1_000_000 // rate
        out.append((ts, "audio/aac", data[pos:pos + length], "-"))
        pos += length
        index += 1
    return out


def frame(content_type, payload, ts, length=True):
    lines = ["Content-Type: %s" % content_type]
    if length:
        lines.append("Content-Length: %d" % len(payload))
    if ts is not None:
        lines.append("TimeStamp: %d" % ts)
    lines.append("X-Client: camfetch-test")  # unknown lines are ignored
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + payload


class Pusher:
    def __init__(self, sock, args):
        self.sock = sock
        self.rng = random.Random(args.seed)
        self.max_write = args.max_write
        self.manifest = open(args.manifest, "w")
        self.payloads = open(args.payloads, "wb")
        self.seq = 0
        self.start = time.monotonic()

    def record(self, content_type, ts, payload, tags):
        self.manifest.write("%d %s %s %d %s\n" % (self.seq, content_type,
                                                  "-" if ts is None else ts, len(payload), tags))
        self.payloads.write(payload)
        self.seq += 1

    def write(self, data):
        """Writes in random pieces, now and then pausing so that pieces arrive apart."""
        while data:
            n = min(len(data), self.rng.randint(1, self.max_write))
            self.sock.sendall(data[:n])
            data = data[n:]
            if self.rng.random() < 0.3:
                time.sleep(0.001)

    def send(self, content_type, payload, ts, tags="-", with_ts=True, length=True):
        self.record(content_type, ts if with_ts else None, payload, tags)
        self.write(frame(content_type, payload, ts if with_ts else None, length))

    def paced(self, messages):
        """Sends messages at real-time pace; those due in the same tick go out together."""
        pending = b""
        first = messages[0][0] if messages else 0
        for ts, content_type, payload, tags in messages:
            due = self.start + (ts - first) / 1e6
            delay = due - time.monotonic()
            if delay > 0.005 and pending:
                self.write(pending)
                pending = b""
            if delay > 0:
                time.sleep(delay)
            self.record(content_type, ts, payload, tags)
            pending += frame(content_type, payload, ts)
        if pending:
            self.write(pending)

    def close(self):
        self.manifest.close()
        self.payloads.close()


def connect(path, wait):
    deadline = time.monotonic() + wait
    while True:
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            s.connect(path)
            return s
        except OSError as e:
            s.close()
            if e.errno not in (errno.ENOENT, errno.ECONNREFUSED) or time.monotonic() > deadline:
                raise
            time.sleep(0.02)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--socket", required=True)
    p.add_argument("--manifest", required=True)
    p.add_argument("--payloads", required=True)
    p.add_argument("--mode", default="push", choices=["push", "bad-header", "idle"])
    p.add_argument("--after", default="idle", choices=["idle", "fill"])
    p.add_argument("--video")
    p.add_argument("--audio")
    p.add_argument("--media-info", default="video-h264/audio-aac")
    p.add_argument("--audio-offset-ms", type=int, default=0)
    p.add_argument("--idle", type=float, default=3.0)
    p.add_argument("--wait-socket", type=float, default=20.0)
    p.add_argument("--max-write", type=int, default=3000)
    p.add_argument("--seed", type=int, default=1)
    p.add_argument("--ready", help="file created once the messages are ready to go")
    args = p.parse_args()

    # Everything is read before connecting: the receiver gives a silent client one second.
    messages = []
    if args.video:
        messages += video_messages(args.video)
    if args.audio:
        messages += audio_messages(args.audio, args.audio_offset_ms * 1000)
    # Parameter sets first; at equal times audio goes before video.
    order = {"sps": 0, "pps": 1}
    messages.sort(key=lambda m: (m[0], order.get(m[3], 2), m[1] == "video/h264"))
    if args.ready:
        open(args.ready, "w").close()

    sock = connect(args.socket, args.wait_socket)
    pusher = Pusher(sock, args)
    try:
        pusher.send("media-info", args.media_info.encode(), None, with_ts=False)
        if args.mode == "push":
            pusher.paced(messages)
        elif args.mode == "bad-header":
            for ts, content_type, payload, tags in messages[:3]:
                pusher.send(content_type, payload, ts, tags)
            pusher.send("video/h264", b"\x00\x00\x00\x01\x09\xf0", BASE_TS, "bad", length=False)
            rest = messages[3:] or [(BASE_TS, "audio/aac", b"\xff" * 100, "-")]
            for ts, content_type, payload, tags in rest[:5]:
                pusher.send(content_type, payload, ts, tags)
            if args.after == "fill":
                filler = b"\x00" * 65536
                for _ in range(80):  # 5 MiB, more than the receiver can hold
                    sock.sendall(filler)
            else:
                time.sleep(args.idle)
        else:
            time.sleep(args.idle)
    except (BrokenPipeError, ConnectionResetError):
        pass  # the receiver ended the exchange first
    finally:
        pusher.close()
        sock.close()


if __name__ == "__main__":
    sys.exit(main())
