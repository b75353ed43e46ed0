#!/usr/bin/env python3
"""
Gives the seat of a wlroots compositor a pointer until this program ends: without a device it shows none.

virtual_pointer.py X Y WIDTH HEIGHT

Moves it to X, Y of an output layout of WIDTH x HEIGHT and prints "ready" once the compositor has answered.
"""

import os
import socket
import struct
import sys
import threading

DISPLAY, REGISTRY, ANSWER, FIRST_BOUND = range(1, 5)
SEAT, MANAGER = b"wl_seat", b"zwlr_virtual_pointer_manager_v1"


class Connection:
    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(os.path.join(os.environ["XDG_RUNTIME_DIR"], os.environ["WAYLAND_DISPLAY"]))
        self.data = b""

    def send(self, target, opcode, *values, body=b""):
        body = struct.pack(f"<{len(values)}I", *values) + body
        self.socket.sendall(struct.pack("<II", target, (8 + len(body)) << 16 | opcode) + body)

    def event(self):
        """The next one: its object, number and body."""
        while len(self.data) < 8 or len(self.data) < struct.unpack_from("<H", self.data, 6)[0]:
            piece = self.socket.recv(65536)
            if not piece:
                sys.exit("virtual_pointer.py: the compositor ended the connection")
            self.data += piece
        target, opcode, size = struct.unpack_from("<IHH", self.data)
        body, self.data = self.data[8:size], self.data[size:]
        if target == DISPLAY and opcode == 0:
            sys.exit(f"virtual_pointer.py: {body[12:]}")
        return target, opcode, body

    def bind(self, *names):
        """Binds version 1 of these interfaces; their objects, numbered without a gap."""
        bound = {}
        self.send(DISPLAY, 1, REGISTRY)
        self.send(DISPLAY, 0, ANSWER)
        while (event := self.event())[0] != ANSWER:
            target, opcode, body = event
            length = struct.unpack_from("<I", body, 4)[0] if target == REGISTRY and opcode == 0 else 0
            name = body[8:8 + length - 1]
            if name in names:
                bound[name] = FIRST_BOUND + len(bound)
                text = body[4:8 + (length + 3) // 4 * 4]
                self.send(REGISTRY, 0, body=body[:4] + text + struct.pack("<II", 1, bound[name]))
        return bound


def main():
    connection = Connection()
    bound = connection.bind(SEAT, MANAGER)
    pointer, done = FIRST_BOUND + 2, FIRST_BOUND + 3
    connection.send(bound[MANAGER], 0, bound[SEAT], pointer)
    connection.send(pointer, 1, 0, *map(int, sys.argv[1:5]))
    connection.send(pointer, 4)
    connection.send(DISPLAY, 0, done)
    while connection.event()[0] != done:
        pass
    print("ready", flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    main()
