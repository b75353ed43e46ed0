"""Readers that stop reading, stalled disks, pipes without a reader: the client still reacts to signals."""

import contextlib
import fcntl
import functools
import json
import os
import pathlib
import platform
import pty
import resource
import select
import signal
import subprocess

import judges
from harness import SANITIZED, SOURCE, TEST_CARD, ShortEndToEndTest, full_pipe, size_of, wait_until

# Seconds for a stop while an output is blocked.
STOP = 30 if SANITIZED else 3


CALLS = {"openat": {"x86_64": "257", "aarch64": "56"}, "recvfrom": {"x86_64": "45", "aarch64": "207"},
         "write": {"x86_64": "1", "aarch64": "64"}}


def waits_in(client, call):
    """Whether a thread of the process waits in that system call."""
    calls = pathlib.Path(f"/proc/{client.process.pid}/task").glob("*/syscall")
    return any(each.read_text("ascii").split()[0] == CALLS[call][platform.machine()] for each in calls)


class Disk(ShortEndToEndTest):
    """A disk that stands still, as the client sees it: the process that writes to it gives no answer."""

    VARIABLES = TEST_CARD

    def writer(self, client, name):
        """The client's child of that name."""
        for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
            with contextlib.suppress(OSError):
                comm, _, rest = stat.read_text("ascii").partition("(")[2].rpartition(")")
                if comm == name and int(rest.split()[1]) == client.process.pid:
                    return int(stat.parent.name)
        raise AssertionError(f"no {name}")

    def hold(self, client, name):
        process = self.writer(client, name)
        os.kill(process, signal.SIGSTOP)
        self.addCleanup(self.release, process)
        return process

    @staticmethod
    def release(process):
        with contextlib.suppress(ProcessLookupError):
            os.kill(process, signal.SIGCONT)

    def test_stands_still_while_recording(self):
        # Catches a status without the stall, an end that waits for the disk, and an unreported loss.
        status = self.path("status")
        recording = self.client("record", "--json", "--rate", "2", "-s", "320x240", "-o", "a.ts",
                                "--status-file", status)
        wait_until(lambda: size_of(self.path("a.ts")) > 0, "the first batch")
        self.hold(recording, "disk writer")
        wait_until(lambda: (json.loads(status.read_text("ascii"))["disk_waiting"] or 0) > 1, "the status")
        self.hold(recording, "status writer")
        self.assert_stops(recording, 3, seconds=STOP)
        self.assertRegex(recording.errors(), r"screenrecord: the last \d{5,} bytes are missing from a.ts: its disk")
        self.assertEqual(recording.output(), "a.ts\n")
        self.assertTrue(judges.whole_packets(self.path("a.ts")))

    def test_moves_again(self):
        # Catches a loss reported without one, and an end that does not wait for pending data.
        recording = self.client("record", "--json", "--rate", "2", "-s", "320x240", "-o", "b.ts")
        wait_until(lambda: size_of(self.path("b.ts")) > 0, "the first batch")
        held = self.hold(recording, "disk writer")
        wait_until(lambda: '"disk_waiting":2' in recording.errors(), "a second status")
        self.release(held)
        self.assert_stops(recording, 0)
        self.assertNotIn("missing", recording.errors())
        self.assertEqual(judges.faults(self.path("b.ts")), "")

    def test_stands_still_while_streaming(self):
        # Catches a stream that a thread of ours writes: the kernel would keep the whole process for the disk.
        for words in (["stream", "-o", "c.h264"], ["pcm", "-o", "c.wav"]):
            with self.subTest(words[0]):
                running = self.client(*words, environment={"ZU3_AUDIO": "silence"})
                wait_until(lambda path=self.path(words[2]): size_of(path) > 1000, "the first bytes")
                self.hold(running, "disk writer")
                wait_until(lambda client=running: waits_in(client, "recvfrom"), "bytes that the disk does not accept")
                self.assert_stops(running, 3, seconds=STOP)
                self.assertIn(f"the end is missing from {words[2]}: its disk does not respond", running.errors())


