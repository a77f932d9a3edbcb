#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets:
- fuzz/corpus/msgpack/: requests and responses of the service protocol as the
  plug-in and the service exchange them (smallest forms, keys in the order the
  client writes them);
- fuzz/corpus/client/: for every command, the two command choices followed by
  the service's valid answers (see fuzz/client_fuzz.cpp for the layout).

Run: python3 fuzz/make_seeds.py   (rewrites the seed-* files only)
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus", "msgpack")
CLIENT_OUT = os.path.join(HERE, "corpus", "client")


class Bin(bytes):
    pass


def enc(v):
    if v is None:
        return b"\xc0"
    if v is True:
        return b"\xc3"
    if v is False:
        return b"\xc2"
    if isinstance(v, int):
        if 0 <= v <= 0x7F:
            return bytes([v])
        if -32 <= v < 0:
            return struct.pack(">b", v)
        if v >= 0:
            for tag, fmt, top in ((0xCC, ">B", 0xFF), (0xCD, ">H", 0xFFFF), (0xCE, ">I", 0xFFFFFFFF)):
                if v <= top:
                    return bytes([tag]) + struct.pack(fmt, v)
            return b"\xcf" + struct.pack(">Q", v)
        for tag, fmt, low in ((0xD0, ">b", -128), (0xD1, ">h", -32768), (0xD2, ">i", -(2**31))):
            if v >= low:
                return bytes([tag]) + struct.pack(fmt, v)
        return b"\xd3" + struct.pack(">q", v)
    if isinstance(v, float):
        return b"\xcb" + struct.pack(">d", v)
    if isinstance(v, Bin):
        n = len(v)
        head = b"\xc4" + struct.pack(">B", n) if n <= 0xFF else (b"\xc5" + struct.pack(">H", n) if n <= 0xFFFF else b"\xc6" + struct.pack(">I", n))
        return head + bytes(v)
    if isinstance(v, str):
        b = v.encode()
        n = len(b)
        if n <= 31:
            return bytes([0xA0 | n]) + b
        head = b"\xd9" + struct.pack(">B", n) if n <= 0xFF else (b"\xda" + struct.pack(">H", n) if n <= 0xFFFF else b"\xdb" + struct.pack(">I", n))
        return head + b
    if isinstance(v, list):
        n = len(v)
        head = bytes([0x90 | n]) if n <= 15 else (b"\xdc" + struct.pack(">H", n) if n <= 0xFFFF else b"\xdd" + struct.pack(">I", n))
        return head + b"".join(enc(x) for x in v)
    if isinstance(v, dict):
        n = len(v)
        head = bytes([0x80 | n]) if n <= 15 else (b"\xde" + struct.pack(">H", n) if n <= 0xFFFF else b"\xdf" + struct.pack(">I", n))
        return head + b"".join(enc(k) + enc(x) for k, x in v.items())
    raise TypeError(v)


INFO = {
    "size": 1228800000, "name": "Run A", "width": 640, "height": 480, "numFrames": 2000,
    "number": 12, "rtcTime": 1700000000, "startTime": 0x0123000102030405, "endTime": 0x0123000102040506,
    "status": 0,
}

SEEDS = {
    "req-vercheck": {"act": "verCheck", "ver": 0},
    "req-detect": {"act": "exec", "ord": 0},
    "req-list": {"act": "exec", "ord": 1},
    "req-getmovieinfo": {"act": "exec", "ord": 2, "params": {"index": 0}},
    "req-getmovieindex": {"act": "exec", "ord": 3, "params": {"name": "Run A"}},
    "req-readframe": {"act": "exec", "ord": 6, "params": {"fileId": 2, "frameNumber": 70000}},
    "req-readeventqueue": {"act": "exec", "ord": 12, "params": {"queueId": 3}},
    "resp-vercheck": {"error": None, "result": {"ver": 0}},
    "resp-detect": {"result": {"detected": True}},
    "resp-list": {"result": {"count": 3}},
    "resp-movieinfo": {"result": {"info": INFO}},
    "resp-mapping": {"result": {"mapping": "/zebtrk-movie-2-frame"}},
    "resp-event": {"result": {"event": {"type": 1, "drive": 0}}},
    "resp-queueid": {"result": {"queueId": 4294967295}},
    "resp-error": {"error": "Movie not found."},
    "resp-data": {"result": {"data": Bin(b"[info]\nwidth=640\nheight=480\n" * 10)}},
    "misc-types": [None, False, -1, -200, -70000, -(2**40), 2.5, "x" * 40, Bin(b""), [], {}],
}


# The client target: command choice (ordinal, or 13 for the version check)
# and a valid answer to it.
VERSION = 13
ANSWERS = {
    0: {"result": {"detected": True}},
    1: {"result": {"count": 3}},
    2: {"result": {"info": INFO}},
    3: {"result": {"index": 2}},
    4: {"result": {"mapping": "zebtrksvc-1A2F"}},
    5: {"result": {}},
    6: {"error": None, "result": {}},
    7: {"result": {}},
    8: {"error": "no drive present"},
    9: {"result": {"data": Bin(b"[info]\nwidth=640\nheight=480\n")}},
    10: {"result": {"queueId": 4}},
    11: {"result": {}},
    12: {"result": {"event": {"type": 1, "drive": 0}}},
}


def client_seeds():
    seeds = {}
    for ordinal, answer in ANSWERS.items():
        seeds["cmd-%02d" % ordinal] = bytes([ordinal, 1]) + enc(answer) + enc(ANSWERS[1])
    seeds["version"] = bytes([VERSION, 0]) + enc({"result": {"ver": 0}}) + enc(ANSWERS[0])
    seeds["version-error"] = bytes([VERSION, 0]) + enc({"error": "version 0 is too old"})
    return seeds


def main():
    os.makedirs(OUT, exist_ok=True)
    for name, value in SEEDS.items():
        with open(os.path.join(OUT, "seed-" + name), "wb") as f:
            f.write(enc(value))
    os.makedirs(CLIENT_OUT, exist_ok=True)
    for name, data in client_seeds().items():
        with open(os.path.join(CLIENT_OUT, "seed-" + name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
