"""Elementary streams by the client's stream command, and what can be told to it while it runs."""

import os
import random
import signal
import subprocess
import threading
import time
import unittest

import judges
from harness import EndToEndTest, LongEndToEndTest, ShortEndToEndTest, pass_time, wait_until


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
        descriptor = self.running.process.stdout.fileno()
        while True:
            piece = os.read(descriptor, 1 << 20)
            now = time.monotonic()
            data += piece
            units = judges.access_units(data)
            complete = units if not piece else units[:-1]
            self.arrivals += [(now, unit) for unit in complete]
            data = units[-1] if piece and units else data if piece else b""
            if not piece:
                return

    def wait_for(self, count):
        wait_until(lambda: len(self.arrivals) >= count, f"{count} access units")

    def say(self, line):
        self.running.process.stdin.write(line.encode() + b"\n")
        self.running.process.stdin.flush()

    def stop(self):
        """Ends the stream by its own command; the exit code."""
        self.say("stop")
        code = self.running.wait()
        self.reader.join()
        self.running.process.stdin.close()
        self.running.process.stdout.close()
        return code

    def units(self):
        return [unit for _, unit in self.arrivals]

    def save(self, path):
        with open(path, "wb") as file:
            file.write(b"".join(self.units()))


class FiveSeconds(EndToEndTest):
    @classmethod
    def prepare(cls):
        cls.start_display()
        cls.start_screen()

    def test_file(self):
        self.run_program(judges.program("screenrecord"), "stream", "-o", "a.h264", "-s", "1280x720", "-r", "30", "-t", "5")
        path = self.path("a.h264")
        self.assertEqual(judges.decoder_messages(path), "")
        with open(path, "rb") as file:
            units = judges.access_units(file.read())
        self.assertTrue(judges.is_idr(units[0]))
        self.assertTrue(148 <= len(units) <= 152, len(units))
        self.assertEqual(judges.colour_faults(judges.picture(path, 100)), [])

    def test_pipe_into_ffprobe(self):
        # Catches anything but the stream on standard output.
        probe = subprocess.run(
            f'"{judges.program("screenrecord")}" stream -o - -s 640x352 -t 2 | '
            "ffprobe -v error -show_entries stream=codec_name,width,height,profile -of csv=p=0 -",
            shell=True, env=self.environment, cwd=self.folder, capture_output=True, check=True)
        self.assertIn("h264", probe.stdout.decode())
        self.assertIn("640,352", probe.stdout.decode())


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
        self.assertEqual(stream.stop(), 0, stream.running.errors())
        self.assertTrue(judges.is_idr(stream.units()[before]), "a resumed stream begins with a key frame")
        path = self.path("paused.h264")
        stream.save(path)
        self.assertEqual(judges.decoder_messages(path), "")
        numbers = judges.picture_numbers(path)
        self.assertEqual(len(numbers), len(stream.units()))
        self.assertGreater(numbers[before] - numbers[before - 1], 50, "pictures of the pause are in the stream")


class BitRate(EndToEndTest):
    SECONDS = 3

    def rate_of(self, stream, fps):
        """Bits per second of the next pictures, once those on their way have gone by."""
        begin = len(stream.arrivals) + fps
        stream.wait_for(begin + self.SECONDS * fps)
        return 8 * sum(map(len, stream.units()[begin:begin + self.SECONDS * fps])) / self.SECONDS

    def test_change_while_running(self):
        self.start_display("640x360")
        self.start_screen("--noise", "--fps", "10")
        stream = LiveStream(self, "-r", "10", "-b", "4M")
        stream.wait_for(5)
        for asked, line in ((4e6, None), (500e3, "bitrate 500k"), (2e6, "bitrate 2M")):
            if line:
                stream.say(line)
            self.assertAlmostEqual(self.rate_of(stream, 10), asked, delta=0.2 * asked, msg=f"{asked} bit/s")
        self.assertEqual(stream.stop(), 0, stream.running.errors())


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
            asked_at, before = time.monotonic(), len(stream.arrivals)
            stream.say("keyframe")
            wait_until(lambda start=before: any(judges.is_idr(u) for u in stream.units()[start:]), "a key frame")
            answer = next(i for i, u in enumerate(stream.units()[before:]) if judges.is_idr(u))
            # One unit is only complete here when the next begins, one may have been on its way, two may pass.
            message = f"request {number} of seed {seed}, {time.monotonic() - asked_at:.3f} s"
            self.assertLessEqual(answer, 4, message)
        self.assertEqual(stream.stop(), 0, stream.running.errors())
        stream.save(self.path("keys.h264"))
        self.assertEqual(judges.decoder_messages(self.path("keys.h264")), "")


class ManyKeyFrames(LongEndToEndTest):
    REQUESTS = 100
    test_requests_at_random_moments = KeyFrames.test_requests_at_random_moments


class Watermark(ShortEndToEndTest):
    """A half transparent picture at an odd place, against a composition of our own."""

    LOGO, AT = (101, 51), (203, 277)

    def logo(self):
        width, height = self.LOGO
        return b"".join(bytes((255 * x // width, 255 * y // height, 60, 255 * (x + y) // (width + height)))
                        for y in range(height) for x in range(width))

    def stream(self, name, *options):
        self.run_program(judges.program("screenrecord"), "stream", "-o", name, "-t", "2", "-b", "8M", *options)
        return judges.decode(self.path(name), 40, "yuv420p")

    def reference(self, logo):
        """The screen with the logo over it, converted by the formulas of BT.601 (limited range) to planes."""
        width, height, screen = judges.dump_screen(self.environment["DISPLAY"])
        red, green, blue = (bytearray(screen[channel::4]) for channel in (2, 1, 0))
        for y in range(self.LOGO[1]):
            for x in range(self.LOGO[0]):
                at = (self.AT[1] + y) * width + self.AT[0] + x
                *colour, alpha = logo[4 * (y * self.LOGO[0] + x):][:4]
                for plane, value in zip((red, green, blue), colour):
                    plane[at] = (value * alpha + plane[at] * (255 - alpha) + 127) // 255
        luma = bytes(round(16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255) for r, g, b in zip(red, green, blue))
        return width, height, luma

    @staticmethod
    def cut(luma, width, left, top, columns, lines):
        return b"".join(luma[y * width + left:y * width + left + columns] for y in range(top, top + lines))

    def test_looks_as_composed(self):
        self.start_display("640x352")
        self.start_screen("--static")
        logo = self.logo()
        judges.write_png(self.path("logo.png"), *self.LOGO, logo)
        plain = self.stream("plain.h264")
        marked = self.stream("marked.h264", "--watermark", "logo.png", "--at", f"{self.AT[0]},{self.AT[1]}")
        width, height, wanted = self.reference(logo)
        area = (width, *self.AT, *self.LOGO)
        self.assertGreaterEqual(judges.psnr(self.cut(marked, *area), self.cut(wanted, *area)), 38)
        self.assertLess(judges.psnr(self.cut(plain, *area), self.cut(wanted, *area)), 30, "the logo shows nothing")
        above = width * (self.AT[1] - 16)
        self.assertGreaterEqual(judges.psnr(marked[:above], plain[:above]), 42)
        chroma = (width // 2) * ((self.AT[1] - 16) // 2)
        for plane in (width * height, width * height * 5 // 4):
            self.assertGreaterEqual(judges.psnr(marked[plane:plane + chroma], plain[plane:plane + chroma]), 42)


if __name__ == "__main__":
    unittest.main()
