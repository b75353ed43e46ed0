"""The public interface, driven by api_stress in ways that the client does not."""

import os
import signal
import subprocess
import sys
import time

import judges
from harness import BUILD, PATIENCE, SANITIZED, TEST_CARD, EndToEndTest, LongEndToEndTest, ShortEndToEndTest, wait_until


class TimeLimit(ShortEndToEndTest):
    ROUNDS = 1 if SANITIZED else 3

    def test_stopped_around_the_limit(self):
        # Catches a double close, a deadlock of client and writer, and a file that lost its end.
        self.run_program("api_stress", "limit", self.folder, self.ROUNDS, environment=TEST_CARD,
                         seconds=PATIENCE + 5 * self.ROUNDS)
        for number in range(self.ROUNDS):
            # The limit may lose the last batch, of which the test card needs more than a second to fill one.
            self.assertEqual(judges.faults(self.path(f"limit_{number}.ts")), "")


class FiftyTimeLimits(LongEndToEndTest, TimeLimit):
    ROUNDS = 50


class TimeLimitAlone(EndToEndTest):
    def test_closes_by_itself(self):
        # If the system allows it, in a time whose 32-bit milliseconds pass their end within the recording.
        to_end = int(2 ** 32 / 1000 - time.monotonic() - 0.7)
        own_time = ["unshare", "--fork", "--kill-child", "--time", "--monotonic", to_end]
        if subprocess.run([*map(str, own_time), "true"], check=False).returncode != 0:
            own_time = []
        took = int(self.run_program(*own_time, "api_stress", "limit-alone", self.path("a.ts"), environment=TEST_CARD))
        self.assertTrue(3000 <= took <= 3500, took)
        self.assertEqual(judges.faults(self.path("a.ts")), "")


class Unloading(EndToEndTest):
    PROGRAM = """
import ctypes, os, sys, time, _ctypes
library, file, cycles = sys.argv[1], sys.argv[2].encode(), int(sys.argv[3])
def load():
    return ctypes.CDLL(library)
open_files = []
for cycle in range(cycles):
    handle = load()
    assert handle.startScreenRecord(320, 240, 30, 0, 188, 0, 0, file) == 0
    if cycle == 0: # its threads go on behind the unloading
        _ctypes.dlclose(handle._handle)
        time.sleep(0.3)
        handle = load()
    assert handle.stopScreenRecord() == 0
    getattr(handle, "_Z19SCREENRECORD_DeInitv")()
    _ctypes.dlclose(handle._handle)
    open_files.append(len(os.listdir("/proc/self/fd")))
assert open_files[0] == open_files[-1], open_files
"""

    def test_of_a_library_that_records(self):
        # Catches code that is unloaded while its threads run, and state that each unloading would lose.
        run = subprocess.run([sys.executable, "-c", self.PROGRAM, BUILD / "lib/libscreenrecord.so", self.path("a.ts"),
                              "4"],
                             env=os.environ | TEST_CARD, capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(run.returncode, 0, run.stderr)


class CallbackRaces(ShortEndToEndTest):
    PROCESSES, COUNT = 5, 100 if SANITIZED else 20

    def test_everything_calls_back_while_it_is_started_and_stopped(self):
        # Catches data races; the sanitizers are the judges.
        self.start_display("320x240")
        self.environment |= {"ZU3_AUDIO": "tone", "ANDROID_LOG_TAGS": "*:S"}
        folders = [self.path(f"races{number}") for number in range(self.PROCESSES)]
        for folder in folders:
            folder.mkdir()
        for races in [self.start("callback_races", folder, self.COUNT) for folder in folders]:
            self.assert_exit(races, 0, PATIENCE + self.COUNT)
            print(races.output().strip())


class ManyCallbackRaces(LongEndToEndTest, CallbackRaces):
    COUNT = 1000


class Cycles(ShortEndToEndTest):
    COUNT = 40

    def test_start_stop_close(self):
        # Catches a stop that waits for a worker that has not run yet, and leftovers of a close.
        longest = int(self.run_program("api_stress", "cycles", self.path("a.ts"), self.COUNT, environment=TEST_CARD,
                                       seconds=PATIENCE + self.COUNT))
        self.assertLess(longest, 5000 if SANITIZED else 500)


class ThousandCycles(LongEndToEndTest, Cycles):
    COUNT = 1000


class TwoSlots(ShortEndToEndTest):
    def test_screen_and_raw_file_at_once(self):
        # Catches anything that the two slots share by mistake: output region, file, multiplexer.
        self.start_display("640x480")
        self.start_screen()
        screen, raw, from_raw = map(self.path, ("screen.ts", "raw.nv12", "raw.ts"))
        self.run_program("api_stress", "pair", screen, raw, from_raw)
        for path in (screen, from_raw):
            self.assertEqual(judges.faults(path) + judges.check_packets(path), "")
        # The raw file's pictures are grey, a little lighter from one to the next, and all of them are there.
        greys = judges.decode(from_raw, None, "gray", "scale=1:1")
        self.assertEqual(len(greys), 60)
        self.assertEqual(list(greys), sorted(set(greys)))
        self.assertGreater(len(judges.packets(screen)), 60 if SANITIZED else 90)


class Endurance(LongEndToEndTest):
    """A screen that alternates between motion and rest, a minute each. Needs an otherwise idle machine."""

    MINUTES = int(os.environ.get("SCREENRECORD_ENDURANCE_MINUTES", "10"))

    def test_nothing_grows(self):
        self.start_display()
        screen = self.start("moving_screen")
        screen.first_line()
        recording = self.start("api_stress", "hour", self.path("a.ts"), self.MINUTES)
        for minute in range(1, self.MINUTES):
            wait_until(lambda: recording.output().count("\n") > minute or recording.process.poll() is not None,
                       "a row", 70)
            screen.process.send_signal(signal.SIGSTOP if minute % 2 else signal.SIGCONT)
        self.assert_exit(recording, 0, 60 + PATIENCE)
        lines = recording.output().splitlines()
        print("\n".join(lines))
        rows = [dict(zip(lines[0].split(), map(int, line.split()))) for line in lines[1:]]
        picture_kib = 1280 * 720 * 3 // 2 // 1024
        self.assertEqual(judges.faults(self.path("a.ts")), "")
        for row in rows:
            # The encoder's settings for a screen that moves all over need more memory; by the fourth minute it has had
            # both. The first time that it falls behind by a picture, another buffer of the pool is written to.
            self.assertLessEqual(row["resident_kib"],
                                 max(first["resident_kib"] for first in rows[:4]) + 256 + picture_kib)
            self.assertEqual((row["late"], row["no_buffer"], row["no_display"], row["refused"]), (0, 0, 0, 0))
            self.assertLessEqual(row["waiting_pictures"], 2)
            self.assertLessEqual(row["waiting_kib"], 128)
            self.assertEqual(row["descriptors"], rows[0]["descriptors"])
            self.assertEqual(row["due"], row["captured"] + row["late"] + row["no_buffer"] + row["no_display"])
            self.assertLessEqual(abs(row["due"] - 30 * 60 * row["minute"]), 30)
