"""Screens that the desktop portal shares: real portal, PipeWire and mutter, and a program as the user."""

import signal

import judges
from desktop import AS_USER, Desktop
from harness import BUILD, SOON, EndToEndTest, UnmeasuredEndToEndTest, size_of, wait_until
from judges import BLACK, RED, WHITE
from stream_test import LiveStream
from wayland_test import BACKGROUND, assert_handed_out_early, near

GREEN, BLUE = (0, 255, 0), (0, 0, 255)


class PortalTest:
    """All programs of the class belong to the user of its desktop."""

    @classmethod
    def start(cls, *arguments, **options):
        return super().start(*arguments, **AS_USER | options)

    def start_recording(self, name, *options):
        """A recording whose first batch is in its file."""
        recording = self.client("record", "-o", name, *options)
        wait_until(lambda: size_of(self.path(name)) > 0 or recording.process.poll() is not None, "the first batch")
        return recording

    def assert_refused(self, running, pattern, seconds=20):
        """It failed with that sentence, and left no file."""
        self.assert_exit(running, 1, seconds)
        self.assertRegex(running.errors(), pattern)
        self.assertEqual(list(self.path(".").glob("a.*")), [])


class SharedScreen(PortalTest):
    """A user's session whose screen the portal shares."""

    @classmethod
    def prepare(cls):
        cls.desktop = Desktop(cls)
        cls.desktop.start_bus()
        cls.desktop.start_pipewire()
        cls.desktop.start_compositor()
        cls.desktop.start_portal()
        cls.show_screen()

    @classmethod
    def show_screen(cls):
        cls.screen = cls.start("wayland_screen", "--fps", 20)
        cls.screen.first_line()

    def setUp(self):
        self.desktop.answer("grant")


class Portal(SharedScreen, EndToEndTest):
    def test_hands_out_pictures_before_they_are_due(self):
        assert_handed_out_early(self, self.path("built") / "lib" if AS_USER else BUILD / "lib",
                                "/usr/bin/python3")  # the user may not reach another one

    def test_ten_seconds(self):
        # Catches pictures that are lost or late, wrong colours, a stale screen, and a user who is asked twice.
        token = self.path("home/.local/state/screenrecord/portal-token")
        token.unlink(missing_ok=True)
        asked = self.desktop.said("asked")
        self.run_program("screenrecord", "record", "-t", 10, "-o", "ten.mp4", seconds=40)
        self.assertEqual(self.desktop.said("asked"), asked + 1)
        file = self.path("ten.mp4")
        self.assertTrue(298 <= len(judges.packets(file)) <= 302, len(judges.packets(file)))
        self.assertEqual(judges.colour_faults(file, 150), {})
        numbers = judges.picture_numbers(file)
        self.assertEqual(numbers, sorted(numbers))
        # Each of the screen's pictures is seen for longer than one of the recording's.
        self.assertGreater(len(set(numbers)), 185, numbers)
        self.assertTrue(190 <= numbers[-1] - numbers[0] <= 210, numbers)

        self.run_program("screenrecord", "stream", "-t", 1, "-o", "one.h264")
        self.assertEqual(judges.colour_faults(self.path("one.h264"), 10), {})
        self.assertEqual(self.desktop.said("asked"), asked + 1)
        self.assertEqual(token.stat().st_mode & 0o7777, 0o600)
        self.run_program("screenrecord", "shot", "--ask", "-o", "one.png")
        self.assertEqual(judges.colour_faults(self.path("one.png"), 0), {})
        self.assertEqual(self.desktop.said("asked"), asked + 2)
        self.assert_refused(self.client("shot", "-o", "a.png", "--region", "64x64+640+0"),
                            "the region 64x64.640.0 of the screen that the desktop portal shares: it lies outside")


