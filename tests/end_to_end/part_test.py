"""A part of the screen: a region, a monitor, a window; and recordings without the pointer."""

import re

import judges
from harness import ShortEndToEndTest, wait_until
from judges import BLACK, RED, WHITE
from stream_test import LiveStream

BLUE = (0, 0, 255)


class PartTest:
    """Looks at windows and at pictures."""

    @classmethod
    def window(cls, name):
        """The number of a window that is shown, None until it is."""
        said = cls.start("xwininfo", "-name", name)
        found = re.search(r"Window id: (\S+)", said.output()) if said.wait() == 0 else None
        return found[1] if found and "IsViewable" in said.output() else None

    @classmethod
    def show_window(cls, colour, geometry):
        """A window of one colour; its number and its program."""
        colour = "#{:02x}{:02x}{:02x}".format(*colour)
        program = cls.start("xlogo", "-title", geometry, "-geometry", geometry, "-bg", colour, "-fg", colour)
        wait_until(lambda: cls.window(geometry), "a window")
        return cls.window(geometry), program

    def assert_shows(self, name, size, places, index=0, tolerance=40):
        video = judges.streams(self.path(name))["video"]
        self.assertEqual((video["width"], video["height"]), size, name)
        pixels = judges.decode(self.path(name), index)
        for place, colour in places.items():
            shown = judges.pixel(pixels, size[0], *place)
            self.assertLess(max(abs(a - b) for a, b in zip(shown, colour)), tolerance, (name, place, shown))


class Regions(ShortEndToEndTest, PartTest):
    @classmethod
    def prepare(cls):
        # The pointer is the server's own black X.
        cls.start_display("640x480", "-retro")
        cls.run_program("xsetroot", "-solid", "#0000ff")
        cls.run_program("xrandr", "--setmonitor", "*left", "320/85x480/127+0+0", "none")
        cls.run_program("xrandr", "--setmonitor", "right", "320/85x480/127+320+0", "none")
        cls.show_window(RED, "160x120+40+40")
        cls.show_window(WHITE, "160x120+400+300")

    def test_is_what_is_recorded(self):
        # Catches another part than was asked for, a wrong size, and a pointer that is off its place or in spite of
        # the option in the picture.
        self.run_program("xdotool", "mousemove", 100, 100)
        inside = {(5, 5): BLUE, (15, 15): RED, (165, 95): RED, (175, 50): BLUE}
        without, pointer = {(70, 70): RED}, {(70, 70): BLACK}
        for command, size, places, said in (
                ("shot --region 200x100+30+30", (200, 100), inside | without, ""),
                ("shot --pointer --region 200x100+30+30", (200, 100), inside | pointer, ""),
                ("record -t 0.5 --region 201x101+30+30", (200, 100), inside | pointer,
                 "its last column and its last row"),
                ("stream -t 0.5 --no-pointer --region 200x100+30+30", (200, 100), inside | without, ""),
                ("record -t 0.5 --region 300x200+500+380", (140, 100), {(30, 20): WHITE, (100, 80): BLUE},
                 "only 140x100+500+380 of it"),
                ("shot --monitor right", (320, 480), {(90, 310): WHITE, (10, 10): BLUE}, ""),
                ("stream -t 0.5 --monitor primary", (320, 480), {(50, 50): RED, (300, 460): BLUE}, ""),
                ("record -t 0.5 --monitor right --region 100x200+60+290", (100, 190), {(30, 20): WHITE, (10, 30): BLUE},
                 "only 100x190+380+290 of it"),
        ):
            with self.subTest(command):
                name = "a" + {"shot": ".png", "record": ".ts", "stream": ".h264"}[command.split()[0]]
                running = self.client(*command.split(), "-y", "-o", name)
                self.assert_exit(running, 0)
                self.assertIn(said, running.errors())
                # Where the pointer's arms meet, half of the colour is its ground's.
                self.assert_shows(name, size, places, tolerance=90)

    def test_environment_names_it_too(self):
        # Catches a setting that only the client reads, and one that wins over an option.
        environment = {"ZU3_MONITOR": "right"}
        for options, places in ((), {(90, 310): WHITE}), (("--region", "320x480+20+0"), {(30, 50): RED}):
            self.run_program("screenrecord", "shot", "-y", "-o", "e.png", *options, environment=environment)
            self.assert_shows("e.png", (320, 480), places)
        for value, accepted in ("64x64+0+0", True), ("64x64", False), ("64x64+640+0", False):
            stills = self.start("still_captures", 4, environment={"ZU3_REGION": value})
            stills.wait()
            self.assertEqual(" 0 failed" in stills.output(), accepted)
            self.assertEqual(bool(re.search("64x64.*(is not a region|lies outside)", stills.errors())), not accepted)

    def test_refusals(self):
        # Catches a part that is not there and is passed over.
        root = re.search(r"Window id: (\S+)", self.run_program("xwininfo", "-root"))[1]
        for arguments, code, said in (
                ("shot -o r.png --region 64x64+640+0", 1, "640x480"),
                ("shot -o r.png --monitor middle", 1, "the display has left, right"),
                ("record -o r.ts --window 0x1fffff", 1, "no window of that number"),
                (f"record -o r.ts --window {root}", 1, "it is the root window"),
                ("record -o r.ts --window active", 1, "no window has the focus"),
                ("stream -o r.h264 --region 64x64", 2, "such as 640x360+100+50"),
                ("stream -o r.h264 --window main", 2, "such as 0x1c00003"),
                ("stream -o r.h264 --window active --monitor left", 2, "cannot be combined"),
                ("shot -o r.png --monitor left --region 64x64+320+0", 1, "320x480"),
                ("record -o r.ts -s 64x64 --source a.nv12 --no-pointer", 2, "replaces the screen"),
        ):
            with self.subTest(arguments):
                refused = self.client(*arguments.split())
                self.assert_exit(refused, code)
                self.assertIn(said, refused.errors())
        self.assertEqual(list(self.path(".").glob("r.*")), [])

    def test_devices_names_monitors(self):
        devices = self.client("devices")
        self.assert_exit(devices, 0)
        for line in ("left  320x480+0+0  (primary)", "right  320x480+320+0\n"):
            self.assertIn("monitor  " + line, devices.output())
        self.assertIn("--monitor NAME", devices.errors())


