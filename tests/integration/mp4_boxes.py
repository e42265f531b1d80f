#!/usr/bin/env python3
"""Dumps what an independent reading of an MP4 file says a box walker must deliver: the
top-level boxes, every mdat payload (size and SHA-1) and the codec configuration (avcC's
first SPS/PPS as Annex B, or esds's decoder-specific info), as JSON on stdout."""
import hashlib
import json
import struct
import sys


def boxes(data, start, end):
    pos = start
    while pos + 8 <= end:
        size, kind = struct.unpack(">I4s", data[pos:pos + 8])
        header = 8
        if size == 1:
            size = struct.unpack(">Q", data[pos + 8:pos + 16])[0]
            header = 16
        elif size == 0:
            size = end - pos
        if size < header or pos + size > end:
            return
        yield kind.decode("latin-1"), pos, header, size
        pos += size


def find_config(data, start, end):
    """Walks the containers down to the sample description's configuration box."""
    containers = {"moov", "trak", "mdia", "minf", "stbl"}
    for kind, pos, header, size in boxes(data, start, end):
        if kind in containers:
            found = find_config(data, pos + header, pos + size)
            if found:
                return found
        elif kind == "stsd":
            # version/flags, entry count, then sample entries
            for entry, epos, eheader, esize in boxes(data, pos + header + 8, pos + size):
                inner = epos + eheader + (78 if entry in ("avc1", "mp4v") else 0)
                for ckind, cpos, cheader, csize in boxes(data, inner, epos + esize):
                    body = data[cpos + cheader:cpos + csize]
                    if ckind == "avcC":
                        n = body[5] & 31
                        off = 6
                        sps_len = struct.unpack(">H", body[off:off + 2])[0]
                        sps = body[off + 2:off + 2 + sps_len]
                        off += 2 + sps_len
                        for _ in range(n - 1):
                            off += 2 + struct.unpack(">H", body[off:off + 2])[0]
                        pps_len = struct.unpack(">H", body[off + 1:off + 3])[0]
                        pps = body[off + 3:off + 3 + pps_len]
                        return (b"\0\0\0\1" + sps + b"\0\0\0\1" + pps).hex()
                    if ckind == "esds":
                        # Descriptors with any length encoding: find tag 5.
                        i = 4
                        while i < len(body):
                            tag = body[i]
                            i += 1
                            length = 0
                            while True:
                                b = body[i]
                                i += 1
                                length = (length << 7) | (b & 0x7F)
                                if not b & 0x80:
                                    break
                            if tag == 3:
                                flags = body[i + 2]
                                i += 3 + (2 if flags & 0x80 else 0)
                            elif tag == 4:
                                i += 13
                            elif tag == 5:
                                return body[i:i + length].hex()
                            else:
                                i += length
    return None


def main():
    data = open(sys.argv[1], "rb").read()
    out = {"boxes": [], "mdat": [], "config": None}
    for kind, pos, header, size in boxes(data, 0, len(data)):
        out["boxes"].append(kind)
        if kind == "mdat":
            payload = data[pos + header:pos + size]
            out["mdat"].append({"size": len(payload), "sha1": hashlib.sha1(payload).hexdigest()})
        if kind == "moov":
            out["config"] = find_config(data, pos + header, pos + size)
            # What a reader with one-byte descriptor lengths and fixed offsets takes.
            at = data.rfind(b"esds", pos + header, pos + size)
            if at >= 0:
                box = at - 4
                out["esds_fixed_offsets"] = data[box + 34:box + 34 + data[box + 33]].hex()
    json.dump(out, sys.stdout)


if __name__ == "__main__":
    main()
