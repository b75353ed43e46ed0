"""record --countdown and --notify."""

import os
import signal
import socket
import time

from harness import PATIENCE, SOON, ShortEndToEndTest, wait_until


class AtHand(ShortEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.environment |= {"ZU3_DISPLAY": "testcard"}

    def record(self, name, *options, **started):
        return self.client("record", "-s", "320x240", "-t", "0.5", "-o", name, *options, **started)

    def test_countdown(self):
        begin = time.monotonic()
        counted = self.record("counted.mp4", "--countdown", "2")
        wait_until(lambda: "recording begins in 2 s" in counted.errors(), "the countdown")
        self.assert_exit(counted, 0)
        self.assertGreater(time.monotonic() - begin, 2.4)
        self.assertIn("recording begins in 1 s", counted.errors())
        stopped = self.record("stopped.mp4", "--countdown", "60")
        wait_until(lambda: "recording begins in 60 s" in stopped.errors(), "the countdown")
        begin = time.monotonic()
        self.assert_stops(stopped, 1, signal.SIGINT)
        self.assertLess(time.monotonic() - begin, SOON)
        self.assertIn("stopped before the recording began", stopped.errors())
        self.assertFalse(os.path.exists(self.path("stopped.mp4")))

    def test_refused_before_the_countdown(self):
        # Catches a user who counts down for nothing.
        self.path("there.mp4").write_bytes(b"x")
        for name, said in ("there.mp4", "it exists already"), ("no/folder.mp4", "there is no folder no"):
            refused = self.record(name, "--countdown", "60")
            self.assert_exit(refused, 2)
            self.assertIn(said, refused.errors())

    def test_names_by_time(self):
        # Catches recorders that choose the same name because they begin at once.
        videos = self.path("home/Videos")
        videos.mkdir()
        recordings = [self.client("record", "-s", "64x64", "-t", "0.5", "--no-audio") for _ in range(6)]
        for recording in recordings:
            self.assert_exit(recording, 0)
        said = {recording.output() for recording in recordings}
        self.assertEqual(said, {f"{videos / name}\n" for name in os.listdir(videos)})
        self.assertEqual(len(said), len(recordings))

    def start_bus(self):
        bus = self.start("dbus-daemon", "--session", "--nofork", "--print-address=1")
        return {"DBUS_SESSION_BUS_ADDRESS": bus.first_line()}

    def test_notification(self):
        bus = self.start_bus()
        monitor = self.start("dbus-monitor", "--session", "interface='org.freedesktop.Notifications'",
                             environment=bus)
        wait_until(lambda: "NameAcquired" in monitor.output() or "NameLost" in monitor.output(), "the monitor")
        name = "it's \\ here.mp4"
        self.assert_exit(self.record(name, "--notify", environment=bus), 0)
        wait_until(lambda: f'string "{name}"' in monitor.output(), "the notification")
        self.assertIn('string "Recording finished"', monitor.output())

    def test_silent_bus(self):
        path = str(self.path("silent-bus"))
        with socket.socket(socket.AF_UNIX) as bus:
            bus.bind(path)
            bus.listen()
            begin = time.monotonic()
            self.assert_exit(self.record("plain.mp4"), 0)
            plain, begin = time.monotonic() - begin, time.monotonic()
            slow = self.record("slow.mp4", "--notify", environment={"DBUS_SESSION_BUS_ADDRESS": f"unix:path={path}"})
            self.assert_exit(slow, 0)
            self.assertLess(time.monotonic() - begin, plain + 1 + 5 * SOON)

    def test_no_service(self):
        for environment in ({"DBUS_SESSION_BUS_ADDRESS": f"unix:path={self.path('nothing')}"},
                            {"PATH": str(self.path("empty"))}):
            recording = self.start(self.client_path(), "record", "-s", "320x240", "-t", "0.5", "-y", "-o", "alone.mp4",
                                   "--notify", environment=environment)
            self.assert_exit(recording, 0, PATIENCE)
            self.assertEqual(recording.errors(), "")

    @classmethod
    def client_path(cls):
        return cls.environment["PATH"].split(":")[0] + "/screenrecord"
