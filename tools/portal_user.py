#!/usr/bin/python3
"""
A backend of xdg-desktop-portal that plays the user of its ScreenCast dialog, and shares mutter's first monitor or the
window with the focus.

portal_user.py FOLDER

FOLDER/answer holds the user's answer to the next dialog: "grant" (also if there is no such file), "window", "node N"
(grants that node of PipeWire), "refuse", "fail" (the dialog cannot be shown), "silent" (nothing happens). It prints a line
for each event: "ready", "asked", "restored" (the earlier choice, without a dialog), "shared", "moved", "stopped". SIGUSR1:
the user stops sharing. SIGUSR2: the user moves the pointer to the place in FOLDER/pointer, such as "100 50", in pixels.

FOLDER must be the XDG_DESKTOP_PORTAL_DIR of the portal: the description of this backend is written there.
"""

import pathlib
import signal
import sys

import gi
gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

NAME = "org.freedesktop.impl.portal.desktop.screenrecord_test"
PATH = "/org/freedesktop/portal/desktop"
CONNECTOR = "Meta-0"
INTERFACES = Gio.DBusNodeInfo.new_for_xml("""<node>
  <interface name="org.freedesktop.impl.portal.ScreenCast">
    <method name="CreateSession">
      <arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
      <arg type="a{sv}" direction="in"/><arg type="u" direction="out"/><arg type="a{sv}" direction="out"/>
    </method>
    <method name="SelectSources">
      <arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
      <arg type="a{sv}" direction="in"/><arg type="u" direction="out"/><arg type="a{sv}" direction="out"/>
    </method>
    <method name="Start">
      <arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
      <arg type="s" direction="in"/><arg type="a{sv}" direction="in"/>
      <arg type="u" direction="out"/><arg type="a{sv}" direction="out"/>
    </method>
    <property name="AvailableSourceTypes" type="u" access="read"/>
    <property name="AvailableCursorModes" type="u" access="read"/>
    <property name="version" type="u" access="read"/>
  </interface>
  <interface name="org.freedesktop.impl.portal.Session">
    <method name="Close"/>
    <signal name="Closed"/>
    <property name="version" type="u" access="read"/>
  </interface>
  <interface name="org.freedesktop.impl.portal.Request"><method name="Close"/></interface>
</node>""")
PROPERTIES = {"AvailableSourceTypes": 3, "AvailableCursorModes": 7, "version": 4}


def say(word):
    print(word, flush=True)


class Mutter:
    """A session of mutter's ScreenCast with its one stream, and one of its RemoteDesktop for the pointer."""

    def __init__(self, bus, cursor_mode, window, started):
        self.bus = bus
        self.remote = self.call("RemoteDesktop", "/org/gnome/Mutter/RemoteDesktop", "", "CreateSession", "")
        name = self.call("RemoteDesktop", self.remote, None, "Get", "ss",
                         "org.gnome.Mutter.RemoteDesktop.Session", "SessionId")
        session = self.call("ScreenCast", "/org/gnome/Mutter/ScreenCast", "", "CreateSession", "a{sv}",
                            {"remote-desktop-session-id": GLib.Variant("s", name)})
        cursor = {"cursor-mode": GLib.Variant("u", cursor_mode)}
        if window:
            self.stream = self.call("ScreenCast", session, ".Session", "RecordWindow", "a{sv}", cursor)
        else:
            self.stream = self.call("ScreenCast", session, ".Session", "RecordMonitor", "sa{sv}", CONNECTOR, cursor)
        self.signal = bus.signal_subscribe(
            None, "org.gnome.Mutter.ScreenCast.Stream", "PipeWireStreamAdded", self.stream, None, 0,
            lambda *arguments: started(arguments[5].unpack()[0]))
        self.call("RemoteDesktop", self.remote, ".Session", "Start", "")

    def call(self, service, path, part, method, kinds, *values):
        service = "org.gnome.Mutter." + service
        interface = "org.freedesktop.DBus.Properties" if part is None else service + part
        answer = self.bus.call_sync(service, path, interface, method, GLib.Variant(f"({kinds})", values), None, 0, 5000,
                                    None).unpack()
        return answer[0] if answer else None

    def move_pointer(self, x, y):
        self.call("RemoteDesktop", self.remote, ".Session", "NotifyPointerMotionAbsolute", "sdd", self.stream, x, y)

    def stop(self):
        self.bus.signal_unsubscribe(self.signal)
        try:
            self.call("RemoteDesktop", self.remote, ".Session", "Stop", "")
        except GLib.Error:
            pass  # mutter has gone


