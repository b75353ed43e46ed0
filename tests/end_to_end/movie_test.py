"""Recordings into MP4 and Matroska files and to standard output by the client's record command."""

import contextlib
import json
import math
import os
import pathlib
import pty
import re
import signal
import statistics
import subprocess

import held_up_test
import judges
import sound_test
from harness import (BUILD, TEST_CARD, EndToEndTest, LongEndToEndTest, ShortEndToEndTest, UnmeasuredEndToEndTest,
                     pass_time, size_of, wait_until)

KINDS = ("mp4", "mkv")


def times(path, kind="v"):
    return [time for time, _, _ in judges.packets(path, kind)]


def complaints(path):
    """ffmpeg's messages while it copies a file into another one."""
    copied = subprocess.run(["ffmpeg", "-nostdin", "-v", "warning", "-y", "-i", path, "-c", "copy", f"{path}.copy.mkv"],
                            capture_output=True, check=False)
    return copied.stderr.decode()


def boxes(path):
    """The names of an MP4 file's outer boxes, in their order (ISO/IEC 14496-12, 4.2)."""
    data, at, names = path.read_bytes(), 0, []
    while at + 8 <= len(data):
        names.append(data[at + 4:at + 8].decode())
        at += int.from_bytes(data[at:at + 4], "big") or len(data)
    return names


class MovieChecks:
    """Checks shared by several classes."""

    def assert_recorded(self, recording):
        """A busy machine may drop pictures, with a message; other tests count them."""
        code = recording.wait()
        said = [line for line in recording.errors().splitlines() if "screenrecord: " in line]
        if not (code == 3 and len(said) == 1 and "too busy to read them" in said[0]):
            self.assertEqual((code, said), (0, []))


class Movies(UnmeasuredEndToEndTest):
    """One recording of each kind, made at once."""

    @classmethod
    def prepare(cls):
        cls.start_display("1920x1080")
        cls.start_screen("--fps", "60")
        cls.environment["ZU3_AUDIO"] = "tone"
        recordings = {kind: cls.client("record", "-r", "10", "-t", "4", "-o", f"a.{kind}") for kind in KINDS}
        recordings["fragmented"] = cls.client("record", "-r", "10", "-t", "2",
                                              "--fragmented", "--no-audio", "-o", "f.mp4")
        cls.codes = {kind: recording.wait() for kind, recording in recordings.items()}
        cls.said = {kind: recording.output() + recording.errors() for kind, recording in recordings.items()}

    def test_are_complete_and_play(self):
        for kind in KINDS:
            with self.subTest(kind):
                path = self.path(f"a.{kind}")
                self.assertEqual((self.codes[kind], self.said[kind]), (0, f"a.{kind}\n"))
                self.assertEqual(judges.decoder_messages(path) + complaints(path), "")
                video = judges.streams(path)["video"]
                self.assertEqual((video["width"], video["height"], video["r_frame_rate"]), (1920, 1080, "10/1"))
                self.assertEqual([video[key]
                                  for key in ("color_space", "color_primaries", "color_transfer", "color_range")],
                                 ["smpte170m"] * 3 + ["tv"])
                self.assertEqual(judges.colour_faults(path, 20), {})
                self.assertEqual(path.stat().st_mode & 0o777, 0o600)
        self.assertEqual(list(self.path(".").glob(".screenrecord*")), [])

    def test_frames_lie_on_the_grid(self):
        for kind in KINDS:
            places = [time * 10 for time in times(self.path(f"a.{kind}"))]
            self.assertEqual(places[0], 0)
            self.assertLess(max(abs(place - round(place)) for place in places), 0.02, kind)
            self.assertEqual(sorted({round(place) for place in places}), [round(place) for place in places])
            self.assertGreater(len(places), 30)

    def test_sound_is_as_long_as_the_pictures(self):
        # An MP4 file has the delay of the encoder in its edit list.
        for kind, least in (("mp4", 4), ("mkv", 3.97)):
            samples = judges.decode_sound(self.path(f"a.{kind}"))
            self.assertGreaterEqual(len(samples) / 48000, least, kind)
            self.assertLess(len(samples) / 48000, 4.03, kind)
            self.assertTrue(sound_test.hears(samples[48000:96000], 440), kind)

    def test_index_is_in_front(self):
        names = boxes(self.path("a.mp4"))
        self.assertLess(names.index("moov"), names.index("mdat"))
        self.assertNotIn("moof", names)
        # Catches first pieces of half a second: before their end a killed movie does not play.
        self.assertGreaterEqual(boxes(self.path("f.mp4")).count("moof"), 6)
        self.assertGreaterEqual(self.path("a.mkv").read_bytes().count(b"\x1f\x43\xb6\x75"), 10)
        self.assertEqual(judges.decoder_messages(self.path("f.mp4")), "")


