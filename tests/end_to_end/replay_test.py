"""screenrecord replay: the last seconds in memory, and files of them."""

import contextlib
import ctypes
import errno
import fcntl
import json
import os
import pathlib
import platform
import pty
import resource
import signal
import socket
import struct
import subprocess
import termios

import held_up_test
import judges
from harness import PATIENCE, LongEndToEndTest, ShortEndToEndTest, pass_time, wait_until


def refuse_links():
    """This process sees file systems without links and without nameless files, as FAT is; a filter of system calls."""
    linkat, openat = {"x86_64": (265, 257), "aarch64": (37, 56)}[platform.machine()]
    load, equal, has, end = 0x20, 0x15, 0x45, 0x06
    accept, refuse = 0x7FFF0000, 0x00050000
    steps = [(load, 0, 0, 0), (equal, 3, 0, linkat), (equal, 0, 3, openat), (load, 0, 0, 32),
             (has, 0, 1, os.O_TMPFILE & ~os.O_DIRECTORY), (end, 0, 0, refuse | errno.EPERM), (end, 0, 0, accept)]
    filters = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *step) for step in steps))
    program = struct.pack("HxxxxxxP", len(steps), ctypes.addressof(filters))
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(38, 1, 0, 0, 0) != 0 or libc.prctl(22, 2, program, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "no filter of system calls")


