"""Judgments of files by outside tools: ffprobe, ffmpeg's decoder and the packet checker."""

import json
import math
import pathlib
import re
import struct
import subprocess

from harness import BUILD

RED, WHITE, BLACK = (255, 0, 0), (255, 255, 255), (0, 0, 0)
# Where moving_screen shows what, from the top left corner: x, y of a square of 128 pixels.
PATCHES = {(64, 64): RED, (256, 64): WHITE, (448, 64): BLACK}


def _run(*arguments, given=b""):
    result = subprocess.run(arguments, input=given, capture_output=True, check=False)
    if result.returncode != 0:
        raise AssertionError(f"{arguments}: {result.stderr.decode()}")
    return result.stdout


def streams(path):
    """The streams by type, as ffprobe describes them."""
    found = json.loads(_run("ffprobe", "-v", "error", "-show_streams", "-of", "json", path))
    return {stream["codec_type"]: stream for stream in found["streams"]}


def packets(path, kind="v"):
    """(time in seconds or None, bytes, is key frame) of each packet of a stream."""
    found = json.loads(_run("ffprobe", "-v", "error", "-select_streams", kind, "-show_entries",
                            "packet=pts_time,size,flags", "-of", "json", path))
    return [(float(p["pts_time"]) if "pts_time" in p else None, int(p["size"]), "K" in p["flags"])
            for p in found["packets"]]


def decoder_messages(path):
    """
    All that ffmpeg's decoder says of a file; empty for a good one. Time is counted as the file does: on the grid of
    the frame rate, which ffmpeg takes otherwise, two pictures that a busy machine took late can fall together.
    """
    result = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", path, "-enc_time_base", "-1",
                             "-f", "null", "-"], capture_output=True, check=False)
    return (result.stdout + result.stderr).decode() + (f"exit {result.returncode}" if result.returncode else "")


def check_packets(path, *options):
    """Runs the transport-stream checker; returns its findings."""
    result = subprocess.run([BUILD / "bin/ts_check", *options, path], capture_output=True, check=False)
    said = (result.stdout + result.stderr).decode()
    objections = "\n".join(line for line in said.splitlines() if line.startswith("error"))
    return (objections or said) if result.returncode else ""


def whole_packets(path):
    """Whether a file is a row of whole packets, each with its sync byte."""
    data = pathlib.Path(path).read_bytes()
    return len(data) % 188 == 0 and set(data[::188]) == {0x47}


def faults(path):
    """Faults that prevent playback: truncated packets, decoder messages, no key frame at the start."""
    return (decoder_messages(path) + " cut packets" * (not whole_packets(path)) +
            " no key frame first" * (not packets(path)[0][2]))


def decode(path, index=None, pixel_format="rgb24", filters="null"):
    """Raw bytes of one decoded picture, or of all."""
    one = [] if index is None else ["-frames:v", "1"]
    chain = filters if index is None else f"select=eq(n\\,{index}),{filters}"
    return _run("ffmpeg", "-nostdin", "-v", "error", "-i", path, "-vsync", "passthrough", "-vf", chain, *one,
                "-pix_fmt", pixel_format, "-f", "rawvideo", "-")


def decode_sound(path, before=(), filters="anull"):
    """Its sound as one channel of samples."""
    sound = _run("ffmpeg", "-nostdin", "-v", "error", *before, "-i", path, "-vn", "-af", filters, "-ac", "1",
                 "-ar", "48000",
                 "-f", "s16le", "-")
    return struct.unpack(f"<{len(sound) // 2}h", sound)


def decode_timed_sound(path):
    """The same from the time 0 on, placed by its time stamps, with silence in place of missing sound."""
    return decode_sound(path, ["-copyts"], "aresample=async=1:first_pts=0")


def pixel(pixels, width, x, y):
    """One of three bytes a pixel."""
    at = 3 * (y * width + x)
    return tuple(pixels[at:at + 3])


def number_in(strip):
    """The picture's number as moving_screen writes it, in the brightness of 512 pixels from (64, 232) on."""
    return sum((strip[16 * bit + 8] > 127) << bit for bit in range(32))


def picture_numbers(path):
    """The number of each picture."""
    strips = decode(path, None, "gray", "format=gray,crop=512:1:64:232")
    return [number_in(strips[at:at + 512]) for at in range(0, len(strips), 512)]


def colour_faults(path, index, tolerance=3):
    """The pixels inside the patches that are not their colour within so many levels."""
    pixels, width = decode(path, index), streams(path)["video"]["width"]
    shown = {(x, y): (pixel(pixels, width, x, y), colour) for (left, top), colour in PATCHES.items()
             for x in range(left + 8, left + 120, 8) for y in range(top + 8, top + 120, 8)}
    return {place: colours for place, colours in shown.items()
            if max(abs(a - b) for a, b in zip(*colours)) > tolerance}


def access_units(data):
    """Splits an Annex B stream at its access-unit delimiters; bytes in front belong to the first unit."""
    starts = [0] + [match.start() for match in re.finditer(rb"\x00?\x00\x00\x01\x09", data)][1:]
    return [data[a:b] for a, b in zip(starts, starts[1:] + [len(data)])]


def is_idr(unit):
    return re.search(rb"\x00\x00\x01[\x05\x25\x45\x65]", unit) is not None


def dump_screen(display, *size):
    """The screen according to xwd, up to `size`: bytes blue, green, red, unused; and the size."""
    dump = _run("xwd", "-root", "-silent", "-display", display)
    header = struct.unpack(">25I", dump[:100])
    width, height, stride, colours = header[4], header[5], header[12], header[19]
    start = header[0] + colours * 12
    assert header[11] == 32 and stride == width * 4
    width, height = size or (width, height)
    return width, height, b"".join(dump[at:at + width * 4] for at in range(start, start + stride * height, stride))


def overlaid(screen, width, height, logo, left, top):
    """The planes of a picture as dump_screen gives it, with another over it."""
    return _run("ffmpeg", "-v", "error", "-f", "rawvideo", "-pix_fmt", "bgr0", "-s", f"{width}x{height}", "-i", "-",
                "-i", logo, "-filter_complex", f"overlay={left}:{top}:format=rgb", "-pix_fmt", "yuv420p",
                "-f", "rawvideo",
                "-", given=screen)


def psnr(a, b):
    """Peak signal-to-noise ratio of two rows of bytes, in dB."""
    assert len(a) == len(b) and a
    error = sum((x - y) ** 2 for x, y in zip(a, b)) / len(a)
    return math.inf if error == 0 else 10 * math.log10(255 * 255 / error)
