"""The compared recorders and their command lines, all at the same x264 settings."""

import os
import shutil
import subprocess

OURS, FLOOR = "screenrecord", "floor"
DEFAULT = "default"  # this client with its default settings
QUARTER = "quarter"  # the same, of the middle of the screen
PEERS = ["ffmpeg", "gstreamer"]
# GStreamer's own way to save work where little changes; ffmpeg has none.
DAMAGE = "gstreamer-damage"
WAYLAND_PEER = "wf-recorder"

# Settings in x264's stream header that may differ in wording but mean the same.
SAME_IN_OTHER_WORDS = {"threads", "lookahead_threads", "vbv_maxrate", "vbv_bufsize", "nal_hrd", "fps", "timebase"}


class Task:
    """A recording: size, pictures per second, seconds, whether busy loops load the machine, whether the screen is still."""

    def __init__(self, programs, size, fps, seconds, loaded=False, still=False):
        self.programs, self.size, self.fps, self.seconds, self.loaded = programs, size, fps, seconds, loaded
        self.still = still
        self.frames = fps * seconds
        self.keyint = 2 * fps


def environment(name, task):
    if name in (DEFAULT, QUARTER):
        return {}
    return {"ZU3_X264_PRESET": "veryfast", "ZU3_X264_THREADS": "1", "ZU3_X264_KEYINT": str(task.keyint)}


def recording(name, task, path):
    """
    Command line of a recording into a file, .ts or .mp4: constant quality 23 under 4.5 Mbit/s, like the host layer's
    default in a .ts file.
    """
    movie = path.endswith(".mp4")
    fps, seconds = str(task.fps), str(task.seconds)
    if name in (OURS, DEFAULT):
        return [f"{task.programs}/screenrecord", "record", "-y", "--no-audio", "-s", task.size, "-r", fps, "-t", seconds,
                "-o", path]
    if name == QUARTER:
        width, height = (int(number) for number in task.size.split("x"))
        return [f"{task.programs}/screenrecord", "record", "-y", "--no-audio", "-r", fps, "-t", seconds, "-o", path,
                "--region", f"{width // 2}x{height // 2}+{width // 4}+{height // 4}"]
    if name == FLOOR:
        return [f"{task.programs}/bench_floor", fps, seconds, path, "crf=23", "vbv-maxrate=4500", "vbv-bufsize=2250",
                f"keyint={task.keyint}", "threads=1", "sliced-threads=0", "aud=1"]
    if name == "ffmpeg":
        # With dropped pictures, a fixed number of them would take longer.
        end = ["-t", seconds] if task.loaded else ["-frames:v", str(task.frames)]
        return [*ffmpeg_input(task), *end, *ffmpeg_encoder(task, "vbv-maxrate=4500:vbv-bufsize=2250"),
                "-crf", "23", "-f", "mp4" if movie else "mpegts", path]
    if name == WAYLAND_PEER:
        return wf_recorder(task, path, "vbv-maxrate=4500:vbv-bufsize=2250", "-p", "crf=23")
    return [*gstreamer_input(task, name == DAMAGE), *gstreamer_encoder(task, "pass=qual", "quantizer=23", "bitrate=4500",
                                                                       "vbv-buf-capacity=500"),
            "!", "mp4mux" if movie else "mpegtsmux", "!", "filesink", f"location={path}"]


