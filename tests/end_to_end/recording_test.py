"""Recordings into transport-stream files by the client's record command."""

import os
import signal
import subprocess
import unittest

import judges
from harness import SANITIZED, EndToEndTest, LongEndToEndTest, ShortEndToEndTest, pass_time, wait_until


def size_of(path):
    return os.path.getsize(path) if os.path.exists(path) else 0


class PlayableMixin:
    def assert_plays(self, path, packet_size=188):
        """Whole packets, no message of the decoder, a key frame first."""
        self.assertTrue(judges.whole_packets(path, packet_size), path)
        self.assertEqual(judges.decoder_messages(path), "")
        self.assertTrue(judges.first_is_key_frame(path))


    def assert_plays_as_far_as_written(self, path):
        """Whole packets; every picture but the last, which may have been cut, decodes."""
        self.assertTrue(judges.whole_packets(path), path)
        frames = len(judges.decode(path, None, "gray", "scale=8:8")) // 64
        self.assertGreater(frames, 0)
        self.assertGreaterEqual(frames, len(judges.packets(path)) - 1)


class TenSeconds(EndToEndTest, PlayableMixin):
    """One recording of a moving screen, looked at from all sides."""

    @classmethod
    def prepare(cls):
        cls.start_display()
        cls.start_screen("--fps", "60")  # faster than the recording, so that each picture is another one
        cls.recording = cls.client("record", "-s", "1280x720", "-r", "30", "-t", "10", "-o", "a.ts")
        cls.code = cls.recording.wait(30)

    def test_ends_well_and_says_where_the_file_is(self):
        self.assertEqual(self.code, 0, self.recording.errors())
        self.assertEqual(self.recording.output().strip(), "a.ts")

    def test_has_all_frames_and_plays(self):
        frames = judges.packets(self.path("a.ts"))
        self.assertTrue(298 <= len(frames) <= 302, len(frames))
        self.assert_plays(self.path("a.ts"))
        self.assertEqual(judges.decoder_messages(self.path("a.ts"), "-map", "0"), "")

    def test_checker_finds_nothing(self):
        self.assertEqual(judges.check_packets(self.path("a.ts")), "")

    def test_shows_the_screen_in_its_colours(self):
        for index in (1, 150, 290):
            self.assertEqual(judges.colour_faults(judges.picture(self.path("a.ts"), index)), [])

    def test_shows_the_pictures_in_their_order(self):
        # Catches pictures that overtake one another, and a buffer that is shown again instead of a new one.
        numbers = judges.picture_numbers(self.path("a.ts"))
        self.assertEqual(numbers, sorted(numbers))
        self.assertGreater(len(set(numbers)), 280, numbers)
        self.assertTrue(570 <= numbers[-1] - numbers[0] <= 620, numbers)


class PacketsAndRates(EndToEndTest, PlayableMixin):
    @classmethod
    def prepare(cls):
        cls.start_display()
        cls.start_screen()

    def test_packet_sizes_and_constant_rate(self):
        # Catches arrival stamps in the wrong place, and null packets left out or counted wrongly.
        cases = {"a.ts": (192, None), "b.ts": (188, 2), "c.ts": (192, 2)}
        running = []
        for name, (packet_size, rate) in cases.items():
            options = ["--rate", rate] if rate else []
            running.append(self.client("record", "-s", "640x360", "-t", "5", "--packet-size", packet_size, *options,
                                       "-o", name))
        for recording in running:
            self.assert_exit(recording, 0)
        for name, (packet_size, rate) in cases.items():
            with self.subTest(name):
                self.assert_plays(self.path(name), packet_size)
                self.assertEqual(judges.check_packets(self.path(name), "--packet-size", str(packet_size)), "")
                if rate:
                    wanted = rate * 1048576
                    self.assertAlmostEqual(judges.measured_rate(self.path(name), packet_size), wanted,
                                           delta=wanted * 0.01)


class Sizes(EndToEndTest, PlayableMixin):
    def test_records_each_size_exactly(self):
        # Catches lines of the encoder's padding in the picture, and pixels shifted by a wrong stride.
        for size in ("64x64", "1366x768", "1920x1080"):
            with self.subTest(size):
                self.start_display(size)
                self.start_screen("--static")
                path = self.path(size + ".ts")
                self.run_program(judges.program("screenrecord"), "record", "-t", "1", "-o", path)
                video = judges.streams(path)["video"]
                self.assertEqual(f'{video["width"]}x{video["height"]}', size)
                self.assert_plays(path)
                self.assert_equals_screen(path)

    def assert_equals_screen(self, path):
        """The edges are the screen's own, which scaling, shifting or padding would change."""
        width, height, screen = judges.dump_screen(self.environment["DISPLAY"])
        shown = judges.decode(path, 15)
        edges = {"first line": [(x, 0) for x in range(width)], "last line": [(x, height - 1) for x in range(width)],
                 "first column": [(0, y) for y in range(height)],
                 "last column": [(width - 1, y) for y in range(height)]}
        for name, places in edges.items():
            greens = [shown[3 * (y * width + x) + 1] for x, y in places]
            wanted = [screen[4 * (y * width + x) + 1] for x, y in places]
            self.assertGreater(judges.psnr(greens, wanted), 25, name)
        if width > 640:
            self.assertEqual(judges.colour_faults(judges.picture(path, 15)), [])


