"""Recordings into transport-stream files by the client's record command."""

import collections
import contextlib
import os
import pathlib
import random
import resource
import signal
import statistics
import subprocess
import time
import unittest
from concurrent import futures

import judges
from harness import SOON, TEST_CARD, EndToEndTest, LongEndToEndTest, ShortEndToEndTest, pass_time, size_of, wait_until


class TenSeconds(EndToEndTest):
    """One recording of a moving screen, looked at from all sides."""

    @classmethod
    def prepare(cls):
        cls.start_display()
        cls.start_screen("--fps", "60")  # faster than the recording, so that each picture is another one
        cls.said = cls.run_program("screenrecord", "record", "-s", "1280x720", "-r", "30", "-t", "10", "-o", "a.ts")
        cls.file = cls.path("a.ts")

    def test_has_all_frames_and_plays(self):
        self.assertEqual(self.said, "a.ts\n")
        self.assertAlmostEqual(len(judges.packets(self.file)), 300, delta=2)
        self.assertEqual(judges.faults(self.file) + judges.check_packets(self.file), "")

    def test_shows_the_screen_in_its_colours(self):
        for index in (1, 150, 290):
            self.assertEqual(judges.colour_faults(self.file, index), {})

    def test_shows_the_pictures_in_their_order(self):
        # Catches pictures that overtake one another, and a buffer that is shown again instead of a new one.
        numbers = judges.picture_numbers(self.file)
        self.assertEqual(numbers, sorted(numbers))
        self.assertGreater(len(set(numbers)), 280, numbers)
        self.assertTrue(570 <= numbers[-1] - numbers[0] <= 620, numbers)


class StillScreen(EndToEndTest):
    def test_lets_the_machine_sleep(self):
        # Catches a thread that wakes up for a picture without a change, beside the one that knows when it is due.
        self.start_display("640x352")
        self.start_screen("--static")
        recorder = self.client("record", "-r", "30", "-t", "6", "-o", "still.ts", "--no-audio")
        wait_until(lambda: "zu3 capture" in self.sleeps(recorder.process), "the capture's thread")
        pass_time(1.5)
        before = self.sleeps(recorder.process)
        pass_time(3)
        sleeps = {name: count - before[name] for name, count in self.sleeps(recorder.process).items()}
        self.assertGreater(sleeps["zu3 capture"], 3 * 15, sleeps)
        self.assertLess(sum(sleeps.values()), 3 * 30 * 2, sleeps)
        self.assert_exit(recorder, 0)

    @staticmethod
    def sleeps(process):
        """How often the threads of each name have gone to sleep."""
        found = collections.Counter()
        for path in pathlib.Path(f"/proc/{process.pid}/task").iterdir():
            lines = (path / "status").read_text("ascii").splitlines()
            status = dict(line.split(":\t", 1) for line in lines if ":\t" in line)
            found[status["Name"]] += int(status["voluntary_ctxt_switches"])
        return found


class Sizes(EndToEndTest):
    def test_records_each_size_exactly(self):
        # Catches lines of the encoder's padding in the picture, pixels shifted by a wrong stride, and a display of odd
        # size that is scaled as a whole, or cut without a word.
        for size, left_out in (("64x64", ""), ("1366x768", ""), ("1920x1080", ""),
                               ("1367x769", "column and its last row")):
            with self.subTest(size):
                self.start_display(size)
                self.start_screen("--static")
                path = self.path(size + ".ts")
                recorder = self.client("record", "-t", "1", "-o", path)
                self.assert_exit(recorder, 0)
                self.assertRegex(recorder.errors(), rf"\A[^\n]*last {left_out}[^\n]*\n\Z" if left_out else r"\A\Z")
                video = judges.streams(path)["video"]
                recorded = video["width"], video["height"]
                self.assertEqual(recorded, tuple(int(side) & ~1 for side in size.split("x")))
                self.assertEqual(judges.faults(path), "")
                # The edges are the screen's own, which scaling, shifting or padding would change.
                screen, shown = judges.dump_screen(self.environment["DISPLAY"], *recorded)[2], judges.decode(path, 15)
                (width, height), screen, shown = recorded, screen[1::4], shown[1::3]  # the greens
                edges = {"first line": slice(0, width), "last line": slice(width * (height - 1), None),
                         "first column": slice(0, None, width), "last column": slice(width - 1, None, width)}
                for name, edge in edges.items():
                    self.assertGreater(judges.psnr(shown[edge], screen[edge]), 25, name)
                if width > 640:
                    self.assertEqual(judges.colour_faults(path, 15), {})
                self.run_program("screenrecord", "shot", "-y", "-o", "shot.png")
                self.assertTrue(judges.decode(self.path("shot.png"), 0)[1::3] == screen, "a still is exact")


