"""The base of the end-to-end tests: displays, sound servers and programs that end with the test."""

import contextlib
import ctypes
import fcntl
import functools
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

SOURCE = pathlib.Path(__file__).absolute().parents[2]
BUILD = pathlib.Path(os.environ.get("SCREENRECORD_BUILD_DIR", SOURCE / "build" / "release")).absolute()
SANITIZED = os.environ.get("SCREENRECORD_SANITIZED", "") != ""
# Seconds for steps that a test does not measure; instrumented programs are slower.
PATIENCE = 60 if SANITIZED else 20
# A client notices some things within a second, which an instrumented one on a busy machine cannot promise.
SOON = 10 if SANITIZED else 1
SANITIZER_EXIT = 99
TEST_CARD = {"ZU3_DISPLAY": "testcard"}
SANITIZER_REPORTS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer", "runtime error:")


def size_of(path):
    return os.path.getsize(path) if os.path.exists(path) else 0


def wait_until(condition, what, seconds=PATIENCE):
    """Waits until the condition holds; raises when it does not in time."""
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds} s in vain for {what}")
        time.sleep(0.01)


def pass_time(seconds):
    """For a duration that is itself under test, such as a pause of two seconds; never to wait for an event."""
    time.sleep(seconds)


def full_pipe():
    """Both ends of a pipe without room for another byte."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    with contextlib.suppress(BlockingIOError):
        while os.write(writer, bytes(fcntl.fcntl(writer, fcntl.F_GETPIPE_SZ))):
            pass
    os.set_blocking(writer, True)
    return reader, writer


class Running:
    """A started program; its output is kept in files, so that no pipe can fill up."""

    def __init__(self, arguments, environment, folder, prepare=lambda: None, **options):
        self.out, self.err = (tempfile.NamedTemporaryFile(dir=folder, prefix=prefix) for prefix in ("out.", "err."))
        self.arguments = arguments
        self.process = subprocess.Popen(
            arguments, env=environment, cwd=folder,
            # PR_SET_PDEATHSIG: a killed test leaves nothing behind.
            preexec_fn=lambda: (ctypes.CDLL(None).prctl(1, signal.SIGKILL), prepare()),
            **{"stdin": subprocess.DEVNULL, "stdout": self.out, "stderr": self.err} | options)

    def output(self):
        return pathlib.Path(self.out.name).read_text(encoding="utf-8", errors="replace")

    def errors(self):
        return pathlib.Path(self.err.name).read_text(encoding="utf-8", errors="replace")

    def first_line(self):
        """The first line of its output, which says that it is ready."""
        wait_until(lambda: "\n" in self.output() or self.process.poll() is not None, self.arguments)
        if "\n" not in self.output():
            raise AssertionError(f"{self.arguments} ended: {self.errors()}")
        return self.output().partition("\n")[0]

    def wait(self, seconds=PATIENCE):
        """The exit code; a sanitizer's report in its output fails the test."""
        try:
            code = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"{self.arguments} did not end within {seconds} s:\n{self.errors()}") from None
        if code == SANITIZER_EXIT or any(report in self.errors() for report in SANITIZER_REPORTS):
            raise AssertionError(f"{self.arguments}:\n{self.errors()}")
        return code

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        self.kill()
        self.out.close()
        self.err.close()


