"""The public interface, driven by api_stress in ways that the client does not."""

import os
import unittest

import judges
from harness import PATIENCE, SANITIZED, EndToEndTest, LongEndToEndTest, ShortEndToEndTest


class TimeLimit(ShortEndToEndTest):
    ROUNDS = 1 if SANITIZED else 3

    @classmethod
    def prepare(cls):
        cls.environment["ZU3_DISPLAY"] = "testcard"

    def test_stopped_around_the_limit(self):
        # Catches a double close, a deadlock of client and writer, and a file that lost its end.
        self.run_program(judges.program("api_stress"), "limit", self.folder, self.ROUNDS,
                         seconds=PATIENCE + 5 * self.ROUNDS)
        for number in range(self.ROUNDS):
            path = self.path(f"limit_{number}.ts")
            self.assertTrue(judges.whole_packets(path), path)
            self.assertEqual(judges.decoder_messages(path), "")
            # The limit may lose the last batch, of which the test card needs more than a second to fill one.
            self.assertGreater(len(judges.packets(path)), 0)


class TimeLimitAlone(EndToEndTest):
    def test_closes_by_itself(self):
        self.environment["ZU3_DISPLAY"] = "testcard"
        took = int(self.run_program(judges.program("api_stress"), "limit-alone", self.path("a.ts")))
        self.assertTrue(3000 <= took <= 3500, took)
        self.assertEqual(judges.decoder_messages(self.path("a.ts")), "")


class WatermarkChanges(ShortEndToEndTest):
    def test_a_thousand_while_running(self):
        # Catches a watermark that is drawn while it is replaced; ThreadSanitizer's build is the judge.
        self.environment["ZU3_DISPLAY"] = "testcard"
        said = self.run_program(judges.program("watermark_changes"), 1000, seconds=PATIENCE)
        self.assertIn(" 0 refused", said)


class CallbackRaces(ShortEndToEndTest):
    PROCESSES, COUNT = 5, 100 if SANITIZED else 20

    def test_everything_calls_back_while_it_is_started_and_stopped(self):
        # Catches what two threads touch at once; the sanitizers are the judges.
        self.start_display("320x240")
        self.environment |= {"ZU3_AUDIO": "tone", "ANDROID_LOG_TAGS": "*:S"}
        running = []
        for number in range(self.PROCESSES):
            os.mkdir(self.path(f"races{number}"))
            running.append(self.start(judges.program("callback_races"), self.path(f"races{number}"), self.COUNT))
        for races in running:
            self.assert_exit(races, 0, PATIENCE + self.COUNT)
            print(races.output().strip())


class ManyCallbackRaces(LongEndToEndTest):
    PROCESSES, COUNT = 5, 1000
    test_everything_calls_back_while_it_is_started_and_stopped = (
        CallbackRaces.test_everything_calls_back_while_it_is_started_and_stopped)


class Cycles(ShortEndToEndTest):
    COUNT = 40

    def test_start_stop_close(self):
        # Catches a stop that waits for a worker that has not run yet, and whatever a close leaves behind.
        self.environment["ZU3_DISPLAY"] = "testcard"
        longest = int(self.run_program(judges.program("api_stress"), "cycles", self.path("a.ts"), self.COUNT,
                                       seconds=PATIENCE + self.COUNT))
        self.assertLess(longest, 5000 if SANITIZED else 500)


class ThousandCycles(LongEndToEndTest):
    COUNT = 1000
    test_start_stop_close = Cycles.test_start_stop_close


class FiftyTimeLimits(LongEndToEndTest):
    ROUNDS = 50
    prepare = classmethod(TimeLimit.prepare.__func__)
    test_stopped_around_the_limit = TimeLimit.test_stopped_around_the_limit


class TwoSlots(ShortEndToEndTest):
    def test_screen_and_raw_file_at_once(self):
        # Catches anything that the two slots share by mistake: output region, file, multiplexer.
        self.start_display("640x480")
        self.start_screen()
        names = [self.path(name) for name in ("screen.ts", "raw.nv12", "raw.ts")]
        self.run_program(judges.program("api_stress"), "pair", *names)
        for path in (names[0], names[2]):
            self.assertEqual(judges.decoder_messages(path), "")
            self.assertEqual(judges.check_packets(path), "")
        # The raw file's pictures are grey, a little lighter from one to the next, and all of them are there.
        greys = judges.decode(names[2], None, "gray", "scale=1:1")
        self.assertEqual(len(greys), 60)
        self.assertTrue(all(before < after for before, after in zip(greys, greys[1:])), list(greys))
        self.assertGreater(len(judges.packets(names[0])), 60 if SANITIZED else 90)

    def test_two_processes_at_once(self):
        self.environment["ZU3_DISPLAY"] = "testcard"
        running = [self.client("record", "-s", "320x240", "-t", "2", "-o", name) for name in ("a.ts", "b.ts")]
        for recording in running:
            self.assert_exit(recording, 0)
            self.assertEqual(judges.decoder_messages(self.path(recording.output().strip())), "")


class Endurance(LongEndToEndTest):
    MINUTES = int(os.environ.get("SCREENRECORD_ENDURANCE_MINUTES", "10"))

    def test_nothing_grows(self):
        self.environment["ZU3_DISPLAY"] = "testcard"
        lines = self.run_program(judges.program("api_stress"), "hour", self.path("a.ts"), self.MINUTES,
                                 seconds=60 * self.MINUTES + PATIENCE).splitlines()
        print("\n".join(lines))
        rows = [dict(zip(lines[0].split(), map(int, line.split()))) for line in lines[1:]]
        for row in rows:
            self.assertLessEqual(abs(row["resident_kib"] - rows[0]["resident_kib"]), 256)
            self.assertEqual(row["descriptors"], rows[0]["descriptors"])
            self.assertEqual(row["due"], row["captured"] + row["late"] + row["no_buffer"] + row["no_display"])
            self.assertLessEqual(abs(row["due"] - 30 * 60 * row["minute"]), 30)


if __name__ == "__main__":
    unittest.main()
