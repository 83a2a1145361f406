#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""Writes the seeds from the captures of tests/data/dis: recorded datagrams under many settings for the splitter,
recorded PDUs and packets made by hand as streams for the framer, file transfers, and steps of
a queue in shared memory.

The layout of an input is told at the top of each target. Files whose names start with "crash-" are findings of
earlier days and are left alone.
"""
import pathlib
import struct

ROOT = pathlib.Path(__file__).resolve().parent
DATA = ROOT.parent / "tests" / "data" / "dis"
SPLITTER, FRAMER, TRANSFER, SHMQUEUE, REQUEST = (
    ROOT / "seeds" / name for name in ("splitter", "framer", "transfer", "shmqueue", "request")
)
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
    (SPLITTER / name).write_bytes(head + b"".join(struct.pack("<H", len(p)) + p for p in payloads))


def own_format(width, sizes, order="big"):
    """Packets whose length stands at their start."""
    return b"".join(size.to_bytes(width, order) + bytes(range(0x80, 0x80 + size - width)) for size in sizes)


def clear(seeds):
    seeds.mkdir(parents=True, exist_ok=True)
    for old in seeds.iterdir():
        if not old.name.startswith("crash-"):
            old.unlink()


def splitter_seeds():
    clear(SPLITTER)
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


# --- streams ---------------------------------------------------------------------------------------------

BIG, SILENT, COPIED_OUT, NO_STATUS, ENDS, TRACED, FORMAT_FIRST = (1 << i for i in range(7))
STREAM = BIG | ENDS | FORMAT_FIRST
ONE_RECEIVE = 0x1000
MORE = struct.pack("<H", 0xFFFD)


def cut(stream, *sizes, receive=0):
    """The stream in pieces of these sizes, the last one repeated."""
    result, position, i = b"", 0, 0
    while position < len(stream):
        piece = stream[position : position + sizes[min(i, len(sizes) - 1)]]
        result += struct.pack("<H", len(piece) | receive) + piece
        position, i = position + len(piece), i + 1
    return result


def offset_step(offset):
    return struct.pack("<Hi", 0xFFFF, offset)


def width_step(width):
    return struct.pack("<Hb", 0xFFFE, width)


def write_stream(name, steps, flags=STREAM, width=2, offset=0, buffer=2000, room=8):
    head = struct.pack("<BbiHB", flags, width, offset, buffer, room)
    (FRAMER / name).write_bytes(head + steps)


def packet(width, length, offset=0, size=None, order="big"):
    """A packet that announces `length`, and is that long unless told otherwise."""
    size = length if size is None else size
    field = (length % 256**width).to_bytes(width, order)
    return (bytes(range(0x61, 0x61 + offset)) + field + bytes(i % 251 for i in range(size)))[:size]


def framer_seeds():
    clear(FRAMER)
    pdus = [d for d in datagrams("real-dis5-short.pcap") if len(d) < 400][:4]
    dis = b"".join(pdus)
    write_stream("dis", cut(dis, 4095), offset=8)
    write_stream("dis-pieces", cut(dis, 7, 5, 100), offset=8)
    write_stream("dis-copied", cut(dis, 50), flags=STREAM | COPIED_OUT, offset=8)
    write_stream("dis-one-receive", cut(dis, 60, receive=ONE_RECEIVE), flags=STREAM | NO_STATUS, offset=8)
    for width in (1, 2, 4):
        for order, flag in (("big", BIG), ("little", 0)):
            stream = b"".join(packet(width, n, order=order) for n in (width + 1, 40, width, 127, 3 + width))
            write_stream(f"width-{width}-{order}", cut(stream, 3, 11), flags=(STREAM & ~BIG) | flag, width=width)
        write_stream(f"bytes-{width}", cut(packet(width, 9, 3) + packet(width, 12, 3), 1), width=width, offset=3)
        write_stream(f"tests-{width}", cut(packet(width, width) * 3 + packet(width, 20), 40), width=width)
    for length in (0, 1, 2, 9, 10, 11, 0x7FFF, 0x8000, 0xFFFF):
        stream = packet(2, 20, 8) + packet(2, length, 8, size=40)
        write_stream(f"length-{length}", cut(stream, 25), offset=8)
    for length in (0, 3, 4, 5, 0x7F, 0xFFFF, 0x10000, 2**20, 2**31 - 1, 2**31, 2**32 - 1):
        write_stream(f"length-4-{length}", cut(packet(4, length, size=60), 30), width=4)
    for length in (0, 1, 2, 0x7F, 0x80, 0xFF):
        write_stream(f"length-1-{length}", cut(packet(1, length, size=130), 30), width=1)
    for buffer in (0, 1, 19, 20, 21, 0xFFFF):
        write_stream(f"buffer-{buffer}", cut(packet(2, 20) + packet(2, 20) + packet(2, 61), 33), buffer=buffer)
    for offset in (-1, -2, -(2**31), 2**31 - 3, 2**31 - 1, 2**20, 3000):
        write_stream(f"offset-{offset}", cut(packet(2, 20) * 3, 30), offset=offset)
    write_stream("offset-back", cut(packet(2, 20), 30) + offset_step(0) + cut(packet(2, 20), 30), offset=-1)
    write_stream("width-none", cut(packet(2, 20), 30) + width_step(3) + width_step(-1), width=0)
    write_stream(
        "change-in-header",
        cut(packet(2, 20, 8)[:5], 5) + offset_step(0) + width_step(4) + cut(packet(2, 20, 8)[5:] + packet(4, 12), 9),
        offset=8,
    )
    write_stream("change-in-body", cut(packet(2, 20)[:9], 9) + width_step(1) + cut(packet(2, 20)[9:] + packet(1, 12), 9))
    write_stream("open", cut(packet(2, 20)[:9], 9) + MORE * 3, flags=STREAM & ~ENDS)
    write_stream("quiet", cut(packet(2, 1), 9) + width_step(9), flags=STREAM | SILENT)
    write_stream("traced", cut(packet(2, 2) + packet(2, 3000)[:900], 7, 400), flags=STREAM | TRACED)
    write_stream("defaults", cut(packet(2, 50), 20) + cut(packet(2, 2), 2), flags=BIG)


def counted(text):
    return struct.pack("<H", len(text)) + text


def first(name, data=b"data", size=None, id=1, file_size=4, flags=0):
    size = len(data) if size is None else size
    return struct.pack("<BBBHB", 2, id, file_size, size, flags) + counted(name) + counted(data)


def later(data, id=1):
    return struct.pack("<BB", 3, id) + counted(data)


def raw(text):
    return b"\0" + counted(text)


def message(body):
    return b"\1" + counted(body)


TEST, SECOND = b"\4", b"\5"


def write_transfer(name, steps, flags=1, limit=15000):
    (TRANSFER / name).write_bytes(struct.pack("<BH", flags, limit) + steps)


def transfer_seeds():
    clear(TRANSFER)
    write_transfer("whole", first(b"file"))
    write_transfer("host-order", first(b"file", size=8) + later(b"more"), flags=0)
    write_transfer("pieces", first(b"file", b"", 9) + later(b"abc") + TEST + later(b"") + later(b"defghi"))
    write_transfer("two", first(b"one", b"a", 2) + first(b"two", b"x", 3, id=2) + later(b"b") + later(b"yz", 2))
    write_transfer("empty", first(b"empty", b""))
    write_transfer("longest", first(b"file", b"x" * 75), limit=100)
    write_transfer("too-long", first(b"file", b"x" * 76), limit=100)
    for limit in (0xFFFF, 0, 7, 8, 21):
        write_transfer(f"limit-{limit}", first(b"file"), limit=limit)
    names = (b"", b".", b"..", b"/", b"a/", b"a/..", b"../x", b"/etc/x", b"a\\..\\x", b"...", b"d", b"l", b"d/x", b"l/x", b"\x1b[1m\n", b"n" * 255, b"n" * 256)
    for i, name in enumerate(names):
        write_transfer(f"name-{i}", first(name))
    write_transfer("beyond", first(b"file", b"data", 3))
    write_transfer("beyond-later", first(b"file", b"da", 4) + later(b"ta!"))
    write_transfer("second-header", first(b"file", b"", 40) + first(b"other", b"x", 9) + later(b"rest"))
    write_transfer("unknown", later(b"data", 7))
    write_transfer("huge", first(b"huge", b"x", 0xFFFF) + first(b"huge", b"x", 0xFFFF, id=2))
    write_transfer("broken", first(b"file", b"da", 4) + raw(b"\0\0\0\x09\0\0"))
    write_transfer("quiet", first(b"file", b"da", 4) + raw(b"\0\0\0\1"), flags=3)
    for length in (b"\0\0\0\0", b"\0\0\0\3", b"\x7f\xff\xff\xff", b"\x80\0\0\0", b"\xff\xff\xff\xff", b"\0\x10\0\0"):
        write_transfer(f"length-{length.hex()}", first(b"file", b"da", 4) + raw(length + b"\0\0\0\1x"))
    for size in range(1, 18):
        write_transfer(f"short-{size}", message((b"\0\0\0\1" + b"\0" * 12 + b"n")[:size]))
    write_transfer("unterminated", message(b"\0\0\0\1" + b"\0" * 12 + b"name"))
    write_transfer("inner", first(b"open", b"a", 2, id=2) + first(b"file") + later(b"b", 2) + SECOND + first(b"inner", id=3))
    write_transfer("inner-same", first(b"file", b"one") + SECOND + first(b"file", b"two", id=2))
    for id in (1, 2):
        write_transfer(f"intruder-{id}", first(b"open", b"a", 2, id=2) + first(b"file") + later(b"b", 2) + SECOND + first(b"x", id=id))
    write_transfer("inner-breaks", first(b"open", b"a", 2, id=2) + first(b"file") + later(b"b", 2) + SECOND + first(b"x", b"", 9, id=3))


def shmqueue_seeds():
    clear(SHMQUEUE)
    goAway, written, msgsWritten, read, msgsRead, attention, ring = 24, 128, 136, 256, 264, 384, 512

    def write(length):
        return struct.pack("<BH", 0, length)

    def take(room=64):
        return bytes((1, room))

    def change(place, value, width=8):
        return struct.pack("<BHB", 2, place, width - 1) + (value % 2 ** (8 * width)).to_bytes(width, "little")

    def seed(name, *steps, doublings=4):
        (SHMQUEUE / name).write_bytes(bytes((doublings,)) + b"".join(steps))

    reader, skipping, writer, publish = b"\3\0", b"\3\1", b"\4", b"\x08"
    seed("one", write(100), take(), take())
    seed("full", *[write(100)] * 12, *[take()] * 12)
    seed("wraps", *[write(200), take()] * 20)
    seed("sizes", *[write(n) + take() for n in range(0, 26)], doublings=0)
    seed("skipped", write(100), write(5), take(2), take(2))
    seed("backlog", write(100), write(5), skipping, write(6), take(), reader, take())
    seed("batch", b"\7\4\5", b"\7\0\6", take(), publish, take(), take())
    seed("notify", b"\5\2", write(1), write(1), write(1), b"\5\0", publish)
    seed("stopped", write(9), b"\6\2", take(), take(), take())
    seed("dismissed", write(9), b"\6\4", take(), take())
    seed("high", change(written, -64), change(read, -64), reader, writer, *[write(30), take()] * 6)
    seed("written-beyond", change(written, 1032), take(), take())
    seed("written-odd", change(written, 12), take())
    seed("read-beyond", *[write(100)] * 9, change(read, 5000), write(100), write(1))
    seed("read-back", change(read, 8), writer, write(9))
    seed("mark-alone", change(ring, 0xFFFFFFFF, 4), change(written, 1024), take())
    seed("mark-then-record", write(200), take(), change(ring + 208, 0xFFFFFFFF, 4), change(ring, 9, 4),
         change(written, 1048), take(), take())
    for name, length in (("zero", 0), ("most", 504), ("too-long", 505), ("ring", 1024), ("huge", 0xFFFFFFF9)):
        seed(f"length-{name}", change(ring, length, 4), change(written, 1024), take(), take())
    seed("other-ring", change(12, 512, 4), reader, writer, *[write(100), take()] * 8)
    seed("no-magic", change(0, 1), reader, writer, write(1), take())
    seed("no-trailer", change(512 + 1024, 0), reader, take())
    seed("go-away-value", change(goAway, 77, 4), take(), take())
    seed("counts", change(msgsWritten, -1, 4), change(msgsRead, -1, 4), reader, writer, b"\5\1", write(1), take())
    seed("attention", change(attention, -1), write(9), take(), publish)


def request_seeds():
    clear(REQUEST)
    raw, passing, right, packet = b"\0", b"\1", b"\2", b"\3"

    def seed(name, *steps):
        (REQUEST / name).write_bytes(b"".join(steps))

    def datagram(data):
        return raw + bytes((len(data),)) + data

    def add(path, flags=7):
        return struct.pack("<BBHiii", 1, 3, flags, -1, 32, 4711) + path.ljust(160, b"\0")

    def filter(index, operation, value, client=1):
        return struct.pack("<BBBBII", 2, 3, index, operation, value, client)

    def control(kind, version, code):
        return struct.pack("<BBHI", kind, version, code, 1)

    def test(data, source=0x7F000001):
        return packet + bytes((len(data),)) + struct.pack("<I", source) + data

    def group(operation, address):
        return struct.pack("<BBHII", 3, 3, operation, address, 1)

    borders = (0xDFFFFFFF, 0xE0000000, 0xEFFFFFFF, 0xF0000000)
    limits = ((4, 0, 0), (3, 2, 0), (0, 0, 2), (0, 1, 2**32 - 1), (2, 1, 256))
    include = [datagram(filter(i, 0, 0)) + datagram(filter(i, 1, 7)) for i in range(4)]
    seed("add", datagram(add(b"/tmp/cvcAbCdEf")), datagram(add(b"/", 0x100)))
    seed("paths", *[datagram(add(p)) for p in (b"", b"tmp", b"/" * 159, b"/" * 160)])
    seed("filters", *include, test(b"\7\7\7", 7), test(b"\7\7\6", 7), test(b"\7", 7))
    seed("filter-limits", *[datagram(filter(*limit)) for limit in limits], test(b"\7"))
    seed("groups", *[datagram(group(operation, address)) for operation in (0, 1, 2) for address in borders])
    seed("control", *[datagram(control(4, 3, code)) for code in range(12)])
    seed("versions", *[datagram(control(4, version, 0)) for version in (0, 2, 4, 255)])
    seed("kinds", *[datagram(control(kind, 3, 0)) for kind in range(14)])
    seed("lengths", *[datagram(add(b"/tmp/x")[:n]) for n in (0, 1, 2, 8, 12, 175)], datagram(add(b"/tmp/x") + b"x"), datagram(b"\4" * 255))
    seed("descriptors", *[passing + bytes((n, 8)) + control(4, 3, 4) for n in (1, 2, 12, 13, 31)])
    seed("right", *[right + bytes((kind,)) for kind in range(4)])


splitter_seeds()
framer_seeds()
transfer_seeds()
shmqueue_seeds()
request_seeds()
