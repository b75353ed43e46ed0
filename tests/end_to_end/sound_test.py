"""Raw sound, and sound in recordings, from a sound server of the test's own."""

import array
import math
import os
import signal
import statistics
import time

import judges
from harness import SANITIZED, SOON, EndToEndTest, LongEndToEndTest, ShortEndToEndTest, pass_time, size_of, wait_until

RATE = 48000


def against(samples, frequency, first=0):
    """A tone's real and imaginary part in samples, against an oscillator that runs on."""
    step = 2 * math.pi * frequency / RATE
    return (sum(s * math.cos(step * n) for n, s in enumerate(samples, first)),
            sum(s * math.sin(step * n) for n, s in enumerate(samples, first)))


def hears(samples, frequency):
    return math.hypot(*against(samples, frequency)) > len(samples) * 3000


def play(test, frequency, sink="test"):
    """Plays a minute of a tone."""
    name = f"{frequency}.wav"
    test.run_program("ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", f"sine={frequency}:r={RATE}:d=60,volume=3",
                     name)
    test.start("paplay", f"--device={sink}", name)
    wait_until(lambda: name in test.run_program("pactl", "list", "sink-inputs"), "the tone")


class RawSound(EndToEndTest):
    SERVER = "start_sound"

    @classmethod
    def prepare(cls):
        cls.server = getattr(cls, cls.SERVER)()
        play(cls, 440)

    def phases(self, path):
        """The tone's phase in blocks of 10 ms; the first sound may begin in a block."""
        samples = judges.decode_sound(path)
        starts = range(RATE // 50, len(samples) - 479, 480)
        return [math.atan2(*reversed(against(samples[at:at + 480], 440, at))) for at in starts]

    def test_is_in_its_place_from_the_start(self):
        # Catches a row that begins at a wrong time and is stretched until it is right.
        self.run_program("screenrecord", "pcm", "-o", "start.wav", "-t", "5", seconds=30)
        phases = self.phases(self.path("start.wav"))[30:]
        moved = sum((b - a + math.pi) % (2 * math.pi) - math.pi for a, b in zip(phases, phases[1:]))
        frames = moved / (2 * math.pi * 440 / RATE)
        print(f"stretched by {frames:.1f} frames in 5 s")
        self.assertLess(abs(frames), 96)

    def test_tone_is_whole(self):
        server = self.server
        # A server that is kept waiting for half a second, as on a busy machine, delivers all of it later.
        recording = self.client("pcm", "-o", "a.wav", "-t", "5")
        wait_until(lambda: size_of(self.path("a.wav")) > 4 * RATE, "the first second")
        server.process.send_signal(signal.SIGSTOP)
        pass_time(0.5)
        server.process.send_signal(signal.SIGCONT)
        self.assert_exit(recording, 0)
        form = judges.streams(self.path("a.wav"))["audio"]
        self.assertEqual([form[key] for key in ("codec_name", "sample_rate", "channels")], ["pcm_s16le", str(RATE), 2])
        samples = judges.decode_sound(self.path("a.wav"))
        self.assertAlmostEqual(len(samples) / RATE, 5, delta=0.02)
        self.assertTrue(hears(samples[2 * RATE:3 * RATE], 440))
        # A gap or a repetition of samples, or another pitch, shows as a step of the tone's phase.
        found = self.phases(self.path("a.wav"))
        steps = [abs((b - a + math.pi) % (2 * math.pi) - math.pi) for a, b in zip(found, found[1:])]
        self.assertLess(max(steps), 0.1, f"at block {steps.index(max(steps))} of {len(steps)}")


class RawSoundOfPipeWire(RawSound, EndToEndTest):
    SERVER = "start_pipewire"
    # This server drops sound that it cannot deliver in time.
    test_tone_is_whole = None


class FlashAndBeep(EndToEndTest):
    """Picture and sound of the same moment are at the same time in the file."""

    SERVER = "start_sound"
    SECONDS, MARKS, DRIFT = 20, 6, 80

    def flashes(self, path):
        """When the screen turned white."""
        times = [time for time, _, _ in judges.packets(path)]
        light = judges.decode(path, None, "gray", "scale=1:1")
        self.assertEqual(len(light), len(times))
        return [time for time, before, now in zip(times[1:], light, light[1:]) if before < 128 <= now]

    def beeps(self, path):
        """When the beeps began."""
        loud = [place for place, sample in enumerate(judges.decode_timed_sound(path)) if abs(sample) > 6000]
        return [now / RATE for before, now in zip([-RATE] + loud, loud) if now > before + RATE // 10]

    def test_are_together(self):
        self.start_display("320x240")
        getattr(self, self.SERVER)()
        self.start_screen("--seconds", self.SECONDS + 20, name="flash_beep")
        path = self.path("a.ts")
        self.run_program("screenrecord", "record", "-r", "60", "-t", self.SECONDS, "-o", path,
                         seconds=self.SECONDS + 20)
        beeps = self.beeps(path)
        nearest = [min(beeps, key=lambda beep, at=flash: abs(beep - at)) - flash for flash in self.flashes(path)]
        # The picture shows a flash half a frame late on average.
        found = [1000 * (distance + 0.5 / 60) for distance in nearest if abs(distance) < 0.4]
        self.assertGreaterEqual(len(found), 0.95 * self.SECONDS - 3)
        first, last = (statistics.median(part) for part in (found[:self.MARKS], found[-self.MARKS:]))
        print(f"beep after flash: {first:.1f} ms at the beginning, {last:.1f} ms at the end, "
              f"{min(found):.1f} to {max(found):.1f} ms")
        self.assertLess(max(abs(first), abs(last)), 40)
        self.assertLess(abs(last - first), self.DRIFT)
        self.assertEqual(judges.faults(path) + judges.check_packets(path), "")


class FlashAndBeepOfPipeWire(LongEndToEndTest, FlashAndBeep):
    SERVER = "start_pipewire"


class FlashAndBeepForTenMinutes(LongEndToEndTest, FlashAndBeep):
    SECONDS, MARKS, DRIFT = 600, 30, 10


class FlashAndBeepOfPipeWireForTenMinutes(FlashAndBeepForTenMinutes, LongEndToEndTest):
    SERVER = "start_pipewire"


class SoundServerChanges(ShortEndToEndTest):
    """The recorded sound follows the server through all its changes."""

    def size(self):
        return size_of(self.raw.out.name)

    def tail(self):
        """One channel's last 100 ms."""
        with open(self.raw.out.name, "rb") as file:
            file.seek(max(0, self.size() // 4 * 4 - RATE // 10 * 4))
            samples = file.read(RATE // 10 * 4)
        return array.array("h", samples[:len(samples) // 4 * 4])[0::2]

    def wait_for_sound(self, loud, what):
        """Until 100 ms were loud, or silent, throughout."""
        begin = self.size()
        wait_until(lambda: self.size() > begin + RATE // 2 and
                   all((max(map(abs, self.tail()[at:at + 480])) > 1000) == loud for at in range(0, 4800, 480)), what)

    def test_hangs_dies_and_comes_back(self):
        at = {"ZU3_AUDIO": "pulse", "PULSE_SERVER": f'unix:{self.path("pulse-socket")}'}
        self.raw = self.client("pcm", "-o", "-", environment=at)
        self.wait_for_sound(False, "silence without a server")
        server = self.start_sound()
        play(self, 440)
        self.wait_for_sound(True, "sound of a server that came later")
        server.process.send_signal(signal.SIGSTOP)
        self.wait_for_sound(False, "silence of a server that hangs")
        late = self.client("pcm", "-o", "late.wav")
        for recording, said in (self.raw, "The sound server went away (no"), (late, "No sound server answers (no"):
            wait_until(lambda pcm=recording, word=said: word in pcm.errors(), said)
        self.assert_stops(late)
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
        wait_until(lambda: hears(self.tail(), 440) and not hears(self.tail(), 1000), "the next server's default output")
        self.run_program("pactl", "set-default-sink", "second")
        wait_until(lambda: hears(self.tail(), 1000), "another default output")
        self.assert_stops(self.raw, 3)


class ChosenSound(ShortEndToEndTest):
    """--sound and ZU3_SOUND, against a desktop of 440 Hz and a microphone of 1000 Hz."""

    SERVER = "start_sound"
    SECONDS = 8 if SANITIZED else 4

    @classmethod
    def prepare(cls):
        getattr(cls, cls.SERVER)()
        play(cls, 440)
        play(cls, 1000, "second")
        cls.plug_in()

    @classmethod
    def plug_in(cls):
        cls.microphone = cls.run_program("pactl", "load-module", "module-remap-source", "source_name=mic",
                                         "master=second.monitor").strip()

    def tones(self, path):
        """Which of the two tones a file has in its last two seconds; a busy machine leaves gaps in them."""
        end = judges.decode_sound(path)[-2 * RATE:]
        parts = [end[at:at + RATE // 2] for at in range(0, len(end), RATE // 2)]
        return {tone for tone in (440, 1000) if any(hears(part, tone) for part in parts)}

    def test_is_what_is_recorded(self):
        cases = (("desktop", "", {440}), ("microphone", "", {1000}), ("both", "", {440, 1000}),
                 ("second.monitor", "", {1000}), ("", "", {440}), ("", "microphone", {1000}),
                 ("desktop", "microphone", {440}))
        recordings = [self.client("pcm", "-t", self.SECONDS, "-o", f"{number}.wav",
                                  *(["--sound", name] if name else []),
                                  environment={"ZU3_SOUND": variable})
                      for number, (name, variable, _) in enumerate(cases)]
        for number, (recording, (name, variable, wanted)) in enumerate(zip(recordings, cases)):
            with self.subTest(name or variable):
                self.assert_exit(recording, 0)
                self.assertEqual(self.tones(self.path(f"{number}.wav")), wanted)

    def test_in_recordings(self):
        for ending in ("mp4", "ts"):
            path = self.path(f"both.{ending}")
            self.run_program("screenrecord", "record", "-s", "320x240", "-r", "5", "-t", self.SECONDS,
                             "--sound", "both",
                             "-o", path, environment={"ZU3_DISPLAY": "testcard"})
            self.assertEqual(self.tones(path), {440, 1000})
        self.run_program("screenrecord", "record", "-s", "320x240", "-t", "1", "--sound", "none", "-o", "none.mp4",
                         environment={"ZU3_DISPLAY": "testcard"})
        self.assertEqual(list(judges.streams(self.path("none.mp4"))), ["video"])

    def test_devices_name_it(self):
        lines = [line.split() for line in self.run_program("screenrecord", "devices").splitlines()]
        marks = {words[1]: words[-1] for words in lines if words[0] == "sound"}
        self.assertEqual((marks["test.monitor"], marks["mic"]), ("(recorded)", "(microphone)"))

    def test_refusals(self):
        card = {"ZU3_DISPLAY": "testcard"}
        cases = ((["pcm", "-o", "no.wav", "--sound", "mik"], {}, 2, "there is no sound source 'mik', only desktop"),
                 (["record", "-o", "no.mp4", "-s", "320x240"], card | {"ZU3_SOUND": "mik"}, 2, "no sound source 'mik'"),
                 (["record", "-o", "no.ts", "-s", "320x240"], card | {"ZU3_SOUND": "mik"}, 2, "no sound source 'mik'"),
                 (["pcm", "-o", "no.wav", "--sound", "none"], {}, 2, "none leaves nothing to record"),
                 (["record", "-o", "no.mp4", "--no-audio", "--sound", "both"], card, 2, "cannot be combined"),
                 (["replay", "-o", ".", "--no-audio", "--sound", "both"], card, 2, "cannot be combined"))
        for words, environment, code, sentence in cases:
            with self.subTest(words):
                refused = self.client(*words, environment=environment)
                self.assert_exit(refused, code)
                self.assertIn(sentence, refused.errors())
        self.assertEqual([name for name in os.listdir(self.folder) if name.startswith("no.")], [])

    def test_microphone_comes_and_goes(self):
        raw = self.client("pcm", "-o", "-", "--sound", "microphone")

        def has(tone):
            with open(raw.out.name, "rb") as file:
                file.seek(max(0, size_of(raw.out.name) // 4 * 4 - RATE // 10 * 4))
                last = file.read(RATE // 10 * 4)
            samples = array.array("h", last[:len(last) // 4 * 4])[0::2]
            return len(samples) == RATE // 10 and (hears(samples, tone) if tone else max(map(abs, samples)) == 0)

        wait_until(lambda: has(1000), "the microphone")
        self.run_program("pactl", "unload-module", self.microphone)
        wait_until(lambda: has(0), "silence without a microphone")
        wait_until(lambda: "not offer the sound of a microphone" in raw.errors(), "a warning")
        self.plug_in()
        wait_until(lambda: has(1000), "the microphone again")
        self.assert_stops(raw)


class ChosenSoundOfPipeWire(LongEndToEndTest, ChosenSound):
    SERVER = "start_pipewire"


class SoundServers(ShortEndToEndTest):
    def assert_has_sound_and_picture(self, path):
        self.assertEqual(judges.faults(path), "")
        self.assertEqual(judges.streams(path)["audio"]["codec_name"], "aac")
        self.assertAlmostEqual(*(judges.packets(path, kind)[-1][0] for kind in ("v", "a")), delta=0.5)

    def test_no_server(self):
        self.path("first").mkdir()
        self.path("first/libpulse.so.0").touch()  # no library, and found before the system's
        for missing, environment in {"server": {}, "library": {"LD_LIBRARY_PATH": str(self.path("first"))}}.items():
            with self.subTest(missing):
                recording = self.client("record", "-s", "320x240", "-t", "2", "-o", f"{missing}.ts",
                                        environment={"ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "pulse", **environment})
                self.assert_exit(recording, 0)
                self.assert_has_sound_and_picture(self.path(f"{missing}.ts"))
                said = [line for line in recording.errors().splitlines() if "sound" in line.lower()]
                self.assertEqual(len(said), 1, recording.errors())
                self.assertEqual("libpulse" in said[0], missing == "library", said)
                self.assertLess(max(map(abs, judges.decode_sound(self.path(f"{missing}.ts")))), 4)

    def test_reader_comes_late(self):
        # Catches sound from before there was a reader, reported as lost at the end.
        pipe = self.path("pipe")
        os.mkfifo(pipe)
        late = self.client("pcm", "-t", "1", "-o", pipe, environment={"ZU3_AUDIO": "tone"})
        pass_time(2.5)
        self.assertEqual(len(pipe.read_bytes()), 4 * 48000)
        self.assert_exit(late, 0)
        self.assertEqual(late.errors(), "")

    def test_output_sleeps(self):
        # Catches a server that counts as hung because its output sleeps.
        self.start_sound()
        recording = self.client("pcm", "-t", "5", "-o", "sleeps.wav")
        wait_until(lambda: size_of(self.path("sleeps.wav")) > 4 * RATE, "the first second")
        self.run_program("pactl", "suspend-sink", "test", "1")
        self.assert_exit(recording, 0)
        self.assertEqual(recording.errors(), "")

    def test_server_dies(self):
        server = self.start_sound()
        path = self.path("dies.ts")
        recording = self.client("record", "-s", "640x360", "-o", path, environment={"ZU3_DISPLAY": "testcard"})
        wait_until(lambda: size_of(path) > 0, "the first batch")
        server.kill()
        wait_until(lambda: "sound server went away" in recording.errors(), "word of it", SOON)
        pass_time(0.5)
        self.assert_stops(recording, 3)
        self.assert_has_sound_and_picture(path)
