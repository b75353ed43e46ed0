"""The captured display: its content, pointer and size, and a server that is missing, hangs or dies."""

import json
import signal

import judges
from harness import SOON, ShortEndToEndTest, pass_time, size_of, wait_until
from judges import BLACK, RED, WHITE
from stream_test import LiveStream


class Screen(ShortEndToEndTest):
    @classmethod
    def prepare(cls):
        # Its pointer is the server's own black X: the image of one whose maker is gone is refused to some.
        cls.start_display("320x256", "-retro")

    def fill(self, colour):
        self.run_program("xsetroot", "-solid", "#{:02x}{:02x}{:02x}".format(*colour))

    def move_pointer(self, x, y):
        """The pointer's arms meet there."""
        self.run_program("xdotool", "mousemove", x, y)

    def resize(self, size):
        self.run_program("xrandr", "--fb", size, "--output", "screen", "--off")

    def assert_near(self, pixels, places, what):
        for (x, y), colour in places.items():
            shown = judges.pixel(pixels, 320, x, y)
            self.assertLess(max(abs(a - b) for a, b in zip(shown, colour)), 50, (what, (x, y), shown))

    def test_recording_follows_screen_and_pointer(self):
        # Catches a pointer that is missing or off its place, what is drawn on a still screen, which is not fetched
        # again, and a screen whose change of size is lost.
        stream = LiveStream(self, "-r", "30", "-b", "8M")
        looks = {}

        def look(what, places):
            # So many pictures later those are through that were on their way.
            at = len(stream.arrivals) + 12
            stream.wait_for(at + 1)
            looks[at] = (what, places)

        self.move_pointer(300, 200)
        for colour in (BLACK, WHITE, RED, WHITE):
            self.fill(colour)
            look("drawn on a still screen", {(2, 2): colour, (160, 128): colour})
        for x, other in ((100, 200), (200, 100)):
            self.move_pointer(x, 100)
            look("the pointer", {(x, 100): BLACK, (x - 4, 96): BLACK, (x + 5, 105): BLACK, (x, 93): WHITE,
                                 (x - 7, 100): WHITE, (x - 10, 90): WHITE, (x + 11, 111): WHITE, (other, 100): WHITE})
        self.resize("120x256")
        self.fill(RED)
        look("a smaller screen", {(90, 128): BLACK, (104, 128): RED, (216, 128): RED, (230, 128): BLACK})
        self.resize("320x256")
        self.fill(WHITE)
        look("the first size again", {(2, 2): WHITE, (317, 253): WHITE})
        stream.end(self.path("a.h264"))
        pixels = judges.decode(self.path("a.h264"))
        for at, (what, places) in looks.items():
            self.assert_near(pixels[at * 320 * 256 * 3:], places, what)

    def test_stills_have_the_pointer_when_asked(self):
        # Catches stills with another pointer or shape than was asked for; their formats are looked at elsewhere.
        self.fill(RED)
        self.move_pointer(100, 100)
        for options, places in ((), {(100, 100): RED, (319, 255): RED}), (
                ("--pointer",), {(100, 100): BLACK, (95, 95): BLACK, (106, 106): BLACK, (110, 110): RED}), (
                ("-s", "320x128"), {(0, 64): BLACK, (70, 64): BLACK, (160, 64): RED}):
            self.run_program("screenrecord", "shot", "-y", "-o", "a.png", *options)
            self.assert_near(judges.decode(self.path("a.png"), 0), places, options)

    def test_is_not_there(self):
        # Catches a capture of the wrong source, and a refusal without a remedy.
        for choice, name, said in (("", "", "not set"), ("x11", ":987", 'DISPLAY=":987"'),
                                   ("television", ":987", 'ZU3_DISPLAY="television"')):
            stills = self.start("still_captures", 10, environment={"ZU3_DISPLAY": choice, "DISPLAY": name})
            self.assert_exit(stills, 1)
            self.assertIn(said, stills.errors())


class Depths(ShortEndToEndTest):
    def test_ten_bits_a_colour(self):
        # Catches a screen of HDR's depth that is refused, or whose colours or pointer are torn apart.
        self.start_display("321x257x30", "-retro")
        self.run_program("xsetroot", "-solid", "#ff8020")
        self.run_program("xdotool", "mousemove", 100, 100)
        for command, name in (("shot --pointer", "a.png"), ("record -t 1", "a.ts"), ("stream -b 8M -t 1", "a.h264")):
            self.run_program("screenrecord", *command.split(), "-o", name)
            pixels, width = judges.decode(self.path(name), 0), judges.streams(self.path(name))["video"]["width"]
            for place, colour in {(100, 100): BLACK, (20, 20): (255, 128, 32), (319, 255): (255, 128, 32)}.items():
                shown = judges.pixel(pixels, width, *place)
                # A video has half as many pixels of colour, so the pointer's thin arms take some from their ground.
                allowed = 12 if colour == BLACK and name != "a.png" else 3
                self.assertLessEqual(max(abs(a - b) for a, b in zip(shown, colour)), allowed, (name, place, shown))

    def test_others_are_refused(self):
        # Catches a display that is called well, or whose size or rate is blamed.
        for depth in (8, 15, 16):
            self.start_display(f"320x256x{depth}")
            for command in ("doctor", "record -o a.ts", "stream -o a.h264", "shot -o a.png"):
                refused = self.client(*command.split())
                self.assert_exit(refused, 1)
                said = refused.output() if command == "doctor" else refused.errors()
                self.assertRegex(said, rf"cannot capture the display .* at depth {depth}; run it at depth 24 or 30",
                                 command)
            self.assertIn(f"at depth {depth}", self.run_program("screenrecord", "devices"))
        self.assertEqual(list(self.path(".").glob("a.*")), [])


class DisplayFails(ShortEndToEndTest):
    def setUp(self):
        self.server = self.start_display("640x360")
        self.start_screen("--noise")
        self.stills = self.start("still_captures", 20000, environment={"ANDROID_LOG_TAGS": "*:S"})
        self.file = self.path(self.id() + ".ts")
        self.recording = self.client("record", "-o", self.file, "--status-file", "status")
        wait_until(lambda: size_of(self.file) > 0, "the first batch")

    def test_dies(self):
        # Catches an exit, a signal, a spin or a hang, and a word of it that is missing or said for each picture.
        self.server.kill()
        self.assert_exit(self.recording, 3, SOON)
        self.assertRegex(self.recording.errors(), r"DISPLAY\S+ went away")
        self.assertEqual(self.recording.errors().count('" went away'), 1, self.recording.errors())
        self.assertEqual(judges.faults(self.file), "")
        self.assert_exit(self.stills, 1)

    def status(self):
        return json.loads(self.path("status").read_text("ascii"))

    def test_hangs(self):
        # Catches one that hangs taken for one that is gone, a recording that does not say so or does not go on
        # afterwards, and a stop that waits for an answer.
        self.server.process.send_signal(signal.SIGSTOP)
        wait_until(lambda: self.status()["display_answers"] is False, "word of it")
        before = self.status()["frames"]
        self.server.process.send_signal(signal.SIGCONT)
        wait_until(lambda: self.status()["display_answers"] and self.status()["frames"] > before, "further pictures")
        self.server.process.send_signal(signal.SIGSTOP)
        pass_time(0.2)
        self.assert_stops(self.recording, seconds=SOON)
        self.assertRegex(self.recording.errors(), "does not answer(.|\n)*answers again")
        self.assertNotIn("went away", self.recording.errors())
        self.assertEqual(judges.faults(self.file), "")
