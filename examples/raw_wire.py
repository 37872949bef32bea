#!/usr/bin/python3
"""Asks the daemon for its version and its regulatory images without any library of it. Usage: raw_wire.py

A frame is "CV", the version 1, the kind 1, the length of the body in four bytes, and the body: a property list."""

import os
import socket
import struct
import sys
from xml.sax.saxutils import escape

HEADER = struct.Struct(">2sBBI")
LONGEST_ANSWER = 128 << 20


def send(daemon, request):
    """The daemon also reads XML, which is easier to write. These arguments are strings."""
    entries = "".join(f"<key>{escape(key)}</key><string>{escape(text)}</string>" for key, text in request.items())
    body = f"<plist><dict>{entries}</dict></plist>".encode()
    daemon.sendall(HEADER.pack(b"CV", 1, 1, len(body)) + body)


class Reader:
    """Reads the binary property lists that the daemon writes. Dates are seconds since 2001, sets are lists."""

    def __init__(self, body):
        offset_size, self.reference_size, count, self.top, table = struct.unpack(">BBQQQ", body[-26:])
        self.body = body
        self.offsets = [self.integer(table + i * offset_size, offset_size) for i in range(count)]

    def integer(self, at, size, signed=False):
        return int.from_bytes(self.body[at:at + size], "big", signed=signed)

    def value(self, number):
        at = self.offsets[number]
        kind, count = self.body[at] >> 4, self.body[at] & 15
        at += 1
        if kind == 0:
            return count == 9
        if kind == 1:
            return self.integer(at, 1 << count, signed=count >= 3)
        if kind in (2, 3):
            return struct.unpack_from(">d" if kind == 3 or count == 3 else ">f", self.body, at)[0]
        if count == 15:
            size = 1 << (self.body[at] & 15)
            at, count = at + 1 + size, self.integer(at + 1, size)
        if kind == 4:
            return self.body[at:at + count]
        if kind == 5:
            return self.body[at:at + count].decode("ascii")
        if kind == 6:
            return self.body[at:at + 2 * count].decode("utf-16-be")
        total = 2 * count if kind == 13 else count
        references = [self.integer(at + i * self.reference_size, self.reference_size) for i in range(total)]
        values = [self.value(reference) for reference in references]
        return dict(zip(values[:count], values[count:])) if kind == 13 else values


def receive_exactly(daemon, count):
    received = bytearray()
    while len(received) < count:
        piece = daemon.recv(min(count - len(received), 1 << 20))
        if not piece:
            raise ConnectionError("the daemon closed the connection")
        received += piece
    return bytes(received)


def receive(daemon):
    magic, version, kind, length = HEADER.unpack(receive_exactly(daemon, HEADER.size))
    if (magic, version, kind) != (b"CV", 1, 1) or length > LONGEST_ANSWER:
        raise ConnectionError("what came is no answer")
    answer = Reader(receive_exactly(daemon, length))
    return answer.value(answer.top)


def ask(daemon, selector, **arguments):
    """The reply, or None where the daemon gave none."""
    send(daemon, {"Request": selector, **arguments})
    response = receive(daemon)
    if "ErrorObject" in response:
        raise RuntimeError(f"error {response['ErrorObject']['Code']}: {response['Error']}")
    return response.get("Reply")


def main():
    path = os.environ.get("CORVANE_ROOT", "") + "/run/corvaned/com.norvane.corvaned"
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as daemon:
        daemon.settimeout(5)
        daemon.connect(path)
        print("version", ask(daemon, "copyVersionWithCompletionBlock:")["Version"])
        reply = ask(daemon, "copyRegulatoryImagesWithCompletionBlock:")
        print("no images" if reply is None else f"images stored under {reply['ProductVersion']}")


if __name__ == "__main__":
    try:
        main()
    except (OSError, RuntimeError, ValueError, struct.error) as error:
        sys.exit(f"raw_wire.py: {error}")
