"""What others could get at: the files that are written, what children inherit, shared memory, the X cookie."""

import fcntl
import os
import re
import struct
import subprocess
import unittest

import judges
from harness import BUILD, ShortEndToEndTest, wait_until

F_GET_SEALS, F_SEAL_SHRINK = 1034, 2
COMMANDS = {
    "record": ["record", "-s", "64x64", "-t", "0.2"],
    "stream": ["stream", "-s", "64x64", "-t", "0.2"],
    "pcm": ["pcm", "-t", "0.2"],
    "shot": ["shot"],
}


class Files(ShortEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.environment["ZU3_DISPLAY"] = "testcard"

    def test_only_the_owner_may_read_them(self):
        # Catches screens and sound that others on the machine can read, and a umask that locks the owner out.
        running = []
        for mask in (0, 0o022, 0o777):
            for name, arguments in COMMANDS.items():
                path = self.path(f"{name}.{mask:o}.png")
                running.append((path, self.client(*arguments, "-o", path, prepare=lambda mask=mask: os.umask(mask))))
        for path, client in running:
            self.assert_exit(client, 0)
            self.assertEqual(os.stat(path).st_mode & 0o777, 0o600, path)

    def test_planted_links_are_refused(self):
        # Catches somebody's file that is overwritten, emptied or made because a link to it was waiting.
        precious = self.path("precious.png")
        with open(precious, "w", encoding="utf-8") as file:
            file.write("precious")
        running = []
        for target in (precious, self.path("not-there.png")):
            for name, arguments in COMMANDS.items():
                for overwrite in ([], ["-y"]):
                    link = self.path(f"{len(running)}.png")
                    os.symlink(target, link)
                    running.append((link, self.client(*arguments, *overwrite, "-o", link)))
        for link, client in running:
            self.assert_exit(client, 1)
            self.assertIn("symbolic link", client.errors())
            self.assertTrue(os.path.islink(link))
        with open(precious, encoding="utf-8") as file:
            self.assertEqual(file.read(), "precious")
        self.assertFalse(os.path.exists(self.path("not-there.png")))


class Descriptors(ShortEndToEndTest):
    def descriptors(self, client):
        """(number, name, flags) of what a process has open beyond the standard three."""
        folder = f"/proc/{client.process.pid}"
        for number in os.listdir(folder + "/fd"):
            if int(number) > 2:
                with open(f"{folder}/fdinfo/{number}", encoding="ascii") as file:
                    flags = int(re.search(r"flags:\s*(\d+)", file.read())[1], 8)
                yield number, os.readlink(f"{folder}/fd/{number}"), flags

    def test_none_is_inherited_and_no_shared_memory_shrinks(self):
        # Catches a child that keeps a recording open, and one who shrinks a buffer under a reader.
        self.start_display("320x240")
        self.start_screen("--noise")
        self.start_sound()
        path = self.path("a.ts")
        running = [(("a.ts", "socket:", "memfd:"), self.client("record", "-o", path)),
                   (("socket:", "memfd:"), self.client("stream", "-o", "b.h264")),
                   (("socket:",), self.client("pcm", "-o", "c.wav"))]
        for name in ("a.ts", "b.h264", "c.wav"):
            wait_until(lambda at=self.path(name): os.path.exists(at) and os.path.getsize(at), name)
        for kinds, client in running:
            found = list(self.descriptors(client))
            for kind in kinds:
                self.assertTrue(any(kind in name for _, name, _ in found), f"no {kind} in {found}")
            self.assertEqual([each for each in found if not each[2] & os.O_CLOEXEC], [])
            for number, name, _ in found:
                if "memfd:" in name and "pulse" not in name:
                    memory = os.open(f"/proc/{client.process.pid}/fd/{number}", os.O_RDONLY)
                    self.addCleanup(os.close, memory)
                    self.assertTrue(fcntl.fcntl(memory, F_GET_SEALS) & F_SEAL_SHRINK, name)
            self.assertEqual(client.stop(), 0, client.errors())


class Cookie(ShortEndToEndTest):
    COOKIE = bytes(range(0x81, 0x91))

    def test_no_message_carries_it(self):
        # Catches a message, a status file or a report that tells others how to get at the screen.
        authority = self.path("authority")
        kind = b"MIT-MAGIC-COOKIE-1"
        with open(authority, "wb") as file:  # of any host and display
            file.write(struct.pack(">HHH", 0xFFFF, 0, 0) + struct.pack(">H", len(kind)) + kind +
                       struct.pack(">H", len(self.COOKIE)) + self.COOKIE)
        self.start_display("320x240", "-auth", authority)
        said = b""
        for environment, code in (({"XAUTHORITY": authority}, 0), ({"XAUTHORITY": self.path("no-such-file")}, 1)):
            for arguments in (["record", "--verbose", "-t", "0.5", "-o", f"{code}.ts", "--status-file", "status.json"],
                              ["shot", "--verbose", "-o", f"{code}.png"], ["doctor"]):
                client = self.client(*arguments, environment={**environment, "ANDROID_LOG_TAGS": "*:V"})
                ended = client.wait()
                if arguments[0] != "doctor":
                    self.assertEqual(ended, code, client.errors())
                said += (client.output() + client.errors()).encode()
            if os.path.exists(self.path("status.json")):
                with open(self.path("status.json"), "rb") as file:
                    said += file.read()
        self.assertIn(b"Authorization required", said)
        self.assertNotIn(self.COOKIE, said)
        self.assertNotIn(self.COOKIE.hex().encode(), said.lower())


class Hardening(unittest.TestCase):
    """The built files themselves; flags that a sanitizer's build does not have."""

    BUILT = ("lib/libscreenrecord.so", "lib/libzu3.so", "lib/libSrGlWorker.so", "bin/screenrecord")

    def test_built_files(self):
        for name in self.BUILT:
            with self.subTest(name):
                path = os.path.join(BUILD, name)
                listing = subprocess.run(["readelf", "-Whld", path], capture_output=True, check=True, text=True).stdout
                self.assertRegex(listing, r"Type: +DYN")
                self.assertIn("GNU_RELRO", listing)
                self.assertRegex(listing, r"\(FLAGS_1\).*\bNOW\b")
                self.assertRegex(listing, r"GNU_STACK .* RW +0x")
                self.assertNotIn("TEXTREL", listing)
                needs = subprocess.run(["nm", "-D", "-u", path], capture_output=True, check=True, text=True).stdout
                self.assertIn("__stack_chk_fail", needs)
                if "SrGlWorker" not in name:  # which makes no call that could be
                    self.assertRegex(needs, r"__\w+_chk\b", "no call is fortified")


if __name__ == "__main__":
    unittest.main()
