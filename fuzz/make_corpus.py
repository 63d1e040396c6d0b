#!/usr/bin/env python3
"""Writes the seed corpus: a few valid messages per target, each led by the feeder's byte (0: whole)."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def be32(*values):
    return b"".join(struct.pack(">i", v) for v in values)


def message(flow, msgid, kind, payload):
    return be32(0x47617465, 0x10901000, flow, msgid, 0, len(kind)) + kind + b"\0" + be32(len(payload)) + payload


def container(name, mark, kind, data):
    return name.ljust(16).encode() + bytes([mark, 0, 0, kind]) + be32(0, len(data)) + data


def channel(*records):
    return b"FUZZCHANNEL".ljust(16) + be32(1208, len(records)) + b"".join(records)


def eci(data, chan=b"", rc=0, datalen=None):
    head = be32(1, 0, 0, rc) + b"    " + be32(len(data))
    head += b"\0" if datalen is None else b"\xff\0" + be32(datalen)
    return head + data + (b"\xff" + chan if chan else b"\0")


ESI_DETAILS = be32(*range(2021, 2043))
SEEDS = {
    "header": {
        "reply": message(3, 1, b"ECI", eci(b"hello")),
        "ping_then_close": message(7, 0, b"BASE", b"") + message(10, -1, b"BASE", b""),
        "long_type": message(3, 2, b"ECIECIECIECIECIECIECI", b"x" * 10),
    },
    "eci_reply": {
        "fits": b"\x00\x10\x00" + eci(b"sixteen bytes!!!"),
        "library_buffer": b"\x00\x10\x01" + eci(b"a" * 40, datalen=40),
        "with_channel": b"\x00\x04\x04" + eci(b"", channel(container("NEW", 1, 2, b"added"))),
        "systems": b"\x00\x50\x00" + be32(9, 3, 0, 70) + b"ZEPSYS1".ljust(9) + b"desc".ljust(61, b"\0"),
    },
    "channel": {
        "every_mark": channel(container("NEW", 1, 2, b"added"), container("KEEP", 4, 1, b""),
                              container("MODTEXT", 3, 2, b"changed!!"), container("KEEP", 2, 1, b"")),
        "grow": channel(container("MODTEXT", 3, 1, b"g" * 300)),
    },
    "esi_reply": {"verified": be32(0) + ESI_DETAILS, "refused": be32(-106)},
    "exception": {"text": b"\0" + struct.pack(">h", 20) + b"zepgw exception text"},
}

for target, seeds in SEEDS.items():
    os.makedirs(os.path.join(HERE, "corpus", target), exist_ok=True)
    for name, body in seeds.items():
        with open(os.path.join(HERE, "corpus", target, name), "wb") as out:
            out.write(b"\0" + body)
