#!/usr/bin/env python3
"""
X servers that answer one request wrongly: fake_x_server.py MODE... listens as one for each mode and prints their display
numbers in one line. A mode is TARGET-WAY, or "well"; without modes all are printed. "silent-N" answers N connections,
and no later ones.

Other requests are answered as a server with a screen of 64x64 pixels would. A request is answered in order or not at
all, but for what comes late.
"""

import contextlib
import os
import socket
import struct
import sys
import threading
import time

WIDTH, HEIGHT = 64, 64
ROOT, VISUAL, CRTC, MODE = 0x100, 0x21, 0x40, 0x50
EXTENSIONS = {"MIT-SHM": 130, "XFIXES": 138, "RANDR": 140, "DAMAGE": 143}
LATE_SECONDS = 1.5
GENERIC_EVENT = 35


def fields(text, *values):
    """The 24 bytes of a reply behind its length."""
    return struct.pack("<" + text, *values).ljust(24, b"\0")


def extension(request):
    name = request[8:8 + struct.unpack_from("<H", request, 4)[0]].decode("latin-1")
    return 0, fields("BBBB", name in EXTENSIONS, EXTENSIONS.get(name, 0), 64, 128), b""


# (opcode, minor opcode or None): target, functions that make data byte, fields and the rest of the reply.
REPLIES = {
    (98, None): ("extension", extension),
    (14, None): ("geometry", lambda _: (24, fields("IhhHHH", ROOT, 0, 0, WIDTH, HEIGHT, 0), b"")),
    (43, None): ("focus", lambda _: (0, fields("I", ROOT), b"")),
    (38, None): ("pointer", lambda _: (1, fields("IIhhhhH", ROOT, 0, 30, 30, 30, 30, 0), b"")),
    (73, None): ("image", lambda _: (24, fields("I", VISUAL), bytes(range(256)) * (WIDTH * HEIGHT * 4 // 256))),
    (130, 0): ("shm_version", lambda _: (0, fields("HHHHB", 1, 2, 0, 0, 2), b"")),
    (130, 4): ("shm_image", lambda _: (24, fields("II", VISUAL, WIDTH * HEIGHT * 4), b"")),
    (138, 0): ("xfixes_version", lambda _: (0, fields("II", 5, 0), b"")),
    (138, 4): ("cursor", lambda _: (0, fields("hhHHHHI", 30, 30, 16, 16, 8, 8, 1), b"\x80" * 1024)),
    (138, 19): ("region", lambda _: (0, fields("hhHH", 0, 0, WIDTH, HEIGHT), struct.pack("<hhHH", 8, 8, 16, 16) +
                                     struct.pack("<hhHH", 40, 40, 8, 8))),
    (140, 0): ("randr_version", lambda _: (0, fields("II", 1, 5), b"")),
    (140, 42): ("monitors", lambda _: (0, fields("III", 1, 1, 1), struct.pack(
        "<IBBHhhHHIII", 0x200, 1, 1, 1, 0, 0, WIDTH, HEIGHT, 16, 16, 0x41))),
    (17, None): ("atom", lambda _: (0, fields("H", 4), b"fake")),
    (140, 25): ("outputs", lambda _: (0, fields("IIHHHH", 1, 1, 1, 1, 1, 8),
                                      struct.pack("<II", CRTC, 0x41) +
                                      struct.pack("<IHHIHHHHHHHHI", MODE, 64, 64, 64 * 64 * 60, 64, 64, 64, 0,
                                                  64, 64, 64, 8, 0) + b"64x64\0\0\0")),
    (140, 20): ("crtc", lambda _: (0, fields("IhhHHIHHHH", 1, 0, 0, 64, 64, MODE, 1, 1, 0, 0), b"")),
    (143, 0): ("damage_version", lambda _: (0, fields("II", 1, 1), b"")),
}
TARGETS = ["setup", *EXTENSIONS, *(target for target, _ in REPLIES.values() if target != "extension"), "attach"]


def packet(sequence, data, body, rest, length=None):
    return struct.pack("<BBHI", 1, data, sequence & 0xFFFF, len(rest) // 4 if length is None else length) + body + rest


def error(sequence):
    return struct.pack("<BBHIHB", 0, 11, sequence & 0xFFFF, 0, 0, 0).ljust(32, b"\0")


# Sent in place of a reply: bytes, or None to end the connection.
WAYS = {
    "short": lambda n, data, body, rest: packet(n, data, body, b""),
    "half": lambda n, data, body, rest: packet(n, data, body, rest[:len(rest) // 8 * 4]),
    "long": lambda n, data, body, rest: packet(n, data, body, rest + bytes(4096)),
    "zero": lambda n, data, body, rest: packet(n, 0, bytes(24), b""),
    "maximal": lambda n, data, body, rest: packet(n, 255, b"\xff" * 24, rest),
    "large": lambda n, data, body, rest: packet(n, data, b"\xff\x7f" * 12, rest),
    "endless": lambda n, data, body, rest: packet(n, data, body, rest, 0xFFFFFFFF),
    "cut": lambda n, data, body, rest: packet(n, data, body, rest, len(rest) // 4 + 250),
    "missing": lambda n, data, body, rest: b"",
    "late": lambda n, data, body, rest: time.sleep(LATE_SECONDS) or packet(n, data, body, rest),
    "error": lambda n, data, body, rest: error(n),
    "event": lambda n, data, body, rest: struct.pack("<BBH", GENERIC_EVENT, 0, n & 0xFFFF) + b"\xff\xff\xff\x0f" +
    bytes(24),
    "another": lambda n, data, body, rest: packet(n + 1000, data, body, rest),
    "end": lambda n, data, body, rest: None,
}
MODES = ["well", *(f"{target}-{way}" for target in TARGETS for way in WAYS)]


def setup():
    screen = struct.pack("<IIIIIHHHHHHIBBBB", ROOT, 1, 0xFFFFFF, 0, 0, WIDTH, HEIGHT, 20, 20, 1, 1, VISUAL, 0, 0, 24, 1)
    depths = struct.pack("<BBHI", 24, 0, 1, 0) + struct.pack("<IBBHIIII", VISUAL, 4, 8, 256, 0xFF0000, 0xFF00, 0xFF, 0)
    head = struct.pack("<IIIIHHBBBBBBBBI", 1, 0x200000, 0x1FFFFF, 0, 4, 0xFFFF, 1, 1, 0, 0, 32, 32, 8, 255, 0)
    return head, b"fake" + struct.pack("<BBB5x", 24, 32, 32) + screen + depths


def setup_answer(way):
    """The answer to the first message: eight bytes and the data that they count. It is not a reply."""
    head, rest = setup()

    def message(content, length=None):
        return struct.pack("<BBHHH", 1, 0, 11, 0, len(content) // 4 if length is None else length) + content

    return {
        "short": lambda: message(head), "half": lambda: message(head + rest[:48]), "zero": lambda: message(bytes(32)),
        "long": lambda: message(head + rest + bytes(4096)), "maximal": lambda: message(b"\xff" * 32 + rest),
        "large": lambda: message(head[:20] + b"\xff\xff" + rest[:200]), "endless": lambda: message(head + rest, 0xFFFF),
        "cut": lambda: message(head + rest)[:60], "missing": lambda: b"",
        "late": lambda: time.sleep(LATE_SECONDS) or message(head + rest),
        "error": lambda: struct.pack("<BBHHH", 0, 4, 11, 0, 1) + b"no!\0", "event": lambda: b"\x23" * 64,
        "another": lambda: struct.pack("<BBHHH", 2, 0, 11, 0, 1) + b"more", "end": lambda: None,
    }.get(way, lambda: message(head + rest))()


class Connection:
    """Answers one client until either ends."""

    def __init__(self, client, mode):
        self.client = client
        self.target, _, self.way = mode.rpartition("-")
        self.sequence = 0

    def read(self, size):
        data = b""
        while len(data) < size:
            piece, descriptors, _, _ = socket.recv_fds(self.client, size - len(data), 4)
            for descriptor in descriptors:
                os.close(descriptor)
            if not piece:
                raise EOFError
            data += piece
        return data

    def send(self, data):
        if data is None:
            raise EOFError
        self.client.sendall(data)

    def serve(self):
        with contextlib.suppress(OSError, EOFError), self.client:
            name, data = struct.unpack_from("<HH", self.read(12), 6)
            self.read((name + 3 & ~3) + (data + 3 & ~3))
            self.send(setup_answer(self.way if self.target == "setup" else ""))
            while True:
                head = self.read(4)
                self.sequence += 1
                self.answer(head + self.read(4 * struct.unpack_from("<H", head, 2)[0] - 4))

    def answer(self, request):
        opcode, minor = request[:2]
        if (opcode, minor) == (130, 6) and self.target == "attach":
            self.send({"error": error(self.sequence), "end": None}.get(self.way, packet(self.sequence, 0, bytes(24), b"")))
        if (opcode, minor) == (143, 3):
            # Something is drawn whenever the drawing so far was asked for.
            self.send(struct.pack("<BBH", 64, 0, self.sequence & 0xFFFF) + bytes(28))
        known = REPLIES.get((opcode, minor if opcode >= 128 else None))
        if not known:
            return
        target, make = known
        data, body, rest = make(request)
        if target == "extension":
            target = request[8:].rstrip(b"\0").decode("latin-1")
            if target == "MIT-SHM" and self.target == "image":
                body = bytes(24)  # so that pictures come through the connection
        self.send((WAYS[self.way] if target == self.target else packet)(self.sequence, data, body, rest))


def listen():
    """A socket of a free display number, and the number. Abstract, so other programs do not find it by accident."""
    for number in range(20000, 60000):
        server = socket.socket(socket.AF_UNIX)
        with contextlib.suppress(OSError):
            server.bind(f"\0/tmp/.X11-unix/X{number}")
            server.listen(64)
            return server, number
    raise SystemExit("no display number is free")


def serve(server, mode):
    answered = int(mode.removeprefix("silent-")) if mode.startswith("silent-") else sys.maxsize
    silent = []
    while True:
        client, _ = server.accept()
        answered -= 1
        if answered < 0:
            silent.append(client)
            continue
        threading.Thread(target=Connection(client, mode).serve, daemon=True).start()


def main(*modes):
    if not modes:
        print(*MODES, sep="\n")
        return
    servers = [listen() for _ in modes]
    for (server, _), mode in zip(servers, modes):
        threading.Thread(target=serve, args=(server, mode), daemon=True).start()
    print(*(number for _, number in servers), flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    main(*sys.argv[1:])
