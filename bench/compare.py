#!/usr/bin/env python3
"""
Records one screen with this client, with ffmpeg, with GStreamer and with the floor, by turns, and compares what they cost;
in a Wayland session with wf-recorder.

    bench/compare.py [--rounds N] [--seconds N] [--only CASE,...] [--json FILE] [--plot FILE.svg] [--markdown FILE]
                     [--build DIR]

All encode with x264 at the same settings, which is checked from what x264 writes into the streams: veryfast, zerolatency,
the same rate control, a key frame every two seconds, one thread, no sound. The floor is bench_floor: shared-memory image,
one colour conversion, x264 and nothing else. Ratios are taken within a round, since a machine's speed drifts, and their
median is compared with what is wanted. The report ends with PASS or FAIL a line; the exit code is 1 when a line fails.
docs/measurements/ says what each case is and what to beware of.
"""

import argparse
import contextlib
import json
import os
import statistics
import sys
import tempfile

import plot
import recorders
from measuring import BusyLoops, Display, Session, latencies, record
from recorders import DAMAGE, DEFAULT, FLOOR, OURS, PEERS, QUARTER, WAYLAND_PEER

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The rates share no factor with 30, so each turn covers all phases between screen and capture, not three.
STAMPED = ["--fps", "53", "--stamps", "1007"]
MOVING, STILL = ["--fps", "60"], ["--static"]
OFFICE, WINDOW = ["bench_office"], ["bench_office", "--window"]
# wf-recorder copies each change: as many as the others record.
SESSION_MOVING, SESSION_STAMPED = ["--fps", "30"], ["--fps", "53", "--stamps"]

# name: size, pictures per second, screen content, busy loops, recorders
CASES = {
    "720p": ("1280x720", 30, MOVING, 0, [OURS, *PEERS, FLOOR, DEFAULT]),
    "1080p": ("1920x1080", 30, MOVING, 0, [OURS, *PEERS, FLOOR, DEFAULT]),
    "still": ("1280x720", 30, STILL, 0, [OURS, *PEERS, DAMAGE, DEFAULT]),
    "still-mp4": ("1280x720", 30, STILL, 0, [*PEERS, DEFAULT]),
    "window": ("1280x720", 30, WINDOW, 0, [*PEERS, DAMAGE, DEFAULT]),
    "office": ("1280x720", 30, OFFICE, 0, [*PEERS, DAMAGE, DEFAULT]),
    "office4k": ("3840x2160", 30, OFFICE, 0, [*PEERS, DAMAGE, DEFAULT]),
    "quarter": ("1280x720", 30, MOVING, 0, [DEFAULT, QUARTER]),
    # A size that the elementary-stream encoder does not round up, so all encode the same number of lines.
    "latency": ("1280x736", 30, STAMPED, 0, [OURS, *PEERS, FLOOR, DEFAULT]),
    "busy30": ("1920x1080", 30, MOVING, 2, [OURS, *PEERS]),
    "busy60": ("1920x1080", 60, MOVING, 6, [OURS, *PEERS]),
    # a Wayland session
    "sway": ("1280x720", 30, SESSION_MOVING, 0, [OURS, WAYLAND_PEER, DEFAULT]),
    "sway-still": ("1280x720", 30, STILL, 0, [OURS, WAYLAND_PEER, DEFAULT]),
    "sway-latency": ("1280x736", 30, SESSION_STAMPED, 0, [OURS, WAYLAND_PEER, DEFAULT]),
}

# The office's minute has parts of different cost, so recordings of it are that long, and one turn each is enough.
OFFICE_SECONDS = 60
# Cases in which a recorder may fall behind.
OVERLOADED = {"busy30", "busy60", "office4k"}

