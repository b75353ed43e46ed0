"""A Wayland session, whose compositor copies its output: sway without a screen, as a user that is not root."""

import json
import pathlib
import re
import signal
import sys

import judges
from harness import BUILD, SOON, SOURCE, EndToEndTest, UnmeasuredEndToEndTest, pass_time, size_of, wait_until
from judges import BLACK, RED, WHITE
from stream_test import LiveStream

BACKGROUND = (48, 64, 80)  # of wayland_screen


def show(test, *options):
    """A window that covers the output; the program, once its first picture is there."""
    window = test.start("wayland_screen", *options)
    window.first_line()
    return window


def near(pixels, width, places, tolerance=3):
    """The places whose pixel is another colour, and that colour."""
    shown = {place: judges.pixel(pixels, width, *place) for place in places}
    return {place: shown[place] for place, colour in places.items()
            if max(abs(a - b) for a, b in zip(shown[place], colour)) > tolerance}


# Prints how late each picture was handed out, and its due time; microseconds.
LATENESS = """
import ctypes, sys, time
library, host = (ctypes.CDLL(name) for name in sys.argv[1:])
class Frame(ctypes.Structure):
    _fields_ = [("zero", ctypes.c_uint8), ("key", ctypes.c_uint8), ("pts", ctypes.c_uint64), ("size", ctypes.c_uint64)]
host.zu3_host_due_time.argtypes, host.zu3_host_due_time.restype = [ctypes.c_uint64], ctypes.c_uint64
parameters = (ctypes.c_uint32 * 7)(320, 256, 30, 1000000, 2, 0x1000, 0)
frame, data = Frame(), ctypes.create_string_buffer(library.video_capenc_getMaxEsSize())
assert library.video_capenc_open(parameters) == 0 and library.video_capenc_start(0) == 0
frames = 0
while frames < 30:
    if library.video_capenc_getES(data, len(data), ctypes.byref(frame)) == 0 and frame.size and not frame.key:
        due = host.zu3_host_due_time(frame.pts)
        print(frame.pts - due, due)
        frames += 1
    time.sleep(0.001)
assert library.video_capenc_stop() == 0 and library.video_capenc_close() == 0
"""


def assert_handed_out_early(test, libraries=BUILD / "lib", python=sys.executable):
    """The screen moves, in no fixed phase."""
    # Catches a picture that waits although no newer one can come, one that does not wait, and a moved time stamp.
    said = test.run_program(python, "-c", LATENESS, libraries / "libscreenrecord.so", libraries / "libzu3.so")
    pictures = [tuple(int(word) for word in line.split()) for line in said.splitlines()]
    lateness = sorted(late for late, _ in pictures)
    test.assertLess(lateness[1], 0, lateness)
    test.assertGreater(lateness[0], -1_000_000 / 60, lateness)
    for _, due in pictures:
        intervals = (due - pictures[0][1]) * 30 / 1_000_000
        test.assertAlmostEqual(intervals, round(intervals), delta=0.001)


class Recording(EndToEndTest):
    def test_hands_out_pictures_before_they_are_due(self):
        self.start_session()
        show(self, "--fps", "23")  # in no fixed phase
        assert_handed_out_early(self)

    def test_has_all_pictures(self):
        # Catches pictures that are missing, doubled or shown again, out of order, or in wrong colours.
        self.start_session()
        show(self, "--fps", "60")
        self.run_program("screenrecord", "record", "-r", "30", "-t", "10", "-o", "a.mp4")
        path = self.path("a.mp4")
        self.assertAlmostEqual(len(judges.packets(path)), 300, delta=2)
        self.assertEqual(judges.decoder_messages(path), "")
        for index in (1, 150, 290):
            self.assertEqual(judges.colour_faults(path, index), {})
        numbers = judges.picture_numbers(path)
        self.assertEqual(numbers, sorted(numbers))
        self.assertGreater(len(set(numbers)), 280, numbers)
        self.assertTrue(570 <= numbers[-1] - numbers[0] <= 620, numbers)


