"""docs/recipes.md: every line of the page, run with other times, places and hosts."""

import os
import pathlib
import re
import socket
import stat

import judges
from harness import BUILD, PATIENCE, SOURCE, LongEndToEndTest, size_of, wait_until

PAGE = (SOURCE / "docs" / "recipes.md").read_text("utf-8")
SECTIONS = dict(re.findall(r"^## (.*)\n((?:(?!## ).*\n)*)", PAGE, flags=re.M))


def lines_of(section):
    return re.findall(r"^    (.*)$", SECTIONS[section], flags=re.M)


def block_of(section):
    return re.search(r"^```\w+\n(.*?)^```$", SECTIONS[section], flags=re.M | re.S)[1]


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def listens(protocol, port):
    """Whether a process of this machine has bound the port; a connection would disturb it."""
    table = pathlib.Path(f"/proc/net/{protocol}").read_text("ascii")
    return re.search(rf"^ *\d+: [0-9A-F]+:{port:04X} 00000000:0000 0[A7]", table, flags=re.M) is not None


class Recipes(LongEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.start_sound()
        cls.run_program("pactl", "load-module", "module-remap-source", "source_name=mic", "master=second.monitor")
        cls.start_display("800x600")
        cls.start_screen()
        for folder in ("Videos", ".local", ".local/bin"):
            cls.path(f"home/{folder}").mkdir()
        cls.path("home/.local/bin/screenrecord").symlink_to(BUILD / "bin" / "screenrecord")

    def typed(self, line, *changes):
        for old, new in changes:
            self.assertIn(old, line)
            line = line.replace(old, new)
        return ["sh", "-c", line]

    def run_line(self, line, *changes, **options):
        return self.run_program(*self.typed(line, *changes), **options)

    def test_the_page_has_no_other_recipe(self):
        tested = {"A window, with your voice", "A region as GIF", "To a server", "A timelapse", "The last minute",
                  "In a CI job without a display", "From Python", "As a service of systemd"}
        self.assertEqual(set(SECTIONS), tested)

    def test_window(self):
        self.start("xclock", "-geometry", "300x200+50+60")
        self.run_program("xdotool", "search", "--sync", "--name", "xclock", "windowfocus", "--sync")
        [line] = lines_of("A window, with your voice")
        self.run_line(line, ("-t 10s", "-t 1"))
        form = judges.streams(self.path("talk.mp4"))
        self.assertEqual((form["video"]["width"], form["video"]["height"]), (300, 200))
        self.assertIn("audio", form)

    def test_region_as_gif(self):
        record, convert = lines_of("A region as GIF")
        self.run_line(record, ("-t 5s", "-t 1"))
        self.run_line(convert)
        form = judges.streams(self.path("part.gif"))["video"]
        self.assertEqual((form["codec_name"], form["width"], form["height"]), ("gif", 640, 360))

    def test_server(self):
        rtmp, srt, hls = lines_of("To a server")
        port = free_port(socket.SOCK_STREAM)
        address = f"rtmp://127.0.0.1:{port}/live/NAME"
        server = self.start("ffmpeg", "-v", "error", "-listen", "1", "-i", address, "-c", "copy", "rtmp.flv")
        wait_until(lambda: listens("tcp", port), "the server")
        self.run_line(rtmp, ("record -o -", "record -t 2 -o -"), ("rtmp://HOST/live/NAME", address))
        server.wait()
        self.assertEqual(set(judges.streams(self.path("rtmp.flv"))), {"video", "audio"})
        # A caller that ends at once loses its unsent data.
        port = free_port(socket.SOCK_DGRAM)
        address = f"srt://127.0.0.1:{port}?mode="
        self.start("ffmpeg", "-v", "error", "-analyzeduration", "500000", "-i", address + "listener", "-c", "copy",
                   "-flush_packets", "1", "srt.ts")
        wait_until(lambda: listens("udp", port), "the server")
        sender = self.start(*self.typed(srt, ("srt://HOST:PORT?mode=caller", address + "caller")))
        wait_until(lambda: size_of(self.path("srt.ts")) > 100_000, "the stream", 2 * PATIENCE)
        self.run_program("screenrecord", "control", "stop")
        sender.wait()
        self.assertEqual(set(judges.streams(self.path("srt.ts"))), {"video", "audio"})
        self.run_line(hls, ("record -o -", "record -t 3 -o -"))
        self.assertEqual(set(judges.streams(self.path("live.m3u8"))), {"video", "audio"})

    def test_timelapse(self):
        shots, join = lines_of("A timelapse")
        self.run_line(shots, ("-n 100", "-n 5"), ("1000", "50"))
        self.run_line(join)
        self.assertEqual(len(judges.packets(self.path("lapse.mp4"))), 5)

    def saved_by(self, replay):
        """The file that a replay saves by the recipe's second line."""
        _, save = lines_of("The last minute")
        sockets = self.path("home/screenrecord")
        wait_until(lambda: sockets.is_dir() and os.listdir(sockets), "the replay's socket")
        wait_until(lambda: self.start(*self.typed(save)).wait() == 0, "its first picture")
        files = list(self.path("home/Videos").glob("*.mp4"))
        self.assertGreater(len(files), 0)
        self.assertEqual(set(judges.streams(files[0])), {"video", "audio"})
        self.run_program("screenrecord", "control", "stop")
        self.assert_exit(replay, 0)

    def test_last_minute(self):
        self.saved_by(self.start(*self.typed(lines_of("The last minute")[0])))

    def test_service(self):
        unit = block_of("As a service of systemd")
        self.path("replay.service").write_text(unit.replace("%h", str(self.path("home"))), "utf-8")
        checked = self.start("systemd-analyze", "verify", "--man=no", "./replay.service")
        self.assert_exit(checked, 0)
        [command] = re.findall(r"^ExecStart=(.*)$", unit, flags=re.M)
        self.saved_by(self.start(*command.replace("%h", str(self.path("home"))).split()))
        self.assertEqual(lines_of("As a service of systemd"), ["systemctl --user enable --now replay.service"])

    def test_ci_job(self):
        job = self.path("job.sh")
        job.write_text("#!/bin/sh\nuntil [ -s job.mp4 ]; do sleep 0.1; done\n", "ascii")
        job.chmod(job.stat().st_mode | stat.S_IXUSR)
        environment = {"DISPLAY": "", "XDG_RUNTIME_DIR": "", "ZU3_AUDIO": "pulse"}
        [line] = lines_of("In a CI job without a display")
        self.run_line(line, environment=environment, seconds=2 * PATIENCE)
        self.assertGreater(len(judges.packets(self.path("job.mp4"))), 0)

    def test_python(self):
        self.path("record.py").write_text(block_of("From Python").replace("sleep(5)", "sleep(1)"), "utf-8")
        self.run_program("python3", "record.py", environment={"LD_LIBRARY_PATH": f"{BUILD}/lib"})
        self.assertEqual(set(judges.streams(self.path("screen.ts"))), {"video", "audio"})
        self.assertGreater(size_of(self.path("screen.ts")), 0)