class Refusals(ShortEndToEndTest):
    VARIABLES = TEST_CARD

    @classmethod
    def prepare(cls):
        cls.old = cls.path("old.ts")
        cls.old.write_text("precious", encoding="utf-8")

    def test_wrong_commands(self):
        # Catches a refusal that is silent, is more than a sentence, or leaves out what was wrong or would be right.
        os.link(self.old, self.path("link"))
        cases = [
            ("", "command is missing", "record, replay, stream"), ("recrod", "'recrod'", "perhaps you mean record"),
            ("-o a.ts", "'-o'", "record, replay, stream"), ("stream", "--output", "FILE.h264"),
            ("record -o", "--output", "FILE.ts"), ("record a.ts", "'a.ts'", "--output"),
            ("record -o a.ts --fsp 3", "'--fsp'", "--fps"), ("record -o a.ts -r 0", "'0'", "1 to 120"),
            ("record -o a.ts -t soon", "'soon'", "such as 10, 90s"), ("record -o a.ts -s 9x9", "'9x9'", "even"),
            ("record -o a.ts -s wide", "'wide'", "x"), ("record -o a.ts --packet-size 189", "189", "188"),
            ("record -o a.ts --rate 5", "'5'", "above 4"), ("record -o a.ts --slot 2", "'2'", "0 or 1"),
            ("record -o a.ts --slot 1", "only to slot 0", "--source"), ("record -o a.ts -o b.ts", "2 times", "once"),
            ("record -o wifi", "'wifi'", "./wifi"),
            ("record -o a.ts --source x", "'x'", "--size"), ("stream -o a -b 5", "'5'", "10k to 240M"),
            ("record -o a.ts -t", "--time", "TIME"), ("record -yo", "--output", "FILE.ts"),
            ("record -o a.ts --no-audio=x", "--no-audio", "no value"),
            ("shot -o a --interval 5", "--interval", "--count"),
            ("record -o a.ts --status-file -", "'-'", "--json"),
            ("record -y -o a.ts --status-file ./a.ts", "'./a.ts'", "another name"),
            ("record -y -o old.ts --status-file link", "'link'", "another name"),
            ("record -y -o old.ts --source link -s 64x64", "'link'", "--output 'old.ts'"),
            ("record -o a.ts --source link --status-file old.ts -s 64x64", "'link'", "--status-file 'old.ts'"),
            ("stream -y -o link --watermark old.ts", "'old.ts'", "another name"),
            ("record -o=x", "'=x'", "'./=x'"), ("shot -o --", "'--'", "'./--'"), ("pcm -o -y", "'-y'", "'./-y'"),
            ("record -o a.FLV", "'a.FLV'", "'ffmpeg -i a.mp4 -c copy a.FLV'"),
            ("stream -r 25 -o a.mov", "'a.mov'", "'ffmpeg -framerate 25 -i a.h264 -c copy a.mov'"),
            ("stream -o a.mkv", "'a.mkv'", "record -o a.mkv"),
            ("stream -o a.ts", "'a.ts'", "record -o a.ts"), ("record -o a.jpg", "'a.jpg'", "shot"),
            ("shot -o a.jpg", "'a.jpg'", "'ffmpeg -i a.png a.jpg'"), ("pcm -o a.mp3", "'a.mp3'", "a.wav a.mp3"),
            ("stream -o a --level 9", "'9'", "4.1"), ("stream -o a --at 1,1", "--at", "--watermark"),
            ("shot -o a.png --format gif", "'gif'", "bgra"), ("shot -o - -n 2", "2 pictures", "--output"),
            ("devices now", "'now'", "no option of devices"), ("help recrod", "'recrod'", "perhaps you mean record"),
            ("help me out", "'me'", "record, replay, stream"), ("version 2", "'2'", "no option of version"),
        ]
        for words, wrong, right in cases:
            with self.subTest(words):
                refused = self.client(*words.split())
                self.assert_exit(refused, 2)
                self.assertRegex(refused.errors(), r"\Ascreenrecord: [^\n]+; see 'screenrecord [^\n]*--help'\n\Z")
                self.assertIn(wrong, refused.errors())
                self.assertIn(right, refused.errors())
                self.assertEqual(refused.output(), "")
        self.assertEqual(list(self.path(".").glob("a*")), [])

    def test_what_cannot_be_recorded_or_written(self):
        unreachable = {"ZU3_DISPLAY": "", "DISPLAY": ":4242"}
        cases = [(2, "old.ts", "old.ts", [], {}), (1, "DISPLAY", "new.ts", [], unreachable),
                 (1, "DISPLAY", "new.ts", ["-s", "640x480"], unreachable),
                 (2, "no-such-folder", "no-such-folder/a.ts", [], {}), (2, "a folder", "home", [], {}),
                 (2, "status", "new.ts", ["--status-file", "no-such-folder/status"], {}),
                 (2, "too long", "x" * 256, [], {}),
                 (1, "not an ordinary file", "new.ts", ["-s", "64x64", "--source", "/dev/null"], {})]
        for code, word, name, options, environment in cases:
            with self.subTest(word):
                refused = self.client("record", "-t", "1", "-o", name, *options, environment=environment)
                self.assert_exit(refused, code)
                self.assertIn(word, refused.errors())
                self.assertEqual(refused.output(), "")
        self.assertFalse(self.path("new.ts").exists())
        self.assertEqual(self.old.read_text(encoding="utf-8"), "precious")
        self.run_program("screenrecord", "record", "-s", "64x64", "-t", "1", "-y", "-o", "old.ts")
        self.assertEqual(judges.faults(self.old), "")

    def test_verbose_explains_failures_alone(self):
        # Catches errors in a run without any, and a failure whose reason is lost among what its clean-up says.
        for code, limit, said in ((0, 64, ""), (1, 11, r"E/screenrecord\(.*\): \[SCREENRECORD_Open\].*Fopen.*\n")):
            recorder = self.client("record", "-y", "-v", "-s", "64x64", "-t", "0.2", "-o", "v.ts",
                                   prepare=lambda limit=limit: resource.setrlimit(resource.RLIMIT_NOFILE,
                                                                                  (limit, limit)))
            self.assert_exit(recorder, code)
            self.assertRegex("".join(line for line in recorder.errors().splitlines(True) if "E/screenrecord" in line),
                             rf"\A{said}\Z", recorder.errors())

    def test_status_of_a_failure(self):
        # Catches a status that stays at "starting".
        refused = self.client("record", "-o", "b.ts", "--status-file", "status", "-s", "64x64",
                              prepare=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (12, 12)))
        self.assert_exit(refused, 1)
        self.assertIn("library refused", refused.errors())
        self.assertIn('"state":"failed"', self.path("status").read_text("ascii"))