def streaming(name, task):
    """Command line of an elementary stream at 4 Mbit/s, a quarter of a second ahead, to standard output."""
    if name in (OURS, DEFAULT):
        return [f"{task.programs}/screenrecord", "stream", "-s", task.size, "-r", str(task.fps), "-b", "4M", "-o", "-"]
    if name == FLOOR:
        return [f"{task.programs}/bench_floor", str(task.fps), str(task.seconds), "/dev/stdout", "bitrate=4000",
                "vbv-maxrate=4000", "vbv-bufsize=1000", f"keyint={task.keyint}", "threads=1", "sliced-threads=0", "aud=1"]
    if name == "ffmpeg":
        return [*ffmpeg_input(task), "-fps_mode", "passthrough",
                *ffmpeg_encoder(task, "vbv-maxrate=4000:vbv-bufsize=1000"), "-b:v", "4000k", "-f", "h264",
                "-flush_packets", "1", "pipe:1"]
    if name == WAYLAND_PEER:
        # Its messages go to standard output, so the stream leaves by another descriptor.
        command = wf_recorder(task, "/dev/fd/3", "vbv-maxrate=4000:vbv-bufsize=1000", "-p", "b=4000k", "-m", "h264")
        return ["sh", "-c", 'exec "$@" 3>&1 >/dev/null </dev/null', "sh", *command]
    return [*gstreamer_input(task), *gstreamer_encoder(task, "pass=cbr", "bitrate=4000", "vbv-buf-capacity=250"),
            "!", "video/x-h264,stream-format=byte-stream", "!", "fdsink", "fd=1", "sync=false"]


def ffmpeg_input(task):
    return ["ffmpeg", "-nostdin", "-v", "error", "-y", "-probesize", "32", "-analyzeduration", "0", "-fflags", "nobuffer",
            "-f", "x11grab", "-framerate", str(task.fps), "-video_size", task.size, "-i", os.environ["DISPLAY"]]


def ffmpeg_encoder(task, rate):
    return ["-c:v", "libx264", "-preset", "veryfast", "-tune", "zerolatency", "-g", str(task.keyint), "-pix_fmt", "yuv420p",
            "-x264-params", f"{rate}:threads=1:sliced-threads=0:aud=1"]


def gstreamer_input(task, use_damage=False):
    # use-damage makes motion cost half as much again; without I420 it may encode 4:4:4.
    return ["gst-launch-1.0", "-q", "-e", "ximagesrc", f"use-damage={str(use_damage).lower()}",
            f"num-buffers={task.frames}", "!",
            f"video/x-raw,framerate={task.fps}/1", "!", "videoconvert", "!",
            f"video/x-raw,format=I420,framerate={task.fps}/1"]


def gstreamer_encoder(task, *rate):
    return ["!", "x264enc", "speed-preset=veryfast", "tune=zerolatency", *rate, f"key-int-max={task.keyint}", "threads=1",
            "sliced-threads=false", "aud=true"]


def wf_recorder(task, path, rate, *options):
    """It has no picture rate and no end: it copies changes until SIGINT; --no-damage copies every frame."""
    every = ["--no-damage"] if task.still else []
    return ["wf-recorder", "-f", path, "-c", "libx264", "-F", "format=yuv420p", *every, *options, "-p", "preset=veryfast",
            "-p", "tune=zerolatency", "-p", f"g={task.keyint}",
            "-p", f"x264-params={rate}:threads=1:sliced-threads=0:aud=1:fps={task.fps}"]


def installed(name):
    programs = {"gstreamer": "gst-launch-1.0", DAMAGE: "gst-launch-1.0"}
    return name in (OURS, DEFAULT, QUARTER, FLOOR) or shutil.which(programs.get(name, name))


def x264_settings(path):
    """The settings that x264 wrote into the stream."""
    stream = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-c", "copy", "-frames:v", "2", "-f", "h264", "-"],
                            capture_output=True, check=True).stdout
    start = stream.find(b"options: ")
    if start < 0:
        return {}
    words = stream[start + 9:stream.find(b"\0", start)].decode("ascii", "replace").rstrip("\x80").split()
    return dict(word.split("=", 1) for word in words if "=" in word)


def differences(settings):
    """The settings that differ between the recorders' streams: setting, recorder, value."""
    keys = {key for one in settings.values() for key in one} - SAME_IN_OTHER_WORDS
    return {key: {name: one.get(key) for name, one in settings.items()} for key in sorted(keys)
            if len({one.get(key) for one in settings.values()}) > 1}