class Readers(ShortEndToEndTest):
    """Pipes and terminals that stay full or empty."""

    VARIABLES = TEST_CARD

    @classmethod
    def prepare(cls):
        cls.fifo = cls.path("fifo.png")
        os.mkfifo(cls.fifo)
        cls.reader, cls.full = full_pipe()
        cls.stack.callback(os.close, cls.reader)
        cls.stack.callback(os.close, cls.full)

    def test_stop_is_heard(self):
        # Catches a main loop that stands in a write or a read and does not look for signals.
        nonsense = b"nonsense\n" * 50
        fifo = f"watermark {self.fifo}\n".encode()
        cases = [
            ("shot", ["shot", "-s", "64x64", "-n", "9999", "--interval", "0", "-o", "a.png"], {"stdout": self.full},
             b"", 3),
            ("fifo", ["stream", "-o", "b.h264", "--watermark", self.fifo], {}, b"", 1),
            ("answers", ["stream", "--control", "-", "-o", "c.h264"], {"stderr": self.full}, nonsense, 0),
            ("control", ["stream", "--control", "-", "-o", "d.h264"], {}, fifo, 0),
        ]
        running = {}
        for name, words, options, said, code in cases:
            client = self.client(*words, **options, stdin=subprocess.PIPE)
            client.process.stdin.write(said)
            client.process.stdin.flush()
            self.addCleanup(client.process.stdin.close)
            running[name] = client, code
        # Each is where it would be held: behind its first picture, or with a thread in its read or write.
        for name in ("c.h264", "d.h264", "a-001.png"):
            wait_until(lambda path=self.path(name): size_of(path) > 0, name)
        before = size_of(self.path("d.h264"))
        wait_until(lambda: size_of(self.path("d.h264")) > before, "frames while the picture is waited for")
        wait_until(lambda: waits_in(running["fifo"][0], "openat"), "an open that waits")
        for name, (client, code) in running.items():
            with self.subTest(name):
                self.assert_stops(client, code, seconds=STOP)

    def test_end_is_not_read(self):
        # Catches an end that a reader never reads, and that is lost without a word.
        for words in (["record", "-s", "320x240"], ["stream", "-s", "320x240"], ["pcm"]):
            with self.subTest(words[0]):
                for end in (pipe := os.pipe()):
                    self.addCleanup(os.close, end)
                fcntl.fcntl(pipe[1], fcntl.F_SETPIPE_SZ, 16384)
                running = self.client(*words, "-o", "-", stdout=pipe[1], environment={"ZU3_AUDIO": "tone"})
                wait_until(lambda client=running, end=pipe[1]: not select.select([], [end], [], 0)[1]
                           and waits_in(client, "write"), "bytes without room")
                self.assert_stops(running, 3, seconds=STOP)
                self.assertIn("the end is missing from -: its reader reads no more\n", running.errors())

    def test_terminal_that_nobody_reads(self):
        # Catches a capture that stands in the log's write.
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        self.addCleanup(os.close, theirs)
        recording = self.client("record", "-v", "-s", "64x64", "-t", "3", "-o", "e.ts", stderr=theirs,
                                environment={"ANDROID_LOG_TAGS": "*:V", "TERM": "dumb"})
        self.assert_exit(recording, 0)
        self.assertGreater(len(judges.packets(self.path("e.ts"))), 20 if SANITIZED else 60)


