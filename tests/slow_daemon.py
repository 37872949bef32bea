#!/usr/bin/env python3
"""Stands in for the daemon at the socket of its first argument: answers two requests for images, each with other
images and a second late."""
import socket, struct, sys, time

server = socket.socket(socket.AF_UNIX)
server.bind(sys.argv[1])
server.listen()
for images in ("first", "second"):
    connection, _ = server.accept()
    connection.recv(4096)
    time.sleep(1)
    body = f"""<plist><dict>
      <key>Request</key><string>copyRegulatoryImagesWithCompletionBlock:</string>
      <key>Reply</key><dict><key>RegulatoryImages</key><string>{images}</string></dict>
    </dict></plist>""".encode()
    connection.sendall(struct.pack(">2sBBI", b"CV", 1, 1, len(body)) + body)
