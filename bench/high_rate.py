#!/usr/bin/env python3
"""
Records noise at 50 Mbit/s into an MP4 file, at the largest size and rate that this machine keeps up with, and prints the
frames that are lost behind the encoder: there must be none.

    bench/high_rate.py BUILD [--seconds 60] [--trial 5] [--bits 50M]

BUILD is the folder with bin/screenrecord and bin/moving_screen. Needs ffprobe. The machine keeps up with a size and rate if
a short trial drops at most 1 picture of 100; the smallest one is used in any case. A few pictures can be encoded after the
last one in the file; the recorder's message counts those that are missing.
"""

import argparse
import json
import os
import pathlib
import subprocess
import tempfile

from measuring import Display, packet_times

SIZES = (("1920x1080", 60), ("1920x1080", 30), ("1600x900", 30), ("1280x720", 30), ("960x540", 30))


def record(options, size, rate, seconds, path):
    """Figures of one recording."""
    begin = os.times()
    with Display(f"{options.build}/bin", size, ["--noise", "--fps", str(rate)]):
        recording = subprocess.run(
            [f"{options.build}/bin/screenrecord", "record", "-y", "--json", "-r", str(rate), "-t", str(seconds), "-b",
             options.bits, "-o", path], env={**os.environ, "ZU3_AUDIO": "tone"}, capture_output=True, text=True, check=False)
    end = os.times()
    if recording.returncode not in (0, 3):
        raise SystemExit(recording.stderr)
    lines = recording.stderr.splitlines()
    status = json.loads([line for line in lines if line.startswith("{")][-1])
    return {"encoded": status["frames"], "dropped": status["dropped"], "in file": len(packet_times(path)),
            "due": rate * seconds, "mbit": 8 * os.path.getsize(path) / seconds / 1e6,
            "cpu": end.children_user + end.children_system - begin.children_user - begin.children_system,
            "said": [line for line in lines if not line.startswith("{")]}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--trial", type=int, default=5)
    parser.add_argument("--bits", default="50M")
    options = parser.parse_args()
    options.build = options.build.absolute()
    with tempfile.TemporaryDirectory(prefix="high-rate.") as folder:
        path = f"{folder}/a.mp4"
        for size, rate in SIZES:
            found = record(options, size, rate, options.trial, path)
            print(f"{size} at {rate}: {found['dropped']} of {found['due']} pictures dropped, {found['mbit']:.1f} Mbit/s")
            if found["dropped"] <= 0.01 * found["due"]:
                break
        found = record(options, size, rate, options.seconds, path)
        print(f"{size} at {rate} for {options.seconds} s: {found['mbit']:.1f} Mbit/s, {found['dropped']} of {found['due']} "
              f"pictures dropped by capture and encoder, {found['encoded']} encoded, {found['in file']} in the file, "
              f"CPU with the display {found['cpu']:.1f} s")
        print("messages:", *(found["said"] or ["none"]), sep="\n    ")


if __name__ == "__main__":
    main()
