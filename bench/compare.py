#!/usr/bin/env python3
"""Records one moving screen with this client, with ffmpeg and with GStreamer, by turns, and compares what it costs.

    bench/compare.py [--build DIR] [--size WxH] [--fps N] [--seconds N] [--rounds N] [--static]

All encode with x264 at the same settings: veryfast, zerolatency, constant quality under the same ceiling, a key frame
every two seconds, one thread, no sound. Prints the median CPU seconds (the recorder's own, from its resource usage) and
peak resident memory of each, and the ratios within a round, whose median says more than that of the times: a machine's
speed drifts. A recording with fewer than 99% of its frames is said so. A recorder that is not installed is left out.
"""

import argparse
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def start_display(programs, size, static):
    """An X server of our own with something moving on it; returns its name and what is to be ended."""
    reader, writer = os.pipe()
    server = subprocess.Popen(["Xvfb", "-displayfd", str(writer), "-screen", "0", f"{size}x24", "-nolisten", "tcp"],
                              pass_fds=[writer], stderr=subprocess.DEVNULL)
    os.close(writer)
    with os.fdopen(reader) as numbers:
        display = ":" + numbers.readline().strip()
    options = ["--static"] if static else ["--fps", "60"]
    screen = subprocess.Popen([f"{programs}/moving_screen", *options], env={**os.environ, "DISPLAY": display},
                              stdout=subprocess.PIPE)
    screen.stdout.read(1)  # it says when it shows
    return display, [screen, server]


def commands(programs, options, path):
    """Command line and environment of each recorder; all of them end by themselves or at SIGINT."""
    width, height = options.size.split("x")
    fps, keyint = str(options.fps), str(2 * options.fps)
    x264 = "ref=1:vbv-maxrate=4500:vbv-bufsize=2250:threads=1:sliced-threads=0"
    caps = f"video/x-raw,format=I420,framerate={fps}/1"
    return {
        "screenrecord": ([f"{programs}/screenrecord", "record", "-y", "--no-audio", "-s", options.size, "-r", fps, "-t",
                          str(options.seconds), "-o", path], {"ZU3_X264_THREADS": "1", "ZU3_X264_KEYINT": keyint}),
        "ffmpeg": (["ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "x11grab", "-framerate", fps, "-video_size",
                    options.size, "-i", os.environ.get("BENCH_DISPLAY", ""), "-t", str(options.seconds), "-c:v", "libx264",
                    "-preset", "veryfast", "-tune", "zerolatency", "-crf", "23", "-g", keyint, "-pix_fmt", "yuv420p",
                    "-x264-params", x264, "-f", "mpegts", path], {}),
        "gstreamer": (["gst-launch-1.0", "-q", "-e", "ximagesrc", "use-damage=false",
                       f"num-buffers={options.seconds * options.fps}", "!", f"video/x-raw,framerate={fps}/1", "!",
                       "videoconvert", "!", caps, "!", "x264enc", "speed-preset=veryfast", "tune=zerolatency",
                       "pass=quant", "quantizer=23", f"key-int-max={keyint}", "threads=1", "sliced-threads=false", "!",
                       "mpegtsmux", "!", "filesink", f"location={path}"], {}),
    }


def frames_in(path):
    found = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-count_packets", "-show_entries",
                            "stream=nb_read_packets", "-of", "csv=p=0", path], capture_output=True, text=True, check=False)
    return int(found.stdout.split()[0].strip(",")) if found.stdout.strip() else 0


def record(command, environment, path, wanted):
    """Runs one recorder to its end; its CPU seconds, peak KiB, file size and frames."""
    process = subprocess.Popen(command, env={**os.environ, **environment}, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        sys.exit(f"compare.py: {command[0]} failed with status {status}")
    frames = frames_in(path)
    if frames < 0.99 * wanted:
        print(f"  {os.path.basename(command[0])}: only {frames} of {wanted} frames")
    return usage.ru_utime + usage.ru_stime, usage.ru_maxrss, os.path.getsize(path), frames


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=f"{ROOT}/build/release")
    parser.add_argument("--size", default="1280x720")
    parser.add_argument("--fps", type=int, default=30)
    parser.add_argument("--seconds", type=int, default=8)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--static", action="store_true")
    options = parser.parse_args()
    programs = f"{options.build}/bin"

    display, processes = start_display(programs, options.size, options.static)
    os.environ["DISPLAY"] = os.environ["BENCH_DISPLAY"] = display
    results = {}
    try:
        with tempfile.TemporaryDirectory() as folder:
            for _ in range(options.rounds):
                for name, (command, environment) in commands(programs, options, f"{folder}/a.ts").items():
                    if shutil.which(command[0]):
                        measured = record(command, environment, f"{folder}/a.ts", options.seconds * options.fps)
                        results.setdefault(name, []).append(measured)
    finally:
        for process in processes:
            process.send_signal(signal.SIGTERM)
            process.wait()

    peers = [name for name in results if name != "screenrecord"]
    print(f"{options.size} at {options.fps} per second, {options.seconds} s, {options.rounds} rounds"
          + (", still screen" if options.static else ", moving screen"))
    for name, rounds in results.items():
        cpu, memory, size, frames = (statistics.median(column) for column in zip(*rounds))
        print(f"  {name:13} {cpu:6.2f} CPU s  {memory / 1024:6.1f} MiB  {size / 1024:7.0f} KiB  {frames:.0f} frames")
    for index, what in ((0, "CPU"), (1, "memory")):
        ratios = [ours[index] / min(results[peer][i][index] for peer in peers)
                  for i, ours in enumerate(results["screenrecord"])] if peers else []
        if ratios:
            print(f"  {what} against the better peer: {statistics.median(ratios):.2f}")


if __name__ == "__main__":
    main()
