"""Starts displays, load and recorders, and measures their cost."""

import glob
import os
import shutil
import signal
import subprocess
import tempfile
import time


class Display:
    """A private X server with a program that draws on it; sets DISPLAY while it is open."""

    drawing = None  # CPU of the server per second, for its own program

    def __init__(self, programs, size, screen):
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "scripts", "virtual_display.sh")
        self.server = subprocess.Popen([script, size], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        os.environ["DISPLAY"] = ":" + self.server.stdout.readline().strip()
        # options of moving_screen, or a command
        command = screen if screen[0] == "bench_office" else ["moving_screen", *screen]
        self.screen = subprocess.Popen([f"{programs}/{command[0]}", *command[1:]], stdout=subprocess.PIPE)
        if not self.screen.stdout.read(1):  # it prints "ready" when the picture is shown
            self.server.terminate()
            raise SystemExit(f"{command[0]} cannot show its pictures")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in (self.screen, self.server):
            process.terminate()
            process.wait()

    def cpu_seconds(self):
        """CPU time of the server; finer than the clock ticks of its resource usage."""
        total = 0
        for path in glob.glob(f"/proc/{self.server.pid}/task/*/schedstat"):
            with open(path, encoding="ascii") as file:
                total += int(file.read().split()[0])
        return total / 1e9

    def measure_drawing(self, seconds):
        """What the server's CPU spends on the screen's own program, per second; needs as long, without a recorder."""
        before = self.cpu_seconds()
        time.sleep(seconds)
        self.drawing = (self.cpu_seconds() - before) / seconds


class Session(Display):
    """A private Wayland session with moving content; sets WAYLAND_DISPLAY while it is open."""

    def __init__(self, programs, size, screen_options):
        nobody = 65534  # sway refuses root
        self.folder = tempfile.mkdtemp(prefix="compare.")
        with open(f"{self.folder}/config", "w", encoding="ascii") as config:
            config.write(f"xwayland disable\ndefault_border none\noutput HEADLESS-1 resolution {size}\n")
        os.chown(self.folder, nobody, nobody)
        os.environ |= {"XDG_RUNTIME_DIR": self.folder, "WAYLAND_DISPLAY": "wayland-1", "WLR_BACKENDS": "headless",
                       "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1"}
        self.server = subprocess.Popen(["sway", "-c", f"{self.folder}/config"], user=nobody, group=nobody, extra_groups=[],
                                       stderr=subprocess.DEVNULL)
        while not os.path.exists(f"{self.folder}/wayland-1") and self.server.poll() is None:
            time.sleep(0.05)
        self.screen = subprocess.Popen([f"{programs}/wayland_screen", *screen_options], stdout=subprocess.PIPE)
        self.screen.stdout.read(1)

    def __exit__(self, *_):
        super().__exit__()
        shutil.rmtree(self.folder)
        del os.environ["WAYLAND_DISPLAY"]


class BusyLoops:
    """Busy loops."""

    def __init__(self, count):
        self.loops = [subprocess.Popen(["sh", "-c", "while :; do :; done"]) for _ in range(count)]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for loop in self.loops:
            loop.kill()
            loop.wait()


def record(command, environment, path, display, end_after=None):
    """Runs one recorder to its end, or to SIGINT. Returns its cost; raises an exception if it failed."""
    server, start = display.cpu_seconds(), time.monotonic()
    process = subprocess.Popen(command, env={**os.environ, **environment}, stdout=subprocess.DEVNULL)
    if end_after:
        time.sleep(end_after)
        process.send_signal(signal.SIGINT)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode not in (0, 255 if end_after else 0):
        raise RuntimeError(f"{command[0]} failed with status {process.returncode}")
    server, duration = display.cpu_seconds() - server, time.monotonic() - start
    times = packet_times(path)
    found = {"cpu": usage.ru_utime + usage.ru_stime, "memory": usage.ru_maxrss / 1024,
             "server": server, "size": os.path.getsize(path) / 1024, "frames": len(times),
             "fps": (len(times) - 1) / (times[-1] - times[0]) if len(times) > 1 and times[-1] > times[0] else 0}
    found["cpu_per_frame"] = 1000 * found["cpu"] / max(len(times), 1)
    if display.drawing is not None:
        found["fetching"] = server - display.drawing * duration
    return found


def packet_times(path):
    """Presentation times of the access units in a file; all 0 for an elementary stream."""
    found = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "packet=pts_time", "-of",
                            "csv=p=0", path], capture_output=True, text=True, check=True)
    times = [line.strip(",") for line in found.stdout.split()]
    return [float(text) if text not in ("", "N/A") else 0.0 for text in times]


def latencies(command, environment, task, folder):
    """
    Milliseconds from a stamp being drawn on the screen to the last byte of the access unit that shows it.

    The screen shows the time, drawn anew every millisecond; the stream is read from a pipe, the moment of each read
    is kept, and the pictures are decoded when all is over.
    """
    path = f"{folder}/latency.h264"
    # Hides their messages about the closed pipe.
    process = subprocess.Popen(command, env={**os.environ, **environment}, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    arrivals, stream = read_stream(process, task)
    with open(path, "wb") as file:
        file.write(stream)
    stamps = shown_stamps(path)
    ends = unit_ends(stream)
    if abs(len(stamps) - len(ends)) > 1 or len(ends) < 0.9 * task.frames:
        raise RuntimeError(f"{command[0]}: {len(ends)} access units and {len(stamps)} pictures of {task.frames}")
    values, reads = [], iter(arrivals)
    offset, moment = next(reads)
    for end, stamp in list(zip(ends, stamps))[task.fps:]:  # the first second is warm-up
        while offset < end:
            offset, moment = next(reads)
        values.append((moment // 100_000 - stamp) % 2**32 / 10)
    return values


def read_stream(process, task):
    """The process's output until the task's time has passed: (bytes so far, time in ns) per read, and all bytes."""
    arrivals, stream = [], bytearray()
    end = time.monotonic() + task.seconds + 1
    descriptor = process.stdout.fileno()
    while time.monotonic() < end:
        data = os.read(descriptor, 1 << 20)
        if not data:
            break
        stream += data
        arrivals.append((len(stream), time.monotonic_ns()))
    process.send_signal(signal.SIGINT)
    process.stdout.close()
    process.wait()
    return arrivals, bytes(stream)


def unit_ends(stream):
    """Where each access unit ends: before the delimiter (NAL unit type 9) of the next one; unknown for the last."""
    starts, at = [], stream.find(b"\0\0\1\x09")
    while at >= 0:
        starts.append(at - (1 if at and stream[at - 1] == 0 else 0))
        at = stream.find(b"\0\0\1\x09", at + 4)
    return starts[1:]


def shown_stamps(path):
    """The time drawn in each picture, in units of 100 us: 32 squares of 16 x 16 pixels, lowest bit first."""
    pixels = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-fps_mode", "passthrough", "-vf",
                             "crop=512:16:64:224,scale=32:1:flags=area,format=gray", "-f", "rawvideo", "-"],
                            capture_output=True, check=True).stdout
    return [sum(1 << bit for bit in range(32) if pixels[start + bit] > 128) for start in range(0, len(pixels) - 31, 32)]