class PortalUser(SharedScreen, UnmeasuredEndToEndTest):
    """The user moves the pointer, shares a window, refuses, or stops sharing."""

    def test_pointer(self):
        # Catches a pointer that is missing from a recording, off its place, leaves a trail, or is in a still that is to
        # have none.
        self.screen.close()  # a window may hide the pointer
        places = ((300, 140), (600, 320))
        # This mutter sends the pointer's image only at the start of a session, and only after a move.
        first = self.start_recording("first.ts")
        self.desktop.move_pointer(*places[0])
        self.assert_stops(first)
        recording = self.start_recording("pointer.ts")

        def pointers(file, index=0):
            picture = judges.decode(self.path(file), index)
            return [(x, y) for x, y in places if all(self.near(judges.pixel(picture, 640, x + by, y + by), GREEN)
                                                     for by in (-2, 9)) and not any(
                self.near(judges.pixel(picture, 640, x + by, y + by), GREEN) for by in (-7, 14))]

        for place in places:
            self.desktop.move_pointer(*place)
            for options, there in (("--pointer",), [place]), ((), []):
                self.run_program("screenrecord", "shot", "-y", "-o", "pointer.png", *options)
                self.assertEqual(pointers("pointer.png"), there, options)
        self.assert_stops(recording)
        self.assertEqual(pointers("pointer.ts", len(judges.packets(self.path("pointer.ts"))) - 2), [places[-1]])
        self.show_screen()

    @staticmethod
    def near(pixel, colour):
        return max(abs(a - b) for a, b in zip(pixel, colour)) < 60

    def test_window(self):
        # Catches a window with its surroundings, of a wrong size or place, and one still recorded after its close.
        self.screen.close()
        window = self.start("wayland_screen", "--window", "--fps", 20)
        window.first_line()
        self.desktop.answer("window")
        recording = self.start_recording("window.ts", "--ask", "-r", 10)
        window.close()
        self.assert_exit(recording, 3)
        video = judges.streams(self.path("window.ts"))["video"]
        self.assertEqual((video["width"], video["height"]), (400, 300))
        places = {(70, 70): RED, (185, 185): RED, (262, 128): WHITE, (10, 10): BACKGROUND, (390, 10): BACKGROUND}
        self.assertEqual(near(judges.decode(self.path("window.ts"), 0), 400, places, 8), {})
        self.show_screen()

    def test_sharing_is_stopped(self):
        # Catches a recording that goes on without pictures, or that is lost with them.
        recording = self.start_recording("stopped.ts")
        self.desktop.stop_sharing()
        self.assert_exit(recording, 3)
        self.assertRegex(recording.errors(), "ended the sharing")
        self.assertEqual(judges.faults(self.path("stopped.ts")), "")

    def test_compositor_dies(self):
        # Catches a dead compositor that looks like a still screen.
        recording = self.start_recording("died.ts")
        self.desktop.compositor.kill()
        try:
            self.assert_exit(recording, 3)
            self.assertRegex(recording.errors(), "went away")
            self.assertEqual(judges.faults(self.path("died.ts")), "")
        finally:
            self.desktop.start_compositor()
            self.show_screen()

    def test_user_refuses(self):
        # Catches a refusal with a wrong sentence, a file without a picture, and a dialog that keeps a stop waiting.
        for answer, sentence in ("refuse", "closed without a choice"), ("fail", "could not open its dialog"):
            self.desktop.answer(answer)
            for command in "record -o a.mp4", "record -o a.ts", "stream -o a.h264", "shot -o a.png":
                self.assert_refused(self.client(*command.split(), "--ask"), sentence)
        self.desktop.answer("silent")
        asked = self.desktop.said("asked")
        waiting = self.client("record", "--ask", "-o", "a.mp4")
        wait_until(lambda: self.desktop.said("asked") > asked, "the dialog")
        waiting.process.send_signal(signal.SIGINT)
        self.assert_refused(waiting, "stopped while waiting for it", SOON)