class Written(ShortEndToEndTest):
    """Files of the module for movies, independent of the machine's load."""

    flashes = sound_test.FlashAndBeep.flashes
    beeps = sound_test.FlashAndBeep.beeps

    def test_sound_is_in_step(self):
        # Catches the delay of the sound's encoder in the times.
        self.run_program("ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                         "color=black:s=64x64:r=30:d=2,drawbox=color=white:t=fill:enable=gte(n\\,30)",
                         "-c:v", "libx264",
                         "-bf", "0", "-g", "999", "-x264-params", "aud=1:scenecut=0", "frames.h264")
        frames = judges.access_units(self.path("frames.h264").read_bytes())
        self.path("frames").write_bytes(b"".join(len(frame).to_bytes(4, "little") + frame for frame in frames))
        for kind in (*KINDS, "ts"):
            path = self.path(f"click.{kind}")
            with self.path("frames").open("rb") as given:
                self.run_program("movie_click", BUILD / "lib/libscreenrecord_movie.so", kind, path, stdin=given)
            copies = [self.path(f"{kind}.{copy}") for copy in KINDS]
            for copy in copies:
                self.run_program("screenrecord", "remux", path, copy)
            for name in [path, *copies]:
                (flash,), (beep,) = self.flashes(name), self.beeps(name)
                print(f"{name.name}: beep after flash {1000 * (beep - flash):.2f} ms")
                self.assertLess(abs(beep - flash), 0.0015, name)
                self.assertEqual(judges.decoder_messages(name), "")
                self.assertLess(abs(times(name)[0]), 1.5 if name.suffix == ".ts" else 0.001)


