"""screenrecord control: finds the user's running recorder through its socket."""

import json
import os
import pathlib
import resource
import signal
import socket
import time

import judges
from harness import PATIENCE, SOON, ShortEndToEndTest, pass_time, size_of, wait_until


class Control(ShortEndToEndTest):
    @classmethod
    def prepare(cls):
        cls.environment |= {"ZU3_DISPLAY": "testcard", "ZU3_AUDIO": "tone"}
        cls.sockets = cls.path("home/screenrecord")

    def record(self, name, *options, command="record"):
        """A recording that can be controlled."""
        recording = self.client(command, "-s", "320x240", "-o", name, *options)
        self.addCleanup(recording.kill)
        path = self.sockets / f"{recording.process.pid}.control"
        wait_until(lambda: path.exists() and size_of(self.path(name)) > 0, "the socket and the first bytes")
        return recording

    def control(self, *words, code=0):
        """Its output: standard output after success, otherwise standard error."""
        running = self.client("control", *words)
        self.assert_exit(running, code)
        return running.errors() if code else running.output()

    def test_one_recorder(self):
        self.assertIn("you have no running recorder", self.control("status", code=1))
        begun = time.monotonic()
        recording = self.record("one.mp4")
        self.assertEqual(os.stat(self.sockets).st_mode & 0o777, 0o700)
        self.assertEqual(json.loads(self.control("status"))["state"], "recording")
        self.assertEqual(self.control("pause"), "")
        self.assertEqual(json.loads(self.control("status"))["state"], "paused")
        pass_time(2)
        self.control("resume")
        self.assertIn("refused", self.control("save", code=1))
        pass_time(0.5)
        self.control("stop", "--pid", recording.process.pid)
        self.assert_exit(recording, 0)
        recorded = time.monotonic() - begun - 2
        self.assertLess(float(judges.streams(self.path("one.mp4"))["video"]["duration"]), recorded)
        self.assertEqual(os.listdir(self.sockets), [])

    def test_stream(self):
        stream = self.record("one.h264", command="stream")
        self.assertEqual(json.loads(self.control("status"))["state"], "recording")
        self.control("pause")
        paused = json.loads(self.control("status"))
        self.assertEqual(paused["state"], "paused")
        pass_time(1)
        # those on their way when the pause began
        self.assertLess(json.loads(self.control("status"))["frames"] - paused["frames"], 10)
        self.control("resume")
        wait_until(lambda: json.loads(self.control("status"))["frames"] > paused["frames"] + 10, "frames again")
        self.assertIn("a stream accepts pause, resume, status and stop", self.control("save", code=1))
        recording = self.record("beside_stream.mp4")
        said = self.control("status", code=2)
        self.assertIn(str(stream.process.pid), said)
        self.assertIn(str(recording.process.pid), said)
        for running in stream, recording:
            self.control("stop", "--pid", running.process.pid)
            self.assert_exit(running, 0)
        self.assertEqual(os.listdir(self.sockets), [])

    def test_several_and_stale(self):
        first, second = self.record("first.mp4"), self.record("second.ts")
        said = self.control("stop", code=2)
        for recording in (first, second):
            self.assertIn(str(recording.process.pid), said)
        self.assertIn("cannot pause", self.control("pause", "--pid", second.process.pid, code=1))
        self.assertEqual(json.loads(self.control("status", "--pid", second.process.pid))["state"], "recording")
        first.kill()
        self.assertEqual(len(os.listdir(self.sockets)), 2)
        self.control("stop")
        self.assert_exit(second, 0)
        self.assertIn("no running recorder", self.control("stop", code=1))
        self.assertEqual(os.listdir(self.sockets), [])

    def test_hostile_peers(self):
        recording = self.record("hostile.mp4", "--json")
        path = str(self.sockets / f"{recording.process.pid}.control")

        def connect():
            peer = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            peer.connect(path)  # waits while others do
            peer.settimeout(5)
            return peer

        silent = [connect() for _ in range(8)]
        for peer in silent:
            self.addCleanup(peer.close)
        for text in (b"x" * 60000, b"\0\xff\n", b"stop now please", b"s" * 4096):
            with connect() as peer:
                peer.send(text)
                self.assertIn(b"error", peer.recv(4096), text[:20])
        with connect() as peer:  # leaves without its answer
            peer.send(b"status")
        # Nothing is waited for: a wait of a second for each peer would stop the recording.
        end, frames = time.monotonic() + 2, json.loads(self.control("status"))["frames"]
        while time.monotonic() < end:
            with connect() as peer:
                peer.send(b"status")
        self.assertGreater(json.loads(self.control("status"))["frames"] - frames, 20)
        self.assert_stops(recording)
        self.assertGreater(len(judges.packets(self.path("hostile.mp4"))), 20)

    def test_without_a_descriptor_for_a_peer(self):
        # Catches a connection that cannot be accepted and makes the recorder spin, or that is never accepted.
        recording = self.record("full.mp4")
        task = pathlib.Path(f"/proc/{recording.process.pid}/task/{recording.process.pid}/stat")

        def processor_seconds():
            return sum(map(int, task.read_text("ascii").rpartition(")")[2].split()[11:13])) / os.sysconf("SC_CLK_TCK")

        most = resource.prlimit(recording.process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(recording.process.pid, resource.RLIMIT_NOFILE, (8, most[1]))  # all eight are in use
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as peer:
            peer.connect(str(self.sockets / f"{recording.process.pid}.control"))
            peer.settimeout(PATIENCE)
            before = processor_seconds()
            pass_time(2)
            used = processor_seconds() - before
            resource.prlimit(recording.process.pid, resource.RLIMIT_NOFILE, most)
            peer.send(b"status")
            self.assertIn(b"recording", peer.recv(4096))
        self.assertLess(used, 0.5)
        self.assert_stops(recording)

    def test_stopped_and_strange(self):
        recording = self.record("stopped.mp4")
        recording.process.send_signal(signal.SIGSTOP)
        begin = time.monotonic()
        self.assertIn("does not answer", self.control("status", code=1))
        self.assertLess(time.monotonic() - begin, 5 + 2 * SOON)
        recording.process.send_signal(signal.SIGCONT)
        self.assert_stops(recording)
        os.chmod(self.sockets, 0o755)
        try:
            self.assertIn("mode 0700", self.control("status", code=1))
            beside = self.client("record", "-s", "320x240", "-t", "0.5", "-v", "-o", "beside.mp4")
            self.assert_exit(beside, 0)
            self.assertIn("cannot find this recorder", beside.errors())
        finally:
            os.chmod(self.sockets, 0o700)
        self.assertIn("is not stop, pause, resume, save or status", self.control("dance", code=2))
        self.assertIn("XDG_RUNTIME_DIR is not set", self.run_without_folder())

    def run_without_folder(self):
        running = self.client("control", "status", environment={"XDG_RUNTIME_DIR": ""})
        self.assert_exit(running, 1)
        return running.errors()
