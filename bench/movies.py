#!/usr/bin/env python3
"""
Records a moving screen with sound into movies and transport streams, with this client, ffmpeg and GStreamer, by turns, and
prints what each costs: CPU and memory of all its processes.

    bench/movies.py BUILD [--rounds 4] [--seconds 8] [--size 1280x720] [--rate 30] [--only NAME,...]

BUILD is the folder with bin/screenrecord. Starts a display and a sound server; needs ffmpeg, GStreamer and PulseAudio. All
encode H.264 at 3 Mbit/s with the same settings of x264, on one thread, and AAC at 128 kbit/s. Memory is sampled every 100
ms; of each figure of a run the greatest counts, and of the runs the median:

    resident    pages in memory, as a whole
    private     those that no other process has
    share       private ones, and the part of each shared one that falls to these processes (PSS)

`--only screenrecord --rounds 12` compares the CPU of this client's own formats in five minutes.
"""

import argparse
import contextlib
import ctypes
import math
import os
import pathlib
import re
import statistics
import subprocess
import tempfile
import time

from measuring import Display

X264 = "vbv-maxrate=3000:vbv-bufsize=750:threads=1:sliced-threads=0:aud=1"
FIGURES = {"Rss:": "resident", "Private_Clean:": "private", "Private_Dirty:": "private", "Pss:": "share"}
ENDING = re.compile(r"/.*\.(mp4|mkv|ts)$")
PR_SET_CHILD_SUBREAPER, WAIT_FOR_ALL = 36, 0x40000000


