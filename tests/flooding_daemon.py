#!/usr/bin/env python3
"""Stands in for the daemon at the sockets in the folder of its first argument: answers two requests with an error
whose text D-Bus cannot carry, and ends after it has posted 200,000 notifications."""
import plistlib, socket, struct, sys


def listen(name):
    server = socket.socket(socket.AF_UNIX)
    server.bind(f"{sys.argv[1]}/{name}")
    server.listen()
    return server


def frame(message):
    body = plistlib.dumps(message, fmt=plistlib.FMT_BINARY)
    return struct.pack(">2sBBI", b"CV", 1, 1, len(body)) + body


notifications, requests = listen("com.norvane.notifications"), listen("com.norvane.corvaned")
subscriber, _ = notifications.accept()
error = {"Domain": "", "Code": 2, "UserInfo": {"ErrorDescription": "\ufdd0"}}
for _ in ("the version", "the images"):
    connection, _ = requests.accept()
    connection.recv(4096)
    connection.sendall(frame({"Request": "", "ErrorObject": error}))
subscriber.sendall(200_000 * frame({"Notification": "flood", "Object": "flood"}))