class Display(ShortEndToEndTest):
    """X servers that answer a client's first connection, or none, and leave the next without an answer."""

    def test_stop_is_heard(self):
        # Catches an opening that waits for the display's answer and does not look for signals, and a file it leaves.
        waiting = "cannot capture the screen: stopped while waiting for it"
        cases = [(1, ["record", "-o", "a.ts"], waiting), (1, ["record", "-o", "a.mkv"], waiting),
                 (1, ["stream", "-o", "a.h264"], waiting), (1, ["shot", "-o", "a.png"], waiting),
                 (1, ["replay", "-o", self.folder], waiting), (0, ["record", "-o", "b.ts"], waiting),
                 (0, ["devices"], "cannot list the devices: stopped before all had answered"),
                 (0, ["doctor"], "cannot finish the examination: stopped")]
        servers = self.start("python3", SOURCE / "tools" / "fake_x_server.py", *(f"silent-{case[0]}" for case in cases))
        running = [(self.client(*words, environment={"DISPLAY": f":{number}"}), sentence)
                   for number, (_, words, sentence) in zip(servers.first_line().split(), cases)]
        for (answered, words, _), (client, _) in zip(cases, running):
            wait_until(lambda client=client, count=answered + 1: self.connections(client) >= count, words)
        for client, _ in running:
            client.process.send_signal(signal.SIGTERM)
        for client, sentence in running:
            with self.subTest(client.arguments):
                self.assert_exit(client, 1, STOP)
                self.assertIn(f"screenrecord: {sentence}\n", client.errors())
        self.assertFalse([name for name in os.listdir(self.folder) if name.startswith(("a.", "b."))])

    @staticmethod
    def connections(client):
        """The number of connections that the process has begun, which its threads show."""
        names = [task.read_text("ascii").strip()
                 for task in pathlib.Path(f"/proc/{client.process.pid}/task").glob("*/comm")]
        return 2 if "zu3 display" in names else len(names) > 1


class Limits(ShortEndToEndTest):
    VARIABLES = TEST_CARD

    def test_little_is_enough(self):
        # Catches a program that is ended by its system's limits instead of doing without or saying so.
        cases = [(["devices"], resource.RLIMIT_NOFILE, 6), (["record", "-s", "64x64", "-t", "0.5", "-o", "a.ts"],
                                                            resource.RLIMIT_STACK, 64 << 10)]
        for words, limit, value in cases:
            if SANITIZED and limit == resource.RLIMIT_STACK:
                continue  # an instrumented program needs more for itself
            with self.subTest(words):
                limits = (value, value)
                client = self.client(*words, prepare=functools.partial(resource.setrlimit, limit, limits))
                self.assert_exit(client, 0)

    def test_end_without_a_thread(self):
        # Catches an end that the system refuses a thread, and a program that crashes and loses the last pictures.
        if SANITIZED:
            self.skipTest("an instrumented program needs more memory for itself")
        recording = self.client("record", "--rate", "2", "-s", "320x240", "-o", "b.ts")
        wait_until(lambda: size_of(self.path("b.ts")) > 0, "the first batch")
        resource.prlimit(recording.process.pid, resource.RLIMIT_AS, (1 << 20, 1 << 20))
        self.assert_stops(recording)
        self.assertEqual(recording.output(), "b.ts\n")
        self.assertEqual(judges.faults(self.path("b.ts")), "")

    def test_watermark_without_a_descriptor(self):
        # Catches a watermark that cannot be read and ends the stream.
        stream = self.client("stream", "-s", "320x240", "-o", "c.h264", "--control", "-", stdin=subprocess.PIPE)
        self.addCleanup(stream.process.stdin.close)
        wait_until(lambda: size_of(self.path("c.h264")) > 0, "the first frame")
        most = resource.prlimit(stream.process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(stream.process.pid, resource.RLIMIT_NOFILE, (3, most[1]))
        stream.process.stdin.write(b"watermark a.png\n")
        stream.process.stdin.flush()
        wait_until(lambda: "Too many open files" in stream.errors(), "the answer")
        self.assertIn("error: ", stream.errors())
        resource.prlimit(stream.process.pid, resource.RLIMIT_NOFILE, most)  # a leak check at the end needs some
        self.assert_stops(stream)