class Signals(ShortEndToEndTest):
    VARIABLES = TEST_CARD

    def test_signals_end_with_a_complete_file(self):
        # Catches a signal that kills, and a last batch that is not written.
        files = {name: self.path(name + ".ts") for name in ("INT", "TERM", "HUP")}
        running = {name: self.client("record", "-s", "320x240", "-o", file) for name, file in files.items()}
        for name, recording in running.items():
            with self.subTest(name):
                wait_until(lambda file=files[name]: size_of(file) > 0, "the first batch")
                recording.process.send_signal(signal.SIGUSR1)  # asks for a pause, which there is none of
                wait_until(lambda recording=recording: "cannot pause" in recording.errors(), "the refusal")
                self.assert_stops(recording, 0, getattr(signal, "SIG" + name))
                self.assertEqual(recording.output().strip(), str(files[name]))
                self.assertEqual(judges.faults(files[name]), "")

    def test_the_shortest_has_a_picture(self):
        # Catches a stop that comes before the first picture is encoded and leaves an empty file.
        for seconds in ("0.001", "0.02"):
            with self.subTest(seconds):
                path = self.path("short.ts")
                self.assert_exit(self.client("record", "-t", seconds, "-s", "1280x720", "-y", "-o", path), 0)
                self.assertEqual(judges.faults(path), "")