class Refusals(ShortEndToEndTest):
    """Each refusal: exit code, what its sentence names, and that no file came of it."""

    def test_refusals(self):
        existing = self.path("existing.ts")
        with open(existing, "w", encoding="utf-8") as file:
            file.write("precious")
        test_card = {"ZU3_DISPLAY": "testcard"}
        unreachable = {"DISPLAY": ":4242"}
        cases = [
            (2, "63", ["-s", "63x64"], test_card),
            (2, "65", ["-s", "64x65"], test_card),
            (2, "wide", ["-s", "wide"], test_card),
            (2, "existing.ts", ["-o", "existing.ts"], test_card),
            (2, "189", ["--packet-size", "189"], test_card),
            (2, "--rate", ["--rate", "5"], test_card),
            (1, "DISPLAY", [], unreachable),
            (1, "DISPLAY", ["-s", "640x480"], unreachable),
            (1, "no-such-folder", ["-o", "no-such-folder/a.ts"], test_card),
        ]
        for code, word, options, environment in cases:
            with self.subTest(options):
                where = [] if "-o" in options else ["-o", "new.ts"]
                refused = self.client("record", "-t", "1", *where, *options, environment=environment)
                self.assert_exit(refused, code)
                self.assertIn(word, refused.errors())
                self.assertEqual(refused.output(), "")
                self.assertFalse(os.path.exists(self.path("new.ts")))
        with open(existing, encoding="utf-8") as file:
            self.assertEqual(file.read(), "precious")

    def test_overwrites_when_told_to(self):
        path = self.path("old.ts")
        with open(path, "w", encoding="utf-8") as file:
            file.write("old")
        self.run_program(judges.program("screenrecord"), "record", "-s", "64x64", "-t", "1", "-y", "-o", "old.ts",
                         environment={"ZU3_DISPLAY": "testcard"})
        self.assertEqual(judges.decoder_messages(path), "")


class Signals(ShortEndToEndTest, PlayableMixin):
    def test_signals_end_with_a_complete_file(self):
        # Catches a signal that kills, and a last batch that is not written.
        self.environment["ZU3_DISPLAY"] = "testcard"
        running = {}
        for name in ("INT", "TERM", "HUP"):
            running[name] = self.client("record", "-s", "320x240", "-o", name + ".ts")
        for name, recording in running.items():
            with self.subTest(name):
                wait_until(lambda name=name: size_of(self.path(name + ".ts")) > 0, "the first batch")
                self.assertEqual(recording.stop(getattr(signal, "SIG" + name)), 0, recording.errors())
                self.assertEqual(recording.output().strip(), name + ".ts")
                self.assert_plays(self.path(name + ".ts"))


class Killed(EndToEndTest, PlayableMixin):
    def test_killed_recording_plays(self):
        # Catches buffers of the process's own, and batches that end inside a packet.
        self.start_display()
        self.start_screen("--noise")
        recording = self.client("record", "-s", "1280x720", "-r", "30", "-o", "a.ts")
        wait_until(lambda: os.path.exists(self.path("a.ts")), "the recording")
        pass_time(5)
        recording.kill()
        self.assert_plays_as_far_as_written(self.path("a.ts"))
        self.assertGreaterEqual(len(judges.packets(self.path("a.ts"))), 4 * 30)


class DisplayKilled(ShortEndToEndTest, PlayableMixin):
    def test_display_dies(self):
        server = self.start_display("640x360")
        self.start_screen("--noise")
        recording = self.client("record", "-o", "a.ts")
        wait_until(lambda: size_of(self.path("a.ts")) > 0, "the first batch")
        server.kill()
        self.assert_exit(recording, 3, 10 if SANITIZED else 2)
        self.assertIn("DISPLAY", recording.errors())
        self.assert_plays(self.path("a.ts"))


class FullDisk(ShortEndToEndTest, PlayableMixin):
    def small_disk(self):
        """A folder on a disk of one MiB; None where mounting one is not allowed."""
        folder = self.path("disk")
        os.mkdir(folder)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "none", folder],
                          capture_output=True, check=False).returncode != 0:
            return None
        self.addCleanup(subprocess.run, ["umount", "-l", folder], check=True)
        return folder

    def test_disk_is_full(self):
        folder = self.small_disk()
        if not folder:
            raise unittest.SkipTest("mounting a small disk is not allowed here")
        self.start_display("640x360")
        self.start_screen("--noise")
        path = os.path.join(folder, "a.ts")
        recording = self.client("record", "-o", path)
        wait_until(lambda: os.statvfs(folder).f_bavail == 0, "the disk to be full")
        self.assert_exit(recording, 3, 10 if SANITIZED else 1.5)
        self.assertRegex(recording.errors(), "(?i)space|full")
        self.assert_plays_as_far_as_written(path)


class KilledOften(LongEndToEndTest):
    def test_killed_at_any_moment(self):
        # Catches a moment at which a file is not yet, or no longer, whole packets.
        self.start_display("640x360")
        self.start_screen("--noise")
        for number in range(40):
            path = self.path(f"{number}.ts")
            recording = self.client("record", "-o", path)
            wait_until(lambda path=path: os.path.exists(path), "the recording")
            pass_time(0.5 + number * 0.037)
            recording.kill()
            self.assertTrue(judges.whole_packets(path), number)


if __name__ == "__main__":
    unittest.main()
