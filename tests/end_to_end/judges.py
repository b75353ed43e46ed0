"""What outside tools say of a file: ffprobe, ffmpeg's decoder and the packet checker."""

import json
import math
import os
import re
import struct
import subprocess
import zlib

from harness import program

RED, WHITE, BLACK = (255, 0, 0), (255, 255, 255), (0, 0, 0)
# Where moving_screen shows what, from the top left corner: x, y of a square of 128 pixels.
PATCHES = {(64, 64): RED, (256, 64): WHITE, (448, 64): BLACK}


def _run(arguments):
    result = subprocess.run(arguments, stdin=subprocess.DEVNULL, capture_output=True, check=False)
    if result.returncode != 0:
        raise AssertionError(f"{arguments}: {result.stderr.decode()}")
    return result.stdout


def streams(path):
    """The streams by type, as ffprobe describes them."""
    found = json.loads(_run(["ffprobe", "-v", "error", "-show_streams", "-of", "json", path]))
    return {stream["codec_type"]: stream for stream in found["streams"]}


def packets(path, kind="v"):
    """(time in seconds or None, bytes, is key frame) of each packet of a stream."""
    found = json.loads(_run(["ffprobe", "-v", "error", "-select_streams", kind, "-show_entries",
                             "packet=pts_time,size,flags", "-of", "json", path]))
    return [(float(p["pts_time"]) if "pts_time" in p else None, int(p["size"]), "K" in p["flags"])
            for p in found["packets"]]


def decoder_messages(path, *options):
    """
    All that ffmpeg's decoder says of a file; nothing when it is well. Time is counted as the file does: on the grid of
    the frame rate, which ffmpeg takes otherwise, two pictures that a busy machine took late can fall together.
    """
    options = options or ("-enc_time_base", "-1")
    result = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", path, *options, "-f", "null", "-"],
                            capture_output=True, check=False)
    return (result.stdout + result.stderr).decode() + (f"exit {result.returncode}" if result.returncode else "")


def check_packets(path, *options):
    """Runs the transport-stream checker; what it objects to."""
    result = subprocess.run([program("ts_check"), *options, path], capture_output=True, check=False)
    if result.returncode == 0:
        return ""
    said = (result.stdout + result.stderr).decode()
    return "\n".join(line for line in said.splitlines() if line.startswith("error")) or said


class Picture:
    """Decoded pixels, three bytes each."""

    def __init__(self, width, height, data):
        self.width, self.height, self.data = width, height, data

    def pixel(self, x, y):
        at = 3 * (y * self.width + x)
        return tuple(self.data[at:at + 3])

    def number(self):
        """The picture's number as moving_screen writes it."""
        return sum(1 << bit for bit in range(32) if self.pixel(64 + 16 * bit + 8, 232)[0] > 127)


def decode(path, index=None, pixel_format="rgb24", filters=""):
    """Raw bytes of one decoded picture, or of all."""
    chain = ([f"select=eq(n\\,{index})"] if index is not None else []) + ([filters] if filters else [])
    one = ["-frames:v", "1"] if index is not None else []
    return _run(["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-vsync", "passthrough",
                 *(["-vf", ",".join(chain)] if chain else []), *one, "-pix_fmt", pixel_format, "-f", "rawvideo", "-"])


def picture(path, index=0):
    video = streams(path)["video"]
    return Picture(video["width"], video["height"], decode(path, index))


def picture_numbers(path):
    """The number of each picture, from the strip in which moving_screen writes it."""
    strip = decode(path, None, "gray", "format=gray,crop=512:1:64:232")
    return [sum(1 << bit for bit in range(32) if strip[line + 16 * bit + 8] > 127) for line in range(0, len(strip), 512)]


def colour_faults(image, tolerance=3):
    """The patches whose inside is not their colour within so many levels."""
    faults = []
    for (left, top), colour in PATCHES.items():
        for x in range(left + 8, left + 120, 8):
            for y in range(top + 8, top + 120, 8):
                pixel = image.pixel(x, y)
                if max(abs(a - b) for a, b in zip(pixel, colour)) > tolerance:
                    faults.append(((x, y), pixel, colour))
    return faults


def first_is_key_frame(path):
    return packets(path)[0][2]


def access_units(data):
    """Splits an Annex B stream at its access-unit delimiters."""
    starts, at = [], data.find(b"\0\0\1\x09")
    while at >= 0:
        starts.append(at - 1 if at and data[at - 1] == 0 else at)
        at = data.find(b"\0\0\1\x09", at + 4)
    return [data[a:b] for a, b in zip(starts, starts[1:] + [len(data)])]


def is_idr(unit):
    return re.search(rb"\x00\x00\x01[\x05\x25\x45\x65]", unit) is not None


def dump_screen(display):
    """What xwd sees: a picture in the order blue, green, red, unused, and its size."""
    dump = _run(["xwd", "-root", "-silent", "-display", display])
    header = struct.unpack(">25I", dump[:100])
    width, height, stride, colours = header[4], header[5], header[12], header[19]
    start = header[0] + colours * 12
    assert header[11] == 32 and stride == width * 4
    return width, height, dump[start:start + stride * height]


def write_png(path, width, height, rgba):
    lines = b"".join(b"\0" + rgba[4 * width * y:4 * width * (y + 1)] for y in range(height))

    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))

    with open(path, "wb") as file:
        file.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0)) +
                   chunk(b"IDAT", zlib.compress(lines)) + chunk(b"IEND", b""))


def psnr(a, b):
    """Peak signal-to-noise ratio of two rows of bytes, in dB."""
    assert len(a) == len(b) and a
    error = sum((x - y) ** 2 for x, y in zip(a, b)) / len(a)
    return math.inf if error == 0 else 10 * math.log10(255 * 255 / error)


def whole_packets(path, packet_size=188):
    """Whether a file is a row of whole packets, each with its sync byte."""
    with open(path, "rb") as file:
        data = file.read()
    sync = data[packet_size - 188::packet_size]
    return os.path.getsize(path) % packet_size == 0 and sync == b"\x47" * (len(data) // packet_size)
