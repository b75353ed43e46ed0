"""Raw sound, and sound in recordings, from a sound server of the test's own."""

import array
import math
import os
import signal
import statistics
import struct
import subprocess
import time
import unittest
import wave

import judges
from harness import SANITIZED, EndToEndTest, LongEndToEndTest, ShortEndToEndTest, pass_time, wait_until

RATE = 48000


def phases(samples, frequency, block=480):
    """The phase of a tone in each block of samples, against an oscillator that runs on."""
    found = []
    for start in range(0, len(samples) - block + 1, block):
        turn = [2 * math.pi * frequency * n / RATE for n in range(start, start + block)]
        real = sum(s * math.cos(t) for s, t in zip(samples[start:start + block], turn))
        imaginary = sum(s * math.sin(t) for s, t in zip(samples[start:start + block], turn))
        found.append(math.atan2(imaginary, real))
    return found


def power(samples, frequency, rate):
    step = 2 * math.pi * frequency / rate
    return math.hypot(sum(s * math.cos(step * n) for n, s in enumerate(samples)),
                      sum(s * math.sin(step * n) for n, s in enumerate(samples)))


def play(test, frequency, sink="test"):
    """Plays a minute of a tone."""
    tone = array.array("h", (round(12000 * math.sin(2 * math.pi * frequency * n / RATE)) for n in range(RATE)))
    with wave.open(test.path(f"{frequency}.wav"), "wb") as file:
        file.setparams((1, 2, RATE, 0, "NONE", ""))
        file.writeframes((tone * 60).tobytes())
    test.start("paplay", f"--device={sink}", test.path(f"{frequency}.wav"))
    wait_until(lambda: f"{frequency}.wav" in test.run_program("pactl", "list", "sink-inputs"), "the tone")


class RawSound(EndToEndTest):
    @classmethod
    def prepare(cls):
        cls.server = cls.start_sound()
        play(cls, 440)

    def test_tone_is_whole(self):
        # A server that is kept waiting for half a second, as on a busy machine, delivers all of it later.
        recording = self.client("pcm", "-o", "a.wav", "-t", "5")
        path = self.path("a.wav")
        wait_until(lambda: os.path.exists(path) and os.path.getsize(path) > 4 * RATE, "the first second")
        self.server.process.send_signal(signal.SIGSTOP)
        pass_time(0.5)
        self.server.process.send_signal(signal.SIGCONT)
        self.assert_exit(recording, 0)
        with wave.open(self.path("a.wav")) as file:
            self.assertEqual((file.getframerate(), file.getnchannels(), file.getsampwidth()), (RATE, 2, 2))
            samples = array.array("h", file.readframes(file.getnframes()))[0::2]
        self.assertAlmostEqual(len(samples) / RATE, 5, delta=0.02)
        second = samples[2 * RATE:3 * RATE:8]
        strongest = max((400 + step for step in range(81)), key=lambda frequency: power(second, frequency, RATE / 8))
        self.assertAlmostEqual(strongest, 440, delta=1)
        # A gap or a repetition of samples shows as a step of the tone's phase; the first sound may begin in a block.
        found = phases(samples[RATE // 50:], 440)
        steps = [abs((b - a + math.pi) % (2 * math.pi) - math.pi) for a, b in zip(found, found[1:])]
        self.assertLess(max(steps), 0.1, f"at block {steps.index(max(steps))} of {len(steps)}")

    def test_raw_samples_on_standard_output(self):
        with open(self.path("raw"), "wb") as file:
            raw = self.start(judges.program("screenrecord"), "pcm", "-o", "-", "-t", "1", stdout=file)
            self.assert_exit(raw, 0)
        self.assertAlmostEqual(os.path.getsize(self.path("raw")) / 4 / RATE, 1, delta=0.02)


class FlashAndBeep(EndToEndTest):
    """Picture and sound of the same moment are at the same time in the file."""

    SECONDS = 20
    MARKS = 6

    @classmethod
    def prepare(cls):
        cls.start_display("320x240")
        cls.start_sound()
        cls.start_screen("--seconds", str(cls.SECONDS + 20), name="flash_beep")

    def flashes(self, path):
        """When the screen turned white."""
        times = [time for time, _, _ in judges.packets(path)]
        light = judges.decode(path, None, "gray", "scale=1:1")
        self.assertEqual(len(light), len(times))
        return [time for time, before, now in zip(times[1:], light, light[1:]) if before < 128 <= now]

    def beeps(self, path):
        """When the beeps began."""
        begin = judges.packets(path, "a")[0][0]
        sound = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-vn", "-ac", "1", "-ar", str(RATE),
                                "-f", "s16le", "-"], capture_output=True, check=True).stdout
        samples = struct.unpack(f"<{len(sound) // 2}h", sound)
        found, quiet_until = [], 0
        for place, sample in enumerate(samples):
            if abs(sample) > 6000:
                if place > quiet_until:
                    found.append(begin + place / RATE)
                quiet_until = place + RATE // 10
        return found

    def distances(self, path):
        """Seconds from each flash to its beep; the picture shows a flash half a frame late on average."""
        beeps = self.beeps(path)
        nearest = [min(beeps, key=lambda beep, at=flash: abs(beep - at)) - flash for flash in self.flashes(path)]
        return [distance + 0.5 / 60 for distance in nearest if abs(distance) < 0.4]

    def record(self):
        self.run_program(judges.program("screenrecord"), "record", "-r", "60", "-t", self.SECONDS, "-o", "a.ts",
                         seconds=self.SECONDS + 20)
        found = self.distances(self.path("a.ts"))
        self.assertGreaterEqual(len(found), self.SECONDS - 3)
        first, last = (1000 * statistics.median(part) for part in (found[:self.MARKS], found[-self.MARKS:]))
        print(f"beep after flash: {first:.1f} ms at the beginning, {last:.1f} ms at the end, "
              f"{1000 * min(found):.1f} to {1000 * max(found):.1f} ms")
        return first, last

    def test_are_together(self):
        first, last = self.record()
        self.assertLess(abs(first), 40)
        self.assertLess(abs(last), 40)
        self.assertEqual(judges.decoder_messages(self.path("a.ts")), "")
        self.assertEqual(judges.check_packets(self.path("a.ts")), "")


