#!/usr/bin/env python3
"""
Records a screen that moves as a whole with this client and ffmpeg, each alone, by turns, and compares every recording
with the true pictures: bits, PSNR, SSIM, CPU, memory and lost pictures.

    bench/full_motion.py BUILD [--rounds 2] [--seconds 10] [--size 1920x1080] [--rate 60] [--pictures 40]

BUILD is the folder with bin/screenrecord and bin/moving_screen. Needs ffmpeg. The screen shows a part of a seeded
photograph that moves by 5 and 3 pixels a picture, with each picture's number. All record with the rate factor of
`--quality high` and no sound. Pictures between the first and the last recorded one that are not in the file are lost; the
others are compared. PSNR and SSIM of all planes are means over pictures spread evenly, below the numbers, after the first
second. Of figures the median of the runs counts.
"""

import argparse
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

from measuring import Display, packet_times, shown_stamps
from movies import run
from recorders import differences, x264_settings

PHOTOGRAPH = 2560, 1440
# The screen's program draws its number and its patches above.
TOP = 272
OURS, OURS_SAME, THEIRS, THEIRS_DEFAULT = ("screenrecord", "screenrecord, same settings", "ffmpeg, same settings",
                                           "ffmpeg, default (holds frames back)")


def make_photograph(path):
    width, height = PHOTOGRAPH
    source = (f"mandelbrot=size={width}x{height}:start_x=-0.7436:start_y=-0.1318:start_scale=0.01,"
              "noise=alls=8:all_seed=1")
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", source, "-frames:v", "1", "-pix_fmt", "rgb24",
                    "-f", "image2", "-c:v", "ppm", path], check=True)
    data = path.read_bytes()
    return memoryview(data)[len(data) - 3 * width * height:]


def commands(options, folder):
    rate, seconds = str(options.rate), str(options.seconds)
    same = {"ZU3_X264_PRESET": "veryfast", "ZU3_X264_THREADS": "1", "ZU3_X264_KEYINT": str(2 * options.rate)}

    def ours(name):
        return [f"{options.build}/bin/screenrecord", "record", "-y", "-s", options.size, "-r", rate, "-t", seconds,
                "--no-audio", "--quality", "high", "-o", f"{folder}/{name}.mp4"]

    def theirs(name, *more):
        return ["ffmpeg", "-nostdin", "-v", "error", "-y", "-thread_queue_size", "64", "-f", "x11grab", "-framerate", rate,
                "-video_size", options.size, "-i", os.environ["DISPLAY"], "-t", seconds, "-c:v", "libx264", "-preset",
                "veryfast", "-crf", "18", "-g", str(2 * options.rate), "-pix_fmt", "yuv420p", *more, f"{folder}/{name}.mp4"]

    return {OURS: (ours("ours"), {}), OURS_SAME: (ours("same"), same),
            THEIRS: (theirs("theirs", "-tune", "zerolatency", "-x264-params", "threads=1:sliced-threads=0:aud=1"), {}),
            THEIRS_DEFAULT: (theirs("default"), {})}


def place(number, step, room):
    """As moving_screen moves: forward, and back from the end of the room."""
    way = number * step % (2 * room)
    return min(way, 2 * room - way)


def true_picture(photograph, number, width, height):
    """The pixels of that picture below its number."""
    left, top = place(number, 5, PHOTOGRAPH[0] - width), place(number, 3, PHOTOGRAPH[1] - height) + TOP
    lines = range(top, top + height - TOP)
    return b"".join(photograph[3 * (line * PHOTOGRAPH[0] + left):][:3 * width] for line in lines)


