"""Exposure to others: written files, inherited descriptors, shared memory, the X cookie."""

import fcntl
import itertools
import os
import pathlib
import platform
import re
import shutil
import struct
import subprocess
import tempfile
import unittest

import judges
from harness import BUILD, TEST_CARD, ShortEndToEndTest, full_pipe, size_of, wait_until

F_GET_SEALS, F_SEAL_SHRINK = 1034, 2
COMMANDS = {
    "record": ["record", "-s", "64x64", "-t", "0.2"],
    "stream": ["stream", "-s", "64x64", "-t", "0.2"],
    "pcm": ["pcm", "-t", "0.2"],
    "shot": ["shot"],
}


class Files(ShortEndToEndTest):
    VARIABLES = TEST_CARD

    def test_only_the_owner_may_read_them(self):
        # Catches screens and sound that others on the machine can read, and a umask that locks the owner out.
        running = []
        for mask in (0, 0o022, 0o777):
            for name, arguments in COMMANDS.items():
                path = self.path(f"{name}-{mask:o}")
                running.append((path, self.client(*arguments, "-o", path, prepare=lambda mask=mask: os.umask(mask))))
        for path, client in running:
            self.assert_exit(client, 0)
            self.assertEqual(path.stat().st_mode & 0o777, 0o600, path)

    def test_planted_links_are_refused(self):
        # Catches another user's file that is overwritten, emptied or made because a link to it was waiting, even if
        # the path begins with a link of the kernel's.
        precious, missing = self.path("precious"), self.path("not-there")
        precious.write_text("precious", encoding="utf-8")
        running = []
        for target, arguments, overwrite in itertools.product((precious, missing), COMMANDS.values(), ([], ["-y"])):
            link = self.path(f"{len(running)}")
            link.symlink_to(target)
            name = "/proc/self/cwd/" + link.name if overwrite else link
            running.append((link, self.client(*arguments, *overwrite, "-o", name)))
        for link, client in running:
            self.assert_exit(client, 2)
            self.assertIn("symbolic link", client.errors())
            self.assertTrue(link.is_symlink())
        self.assertEqual(precious.read_text(encoding="utf-8"), "precious")
        self.assertFalse(missing.exists())

    @unittest.skipIf(os.geteuid() != 0, "only root makes files of another user")
    def test_what_belongs_to_somebody_else_is_refused(self):
        # Catches a pipe or a file that another user has put there to read the screen.
        for name, make in {"his-file": lambda path: path.write_text("his", encoding="utf-8"),
                           "his-pipe": os.mkfifo}.items():
            make(self.path(name))
            os.chown(self.path(name), 12345, 12345)
        with open(os.open(self.path("his-pipe"), os.O_RDONLY | os.O_NONBLOCK), "rb") as reader:
            running = [self.client(*arguments, *overwrite, "-o", name) for arguments, overwrite, name
                       in itertools.product(COMMANDS.values(), ([], ["-y"]), ("his-file", "his-pipe"))]
            running.append(self.client(*COMMANDS["record"], "-o", "a.ts", "--status-file", "his-file"))
            for client in running:
                self.assert_exit(client, 2)
                self.assertIn("another user", client.errors())
            self.assertEqual(reader.read(), b"")
        self.assertEqual(self.path("his-file").read_text(encoding="utf-8"), "his")

    def test_only_ordinary_files_are_replaced(self):
        # Catches a device or a pipe, of a name that root may change, that becomes a file.
        pipe = self.path("pipe")
        os.mkfifo(pipe)
        for words in (["record", "-t", "0.2", "-o", "a.ts", "--status-file"], ["shot", "-y", "-o"]):
            refused = self.client(*words, pipe)
            self.assert_exit(refused, 2)
            self.assertIn(f"{pipe}: it is not an ordinary file", refused.errors())
            self.assertTrue(pipe.is_fifo())


