#!/usr/bin/env python3
"""Makes the README's pictures from real sessions: docs/images/make.py [BUILD]

client.svg: what a terminal shows during a recording of ten seconds, one picture a second.
frame.png:  a frame of a recording that a terminal on the recorded desktop runs.

Debian packages: openbox tint2 pcmanfm geany lxterminal gnome-themes-extra gtk2-engines-pixbuf papirus-icon-theme
hsetroot xdotool fonts-noto-core.
"""

import html
import os
import pty
import re
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "release"))
COMMAND = ["screenrecord", "record", "-o", "meeting.ts", "-t", "10"]
SETTINGS = {
    ".config/gtk-3.0/settings.ini": "[Settings]\ngtk-icon-theme-name=Papirus\ngtk-font-name=Noto Sans 10\n",
    ".gtkrc-2.0": 'gtk-theme-name="Adwaita"\ngtk-icon-theme-name="Papirus"\ngtk-font-name="Noto Sans 10"\n',
    ".config/lxterminal/lxterminal.conf":
        "[general]\nfontname=DejaVu Sans Mono 11\nbgcolor=rgb(30,30,46)\nfgcolor=rgb(224,224,224)\n"
        "hidemenubar=true\nhidescrollbar=true\npalette_color_2=rgb(126,198,153)\npalette_color_1=rgb(255,95,86)\n",
    ".config/geany/geany.conf":
        "[geany]\npref_main_load_session=false\npref_main_confirm_exit=false\nsidebar_visible=false\n"
        "msgwindow_visible=false\ntoolbar_visible=false\neditor_font=DejaVu Sans Mono 10\nload_vte=false\n",
    ".bashrc": "PS1='\\[\\e[32m\\]\\w \\$\\[\\e[0m\\] '\n",
}
# programs, and the place and size of each window
WINDOWS = (
    (["pcmanfm", "--no-desktop", "project"], "project", (20, 20, 560, 330)),
    (["geany", "project/first.c"], "first.c", (610, 20, 640, 400)),
    (["lxterminal", "--no-remote", "-t", "Terminal", "-e", "bash"], "Terminal", (120, 380, 840, 280)),
)


def make_home(home):
    for name, text in SETTINGS.items():
        os.makedirs(os.path.dirname(os.path.join(home, name)), exist_ok=True)
        with open(os.path.join(home, name), "w", encoding="utf-8") as file:
            file.write(text)
    project = os.path.join(home, "project")
    shutil.copytree(os.path.join(ROOT, "examples"), project)
    for name in ("README.md", "docs/performance.md", "docs/images/performance.svg"):
        shutil.copy(os.path.join(ROOT, name), project)
    with open(os.path.join(ROOT, "README.md"), encoding="utf-8") as readme:
        program = re.search(r"```c\n(.*?)```", readme.read(), re.DOTALL).group(1)
    with open(os.path.join(project, "first.c"), "w", encoding="utf-8") as file:
        file.write(program)


def place_window(title, x, y, width, height):
    window = subprocess.run(["xdotool", "search", "--sync", "--onlyvisible", "--name", title], check=True,
                            capture_output=True, text=True, timeout=60).stdout.split()[-1]
    subprocess.run(["xdotool", "windowsize", window, str(width), str(height), "windowmove", window, str(x), str(y),
                    "windowactivate", "--sync", window], check=True, timeout=60)