def quality(path, stamps, photograph, options):
    """PSNR in dB and SSIM of some pictures of a file against the true ones."""
    width, height = (int(number) for number in options.size.split("x"))
    # ffmpeg repeats pictures; each counts once.
    usable = sorted({stamp: at for at, stamp in reversed(list(enumerate(stamps)))}.values())
    usable = usable[min(sum(at < options.rate for at in usable), len(usable) // 2):]
    chosen = sorted({usable[at * len(usable) // options.pictures] for at in range(options.pictures)})
    picked = "+".join(f"eq(n\\,{at})" for at in chosen)
    true = "scale=out_color_matrix=bt601:out_range=limited:flags=accurate_rnd+full_chroma_int"
    with tempfile.TemporaryDirectory(prefix="quality.") as folder:
        graph = (f"[0:v]select={picked},crop={width}:{height - TOP}:0:{TOP},format=yuv420p,settb=1/25,setpts=N,split[a][b];"
                 f"[1:v]{true},format=yuv420p,settb=1/25,setpts=N,split[c][d];"
                 f"[a][c]psnr=stats_file={folder}/psnr[e];[b][d]ssim=stats_file={folder}/ssim[f]")
        outputs = [word for name in ("[e]", "[f]")
                   for word in ("-map", name, "-fps_mode", "passthrough", "-f", "null", "-")]
        with subprocess.Popen(["ffmpeg", "-v", "error", "-i", path, "-f", "rawvideo", "-pixel_format", "rgb24",
                               "-video_size", f"{width}x{height - TOP}", "-i", "pipe:0", "-lavfi", graph, *outputs],
                              stdin=subprocess.PIPE) as judge:
            for at in chosen:
                judge.stdin.write(true_picture(photograph, stamps[at], width, height))
            judge.stdin.close()
        found = [[float(value) for value in re.findall(pattern, pathlib.Path(folder, name).read_text("ascii"))]
                 for name, pattern in (("psnr", r"psnr_avg:([\d.]+)"), ("ssim", r"All:([\d.]+)"))]
    if any(len(values) != len(chosen) for values in found):
        raise SystemExit(f"{path}: {[len(values) for values in found]} of {len(chosen)} pictures were compared")
    return [statistics.mean(values) for values in found]


def measure(command, environment, photograph, options):
    """The cost and the quality of one recording, and its settings of x264."""
    cost, path = run(command, environment), command[-1]
    stamps, frames = shown_stamps(path), len(packet_times(path))
    if len(stamps) != frames:
        raise SystemExit(f"{path}: {frames} frames and {len(stamps)} pictures")
    shown, pictures = stamps[-1] - stamps[0] + 1, len(set(stamps))
    psnr, ssim = quality(path, stamps, photograph, options)
    return {**cost, "frames": frames, "shown": shown, "lost": shown - pictures, "psnr": psnr, "ssim": ssim,
            "bytes": 1024 * cost["file"] / pictures, "cpu per picture": 1000 * cost["cpu"] / pictures,
            "rate": 8 * 1024 * cost["file"] / options.seconds / 1e6}, x264_settings(path)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=2)
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--size", default="1920x1080")
    parser.add_argument("--rate", type=int, default=60)
    parser.add_argument("--pictures", type=int, default=40)
    options = parser.parse_args()
    options.build = options.build.absolute()
    with tempfile.TemporaryDirectory(prefix="full-motion.") as folder:
        picture = pathlib.Path(folder, "photograph.ppm")
        photograph = make_photograph(picture)
        with Display(f"{options.build}/bin", options.size, ["--fps", str(options.rate), "--pan", str(picture)]):
            turns = commands(options, folder)
            found, settings = {name: [] for name in turns}, {}
            for number in range(options.rounds):
                for name in list(turns)[::1 if number % 2 == 0 else -1]:
                    figures, settings[name] = measure(*turns[name], photograph, options)
                    found[name].append(figures)
                    print(f"{name}: {figures['frames']} frames, {figures['lost']} of {figures['shown']} lost",
                          file=sys.stderr)
    print("| | frames | pictures lost | bits | bytes per picture | PSNR | SSIM | CPU | CPU per picture | resident |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for name, runs in found.items():
        middle = {key: statistics.median(one[key] for one in runs) for key in runs[0]}
        print(f"| {name} | {middle['frames']:.0f} | {middle['lost']:.0f} of {middle['shown']:.0f} | "
              f"{middle['rate']:.1f} Mbit/s | {middle['bytes']:,.0f} | {middle['psnr']:.1f} dB | {middle['ssim']:.4f} | "
              f"{middle['cpu']:.1f} s | {middle['cpu per picture']:.0f} ms | {middle['resident']:.0f} MiB |")
    different = differences({name: settings[name] for name in (OURS_SAME, THEIRS)})
    print("Settings of x264 that differ between the two with the same:", different or "none")


if __name__ == "__main__":
    main()