class Killed(EndToEndTest):
    """SIGKILL at random moments: only data that the writer still had is lost, and nothing is left behind."""

    MOMENTS, AT_ONCE = 20, 10
    SCREEN, OPTIONS = ("--fps", "30"), ("-r", "10", "--rate", "2")
    # The writer's batch, what one of its passes copies into it, and the time between two passes.
    BATCH, PIECE, PASS, RATE = 64 << 10, 64 << 10, 0.1, 2 * 1048576 / 8
    # From the screen to the multiplexer, and from our look at the screen to the kill, on a busy machine.
    ON_ITS_WAY = 0.4

    def kill_some(self, names, moments):
        """Starts recorders at once and kills each at its moment; (file, number on the screen, seconds it ran)."""
        begin = time.monotonic()
        recorders = [(moments.uniform(1, 3.5), name, self.client("record", *self.OPTIONS, "-o", name))
                     for name in names]
        killed = []
        for moment, name, recorder in sorted(recorders, key=lambda each: each[0]):
            pass_time(max(0, begin + moment - time.monotonic()))
            width, _, shown = judges.dump_screen(self.environment["DISPLAY"])
            recorder.kill()
            ran, strip = time.monotonic() - begin, 4 * (232 * width + 64)
            killed.append((name, judges.number_in(shown[strip:strip + 4 * 512:4]), ran))
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
        self.start_screen(*self.SCREEN)
        left = self.left_behind()
        names = [f"{number}.ts" for number in range(self.MOMENTS)]
        lacking = []
        for first in range(0, self.MOMENTS, self.AT_ONCE):
            with self.subTest(seed=seed, first=first):
                killed = self.kill_some(names[first:first + self.AT_ONCE], moments)
                with futures.ThreadPoolExecutor(os.cpu_count()) as judging:
                    lacking += judging.map(lambda each: self.assert_lacks_little(*each), killed)
        print(f"{len(lacking)} kills: {statistics.median(lacking):.2f} s missing (median), "
              f"at most {max(lacking):.2f} s, {lacking.count(0)} before the first batch")
        self.assertLess(lacking.count(0), self.MOMENTS / 2)
        self.assertEqual(self.left_behind() - left, set())
        self.assertEqual(sorted(file for file in os.listdir(self.folder) if file.endswith((".ts", ".part", ".lock"))),
                         sorted(name for name in names if self.path(name).exists()))
        # the folder of the sockets for "control": the next recorder removes those of the dead
        self.assertLessEqual(set(os.listdir(self.path("home"))), {"screenrecord"})

    def left_behind(self):
        """System V segments, files of POSIX shared memory, and processes that run in our folder."""
        found = {f"/dev/shm/{name}" for name in os.listdir("/dev/shm")}
        for process in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError):
                if os.readlink(f"/proc/{process}/cwd") == self.folder:
                    found.add(f"process {process}")
        with open("/proc/sysvipc/shm", encoding="ascii") as file:
            return found | {f"segment {line.split()[1]}" for line in file}


class KilledOften(LongEndToEndTest, Killed):
    MOMENTS = 200


class KilledOnNoise(LongEndToEndTest, Killed):
    """Batches that nearly all end within a picture, and pictures of several batches."""

    MOMENTS, AT_ONCE, SCREEN, OPTIONS = 200, 4, ("--noise",), ()


class FullDisk(ShortEndToEndTest):
    def test_disk_is_full(self):
        folder = self.path("disk")
        folder.mkdir()
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "none", folder], check=False).returncode != 0:
            raise unittest.SkipTest("mounting a small disk is not allowed here")
        self.addCleanup(subprocess.run, ["umount", "-l", folder], check=True)
        self.start_display("640x360")
        self.start_screen("--noise")
        path = folder / "a.ts"
        recording = self.client("record", "-o", path)
        # Not for a disk without a free block, where a part that did not fit is removed at once.
        wait_until(lambda: "No space left on device" in recording.errors(), "the message")
        self.assert_exit(recording, 3, SOON)
        self.assertGreater(path.stat().st_size, 800_000)
        self.assertTrue(judges.whole_packets(path))
        self.assertEqual(judges.faults(path), "")
