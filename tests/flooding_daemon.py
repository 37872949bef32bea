#!/usr/bin/env python3
"""Stands in for the daemon at the sockets in the folder of its first argument: answers two requests with an error
whose text D-Bus cannot carry, and ends after it has posted 200,000 notifications."""
import socket, struct, sys


def listen(name):
    server = socket.socket(socket.AF_UNIX)
    server.bind(f"{sys.argv[1]}/{name}")
    server.listen()
    return server


def frame(elements):
    body = f"<plist><dict>{elements}</dict></plist>".encode()
    return struct.pack(">2sBBI", b"CV", 1, 1, len(body)) + body


notifications, requests = listen("com.norvane.notifications"), listen("com.norvane.corvaned")
subscriber, _ = notifications.accept()
error = """<key>Request</key><string></string><key>ErrorObject</key><dict>
  <key>Domain</key><string></string><key>Code</key><integer>2</integer>
  <key>UserInfo</key><dict><key>ErrorDescription</key><string>\ufdd0</string></dict>
</dict>"""
flood = "<key>Notification</key><string>flood</string><key>Object</key><string>flood</string>"
for _ in ("the version", "the images"):
    connection, _ = requests.accept()
    connection.recv(4096)
    connection.sendall(frame(error))
subscriber.sendall(200_000 * frame(flood))