class Replay(ShortEndToEndTest):
    LAST = 2

    @classmethod
    def prepare(cls):
        cls.environment |= {"ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "tone"}

    def replay(self, folder, *options, **started):
        """A replay that has kept all of its time."""
        self.path(folder).mkdir(exist_ok=True)
        words = ["replay", "--last", f"{self.LAST}s", "-s", "320x240", "--json", "-o", folder, *options]
        replay = self.client(*words, **started)
        self.addCleanup(replay.kill)
        wait_until(lambda: self.status(replay).get("kept_seconds", 0) >= self.LAST, "the whole time in memory")
        return replay

    @staticmethod
    def status(replay):
        lines = [line for line in replay.errors().splitlines() if line.startswith("{") and line.endswith("}")]
        return json.loads(lines[-1]) if lines else {}

    def wait_for_files(self, folder, count):
        def files():
            return sorted(name for name in os.listdir(self.path(folder)) if name.endswith(".mp4"))
        wait_until(lambda: len(files()) >= count, f"file {count} in {folder}")
        return [self.path(folder) / name for name in files()]

    def assert_last_seconds(self, path, replay):
        times = [time for time, _, _ in judges.packets(path)]
        sound = [time for time, _, _ in judges.packets(path, "a")]
        self.assertTrue(self.LAST - 0.1 <= times[-1] - times[0] <= self.LAST + 1.1, times[-1] - times[0])
        if self.status(replay)["dropped"] == 0:  # by capture or encoder, as on a busy machine
            self.assertLess(max(b - a for a, b in zip(times, times[1:])), 0.05, "a frame is missing")
        self.assertLess(abs(sound[-1] - times[-1]), 0.15)
        samples = judges.decode_sound(path)
        loud = [max(map(abs, samples[at:at + 480])) for at in range(4800, len(samples) - 9600, 480)]
        self.assertGreater(min(loud), 8000)
        self.assertEqual(path.stat().st_mode & 0o777, 0o600)

    def test_saves_and_goes_on(self):
        replay = self.replay("saved", "--control", "-", stdin=subprocess.PIPE)
        replay.process.send_signal(signal.SIGUSR1)
        self.wait_for_files("saved", 1)
        path = self.run_program("screenrecord", "control", "save").strip()
        self.assertTrue(os.path.isabs(path) and os.path.exists(path), path)
        # The second comes while the first is written.
        replay.process.stdin.write(b"save\nsave\npause\n")
        replay.process.stdin.flush()
        files = self.wait_for_files("saved", 3)
        wait_until(lambda: "error: a replay accepts" in replay.errors(), "the answers")
        self.assertIn("error: the previous file is still being written", replay.errors())
        status = json.loads(self.run_program("screenrecord", "control", "status"))
        self.assertLessEqual(status["kept_bytes"], status["most_kept_bytes"])
        self.run_program("screenrecord", "control", "stop")
        self.assert_exit(replay, 0)
        self.assertEqual(len(replay.output().splitlines()), 3)
        for file in files:
            with self.subTest(file.name):
                self.assert_last_seconds(file, replay)
        self.assertEqual([name for name in os.listdir(self.path("saved")) if not name.endswith(".mp4")], [])

    def test_memory_stick(self):
        # Catches a save that needs a link, which FAT does not have.
        replay = self.replay("stick", prepare=refuse_links)
        for _ in range(2):
            self.run_program("screenrecord", "control", "save")
        self.assert_stops(replay)
        files = [self.path("stick") / name for name in os.listdir(self.path("stick"))]
        self.assertEqual(len(files), 2)
        for file in files:
            self.assert_last_seconds(file, replay)

    def test_key_at_a_terminal(self):
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        self.path("key").mkdir()
        replay = self.client("replay", "-s", "320x240", "-o", "key", stdin=theirs, stderr=theirs,
                             environment={"TERM": "xterm"}, start_new_session=True,
                             prepare=lambda: fcntl.ioctl(theirs, termios.TIOCSCTTY, 0))
        self.addCleanup(replay.kill)
        os.close(theirs)

        def keeps_pictures():
            asked = self.client("control", "status")
            return asked.wait() == 0 and json.loads(asked.output())["kept_seconds"] > 0

        wait_until(keeps_pictures, "the first pictures")
        os.write(ours, b"xs")
        self.wait_for_files("key", 1)
        self.assert_stops(replay)

    def test_refusals(self):
        cases = ((["--last", "1h", "-b", "240M"], "needs up to"), (["-o", "no/such/folder"], "it is not a folder"),
                 (["--last", "0.5"], "is not a time from 1 s to 1 h"),
                 (["-b", "1M", "--quality", "20"], "cannot be combined"))
        for options, sentence in cases:
            with self.subTest(options):
                refused = self.client("replay", "-s", "320x240", *options)
                self.assert_exit(refused, 2)
                self.assertIn(sentence, refused.errors())

    def test_answer_among_many(self):
        # Catches a save whose answer makes room for peers that say nothing.
        replay = self.replay("many")
        path = str(self.path(f"home/screenrecord/{replay.process.pid}.control"))
        with contextlib.ExitStack() as peers:
            def connect():
                peer = peers.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET))
                peer.settimeout(PATIENCE)
                peer.connect(path)
                return peer

            asked = connect()
            asked.send(b"save")
            for _ in range(8):
                connect()
            self.assertRegex(asked.recv(4096), b"^ok: /")
        self.assert_stops(replay)

    def test_save_without_a_descriptor(self):
        # Catches a save that needs what a busy recorder may lack.
        replay = self.replay("few")
        most = resource.prlimit(replay.process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(replay.process.pid, resource.RLIMIT_NOFILE, (3, most[1]))
        replay.process.send_signal(signal.SIGUSR1)
        self.wait_for_files("few", 1)
        resource.prlimit(replay.process.pid, resource.RLIMIT_NOFILE, most)
        self.assert_stops(replay)

    def test_killed_saver(self):
        # Catches a save that cannot begin, or fails, and ends the replay or waits for ever.
        replay = self.replay("killed")
        saver = held_up_test.Disk.writer(self, replay, "replay saver")
        os.kill(saver, signal.SIGSTOP)

        def says(sentence):
            replay.process.send_signal(signal.SIGUSR1)
            return f"screenrecord: {sentence}\n" in replay.errors()

        wait_until(lambda: says("cannot save now: the previous file is still being written"), "a save under way")
        os.kill(saver, signal.SIGKILL)
        wait_until(lambda: says("cannot save into killed: its process was killed"), "the failure")
        refused = self.client("control", "save")
        self.assert_exit(refused, 1)
        self.assertIn("the recorder refused: its process was killed\n", refused.errors())
        self.assert_stops(replay)

    def test_disk_that_stands_still(self):
        # Catches a save by the recorder itself, whose process the kernel keeps then, a file that it leaves behind, and
        # a command without an answer.
        ends = {"stop": lambda replay: self.run_program("screenrecord", "control", "stop"),
                "terminate": lambda replay: replay.process.terminate(), "kill": lambda replay: replay.process.kill()}
        for name, end in ends.items():
            with self.subTest(name):
                disk, thaw = self.frozen_disk(freeze=False)
                replay = self.replay(disk, **({} if name == "stop" else {"prepare": refuse_links}))
                subprocess.run(["fsfreeze", "--freeze", disk], check=True)
                saver = held_up_test.Disk.writer(self, replay, "replay saver")
                asked = self.client("control", "save")
                wait_until(lambda: " D " in pathlib.Path(f"/proc/{saver}/stat").read_text("ascii"), "the save")
                end(replay)
                self.assert_exit(replay, -signal.SIGKILL if name == "kill" else 1, held_up_test.STOP)
                self.assert_exit(asked, 1)
                if name != "kill":
                    sentence = "the last file is not saved: its disk does not respond\n"
                    self.assertIn(f"screenrecord: {sentence}", replay.errors())
                    self.assertEqual(f"screenrecord: the recorder refused: {sentence}", asked.errors())
                thaw()
                wait_until(lambda: not list(pathlib.Path(f"/proc/{saver}/fd").glob("*")), "the end of the process")
                self.assertEqual(os.listdir(disk), ["lost+found"])

    def assert_loses_its_last_file(self):
        """Catches a success told of a file that was still being written at the end and is not there."""
        replay = self.replay("disk", "--control", "-", stdin=subprocess.PIPE)
        replay.process.stdin.write(b"save\nstop\n")
        replay.process.stdin.close()
        self.assert_exit(replay, 1)
        self.assertIn("cannot save into disk: No space left on device", replay.errors())

    def test_full_disk(self):
        disk = self.path("disk")
        disk.mkdir()
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", disk], check=False).returncode != 0:
            self.skipTest("mounting a small disk is not allowed here")
        self.addCleanup(subprocess.run, ["umount", "-l", disk], check=True)
        replay = self.replay("disk")
        refused = self.client("control", "save")
        self.assert_exit(refused, 1)
        self.assertIn("No space left on device", refused.errors())
        self.assertIn("cannot save into disk: No space left on device", replay.errors())
        self.assertEqual(os.listdir(disk), [])
        self.assert_loses_its_last_file()
        subprocess.run(["mount", "-o", "remount,size=20m", disk], check=True)
        self.run_program("screenrecord", "control", "save")
        self.assert_stops(replay)
        self.assert_last_seconds(self.wait_for_files("disk", 1)[0], replay)


class ReplayForMinutes(LongEndToEndTest, Replay):
    """Memory stays flat."""

    def resident(self, replay):
        with open(f"/proc/{replay.process.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def test_memory(self):
        replay = self.replay("flat")
        sizes = []
        for _ in range(12):
            pass_time(20)
            self.run_program("screenrecord", "control", "save")
            sizes.append(self.resident(replay) / 1e6)
        print("resident MB:", *(f"{size:.1f}" for size in sizes))
        self.assertLess(max(sizes[6:]), max(sizes[:6]) + 1)
        self.assert_stops(replay)