COSTS = {"cpu": "CPU s", "memory": "MiB", "server": "CPU s of X server or sway", "size": "KiB", "frames": "pictures"}
LESS, MORE = "at most", "at least"
# Goals at the peers' settings: text, case, figure, opponent ("peers" = the best of them), limit, aim
WANTED = [
    ("CPU, 720p", "720p", "cpu", "peers", LESS, 0.85, 0.80),
    ("CPU, 1080p", "1080p", "cpu", "peers", LESS, 0.85, 0.80),
    ("CPU against the floor, 720p", "720p", "cpu", FLOOR, LESS, 1.10, 1.04),
    ("CPU against the floor, 1080p", "1080p", "cpu", FLOOR, LESS, 1.10, 1.04),
    ("CPU, still screen", "still", "cpu", "peers", LESS, 0.65, 0.55),
    ("resident memory, 720p", "720p", "memory", "peers", LESS, 0.95, 0.85),
    ("resident memory, 1080p", "1080p", "memory", "peers", LESS, 1.00, 0.92),
    ("latency, median", "latency", "median", "peers", LESS, 0.85, 0.78),
    ("latency, 99th percentile", "latency", "p99", "peers", LESS, 1.00, 0.80),
    ("latency against the floor, median", "latency", "median", FLOOR, LESS, 1.10, 1.04),
    ("frames, 1080p30, two busy loops", "busy30", "share", None, MORE, 0.99, 1.00),
    ("frames per second, 1080p60, six busy loops", "busy60", "fps", "peers", MORE, 1.20, 1.40),
    ("CPU, sway", "sway", "cpu", "peers", LESS, 0.85, 0.80),
    ("CPU, sway, still screen", "sway-still", "cpu", "peers", LESS, 0.85, 0.55),
    ("resident memory, sway", "sway", "memory", "peers", LESS, 1.00, 0.92),
    ("latency, sway, median", "sway-latency", "median", "peers", LESS, 0.85, 0.78),
    ("X server's CPU against the floor's, 720p", "720p", "server", FLOOR, LESS, 1.10, 1.00),
    ("X server's CPU against the floor's, 1080p", "1080p", "server", FLOOR, LESS, 1.10, 1.00),
    ("size of the file, 720p", "720p", "size", "peers", LESS, 1.05, 1.00),
    ("size of the file, 1080p", "1080p", "size", "peers", LESS, 1.05, 1.00),
]
# The same for the client's default settings, and what is only wanted of these: that it costs little where little changes.
BY_DEFAULT = [("by default: " + one[0], *one[1:]) for one in [
    *(one for one in WANTED if one[3] == "peers" and one[2] != "size" and one[1] != "still" and DEFAULT in CASES[one[1]][4]),
    ("CPU, still screen", "still", "cpu", "peers", LESS, 0.12, 0.06),
    ("CPU, window", "window", "cpu", "peers", LESS, 0.30, 0.22),
    ("CPU, office", "office", "cpu", "peers", LESS, 0.35, 0.20),
    # the peers leave out more than half of the pictures
    ("CPU per picture, office, 3840x2160", "office4k", "cpu_per_frame", "peers", LESS, 0.40, 0.25),
    ("frames, office, 3840x2160", "office4k", "share", None, MORE, 1.00, 1.00),
    ("X server's CPU, window", "window", "server", "peers", LESS, 0.40, 0.20),
    ("X server's CPU without its drawing, window", "window", "fetching", "peers", LESS, 0.40, 0.20),
    ("size of the file, still screen", "still", "size", "peers", LESS, 0.60, 0.40),
    ("size of the file, still screen, MP4", "still-mp4", "size", "peers", LESS, 0.60, 0.40),
]]
# A part of the screen against all of it.
OF_PARTS = [("CPU, a quarter of the screen against the whole", "quarter", "cpu", DEFAULT, LESS, 0.40, 0.33)]


def is_stamped(case):
    return CASES[case][2] in (STAMPED, SESSION_STAMPED)


def measure(case, name, options, display, folder):
    """One recorder's turn in one round; repeated if pictures are missing, because only a busy machine explains that."""
    for _ in range(3):
        found = measure_once(case, name, options, display, folder)
        if case in OVERLOADED or found.get("share", 1) >= 0.99:
            return found
        print(f"  {case}, {name}: only {found['frames']} frames, measured again", flush=True)
    sys.exit(f"compare.py: {name} leaves pictures out at {case}: is the machine busy?")


def measure_once(case, name, options, display, folder):
    size, fps, screen, loops, _ = CASES[case]
    seconds = options.seconds * 3 // 4 if is_stamped(case) else OFFICE_SECONDS if screen is OFFICE else options.seconds
    task = recorders.Task(f"{options.build}/bin", size, fps, seconds, case in OVERLOADED, screen is STILL)
    environment = recorders.environment(name, task)
    if is_stamped(case):
        values = sorted(latencies(recorders.streaming(name, task), environment, task, folder))
        return {"median": statistics.median(values), "p99": values[int(0.99 * (len(values) - 1))], "frames": len(values)}
    path = recorded_file(folder, case, name)
    # Under load GStreamer falls behind: its time ends before it has its pictures.
    end_after = seconds if task.loaded and name in ("gstreamer", DAMAGE) or name == WAYLAND_PEER else None
    with BusyLoops(loops) if loops else contextlib.nullcontext():
        found = record(recorders.recording(name, task, path), environment, path, display, end_after)
    found["share"] = min(found["frames"] / task.frames, 1)
    return found


def recorded_file(folder, case, name):
    kind = "h264" if name == FLOOR else "mp4" if case.endswith("-mp4") else "ts"
    return f"{folder}/{case}-{name}.{kind}"


def turns(case, names):
    """
    The recorders of a round, in turn. There and back, and of the figures the mean: a virtual machine's speed jumps
    by a third from one ten seconds to the next, which is more than what is compared. Of latency, which is one figure a run,
    twice as many short ones. Beside busy loops one: the recorders differ by half there. Of the
    office one, since it lasts a minute.
    """
    if CASES[case][3] or CASES[case][2] is OFFICE:
        return names
    return (names + names[::-1]) * (2 if is_stamped(case) else 1)


