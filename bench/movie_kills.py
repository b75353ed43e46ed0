#!/usr/bin/env python3
"""
Kills recordings into MP4 and Matroska with SIGKILL, while they record and while they are finished, and prints what plays.

    bench/movie_kills.py BUILD [--kills 40] [--seed 1]

BUILD is the folder with bin/screenrecord. Records the test card with a tone; needs ffmpeg and ffprobe.
"""

import argparse
import json
import os
import pathlib
import random
import statistics
import subprocess
import tempfile
import time

LENGTH = 3


def start(program, path, *words):
    return subprocess.Popen([program, "record", "-y", "-s", "1280x720", "-r", "60", "--quality", "high", "-o", path, *words],
                            env={**os.environ, "ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "tone"},
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def lengths(path):
    """Seconds from the start to the end of pictures and sound; None without any."""
    found = []
    for kind in ("v", "a"):
        told = subprocess.run(["ffprobe", "-v", "quiet", "-select_streams", kind, "-show_entries",
                               "packet=pts_time,duration_time", "-of", "json", path], capture_output=True, check=False)
        packets = json.loads(told.stdout or "{}").get("packets", [])
        found.append(float(packets[-1]["pts_time"]) + float(packets[-1].get("duration_time", 0)) if packets else None)
    return found


def complaints(path):
    said = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-enc_time_base", "-1", "-f", "null", "-"],
                          capture_output=True, check=False)
    return said.stderr.decode().strip()


def made_at(path):
    """When the file was made, in seconds of the clock."""
    return float(subprocess.run(["stat", "-c", "%.W", path], capture_output=True, check=True).stdout)


class Kills:
    """The results of one kind of kill."""

    def __init__(self, title):
        self.title = title
        self.no_file, self.silent, self.faulty, self.lacking, self.in_front, self.left = 0, [], [], [], 0, 0

    def add(self, path, age):
        """@param age seconds from the making of the file to the kill, at most to the end of the recording"""
        self.left += len(list(path.parent.glob(".screenrecord*")))
        if not path.exists() or path.stat().st_size == 0:
            self.no_file += 1
            return
        video, sound = lengths(path)
        if video is None:
            self.silent.append(age)
            return
        said = complaints(path)
        if said:
            self.faulty.append(said.splitlines()[0])
        self.in_front += b"moof" not in path.read_bytes() and path.suffix == ".mp4"
        self.lacking.append((age - video, age - (sound or 0)))

    def print(self):
        pictures, sounds = ([pair[i] for pair in self.lacking] for i in (0, 1))
        print(f"{self.title}: {len(self.lacking)} play, {len(self.faulty)} of them with complaints, "
              f"{len(self.silent)} files do not play, {self.no_file} without a file, "
              f"{self.in_front} with the index in front, {self.left} other files left")
        if pictures:
            print(f"    lacking at the end: pictures {statistics.median(pictures):.2f} s (median), "
                  f"{max(pictures):.2f} s (most); sound {statistics.median(sounds):.2f} s, {max(sounds):.2f} s")
        for age in self.silent:
            print(f"    does not play: killed {age:.2f} s after the file was made")
        for said in sorted(set(self.faulty)):
            print(f"    complaint: {said}")


def kill_while_recording(program, folder, kind, kills, chance):
    found = Kills(f"{kind}, killed while it records, 0.05 to {LENGTH} s after the file was made")
    for number in range(kills):
        path = folder / f"recording{number}.{kind}"
        recording = start(program, path)
        while not path.exists():
            time.sleep(0.002)
        # as many early as late
        time.sleep(chance.uniform(0.05, 1) if number % 2 else chance.uniform(1, LENGTH))
        now = time.time()
        recording.kill()
        recording.wait()
        found.add(path, now - made_at(path))
        path.unlink(missing_ok=True)
    found.print()


def kill_while_finished(program, folder, kind, kills, chance):
    path = folder / f"a.{kind}"
    found = Kills(f"{kind}, killed while it is finished")
    begin = time.monotonic()
    start(program, path, "-t", str(LENGTH)).wait()
    took = time.monotonic() - begin
    for number in range(kills):
        path = folder / f"finished{number}.{kind}"
        recording = start(program, path, "-t", str(LENGTH))
        time.sleep(took - chance.uniform(0, took - LENGTH - 0.05))
        recording.kill()
        recording.wait()
        found.add(path, LENGTH)
        path.unlink(missing_ok=True)
    print(f"an unharmed recording of {LENGTH} s took {took:.2f} s")
    found.print()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--kills", type=int, default=40)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    chance = random.Random(options.seed)
    program = options.build.absolute() / "bin/screenrecord"
    for kind in ("mkv", "mp4"):
        for kill in (kill_while_recording, kill_while_finished):
            with tempfile.TemporaryDirectory(prefix="movie-kills.") as folder:
                kill(program, pathlib.Path(folder), kind, options.kills, chance)


if __name__ == "__main__":
    main()
