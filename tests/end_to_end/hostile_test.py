"""Servers that answer with garbage, too little, too late or not at all: no crash, no hang, a sentence, nothing left."""

import concurrent.futures
import os
import subprocess
import time
import unittest

import judges
from harness import PATIENCE, SANITIZER_REPORTS, SOURCE, LongEndToEndTest, ShortEndToEndTest, size_of

COMMANDS = {
    "record": ("record", "-t", "1", "-o", "{}.ts"),
    "stream": ("stream", "-t", "1", "-o", "{}.h264"),
    "pcm": ("pcm", "-t", "1", "-o", "{}.wav"),
    "shot": ("shot", "--osd", "-o", "{}.png"),
    "devices": ("devices",),
    "doctor": ("doctor",),
}
FAKE_X_SERVER, FAKE_SOUND_SERVER, FAKE_COMPOSITOR = (
    SOURCE / "tools" / name for name in ("fake_x_server.py", "fake_sound_server.py", "fake_compositor.py"))
DISPLAY_COMMANDS = ("record", "stream", "shot", "devices", "doctor")
SOUND_COMMANDS = ("record", "pcm", "devices", "doctor")


class HostileServers:
    """Runs commands against modes of a fake server, many at once: they mostly wait."""

    def run_one(self, command, mode, environment):
        """Its exit code (None if it hangs), its seconds, and the fault of its end, if any."""
        arguments = [part.format(f"{mode}.{command}") for part in COMMANDS[command]]
        begin = time.monotonic()
        try:
            done = subprocess.run(["screenrecord", *arguments], env={**self.environment, **environment},
                                  cwd=self.folder,
                                  stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE, check=False)
        except subprocess.TimeoutExpired:
            return None, PATIENCE, "hangs"
        said = done.stderr.decode(errors="replace")
        faults = []
        if done.returncode not in range(4) or any(report in said for report in SANITIZER_REPORTS):
            faults.append(f"crashes: {said}")
        elif done.returncode and "screenrecord: " not in said and command != "doctor":
            faults.append("says nothing")
        if "-o" in arguments:
            file = self.path(arguments[-1])
            if file.exists() != (done.returncode in (0, 3)) or file.exists() and size_of(file) == 0:
                faults.append(f"leaves {size_of(file)} bytes")
        return done.returncode, time.monotonic() - begin, ", ".join(faults)

    def run_all(self, environments, commands):
        """The exit code of each command in each mode, given the environments of the modes; fails on a wrong one."""
        with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("SCREENRECORD_HOSTILE_JOBS", "16"))) as pool:
            running = {(mode, command): pool.submit(self.run_one, command, mode, environment)
                       for mode, environment in environments.items() for command in commands}
        ends = {key: end.result() for key, end in running.items()}
        if "SCREENRECORD_HOSTILE_TABLE" in os.environ:
            with open(os.environ["SCREENRECORD_HOSTILE_TABLE"], "a", encoding="utf-8") as table:
                for mode in environments:
                    print(mode, *("{} {:.1f} {}".format(*ends[mode, command])[:60] for command in commands), sep=" | ",
                          file=table)
        self.assertEqual({key: end for key, end in ends.items() if end[2]}, {})
        return {key: end[0] for key, end in ends.items()}

    def displays(self, modes):
        server = self.start("python3", FAKE_X_SERVER, *modes)
        return {mode: {"DISPLAY": f":{number}"} for mode, number in zip(modes, server.first_line().split())}

    def compositors(self, modes):
        self.path("session").mkdir()
        self.start("python3", FAKE_COMPOSITOR, self.path("session"), *modes).first_line()
        return {mode: {"ZU3_DISPLAY": "wayland", "WAYLAND_DISPLAY": str(self.path("session") / mode)} for mode in modes}

    def sound_servers(self, modes):
        self.start_sound()
        self.path("fake").mkdir()
        self.start("python3", FAKE_SOUND_SERVER, self.path("pulse-socket"), self.path("fake"),
                   *modes).first_line()
        return {mode: {"ZU3_DISPLAY": "testcard", "DISPLAY": "", "PULSE_SERVER": f'unix:{self.path("fake")}/{mode}'}
                for mode in modes}


# It shows their mistakes best, and their time is spent once.
with_address_sanitizer = unittest.skipUnless("address" in os.environ.get("SCREENRECORD_SANITIZED", ""),
                                             "only with the address sanitizer")


@with_address_sanitizer
class HostileDisplay(ShortEndToEndTest, HostileServers):
    def test_selected_answers(self):
        # Catches reads behind a cursor's image, a division by a width of 0, and waits for the rest of a reply.
        commands = ("stream", "shot")
        survived = ("well", "cursor-half", "cursor-large", "shm_image-late")
        refused = ("geometry-zero", "geometry-large", "image-short", "setup-large")
        ends = self.run_all(self.displays((*survived, *refused, "outputs-maximal", "cursor-cut")), commands)
        for command in commands:
            self.assertEqual({ends[mode, command] for mode in survived}, {0})
            self.assertEqual({ends[mode, command] for mode in refused}, {1})


class HostileDisplayInEveryWay(LongEndToEndTest, HostileServers):
    def test_all_answers(self):
        self.run_all(self.displays(self.run_program("python3", FAKE_X_SERVER).split()), DISPLAY_COMMANDS)


@with_address_sanitizer
class HostileCompositor(ShortEndToEndTest, HostileServers):
    def test_selected_answers(self):
        # Catches unchecked sizes that are multiplied, damage outside of the picture, events of a complete or removed
        # frame, and a wait for an answer that never comes.
        survived = ("well", "red-last", "stride-wide", "offered-twice", "offered-again", "ready-twice",
                    "damage-outside",
                    "damage-much", "to-nobody", "turned-strangely", "upside-down", "old-version")
        refused = ("size-zero", "size-large", "size-greatest", "stride-small", "stride-large", "unknown-format",
                   "no-buffer",
                   "failed-first", "output-cut", "too-old-version", "never-offered")
        ends = self.run_all(self.compositors((*survived, *refused, "error", "event-short", "output-null")), ("shot",))
        self.assertEqual({mode: ends[mode, "shot"] for mode in survived}, dict.fromkeys(survived, 0))
        self.assertEqual({mode: ends[mode, "shot"] for mode in refused}, dict.fromkeys(refused, 1))
        for mode in ("well", "red-last", "stride-wide", "upside-down"):
            pixels = judges.decode(self.path(f"{mode}.shot.png"), 0)
            self.assertTrue(pixels == b"\xff\0\0" * 128 * 96, mode)


class HostileCompositorInEveryWay(LongEndToEndTest, HostileServers):
    def test_all_answers(self):
        self.run_all(self.compositors(self.run_program("python3", FAKE_COMPOSITOR).split()), DISPLAY_COMMANDS)


@with_address_sanitizer
class HostileSoundServer(ShortEndToEndTest, HostileServers):
    def test_selected_answers(self):
        # Catches sound that is placed hours away, a source without a name, and waits for the rest of an answer.
        modes = ("well", "latency-greatest", "latency-apart", "sources-nameless", "sources-cut")
        ends = self.run_all(self.sound_servers(modes), ("pcm", "devices"))
        self.assertEqual(set(ends.values()), {0})


class HostileSoundServerInEveryWay(LongEndToEndTest, HostileServers):
    def test_all_answers(self):
        self.run_all(self.sound_servers(self.run_program("python3", FAKE_SOUND_SERVER).split()), SOUND_COMMANDS)