def start_screen(folder):
    """Starts X server, sound server and desktop. Returns their processes."""
    started = [subprocess.Popen([os.path.join(ROOT, "scripts", "virtual_display.sh"), "1280x720"],
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)]
    os.environ["DISPLAY"] = ":" + started[0].stdout.readline().strip()
    socket = os.path.join(folder, "sound")
    started.append(subprocess.Popen(["pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                                     "-L", "module-null-sink", "-L", f"module-native-protocol-unix socket={socket}"],
                                    stderr=subprocess.DEVNULL))
    os.environ.update(PULSE_SERVER="unix:" + socket, HOME=folder, XDG_RUNTIME_DIR=folder,
                      XDG_CONFIG_HOME=os.path.join(folder, ".config"), GSETTINGS_BACKEND="memory",
                      PATH=os.path.join(BUILD, "bin") + ":" + os.environ["PATH"])
    make_home(folder)
    os.chdir(folder)
    subprocess.run(["hsetroot", "-add", "#16324f", "-add", "#2a628f", "-add", "#7fb7be", "-gradient", "160"],
                   check=True, stdout=subprocess.DEVNULL)
    started += [subprocess.Popen([program], stderr=subprocess.DEVNULL) for program in ("openbox", "tint2")]
    while not os.path.exists(socket):
        time.sleep(0.1)
    started.append(subprocess.Popen(["ffmpeg", "-v", "quiet", "-re", "-f", "lavfi", "-i", "sine=440:r=48000", "-ac",
                                     "2", "-f", "pulse", "music"], stdin=subprocess.DEVNULL))
    return started


def open_windows():
    started = []
    for command, title, place in WINDOWS:
        started.append(subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        place_window(title, *place)
    return started


def save_frame(folder):
    """Types the command into the terminal of the desktop and takes a frame of its recording."""
    subprocess.run(["xdotool", "type", "--delay", "60", "ls project; " + " ".join(COMMAND) + "\n"], check=True)
    recording = os.path.join(folder, "meeting.ts")
    deadline = time.monotonic() + 60
    while not (os.path.exists(recording) and os.path.getsize(recording) and not recorder_runs()):
        if time.monotonic() > deadline:
            raise TimeoutError("the terminal has made no recording")
        time.sleep(0.2)
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-ss", "7", "-i", recording, "-frames:v", "1", "-vf",
                    "split[a][b];[a]palettegen=max_colors=192[p];[b][p]paletteuse=dither=none",
                    os.path.join(HERE, "frame.png")], check=True)


def recorder_runs():
    """Whether a program has the recording locked, as it is while it is made."""
    return subprocess.run(["flock", "--nonblock", "meeting.ts", "true"], check=False).returncode != 0


def terminal_output(folder):
    """Runs the command in a terminal. Returns the terminal's bytes."""
    process, terminal = pty.fork()
    if process == 0:
        os.chdir(folder)
        os.environ.update(TERM="xterm", LC_ALL="C.UTF-8")
        os.execv(os.path.join(BUILD, "bin", "screenrecord"), COMMAND)
    shown = b""
    while True:
        try:
            shown += os.read(terminal, 4096)
        except OSError:  # the other end is closed
            os.waitpid(process, 0)
            return shown.decode()


def svg(shown):
    lines = [line.strip("\r\n") for line in re.split(r"\r\x1b\[K", shown)]
    lines = [line for line in lines if line.startswith("\x1b[31m")]
    texts = [html.escape(re.sub(r"\x1b\[\d*m", "", line).strip()[1:]) for line in lines]
    seconds = len(texts) + 2

    def text(y, content, style=""):
        return f'<text x="16" y="{y}" xml:space="preserve"{style}>{content}</text>'

    def animated(first, last, content):
        values = ";".join("inline" if first <= second <= last else "none" for second in range(seconds))
        return (f'<g display="{"inline" if first == len(texts) - 1 else "none"}">{content}<animate '
                f'attributeName="display" values="{values}" dur="{seconds}s" repeatCount="indefinite"/></g>')

    mark = '<tspan fill="#ff5f56">●</tspan>'
    parts = [animated(n, n, text(60, mark + line)) for n, line in enumerate(texts)]
    parts.append(animated(len(texts), seconds, text(60, "meeting.ts") + text(84, '<tspan fill="#7ec699">$</tspan>')))
    return ('<svg xmlns="http://www.w3.org/2000/svg" width="800" height="104" font-family="monospace" font-size="15">'
            '<rect width="800" height="104" rx="8" fill="#1e1e2e"/><g fill="#e0e0e0">' +
            text(32, '<tspan fill="#7ec699">$</tspan> ' + " ".join(COMMAND)) + "".join(parts) + "</g></svg>\n")


def main():
    with tempfile.TemporaryDirectory() as folder:
        started = start_screen(folder)
        try:
            started += open_windows()
            save_frame(folder)
            os.remove(os.path.join(folder, "meeting.ts"))
            shown = terminal_output(folder)
        finally:
            for process in reversed(started):
                process.kill()
                process.wait()
        with open(os.path.join(HERE, "client.svg"), "w", encoding="utf-8") as file:
            file.write(svg(shown))


main()