class User:
    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.bus = Gio.bus_get_sync(Gio.BusType.SESSION)
        self.options, self.sharing, self.objects = {}, {}, {}
        self.export(PATH, "ScreenCast")
        (self.folder / "screenrecord_test.portal").write_text(
            f"[portal]\nDBusName={NAME}\nInterfaces=org.freedesktop.impl.portal.ScreenCast\nUseIn=screenrecord_test\n",
            "ascii")
        Gio.bus_own_name_on_connection(self.bus, NAME, 0, lambda *_: say("ready"), lambda *_: sys.exit("no name"))
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGUSR1, self.stop_all)
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGUSR2, self.move_pointer)

    def export(self, path, name):
        interface = INTERFACES.lookup_interface("org.freedesktop.impl.portal." + name)
        self.objects[path] = self.bus.register_object(
            path, interface, self.called, lambda *arguments: GLib.Variant("u", PROPERTIES[arguments[4]]), None)

    def called(self, _bus, _sender, path, interface, method, arguments, invocation):
        if method == "Close":
            if interface.endswith("Session"):
                self.end(path)
            invocation.return_value(None)
            return
        values = arguments.unpack()
        getattr(self, method)(invocation, *values)

    @staticmethod
    def answer(invocation, code, results=None):
        invocation.return_value(GLib.Variant("(ua{sv})", (code, results or {})))

    def CreateSession(self, invocation, _request, session, _app, _options):
        self.export(session, "Session")
        self.answer(invocation, 0)

    def SelectSources(self, invocation, _request, session, _app, options):
        self.options[session] = options
        self.answer(invocation, 0)

    def Start(self, invocation, _request, session, _app, _parent, _options):
        options = self.options.get(session, {})
        if "restore_data" in options:
            say("restored")
            self.share(invocation, session, options)
            return
        say("asked")
        file = self.folder / "answer"
        answer = file.read_text("ascii").strip() if file.exists() else "grant"
        if answer in ("grant", "window"):
            self.share(invocation, session, options, answer == "window")
        elif answer.startswith("node "):
            self.answer(invocation, 0, {"streams": GLib.Variant("a(ua{sv})", [(int(answer[5:]), {})])})
        elif answer != "silent":
            self.answer(invocation, 1 if answer == "refuse" else 2)

    def share(self, invocation, session, options, window=False):
        modes = {1: 0, 2: 1, 4: 2}  # the portal's, and mutter's

        def started(node):
            self.answer(invocation, 0, {
                "streams": GLib.Variant("a(ua{sv})", [(node, {"source_type": GLib.Variant("u", 1 + window)})]),
                "persist_mode": GLib.Variant("u", options.get("persist_mode", 0)),
                "restore_data": GLib.Variant("(suv)", ("screenrecord_test", 1, GLib.Variant("s", CONNECTOR)))})
            say("shared")

        self.sharing[session] = Mutter(self.bus, modes[options.get("cursor_mode", 1)], window, started)

    def end(self, session):
        if session in self.sharing:
            self.sharing.pop(session).stop()
            say("stopped")
        if session in self.objects:
            self.bus.unregister_object(self.objects.pop(session))

    def stop_all(self):
        for session in list(self.sharing):
            self.bus.emit_signal(None, session, "org.freedesktop.impl.portal.Session", "Closed", None)
            self.end(session)
        return True

    def move_pointer(self):
        x, y = map(float, (self.folder / "pointer").read_text("ascii").split())
        for mutter in self.sharing.values():
            mutter.move_pointer(x, y)
        say("moved")
        return True


if __name__ == "__main__":
    User(sys.argv[1])
    GLib.MainLoop().run()