def measure_round(case, names, options, display, folder):
    """The turns of all recorders; returns the mean cost of each."""
    costs = {name: [] for name in names}
    for name in turns(case, names):
        costs[name].append(measure(case, name, options, display, folder))
    return {name: {key: statistics.mean(one[key] for one in found) for key in found[0]} for name, found in costs.items()}


def measure_case(case, options, folder):
    """All rounds of a case: a list of {recorder: figures}."""
    size, _, screen, _, names = CASES[case]
    start = Session if WAYLAND_PEER in names else Display
    names = [name for name in names if recorders.installed(name)]
    rounds = []
    for number in range(options.rounds):
        turn = number % len(names)
        with start(f"{options.build}/bin", size, screen) as display:
            if screen is WINDOW:
                display.measure_drawing(options.seconds)
            rounds.append(measure_round(case, names[turn:] + names[:turn], options, display, folder))
    if not is_stamped(case):
        settings = {name: recorders.x264_settings(recorded_file(folder, case, name)) for name in names
                    if name not in (DEFAULT, QUARTER)}
        for key, values in recorders.differences(settings).items():
            print(f"  {case}: x264's {key} differs: {values}")
    return rounds


def compare(wanted, rounds, recorder):
    """The median of the ratios within each round; without an opponent the worst round's figure itself."""
    _, _, figure, against, sense, _, _ = wanted
    if against is None:
        return min(one[recorder][figure] for one in rounds)
    opponents = [*PEERS, DAMAGE, WAYLAND_PEER] if against == "peers" else [against]
    best = min if sense == LESS else max
    ratios = [one[recorder][figure] / best(one[name][figure] for name in opponents if name in one) for one in rounds]
    return statistics.median(ratios)


def report(results):
    """Prints the figures and the comparison. Returns the lines for the file and the plot."""
    for case, rounds in results.items():
        print(f"{case}: {CASES[case][0]} at {CASES[case][1]} per second, {len(rounds)} rounds, medians")
        for name in CASES[case][4]:
            if name in rounds[0]:
                figures = {key: statistics.median(one[name][key] for one in rounds) for key in rounds[0][name]}
                print(f"  {name:13}" + "".join(f"  {key} {value:.2f}" for key, value in figures.items()))
    lines = []
    for wanted, recorder in [*((one, OURS) for one in WANTED), *((one, DEFAULT) for one in BY_DEFAULT),
                             *((one, QUARTER) for one in OF_PARTS)]:
        words, case, _, _, sense, limit, aim = wanted
        if case not in results:
            continue
        ratio = compare(wanted, results[case], recorder)
        reached = [ratio <= value if sense == LESS else ratio >= value for value in (limit, aim)]
        verdict = "PASS, aim reached" if all(reached) else "PASS" if reached[0] else "FAIL"
        lines.append({"what": words, "ratio": ratio, "sense": sense, "limit": limit, "aim": aim, "verdict": verdict})
        print(f"{words:52} {ratio:5.2f}  {sense} {limit:.2f}, aim {aim:.2f}  {verdict}")
    return lines


def markdown(results, lines):
    """The report in the format of docs/performance.md."""
    ratios = [f"| {one['what']} | {one['sense']} {one['limit']:.2f} | {one['aim']:.2f} | {one['ratio']:.2f} | "
              f"{one['verdict']} |" for one in lines]
    costs = [f"| {case} | {name} | "
             f"{' | '.join(f'{statistics.median(one[name][key] for one in rounds):.2f}' for key in COSTS)} |"
             for case, rounds in results.items() if not is_stamped(case) for name in CASES[case][4] if name in rounds[0]]
    return "\n".join(["| | at most/least | aim | measured | |", "|---|---|---|---|---|", *ratios, "",
                      f"| case | recorder | {' | '.join(COSTS.values())} |", "|---|---|" + "---|" * len(COSTS), *costs, ""])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=f"{ROOT}/build/release")
    parser.add_argument("--seconds", type=int, default=8)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", type=lambda text: text.split(","), default=list(CASES))
    parser.add_argument("--json")
    parser.add_argument("--plot")
    parser.add_argument("--markdown")
    options = parser.parse_args()
    if unknown := set(options.only) - set(CASES):
        parser.error(f"no such case: {', '.join(unknown)}; there are {', '.join(CASES)}")
    peers = [name for name in (*PEERS, WAYLAND_PEER) if any(name in CASES[case][4] for case in options.only)]
    if missing := [name for name in peers if not recorders.installed(name)]:
        parser.error(f"{' and '.join(missing)} must be installed to be compared with")
    with tempfile.TemporaryDirectory() as folder:
        results = {case: measure_case(case, options, folder) for case in options.only}
    lines = report(results)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"seconds": options.seconds, "cases": results, "lines": lines}, file, indent=1)
    if options.plot:
        with open(options.plot, "w", encoding="utf-8") as file:
            file.write(plot.draw(results, lines))
    if options.markdown:
        with open(options.markdown, "w", encoding="utf-8") as file:
            file.write(markdown(results, lines))
    sys.exit(any(line["verdict"] == "FAIL" for line in lines))


if __name__ == "__main__":
    main()