class Session(UnmeasuredEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.start_session()

    def message(self, *words):
        self.run_program("swaymsg", *words)

    def shot(self, name):
        """A still's pixels and size, all of it."""
        self.run_program("screenrecord", "shot", "-y", "-o", name)
        video = judges.streams(self.path(name))["video"]
        return judges.decode(self.path(name), 0), (video["width"], video["height"])

    def test_shows_the_output(self):
        # Catches colours of another order, a picture that is old or not the newest, and a wrong way up.
        window = show(self, "--fps", "60")
        for command, name in (("record -t 1", "a.mkv"), ("record -t 1", "a.ts"), ("stream -t 1", "a.h264"),
                              ("shot", "a.png")):
            self.run_program("screenrecord", *command.split(), "-y", "-o", name)
            path = self.path(name)
            self.assertEqual(judges.colour_faults(path, 0), {}, name)
            numbers = judges.picture_numbers(path)
            self.assertEqual(numbers, sorted(numbers), name)
            self.assertTrue(name == "a.png" or numbers[-1] > numbers[0], (name, numbers))
        window.close()

    def test_has_regions_alone(self):
        # Catches another part than was asked for, and one that is not there and is passed over.
        window = show(self, "--static")
        self.run_program("screenrecord", "shot", "-o", "r.png", "--region", "200x150+56+60")
        places = {(9, 5): RED, (6, 5): BACKGROUND, (135, 131): RED, (136, 131): BACKGROUND}
        self.assertEqual(near(judges.decode(self.path("r.png"), 0), 200, places, 0), {})
        window.close()

    def test_output_is_turned_and_scaled(self):
        # Catches pictures that are rotated, upside down, mirrored, or in logical pixels.
        for transform, size in (("90", (608, 656)), ("180", (656, 608)), ("flipped-270", (608, 656))):
            self.message("output", "HEADLESS-1", "transform", transform)
            window = show(self, "--static")
            pixels, shown_size = self.shot("turned.png")
            window.close()
            self.assertEqual(shown_size, size, transform)
            places = {(70, 70): RED, (185, 185): RED, (270, 70): WHITE, (450, 180): BLACK, (10, 10): BACKGROUND,
                      (600, 10): BACKGROUND}
            self.assertEqual(near(pixels, size[0], places, 0), {}, transform)
            angle = transform.split("-")[-1]
            self.assertIn(f"turned {angle} degrees clockwise", self.run_program("screenrecord", "devices"))
        self.message("output", "HEADLESS-1", "transform", "normal")
        for scale, real_pixels in (("2", 2), ("1.5", 1)):
            self.message("output", "HEADLESS-1", "scale", scale)
            window = show(self, "--static", "--scale", real_pixels)
            pixels, shown_size = self.shot("scaled.png")
            window.close()
            self.assertEqual(shown_size, (656, 608), scale)
            if scale == "2":  # each pixel of the window is a real one
                self.assertEqual(near(pixels, 656, {(64, 64): RED, (63, 64): BACKGROUND, (191, 191): RED,
                                                    (192, 191): BACKGROUND, (256, 64): WHITE}, 0), {}, scale)
            self.assertIn(f"656x608  scale {scale}", self.run_program("screenrecord", "devices"))
        self.message("output", "HEADLESS-1", "scale", "1")

    def test_follows_what_changes(self):
        # Catches a still output that changes and is not copied again, and a lost change of its size.
        window = show(self, "--static")
        stream = LiveStream(self, "-r", "30", "-b", "8M")
        stream.wait_for(30)
        looks = {}

        def look(what, places):
            at = len(stream.arrivals) + 12
            stream.wait_for(at + 1)
            looks[at] = (what, places)

        look("a still window", {(128, 128): RED, (320, 128): WHITE})
        window.close()
        look("without the window", {(128, 128): (63, 63, 63), (320, 128): (63, 63, 63)})
        window = show(self, "--fps", "30")
        look("a moving window", {(128, 128): RED, (320, 128): WHITE})
        self.message("output", "HEADLESS-1", "resolution", "328x304")
        wait_until(lambda: "328x304" in self.run_program("screenrecord", "devices"), "the other size")
        look("half the size", {(140, 140): RED, (376, 376): RED, (100, 100): BACKGROUND, (524, 140): WHITE})
        self.message("output", "HEADLESS-1", "resolution", "656x608")
        wait_until(lambda: "656x608" in self.run_program("screenrecord", "devices"), "the first size")
        look("the first size again", {(70, 70): RED, (180, 180): RED, (320, 128): WHITE})
        stream.end(self.path("a.h264"))
        window.close()
        pixels = judges.decode(self.path("a.h264"))
        for at, (what, places) in looks.items():
            self.assertEqual(near(pixels[at * 656 * 608 * 3:], 656, places, 8), {}, what)

    def test_says_what_is_used(self):
        # Catches a source that is chosen against the setting, and a lack without the way out.
        for environment, said in (
                ({}, "ok .* Wayland session .*\n.*compositor answers(.|\n)*output HEADLESS-1 is captured"),
                ({"ZU3_DISPLAY": "testcard"}, "ok .*test card"),
                ({"WAYLAND_DISPLAY": "none", "DISPLAY": ":4242"}, "ok .*No compositor answers(.|\n)*missing .*:4242"),
                ({"WAYLAND_DISPLAY": "none"}, "missing No Wayland compositor answers .*none"),
                ({"ZU3_DISPLAY": "wayland", "WAYLAND_DISPLAY": ""}, "missing WAYLAND_DISPLAY is not set.*terminal")):
            doctor = self.client("doctor", environment=environment)
            self.assert_exit(doctor, 1 if "missing" in said else 0)
            self.assertRegex(doctor.output(), said)
        self.assertRegex(self.run_program("screenrecord", "devices"),
                         r"output   HEADLESS-1  656x608  scale 1  \d+\.\d\d Hz .*\(recorded\)")

    def test_is_not_there(self):
        # Catches a recording of another screen, a refusal without a sentence, and a file that is left.
        for options, environment, said in (
                ((), {"WAYLAND_DISPLAY": "none"}, "no Wayland compositor answers"),
                (("--display", "wayland"), {"XDG_RUNTIME_DIR": ""}, "XDG_RUNTIME_DIR is not set"),
                (("--display", "x11"), {"DISPLAY": ""}, "DISPLAY is not set"),
                (("--display", ":4242"), {}, "cannot reach the display ':4242'"),
                (("--display", "portal"), {}, "cannot capture the screen: ")):
            for command, name in (("record", "no.mp4"), ("shot", "no.png")):
                refused = self.client(command, "-o", name, *options, environment=environment)
                self.assert_exit(refused, 1)
                self.assertIn(said, refused.errors())
                self.assertFalse(self.path(name).exists())

    def test_x11_loads_nothing_of_it(self):
        # Catches a library of Wayland in a recording that does not need it.
        self.start_display("320x256")
        recording = self.client("record", "-o", "x11.ts", environment={"WAYLAND_DISPLAY": ""})
        wait_until(lambda: size_of(self.path("x11.ts")) > 0, "the first batch")
        maps = pathlib.Path(f"/proc/{recording.process.pid}/maps").read_text(encoding="utf-8")
        self.assert_stops(recording)
        self.assertNotRegex(maps, "wayland|zu3_portal|pipewire")


class Monitors(UnmeasuredEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.start_session(outputs=2)
        cls.run_program("swaymsg", "output HEADLESS-2 transform 90; focus output HEADLESS-2")
        show(cls, "--static")

    def test_is_what_is_recorded(self):
        # Catches another output than was asked for, one on its side, and a region of another place or output.
        turned = {(70, 70): RED, (185, 185): RED, (270, 70): WHITE, (450, 180): BLACK, (600, 10): BACKGROUND}
        part = {(9, 5): RED, (6, 5): BACKGROUND, (135, 131): RED, (136, 131): BACKGROUND}
        empty = {(128, 128): (63, 63, 63)}
        for command, environment, size, places in (
                ("shot --monitor HEADLESS-1", {}, (656, 608), empty),
                ("shot --monitor HEADLESS-2", {}, (608, 656), turned),
                ("shot", {"ZU3_MONITOR": "HEADLESS-2"}, (608, 656), turned),
                ("shot --monitor HEADLESS-2 --region 200x150+56+60", {}, (200, 150), part),
                ("record -t 0.5 --monitor HEADLESS-2 -b 8M", {}, (608, 656), turned),
                ("stream -t 0.5 --region 200x150+56+60", {"ZU3_MONITOR": "HEADLESS-2"}, (200, 150), empty)):
            with self.subTest(command):
                name = "a" + {"shot": ".png", "record": ".mkv", "stream": ".h264"}[command.split()[0]]
                ran = self.client(*command.split(), "-y", "-o", name, environment=environment)
                self.assert_exit(ran, 0)
                # Without a name the first one is recorded, and a message says so.
                self.assertEqual("of which the first" in ran.errors(), "stream" in command)
                video = judges.streams(self.path(name))["video"]
                self.assertEqual((video["width"], video["height"]), size)
                self.assertEqual(near(judges.decode(self.path(name), 0), size[0], places, 8), {})

    def test_is_not_there(self):
        # Catches an output that is passed over for another one, and a list that marks the wrong one.
        for options, said in ((("--monitor", "DP-9"),
                               "no monitor DP-9; the Wayland session has HEADLESS-1, HEADLESS-2"),
                              (("--monitor", "primary"), "no primary monitor"),
                              (("--monitor", "HEADLESS-2", "--display", "portal"), "dialog chooses the screen"),
                              (("--monitor", "HEADLESS-2", "--region", "64x64+608+0"),
                               "cannot capture the region 64x64+608+0 of the Wayland output HEADLESS-2: it lies "
                               "outside of the screen, which has 608x656 pixels"),
                              (("--window", "active"), "on X11 only")):
            refused = self.client("shot", "-o", "no.png", *options)
            self.assert_exit(refused, 1)
            self.assertIn(said, refused.errors())
            self.assertEqual(refused.errors().count("\n"), 1, refused.errors())
            self.assertFalse(self.path("no.png").exists())
        for monitor, recorded in ("", "HEADLESS-1"), ("HEADLESS-2", "HEADLESS-2"), ("DP-9", None):
            devices = self.client("devices", environment={"ZU3_MONITOR": monitor})
            devices.wait()
            self.assertIn("--monitor NAME", devices.errors())
            marked = [line.split()[1] for line in devices.output().splitlines() if re.match("output .*recorded", line)]
            self.assertEqual(marked, [recorded] if recorded else [])
            doctor = self.client("doctor", environment={"ZU3_MONITOR": monitor})
            self.assert_exit(doctor, 0 if recorded else 1)
            self.assertIn(recorded or "There is no monitor DP-9", doctor.output())


class Pointer(UnmeasuredEndToEndTest):
    def test_is_asked_for(self):
        # Catches a pointer that is missing from recordings, and one that is in pictures that are to have none. A sway
        # without a screen draws its pointer into every picture; one within its window has another draw it.
        outer = self.start_session()
        folder = pathlib.Path(self.environment["XDG_RUNTIME_DIR"])
        self.run_program("swaymsg", "seat * hide_cursor 0")
        (folder / "inner").write_text("xwayland disable\ndefault_border none\noutput WL-1 resolution 656x608\n",
                                      "ascii")
        self.start("sway", "-c", folder / "inner", user=65534, group=65534, extra_groups=[], environment={
            "WLR_BACKENDS": "wayland", "WLR_RENDERER": "pixman", "HOME": str(folder), "SWAYSOCK": ""})
        wait_until(lambda: (folder / "wayland-2").exists(), "the inner session")
        self.start("python3", SOURCE / "tools/virtual_pointer.py", 200, 150, 656, 608).first_line()
        inner = {"WAYLAND_DISPLAY": "wayland-2"}
        wait_until(lambda: "WL-1" in self.run_program("screenrecord", "devices", environment=inner), "its output")
        self.run_program("swaymsg", "seat - cursor set 100 100, seat - cursor set 200 150")
        # Once it was in a picture, this sway leaves it there.
        for command, there in (("shot", False), ("record -t 0.5 --no-pointer", False), ("stream -t 0.5", True),
                               ("shot --pointer", True)):
            name = "a" + {"shot": ".png", "record": ".mkv", "stream": ".h264"}[command.split()[0]]
            self.run_program("screenrecord", *command.split(), "-y", "-o", name, environment=inner)
            pixels = judges.decode(self.path(name), 0)
            seen = {(x, y) for x in range(656) for y in range(608) if judges.pixel(pixels, 656, x, y)[0] > 180}
            self.assertEqual(bool(seen), there, command)
            self.assertTrue(all(195 <= x < 225 and 145 <= y < 180 for x, y in seen), seen)
        outer.kill()


class SessionFails(UnmeasuredEndToEndTest):
    def record(self, **options):
        self.session = self.start_session(**options)
        show(self, "--fps", "30")
        self.start_recording()

    def start_recording(self, *options):
        self.file = self.path(self.id() + ".ts")
        self.recording = self.client("record", "-o", self.file, "--status-file", "status", *options)
        wait_until(lambda: size_of(self.file) > 0, "the first batch")

    def assert_lost(self, said, output):
        self.assert_exit(self.recording, 3)
        self.assertEqual(self.recording.errors().count(said), 1, self.recording.errors())
        self.assertIn(f"cannot record the Wayland output {output} any more: it went away", self.recording.errors())
        self.assertEqual(judges.faults(self.file), "")

    def status(self):
        return json.loads(self.path("status").read_text("ascii"))

    def test_dies(self):
        # Catches an exit, a spin or a hang, an incomplete file, and the first of two outputs that is not named.
        self.record(outputs=2)
        self.assertIn("2 outputs, of which the first is captured: HEADLESS-1", self.recording.errors())
        self.session.kill()
        self.assert_lost("The Wayland compositor went away", "HEADLESS-1")

    def test_output_is_removed(self):
        # Catches an output whose end counts as a still picture, or that is followed by another one. This sway cannot
        # remove one.
        self.start("python3", SOURCE / "tools/fake_compositor.py", self.folder, "output-removed").first_line()
        self.environment["WAYLAND_DISPLAY"] = str(self.path("output-removed"))
        self.start_recording("--monitor", "FAKE-2")
        self.assert_lost("The Wayland output FAKE-2 was removed", "FAKE-2")

    def test_hangs(self):
        # Catches a hung compositor mistaken for a still or removed output, and a stop that waits for it.
        self.record()
        shots = self.client("shot", "-n", "999", "--interval", "50", "-o", "shots.png")
        wait_until(lambda: self.path("shots-002.png").exists(), "two pictures")
        self.session.process.send_signal(signal.SIGSTOP)
        wait_until(lambda: self.status()["display_answers"] is False, "word of it")
        wait_until(lambda: "does not answer" in shots.errors(), "word of it")
        self.assert_stops(shots, 3, seconds=2 * SOON)
        self.assertIn("stopped while waiting for it", shots.errors())
        before = self.status()["frames"]
        self.session.process.send_signal(signal.SIGCONT)
        wait_until(lambda: self.status()["display_answers"] and self.status()["frames"] > before, "further pictures")
        self.session.process.send_signal(signal.SIGSTOP)
        pass_time(0.2)
        self.assert_stops(self.recording, seconds=SOON)
        refused = self.client("shot", "-o", "hung.png")
        self.assert_exit(refused, 1)
        self.assertIn("does not answer", refused.errors())
        self.session.process.send_signal(signal.SIGCONT)
        self.assertRegex(self.recording.errors(), "does not answer(.|\n)*answers again")
        self.assertNotIn("went away", self.recording.errors())
        self.assertEqual(judges.faults(self.file), "")
