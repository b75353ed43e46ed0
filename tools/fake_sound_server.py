#!/usr/bin/env python3
"""
Sound servers that answer one command wrongly: fake_sound_server.py REAL FOLDER MODE... listens at FOLDER/MODE for each mode
and says "ready". Each stands between its clients and a real PulseAudio server, whose socket is REAL, and spoils what that
one says on the way. A mode is TARGET-WAY, or "well"; without arguments all are printed.
"""

import contextlib
import itertools
import os
import socket
import struct
import sys
import threading
import time

# The protocol's numbers of the commands that clients send and of the server's unsolicited messages.
COMMANDS = {8: "auth", 9: "name", 5: "stream", 57: "latency", 20: "server", 24: "sources"}
ERROR, REPLY = 0, 2
CONTROL = 0xFFFFFFFF
LATE_SECONDS = 1.5
TARGETS = [*COMMANDS.values(), "sound"]
# Sizes in bytes of the values of fixed length, after their type byte.
SIZES = {"N": 0, "L": 4, "B": 1, "R": 8, "r": 8, "a": 6, "1": 0, "0": 0, "T": 8, "U": 8, "P": 0, "V": 4, "f": 0}


def value_end(data, at):
    """Where the value ends that begins with its type at `at`."""
    kind = chr(data[at])
    if kind == "t":
        return data.index(0, at) + 1
    if kind == "x":
        return at + 5 + struct.unpack_from(">I", data, at + 1)[0]
    if kind in "mv":
        return at + 2 + data[at + 1] * (4 if kind == "v" else 1)
    return at + 1 + SIZES[kind]


def spoil_values(data, fill):
    """The values behind command and tag with other contents, so that the message stays well-formed; but for lists of
    properties, from a P to an N."""
    made, at, in_list = data[:10], 10, False
    while at < len(data):
        end = value_end(data, at)
        kind = chr(data[at])
        in_list = kind == "P" or in_list and kind != "N"
        made += data[at:end] if in_list else fill(kind, data[at:end])
        at = end
    return made


def filled(*fills):
    """The values of fixed length filled with one byte after the other, by turns."""
    def fill(data):
        turns = itertools.cycle(fills)
        return spoil_values(data, lambda kind, value: value[:1] + bytes([next(turns)]) * (len(value) - 1)
                            if kind in "LRrUTV" else value)
    return fill


WAYS = {
    "short": lambda data: data[:len(data) // 2],
    "bare": lambda data: data[:10],
    "long": lambda data: data + bytes(4096),
    "zero": lambda data: data[:10] + bytes(len(data) - 10),
    "maximal": lambda data: data[:10] + b"\xff" * (len(data) - 10),
    "least": filled(0),
    "greatest": filled(0x7F),
    "negative": filled(0xFF),
    "apart": filled(0x80, 0x7F),
    "nameless": lambda data: spoil_values(data, lambda kind, value: b"N" if kind == "t" else value),
    "missing": lambda data: b"",
    "late": lambda data: time.sleep(LATE_SECONDS) or data,
    "error": lambda data: struct.pack(">cIcIcI", b"L", ERROR, b"L", struct.unpack_from(">I", data, 6)[0], b"L", 5),
    "another": lambda data: b"".join((b"L", struct.pack(">I", 66), data[5:])),
    "end": None,
    "cut": None,
    "endless": None,
}
SOUND_WAYS = {
    "short": lambda data: data[:len(data) // 8 * 4],
    "long": lambda data: data * 8,
    "missing": lambda data: b"",
    "late": WAYS["late"],
    "end": None,
    "cut": None,
    "endless": None,
}
# libpulse itself aborts the program on a source with billions of ports.
ABORTED_BY_LIBPULSE = {"sources-greatest", "sources-negative", "sources-apart"}
MODES = [mode for mode in ["well", *(f"{target}-{way}" for target in TARGETS
                                     for way in (SOUND_WAYS if target == "sound" else WAYS))]
         if mode not in ABORTED_BY_LIBPULSE]


def read(connection, size):
    data = b""
    while len(data) < size:
        piece = connection.recv(size - len(data))
        if not piece:
            raise EOFError
        data += piece
    return data


class Link:
    """One client's connection and that to the real server, until either ends."""

    def __init__(self, client, real, mode):
        self.client, self.server = client, socket.socket(socket.AF_UNIX)
        self.server.connect(real)
        self.target, _, self.way = mode.rpartition("-")
        self.asked = {}

    def run(self):
        for work in (self.pass_questions, self.pass_answers):
            threading.Thread(target=self.until_the_end, args=(work,), daemon=True).start()

    def until_the_end(self, work):
        with contextlib.suppress(OSError, EOFError):
            while True:
                work()
        for connection in (self.client, self.server):
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)

    def pass_questions(self):
        head = read(self.client, 20)
        size, channel = struct.unpack_from(">II", head)
        data = read(self.client, size)
        if channel == CONTROL:
            _, command, _, tag = struct.unpack_from(">cIcI", data)
            self.asked[tag] = COMMANDS.get(command)
        self.server.sendall(head + data)

    def pass_answers(self):
        head = read(self.server, 20)
        size, channel = struct.unpack_from(">II", head)
        data = read(self.server, size)
        spoilt = self.spoil(channel, data)
        if spoilt is None:
            size = {"cut": size + 1000, "endless": 0xFFFFFF}.get(self.way)
            if size is None:
                raise EOFError
            self.client.sendall(struct.pack(">I", size) + head[4:] + data)
            threading.Event().wait()
        if spoilt or not data:
            self.client.sendall(struct.pack(">I", len(spoilt)) + head[4:] + spoilt)

    def spoil(self, channel, data):
        if channel != CONTROL:
            ways = SOUND_WAYS if self.target == "sound" else {}
        else:
            _, command, _, tag = struct.unpack_from(">cIcI", data)
            asked = self.asked.pop(tag, None) if command == REPLY else None
            ways = WAYS if asked and asked == self.target else {}
        way = ways.get(self.way, bytes)
        return way and way(data)


def serve(server, real, mode):
    while True:
        client, _ = server.accept()
        with contextlib.suppress(OSError):
            Link(client, real, mode).run()


def main(real=None, folder=None, *modes):
    if not modes:
        print(*MODES, sep="\n")
        return
    for mode in modes:
        server = socket.socket(socket.AF_UNIX)
        server.bind(os.path.join(folder, mode))
        server.listen(64)
        threading.Thread(target=serve, args=(server, real, mode), daemon=True).start()
    print("ready", flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    main(*sys.argv[1:])
