#!/usr/bin/env python3
"""
Wayland compositors that lie in one way each: fake_compositor.py FOLDER MODE... listens at FOLDER/MODE for each mode and
prints "ready". Without arguments all modes are printed.

Mode "well" has an output of 128x96 pixels that is red; each copy is an answer to its request.
"""

import mmap
import socket
import struct
import sys
import threading

WIDTH, HEIGHT = 128, 96
XRGB, XBGR, AR30 = 1, 0x34324258, 0x30335258
SHM, OUTPUT, COPY = (1, b"wl_shm", 1), (2, b"wl_output", 4), (3, b"zwlr_screencopy_manager_v1", 3)
SECOND_OUTPUT = (5, b"wl_output", 4)


def text(value):
    return struct.pack("<I", len(value) + 1) + (value + b"\0").ljust((len(value) + 4) // 4 * 4, b"\0")


def buffer_event(fmt=XRGB, width=WIDTH, height=HEIGHT, stride=WIDTH * 4):
    return 0, struct.pack("<IIII", fmt, width, height, stride)


BUFFER_DONE, READY, FAILED = (6, b""), (2, bytes(12)), (3, b"")


def damage(x, y, width, height):
    return 4, struct.pack("<IIII", x, y, width, height)


# The differences to "well": the globals, a frame's first events, the events that follow a copy.
MODES = {
    "well": {},
    "red-last": {"offer": [buffer_event(XBGR), BUFFER_DONE]},
    "old-version": {"globals": [SHM, OUTPUT, (3, COPY[1], 2)], "offer": [buffer_event()]},
    "too-old-version": {"globals": [SHM, OUTPUT, (3, COPY[1], 1)]},
    "no-copy": {"globals": [SHM, OUTPUT]},
    "no-shm": {"globals": [OUTPUT, COPY]},
    "no-output": {"globals": [SHM, COPY]},
    "many-outputs": {"globals": [SHM, COPY] + [(n, b"wl_output", 4) for n in range(10, 1000)]},
    "output-twice": {"globals": [SHM, OUTPUT, OUTPUT, COPY]},
    "output-strange": {"output": [(1, struct.pack("<Iiii", 1, -5, 1 << 30, -1)), (3, struct.pack("<i", -7)),
                                  (4, text(b"\xff\x1b[31m" * 100))]},
    "output-cut": {"output": [(4, struct.pack("<I", 0xFFFFFF))]},
    "output-null": {"output": [(4, struct.pack("<I", 0))]},
    "unknown-format": {"offer": [buffer_event(AR30), BUFFER_DONE]},
    "size-zero": {"offer": [buffer_event(width=0, stride=0), BUFFER_DONE]},
    "size-large": {"offer": [buffer_event(width=0x40000001, height=0x40000001, stride=4), BUFFER_DONE]},
    "size-greatest": {"offer": [buffer_event(width=0xFFFFFFFF, height=0xFFFFFFFF, stride=0xFFFFFFFF), BUFFER_DONE]},
    "stride-small": {"offer": [buffer_event(stride=WIDTH * 4 - 1), BUFFER_DONE]},
    "stride-large": {"offer": [buffer_event(stride=0xFFFFFF00), BUFFER_DONE]},
    "stride-wide": {"offer": [buffer_event(stride=WIDTH * 4 + 52), BUFFER_DONE]},
    "no-buffer": {"offer": [BUFFER_DONE]},
    "never-offered": {"offer": []},
    "offered-twice": {"offer": [buffer_event(), buffer_event(width=WIDTH * 2, stride=WIDTH * 8), BUFFER_DONE,
                                buffer_event(width=4), BUFFER_DONE]},
    "offered-again": {"copied": [buffer_event(width=4000, height=4000, stride=16000), BUFFER_DONE, READY]},
    "ready-first": {"offer": [READY, buffer_event(), BUFFER_DONE]},
    "ready-twice": {"copied": [READY, READY, FAILED, READY]},
    "failed-always": {"copied": [FAILED]},
    "failed-first": {"offer": [FAILED]},
    "never-copied": {"copied": []},
    "upside-down": {"copied": [(1, struct.pack("<I", 0xFFFFFFFF)), READY]},
    "damage-outside": {"copied": [damage(WIDTH - 1, HEIGHT - 1, 0xFFFFFFFF, 0xFFFFFFFF), damage(0xFFFFFFFF, 5, 3, 3),
                                  damage(0, 0, 0, 0), READY]},
    "damage-much": {"copied": [damage(n % WIDTH, n % HEIGHT, 5, 5) for n in range(1000)] + [READY]},
    "event-unknown": {"copied": [(99, b""), READY]},
    "event-short": {"copied": [(4, bytes(4)), READY]},
    "event-cut": {"copied": [(2, None)]},
    "to-nobody": {"stray": 77, "copied": [READY]},
    "error": {"copied": [(-1, b"")]},
    "ends": {"copied": [(-2, b"")]},
    "turned-strangely": {"output": [(0, struct.pack("<iiiii", 0, 0, 0, 0, 0) + text(b"m") + text(b"m") +
                                     struct.pack("<i", 0x7FFFFFFF))]},
    "output-removed": {"globals": [SHM, OUTPUT, SECOND_OUTPUT, COPY], "removed_after": 45},
    "flood": {"copied": [damage(0, 0, 1, 1)] * 20000 + [READY]},
}


class Client:
    """A client of one compositor, until it leaves."""

    def __init__(self, connection, mode):
        self.connection, self.mode = connection, MODES[mode]
        self.registry, self.copies = 0, 0
        self.objects, self.pools, self.buffers, self.descriptors = {1: "display"}, {}, {}, []

    def send(self, target, opcode, body=b""):
        size = 0xFFFC if body is None else 8 + len(body)  # the rest of a cut one never comes
        self.connection.sendall(struct.pack("<II", target, size << 16 | opcode) + (body or b""))

    def events(self, target, events):
        for opcode, body in events:
            if opcode == -1:
                self.send(1, 0, struct.pack("<II", target, 1) + text(b"you broke it"))
            elif opcode == -2:
                raise ConnectionError
            else:
                self.send(self.mode.get("stray", 0) or target, opcode, body)
                if self.mode.get("stray"):
                    self.send(target, opcode, body)

    def bind(self, body):
        length = struct.unpack_from("<I", body, 4)[0]
        name, target = body[8:8 + length - 1], struct.unpack_from("<I", body, len(body) - 4)[0]
        self.objects[target] = name.decode()
        if name == b"wl_output":
            name = b"FAKE-2" if body[0] == SECOND_OUTPUT[0] else b"FAKE-1"
            self.events(target, self.mode.get("output", [
                (0, struct.pack("<iiiii", 0, 0, 0, 0, 0) + text(b"maker") + text(b"model") + struct.pack("<i", 0)),
                (1, struct.pack("<Iiii", 1, WIDTH, HEIGHT, 60000)), (4, text(name)), (2, b"")]))

    def paint(self, buffer):
        pool, offset, width, height, stride, fmt = self.buffers[buffer]
        red = b"\xff\0\0\0" if fmt == XBGR else b"\0\0\xff\0"
        with mmap.mmap(self.pools[pool], 0) as memory:
            for line in range(height):
                memory[offset + line * stride:offset + line * stride + width * 4] = red * width

    def handle(self, target, opcode, body):
        kind = self.objects.get(target)
        values = struct.unpack(f"<{len(body) // 4}I", body) if len(body) % 4 == 0 else ()
        if (kind, opcode) == ("display", 0):
            self.send(values[0], 0, bytes(4))
        elif (kind, opcode) == ("display", 1):
            self.objects[values[0]] = "registry"
            self.registry = values[0]
            for number, name, version in self.mode.get("globals", [SHM, OUTPUT, COPY]):
                self.send(values[0], 0, struct.pack("<I", number) + text(name) + struct.pack("<I", version))
        elif (kind, opcode) == ("registry", 0):
            self.bind(body)
        elif (kind, opcode) == ("wl_shm", 0):
            self.objects[values[0]] = "pool"
            self.pools[values[0]] = self.descriptors.pop(0)
        elif (kind, opcode) == ("pool", 0):
            self.buffers[values[0]] = (target, *values[1:])
        elif (kind, opcode) == ("zwlr_screencopy_manager_v1", 0):
            self.objects[values[0]] = "frame"
            self.events(values[0], self.mode.get("offer", [buffer_event(), BUFFER_DONE]))
        elif kind == "frame" and opcode in (0, 2):
            self.paint(values[0])
            self.events(target, self.mode.get("copied", [damage(0, 0, WIDTH, HEIGHT), READY]))
            self.copies += 1
            if self.copies == self.mode.get("removed_after"):
                self.send(self.registry, 1, struct.pack("<I", SECOND_OUTPUT[0]))

    def serve(self):
        data = b""
        while True:
            piece, descriptors, _, _ = socket.recv_fds(self.connection, 65536, 16)
            if not piece:
                return
            data += piece
            self.descriptors += descriptors
            while len(data) >= 8:
                target, word = struct.unpack_from("<II", data)
                size = word >> 16
                if len(data) < size or size < 8:
                    break
                self.handle(target, word & 0xFFFF, data[8:size])
                data = data[size:]


def serve(connection, mode):
    try:
        Client(connection, mode).serve()
    except OSError:
        pass  # it has left, or is left
    connection.close()


def accept_all(listener, mode):
    while True:
        connection, _ = listener.accept()
        threading.Thread(target=serve, args=(connection, mode), daemon=True).start()


def main():
    if len(sys.argv) < 2:
        print(*MODES)
        return
    for mode in sys.argv[2:]:
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(f"{sys.argv[1]}/{mode}")
        listener.listen()
        threading.Thread(target=accept_all, args=(listener, mode), daemon=True).start()
    print("ready", flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    main()