class EndToEndTest(unittest.TestCase):
    """One folder, environment and set of programs a class; all of it is gone when the class has run."""

    VARIABLES = {}  # more of them in the environment

    @classmethod
    def setUpClass(cls):
        cls.stack = contextlib.ExitStack()
        cls.addClassCleanup(cls.stack.close)
        cls.folder = tempfile.mkdtemp(prefix="screenrecord-test.")
        cls.stack.callback(shutil.rmtree, cls.folder, ignore_errors=True)
        cls.path("home").mkdir(0o700)
        cls.environment = {
            "PATH": f'{BUILD}/bin:{os.environ["PATH"]}',
            "HOME": str(cls.path("home")),
            "XDG_RUNTIME_DIR": str(cls.path("home")),
            "TMPDIR": cls.folder,
            "LC_ALL": "C",
            "ZU3_AUDIO": "silence",
            "PULSE_SERVER": f"unix:{cls.path('no-such-server')}",
            "ASAN_OPTIONS": f"exitcode={SANITIZER_EXIT}",
            # by default each process waits for a second at its end
            "TSAN_OPTIONS": f"exitcode={SANITIZER_EXIT}:halt_on_error=1:atexit_sleep_ms=50:"
                            f"suppressions={SOURCE / 'tests' / 'end_to_end' / 'thread_sanitizer.txt'}",
            "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
        } | cls.VARIABLES
        cls.prepare()

    @classmethod
    def prepare(cls):
        """For the resources that all cases of a class share."""

    @classmethod
    def path(cls, name):
        return pathlib.Path(cls.folder, name)

    @classmethod
    def start(cls, *arguments, environment=None, **options):
        """Starts a program, one of the built ones or of the system's."""
        running = Running([str(a) for a in arguments], {**cls.environment, **(environment or {})}, cls.folder,
                          **options)
        cls.stack.callback(running.close)
        return running

    @classmethod
    def client(cls, *arguments, **options):
        return cls.start("screenrecord", *arguments, **options)

    @classmethod
    def run_program(cls, *arguments, seconds=PATIENCE, **options):
        """Runs a program that must succeed; its standard output."""
        running = cls.start(*arguments, **options)
        code = running.wait(seconds)
        if code != 0:
            raise AssertionError(f"{arguments}: exit code {code}\n{running.errors()}")
        return running.output()

    def assert_exit(self, running, code, seconds=PATIENCE):
        found = running.wait(seconds)
        if SANITIZED and (found, code) == (3, 0) and "this machine was too busy" in running.errors():
            return  # an instrumented recorder is slow, and a movie says so
        self.assertEqual(found, code, running.errors())

    def assert_stops(self, running, code=0, number=signal.SIGTERM, seconds=PATIENCE):
        running.process.send_signal(number)
        self.assert_exit(running, code, seconds)

    def frozen_disk(self, freeze=True):
        """A folder on a disk that stands still, or can be made to, and the call that lets it move."""
        disk = pathlib.Path(tempfile.mkdtemp(dir=self.folder, prefix="disk."))
        image = disk.with_name(f"{disk.name}.image")
        image.write_bytes(bytes(8 << 20))
        for command in (["mkfs.ext4", "-q", image], ["mount", "-o", "loop", image, disk],
                        *[["fsfreeze", "--freeze", disk]] * freeze):
            if subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode != 0:
                self.skipTest(f"{command[0]} is not allowed here")
            if command[0] == "mount":
                self.addCleanup(subprocess.run, ["umount", "-l", disk], check=True)
        thaw = functools.partial(subprocess.run, ["fsfreeze", "--unfreeze", disk], check=False,
                                 stderr=subprocess.DEVNULL)
        self.addCleanup(thaw)
        return disk, thaw

    @classmethod
    def start_display(cls, size="1280x720", *options):
        """A private display for the class, of depth 24 unless the size ends in another; the started server."""
        server = cls.start(SOURCE / "scripts" / "virtual_display.sh", size, *options)
        cls.environment["DISPLAY"] = ":" + server.first_line()
        return server

    @classmethod
    def start_screen(cls, *options, name="moving_screen"):
        """A program that draws; returns when its first picture is on the screen."""
        cls.start(name, *options).first_line()

    @classmethod
    def start_session(cls, size="656x608", outputs=1):
        """A private Wayland session: sway without a screen or a GPU, as another user, since it refuses root."""
        nobody, folder = 65534, pathlib.Path(tempfile.mkdtemp(dir=cls.folder, prefix="session."))
        pathlib.Path(cls.folder).chmod(0o711)
        folder.joinpath("config").write_text("xwayland disable\ndefault_border none\nseat * hide_cursor 1\n" + "".join(
            f"output HEADLESS-{number + 1} resolution {size}\n" for number in range(outputs)), encoding="ascii")
        os.chown(folder, nobody, nobody)
        cls.environment |= {"XDG_RUNTIME_DIR": str(folder), "WAYLAND_DISPLAY": "wayland-1"}
        session = cls.start("sway", "-c", folder / "config", user=nobody, group=nobody, extra_groups=[], environment={
            "WLR_BACKENDS": "headless", "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1",
            "WLR_HEADLESS_OUTPUTS": str(outputs), "HOME": str(folder)})
        wait_until(lambda: list(folder.glob("sway-ipc.*.sock")) and (folder / "wayland-1").exists()
                   or session.process.poll() is not None, "the session's sockets")
        if session.process.poll() is not None:
            raise AssertionError(session.errors())
        cls.environment["SWAYSOCK"] = str(next(folder.glob("sway-ipc.*.sock")))
        wait_until(lambda: cls.run_program("swaymsg", "-t", "get_outputs", "-r").count('"active": true') == outputs,
                   "the session's outputs")
        return session

    @classmethod
    def start_sound(cls):
        """A private sound server with two silent sinks, of which the first is in use."""
        socket = cls.path("pulse-socket")
        socket.unlink(missing_ok=True)  # of a server that was killed
        server = cls.start("pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                           "--disable-shm=yes", "-L", "module-null-sink sink_name=test rate=48000",
                           "-L", "module-null-sink sink_name=second rate=48000",
                           "-L", f"module-native-protocol-unix socket={socket} auth-anonymous=1")
        cls.environment["PULSE_SERVER"] = f"unix:{socket}"
        cls.environment.pop("ZU3_AUDIO", None)
        wait_until(lambda: socket.exists() or server.process.poll() is not None, "the sound server's socket")
        # The sink renders two seconds ahead before it learns that a listener wants less; a listener makes it learn.
        listener = cls.start("parec", "-d", "test.monitor", "--raw", "--rate=8000", "--channels=1", "--latency-msec=10")
        wait_until(lambda: size_of(listener.out.name) > 0, "the sink's first sound")
        return server

    @classmethod
    def start_pipewire(cls):
        """The same sinks of PipeWire, behind its server that speaks as PulseAudio does."""
        runtime = cls.path("runtime")
        runtime.mkdir(0o700)
        cls.environment |= {"XDG_RUNTIME_DIR": str(runtime), "PIPEWIRE_RUNTIME_DIR": str(runtime)}
        bus = cls.start("dbus-daemon", "--session", "--nofork", "--print-address=1")
        cls.environment["DBUS_SESSION_BUS_ADDRESS"] = bus.first_line()
        cls.start("pipewire")
        wait_until((runtime / "pipewire-0").exists, "PipeWire's socket")
        cls.start("wireplumber")
        server = cls.start("pipewire-pulse")
        socket = runtime / "pulse" / "native"
        wait_until(socket.exists, "the sound server's socket")
        cls.environment["PULSE_SERVER"] = f"unix:{socket}"
        cls.environment.pop("ZU3_AUDIO", None)
        for sink in ("test", "second"):
            cls.run_program("pactl", "load-module", "module-null-sink", f"sink_name={sink}", "rate=48000")
        # The session manager takes its time to start; only then a default sticks.
        wait_until(lambda: cls.start("pactl", "set-default-sink", "test").wait() == 0 and
                   "Default Sink: test\n" in cls.run_program("pactl", "info"), "PipeWire's session manager")
        return server


class ShortEndToEndTest(EndToEndTest):
    """Short enough, and without a claim about timing, to be run with sanitizers too."""


class UnmeasuredEndToEndTest(EndToEndTest):
    """Measures no time, so it runs beside others; too slow with sanitizers."""


class LongEndToEndTest(EndToEndTest):
    """Takes minutes; run by the long form alone."""
