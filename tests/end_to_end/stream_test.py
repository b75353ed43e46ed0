"""Elementary streams by the client's stream command, and its commands while it runs."""

import os
import random
import signal
import subprocess
import threading
import time

import judges
from harness import SANITIZED, EndToEndTest, LongEndToEndTest, ShortEndToEndTest, pass_time, wait_until


class LiveStream:
    """A stream command under control through its standard input; its access units as they arrive."""

    def __init__(self, test, *options):
        self.running = test.client("stream", "-o", "-", "--control", "-", *options, stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE)
        self.arrivals = []  # (time, access unit), complete when the next one has begun
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        data = b""
        while piece := os.read(self.running.process.stdout.fileno(), 1 << 20):
            *complete, data = judges.access_units(data + piece)
            self.arrivals += [(time.monotonic(), unit) for unit in complete]
        self.arrivals.append((time.monotonic(), data))

    def wait_for(self, count):
        wait_until(lambda: len(self.arrivals) >= count, f"{count} access units")

    def say(self, line):
        self.running.process.stdin.write(line.encode() + b"\n")
        self.running.process.stdin.flush()

    def units(self):
        return [unit for _, unit in self.arrivals]

    def end(self, path):
        """Ends the stream by its own command, and keeps it."""
        self.say("stop")
        code = self.running.wait()
        self.reader.join()
        self.running.process.stdin.close()
        self.running.process.stdout.close()
        path.write_bytes(b"".join(self.units()))
        said = judges.decoder_messages(path)
        if code != 0 or said or not self.units()[0].startswith(b"\0\0\0\1\x09"):
            raise AssertionError(f"exit code {code}: {self.running.errors()}\n{said}")


class Control(ShortEndToEndTest):
    def test_pause_and_resume(self):
        self.start_display("640x360")
        self.start_screen()
        stream = LiveStream(self, "-r", "30")
        stream.wait_for(30)
        stream.say("pause")
        paused_at = time.monotonic()
        pass_time(2)
        before = len(stream.arrivals) + 1  # the last one is complete only when the next begins
        self.assertLess(stream.arrivals[-1][0], paused_at + 1, "frames arrive in a pause")
        stream.running.process.send_signal(signal.SIGUSR2)  # the same as to say it
        stream.wait_for(before + 30)
        path = self.path("paused.h264")
        stream.end(path)
        self.assertTrue(judges.is_idr(stream.units()[before]), "a resumed stream begins with a key frame")
        numbers = judges.picture_numbers(path)
        self.assertEqual(len(numbers), len(stream.units()))
        self.assertGreater(numbers[before] - numbers[before - 1], 50, "pictures of the pause are in the stream")


class BitRate(EndToEndTest):
    def test_change_while_running(self):
        self.start_display("640x360")
        self.start_screen("--noise", "--fps", "10")
        stream = LiveStream(self, "-r", "10", "-b", "4M")
        stream.wait_for(5)
        for asked, line in ((4e6, None), (500e3, "bitrate 500k"), (2e6, "bitrate 2M")):
            if line:
                stream.say(line)
            # Three seconds, once the pictures on their way have gone by.
            begin = len(stream.arrivals) + 10
            stream.wait_for(begin + 30)
            rate = 8 * sum(map(len, stream.units()[begin:begin + 30])) / 3
            self.assertAlmostEqual(rate, asked, delta=0.2 * asked, msg=f"{asked} bit/s")
        stream.end(self.path("rates.h264"))


class KeyFrames(EndToEndTest):
    REQUESTS = 25

    def test_requests_at_random_moments(self):
        # Catches a request that is lost, or that only the next regular key frame answers.
        seed = random.randrange(1 << 30)
        moments = random.Random(seed)
        self.start_display("640x360")
        self.start_screen()
        stream = LiveStream(self, "-r", "30")
        stream.wait_for(10)
        for number in range(self.REQUESTS):
            pass_time(moments.uniform(0.08, 0.3))
            before = len(stream.arrivals)
            stream.say("keyframe")
            wait_until(lambda start=before: any(map(judges.is_idr, stream.units()[start:])), "a key frame")
            answer = list(map(judges.is_idr, stream.units()[before:])).index(True)
            # One unit is only complete here when the next begins, one may have been on its way, two may pass.
            self.assertLessEqual(answer, 4, f"request {number} of seed {seed}")
        stream.end(self.path("keys.h264"))


class ManyKeyFrames(LongEndToEndTest, KeyFrames):
    REQUESTS = 100


class Watermark(ShortEndToEndTest):
    """A half transparent picture at an odd place, compared with ffmpeg's overlay."""

    LOGO, AT = (101, 51), (203, 277)

    def stream(self, name, *options):
        self.run_program("screenrecord", "stream", "-o", name, "-t", "2", "-b", "8M", *options)
        return judges.decode(self.path(name), 40, "yuv420p")

    def test_what_is_no_picture(self):
        # Catches libpng's messages, which do not explain the fault of a file.
        cases = [(b"just a text", "is not a PNG picture"), (b"", "ends too early"),
                 (b"\x89PNG\r\n\x1a\n" + bytes(99), "is a damaged"), (None, "No such file")]
        for content, said in cases:
            self.path("no.png").unlink(missing_ok=True)
            if content is not None:
                self.path("no.png").write_bytes(content)
            refused = self.client("stream", "-o", "a.h264", "--watermark", "no.png",
                                  environment={"ZU3_DISPLAY": "testcard"})
            self.assert_exit(refused, 1)
            self.assertIn(said, refused.errors())

    def test_looks_as_composed(self):
        self.start_display("640x360")  # no multiple of 32: the lines below are cropped
        self.start_screen("--static")
        self.stream("small.h264", "-s", "320x208")
        video = judges.streams(self.path("small.h264"))["video"]
        self.assertEqual((video["width"], video["height"]), (320, 208))
        (columns, lines), (left, top) = self.LOGO, self.AT
        self.run_program("ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                         f"color=s={columns}x{lines},format=rgba,geq=r=255*X/W:g=255*Y/H:b=60:a=255*(X+Y)/(W+H)",
                         "-frames:v", 1, "logo.png")
        plain = self.stream("plain.h264")
        marked = self.stream("marked.h264", "--watermark", "logo.png", "--at", f"{left},{top}")
        self.assertAlmostEqual(len(judges.packets(self.path("plain.h264"))), 60, delta=30 if SANITIZED else 2)
        self.assertEqual(judges.colour_faults(self.path("plain.h264"), 40), {})
        width, height, screen = judges.dump_screen(self.environment["DISPLAY"])
        wanted = judges.overlaid(screen, width, height, self.path("logo.png"), left, top)
        inside, of_plain, composed = (b"".join(luma[y * width + left:][:columns] for y in range(top, top + lines))
                                      for luma in (marked, plain, wanted))
        self.assertGreaterEqual(judges.psnr(inside, composed), 38)
        self.assertLess(judges.psnr(of_plain, composed), 30, "the logo shows nothing")
        # Above it all three planes are as they were.
        above, size = width * (top - 16), width * height
        for plane, length in ((0, above), (size, above // 4), (size * 5 // 4, above // 4)):
            self.assertGreaterEqual(judges.psnr(marked[plane:plane + length], plain[plane:plane + length]), 42)
