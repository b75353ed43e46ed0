#!/usr/bin/env python3
"""Makes the pictures of the README from a real session: docs/images/make.py [BUILD], with a display of its own.

Records some programs of x11-apps for ten seconds in a terminal of 80 columns, and writes what the terminal showed
(client.svg, one picture a second) and a frame of the recording (frame.png).
"""

import html
import os
import pty
import re
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "..", "..", "build", "release"))
COMMAND = ["screenrecord", "record", "-o", "meeting.ts", "-t", "10"]
WINDOWS = (["xclock", "-update", "1", "-geometry", "300x300+40+40"], ["xcalc", "-geometry", "+400+60"],
           ["xeyes", "-geometry", "260x180+700+80"], ["xlogo", "-geometry", "260x260+980+400"],
           ["oclock", "-geometry", "200x200+60+440"])


def start_screen(folder):
    reader, writer = os.pipe()
    started = [subprocess.Popen(["Xvfb", "-displayfd", str(writer), "-screen", "0", "1280x720x24", "-nolisten", "tcp"],
                                pass_fds=[writer], stderr=subprocess.DEVNULL)]
    os.close(writer)
    with os.fdopen(reader) as number:
        os.environ["DISPLAY"] = ":" + number.readline().strip()
    socket = os.path.join(folder, "sound")
    started.append(subprocess.Popen(["pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                                     "-L", "module-null-sink", "-L", f"module-native-protocol-unix socket={socket}"],
                                    stderr=subprocess.DEVNULL))
    os.environ["PULSE_SERVER"] = "unix:" + socket
    started += [subprocess.Popen(window, stderr=subprocess.DEVNULL) for window in WINDOWS]
    while not os.path.exists(socket):
        time.sleep(0.1)
    started.append(subprocess.Popen(["ffmpeg", "-v", "quiet", "-re", "-f", "lavfi", "-i", "sine=440:r=48000", "-ac",
                                     "2", "-f", "pulse", "music"], stdin=subprocess.DEVNULL))
    return started


def terminal_output(folder):
    """What a terminal gets to see, until the program ends."""
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
            time.sleep(2)  # for the windows to be drawn
            shown = terminal_output(folder)
        finally:
            for process in reversed(started):
                process.kill()
                process.wait()
        with open(os.path.join(HERE, "client.svg"), "w", encoding="utf-8") as file:
            file.write(svg(shown))
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-ss", "5", "-i", os.path.join(folder, "meeting.ts"),
                        "-frames:v", "1", "-vf", "scale=800:-1", os.path.join(HERE, "frame.png")], check=True)


main()