class FlashAndBeepForTenMinutes(LongEndToEndTest):
    SECONDS = 600
    MARKS = 30
    prepare = classmethod(FlashAndBeep.prepare.__func__)
    flashes, beeps, distances = FlashAndBeep.flashes, FlashAndBeep.beeps, FlashAndBeep.distances
    record = FlashAndBeep.record

    def test_do_not_drift(self):
        first, last = self.record()
        self.assertLess(abs(first), 40)
        self.assertLess(abs(last), 40)
        self.assertLess(abs(last - first), 10)


class SoundServerChanges(ShortEndToEndTest):
    """What is heard follows the server, whatever becomes of it."""

    def size(self):
        return os.path.getsize(self.raw.out.name)

    def tail(self):
        """One channel's last 100 ms."""
        with open(self.raw.out.name, "rb") as file:
            file.seek(max(0, self.size() // 4 * 4 - RATE // 10 * 4))
            samples = file.read(RATE // 10 * 4)
        return struct.unpack(f"<{len(samples) // 4 * 2}h", samples[:len(samples) // 4 * 4])[0::2]

    def wait_for_sound(self, loud, what):
        """Until 100 ms were loud, or silent, throughout."""
        begin = self.size()
        wait_until(lambda: self.size() > begin + RATE // 2 and
                   all((max(map(abs, self.tail()[at:at + 480])) > 1000) == loud for at in range(0, 4800, 480)), what)

    def hears(self, frequency):
        return power(self.tail(), frequency, RATE) > 4800 * 3000

    def test_hangs_dies_and_comes_back(self):
        at = {"ZU3_AUDIO": "pulse", "PULSE_SERVER": "unix:" + self.path("pulse-socket")}
        self.raw = self.client("pcm", "-o", "-", environment=at)
        self.wait_for_sound(False, "silence without a server")
        server = self.start_sound()
        play(self, 440)
        self.wait_for_sound(True, "sound of a server that came later")
        server.process.send_signal(signal.SIGSTOP)
        self.wait_for_sound(False, "silence of a server that hangs")
        server.process.send_signal(signal.SIGCONT)
        self.wait_for_sound(True, "sound of a server that goes on")
        server.kill()
        self.wait_for_sound(False, "silence of a dead server")
        begin, size = time.monotonic(), self.size()
        wait_until(lambda: self.size() >= size + 2 * RATE, "half a second of silence")
        self.assertAlmostEqual(time.monotonic() - begin, 0.5, delta=0.3)
        self.start_sound()
        play(self, 440)
        play(self, 1000, "second")
        wait_until(lambda: self.hears(440) and not self.hears(1000), "the next server's default output")
        self.run_program("pactl", "set-default-sink", "second")
        wait_until(lambda: self.hears(1000), "another default output")
        self.assertEqual(self.raw.stop(), 3, self.raw.errors())


class SoundServers(ShortEndToEndTest):
    def assert_has_sound_and_picture(self, path):
        self.assertEqual(judges.decoder_messages(path), "")
        found = judges.streams(path)
        self.assertEqual(found["audio"]["codec_name"], "aac")
        ends = [judges.packets(path, kind)[-1][0] for kind in ("v", "a")]
        self.assertAlmostEqual(*ends, delta=0.5)
        return found

    def test_no_server(self):
        recording = self.client("record", "-s", "320x240", "-t", "2", "-o", "none.ts",
                                environment={"ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "pulse"})
        self.assert_exit(recording, 0)
        self.assert_has_sound_and_picture(self.path("none.ts"))
        said = [line for line in recording.errors().splitlines() if "sound" in line.lower()]
        self.assertEqual(len(said), 1, recording.errors())
        samples = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", self.path("none.ts"), "-vn", "-f", "s16le",
                                  "-"], capture_output=True, check=True).stdout
        self.assertLess(max(map(abs, struct.unpack(f"<{len(samples) // 2}h", samples))), 4)

    def test_server_dies(self):
        server = self.start_sound()
        recording = self.client("record", "-s", "640x360", "-o", "dies.ts", environment={"ZU3_DISPLAY": "testcard"})
        path = self.path("dies.ts")
        wait_until(lambda: os.path.exists(path) and os.path.getsize(path) > 0, "the first batch")
        server.kill()
        wait_until(lambda: "sound server went away" in recording.errors(), "word of it", 10 if SANITIZED else 1)
        pass_time(0.5)
        self.assertEqual(recording.stop(), 3, recording.errors())
        self.assert_has_sound_and_picture(path)


if __name__ == "__main__":
    unittest.main()