class Names(ShortEndToEndTest):
    EVIL = "\033]0;mine\007\033[2J\u009b5m\u202e"

    def test_control_characters_of_others_are_shown_as_text(self):
        # Catches names that drive the terminal: of files, displays, sound sources, and in the environment.
        self.start_sound()
        self.run_program("pactl", "load-module", "module-null-sink", "sink_name=evil",
                         f"sink_properties=device.description='\"{self.EVIL}\"'")
        test_card, evil_display = TEST_CARD, {"DISPLAY": self.EVIL}
        cases = [(0, ["devices"], evil_display), (1, ["doctor"], evil_display), (2, ["record", self.EVIL], {}),
                 (2, ["pcm", "-o", f"{self.EVIL}/a.wav"], {}), (1, ["shot", "-o", "a.png"], evil_display),
                 (1, ["record", "-v", "-o", "a.ts", "--display", self.EVIL], {}),
                 (1, ["stream", "-o", "a.h264", "--watermark", self.EVIL], test_card),
                 (0, ["record", "-v", "-t", "0.2", "-o", f"{self.EVIL}.ts"], test_card)]
        for code, words, environment in cases:
            evil = self.client(*words, environment=environment)
            self.assert_exit(evil, code)
            said = evil.errors() + evil.output() * (not words[-1].endswith(".ts"))
            self.assertNotRegex(said, r"[^\n -~]", words)
            self.assertIn(r"\x1b[2J\xc2\x9b5m\xe2\x80\xae", said, words)
        self.assertEqual(evil.output(), f"{self.EVIL}.ts\n")

    def test_long_ones_of_others_are_shortened(self):
        # Catches a message that is dropped since it is too long, and an output line that waits for room for ever.
        long = "\u00e9" * 50000
        cases = [(1, ["shot", "-o", "b.png"], {"ZU3_DISPLAY": long}, "is not known"),
                 (1, ["shot", "-o", "b.png"], {"DISPLAY": long}, "'screenrecord devices' lists the others"),
                 (1, ["shot", "-o", "b.png", "--display", long], {}, "'screenrecord devices' lists the others"),
                 (0, ["devices"], {"DISPLAY": long}, "cannot be reached"), (1, ["doctor"], {"DISPLAY": long}, "Xvfb"),
                 (2, ["record", long], {}, "")]
        for code, words, environment, remedy in cases:
            with self.subTest(words=words[0], variables=list(environment)):
                client = self.client(*words, environment=environment)
                self.assert_exit(client, code)
                said = client.errors() + client.output()
                self.assertRegex(said, "\u00e9{1000}[.]{3}\u00e9*")
                self.assertIn(remedy, said)
                self.assertNotIn("\ufffd", said)

    def test_empty_variables_are_unset(self):
        # Catches a warning about a value that nobody gave.
        empty = {f"ZU3_X264_{name}": "" for name in ("PRESET", "THREADS", "KEYINT")}
        client = self.client("record", "-s", "64x64", "-t", "0.2", "-o", "c.ts", environment={**TEST_CARD, **empty})
        self.assert_exit(client, 0)
        self.assertEqual(client.errors(), "")


class Descriptors(ShortEndToEndTest):
    def descriptors(self, client):
        """(path in /proc, name, flags) of a process's open files beyond the standard three."""
        process = pathlib.Path(f"/proc/{client.process.pid}")
        for path in (process / "fd").iterdir():
            if int(path.name) > 2:
                flags = re.search(r"flags:\s*(\d+)", (process / "fdinfo" / path.name).read_text(encoding="ascii"))
                yield path, os.readlink(path), int(flags[1], 8)

    def test_recording_needs_no_standard_ones(self):
        # Catches log lines in a recording that became standard error, and a program that waits for its reader.
        reader, full = full_pipe()
        running = {name: self.client("record", "--json", "-v", "-s", "64x64", "-t", "2", "-o", name, **options,
                                     environment={**TEST_CARD, "ANDROID_LOG_TAGS": "*:D"})
                   for name, options in {"closed.ts": {"prepare": lambda: os.closerange(0, 3)},
                                         "unread.ts": {"stderr": full}}.items()}
        for name, client in running.items():
            self.assert_exit(client, 0)
            self.assertEqual(judges.faults(self.path(name)), "")
        os.close(reader)
        os.close(full)

    def test_none_is_inherited_and_no_shared_memory_shrinks(self):
        # Catches a child that keeps a recording open, and a buffer that shrinks under a reader.
        self.start_display("320x240")
        self.start_screen("--noise")
        self.start_sound()
        commands = {"a.ts": ("record", "a.ts", "socket:", "memfd:"), "b.h264": ("stream", "socket:", "memfd:"),
                    "c.wav": ("pcm", "socket:")}
        running = {name: self.client(command, "-o", self.path(name)) for name, (command, *_) in commands.items()}
        for name in commands:
            wait_until(lambda at=self.path(name): size_of(at) > 0, name)
        for name, client in running.items():
            found = list(self.descriptors(client))
            for kind in commands[name][1:]:
                self.assertTrue(any(kind in name for _, name, _ in found), f"no {kind} in {found}")
            self.assertEqual([each for each in found if not each[2] & os.O_CLOEXEC], [])
            for path, name, _ in found:
                if "memfd:" in name and "pulse" not in name:
                    with open(path, "rb") as memory:
                        self.assertTrue(fcntl.fcntl(memory, F_GET_SEALS) & F_SEAL_SHRINK, name)
            self.assert_stops(client)


