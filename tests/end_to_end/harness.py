"""What the end-to-end tests stand on: displays, sound servers and programs that end with the test."""

import contextlib
import ctypes
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.abspath(os.environ.get("SCREENRECORD_BUILD_DIR", os.path.join(SOURCE, "build", "release")))
SANITIZED = os.environ.get("SCREENRECORD_SANITIZED", "") != ""
# Time that things may take which are not what a test measures; instrumented programs are slower.
PATIENCE = 60 if SANITIZED else 20
SANITIZER_EXIT = 99
SANITIZER_REPORTS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer", "runtime error:")


def program(name):
    return os.path.join(BUILD, "bin", name)


def _end_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG: a killed test leaves nothing behind


def wait_until(condition, what, seconds=PATIENCE):
    """Waits until the condition holds and returns its value; raises when it does not in time."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds} s in vain for {what}")
        time.sleep(0.01)


def pass_time(seconds):
    """For what is a length of time by itself, as in "a pause of two seconds"; never to wait for an event."""
    time.sleep(seconds)


class Running:
    """A started program; its output is kept in files, so that no pipe can fill up."""

    def __init__(self, arguments, environment, folder, **options):
        self.out = tempfile.NamedTemporaryFile(dir=folder, prefix="out.")
        self.err = tempfile.NamedTemporaryFile(dir=folder, prefix="err.")
        options.setdefault("stdout", self.out)
        options.setdefault("stdin", subprocess.DEVNULL)
        prepare = options.pop("prepare", lambda: None)
        self.arguments = arguments
        self.process = subprocess.Popen(
            arguments, env=environment, cwd=folder, stderr=self.err,
            preexec_fn=lambda: (_end_with_parent(), prepare()), **options)

    def output(self):
        with open(self.out.name, encoding="utf-8", errors="replace") as file:
            return file.read()

    def errors(self):
        with open(self.err.name, encoding="utf-8", errors="replace") as file:
            return file.read()

    def wait(self, seconds=PATIENCE):
        """The exit code; a sanitizer's report fails the test wherever it stands."""
        try:
            code = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"{self.arguments} did not end within {seconds} s:\n{self.errors()}") from None
        if code == SANITIZER_EXIT or any(report in self.errors() for report in SANITIZER_REPORTS):
            raise AssertionError(f"{self.arguments}:\n{self.errors()}")
        return code

    def stop(self, number=signal.SIGTERM, seconds=PATIENCE):
        self.process.send_signal(number)
        return self.wait(seconds)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        if self.process.poll() is None:
            self.kill()
        self.out.close()
        self.err.close()


class EndToEndTest(unittest.TestCase):
    """One folder, environment and set of programs a class; all of it is gone when the class has run."""

    @classmethod
    def setUpClass(cls):
        cls.stack = contextlib.ExitStack()
        cls.addClassCleanup(cls.stack.close)
        cls.folder = tempfile.mkdtemp(prefix="screenrecord-test.")
        cls.stack.callback(shutil.rmtree, cls.folder, ignore_errors=True)
        os.mkdir(os.path.join(cls.folder, "home"), 0o700)
        cls.environment = {
            "PATH": os.environ["PATH"],
            "HOME": cls.path("home"),
            "XDG_RUNTIME_DIR": cls.path("home"),
            "TMPDIR": cls.folder,
            "LC_ALL": "C",
            "ZU3_AUDIO": "silence",
            "PULSE_SERVER": "unix:" + cls.path("no-such-server"),
            "ASAN_OPTIONS": f"exitcode={SANITIZER_EXIT}",
            "TSAN_OPTIONS": f"exitcode={SANITIZER_EXIT}:halt_on_error=1",
            "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
        }
        cls.prepare()

    @classmethod
    def prepare(cls):
        """For what all cases of a class share."""

    @classmethod
    def path(cls, name):
        return os.path.join(cls.folder, name)

    @classmethod
    def start(cls, *arguments, environment=None, **options):
        running = Running([str(a) for a in arguments], {**cls.environment, **(environment or {})}, cls.folder, **options)
        cls.stack.callback(running.close)
        return running

    @classmethod
    def client(cls, *arguments, **options):
        return cls.start(program("screenrecord"), *arguments, **options)

    @classmethod
    def run_program(cls, *arguments, seconds=PATIENCE, **options):
        """Runs a program that must succeed; its standard output."""
        running = cls.start(*arguments, **options)
        code = running.wait(seconds)
        if code != 0:
            raise AssertionError(f"{arguments}: exit code {code}\n{running.errors()}")
        return running.output()

    def assert_exit(self, running, code, seconds=PATIENCE):
        self.assertEqual(running.wait(seconds), code, running.errors())

    @classmethod
    def start_display(cls, size="1280x720", *options):
        """A display of its own for the class; the started server."""
        reader, writer = os.pipe()
        server = cls.start("Xvfb", "-displayfd", writer, "-screen", "0", size + "x24", "-nolisten", "tcp",
                           "-noreset", *options, pass_fds=[writer])
        os.close(writer)
        with os.fdopen(reader) as numbers:
            if not select.select([numbers], [], [], PATIENCE)[0]:
                raise AssertionError("Xvfb did not start: " + server.errors())
            number = numbers.readline().strip()
        if not number:
            raise AssertionError("Xvfb ended: " + server.errors())
        cls.environment["DISPLAY"] = ":" + number
        return server

    @classmethod
    def start_screen(cls, *options, name="moving_screen"):
        """A program that draws; returns when its first picture is on the screen."""
        screen = cls.start(program(name), *options)
        wait_until(lambda: screen.output() or screen.process.poll() is not None, name)
        if screen.output() != "ready\n":
            raise AssertionError(f"{name} failed: " + screen.errors())
        return screen

    @classmethod
    def start_sound(cls):
        """A sound server of its own, with two sinks that nobody hears, of which the first is in use."""
        socket = cls.path("pulse-socket")
        with contextlib.suppress(FileNotFoundError):
            os.remove(socket)  # of a server that was killed
        server = cls.start("pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                           "--disable-shm=yes", "-L", "module-null-sink sink_name=test rate=48000",
                           "-L", "module-null-sink sink_name=second rate=48000",
                           "-L", f"module-native-protocol-unix socket={socket} auth-anonymous=1")
        cls.environment["PULSE_SERVER"] = "unix:" + socket
        cls.environment.pop("ZU3_AUDIO", None)
        wait_until(lambda: os.path.exists(socket) or server.process.poll() is not None, "the sound server's socket")
        # The sink renders two seconds ahead before it learns that somebody wants less; a listener makes it learn.
        listener = cls.start("parec", "-d", "test.monitor", "--raw", "--rate=8000", "--channels=1", "--latency-msec=10")
        wait_until(lambda: os.path.getsize(listener.out.name) > 0, "the sink's first sound")
        return server


class ShortEndToEndTest(EndToEndTest):
    """Short enough, and without a claim about timing, to be run with sanitizers too."""


class LongEndToEndTest(EndToEndTest):
    """Takes minutes; run by the long form alone."""
