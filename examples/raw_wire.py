#!/usr/bin/python3
"""Asks the daemon for its version and its regulatory images without any library of it. Usage: raw_wire.py

A frame is "CV", the version 1, the kind 1, the length of the body in four bytes, and the body: a property list."""

import os
import plistlib
import socket
import struct
import sys

HEADER = struct.Struct(">2sBBI")
LONGEST_ANSWER = 128 << 20


def send(daemon, message):
    body = plistlib.dumps(message, fmt=plistlib.FMT_BINARY)
    daemon.sendall(HEADER.pack(b"CV", 1, 1, len(body)) + body)


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
    # plistlib does not know sets. An answer that may have one needs another reader.
    return plistlib.loads(receive_exactly(daemon, length), fmt=plistlib.FMT_BINARY)


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
    except (OSError, RuntimeError, ValueError) as error:
        sys.exit(f"raw_wire.py: {error}")