class SoundServer:
    """A private sound server that plays a tone; sets PULSE_SERVER while it is open."""

    def __init__(self, folder):
        socket = f"{folder}/sound"
        os.environ["PULSE_SERVER"] = f"unix:{socket}"
        self.server = subprocess.Popen(
            ["pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no", "--disable-shm=yes",
             "-L", "module-null-sink sink_name=test rate=48000",
             "-L", f"module-native-protocol-unix socket={socket} auth-anonymous=1"], stderr=subprocess.DEVNULL,
            env={**os.environ, "HOME": folder, "XDG_RUNTIME_DIR": folder})
        while not os.path.exists(socket) and self.server.poll() is None:
            time.sleep(0.05)
        self.tone = subprocess.Popen(["ffmpeg", "-v", "quiet", "-re", "-f", "lavfi", "-i", "sine=440:r=48000", "-f", "pulse",
                                      "-device", "test", "tone"], stdin=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in (self.tone, self.server):
            process.terminate()
            process.wait()


def commands(options, folder):
    """Name, command and environment of each recorder."""
    rate, seconds = str(options.rate), str(options.seconds)
    ours = [f"{options.build}/bin/screenrecord", "record", "-y", "-s", options.size, "-r", rate, "-t", seconds, "-b", "3M"]
    same = {"ZU3_X264_PRESET": "veryfast", "ZU3_X264_THREADS": "1", "ZU3_X264_KEYINT": str(2 * options.rate)}
    found = {f"screenrecord .{kind}": ([*ours, "-o", f"{folder}/ours.{kind}"], same) for kind in ("ts", "mkv", "mp4")}
    for kind, form in (("mp4", "mp4"), ("ts", "mpegts")):
        found[f"ffmpeg .{kind}"] = ([
            "ffmpeg", "-nostdin", "-v", "error", "-y", "-thread_queue_size", "64", "-f", "x11grab", "-framerate", rate,
            "-video_size", options.size, "-i", os.environ["DISPLAY"], "-f", "pulse", "-i", "test.monitor", "-t", seconds,
            "-c:v", "libx264", "-preset", "veryfast", "-tune", "zerolatency", "-b:v", "3000k", "-g", str(2 * options.rate),
            "-pix_fmt", "yuv420p", "-x264-params", X264, "-c:a", "aac", "-b:a", "128k", "-f", form,
            f"{folder}/ffmpeg.{kind}"], {})
    for kind, mux in (("mp4", "mp4mux"), ("ts", "mpegtsmux")):
        found[f"gstreamer .{kind}"] = ([
            "gst-launch-1.0", "-q", "-e", mux, "name=m", "!", "filesink", f"location={folder}/gstreamer.{kind}",
            "ximagesrc", "use-damage=false", f"num-buffers={options.rate * options.seconds}", "!",
            f"video/x-raw,framerate={rate}/1", "!", "videoconvert", "!", f"video/x-raw,format=I420,framerate={rate}/1", "!",
            "x264enc", "speed-preset=veryfast", "tune=zerolatency", "pass=cbr", "bitrate=3000", "vbv-buf-capacity=250",
            f"key-int-max={2 * options.rate}", "threads=1", "sliced-threads=false", "aud=true", "!", "h264parse", "!",
            "queue", "!", "m.", "pulsesrc", "device=test.monitor",
            f"num-buffers={100 * options.seconds}", "buffer-time=20000", "latency-time=10000", "!", "audioconvert", "!",
            "voaacenc", "bitrate=128000", "!", "aacparse", "!", "queue", "!", "m."], {})
    return {name: one for name, one in found.items() if not options.only or any(name.startswith(o) for o in options.only)}


def family(pid):
    """A process and its children."""
    found = [pid]
    for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            if int(stat.read_text("ascii", "replace").rpartition(")")[2].split()[1]) == pid:
                found.append(int(stat.parent.name))
        except OSError:
            continue
    return found


def memory(pid):
    """KiB of the process and its children."""
    total = dict.fromkeys(FIGURES.values(), 0)
    for each in family(pid):
        try:
            lines = pathlib.Path(f"/proc/{each}/smaps_rollup").read_text("ascii").splitlines()[1:]
        except OSError:
            continue
        for name, value in (line.split()[:2] for line in lines):
            if name in FIGURES:
                total[FIGURES[name]] += int(value)
    return total


def run(command, environment):
    """One recording: seconds of CPU, MiB of memory, KiB of the file."""
    begin = os.times()
    process = subprocess.Popen(command, env={**os.environ, **environment}, stdout=subprocess.DEVNULL)
    most = dict.fromkeys(FIGURES.values(), 0)
    while process.poll() is None:
        most = {name: max(value, most[name]) for name, value in memory(process.pid).items()}
        time.sleep(0.1)
    # This process inherits and waits for the recorder's children, so their CPU counts.
    limit = time.monotonic() + 0.5
    while time.monotonic() < limit:
        with contextlib.suppress(ChildProcessError):
            os.waitpid(-1, os.WNOHANG | WAIT_FOR_ALL)
        time.sleep(0.02)
    end = os.times()
    if process.returncode not in (0, 3):
        raise SystemExit(f"{command} failed with {process.returncode}")
    path = next(word.removeprefix("location=") for word in command if ENDING.search(word))
    return {"cpu": end.children_user + end.children_system - begin.children_user - begin.children_system,
            **{name: value / 1024 for name, value in most.items()}, "file": os.path.getsize(path) / 1024}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=4)
    parser.add_argument("--seconds", type=int, default=8)
    parser.add_argument("--size", default="1280x720")
    parser.add_argument("--rate", type=int, default=30)
    parser.add_argument("--only", type=lambda text: text.split(","))
    options = parser.parse_args()
    options.build = options.build.absolute()
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)
    with tempfile.TemporaryDirectory(prefix="movies.") as folder, SoundServer(folder), \
            Display(f"{options.build}/bin", options.size, ["--fps", str(options.rate)]):
        all_commands = commands(options, folder)
        found = {name: [] for name in all_commands}
        for number in range(options.rounds):
            names = list(all_commands)
            for name in names if number % 2 == 0 else names[::-1]:
                found[name].append(run(*all_commands[name]))
    print("| | CPU | to .ts | resident | private | share | file |\n|---|---|---|---|---|---|---|")
    for name, runs in found.items():
        middle = {key: statistics.median(one[key] for one in runs) for key in runs[0]}
        # of the same round, so that a machine that is slower for a while changes both
        pairs = zip(runs, found.get(f"{name.split()[0]} .ts", []))
        ratio = statistics.median([one["cpu"] / other["cpu"] for one, other in pairs] or [math.nan])
        print(f"| {name} | {middle['cpu']:.3f} s | {ratio:.3f} | {middle['resident']:.1f} MiB | "
              f"{middle['private']:.1f} MiB | {middle['share']:.1f} MiB | {middle['file']:.0f} KiB |")


if __name__ == "__main__":
    main()
