"""Files that others write, rename, cut or remove while they are being recorded."""

import os
import shutil

import judges
from harness import TEST_CARD, ShortEndToEndTest, size_of, wait_until

# Two megabits a second, so that the first batch is soon there.
RECORD = ["record", "-s", "320x240", "-r", "10", "--rate", "2"]
STREAM = ["stream", "-s", "64x64", "-r", "10"]


class Locked(ShortEndToEndTest):
    VARIABLES = TEST_CARD

    def test_second_recorder_is_refused(self):
        # Catches two recorders that write one file by turns, and one that removes the other's file.
        recording = self.client(*RECORD, "-o", "a.ts", "--status-file", "status")
        wait_until(lambda: size_of(self.path("a.ts")) > 0, "the first batch")
        os.link(self.path("a.ts"), self.path("link"))
        cases = [("link", ["record", "-y", "-o", "link"]), ("link", ["stream", "-y", "-o", "link"]),
                 ("link", ["pcm", "-y", "-o", "link"]), ("link", ["shot", "-y", "-o", "link"]),
                 ("a.ts", ["record", "-y", "-o", "a.ts", "--status-file", "other"]),
                 ("status", ["record", "-o", "b.ts", "--status-file", "status"]),
                 ("status", ["shot", "-y", "-o", "status"])]
        for name, refused in [(name, self.client(*words)) for name, words in cases]:
            self.assert_exit(refused, 2)
            self.assertEqual(refused.errors(),
                             f"screenrecord: {name} is being recorded by process {recording.process.pid}\n")
        self.assert_stops(recording)
        self.assertEqual(judges.faults(self.path("a.ts")), "")
        self.assertFalse(self.path("other").exists() or self.path("b.ts").exists())
        self.run_program("screenrecord", "shot", "-y", "-o", "link")

    def test_recording_into_a_pipe_waits_for_its_reader(self):
        os.mkfifo(self.path("pipe"))
        recording = self.client(*RECORD, "-t", "1", "-o", "pipe", "--status-file", "waiting")
        wait_until(lambda: size_of(self.path("waiting")) > 0, "the recorder")
        with open(self.path("copy"), "wb") as copy:
            reader = self.start("cat", "pipe", stdout=copy)
            wait_until(lambda: size_of(self.path("copy")) > 0, "the first batch")
            refused = self.client(*STREAM, "-o", "pipe")
            self.assert_exit(refused, 2)
            self.assertIn(f"pipe is being recorded by process {recording.process.pid}", refused.errors())
            self.assert_exit(recording, 0)
            self.assert_exit(reader, 0)
        self.assertEqual(judges.faults(self.path("copy")), "")

    def test_reader_of_a_pipe_leaves(self):
        # Catches an end that depends on the format, and words about a disk.
        cases = [["pcm", "-o", "p.wav"], [*STREAM, "-o", "p.h264"], [*RECORD, "-o", "p.ts"], ["record", "-o", "p.mp4"],
                 ["record", "-o", "p.mkv"]]  # those that fill a pipe first
        for words in cases:
            os.mkfifo(self.path(words[-1]))
        running = [(self.client(*words), words[-1]) for words in cases]
        pipes = [open(self.path(name), "rb") for _, name in running]  # a recording begins with its reader
        for (client, name), pipe in zip(running, pipes):
            with pipe:
                pipe.read(5000)
            with self.subTest(name):
                self.assert_exit(client, 0)
                self.assertNotRegex(client.errors(), "screenrecord:|disk")

    def test_name_as_long_as_names_can_be(self):
        name = "x" * 255
        self.run_program("screenrecord", *RECORD, "-t", "0.2", "-o", name, "--status-file", "y" * 255)
        self.run_program("screenrecord", "shot", "-y", "-o", name)


class Watched(ShortEndToEndTest):
    LOSSES = {
        "removed": (os.unlink, "it was removed"),
        "replaced": (lambda path: os.replace(shutil.copy(path, f"{path}.other"), path), "another file has replaced it"),
        "cut": (lambda path: os.truncate(path, 0), "another program has cut it"),
        "gone": (lambda path: shutil.rmtree(path.parent), "it was removed"),
    }

    VARIABLES = TEST_CARD

    def begin(self, name, command):
        folder = self.path(f"{name}-{command[0]}")
        folder.mkdir()
        return folder / "a", self.client(*command, "-o", folder / "a")

    def test_what_becomes_of_the_output(self):
        # Catches a path printed, and a success, of a recording that is no longer there; and one ended for its new name.
        lost = [(self.begin(name, command), *case) for name, case in self.LOSSES.items()
                for command in (RECORD, STREAM, ["pcm"]) if name != "gone" or command == RECORD]
        renamed = [(self.begin(name, command), name) for command in (RECORD, STREAM, ["pcm"])
                   for name in ("file", "folder")]
        for (path, _), *_ in lost + renamed:
            wait_until(lambda path=path: size_of(path) > 0, path)
        for (path, _), act, _ in lost:
            act(path)
        for (path, _), name in renamed:
            os.rename(path if name == "file" else path.parent, f"{path.parent}.new")
        for (path, client), _, reason in lost:
            self.assert_exit(client, 3)
            self.assertIn(f"cannot record into {path} any more: {reason}", client.errors())
            self.assertIn(client.output(), ("", f"{path}\n") if "cut" in reason else ("",))
        for (path, client), name in renamed:
            new = f"{path.parent}.new" + ("/a" if name == "folder" else "")
            wait_until(lambda client=client: "renamed" in client.errors(), "the new name to be told")
            self.assert_stops(client)
            self.assertEqual(client.output(), new + "\n")
            self.assertEqual(judges.faults(new) if path.parent.name.endswith("record") else "", "")
