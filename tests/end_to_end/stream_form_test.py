"""The form of recorded transport streams, as three readers that do not know of each other see it."""

import os
import re
import subprocess

import judges
from harness import BUILD, EndToEndTest, LongEndToEndTest


def count_with_ffprobe(path):
    """The pictures that ffmpeg decodes, without a word of complaint."""
    said = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
                           "stream=nb_read_frames", "-of", "csv=p=0", path], capture_output=True, check=True, text=True)
    if said.stderr:
        raise AssertionError(f"{path}: {said.stderr}")
    return int(said.stdout.split()[0].strip(","))


def count_with_gstreamer(path):
    """The access units that GStreamer's demultiplexer and parser find."""
    said = subprocess.run(["gst-launch-1.0", "-v", "filesrc", f"location={path}", "!", "tsdemux", "!", "h264parse", "!",
                           "video/x-h264,alignment=au", "!", "fakesink", "silent=false", "sync=false"],
                          capture_output=True, check=True, text=True)
    return len(re.findall(r"last-message = chain\b", said.stdout))


def count_with_checker(path):
    said = subprocess.run([BUILD / "bin/ts_check", path], capture_output=True, check=False, text=True).stdout
    return int(re.search(r"type 0x1b: \d+ packets, (\d+) access units", said)[1])


class ThreeReaders(EndToEndTest):
    """Both packet sizes and kinds of rate at once, with sound, long enough for every period in the stream."""

    maxDiff = None
    SECONDS = 20
    FORMS = [(188, None), (192, None), (188, 2), (192, 2)]
    FPS = int(os.environ.get("SCREENRECORD_STREAM_FPS", "30"))

    def test_agree_and_find_no_error(self):
        self.environment["ZU3_AUDIO"] = "tone"
        # All times pass their end, 2^33 ticks of 90 kHz, half-way: in a day's recording they do after 26.5 hours.
        self.environment["ZU3_STREAM_START"] = str(int(2 ** 33 / 90000 - self.SECONDS / 2))
        self.start_display("640x360")
        self.start_screen("--fps", "60")
        running = {(packet_size, rate): self.client(
            "record", "-r", self.FPS, "-t", self.SECONDS, "--packet-size", packet_size,
            *(["--rate", rate] if rate else []), "-o", f"{packet_size}.{rate}.ts")
            for packet_size, rate in self.FORMS}
        for (packet_size, rate), recording in running.items():
            self.assert_exit(recording, 0, self.SECONDS + 20)
            with self.subTest(packet_size=packet_size, rate=rate):
                path = self.path(f"{packet_size}.{rate}.ts")
                options = ["--rate", str(rate * 1048576)] if rate else []
                # Priorities 1 and 2 of TR 101 290; PCR and tables at most 100 ms apart, at a constant rate PCR at most
                # 40 ms apart and within 500 ns.
                self.assertEqual(judges.check_packets(path, "--packet-size", str(packet_size), *options), "")
                counts = [count(path) for count in (count_with_checker, count_with_ffprobe, count_with_gstreamer)]
                print(f"{path.name}: {counts[0]} pictures in {self.SECONDS} s")
                self.assertEqual(counts, counts[:1] * 3)
                self.assertGreater(counts[0], self.SECONDS * self.FPS * 0.9)
                self.assertEqual(judges.streams(path)["audio"]["codec_name"], "aac")
                for kind in "va":
                    times = [time for time, _, _ in judges.packets(path, kind)]
                    self.assertFalse(0 <= times[0] < 2 ** 33 / 90000 - self.SECONDS, "it begins as others do")
                    distances = [after - before for before, after in zip(times, times[1:])]
                    self.assertTrue(0 < min(distances) and max(distances) < 1,
                                    f"{kind}: a player halts at the end of time")


class ThreeReadersForTenMinutes(LongEndToEndTest, ThreeReaders):
    SECONDS = int(os.environ.get("SCREENRECORD_STREAM_SECONDS", "600"))