class Cookie(ShortEndToEndTest):
    COOKIE = bytes(range(0x81, 0x91))

    def test_no_message_carries_it(self):
        # Catches a message, a status file or a report that gives others access to the screen.
        authority, kind = self.path("authority"), b"MIT-MAGIC-COOKIE-1"
        # Of any host and display.
        authority.write_bytes(struct.pack(f">HHHH{len(kind)}sH16s", 0xFFFF, 0, 0, len(kind), kind, 16, self.COOKIE))
        self.start_display("320x240", "-auth", authority)
        said = b""
        for environment, code in (({"XAUTHORITY": str(authority)}, 0), ({"XAUTHORITY": "no-such-file"}, 1)):
            for arguments in (["record", "--verbose", "-t", "0.5", "-o", f"{code}.ts", "--status-file", "status.json"],
                              ["shot", "--verbose", "-o", f"{code}.png"], ["doctor"]):
                client = self.client(*arguments, environment={**environment, "ANDROID_LOG_TAGS": "*:V"})
                ended = client.wait()
                if arguments[0] != "doctor":
                    self.assertEqual(ended, code, client.errors())
                said += (client.output() + client.errors()).encode()
            said += self.path("status.json").read_bytes()
        self.assertIn(b"Authorization required", said)
        self.assertNotIn(self.COOKIE, said)
        self.assertNotIn(self.COOKIE.hex().encode(), said.lower())


class Hardening(unittest.TestCase):
    """The built files themselves; flags that a sanitizer's build does not have."""

    BUILT = ("lib/libscreenrecord.so", "lib/libzu3.so", "lib/libSrGlWorker.so", "bin/screenrecord")

    def code(self, name):
        return subprocess.run(["objdump", "-d", "--no-show-raw-insn", BUILD / name], capture_output=True, check=True,
                              text=True).stdout

    @unittest.skipIf(os.geteuid() != 0, "only root gives a file away")
    def test_privileged_process_is_not_led_by_its_environment(self):
        # Catches a privileged program that lets its user choose its server.
        with tempfile.TemporaryDirectory() as folder:
            program = pathlib.Path(folder, "set-uid")
            shutil.copy(BUILD / "bin/host_capture_test", program)
            os.chmod(folder, 0o755)
            for mode, said, passes in ((0o755, "", True), (0o4755, "more privileges than its user", False)):
                program.chmod(mode)
                ended = subprocess.run([program, "--gtest_filter=*LeavesLeasedPicturesAlone"], user=65534, cwd="/",
                                       env={}, capture_output=True, text=True)
                self.assertEqual(ended.returncode == 0, passes, ended.stdout + ended.stderr)
                self.assertIn(said, ended.stderr)

    def test_built_files(self):
        for name in self.BUILT:
            with self.subTest(name):
                listing, needs = (subprocess.run([*tool, BUILD / name], capture_output=True, check=True,
                                                 text=True).stdout
                                  for tool in (["readelf", "-Whldn"], ["nm", "-D", "-u"]))
                for wanted in (r"Type: +DYN", "GNU_RELRO", r"\(FLAGS_1\).*\bNOW\b", r"GNU_STACK .* RW +0x"):
                    self.assertRegex(listing, wanted)
                self.assertNotIn("TEXTREL", listing)
                self.assertNotRegex(listing, r"RUNPATH.*(\[:|::|:\])", "an empty entry is the current folder")
                self.assertNotIn("libpulse", listing, "loaded at every start, with its two dozen libraries")
                self.assertIn("__stack_chk_fail", needs)
                if platform.machine() == "x86_64":
                    self.assertRegex(listing, r"x86 feature:.*\bSHSTK\b")
                    self.assertIn("endbr64", self.code(name))
                if "zu3" in name:  # which has all that the others may lack: great frames, containers by index
                    self.assertIn("__glibcxx_assert_fail", needs)
                    if platform.machine() == "x86_64":
                        self.assertRegex(self.code(name), r"orq? +\$0x0,\(%rsp\)", "no page of a frame is touched")
                if "SrGlWorker" not in name:  # which makes no call that could be
                    self.assertRegex(needs, r"__\w+_chk\b", "no call is fortified")
