"""The control socket's packets on the wire, as the layout of the socket is documented to peers."""

import struct

from reading.captions import INT64, TEXT, UINT64

MAGIC, VERSION = b"VORN", 1
NUMBER_FORMATS = {UINT64: ">Q", INT64: ">q"}


def wire_bytes(packet):
    body = packet.command
    for name, kind, value in packet.pairs:
        data = value if kind == TEXT else struct.pack(NUMBER_FORMATS[kind], value)
        body += struct.pack(">BBHI", kind, len(name), 0, len(data)) + name + data
    header = struct.pack(">4sBBBBI", MAGIC, VERSION, packet.status, len(packet.command),
                         len(packet.pairs), len(body))
    return header + body