class PortalIsMissing(PortalTest, UnmeasuredEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.desktop = Desktop(cls)
        cls.environment["ZU3_DISPLAY"] = "portal"

    def record(self, **options):
        return self.client("record", "-o", "a.mp4", **options)

    def doctor(self):
        """Its findings of missing parts."""
        doctor = self.client("doctor")
        doctor.wait()
        return [line for line in doctor.output().splitlines() if line.startswith("missing")]

    def test_what_is_missing_gets_a_sentence(self):
        # Catches a fault that is blamed on something else, one that keeps the program waiting, and a doctor who does
        # not find it.
        nowhere = {"DBUS_SESSION_BUS_ADDRESS": "unix:path=/nowhere"}
        self.assert_refused(self.record(environment=nowhere), "no message bus")
        self.desktop.start_bus()
        self.assert_refused(self.record(), "no desktop portal")
        self.assertRegex("\n".join(self.doctor()), "^missing No desktop portal.*install xdg-desktop-portal.*\\.$")
        self.desktop.start_portal(backend=False)
        self.assert_refused(self.record(), "offers no screen")
        self.assertRegex("\n".join(self.doctor()), "^missing The desktop portal offers no screen.*\\.$")
        self.desktop.portal.close()
        self.desktop.start_portal()
        self.desktop.answer("node 4242")
        self.assert_refused(self.record(), "PipeWire cannot be reached")
        self.assertRegex("\n".join(self.doctor()), "^missing PipeWire does not run.*apt install.*\\.$")
        self.desktop.portal.process.send_signal(signal.SIGSTOP)
        self.assert_refused(self.record(), "portal does not answer", 8)
        self.desktop.portal.process.send_signal(signal.SIGCONT)
        self.desktop.start_pipewire()
        self.assert_refused(self.record(), "stream is not there")
        self.assertEqual(self.doctor(), [])


class PortalStreams(PortalTest, UnmeasuredEndToEndTest):
    """Pictures of every kind, and buffers that lie: by a program in the place of a compositor."""

    QUARTERS = (RED, GREEN, BLUE, WHITE)  # at the left and right above, and below

    @classmethod
    def prepare(cls):
        cls.desktop = Desktop(cls)
        cls.environment["ZU3_DISPLAY"] = "portal"
        cls.desktop.start_bus()
        cls.desktop.start_pipewire()
        cls.desktop.start_portal()

    def share(self, *options):
        """Shares that program's pictures from now on; returns the program."""
        screen = self.start("pipewire_screen", *options)
        self.desktop.answer(screen.first_line())
        return screen

    def assert_quarters(self, file, index, size, colours=QUARTERS, tolerance=3):
        width, height = size
        pixels = judges.decode(self.path(file), index)
        self.assertEqual(len(pixels), width * height * 3)
        for (x, y), colour in zip(((1, 1), (3, 1), (1, 3), (3, 3)), colours):
            shown = judges.pixel(pixels, width, width * x // 4, height * y // 4)
            self.assertLessEqual(max(abs(a - b) for a, b in zip(shown, colour)), tolerance, (file, x, y, shown))

    def test_pictures(self):
        # Catches colours that are swapped, pictures on their side, hidden parts that are shown, and an unknown
        # format that is recorded.
        for options, size, colours in ((), (320, 256), self.QUARTERS), (
                ("--format", "RGBx", "--unsealed"), (320, 256), self.QUARTERS), (
                ("--format", "RGBA", "--size", "318x254"), (318, 254), self.QUARTERS), (
                ("--format", "BGRA", "--turned"), (256, 320), self.QUARTERS), (
                ("--crop",), (160, 256), (GREEN, GREEN, WHITE, WHITE)):
            screen = self.share(*options)
            self.run_program("screenrecord", "shot", "-y", "-o", "shot.png")
            self.assert_quarters("shot.png", 0, size, colours)
            screen.close()
        screen = self.share("--format", "GRAY8")
        self.assert_refused(self.client("shot", "-o", "a.png"), "none of the pixel formats")

    def test_size_changes(self):
        # Catches a picture of the old size in the new one's memory, and a recording that ends or stands still.
        screen = self.share("--resize", "160x256")
        stream = LiveStream(self, "-r", "30", "-b", "8M")
        stream.wait_for(15)
        screen.process.send_signal(signal.SIGUSR1)
        stream.wait_for(40)
        stream.end(self.path("resized.h264"))
        self.assert_quarters("resized.h264", 5, (320, 256))
        last = judges.decode(self.path("resized.h264"), 38)
        places = {(40, 128): BLACK, (120, 64): RED, (200, 64): GREEN, (120, 192): BLUE, (200, 192): WHITE}
        for (x, y), colour in places.items():
            shown = judges.pixel(last, 320, x, y)
            self.assertLessEqual(max(abs(a - b) for a, b in zip(shown, colour)), 3, (x, y, shown))

    def test_buffers_that_lie(self):
        # Catches a crash, a hang, or a picture out of another's memory.
        recordings = {}
        for kind in "shrink", "stride", "size", "offset", "cursor", "damage":
            self.share("--unsealed", "--lie", kind)
            asked = self.desktop.said("asked")
            recordings[kind] = self.client("record", "-t", 3, "-o", f"{kind}.ts")
            wait_until(lambda: self.desktop.said("asked") > asked, "the dialog")
        for kind, recording in recordings.items():
            self.assert_exit(recording, 0)
            self.assert_quarters(f"{kind}.ts", 60, (320, 256))

    def test_pipewire_hangs(self):
        # Catches a stop, or a start, that waits for it.
        self.share()
        recording = self.start_recording("hung.ts")
        self.desktop.pipewire.process.send_signal(signal.SIGSTOP)
        try:
            self.assert_stops(recording, seconds=2 * SOON)
            self.assert_refused(self.client("shot", "-o", "a.png"), "does not answer", 12)
        finally:
            self.desktop.pipewire.process.send_signal(signal.SIGCONT)
