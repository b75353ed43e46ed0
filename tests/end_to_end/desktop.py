"""A headless Wayland desktop of an ordinary user: mutter, PipeWire and the desktop portal."""

import os
import shutil
import signal
import struct

from harness import BUILD, SOURCE, wait_until

USER = 65534  # nobody
AS_USER = {"user": USER, "group": USER, "extra_groups": []} if os.getuid() == 0 else {}


class Desktop:
    """The parts of the desktop, each started when it is asked for; all of them end with the test's class."""

    def __init__(self, test):
        self.test = test
        self.runtime = test.path("home")
        self.portals = test.path("portals")
        self.portals.mkdir()
        self.compositor = self.pipewire = self.portal = self.user = None
        test.environment |= {"LIBGL_ALWAYS_SOFTWARE": "1", "GSETTINGS_BACKEND": "memory",
                             "WAYLAND_DISPLAY": "wayland-0",
                             "XDG_DESKTOP_PORTAL_DIR": str(self.portals), "XDG_CURRENT_DESKTOP": "screenrecord_test"}
        self.make_pointer()
        if os.getuid() == 0:
            self.move_in()

    def move_in(self):
        """Gives the class's folder to the user, with copies of the programs, whose folder may be private."""
        built = self.test.path("built")
        shutil.copytree(BUILD / "lib", built / "lib", symlinks=True)
        (built / "bin").mkdir()
        for program in ("screenrecord", "wayland_screen", "pipewire_screen"):
            shutil.copy(BUILD / "bin" / program, built / "bin")
        shutil.copy(SOURCE / "tools" / "portal_user.py", built / "bin")
        self.test.environment["PATH"] = f'{built / "bin"}:{os.environ["PATH"]}'
        for path in (self.test.path("."), self.runtime, self.portals):
            os.chown(path, USER, USER)

    def make_pointer(self):
        """The pointer of all programs: a green square of 16 pixels, its hot spot 4 pixels from the left and top."""
        image = struct.pack("<9I", 36, 0xfffd0002, 24, 1, 16, 16, 4, 4, 0) + struct.pack("<I", 0xff00ff00) * 256
        cursors = self.test.path("icons/Adwaita/cursors")
        cursors.mkdir(parents=True)
        for name in "default", "left_ptr":
            (cursors / name).write_bytes(struct.pack("<4s6I", b"Xcur", 16, 0x10000, 1, 0xfffd0002, 24, 28) + image)
        self.test.environment["XCURSOR_PATH"] = str(self.test.path("icons"))

    def start(self, *arguments, **options):
        return self.test.start(*arguments, **options)

    def start_bus(self):
        # Without this configuration file it would start services of the machine.
        configuration = self.test.path("bus.conf")
        configuration.write_text(f"""<busconfig>
<type>session</type><listen>unix:path={self.runtime}/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/>
<allow eavesdrop="true"/><allow own="*"/></policy>
</busconfig>""", "ascii")
        self.start("dbus-daemon", f"--config-file={configuration}", "--nofork", "--print-address=1").first_line()
        self.test.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.runtime}/bus"

    def start_pipewire(self):
        self.pipewire = self.start("pipewire")
        wait_until((self.runtime / "pipewire-0").exists, "PipeWire")
        self.start("wireplumber")

    def start_compositor(self):
        """Starts mutter, with one monitor of 640x360: it draws without a GPU, which a larger one makes slow."""
        socket = self.runtime / self.test.environment["WAYLAND_DISPLAY"]
        socket.unlink(missing_ok=True)  # of one that was killed
        self.compositor = self.start("mutter", "--headless", "--virtual-monitor", "640x360", "--wayland", "--no-x11",
                                     "--wayland-display", socket.name)
        wait_until(lambda: "Using Wayland display name" in self.compositor.errors() or
                   self.compositor.process.poll() is not None, "mutter")
        if self.compositor.process.poll() is not None:
            raise AssertionError(self.compositor.errors())

    def start_portal(self, backend=True):
        if backend:
            self.user = self.start("/usr/bin/python3",
                                   shutil.which("portal_user.py", path=self.test.environment["PATH"]) or
                                   SOURCE / "tools" / "portal_user.py", self.portals)
            self.user.first_line()
            self.start("/usr/libexec/xdg-permission-store")
        self.portal = self.start("/usr/libexec/xdg-desktop-portal", "-v")
        wait_until(lambda: "org.freedesktop.portal.Desktop acquired" in self.portal.output() + self.portal.errors() or
                   self.portal.process.poll() is not None, "the portal")

    def answer(self, word):
        """Sets the user's answer from now on."""
        (self.portals / "answer").write_text(word, "ascii")

    def said(self, word):
        """How often the user did that."""
        return self.user.output().split().count(word)

    def move_pointer(self, x, y):
        """Only while the screen is shared."""
        moved = self.said("moved")
        (self.portals / "pointer").write_text(f"{x} {y}", "ascii")
        self.user.process.send_signal(signal.SIGUSR2)
        wait_until(lambda: self.said("moved") > moved, "the pointer")

    def stop_sharing(self):
        self.user.process.send_signal(signal.SIGUSR1)
