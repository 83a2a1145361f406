#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""Writes fuzz/seeds/splitter from the captures of tests/data/dis: recorded datagrams under many settings.

The layout of an input is told at the top of splitter_fuzz.cpp. Files whose names start with "crash-" are
findings of earlier days and are left alone.
"""
import pathlib
import struct

ROOT = pathlib.Path(__file__).resolve().parent
DATA = ROOT.parent / "tests" / "data" / "dis"
SEEDS = ROOT / "seeds" / "splitter"
DERIVED, HEADER, NETWORK, QUIET, UNBUNDLE, OWN, IN_PLACE, COPIED = (1 << i for i in range(8))
DEFAULT = DERIVED | HEADER | NETWORK | UNBUNDLE


def datagrams(name):
    """UDP payloads of a little-endian pcap over Ethernet and IPv4 without options."""
    raw, position, result = (DATA / name).read_bytes(), 24, []
    while position < len(raw):
        captured = struct.unpack_from("<I", raw, position + 8)[0]
        result.append(raw[position + 16 + 42 : position + 16 + captured])
        position += 16 + captured
    return result


def write(name, payloads, flags=DEFAULT, width=2, filter=0, value=0, offset=8, smallest=12, room=15000, toggles=0, burst=1):
    head = struct.pack("<BbBBiiHBB", flags, width, filter, value, offset, smallest, room, toggles, burst - 1)
    (SEEDS / name).write_bytes(head + b"".join(struct.pack("<H", len(p)) + p for p in payloads))


def own_format(width, sizes, order="big"):
    """Packets whose length stands at their start."""
    return b"".join(size.to_bytes(width, order) + bytes(range(0x80, 0x80 + size - width)) for size in sizes)


def main():
    SEEDS.mkdir(parents=True, exist_ok=True)
    for old in SEEDS.iterdir():
        if not old.name.startswith("crash-"):
            old.unlink()
    composed = datagrams("composed-bundles.pcap")
    dis6, dis7 = datagrams("generated-dis6.pcap"), datagrams("generated-dis7.pcap")
    patrol = datagrams("real-dis7-bundled-patrol.pcap")
    dis5 = datagrams("real-dis5-short.pcap")
    odd = [d for d in datagrams("real-dis6-dis7-mixed.pcap") if len(d) == 508]
    cut = [d for d in datagrams("real-dis7-bundled-truncated.pcap") if len(d) == 8192]
    small = sorted((d for d in dis6 + dis7 if 200 < len(d) < 700), key=len)
    pairs = sorted((d for d in patrol if len(d) == 864), key=bytes)[:2]

    for i, bundle in enumerate(composed[:5]):
        write(f"composed-{i}", [bundle])
        write(f"composed-{i}-header-off", [bundle], flags=(DEFAULT ^ HEADER) & ~DERIVED)
    for i, bundle in enumerate(small[:3]):
        write(f"generated-{i}", [bundle], flags=DEFAULT & ~DERIVED)
        write(f"generated-{i}-in-place", [bundle], flags=DEFAULT | IN_PLACE)
        write(f"generated-{i}-copied", [bundle], flags=(DEFAULT | COPIED) & ~DERIVED, value=16)
        write(f"generated-{i}-tight", [bundle], room=len(bundle))
        write(f"generated-{i}-cut", [bundle], room=len(bundle) - 10)
    write("patrol", pairs, burst=2)
    write("patrol-toggled", pairs + pairs, toggles=0b01010110, burst=2)
    write("patrol-toggled-itself", pairs + pairs, flags=DEFAULT & ~DERIVED, toggles=0b00101110, burst=3)
    write("singles", dis5[:4] + dis5[20:22], burst=8)
    write("trailing", odd, flags=DEFAULT & ~QUIET)
    write("trailing-quiet", odd, flags=DEFAULT | QUIET)
    write("cut-frame", [cut[0][:2000]])
    write("host-order", [small[0]], flags=DEFAULT & ~NETWORK)
    write("whole", [small[0], pairs[0]], flags=DEFAULT & ~UNBUNDLE, burst=2)
    write("own", [small[0], small[1], small[2]], flags=DEFAULT | OWN)
    write("own-whole", [small[0], small[1], small[2]], flags=(DEFAULT | OWN) & ~UNBUNDLE)
    for kind, value in ((1, 6), (2, 1), (3, 1), (4, 1), (5, 7), (6, 2), (7, 25), (8, 2)):
        write(f"filter-{kind}", [composed[0], small[1]], filter=kind, value=value, burst=2)
    for width in (1, 2, 4):
        write(f"width-{width}", [own_format(width, (20, 30, 12))], flags=DEFAULT ^ HEADER, width=width, offset=0)
    write("width-4-host-order", [own_format(4, (20, 30, 12), "little")], flags=DEFAULT & ~(HEADER | NETWORK), width=4, offset=0)
    write("width-3", [small[0]], flags=DEFAULT ^ HEADER, width=3)
    write("offset-negative", [small[0]], flags=DEFAULT ^ HEADER, offset=-1)
    write("offset-huge", [small[0]], flags=DEFAULT ^ HEADER, width=4, offset=2**31 - 1)
    write("field-across-end", [bytes(range(0x80, 0x80 + 63)) + b"\x14"], flags=DEFAULT & ~(HEADER | NETWORK), offset=63)
    write("no-minimum", [b"x", b"", small[0] + b"yz"], smallest=0, burst=3)
    write("minimum-negative", [b"x", small[0] + b"y"], smallest=-(2**31), burst=2)
    write("minimum-huge", [small[0], small[1]], smallest=2**31 - 1)
    write("short", [b"short", small[0] + b"padding", b"", small[1]], burst=4)
    write("no-room", [small[0]], room=0xFFFF)


main()