class Windows(ShortEndToEndTest, PartTest):
    @classmethod
    def prepare(cls):
        cls.start_display("640x360")

    def test_is_followed(self):
        # Catches a window that is left behind as it moves, what covers it in the picture, a picture that stands still
        # under a cover, and a window of another size in the middle of the recording that is cut.
        self.start_screen("--fps", "60")
        moving = re.findall(r"(0x\w+) \(has no name\)", self.run_program("xwininfo", "-root", "-children"))[-1]
        stream = LiveStream(self, "-r", "30", "-b", "8M", "--window", moving)
        looks = []
        for change in ((), ("windowmove", moving, 200, 100), ("windowmove", moving, -150, 50)):
            if change:
                self.run_program("xdotool", *change)
            stream.wait_for(len(stream.arrivals) + 12)
            looks.append(len(stream.arrivals))
        self.show_window(BLUE, "400x300+100+20")
        stream.wait_for(len(stream.arrivals) + 20)
        looks.append(len(stream.arrivals) - 1)
        stream.end(self.path("w.h264"))
        numbers = judges.picture_numbers(self.path("w.h264"))
        for index in (0, *(look - 1 for look in looks)):
            self.assertEqual(judges.colour_faults(self.path("w.h264"), index, tolerance=12), {}, index)
        self.assertEqual(numbers, sorted(numbers))
        self.assertGreater(len(set(numbers[looks[2]:])), 10, "the picture stands still")

    def test_is_closed(self):
        # Catches a recording that goes on without its window, and a file that is no recording.
        _, program = self.show_window(RED, "201x150+30+30")
        window = self.window("201x150+30+30")
        self.run_program("xdotool", "windowfocus", window)
        for command, chosen in ("record -o c.ts", window), ("stream -o c.h264", "active"):
            recording = self.client(*command.split(), "--window", chosen, "-t", "30")
            name = command.split()[-1]
            wait_until(lambda: self.path(name).exists() and self.path(name).stat().st_size > 0, "a first picture")
            if chosen == "active":
                program.process.kill()
                self.assert_exit(recording, 3)
                self.assertRegex(recording.errors(), f"the window {window} of .* it went away")
            else:
                self.run_program("xdotool", "windowsize", window, 100, 150)
                self.assert_stops(recording)
                self.run_program("xdotool", "windowsize", window, 201, 150)
            self.assert_shows(name, (200, 150), {(5, 5): RED, (195, 145): RED})