class InStep(LongEndToEndTest):
    """Picture and sound of the same moment are at the same time in the file."""

    flashes = sound_test.FlashAndBeep.flashes
    beeps = sound_test.FlashAndBeep.beeps
    SECONDS = 10

    @classmethod
    def prepare(cls):
        cls.start_display("320x240")
        cls.start_sound()
        cls.start_screen("--seconds", 300, name="flash_beep")

    def distances(self, path, begin=0, end=math.inf):
        """Milliseconds from each flash between two times to its beep."""
        beeps, flashes = self.beeps(path), [flash for flash in self.flashes(path) if begin < flash < end]
        nearest = [min(beeps, key=lambda beep, at=flash: abs(beep - at)) - flash for flash in flashes]
        return [1000 * distance for distance in nearest if abs(distance) < 0.4]

    def beep_after_flash(self, kind, path, last=None):
        """
        Milliseconds, the greatest of a recording: that of a flash right before its picture was captured. Other pictures
        show theirs up to a period late, and a busy machine draws some late.
        """
        found = self.distances(path)
        self.assertGreaterEqual(len(found), self.SECONDS - 3)
        found = found[-last:] if last else found
        print(f"{kind}: beep after flash {max(found):.1f} ms, median {statistics.median(found):.1f} ms")
        return max(found)

    def test_from_the_first_second_on(self):
        ways = {"mp4": ("a.mp4",), "mkv": ("a.mkv",), "ts": ("-", "--format", "ts")}
        late = {}
        # A busy machine flashes late, but not three times; a fault of the file is there each time.
        for _ in range(3):
            recordings = {kind: self.client("record", "-y", "-r", "60", "-t", self.SECONDS, "-o", *way)
                          for kind, way in ways.items()}
            for kind, recording in recordings.items():
                self.assertIn(recording.wait(self.SECONDS + 20), (0, 3))
                late[kind] = self.beep_after_flash(kind, recording.out.name if kind == "ts" else self.path(f"a.{kind}"))
            if max(map(abs, late.values())) < 5:
                return
        self.fail(late)

    def test_after_a_delay(self):
        # Catches pictures that are captured late and move all later ones.
        path, late = self.path("delay.mkv"), []
        for _ in range(3):
            recording = self.client("record", "-y", "-r", "60", "-t", self.SECONDS, "-o", path)
            wait_until(lambda: size_of(path) > 0, "the first piece")
            recording.process.send_signal(signal.SIGSTOP)
            pass_time(0.1)
            recording.process.send_signal(signal.SIGCONT)
            self.assertIn(recording.wait(self.SECONDS + 20), (0, 3))
            late.append(self.beep_after_flash("delay", path, self.SECONDS - 4))
            if abs(late[-1]) < 5:
                return
        self.fail(late)

    def test_with_three_pauses(self):
        # Catches pauses that stay in the file, shift the sound, or end with a frame that needs earlier ones.
        path, seconds = self.path("pauses.mp4"), 60
        recording = self.client("record", "--json", "-r", "60", "-t", seconds, "-o", path)
        wait_until(lambda: size_of(path) > 0, "the first piece")
        begins = [0]
        for _ in range(3):
            pass_time(14)
            recording.process.send_signal(signal.SIGUSR1)
            pass_time(2.5)
            status = json.loads([line for line in recording.errors().splitlines() if line.startswith("{")][-1])
            self.assertEqual(status["state"], "paused")
            begins.append(status["frames"])
            recording.process.send_signal(signal.SIGUSR2)
        self.assertIn(recording.wait(seconds + 20), (0, 3))
        frames = judges.packets(path)
        self.assertEqual([frames[begin][2] for begin in begins], [True] * 4, "a key frame behind each pause")
        self.assertAlmostEqual(frames[-1][0], seconds, delta=0.1)
        self.assertLess(max(after[0] - before[0] for before, after in zip(frames, frames[1:])), 1, "a hole")
        self.assertAlmostEqual(len(judges.decode_sound(path)) / 48000, seconds, delta=0.05)
        times_of_begins = [frames[begin][0] for begin in begins]
        for begin, end in zip(times_of_begins, [*times_of_begins[1:], seconds]):
            found = self.distances(path, begin, end)
            print(f"from {begin:.2f} s: beep after flash {max(found):.1f} ms, median {statistics.median(found):.1f} ms")
            self.assertLess(abs(max(found)), 10)
        self.assertEqual(judges.decoder_messages(path), "")


