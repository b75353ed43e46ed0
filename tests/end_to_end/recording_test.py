"""Recordings into transport-stream files by the client's record command."""

import contextlib
import os
import random
import signal
import subprocess
import time
import unittest
from concurrent import futures

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

    def test_twenty_wrong_commands(self):
        # Catches a refusal that is silent, is more than a sentence, or leaves out what was wrong or would be right.
        cases = [
            ("", "command is missing", "record, stream"), ("recrod", "'recrod'", "perhaps record"),
            ("-o a.ts", "'-o'", "record, stream"), ("record", "--output", "FILE.ts"),
            ("record -o", "--output", "FILE.ts"), ("record a.ts", "'a.ts'", "--output"),
            ("record -o a.ts --fsp 3", "'--fsp'", "--fps"), ("record -o a.ts -r 0", "'0'", "1 to 120"),
            ("record -o a.ts -t soon", "'soon'", "seconds above 0"), ("record -o a.ts -s 9x9", "'9x9'", "even"),
            ("record -o a.ts --rate 5", "'5'", "4 Mbit/s"), ("record -o a.ts --slot 2", "'2'", "0 or 1"),
            ("record -o a.ts --slot 1", "slot 0 only", "--source"), ("record -o a.ts -o b.ts", "2 times", "once"),
            ("record -o -", "'-'", "screenrecord stream"), ("record -o wifi", "'wifi'", "./wifi"),
            ("record -o a.ts --source x", "'x'", "--size"), ("stream -o a -b 5", "'5'", "at least 10k"),
            ("stream -o a --level 9", "'9'", "4.1"), ("stream -o a --at 1,1", "--at", "--watermark"),
            ("shot -o a.png --format gif", "'gif'", "bgra"), ("devices now", "'now'", "no option of devices"),
        ]
        for words, wrong, right in cases:
            with self.subTest(words):
                refused = self.client(*words.split())
                self.assert_exit(refused, 2)
                self.assertRegex(refused.errors(), r"\Ascreenrecord: [^\n]+; see 'screenrecord [^\n]*--help'\n\Z")
                self.assertIn(wrong, refused.errors())
                self.assertIn(right, refused.errors())
                self.assertEqual(refused.output(), "")

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
                recording.process.send_signal(signal.SIGUSR1)  # asks for a pause, which there is none of
                wait_until(lambda recording=recording: "cannot pause" in recording.errors(), "the refusal")
                self.assertEqual(recording.stop(getattr(signal, "SIG" + name)), 0, recording.errors())
                self.assertEqual(recording.output().strip(), name + ".ts")
                self.assert_plays(self.path(name + ".ts"))


class Killed(EndToEndTest, PlayableMixin):
    """SIGKILL at random moments: what is lost is what the writer had not passed on, and nothing is left behind."""

    MOMENTS, AT_ONCE = 20, 10
    # The writer's batch, what one of its passes copies into it, and the time between two passes.
    BATCH, PIECE, PASS, RATE = 64 << 10, 64 << 10, 0.1, 2 * 1048576 / 8
    # From the screen to the multiplexer, and from our look at the screen to the kill, on a busy machine.
    ON_ITS_WAY = 0.4

    def number_on_screen(self):
        width, height, dump = judges.dump_screen(self.environment["DISPLAY"])
        return judges.Picture(width, height, b"".join(dump[at:at + 3] for at in range(0, len(dump), 4))).number()

    def kill_some(self, names, moments):
        """Starts recorders at once and kills each at its moment; (file, number on the screen, seconds it ran)."""
        begin = time.monotonic()
        recorders = [(moments.uniform(1, 3.5), name, self.client("record", "-r", "10", "--rate", "2", "-o", name))
                     for name in names]
        killed = []
        for moment, name, recorder in sorted(recorders, key=lambda each: each[0]):
            pass_time(max(0, begin + moment - time.monotonic()))
            shown = self.number_on_screen()
            recorder.kill()
            killed.append((name, shown, time.monotonic() - begin))
        return killed

    def assert_lacks_little(self, name, shown, ran):
        path = self.path(name)
        if size_of(path) == 0:
            self.assertLess(ran, 2.5, "no batch was written in all that time")
            return 0
        self.assertTrue(judges.whole_packets(path), name)
        self.assertEqual(judges.decoder_messages(path), "", name)
        lacking = (shown - judges.picture_numbers(path)[-1]) / 30
        self.assertLess(lacking, (self.BATCH + self.PIECE) / self.RATE + self.PASS + self.ON_ITS_WAY, name)
        return lacking

    def test_killed_at_random_moments(self):
        seed = random.randrange(1 << 30)
        moments = random.Random(seed)
        self.start_display("592x256")
        self.start_screen("--fps", "30")
        left = self.left_behind()
        names = [f"{number}.ts" for number in range(self.MOMENTS)]
        lacking = []
        for first in range(0, self.MOMENTS, self.AT_ONCE):
            with self.subTest(seed=seed, first=first):
                killed = self.kill_some(names[first:first + self.AT_ONCE], moments)
                with futures.ThreadPoolExecutor(os.cpu_count()) as judging:
                    lacking += judging.map(lambda each: self.assert_lacks_little(*each), killed)
        print(f"{len(lacking)} kills: {max(lacking):.2f} s lacking at most, {lacking.count(0)} before the first batch")
        self.assertLess(lacking.count(0), self.MOMENTS / 2)
        self.assertEqual(self.left_behind(), left)
        self.assertEqual(sorted(file for file in os.listdir(self.folder) if file.endswith((".ts", ".part", ".lock"))),
                         sorted(name for name in names if os.path.exists(self.path(name))))
        self.assertEqual(os.listdir(self.path("home")), [])

    def left_behind(self):
        """System V segments, files of POSIX shared memory, and processes that run in our folder."""
        here = []
        for process in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError):
                if os.readlink(f"/proc/{process}/cwd") == self.folder:
                    here.append(process)
        with open("/proc/sysvipc/shm", encoding="ascii") as file:
            return len(file.readlines()), sorted(os.listdir("/dev/shm")), sorted(here)


class KilledOften(LongEndToEndTest, PlayableMixin):
    MOMENTS, AT_ONCE = 200, 10
    BATCH, PIECE, PASS, RATE, ON_ITS_WAY = Killed.BATCH, Killed.PIECE, Killed.PASS, Killed.RATE, Killed.ON_ITS_WAY
    number_on_screen, kill_some, assert_lacks_little = Killed.number_on_screen, Killed.kill_some, Killed.assert_lacks_little
    left_behind = Killed.left_behind
    test_killed_at_random_moments = Killed.test_killed_at_random_moments


class DisplayKilled(ShortEndToEndTest, PlayableMixin):
    def test_display_dies(self):
        server = self.start_display("640x360")
        self.start_screen("--noise")
        recording = self.client("record", "-o", "a.ts")
        wait_until(lambda: size_of(self.path("a.ts")) > 0, "the first batch")
        server.kill()
        self.assert_exit(recording, 3, 10 if SANITIZED else 1)
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
        self.assert_exit(recording, 3, 10 if SANITIZED else 1)
        self.assertRegex(recording.errors(), "(?i)space|full")
        self.assert_plays_as_far_as_written(path)


if __name__ == "__main__":
    unittest.main()