class Accidents(ShortEndToEndTest, MovieChecks):
    """The remains of a movie whose recording ended abnormally."""

    @classmethod
    def prepare(cls):
        cls.environment |= {"ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "tone"}

    def test_killed(self):
        for kind in KINDS:
            with self.subTest(kind):
                path = self.path(f"killed.{kind}")
                recording = self.client("record", "-s", "320x240", "-o", path)
                wait_until(lambda: size_of(path) > 0, "the first piece")
                # two pieces behind the first one
                for _ in range(2):
                    begun = size_of(path)
                    wait_until(lambda: size_of(path) > begun, "another piece")
                recording.kill()
                self.assertEqual(judges.decoder_messages(path), "")
                self.assertGreaterEqual(times(path)[-1], 0.15)

    def small_disk(self, name, free):
        """A folder on a disk with so many bytes free."""
        disk = self.path(name)
        disk.mkdir()
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m", "none", disk], check=False).returncode != 0:
            self.skipTest("mounting a small disk is not allowed here")
        self.addCleanup(subprocess.run, ["umount", "-l", disk], check=True)
        disk.joinpath("other").write_bytes(bytes((2 << 20) - free))
        return disk

    def test_full_disk(self):
        for kind in KINDS:
            with self.subTest(kind):
                path = self.small_disk(f"full.{kind}", 500_000) / f"full.{kind}"
                recording = self.client("record", "-s", "640x480", "-b", "2M", "-o", path)
                self.assert_exit(recording, 3)
                self.assertIn("No space left", recording.errors())
                self.assertEqual(recording.output(), f"{path}\n")
                self.assertGreater(size_of(path), 100_000)
                self.assertEqual(judges.decoder_messages(path), "")

    def test_no_room_for_the_index_in_front(self):
        disk = self.small_disk("tight", 1_200_000)
        path = disk / "tight.mp4"
        recording = self.client("record", "-s", "640x480", "-b", "2M", "-t", "3", "-o", path)
        self.assert_exit(recording, 0)
        self.assertRegex(recording.errors(),
                         r"\Ascreenrecord: [^\n]*stays in fragments[^\n]*no room for both[^\n]*\n\Z")
        self.assertIn("moof", boxes(path))
        self.assertEqual(judges.decoder_messages(path), "")
        self.assertEqual(sorted(each.name for each in disk.iterdir()), ["other", "tight.mp4"])

    def test_stopped_at_once(self):
        for kind in KINDS:
            recording = self.client("record", "-s", "320x240", "-o", f"stopped.{kind}")
            wait_until(lambda: self.path(f"stopped.{kind}").exists(), "the file")
            recording.process.terminate()
            self.assert_recorded(recording)
            self.assertEqual(judges.decoder_messages(self.path(f"stopped.{kind}")), "")


class Losses(ShortEndToEndTest, MovieChecks):
    """The source of a movie goes away."""

    @classmethod
    def prepare(cls):
        cls.environment |= {"ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "tone"}

    def assert_as_long(self, path):
        self.assertEqual(judges.decoder_messages(path), "")
        self.assertAlmostEqual(len(judges.decode_sound(path)) / 48000, times(path)[-1] - times(path)[0], delta=0.2)

    def test_lost_display(self):
        server = self.start_display("320x240")
        recordings = {kind: self.client("record", "-o", f"display.{kind}", environment={"ZU3_DISPLAY": "x11"})
                      for kind in KINDS}
        for kind in KINDS:
            wait_until(lambda path=self.path(f"display.{kind}"): size_of(path) > 10_000, kind)
        server.kill()
        for kind, recording in recordings.items():
            self.assert_exit(recording, 3)
            self.assertRegex(recording.errors(), r"\nscreenrecord: cannot record the display [^\n]*: it went away\n\Z")
            self.assert_as_long(self.path(f"display.{kind}"))
        self.assertNotIn("moof", boxes(self.path("display.mp4")))

    def test_lost_sound_server(self):
        server = self.start_sound()
        recordings = {kind: self.client("record", "-s", "320x240", "-o", f"sound.{kind}",
                                        environment={"ZU3_AUDIO": "pulse"})
                      for kind in KINDS}
        for kind in KINDS:
            wait_until(lambda path=self.path(f"sound.{kind}"): size_of(path) > 10_000, kind)
        server.kill()
        pass_time(1)
        for kind, recording in recordings.items():
            self.assert_stops(recording, 3)
            self.assertIn(f"the sound server went away for a while: sound.{kind} is silent there", recording.errors())
            self.assert_as_long(self.path(f"sound.{kind}"))


class SlowOutputs(EndToEndTest):
    """A disk and a reader that do not keep up."""

    writer = held_up_test.Disk.writer
    assert_as_long = Losses.assert_as_long

    def test_encoder_falls_behind(self):
        # Catches frames that are lost behind the encoder when the capture drops pictures, and at the end.
        for name, limit in ("late1.mkv", ["-t", "1"]), ("late2.mkv", []):
            path = self.path(name)
            recording = self.client("record", "-s", "3840x2160", "-r", "120", "--quality", "high", "-o", name, *limit,
                                    environment=TEST_CARD)
            if not limit:
                wait_until(lambda each=path: size_of(each) > 200_000, "some pictures")
                recording.process.send_signal(signal.SIGINT)
            self.assert_exit(recording, 0)
            found = times(path)
            self.assertLess(len(found), 100 * (found[-1] - found[0]), "the encoder kept up")

    def test_slow_disk_and_slow_reader(self):
        # Catches memory that grows without end, a stream that does not decode after a gap, and a hidden loss.
        self.start_display("1280x720")
        self.start_screen("--noise")
        words, on = ["record", "--json", "--quality", "0"], {"ZU3_DISPLAY": "x11"}
        reader, writer = os.pipe()
        disk = self.client(*words, "-o", "slow.mkv", environment=on)
        pipe = self.client(*words, "-o", "-", "--format", "ts", stdout=writer, environment=on)
        os.close(writer)
        wait_until(lambda: size_of(self.path("slow.mkv")) > 0, "the first piece")
        held = self.writer(disk, "disk writer")
        os.kill(held, signal.SIGSTOP)
        for recording, word in ((disk, "disk of slow.mkv"), (pipe, "reader of -")):
            wait_until(lambda each=recording, word=word: f"the {word} is too slow" in each.errors(), word, 60)
            status = pathlib.Path(f"/proc/{recording.process.pid}/status").read_text("ascii")
            self.assertLess(int(re.search(r"VmRSS:\s+(\d+)", status)[1]), 260_000)
        os.kill(held, signal.SIGCONT)
        path = self.path("slow.ts")
        with path.open("wb") as file:
            copy = self.start("cat", stdin=reader, stdout=file)
        os.close(reader)
        told, encoded = {}, {}
        for recording, output in ((disk, self.path("slow.mkv")), (pipe, path)):
            wait_until(lambda each=recording: '"disk_waiting":0.0' in each.errors().splitlines()[-1], "all that waits",
                       60)
            size = size_of(output)
            wait_until(lambda each=output, least=size + 3_000_000: size_of(each) > least, "pictures behind the gap", 60)
            self.assert_stops(recording, 3)
            told[output.name] = re.search(r"screenrecord: ([1-9]\d*) pictures are missing from [^\n]* was too slow\n",
                                          recording.errors())
            status = [json.loads(line) for line in recording.errors().splitlines() if line.startswith("{")]
            self.assertGreater(max(each["disk_waiting"] for each in status), 1)
            encoded[output.name] = status[-1]["frames"]
        self.assert_exit(copy, 0)
        for name in ("slow.mkv", "slow.ts"):
            found = times(self.path(name))
            # Catches frames that the library drops meanwhile and that are not counted.
            self.assertEqual(len(found) + int(told[name][1]), encoded[name])
            self.assertLess(len(found), 30 * (found[-1] - found[0]))
            self.assert_as_long(self.path(name))


class Finishing(UnmeasuredEndToEndTest):
    """The index of an MP4 file moves to the front."""

    release = staticmethod(held_up_test.Disk.release)

    def finisher(self, recording):
        """The process that rewrites the file; None before and after."""
        with contextlib.suppress(AssertionError):
            return held_up_test.Disk.writer(self, recording, "movie finisher")
        return None

    def next_child(self, recording):
        """The process that it starts after the one that writes its file; None at its end. Polls: it is soon over."""
        pid = recording.process.pid
        children = pathlib.Path(f"/proc/{pid}/task/{pid}/children")
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            first = None
            while recording.process.poll() is None:
                now = children.read_text("ascii").split()
                first = first or now[:1]
                if now and now[-1:] != first:
                    return int(now[-1])
        return None

    @staticmethod
    def is_stopped(process):
        with contextlib.suppress(FileNotFoundError):
            return pathlib.Path(f"/proc/{process}/stat").read_text("ascii").rpartition(")")[2].split()[0] == "T"
        return False

    def record_and_hold_it_there(self, path):
        """A recording whose file is being rewritten by a process that gives no answer, and that process."""
        self.start_display("320x240")
        self.start_screen("--noise")
        for _ in range(5):
            recording = self.client("record", "-y", "--json", "-r", "60", "-t", "1.5", "--quality", "0", "-o", path,
                                    environment={"ZU3_DISPLAY": "x11", "ZU3_AUDIO": "tone"})
            process = self.next_child(recording)
            if process:
                os.kill(process, signal.SIGSTOP)
                self.addCleanup(self.release, process)
                pass_time(0.05)
                if self.is_stopped(process) and "moof" in boxes(path):
                    return recording, process
            recording.kill()
        raise AssertionError("every file was rewritten too fast")

    def assert_stays_in_fragments(self, recording, path, reason):
        self.assertRegex(recording.errors(), rf"screenrecord: \S*a.mp4 stays in fragments[^\n]*: {reason}\n")
        self.assertEqual(recording.output(), f"{path}\n")
        self.assertIn("moof", boxes(path))
        self.assertEqual(judges.decoder_messages(path), "")
        self.assertEqual(list(self.path(".").glob(".screenrecord*")), [])

    def test_interrupted(self):
        # Catches an interrupt that is not heard or loses the file, and progress that is not shown.
        path = self.path("a.mp4")
        recording, process = self.record_and_hold_it_there(path)
        pass_time(1.5)
        recording.process.send_signal(signal.SIGINT)
        self.release(process)
        self.assertIn(recording.wait(), (0, 3), recording.errors())
        told = [json.loads(line) for line in recording.errors().splitlines() if line.startswith("{")]
        parts = [each["finished_part"] for each in told if each["state"] == "finishing"]
        self.assertTrue(parts and 0 <= parts[0] <= 1, told)
        self.assert_stays_in_fragments(recording, path, "it was interrupted")

    def test_remux_to_a_disk_that_stands_still(self):
        # Catches a call to the disk by the client itself: the kernel keeps its process then.
        self.run_program("screenrecord", "record", "-s", "320x240", "-t", "1", "-o", "old.ts",
                         environment={"ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "tone"})
        disk, thaw = self.frozen_disk()
        remux = self.client("remux", "old.ts", disk / "new.mp4")
        wait_until(lambda: self.finisher(remux), "the process that writes")
        process = self.finisher(remux)
        remux.process.terminate()
        self.assertEqual(remux.wait(held_up_test.STOP), 1)
        self.assertIn("/new.mp4 of old.ts: its disk does not respond\n", remux.errors())
        thaw()
        wait_until(lambda: not list(pathlib.Path(f"/proc/{process}/fd").glob("*")), "the end of the process")
        self.assertEqual(os.listdir(disk), ["lost+found"])

    def test_empty_file_on_a_disk_that_stands_still(self):
        # Catches the removal of the file, which the client waits for even if it is killed.
        disk, thaw = self.frozen_disk(freeze=False)
        recording = self.client("record", "-s", "64x64", "--no-audio", "--json", "-o", disk / "empty.ts",
                                environment={"ZU3_DISPLAY": "testcard"})
        wait_until(lambda: '"frames":' in recording.errors(), "the first pictures")
        subprocess.run(["fsfreeze", "--freeze", disk], check=True)
        recording.process.terminate()
        with contextlib.suppress(subprocess.TimeoutExpired):
            recording.process.wait(held_up_test.STOP)
        code = recording.process.returncode
        thaw()
        self.assertEqual(code, 1, recording.errors())
        self.assertIn("nothing reached", recording.errors())

    def test_disk_stands_still(self):
        # Catches an end that waits for the disk, and a file that changes after the client has told of it.
        path = self.path("a.mp4")
        recording, process = self.record_and_hold_it_there(path)
        recording.process.terminate()
        self.assertIn(recording.wait(held_up_test.STOP), (0, 3), recording.errors())
        self.release(process)
        wait_until(lambda: not list(pathlib.Path(f"/proc/{process}/fd").glob("*")), "the end of the process")
        self.assert_stays_in_fragments(recording, path, "its disk does not respond")


class Still(UnmeasuredEndToEndTest, MovieChecks):
    """A file of a still screen has next to nothing but its index."""

    @classmethod
    def prepare(cls):
        cls.start_display("656x608")

    def test_costs_a_dozen_bytes_a_picture(self):
        recordings = {kind: self.client("record", "-r", "20", "-t", "3", "--no-audio", "-o", f"still.{kind}")
                      for kind in KINDS}
        for kind, recording in recordings.items():
            with self.subTest(kind):
                self.assert_recorded(recording)
                path = self.path(f"still.{kind}")
                packets = judges.packets(path)
                self.assertEqual([time for time, _, key in packets if key], [0])
                self.assertLessEqual(statistics.median(size for _, size, _ in packets), 12)
                self.assertLess(size_of(path), 50 * len(packets) + 3000)
                self.assertEqual(judges.decoder_messages(path), "")


class Ways(UnmeasuredEndToEndTest, MovieChecks):
    @classmethod
    def prepare(cls):
        cls.environment |= {"ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "tone"}

    def test_name_by_date_and_time(self):
        self.path("home/Videos").mkdir()
        recording = self.client("record", "-s", "64x64", "-t", "0.5")
        self.assert_recorded(recording)
        said = recording.output().rstrip("\n")
        self.assertRegex(said, rf"\A{self.path('home/Videos')}/screenrecord-\d{{4}}(-\d\d){{5}}\.mp4\Z")
        self.assertEqual(judges.decoder_messages(said), "")

    def test_standard_output(self):
        for options, name in (((), "matroska,webm"), (("--format", "ts"), "mpegts")):
            with self.subTest(name):
                recording = self.client("record", "-s", "320x240", "-t", "1", "-o", "-", *options)
                self.assert_recorded(recording)
                form = self.run_program("ffprobe", "-v", "error", "-show_entries", "format=format_name",
                                        "-of", "csv=p=0",
                                        recording.out.name)
                self.assertEqual(form.strip().strip('"'), name)
                self.assertEqual(judges.decoder_messages(recording.out.name), "")
                self.assertEqual(set(judges.streams(recording.out.name)), {"video", "audio"})

    def test_quality_decides_the_size(self):
        sizes = []
        for quality in ("low", "medium", "high"):
            path = self.path(f"{quality}.mp4")
            words = ["record", "-s", "640x480", "-t", "1", "--no-audio", "--quality", quality, "-o", path]
            self.assert_recorded(self.client(*words))
            sizes.append(size_of(path))
        self.assertEqual(sizes, sorted(sizes))
        self.assertGreater(sizes[2], 1.3 * sizes[0])

    def test_pause(self):
        for kind, pause, resume in (("mp4", signal.SIGUSR1, signal.SIGUSR2), ("mkv", "pause\n", "resume\n")):
            with self.subTest(kind):
                path = self.path(f"paused.{kind}")
                recording = self.client("record", "-s", "320x240", "-t", "3", "-o", path, "--control", "-",
                                        stdin=subprocess.PIPE)
                self.addCleanup(recording.process.stdin.close)
                wait_until(lambda: size_of(path) > 0, "the first piece")
                for request in (pause, resume):
                    if isinstance(request, str):
                        recording.process.stdin.write(request.encode())
                        recording.process.stdin.flush()
                    else:
                        recording.process.send_signal(request)
                    pass_time(1.5 if request == pause else 0)
                self.assert_recorded(recording)
                places = [round(time * 30) for time in times(path)]
                self.assertEqual(places[0], 0)
                self.assertIn(places[-1], range(85, 90))
                self.assertLess(max(b - a for a, b in zip(places, places[1:])), 30)
                self.assertAlmostEqual(len(judges.decode_sound(path)) / 48000, 3, delta=0.03)
                self.assertEqual(judges.decoder_messages(path), "")

    def test_key(self):
        # Catches a key that is not heard, and a terminal without echo after the end, also by a signal.
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        self.addCleanup(os.close, theirs)
        os.set_blocking(ours, False)
        for name, end in (("interrupt", b"\x03"), ("quit", b"\x1c")):
            with self.subTest(name):
                path = self.path(f"{name}.mkv")
                # The shell outlives the program: the kernel resets the terminal of a session that is over.
                shell = self.start("setsid", "--ctty", "--wait", "sh", "-c", "trap : INT QUIT; ulimit -c 0; stty -g; "
                                   f"screenrecord record -s 320x240 -o {path}; stty -g", stdin=theirs, stderr=theirs,
                                   environment={"TERM": "xterm", "NO_COLOR": "1"})
                wait_until(lambda: size_of(path) > 0, "the recording")
                shown = b""

                def shows(word):
                    nonlocal shown
                    with contextlib.suppress(BlockingIOError):
                        shown += os.read(ours, 65536)
                    return word in shown[shown.rfind(b"\r\x1b[K"):]

                for word in (b"PAUSED ", b"REC "):
                    os.write(ours, b"p")
                    wait_until(lambda: shows(word), word)
                os.write(ours, end)
                shell.wait()
                before, *_, after = shell.output().splitlines()
                self.assertEqual(before, after)

    def test_ceiling_of_a_transport_stream(self):
        # Catches a rate that has no effect, and a ceiling that silently lowers it.
        self.start_display("320x240")
        self.start_screen("--noise")
        cases = [("-b 500k", 20_000, 180_000, r"\A\Z"),
                 ("-b 8M", 200_000, 1_600_000, r"\A[^\n]*lowered to 4\.5M[^\n]*\n\Z"),
                 ("--quality 51", 5_000, 130_000, r"\A\Z"),
                 ("--quality 0", 200_000, 1_600_000, r"\A[^\n]*quality of [1-9]\d* of \d+ pictures is lower[^\n]*\n\Z")]
        for words, least, most, said in cases:
            with self.subTest(words):
                running = self.client("record", "-y", "-t", "2", "--no-audio", "-o", "rate.ts", *words.split(),
                                      environment={"ZU3_DISPLAY": "x11"})
                self.assertIn(running.wait(), (0, 3))
                self.assertRegex(running.errors(), said)
                self.assertTrue(least < size_of(self.path("rate.ts")) < most, size_of(self.path("rate.ts")))

    def test_remux(self):
        self.run_program("screenrecord", "record", "-s", "320x240", "-t", "2", "-o", "old.ts")
        for kind in KINDS:
            path = self.path(f"new.{kind}")
            self.assertEqual(self.run_program("screenrecord", "remux", "old.ts", path), f"{path}\n")
            self.assertEqual(judges.decoder_messages(path) + complaints(path), "")
            self.assertEqual(len(times(path)), len(times(self.path("old.ts"))))
            self.assertAlmostEqual(times(path)[0], 0, delta=0.002)
        self.assertLess(boxes(self.path("new.mp4")).index("moov"), boxes(self.path("new.mp4")).index("mdat"))
        self.path("no.ts").write_bytes(bytes(100_000))
        old, index = self.path("old.ts").read_bytes(), self.path("new.mp4").read_bytes()
        self.path("joined.ts").write_bytes(2 * old)
        # between the key frames of the second and the third second
        self.path("part.ts").write_bytes(old[len(old) * 5 // 8:len(old) * 7 // 8])
        at = index.index(b"stts") + 8
        self.path("lies.mp4").write_bytes(index[:at] + b"\x7f\xff\xff\xff" + index[at + 4:])
        self.run_program("screenrecord", "stream", "-s", "64x64", "-t", "0.1", "-o", "raw.h264")
        self.run_program("ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=d=1", "-f", "lavfi", "-i", "sine=d=1",
                         "-c:a", "aac", "other.ts")
        before = self.path("new.mkv").read_bytes()
        cases = [(1, "no.ts", "no.ts made.mp4"), (1, "no.ts", "-y no.ts new.mkv"), (2, "made.ts", "old.ts made.ts"),
                 (2, "none.ts", "none.ts made.mp4"), (2, "new.mp4", "old.ts new.mp4"),
                 (2, "same file", "-y new.mp4 ./new.mp4"),
                 (1, "its video is mpeg2video, and only", "other.ts made.mkv"),
                 (1, "its time stamps go back", "joined.ts made.mp4"), (1, "has no key frame", "part.ts made.mp4"),
                 (1, "memory ran out", "lies.mp4 made.mkv"), (1, "no time stamps", "raw.h264 made.mp4")]
        for code, wrong, words in cases:
            with self.subTest(words):
                refused = self.client("remux", *words.split())
                self.assert_exit(refused, code)
                self.assertIn(wrong, refused.errors())
        self.assertEqual(list(self.path(".").glob("made*")), [])
        self.assertEqual(self.path("new.mkv").read_bytes(), before)

    def test_refusals(self):
        cases = [("-o a.xyz", "'a.xyz'", ".mp4, .mkv or .ts"), ("-o a.mp4 --rate 2", "--rate", ".ts file"),
                 ("-o a.ts -b 2M --rate 2", "--rate", "--bitrate"),
                 ("-o a.ts --fragmented", "--fragmented", ".mp4"),
                 ("-o a.mkv --format ts", "--format", "'-o -'"),
                 ("-o a.mp4 -b 2M --quality low", "--quality", "--bitrate"),
                 ("-o a.mp4 --quality 52", "'52'", "low, medium"), ("-o a.mp4 --source x -s 64x64", "--source", ".ts")]
        for words, wrong, right in cases:
            with self.subTest(words):
                refused = self.client("record", *words.split())
                self.assert_exit(refused, 2)
                self.assertRegex(refused.errors(), r"\Ascreenrecord: [^\n]+\n\Z")
                self.assertIn(wrong, refused.errors())
                self.assertIn(right, refused.errors())
        self.assertEqual(list(self.path(".").glob("a*")), [])
